// Tables of text: alignment, NULL against the empty string, and texts that would break a line.

#include "table_printer.h"

#include <QtTest>

namespace
{

TableCell cell(const QString &text)
{
    return {text, false};
}

TableCell null()
{
    return {QString(), true};
}

TableColumn column(const QString &heading, const QVector<TableCell> &cells, bool right = false)
{
    return {heading, cells, right};
}

} // namespace

class TestTablePrinter : public QObject
{
    Q_OBJECT

private slots:
    void columnsStandAlignedUnderTheirHeadings();
    void numbersAreAlignedToTheRight();
    void nullIsToldFromTheEmptyStringAndFromItsOwnName();
    void headingsAndRuleArePrintedWithoutRows();
    void shortColumnsEndInBlanks();
    void noColumnsGiveAnEmptyHeading();
    void controlCharactersStayInTheirLine();
    void longTextsEndInAnEllipsis();
    void textsCutBeforeTheirWidthIsReachedSaySo();
    void widthCountsScreenCells_data();
    void widthCountsScreenCells();
    void linesHaveNoBlanksAtTheirEnd();
    void manyRowsArePrintedAll();
};

void TestTablePrinter::columnsStandAlignedUnderTheirHeadings()
{
    const QString text = TablePrinter::print(
        {column(QStringLiteral("id"), {cell(QStringLiteral("1")), cell(QStringLiteral("1000"))}),
         column(QStringLiteral("name"),
                {cell(QStringLiteral("болт")), cell(QStringLiteral("гайка"))})});
    QCOMPARE(text, QStringLiteral("id   | name\n"
                                  "-----+------\n"
                                  "1    | болт\n"
                                  "1000 | гайка\n"));
}

void TestTablePrinter::numbersAreAlignedToTheRight()
{
    const QString text = TablePrinter::print(
        {column(QStringLiteral("price"), {cell(QStringLiteral("0.25")), null()}, true),
         column(QStringLiteral("x"), {cell(QStringLiteral("a")), cell(QStringLiteral("b"))})});
    QCOMPARE(text, QStringLiteral("price | x\n"
                                  "------+--\n"
                                  " 0.25 | a\n"
                                  " NULL | b\n"));
}

void TestTablePrinter::nullIsToldFromTheEmptyStringAndFromItsOwnName()
{
    QCOMPARE(TablePrinter::cellText(null()), QStringLiteral("NULL"));
    QCOMPARE(TablePrinter::cellText(cell(QString())), QString());
    QCOMPARE(TablePrinter::cellText(cell(QStringLiteral("NULL"))), QStringLiteral("'NULL'"));
    QCOMPARE(TablePrinter::cellText(cell(QStringLiteral("null"))), QStringLiteral("null"));
}

void TestTablePrinter::headingsAndRuleArePrintedWithoutRows()
{
    QCOMPARE(TablePrinter::print({column(QStringLiteral("ab"), {}), column(QString(), {})}),
             QStringLiteral("ab |\n---+--\n"));
}

void TestTablePrinter::shortColumnsEndInBlanks()
{
    const QString text = TablePrinter::print(
        {column(QStringLiteral("a"), {cell(QStringLiteral("1"))}),
         column(QStringLiteral("b"), {cell(QStringLiteral("2")), cell(QStringLiteral("3"))})});
    QCOMPARE(text, QStringLiteral("a | b\n--+--\n1 | 2\n  | 3\n"));
}

void TestTablePrinter::noColumnsGiveAnEmptyHeading()
{
    QCOMPARE(TablePrinter::print({}), QStringLiteral("\n\n"));
}

void TestTablePrinter::controlCharactersStayInTheirLine()
{
    QCOMPARE(TablePrinter::cellText(cell(QStringLiteral("a\nb\tc\rd"))),
             QStringLiteral("a\\nb\\tc\\rd"));
    QCOMPARE(TablePrinter::cellText(cell(QString(QChar(0)) + QChar(0x1B))),
             QStringLiteral("\\x00\\x1b"));
}

void TestTablePrinter::longTextsEndInAnEllipsis()
{
    const QString exact(TablePrinter::maxCellWidth, QLatin1Char('a'));
    QCOMPARE(TablePrinter::cellText(cell(exact)), exact);
    const QString cut = exact.left(TablePrinter::maxCellWidth - 1) + QChar(0x2026);
    QCOMPARE(TablePrinter::cellText(cell(exact + QLatin1Char('a'))), cut);
    QCOMPARE(TablePrinter::cellText(cell(exact.repeated(10000))), cut);
}

void TestTablePrinter::textsCutBeforeTheirWidthIsReachedSaySo()
{
    // Combining marks take no room, so a long text may be a narrow one.
    const QString marks(1000, QChar(0x0301));
    QVERIFY(TablePrinter::cellText(cell(marks)).endsWith(QChar(0x2026)));
}

void TestTablePrinter::widthCountsScreenCells_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("width");
    QTest::newRow("empty") << QString() << 0;
    QTest::newRow("latin") << QStringLiteral("abc") << 3;
    QTest::newRow("cyrillic") << QStringLiteral("Ёж") << 2;
    QTest::newRow("combining mark") << QStringLiteral("e\u0301") << 1;
    QTest::newRow("wide") << QStringLiteral("漢字") << 4;
    QTest::newRow("outside the basic plane") << QStringLiteral("\U0001F600") << 2;
    QTest::newRow("zero width joiner") << QStringLiteral("a\u200Db") << 2;
}

void TestTablePrinter::widthCountsScreenCells()
{
    QFETCH(QString, text);
    QFETCH(int, width);
    QCOMPARE(TablePrinter::width(text), width);
}

void TestTablePrinter::linesHaveNoBlanksAtTheirEnd()
{
    const QString text = TablePrinter::print(
        {column(QStringLiteral("name"), {cell(QStringLiteral("a")), cell(QString())})});
    QCOMPARE(text, QStringLiteral("name\n----\na\n\n"));
}

void TestTablePrinter::manyRowsArePrintedAll()
{
    QVector<TableCell> cells;
    for (int i = 0; i < 50000; ++i)
        cells.append(cell(QString::number(i)));
    const QString text = TablePrinter::print({column(QStringLiteral("n"), cells, true)});
    QCOMPARE(text.count(QLatin1Char('\n')), 50002);
    QVERIFY(text.endsWith(QStringLiteral("\n49999\n")));
    QVERIFY(text.startsWith(QStringLiteral("    n\n-----\n    0\n")));
}

QTEST_GUILESS_MAIN(TestTablePrinter)
#include "test_table_printer.moc"
