// Results as tables for readers and as CSV and JSON for programs.

#include "result_printer.h"

#include <QScriptEngine>
#include <QtTest>

namespace
{

/// Three rows of a number and a text.
const char Sample[] =
    "({fields_names: ['n', 'text'], fields_index: [[1, 2.5, null], ['a', '', 'say \"x\",\\nb']],"
    " fields_nulls: [[2], []], fields_types: [6, 10], rows: 3})";

} // namespace

class TestResultPrinter : public QObject
{
    Q_OBJECT

private slots:
    void formsOfAResult_data();
    void formsOfAResult();
    void emptyResults_data();
    void emptyResults();
    void statementsWithoutColumnsCountRowsForReadersOnly();
    void nullThatReadsAsAValueIsNull();
    void datesPrintAsDates();
    void wideTableIsExpanded();
    void noteStandsBehindTheCount();
    void columnsOfOneNameAreToldApartInJson();
    void jsonHoldsWhatProgramsRead();
    void tableListIsAResult();
    void sinkEndsThePrinting();
    void namesOfForms();

private:
    QString printed(const QString &code, const ResultPrinter &printer)
    {
        QString text;
        const bool through = printer.print(m_engine.evaluate(code), [&text](const QString &piece) {
            text += piece;
            return true;
        });
        return through ? text : QStringLiteral("stopped");
    }

    QString printed(const QString &code, ResultFormat format)
    {
        return printed(code, ResultPrinter(format));
    }

    QScriptEngine m_engine;
};

void TestResultPrinter::formsOfAResult_data()
{
    QTest::addColumn<int>("format");
    QTest::addColumn<QString>("text");
    const auto row = [](const char *name, ResultFormat format, const char *text) {
        QTest::newRow(name) << int(format) << QString::fromUtf8(text);
    };
    row("table", ResultFormat::Table,
        "   n | text\n-----+------------\n   1 | a\n 2.5 |\nNULL | say \"x\",\\nb\n(3 rows)\n");
    row("expanded", ResultFormat::Expanded,
        "-[ row 1 ]-\nn    | 1\ntext | a\n-[ row 2 ]-\nn    | 2.5\ntext | \n"
        "-[ row 3 ]-\nn    | NULL\ntext | say \"x\",\\nb\n(3 rows)\n");
    row("csv", ResultFormat::Csv, "n,text\r\n1,a\r\n2.5,\"\"\r\n,\"say \"\"x\"\",\nb\"\r\n");
    row("json", ResultFormat::Json,
        "[\n{\"n\":1,\"text\":\"a\"},\n{\"n\":2.5,\"text\":\"\"},\n"
        "{\"n\":null,\"text\":\"say \\\"x\\\",\\nb\"}\n]\n");
    row("json-lines", ResultFormat::JsonLines,
        "{\"n\":1,\"text\":\"a\"}\n{\"n\":2.5,\"text\":\"\"}\n"
        "{\"n\":null,\"text\":\"say \\\"x\\\",\\nb\"}\n");
    row("list", ResultFormat::List, "n|text\n1|a\n2.5|\n|say \"x\",\\nb\n");
}

void TestResultPrinter::formsOfAResult()
{
    QFETCH(int, format);
    QFETCH(QString, text);
    QCOMPARE(printed(QLatin1String(Sample), static_cast<ResultFormat>(format)), text);
}

void TestResultPrinter::emptyResults_data()
{
    QTest::addColumn<int>("format");
    QTest::addColumn<QString>("text");
    QTest::newRow("table") << int(ResultFormat::Table) << "a\n-\n(0 rows)\n";
    QTest::newRow("expanded") << int(ResultFormat::Expanded) << "(0 rows)\n";
    QTest::newRow("csv") << int(ResultFormat::Csv) << "a\r\n";
    QTest::newRow("json") << int(ResultFormat::Json) << "[]\n";
    QTest::newRow("json-lines") << int(ResultFormat::JsonLines) << "";
    QTest::newRow("list") << int(ResultFormat::List) << "a\n";
}

void TestResultPrinter::emptyResults()
{
    QFETCH(int, format);
    QFETCH(QString, text);
    QCOMPARE(printed(QStringLiteral("({fields_names: ['a'], fields_index: [[]]})"),
                     static_cast<ResultFormat>(format)),
             text);
}

void TestResultPrinter::statementsWithoutColumnsCountRowsForReadersOnly()
{
    const QString code =
        QStringLiteral("({fields_names: [], fields_index: [], numRowsAffected: 1})");
    QCOMPARE(printed(code, ResultFormat::Table), QStringLiteral("(1 affected row)\n"));
    QCOMPARE(printed(code, ResultFormat::Expanded), QStringLiteral("(1 affected row)\n"));
    QCOMPARE(printed(code, ResultFormat::Csv), QString());
    QCOMPARE(printed(code, ResultFormat::Json), QString());
}

