// What a script finds in vext-run: console, timers, messages, host objects, statements from
// standard input.

#include "host_process.h"

#include <QtTest>

#define VERIFY_OUTCOME(condition, outcome) QVERIFY2(condition, (outcome).described().constData())

class TestScriptGlobals : public QObject
{
    Q_OBJECT

private slots:
    void consoleWritesToItsStream();
    void consoleShowsValuesReadably_data();
    void consoleShowsValuesReadably();
    void consoleNeverThrows();
    void consoleNeverRunsScriptCode();
    void consoleShortensWhatIsTooLong();
    void tablePrintsResultsUnderTheirHeadings();
    void tableTellsNullFromEmptyWithNullHandlingOff();
    void tablePrintsEachOfSeveralResults();
    void tablePrintsNamesOfTables();
    void tablePrintsAffectedRowsWithoutColumns();
    void tablePrintsManyRows();
    void tableKnowsResultsByTheirColumnsToo();
    void tablePrintsAnythingElseAsText();
    void tableOfADamagedResultDoesNotThrow();
    void timersPassTheirArgumentsAndKeepTheirOrder();
    void intervalsPassTheirArgumentsUntilTheyAreCleared();
    void timersMayBeClearedByCallbacks();
    void clearedTimersAreForgotten();
    void timersRefuseWhatIsNoFunction();
    void hostObjectsAreThoseThatPluginsLookFor();
    void hostObjectsCannotBeReplaced();
    void portSlotsKeepTheOpenPorts();
    void connectionObjectsSurviveTheirDeletion();
    void thousandConnectionsAreReleased();
    void errorsAreShownByDefaultWithLevelAndSource();
    void levelDecidesWhichMessagesAreShown_data();
    void levelDecidesWhichMessagesAreShown();
    void traceIsOnForNewConnectionsOnly();
    void messagesOfTheWorkerThreadArrive();
    void inputIsReadStatementByStatement();
    void inputGoesOnUntilTheStatementIsComplete();
    void inputStopsAtTheFirstMistake_data();
    void inputStopsAtTheFirstMistake();
    void callbacksRunWhileInputIsAwaited();
    void inputThatEndsWithoutALineBreakIsReadToTheEnd();
    void closedInputIsAnEmptyProgram();
};

void TestScriptGlobals::consoleWritesToItsStream()
{
    const HostOutcome outcome =
        runCode(QStringLiteral("print('p', 1); console.log('l', 'ж'); console.info('i');"
                               "console.warn('w', {}); console.error('e'); console.log();"));
    VERIFY_OUTCOME(outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("p 1\nl ж\ni\n\n"));
    QCOMPARE(outcome.errors, QStringLiteral("w {}\ne\n"));
}

void TestScriptGlobals::consoleShowsValuesReadably_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("text");
    const auto row = [](const char *value, const char *text) {
        QTest::newRow(value) << QString::fromUtf8(value) << QString::fromUtf8(text);
    };
    row("undefined", "undefined");
    row("null", "null");
    row("-1.5", "-1.5");
    row("'a b'", "a b");
    row("['a\\'b\\n\\\\']", "[ 'a\\'b\\n\\\\' ]");
    row("[]", "[]");
    row("[1, [2], {a: null}]", "[ 1, [ 2 ], { a: null } ]");
    row("[1, , 3]", "[ 1, undefined, 3 ]");
    row("{}.x", "undefined");
    row("({})", "{}");
    row("({a: 1, 'b c': 'd'})", "{ a: 1, b c: 'd' }");
    row("new Date(0)", "1970-01-01T00:00:00.000");
    row("new Date(NaN)", "Invalid Date");
    row("/a\\/b/gi", "/a\\/b/gi");
    row("function name() {}", "[Function name]");
    row("new TypeError('t')", "TypeError: t");
    row("({a: {b: {c: {d: {}}}}})", "{ a: { b: { c: { d: [Object] } } } }");
    row("[server, post]", "[ [VextServer 'server'], [VextPost 'post'] ]");
}

