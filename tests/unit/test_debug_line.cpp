// The line format that the framework writes to Qt's message log.
#include "debug_line.h"
#include "message_log.h"

#include <QDateTime>
#include <QLocale>
#include <QRegularExpression>
#include <QtTest>

namespace
{

const char Module[] = "plugins/base/some_module";

const QString TimePattern = QStringLiteral("\\d{4}-\\d\\d-\\d\\d-\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d");

bool matches(const QString &text, const QString &pattern)
{
    return QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(text).hasMatch();
}

} // namespace

class TestDebugLine : public QObject
{
    Q_OBJECT

private slots:
    void functionNameIsCleaned_data();
    void functionNameIsCleaned();
    void moduleIsGivenByItsBaseName_data();
    void moduleIsGivenByItsBaseName();
    void prefixCarriesTheMarkerOfErrors();
    void prefixOfOtherLinesHasNoMarker();
    void prefixCutsQualifiersOfErrorLinesOnly();
    void timeIsLocalAndCurrent();
    void timeKeepsItsDigitsInEveryLocale();
    void criticalLineReadsHeaderTabText();
    void criticalLineIsOfCategoryDefault();
    void criticalLineIsAnErrorUnlessToldOtherwise();
    void debugLineHasDebugSeverityAndNoMarker();
    void laterItemsPrintInTheLogsUsualForm();
    void lineIsWrittenOnceWhenTheStreamEnds();
};

void TestDebugLine::functionNameIsCleaned_data()
{
    QTest::addColumn<QString>("function");
    QTest::addColumn<QString>("clean");
    QTest::addColumn<QString>("lastPart");
    const auto row = [](const char *function, const char *clean, const char *lastPart) {
        QTest::newRow(function) << QString::fromLatin1(function) << QString::fromLatin1(clean)
                                << QString::fromLatin1(lastPart);
    };
    row("connect_msg", "connect_msg", "connect_msg");
    row("Plugin_base::connect_msg", "Plugin_base::connect_msg", "connect_msg");
    row("bool A::f(int)", "f()", "f()");
    row("bool f(int)", "f()", "f()");
    row("void A::B::f_2(int, QString) const", "f_2()", "f_2()");
    row("virtual A::~A()", "~A()", "~A()");
    row("static QList<int> A::list()", "list()", "list()");
    row("T sum<T>(T) [with T = int]", "sum<T>()", "sum<T>()");
    row("A::A(int)", "A::A(int)", "A(int)");
    row("f(int)", "f(int)", "f(int)");
    row("", "", "");
}

void TestDebugLine::functionNameIsCleaned()
{
    QFETCH(QString, function);
    QTEST(DebugLine::cleanFunctionName(function, false), "clean");
    QTEST(DebugLine::cleanFunctionName(function, true), "lastPart");
}

void TestDebugLine::moduleIsGivenByItsBaseName_data()
{
    QTest::addColumn<QByteArray>("module");
    QTest::addColumn<QString>("baseName");
    QTest::newRow("slashes") << QByteArray("plugins/base/vextplugin_base")
                             << QStringLiteral("vextplugin_base");
    QTest::newRow("backslashes") << QByteArray("plugins\\base\\file") << QStringLiteral("file");
    QTest::newRow("backslash last") << QByteArray("a/b\\file") << QStringLiteral("file");
    QTest::newRow("slash last") << QByteArray("a\\b/file") << QStringLiteral("file");
    QTest::newRow("no folder") << QByteArray("file") << QStringLiteral("file");
    QTest::newRow("with a dot") << QByteArray("a/file.cpp") << QStringLiteral("file.cpp");
}

void TestDebugLine::moduleIsGivenByItsBaseName()
{
    QFETCH(QByteArray, module);
    QFETCH(QString, baseName);
    const QString prefix = DebugLine::prefix(module.constData(), 87, "f", DebugLine::Mark::None);
    QCOMPARE(prefix.section(QLatin1Char(' '), 1), baseName + QStringLiteral(":87 f"));
}

void TestDebugLine::prefixCarriesTheMarkerOfErrors()
{
    const QString prefix = DebugLine::prefix(Module, 12, "f", DebugLine::Mark::Error);
    QVERIFY2(matches(prefix, TimePattern + QStringLiteral(" some_module:12 ~~~~ f")),
             qPrintable(prefix));
}

void TestDebugLine::prefixOfOtherLinesHasNoMarker()
{
    const QString prefix = DebugLine::prefix(Module, 12, "f", DebugLine::Mark::None);
    QVERIFY2(matches(prefix, TimePattern + QStringLiteral(" some_module:12 f")),
             qPrintable(prefix));
}

