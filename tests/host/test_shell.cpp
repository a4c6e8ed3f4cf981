// vext-run among the programs of a shell: values, SQL from a pipe, formats, logs.

#include "host_process.h"
#include "terminal_session.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#define VERIFY_OUTCOME(condition, outcome) QVERIFY2(condition, (outcome).described().constData())

class TestShell : public QObject
{
    Q_OBJECT

private slots:
    void aValueIsPrinted_data();
    void aValueIsPrinted();
    void aScriptComesFromStandardInput();
    void sqlComesThroughAPipe_data();
    void sqlComesThroughAPipe();
    void theFirstErrorEndsPipedSqlWithItsLine();
    void keepGoingRunsTheOtherStatements();
    void aDatabaseThatCannotBeOpenedIsAClearError();
    void anAddressInAFileHidesThePassword();
    void scriptsFindTheOpenedConnection();
    void oneLineOfManyMegabytesIsRun();
    void anErrorOfManyMegabytesIsToldInShort();
    void aScriptLineOfManyMegabytesIsRefused_data();
    void aScriptLineOfManyMegabytesIsRefused();
    void aBinaryFileIsNoScript_data();
    void aBinaryFileIsNoScript();
    void versionTellsPluginQtAndDrivers();
    void messagesAsJson();
    void messagesInAFile();
    void quietShowsErrorsOnly();
    void aLogFileThatCannotBeWrittenIsAClearError();
    void progressIsShownOnATerminal();
};

namespace
{

const char Memory[] = "sqlite::memory:";

HostOutcome runSql(const QByteArray &sql, const QStringList &options = QStringList())
{
    return runHost(QStringList{QStringLiteral("--open"), QLatin1String(Memory)} + options, sql);
}

} // namespace

void TestShell::aValueIsPrinted_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("expression");
    QTest::addColumn<QString>("output");
    const QString query = QStringLiteral("db.query('select 1 as a, null as b')");
    const QStringList open{QStringLiteral("--open"), QLatin1String(Memory)};
    QTest::newRow("number") << QStringList() << QStringLiteral("6 * 7") << QStringLiteral("42\n");
    QTest::newRow("text") << QStringList() << QStringLiteral("'a' + 'b'") << QStringLiteral("ab\n");
    QTest::newRow("object as JSON")
        << QStringList{QStringLiteral("--json")} << QStringLiteral("({a: [1, 'x']})")
        << QStringLiteral("{\"a\":[1,\"x\"]}\n");
    QTest::newRow("table") << open << query
                           << QStringLiteral("a | b\n--+-----\n1 | NULL\n(1 row)\n");
    QTest::newRow("CSV") << open + QStringList{QStringLiteral("--csv")} << query
                         << QStringLiteral("a,b\r\n1,\r\n");
    QTest::newRow("JSON lines") << open + QStringList{QStringLiteral("--json-lines")} << query
                                << QStringLiteral("{\"a\":1,\"b\":null}\n");
}

void TestShell::aValueIsPrinted()
{
    QFETCH(QStringList, options);
    QFETCH(QString, expression);
    QFETCH(QString, output);
    const HostOutcome outcome = runHost(options + QStringList{QStringLiteral("-p"), expression});
    QCOMPARE(outcome.output, output);
    VERIFY_OUTCOME(outcome.exitCode == 0, outcome);
}

void TestShell::aScriptComesFromStandardInput()
{
    const HostOutcome outcome =
        runHost({QStringLiteral("-"), QStringLiteral("x"), QStringLiteral("-y")},
                "print(arguments.join('+'));\nfunction f() {\n  return 1;\n}\nprint(f());\n");
    QCOMPARE(outcome.output, QStringLiteral("x+-y\n1\n"));
    QCOMPARE(outcome.exitCode, 0);
}