void TestScriptGlobals::consoleShowsValuesReadably()
{
    QFETCH(QString, value);
    QFETCH(QString, text);
    qputenv("TZ", "UTC");
    const HostOutcome outcome = runCode(QStringLiteral("console.log(%1)").arg(value));
    VERIFY_OUTCOME(outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, text + QLatin1Char('\n'));
}

void TestScriptGlobals::consoleNeverThrows()
{
    const HostOutcome outcome = runCode(
        QStringLiteral("var o = {get a() { throw 1; }, toString: function() { throw 2; },\n"
                       "         valueOf: function() { throw 3; }};\n"
                       "o.self = o;\n"
                       "var e = new Error('x'); e.__defineGetter__('message', function() { throw 4;"
                       " });\n"
                       "['log', 'info', 'table', 'warn', 'error'].forEach(function(f) {\n"
                       "  console[f](o, [o], e, console, this);\n"
                       "  console[f]();\n"
                       "});\n"
                       "print(o); print('end');"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    VERIFY_OUTCOME(outcome.output.contains(QStringLiteral("self: [Circular]")), outcome);
    VERIFY_OUTCOME(outcome.output.endsWith(QStringLiteral("end\n")), outcome);
}

void TestScriptGlobals::consoleNeverRunsScriptCode()
{
    const HostOutcome outcome =
        runCode(QStringLiteral("var calls = 0;\n"
                               "var o = {get a() { calls++; return 1; },\n"
                               "         toString: function() { calls++; return ''; }};\n"
                               "console.log(o, [o]); console.table(o); print(calls);"));
    VERIFY_OUTCOME(outcome.output.endsWith(QStringLiteral("\n0\n")), outcome);
    VERIFY_OUTCOME(
        outcome.output.startsWith(QStringLiteral("{ a: [Getter], toString: [Function] }")),
        outcome);
}

void TestScriptGlobals::consoleShortensWhatIsTooLong()
{
    const HostOutcome outcome = runCode(
        QStringLiteral("var a = []; a.length = 4e9; a[0] = 1; print(a);\n"
                       "var w = {}; for (var i = 0; i < 1e5; i++) w['k' + i] = w; print(w);\n"
                       "function tree(d) { var t = [];\n"
                       "  for (var i = 0; d && i < 90; i++) t[i] = tree(d - 1);\n"
                       "  return t; }\n"
                       "print(tree(3));"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    QVERIFY(outcome.output.contains(QStringLiteral(" more\n]")));
    QVERIFY2(outcome.output.size() < 200000, QByteArray::number(outcome.output.size()).constData());
}

void TestScriptGlobals::tablePrintsResultsUnderTheirHeadings()
{
    const HostOutcome outcome =
        runCode(openSqlite() +
                QStringLiteral("db.query('create table t (id integer, name text, price real)');\n"
                               "db.query(\"insert into t values (1, 'болт', 0.25), (2, '', null),"
                               " (30, null, 1e3), (4, 'NULL', 2)\");\n"
                               "console.table(db.query('select * from t'));"));
    VERIFY_OUTCOME(outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("id | name   | price\n"
                                            "---+--------+------\n"
                                            " 1 | болт   |  0.25\n"
                                            " 2 |        |  NULL\n"
                                            "30 | NULL   |  1000\n"
                                            " 4 | 'NULL' |     2\n"
                                            "(4 rows)\n"));
}

void TestScriptGlobals::tableTellsNullFromEmptyWithNullHandlingOff()
{
    const HostOutcome outcome = runCode(
        openSqlite() + QStringLiteral("db.enableNull = false;\n"
                                      "db.query('create table t (a text)');\n"
                                      "db.query(\"insert into t values ('x'), (''), (null)\");\n"
                                      "console.table(db.query('select a from t'));"));
    QCOMPARE(outcome.output, QStringLiteral("a\n----\nx\n\nNULL\n(3 rows)\n"));
}

void TestScriptGlobals::tablePrintsEachOfSeveralResults()
{
    const HostOutcome outcome =
        runCode(openSqlite() + QStringLiteral("db.query_thread(function(r) { console.table(r); },"
                                              " ['select 1 as a', 'select 2 as b']);"));
    QCOMPARE(outcome.output, QStringLiteral("a\n-\n1\n(1 row)\nb\n-\n2\n(1 row)\n"));
}

void TestScriptGlobals::tablePrintsNamesOfTables()
{
    const HostOutcome outcome = runCode(
        openSqlite() + QStringLiteral("db.query('create table b (x)'); db.query('create table a "
                                      "(x)'); db.tables(); console.table(db.queryResult);"));
    QCOMPARE(outcome.output, QStringLiteral("TABLES\n------\na\nb\n(2 rows)\n"));
}

void TestScriptGlobals::tablePrintsAffectedRowsWithoutColumns()
{
    const HostOutcome outcome = runCode(
        openSqlite() + QStringLiteral("db.query('create table t (x)');\n"
                                      "console.table(db.query('insert into t values (1), (2)'));"));
    QCOMPARE(outcome.output, QStringLiteral("(2 affected rows)\n"));
}

void TestScriptGlobals::tablePrintsManyRows()
{
    const HostOutcome outcome = runCode(
        openSqlite() +
        QStringLiteral("console.table(db.query('with recursive c(x) as (select 1 union all select"
                       " x + 1 from c limit 20000) select x from c'));"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, HostOutcome());
    QVERIFY(outcome.output.endsWith(QStringLiteral("\n19999\n20000\n(20000 rows)\n")));
    QCOMPARE(outcome.output.count(QLatin1Char('\n')), 20003);
}

void TestScriptGlobals::tableKnowsResultsByTheirColumnsToo()
{
    const HostOutcome outcome = runCode(QStringLiteral(
        "console.table({fields_names: ['a', 'b'], fields_index: [[1, 2], ['x', null]]});"));
    QCOMPARE(outcome.output, QStringLiteral("a | b\n--+-----\n1 | x\n2 | NULL\n(2 rows)\n"));
}

void TestScriptGlobals::tablePrintsAnythingElseAsText()
{
    const HostOutcome outcome =
        runCode(QStringLiteral("console.table(false, 'text', [1], {rows: 1});"));
    QCOMPARE(outcome.output, QStringLiteral("false\n'text'\n[ 1 ]\n{ rows: 1 }\n"));
}

void TestScriptGlobals::tableOfADamagedResultDoesNotThrow()
{
    const HostOutcome outcome =
        runCode(openSqlite() +
                QStringLiteral(
                    "function result() { return db.query('select 1 as a, 2 as b'); }\n"
                    "var r = result(); r.fields_index = 5; console.table(r);\n"
                    "r = result(); delete r.fields_names; console.table(r);\n"
                    "r = result(); r.fields_nulls = [[-1, 1e9, 'x', {}], 7]; console.table(r);\n"
                    "r = result(); r.rows = 4e9; r.fields_index[0].length = 3; console.table(r);\n"
                    "r = result(); r.fields_names[0] = {get a() { throw 1; }}; console.table(r);\n"
                    "r = result(); r.__defineGetter__('fields_index', function() { throw 1; });\n"
                    "console.table(r);\n"
                    "r = result(); db.query('select 3'); console.table(r); print('end');"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    VERIFY_OUTCOME(outcome.output.endsWith(QStringLiteral("end\n")), outcome);
}

void TestScriptGlobals::timersPassTheirArgumentsAndKeepTheirOrder()
{
    // All of them may be due at once where the program is given its time late.
    const HostOutcome outcome = runCode(
        QStringLiteral("setTimeout(function(a, b) { print('late', a, b, arguments.length); },"
                       " 400, 1, 'x');\n"
                       "setTimeout(print, 0, 'first');\n"
                       "setTimeout(print, -5, 'second');\n"
                       "setTimeout(print, NaN, 'third');\n"
                       "setTimeout(print);\n"
                       "setTimeout(print, 20, 'sooner');\n"
                       "print('now');"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("now\nfirst\nsecond\nthird\n\nsooner\nlate 1 x 2\n"));
}

void TestScriptGlobals::intervalsPassTheirArgumentsUntilTheyAreCleared()
{
    const HostOutcome outcome =
        runCode(QStringLiteral("var n = 0, i = setInterval(function(s) {\n"
                               "  print(s, ++n); if (n == 3) clearInterval(i); }, 5, 'tick');\n"
                               "print(typeof i);"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("number\ntick 1\ntick 2\ntick 3\n"));
}

void TestScriptGlobals::timersMayBeClearedByCallbacks()
{
    const HostOutcome outcome = runCode(
        QStringLiteral("var self = setTimeout(function() { clearTimeout(self); print('self'); }, "
                       "0);\n"
                       "var i = setInterval(function() {\n"
                       "  clearInterval(i); clearTimeout(never);\n"
                       "  var later = setTimeout(print, 0, 'later');\n"
                       "  var not = setTimeout(print, 0, 'not'); clearTimeout(not);\n"
                       "  print('once');\n"
                       "}, 1);\n"
                       "var never = setTimeout(print, 200, 'never');"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("self\nonce\nlater\n"));
}

void TestScriptGlobals::clearedTimersAreForgotten()
{
    // Numbers are not used again, so a number that has run out clears nothing else.
    const HostOutcome outcome = runCode(
        QStringLiteral("var far = setTimeout(print, 1e9, 'never');\n"
                       "clearTimeout(far); clearTimeout(far); clearTimeout(); clearTimeout('1');\n"
                       "var old = setTimeout(function() {\n"
                       "  setTimeout(print, 0, 'new'); clearTimeout(old); }, 0);"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("new\n"));
}

void TestScriptGlobals::timersRefuseWhatIsNoFunction()
{
    const HostOutcome outcome =
        runCode(QStringLiteral("[5, 'print(1)', null, {}].forEach(function(f) {\n"
                               "  try { setTimeout(f, 0); } catch (e) { print(e.name); } });\n"
                               "try { setInterval(); } catch (e) { print(e.message); }"));
    QCOMPARE(outcome.output,
             QStringLiteral("TypeError\nTypeError\nTypeError\nTypeError\n"
                            "setInterval: the first argument must be a function\n"));
}

void TestScriptGlobals::hostObjectsAreThoseThatPluginsLookFor()
{
    const HostOutcome outcome =
        runCode(QStringLiteral("print(server.objectName, server.gui, server.isGuiApp());\n"
                               "print(scriptEngine.file.name);\n"
                               "print(typeof server.deleteLater, typeof post.deleteLater);\n"
                               "print(typeof VEXT_SQL, typeof counters, tag);\n"
                               "var db = new VEXT_SQL('named'); print(counters()[0].dbObjectName,"
                               " db.counters(scriptEngine).postName);"));
    VERIFY_OUTCOME(outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("server false 0\n[code]\nundefined undefined\n"
                                            "function function undefined\nnamed post\n"));
}

void TestScriptGlobals::hostObjectsCannotBeReplaced()
{
    const HostOutcome outcome = runCode(
        QStringLiteral("server = 1; var post = 2; this.scriptEngine = 3;\n"
                       "delete this.server; scriptEngine.file = 4; delete scriptEngine.file;\n"
                       "this.__lookupGetter__('server').__qt_data__ = 5;\n"
                       "print(server, post, scriptEngine, scriptEngine.file.name);"));
    VERIFY_OUTCOME(outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("[VextServer 'server'] [VextPost 'post']"
                                            " [QScriptEngine] [code]\n"));
}

void TestScriptGlobals::portSlotsKeepTheOpenPorts()
{
    const HostOutcome outcome = runCode(
        QStringLiteral("server.aTcp(80); server.aTcp(22); server.aUdp(53); server.aTcp(80);\n"
                       "print(server.tcpPorts, server.udpPorts);\n"
                       "server.rTcp(80); server.rUdp(53); server.rTcp(1);\n"
                       "print(server.tcpPorts, server.udpPorts);"));
    QCOMPARE(outcome.output, QStringLiteral("[ 22, 80 ] [ 53 ]\n[ 22 ] []\n"));
}

void TestScriptGlobals::connectionObjectsSurviveTheirDeletion()
{
    const HostOutcome outcome = runCode(
        openSqlite() + QStringLiteral("db.query_thread(function() {}, 'select 1');\n"
                                      "db.deleteLater(); post.insertObject(null, 'x');\n"
                                      "setTimeout(function() { print(db); try { db.open(); }"
                                      " catch (e) { print('gone'); } }, 20);"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("[deleted object]\ngone\n"));
}

void TestScriptGlobals::thousandConnectionsAreReleased()
{
    const HostOutcome outcome =
        runCode(QStringLiteral("for (var i = 0; i < 1000; i++) new VEXT_SQL('c' + i);\n"
                               "print(counters().length);"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("1000\n"));
}

void TestScriptGlobals::errorsAreShownByDefaultWithLevelAndSource()
{
    const HostOutcome outcome =
        runCode(openSqlite() + QStringLiteral("db.query_thread(['select 1', '']);"));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 1, outcome);
    const QRegularExpression line(QStringLiteral(" error \\[main\\] run: пустой запрос\n$"));
    VERIFY_OUTCOME(QRegularExpression(line.pattern(), QRegularExpression::MultilineOption)
                       .match(outcome.errors)
                       .hasMatch(),
                   outcome);
}

void TestScriptGlobals::levelDecidesWhichMessagesAreShown_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<bool>("error");
    QTest::addColumn<bool>("notice");
    QTest::addColumn<bool>("stateChange");
    QTest::addColumn<bool>("statement");
    const auto level = [](const char *number) {
        return QStringList{QStringLiteral("--level"), QLatin1String(number)};
    };
    QTest::newRow("default") << QStringList() << true << true << false << false;
    QTest::newRow("-2") << level("-2") << false << false << false << false;
    QTest::newRow("-1") << level("-1") << true << false << false << false;
    QTest::newRow("0") << level("0") << true << true << false << false;
    QTest::newRow("1") << level("1") << true << true << true << false;
    QTest::newRow("2") << level("2") << true << true << true << true;
    QTest::newRow("=2") << QStringList{QStringLiteral("--level=2")} << true << true << true << true;
    QTest::newRow("trace") << QStringList{QStringLiteral("--trace")} << true << true << true
                           << true;
    QTest::newRow("trace and level")
        << level("-1") + QStringList{QStringLiteral("--trace")} << true << true << true << true;
}

void TestScriptGlobals::levelDecidesWhichMessagesAreShown()
{
    QFETCH(QStringList, options);
    QFETCH(bool, error);
    QFETCH(bool, notice);
    QFETCH(bool, stateChange);
    QFETCH(bool, statement);
    const HostOutcome outcome = runCode(
        QStringLiteral("var db = new VEXT_SQL(); db.traceLog = true; db.isSupportEvent;") +
            openSqlite() + QStringLiteral("db.traceLog = true; db.query_thread(['select 1', '']);"),
        options);
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 1, outcome);
    VERIFY_OUTCOME(outcome.errors.contains(QStringLiteral(" error [")) == error, outcome);
    VERIFY_OUTCOME(outcome.errors.contains(QStringLiteral(" notice [")) == notice, outcome);
    VERIFY_OUTCOME(outcome.errors.contains(QStringLiteral(" trace [")) == stateChange, outcome);
    VERIFY_OUTCOME(outcome.errors.contains(QStringLiteral(" statement [")) == statement, outcome);
}

void TestScriptGlobals::traceIsOnForNewConnectionsOnly()
{
    const QString code = QStringLiteral("print(new VEXT_SQL().traceLog)");
    QCOMPARE(runCode(code).output, QStringLiteral("false\n"));
    const HostOutcome traced = runCode(code, {QStringLiteral("--trace")});
    QCOMPARE(traced.output, QStringLiteral("true\n"));
    VERIFY_OUTCOME(traced.errors.contains(QStringLiteral("трассировка включена")), traced);
    QCOMPARE(runCode(code, {QStringLiteral("--level"), QStringLiteral("2")}).output,
             QStringLiteral("false\n"));
}

void TestScriptGlobals::messagesOfTheWorkerThreadArrive()
{
    const HostOutcome outcome =
        runCode(openSqlite() + QStringLiteral("db.query_thread(\"select 'from the worker'\");"),
                {QStringLiteral("--trace")});
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    VERIFY_OUTCOME(outcome.errors.contains(QStringLiteral("run: sql='select 'from the worker''")),
                   outcome);
    VERIFY_OUTCOME(!outcome.errors.contains(QStringLiteral("Cannot queue")), outcome);
}

void TestScriptGlobals::inputIsReadStatementByStatement()
{
    const HostOutcome outcome =
        runHost({}, "1 + 1\n\nvar x = 5\nx\n'text'\n({a: x})\nundefined\nnull\nprint('ж')\n" +
                        openSqlite().toUtf8() + "db.query('select 1 as a')\n");
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("2\n5\n'text'\n{ a: 5 }\nnull\nж\n"
                                            "':memory:'\na\n-\n1\n(1 row)\n"));
}

void TestScriptGlobals::inputGoesOnUntilTheStatementIsComplete()
{
    const HostOutcome outcome = runHost(
        {}, "function f(a) {\n  return a * 2;\n}\nf(\n21\n)\n[1,\n2\n]\n1 +\n\n2\n/* a\nb */ 7\n");
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
    QCOMPARE(outcome.output, QStringLiteral("42\n[ 1, 2 ]\n3\n7\n"));
}

void TestScriptGlobals::inputStopsAtTheFirstMistake_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("exception") << QByteArray("print(1)\nthrow 2\nprint(3)\n") << 1;
    QTest::newRow("syntax") << QByteArray("print(1)\nvar = 2\nprint(3)\n") << 2;
    QTest::newRow("unfinished") << QByteArray("print(1)\nfunction f() {\n") << 2;
    QTest::newRow("quit") << QByteArray("print(1)\nquit(5)\nprint(3)\n") << 5;
}

void TestScriptGlobals::inputStopsAtTheFirstMistake()
{
    QFETCH(QByteArray, input);
    QFETCH(int, exitCode);
    const HostOutcome outcome = runHost({}, input);
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == exitCode, outcome);
    QCOMPARE(outcome.output, QStringLiteral("1\n"));
}

void TestScriptGlobals::callbacksRunWhileInputIsAwaited()
{
    HostProcess host;
    QVERIFY(host.start({}));
    host.process().write(openSqlite().toUtf8() +
                         "db.query_thread(function() { print('called'); }, 'select 1')\n");
    QVERIFY(host.waitForOutput(QStringLiteral("true\ncalled\n")));
    QVERIFY(host.staysAlive(300)); // nothing is pending, but more input may come
    host.process().write("print('more')\n");
    QVERIFY(host.waitForOutput(QStringLiteral("more\n")));
    const HostOutcome outcome = host.finish();
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
}

void TestScriptGlobals::inputThatEndsWithoutALineBreakIsReadToTheEnd()
{
    QCOMPARE(runHost({}, "print('a')\nprint('b')").output, QStringLiteral("a\nb\n"));
    const HostOutcome pending = runHost({}, "setTimeout(print, 20, 'after the input')");
    VERIFY_OUTCOME(pending.output.endsWith(QStringLiteral("after the input\n")), pending);
}

void TestScriptGlobals::closedInputIsAnEmptyProgram()
{
    QProcess shell;
    shell.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), QStringLiteral("exec \"$0\" <&-"),
                                            QStringLiteral(VEXT_RUN_FILE)});
    QVERIFY(shell.waitForFinished(HostProcess::limitMs));
    QCOMPARE(shell.exitStatus(), QProcess::NormalExit);
    QCOMPARE(shell.exitCode(), 0);
    QCOMPARE(runHost({}, QByteArray()).exitCode, 0);
}

QTEST_GUILESS_MAIN(TestScriptGlobals)
#include "test_script_globals.moc"
