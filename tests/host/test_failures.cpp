// Failures that a script does not see itself: nobody misses them.

#include "host_process.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#define VERIFY_OUTCOME(condition, outcome) QVERIFY2(condition, (outcome).described().constData())

class TestFailures : public QObject
{
    Q_OBJECT

private slots:
    void aTaskThatNobodyListensToFailsTheProgram_data();
    void aTaskThatNobodyListensToFailsTheProgram();
    void aTaskThatSomebodyListensToDoesNot_data();
    void aTaskThatSomebodyListensToDoesNot();
    void aHandlerThatIsTakenAwayListensNoMore();
    void aSynchronousFailureIsTheScriptsToSee();
    void anExceptionInACallbackNamesTheConnection();
    void keepGoingGoesOnAndEndsWithCode1();
    void aMisspeltPropertyIsToldOnceWithTheNearest_data();
    void aMisspeltPropertyIsToldOnceWithTheNearest();
    void ownPropertiesOfAScriptAreNotTold();
    void aMissingDriverNamesItsPackage();
    void aMessageIsOneLineWithTimeLevelConnectionAndPlace();
};

namespace
{

/// The lines on standard error, without the time that each begins with.
QStringList toldLines(const HostOutcome &outcome)
{
    QStringList lines = outcome.errors.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    const QRegularExpression time(
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} "));
    for (QString &line : lines)
        line.remove(time);
    return lines;
}

} // namespace

void TestFailures::aTaskThatNobodyListensToFailsTheProgram_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("line");
    QTest::newRow("query_thread") << QStringLiteral("db.query_thread('select  nope')")
                                  << QStringLiteral("error [main] task failed: no such column: nope"
                                                    " (select nope)");
    QTest::newRow("one of several")
        << QStringLiteral("db.query_thread(['select 1', 'select nope', 'select 2'])")
        << QStringLiteral("error [main] task failed: no such column: nope");
    QTest::newRow("exec_thread") << QStringLiteral("db.exec_thread('insert into nope values', [1])")
                                 << QStringLiteral("error [main] task failed: ");
    QTest::newRow("what the plugin tells itself")
        << QStringLiteral("db.query_thread('')")
        << QStringLiteral("error [main] run: пустой запрос");
}

void TestFailures::aTaskThatNobodyListensToFailsTheProgram()
{
    QFETCH(QString, code);
    QFETCH(QString, line);
    const HostOutcome outcome =
        runCode(openSqlite() + code + QStringLiteral(";\nsetTimeout(quit, 60000, 9);"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 1, outcome);
    VERIFY_OUTCOME(toldLines(outcome).size() == 1, outcome);
    VERIFY_OUTCOME(toldLines(outcome).first().startsWith(line), outcome);
}

void TestFailures::aTaskThatSomebodyListensToDoesNot_data()
{
    QTest::addColumn<QString>("code");
    QTest::newRow("callback") << QStringLiteral("db.query_thread(function (r, e) { print(e) },"
                                                " 'select nope')");
    QTest::newRow("handler") << QStringLiteral(
        "db.query_finish.connect(function (f, r, e) { print(e) }); db.query_thread('select nope')");
    QTest::newRow("success") << QStringLiteral("db.query_thread('select 1');"
                                               " print('no such column: nope')");
}

void TestFailures::aTaskThatSomebodyListensToDoesNot()
{
    QFETCH(QString, code);
    const HostOutcome outcome = runCode(openSqlite() + code);
    QCOMPARE(outcome.output, QStringLiteral("no such column: nope\n"));
    VERIFY_OUTCOME(outcome.exitCode == 0 && outcome.errors.isEmpty(), outcome);
}

void TestFailures::aHandlerThatIsTakenAwayListensNoMore()
{
    const HostOutcome outcome =
        runCode(openSqlite() + QStringLiteral("function seen() { print('seen') }\n"
                                              "db.query_finish.connect(seen);"
                                              " db.query_finish.disconnect(seen);\n"
                                              "db.query_thread('select nope')"));
    VERIFY_OUTCOME(outcome.exitCode == 1 && outcome.output.isEmpty(), outcome);
}

void TestFailures::aSynchronousFailureIsTheScriptsToSee()
{
    const HostOutcome outcome =
        runCode(openSqlite() + QStringLiteral("print(db.query('select nope'))"));
    QCOMPARE(outcome.output, QStringLiteral("false\n"));
    QCOMPARE(toldLines(outcome),
             QStringList{QStringLiteral("error [main] [code]:2 query: ошибка выполнения: 'no such"
                                        " column: nope Unable to execute statement'")});
    QCOMPARE(outcome.exitCode, 0);
}

void TestFailures::anExceptionInACallbackNamesTheConnection()
{
    const HostOutcome outcome = runCode(
        openSqlite() +
        QStringLiteral("db.query_thread(function () { throw new Error('x') }, 'select 1')"));
    VERIFY_OUTCOME(
        outcome.errors.startsWith(
            QLatin1String("uncaught exception: Error: x\n  in [code], line 2\n")) &&
            outcome.errors.endsWith(QLatin1String("\n  in a callback of the connection 'main'\n")),
        outcome);
    QCOMPARE(outcome.exitCode, 1);
}

void TestFailures::keepGoingGoesOnAndEndsWithCode1()
{
    const HostOutcome outcome = runCode(
        openSqlite() + QStringLiteral("db.query_thread('select nope');\n"
                                      "db.query_thread(function () { print('on'); throw 1 },"
                                      " 'select 1');\n"
                                      "db.query_thread(function () { print('and on') },"
                                      " 'select 1')"),
        {QStringLiteral("--keep-going")});
    QCOMPARE(outcome.output, QStringLiteral("on\nand on\n"));
    VERIFY_OUTCOME(outcome.exitCode == 1, outcome);
}

void TestFailures::aMisspeltPropertyIsToldOnceWithTheNearest_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("nearest");
    for (const auto &pair :
         {std::make_pair("drivername", "driverName"), std::make_pair("database", "databaseName"),
          std::make_pair("user", "userName"), std::make_pair("pasword", "password"),
          std::make_pair("appName", "app_name"), std::make_pair("enableNulls", "enableNull")}) {
        QTest::newRow(pair.first) << QString::fromLatin1(pair.first)
                                  << QString::fromLatin1(pair.second);
    }
}