void TestShell::sqlComesThroughAPipe_data()
{
    QTest::addColumn<QByteArray>("sql");
    QTest::addColumn<QString>("output");
    QTest::newRow("last without a semicolon")
        << QByteArray("select 1 as a;\nselect 2 as b") << QStringLiteral("a\r\n1\r\nb\r\n2\r\n");
    QTest::newRow("several on a line")
        << QByteArray("create table t(a, b); insert into t values"
                      " (null, ''), ('x;\"y', '-- no'); select * from t;")
        << QStringLiteral("a,b\r\n,\"\"\r\n\"x;\"\"y\",-- no\r\n");
    QTest::newRow("comments") << QByteArray("-- one;\n/* two; */ select 1 as a; -- three")
                              << QStringLiteral("a\r\n1\r\n");
    QTest::newRow("nothing") << QByteArray(" ;\n;") << QString();
}

void TestShell::sqlComesThroughAPipe()
{
    QFETCH(QByteArray, sql);
    QFETCH(QString, output);
    const HostOutcome outcome = runSql(sql, {QStringLiteral("--csv")});
    QCOMPARE(outcome.output, output);
    VERIFY_OUTCOME(outcome.exitCode == 0 && outcome.errors.isEmpty(), outcome);
}

void TestShell::theFirstErrorEndsPipedSqlWithItsLine()
{
    const HostOutcome outcome =
        runSql("select 1 as a;\n\nselect nope;\nselect 2 as b;\n", {QStringLiteral("--json")});
    QCOMPARE(outcome.output, QStringLiteral("[\n{\"a\":1}\n]\n"));
    VERIFY_OUTCOME(outcome.exitCode == 1, outcome);
    VERIFY_OUTCOME(outcome.errors.contains(QLatin1String(" error [db] [input]:3 query: ")),
                   outcome);
    QCOMPARE(outcome.errors.count(QLatin1Char('\n')), 1);
}

void TestShell::keepGoingRunsTheOtherStatements()
{
    const HostOutcome outcome =
        runSql("select nope;\nselect 2 as b;\n",
               {QStringLiteral("--json-lines"), QStringLiteral("--keep-going")});
    QCOMPARE(outcome.output, QStringLiteral("{\"b\":2}\n"));
    VERIFY_OUTCOME(outcome.exitCode == 1, outcome);
}

void TestShell::aDatabaseThatCannotBeOpenedIsAClearError()
{
    const HostOutcome outcome =
        runHost({QStringLiteral("--open"), QStringLiteral("sqlite:/no/such/folder/x.db")});
    QCOMPARE(outcome.exitCode, 2);
    VERIFY_OUTCOME(
        outcome.errors.contains(QLatin1String("vext-run: QSQLITE /no/such/folder/x.db: ")),
        outcome);
}