void TestDebugLine::prefixCutsQualifiersOfErrorLinesOnly()
{
    QVERIFY(DebugLine::prefix(Module, 1, "A::f", DebugLine::Mark::Error)
                .endsWith(QStringLiteral(" some_module:1 ~~~~ f")));
    QVERIFY(DebugLine::prefix(Module, 1, "A::f", DebugLine::Mark::None)
                .endsWith(QStringLiteral(" some_module:1 A::f")));
}

void TestDebugLine::timeIsLocalAndCurrent()
{
    const QDateTime before = QDateTime::currentDateTime();
    const QString prefix = DebugLine::prefix(Module, 1, "f", DebugLine::Mark::None);
    const QDateTime after = QDateTime::currentDateTime();
    const QDateTime written = QDateTime::fromString(prefix.section(QLatin1Char(' '), 0, 0),
                                                    QStringLiteral("yyyy-MM-dd-hh:mm:ss.zzz"));
    QVERIFY2(written.isValid(), qPrintable(prefix));
    QVERIFY2(before <= written && written <= after, qPrintable(prefix));
}

void TestDebugLine::timeKeepsItsDigitsInEveryLocale()
{
    const QLocale former;
    QLocale::setDefault(QLocale(QLocale::Arabic, QLocale::Egypt));
    const QString prefix = DebugLine::prefix(Module, 1234, "f", DebugLine::Mark::None);
    QLocale::setDefault(former);
    QVERIFY2(matches(prefix, QStringLiteral("[-0-9:.]{23} some_module:1234 f")),
             qPrintable(prefix));
}

void TestDebugLine::criticalLineReadsHeaderTabText()
{
    const MessageLog log;
    DebugLine::critical(Module, 230, "js_f") << "aCount" << 7;
    QCOMPARE(log.lines().size(), 1);
    const QString text = log.lines().first().text;
    QVERIFY2(matches(text, TimePattern + QStringLiteral(" some_module:230 ~~~~ js_f \t aCount 7")),
             qPrintable(text));
}

void TestDebugLine::criticalLineIsOfCategoryDefault()
{
    const MessageLog log;
    DebugLine::critical(Module, 230, "js_f") << "text";
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(log.lines().first().severity, QtCriticalMsg);
    QCOMPARE(log.lines().first().category, QStringLiteral("default"));
}

void TestDebugLine::criticalLineIsAnErrorUnlessToldOtherwise()
{
    const MessageLog log;
    DebugLine::critical(Module, 1, "f") << "one";
    DebugLine::critical(Module, 1, "f", DebugLine::Mark::None) << "two";
    QCOMPARE(log.matching(QtCriticalMsg, QStringLiteral(" some_module:1 ~~~~ f \t one$")).size(),
             1);
    QCOMPARE(log.matching(QtCriticalMsg, QStringLiteral(" some_module:1 f \t two$")).size(), 1);
}

void TestDebugLine::debugLineHasDebugSeverityAndNoMarker()
{
    const MessageLog log;
    DebugLine::debug(Module, 5, "void A::run()") << "step 1: all count " << 3;
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(log.lines().first().severity, QtDebugMsg);
    QCOMPARE(log.lines().first().category, QStringLiteral("default"));
    const QString text = log.lines().first().text;
    QVERIFY2(matches(text, TimePattern +
                               QStringLiteral(" some_module:5 run\\(\\) \t step 1: all count  3")),
             qPrintable(text));
}

void TestDebugLine::laterItemsPrintInTheLogsUsualForm()
{
    QObject object;
    object.setObjectName(QStringLiteral("it"));
    QString usual;
    QDebug(&usual).nospace() << &object << ' ' << QStringLiteral("quoted") << ' ' << true;
    const MessageLog log;
    DebugLine::critical(Module, 1, "f") << &object << QStringLiteral("quoted") << true;
    QCOMPARE(log.lines().size(), 1);
    QCOMPARE(log.lines().first().text.section(QLatin1Char('\t'), 1), QLatin1Char(' ') + usual);
}

void TestDebugLine::lineIsWrittenOnceWhenTheStreamEnds()
{
    const MessageLog log;
    {
        QDebug stream = DebugLine::critical(Module, 1, "f");
        stream << "first";
        QCOMPARE(log.lines().size(), 0);
        stream << "second";
    }
    QCOMPARE(log.lines().size(), 1);
    QVERIFY(log.lines().first().text.endsWith(QStringLiteral("\t first second")));
}

QTEST_GUILESS_MAIN(TestDebugLine)

#include "test_debug_line.moc"