void TestFailures::aMisspeltPropertyIsToldOnceWithTheNearest()
{
    QFETCH(QString, name);
    QFETCH(QString, nearest);
    const QString warning = QStringLiteral("[main] [code]:2 warning: a connection has no property"
                                           " '%1'; did you mean '%2'?")
                                .arg(name, nearest);
    // At open(), also where the object is not to be found by a name.
    const QString open = QStringLiteral("(function () { var db = new VEXT_SQL('main');\n"
                                        "db.driverName = 'QSQLITE'; db.databaseName = ':memory:';"
                                        " db.%1 = 'x'; db.open(); db.close(); db.open(); })()");
    HostOutcome outcome = runCode(open.arg(name));
    QCOMPARE(toldLines(outcome), QStringList{QStringLiteral("notice ") + warning});
    QCOMPARE(outcome.exitCode, 0);
    // At the latest at the end.
    outcome = runCode(QStringLiteral("var db = new VEXT_SQL('main'); db.%1 = 5").arg(name));
    VERIFY_OUTCOME(outcome.errors.contains(QStringLiteral("did you mean '%1'?").arg(nearest)),
                   outcome);
}

void TestFailures::ownPropertiesOfAScriptAreNotTold()
{
    const HostOutcome outcome = runCode(
        openSqlite() + QStringLiteral("db.purpose = 'x'; db.retries = 5; db.query('select 1');"));
    VERIFY_OUTCOME(outcome.errors.isEmpty() && outcome.exitCode == 0, outcome);
}

void TestFailures::aMissingDriverNamesItsPackage()
{
    const HostOutcome outcome =
        runCode(QStringLiteral("var db = new VEXT_SQL('main'); db.driverName = 'QTDS';\n"
                               "print(db.open(), db.lastError)"),
                {QStringLiteral("--stock-drivers")});
    QCOMPARE(outcome.output, QStringLiteral("false Driver not loaded Driver not loaded\n"));
    QCOMPARE(toldLines(outcome), QStringList{QStringLiteral(
                                     "error [main] [code]:2 open: the driver QTDS is not installed;"
                                     " on Debian it is in the package libqt5sql5-tds")});
}

void TestFailures::aMessageIsOneLineWithTimeLevelConnectionAndPlace()
{
    const HostOutcome outcome =
        runCode(openSqlite() + QStringLiteral("db.traceLog = true;\ndb.query('select\\n1')"),
                {QStringLiteral("--level"), QStringLiteral("2")});
    const QStringList lines = toldLines(outcome);
    VERIFY_OUTCOME(lines.size() >= 2, outcome);
    const QRegularExpression form(QStringLiteral(
        "^(trace|statement) \\[main\\] (\\[code\\]:\\d )?plugins/PluginSQL/\\w+:\\d+ \\w+: .+$"));
    for (const QString &line : lines)
        VERIFY_OUTCOME(form.match(line).hasMatch() || line.contains(QLatin1String("\t")), outcome);
}

QTEST_GUILESS_MAIN(TestFailures)
#include "test_failures.moc"