void TestResultPrinter::nullThatReadsAsAValueIsNull()
{
    const QString code = QStringLiteral(
        "({fields_names: ['a'], fields_index: [['', 'x', '']], fields_nulls: [[0]]})");
    QCOMPARE(printed(code, ResultFormat::Csv), QStringLiteral("a\r\n\r\nx\r\n\"\"\r\n"));
    QCOMPARE(printed(code, ResultFormat::JsonLines),
             QStringLiteral("{\"a\":null}\n{\"a\":\"x\"}\n{\"a\":\"\"}\n"));
}

void TestResultPrinter::datesPrintAsDates()
{
    const QString code = QStringLiteral(
        "var d = new Date(2024, 1, 29), t = new Date(2024, 1, 29, 12, 34, 56),"
        " m = new Date(2024, 1, 29, 12, 34, 56, 7);"
        "({fields_names: ['d', 't'], fields_index: [[d, d], [t, m]], fields_types: [14, 16]})");
    QCOMPARE(printed(code, ResultFormat::Table),
             QStringLiteral("d          | t\n-----------+------------------------\n"
                            "2024-02-29 | 2024-02-29 12:34:56\n"
                            "2024-02-29 | 2024-02-29 12:34:56.007\n(2 rows)\n"));
    QCOMPARE(printed(code, ResultFormat::Csv),
             QStringLiteral("d,t\r\n2024-02-29,2024-02-29T12:34:56\r\n"
                            "2024-02-29,2024-02-29T12:34:56.007\r\n"));
}

void TestResultPrinter::wideTableIsExpanded()
{
    const QString code =
        QStringLiteral("({fields_names: ['a', 'b'], fields_index: [['12345678'], ['12345678']]})");
    ResultPrinter printer;
    printer.setScreenWidth(19);
    QVERIFY(printed(code, printer).startsWith(QLatin1String("a        | b\n")));
    printer.setScreenWidth(18);
    QCOMPARE(printed(code, printer),
             QStringLiteral("-[ row 1 ]-\na | 12345678\nb | 12345678\n(1 row)\n"));
}

void TestResultPrinter::noteStandsBehindTheCount()
{
    ResultPrinter printer;
    printer.setNote(QStringLiteral("5 ms"));
    QCOMPARE(printed(QStringLiteral("({fields_names: ['a'], fields_index: [[1]]})"), printer),
             QStringLiteral("a\n-\n1\n(1 row, 5 ms)\n"));
}

void TestResultPrinter::columnsOfOneNameAreToldApartInJson()
{
    QCOMPARE(printed(QStringLiteral("({fields_names: ['a', 'a', 'a_2', 'a'],"
                                    " fields_index: [[1], [2], [3], [4]]})"),
                     ResultFormat::JsonLines),
             QStringLiteral("{\"a\":1,\"a_2\":2,\"a_2_2\":3,\"a_3\":4}\n"));
}

void TestResultPrinter::jsonHoldsWhatProgramsRead()
{
    QCOMPARE(printed(QStringLiteral("({fields_names: ['v'], fields_index: [[true, 1e21, 0/0,"
                                    " '\\u0001\\\\\\t\\uD800', '\\uD83D\\uDE00', -0.5]]})"),
                     ResultFormat::JsonLines),
             QString::fromUtf8("{\"v\":true}\n{\"v\":1e+21}\n{\"v\":null}\n"
                               "{\"v\":\"\\u0001\\\\\\t\\ud800\"}\n{\"v\":\"😀\"}\n{\"v\":-0.5}\n"));
}

void TestResultPrinter::tableListIsAResult()
{
    QCOMPARE(printed(QStringLiteral("({TABLES: ['a', 'b'], fields: 1})"), ResultFormat::Csv),
             QStringLiteral("TABLES\r\na\r\nb\r\n"));
}

void TestResultPrinter::sinkEndsThePrinting()
{
    const QScriptValue result = m_engine.evaluate(
        QStringLiteral("var a = []; for (var i = 0; i < 200000; i++) a.push('0123456789');"
                       "({fields_names: ['a'], fields_index: [a]})"));
    int pieces = 0;
    const bool through = ResultPrinter(ResultFormat::Csv).print(result, [&pieces](const QString &) {
        return ++pieces < 2;
    });
    QVERIFY(!through);
    QCOMPARE(pieces, 2);
}

void TestResultPrinter::namesOfForms()
{
    ResultFormat format = ResultFormat::Table;
    for (const QString &name : ResultPrinter::formatNames()) {
        QVERIFY(ResultPrinter::formatOfName(name, &format));
        QCOMPARE(ResultPrinter::nameOfFormat(format), name);
    }
    QCOMPARE(ResultPrinter::formatNames().size(), 6);
    QVERIFY(!ResultPrinter::formatOfName(QStringLiteral("xml"), &format));
}

QTEST_GUILESS_MAIN(TestResultPrinter)
#include "test_result_printer.moc"