void TestShell::anAddressInAFileHidesThePassword()
{
    const QTemporaryDir folder;
    QFile file(folder.filePath(QStringLiteral("a")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("# comment\nQSQLITE dbname=/no/such/x.db password=geheim\n");
    file.close();
    const HostOutcome outcome = runHost(
        {QStringLiteral("--trace"), QStringLiteral("--open"), QLatin1Char('@') + file.fileName()});
    QCOMPARE(outcome.exitCode, 2);
    VERIFY_OUTCOME(!outcome.errors.contains(QLatin1String("geheim")), outcome);
}

void TestShell::scriptsFindTheOpenedConnection()
{
    const HostOutcome outcome = runHost(
        {QStringLiteral("--open"), QLatin1String(Memory), QStringLiteral("-e"),
         QStringLiteral("db.query('create table t as select 7 as n');"
                        " db.query_thread(function (r) { print(r.n[0]) }, 'select n from t');")});
    QCOMPARE(outcome.output, QStringLiteral("7\n"));
}

void TestShell::oneLineOfManyMegabytesIsRun()
{
    const QByteArray text(100000000, 'x');
    const HostOutcome outcome =
        runSql("select length('" + text + "') as n;", {QStringLiteral("--csv")});
    QCOMPARE(outcome.output, QStringLiteral("n\r\n100000000\r\n"));
}

void TestShell::anErrorOfManyMegabytesIsToldInShort()
{
    // A string without its end: the database's error quotes it, here all of it.
    const HostOutcome sql = runSql("select '" + QByteArray(100000000, 'x'));
    QCOMPARE(sql.exitCode, 1);
    QVERIFY2(sql.errors.size() < 5000, QByteArray::number(sql.errors.size()).constData());
    VERIFY_OUTCOME(sql.errors.contains(QLatin1String(" error [db] [input]:1 query: ")) &&
                       sql.errors.contains(QLatin1String(" characters) ... xxx")),
                   sql);
    const HostOutcome script = runCode(QStringLiteral(
        "function f(long) { throw new Error(long); } f(new Array(20000001).join('x'))"));
    QCOMPARE(script.exitCode, 1);
    QVERIFY2(script.errors.size() < 12000, QByteArray::number(script.errors.size()).constData());
    VERIFY_OUTCOME(script.errors.startsWith(QLatin1String("uncaught exception: Error: xxx")) &&
                       script.errors.contains(QLatin1String(" at [code]:1\n")),
                   script);
}

namespace
{

/// The ways in which a script comes.
void addWays()
{
    QTest::addColumn<QString>("way");
    QTest::addColumn<QString>("begin");
    QTest::newRow("file") << QStringLiteral("FILE")
                          << QStringLiteral("vext-run: cannot read script 'FILE': ");
    QTest::newRow("minus") << QStringLiteral("-")
                           << QStringLiteral(
                                  "vext-run: cannot read the script from standard input: ");
    QTest::newRow("pipe") << QString() << QStringLiteral(" error [input]:1: ");
}

HostOutcome runWay(QString way, QString *begin, const QByteArray &code)
{
    const QTemporaryDir folder;
    const QString name = folder.filePath(QStringLiteral("a.js"));
    QFile file(name);
    if (!file.open(QIODevice::WriteOnly) || file.write(code) != code.size())
        qFatal("cannot write the script");
    file.close();
    begin->replace(QLatin1String("FILE"), name);
    way.replace(QLatin1String("FILE"), name);
    return runHost(way.isEmpty() ? QStringList() : QStringList{way}, code);
}

} // namespace

void TestShell::aScriptLineOfManyMegabytesIsRefused_data()
{
    addWays();
}

void TestShell::aScriptLineOfManyMegabytesIsRefused()
{
    QFETCH(QString, way);
    QFETCH(QString, begin);
    QElapsedTimer clock;
    clock.start();
    const HostOutcome outcome =
        runWay(way, &begin, "print('" + QByteArray(100000000, 'x') + "'.length)\n");
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 2, outcome);
    VERIFY_OUTCOME(outcome.errors.contains(begin) &&
                       outcome.errors.contains(
                           QLatin1String("the line is longer than 10000000 bytes, too long for a "
                                         "script; readFile() and readLines() read data\n")),
                   outcome);
    QCOMPARE(outcome.output, QString());
    QVERIFY2(clock.elapsed() < 60000, qPrintable(QString::number(clock.elapsed())));
}

void TestShell::aBinaryFileIsNoScript_data()
{
    addWays();
}

void TestShell::aBinaryFileIsNoScript()
{
    QFETCH(QString, way);
    QFETCH(QString, begin);
    const HostOutcome outcome = runWay(way, &begin, QByteArray("1\0\0", 3) + "print(1)\n");
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 2, outcome);
    VERIFY_OUTCOME(outcome.errors.contains(begin + QLatin1String("it is not text: byte 1 is zero")),
                   outcome);
    QCOMPARE(outcome.output, QString());
}

void TestShell::versionTellsPluginQtAndDrivers()
{
    const HostOutcome outcome = runHost({QStringLiteral("--version")});
    VERIFY_OUTCOME(outcome.output.contains(QLatin1String("\nplugin   Vext.v.")), outcome);
    VERIFY_OUTCOME(outcome.output.contains(QLatin1String("\nQt       5.15.")), outcome);
    const QRegularExpression layer(
        QStringLiteral("\ndrivers .*QSQLITE.* \\(decorated by Vext\\)\n"));
    VERIFY_OUTCOME(layer.match(outcome.output).hasMatch(), outcome);
    const HostOutcome stock =
        runHost({QStringLiteral("--stock-drivers"), QStringLiteral("--version")});
    VERIFY_OUTCOME(stock.output.contains(QLatin1String("drivers  none (decorated by Vext)")),
                   stock);
}

void TestShell::messagesAsJson()
{
    const HostOutcome outcome =
        runCode(openSqlite() + QStringLiteral("db.query('select\\n nope'); throw new Error('x');"),
                {QStringLiteral("--log-format"), QStringLiteral("json")});
    const QList<QByteArray> lines = outcome.errors.trimmed().toUtf8().split('\n');
    VERIFY_OUTCOME(lines.size() == 2, outcome);
    const QJsonObject message = QJsonDocument::fromJson(lines.at(0)).object();
    QCOMPARE(message.value(QLatin1String("level")).toString(), QStringLiteral("error"));
    QCOMPARE(message.value(QLatin1String("connection")).toString(), QStringLiteral("main"));
    QCOMPARE(message.value(QLatin1String("line")).toInt(), 2);
    const QJsonObject exception = QJsonDocument::fromJson(lines.at(1)).object();
    QCOMPARE(exception.value(QLatin1String("text")).toString(), QStringLiteral("Error: x"));
}

void TestShell::messagesInAFile()
{
    const QTemporaryDir folder;
    const QString name = folder.filePath(QStringLiteral("log"));
    for (int run = 0; run < 2; ++run) {
        const HostOutcome outcome =
            runCode(openSqlite() + QStringLiteral("db.query('select nope')"),
                    {QStringLiteral("--log-file"), name});
        VERIFY_OUTCOME(outcome.errors.isEmpty(), outcome);
    }
    QFile log(name);
    QVERIFY(log.open(QIODevice::ReadOnly));
    QCOMPARE(log.readAll().count(" error [main] [code]:2 query: "), 2);
}

void TestShell::quietShowsErrorsOnly()
{
    const QString code =
        openSqlite() + QStringLiteral("db.drivername = 1; db.query('select nope')");
    const HostOutcome outcome = runCode(code, {QStringLiteral("--quiet")});
    VERIFY_OUTCOME(outcome.errors.contains(QLatin1String(" error ")), outcome);
    VERIFY_OUTCOME(!outcome.errors.contains(QLatin1String(" notice ")), outcome);
    VERIFY_OUTCOME(runCode(code).errors.contains(QLatin1String(" notice ")), outcome);
}

void TestShell::aLogFileThatCannotBeWrittenIsAClearError()
{
    const HostOutcome outcome = runCode(
        QStringLiteral("print(1)"), {QStringLiteral("--log-file"), QStringLiteral("/no/such/log")});
    QCOMPARE(outcome.exitCode, 2);
    QCOMPARE(outcome.errors,
             QStringLiteral("vext-run: cannot write log file '/no/such/log': No such"
                            " file or directory\n"));
}

void TestShell::progressIsShownOnATerminal()
{
    const QTemporaryDir folder;
    TerminalSession session(folder.path());
    QVERIFY2(session.waitFor("vext> "), session.screen().constData());
    session.type("write('\\r1' + '0 %'); write('\\r2' + '0 %'); print('do' + 'ne')\n");
    // What follows a line of progress stands below it.
    QVERIFY2(session.waitFor("10 %20 %"), session.screen().constData()); // without the returns
    QVERIFY2(session.waitFor("\ndone"), session.screen().constData());
}

QTEST_GUILESS_MAIN(TestShell)
#include "test_shell.moc"
