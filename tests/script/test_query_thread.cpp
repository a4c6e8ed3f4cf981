/// @file
/// query_thread(): its arguments, its refusals, and how the worker runs the statements of a task.
#include "script_test.h"

namespace
{

const QString usage =
    QStringLiteral("использовать как db.query_thread(sql)  or  db.query_thread(func, sql)  or  "
                   "db.query_thread(ctx, func, sql)");

StubReply oneRow(int value)
{
    return StubReply::table({{QStringLiteral("a"), QVariant::Int}}, {{value}});
}

} // namespace

class TestQueryThread : public ScriptTest
{
    Q_OBJECT

private Q_SLOTS:
    // refusals
    void lostObjectIsATypeError_data();
    void lostObjectIsATypeError();
    void closedConnectionAnswersFalseSilently_data();
    void closedConnectionAnswersFalseSilently();
    void closedConnectionIsATypeErrorWhileTracing_data();
    void closedConnectionIsATypeErrorWhileTracing();
    void wrongNumberOfArgumentsIsATypeError_data();
    void wrongNumberOfArgumentsIsATypeError();
    void statementThatIsNoStringIsATypeError_data();
    void statementThatIsNoStringIsATypeError();
    void throwingArgumentIsTheScriptsException_data();
    void throwingArgumentIsTheScriptsException();
    void contextWithoutCallbackIsATypeError_data();
    void contextWithoutCallbackIsATypeError();

    // sorting
    void argumentsAreSortedByType_data();
    void argumentsAreSortedByType();
    void extraValuesFollowTheCallbacksOwn_data();
    void extraValuesFollowTheCallbacksOwn();
    void oneContextArgumentAloneIsQueued();
    void emptyListIsQueuedWithoutStatements();
    void emptyListLeavesRoomForAString();
    void callReturnsBeforeTheStatementRuns();

    // results of several statements
    void singleStatementDeliversAnObject();
    void listOfOneDeliversAnObject();
    void listDeliversArrays();
    void listWithoutCallbackDeliversArrays();
    void errorInTheMiddleGoesOn();
    void emptyStatementSkipsTheRest();
    void emptyStatementAloneDeliversItsOutcome();
    void timingOfOneStatementHoldsForTheTask();

    // transaction words
    void transactionWordActsOnTheConnection_data();
    void transactionWordActsOnTheConnection();
    void otherTextIsExecuted_data();
    void otherTextIsExecuted();
    void transactionWordAloneDeliversItsOutcome_data();
    void transactionWordAloneDeliversItsOutcome();
    void transactionWordLeavesNoResult();
    void transactionWordIsNotCounted();
    void transactionWordEndsTheTransaction();

    // the worker
    void statementsRunOnTheThreadConnection();
    void statementsAreTracedAsGiven();
    void traceIsThatOfTheThreadsStart();
    void textOfACallbacksAnswerMayThrow();
    void statementsAreCounted();
    void lastStateFollowsTheWorker();
    void connectionErrorEndsTheThread();
    void connectionErrorSkipsTheRest();
    void stopEndsTheListAfterItsStatement();
    void threadConnectionThatCannotBeOpenedFailsTheTasks();
    void threadConnectionThatCannotBeOpenedIsReportedWhileTracing();
    void postgresLearnsTheNameOnce();
    void longListRunsWhole();
    void tasksRunInOrder();
    void sqliteRunsAListOnItsFile();

private:
    /// The call raises a TypeError with exactly this text, queues nothing and logs these lines.
    void checkTypeError(const QString &call, const QString &message, const QStringList &lines);
};

void TestQueryThread::checkTypeError(const QString &call, const QString &message,
                                     const QStringList &lines)
{
    eval("var thrown = null, returned = 'nothing';"
         "try { returned = %1; } catch (e) { thrown = e; }"_qs.arg(call));
    QVERIFY(truth("thrown instanceof TypeError"_qs));
    QCOMPARE(text("thrown.message"_qs), message);
    QCOMPARE(text("returned"_qs), "nothing"_qs);
    QCOMPARE(criticalLines(), lines);
    QCOMPARE(number("db.taskSize()"_qs), 0.0);
    QVERIFY(truth("!db.isRunning"_qs));
}

// --- refusals ---

void TestQueryThread::lostObjectIsATypeError_data()
{
    QTest::addColumn<QString>("call");
    QTest::newRow("global object") << "f('select 1')"_qs;
    QTest::newRow("plain object") << "f.call({}, 'select 1')"_qs;
    QTest::newRow("number") << "f.call(5, 'select 1')"_qs;
    QTest::newRow("null") << "f.call(null, 'select 1')"_qs;
    QTest::newRow("another object of the host") << "f.call(post, 'select 1')"_qs;
    QTest::newRow("no arguments") << "f()"_qs;
}

void TestQueryThread::lostObjectIsATypeError()
{
    QFETCH(QString, call);
    openStub("STUB"_qs);
    eval("var f = db.query_thread;"_qs);
    checkTypeError(call, "потерян объект VEXT_SQL\n"_qs + usage, {});
}

void TestQueryThread::closedConnectionAnswersFalseSilently_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::newRow("valid") << "'select 1'"_qs;
    QTest::newRow("none") << ""_qs;
    QTest::newRow("six") << "1, 2, 3, 4, 5, 6"_qs;
    QTest::newRow("statement of a wrong type") << "[5]"_qs;
    QTest::newRow("context alone") << "{}, 'select 1'"_qs;
}

void TestQueryThread::closedConnectionAnswersFalseSilently()
{
    QFETCH(QString, arguments);
    eval("var db = new VEXT_SQL();"_qs);
    QVERIFY(truth("db.query_thread(%1) === false"_qs.arg(arguments)));
    QCOMPARE(criticalLines(), QStringList());
    QCOMPARE(sent(), QStringList());
    QVERIFY(truth("!db.isRunning"_qs));
}

void TestQueryThread::closedConnectionIsATypeErrorWhileTracing_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::newRow("valid") << "'select 1'"_qs;
    QTest::newRow("none") << ""_qs;
    QTest::newRow("six") << "1, 2, 3, 4, 5, 6"_qs;
}

void TestQueryThread::closedConnectionIsATypeErrorWhileTracing()
{
    QFETCH(QString, arguments);
    eval("var db = new VEXT_SQL(); db.databaseName = 'db'; db.port = 5432; db.hostName = 'host';"
         "db.traceLog = true;"_qs);
    checkTypeError("db.query_thread(%1)"_qs.arg(arguments),
                   "не открыто соединение с 'db:5432:host'"_qs, {});
    QCOMPARE(sent(), QStringList());
}

void TestQueryThread::wrongNumberOfArgumentsIsATypeError_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<int>("count");
    QTest::newRow("none") << ""_qs << 0;
    QTest::newRow("six, all valid")
        << "{}, function() {}, 'select 1', [1], 'select 2', [3]"_qs << 6;
    QTest::newRow("seven") << "1, 2, 3, 4, 5, 6, 7"_qs << 7;
}

void TestQueryThread::wrongNumberOfArgumentsIsATypeError()
{
    QFETCH(QString, arguments);
    QFETCH(int, count);
    openStub("STUB"_qs);
    checkTypeError("db.query_thread(%1)"_qs.arg(arguments), usage,
                   {"vext_sql:230 ~~~~ js_query_thread \t aCount %1"_qs.arg(count)});
}

void TestQueryThread::statementThatIsNoStringIsATypeError_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("type");
    QTest::newRow("whole number") << "['select 1', 5]"_qs
                                  << "2 int"_qs;
    QTest::newRow("number") << "['select 1', 2.5]"_qs
                            << "6 double"_qs;
    QTest::newRow("first of several") << "[true, 5]"_qs
                                      << "1 bool"_qs;
    QTest::newRow("array") << "[['select 1']]"_qs
                           << "9 QVariantList"_qs;
    QTest::newRow("object") << "['select 1', {}]"_qs
                            << "8 QVariantMap"_qs;
    QTest::newRow("date") << "[new Date(0)]"_qs
                          << "16 QDateTime"_qs;
    QTest::newRow("undefined") << "[undefined]"_qs
                               << "0"_qs;
    QTest::newRow("gap of a sparse array") << "['select 1', , 'select 2']"_qs
                                           << "0"_qs;
    QTest::newRow("extra values before the statements") << "function() {}, [1, 'a'], 'select 1'"_qs
                                                        << "2 int"_qs;
}

void TestQueryThread::statementThatIsNoStringIsATypeError()
{
    QFETCH(QString, arguments);
    QFETCH(QString, type);
    openStub("STUB"_qs);
    checkTypeError("db.query_thread(%1)"_qs.arg(arguments), usage,
                   {"vext_sql:247 ~~~~ js_query_thread \t type %1"_qs.arg(type)});
}

void TestQueryThread::throwingArgumentIsTheScriptsException_data()
{
    QTest::addColumn<QString>("call");
    QTest::newRow("value of exec_thread") << "db.exec_thread('p', [evil])"_qs;
    QTest::newRow("value in a list of exec_thread") << "db.exec_thread(['p'], [[evil]])"_qs;
    QTest::newRow("value of exec") << "db.exec('p', [evil])"_qs;
}

void TestQueryThread::throwingArgumentIsTheScriptsException()
{
    QFETCH(QString, call);
    openStub("STUB"_qs);
    eval("var evil = {}; evil.__defineGetter__('k', function() { throw new RangeError('evil'); });"
         "var thrown; try { %1; } catch (e) { thrown = e; }"_qs.arg(call));
    QVERIFY(truth("thrown instanceof RangeError && thrown.message === 'evil'"_qs));
    QCOMPARE(stub().executed(), QStringList());
    QVERIFY(truth("db.taskSize() === 0 && !db.isRunning"_qs));
    recordAnswers();
    // A getter of the context or the callback is nobody's business.
    QVERIFY(truth("db.query_thread(evil, record, 's1')"_qs));
    QVERIFY(waitForAnswers(1));
}

void TestQueryThread::contextWithoutCallbackIsATypeError_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::newRow("context first") << "{}, 'select 1'"_qs;
    QTest::newRow("context last") << "'select 1', {}"_qs;
    QTest::newRow("context of the host") << "post, 'select 1'"_qs;
    QTest::newRow("with a number") << "{}, 'select 1', 5"_qs;
    QTest::newRow("with extra values") << "{}, 'select 1', [1]"_qs;
    QTest::newRow("without statement") << "{}, 5"_qs;
}

void TestQueryThread::contextWithoutCallbackIsATypeError()
{
    QFETCH(QString, arguments);
    openStub("STUB"_qs);
    checkTypeError("db.query_thread(%1)"_qs.arg(arguments), usage,
                   {"vext_sql:312 ~~~~ js_query_thread \t funcs and context validate: "
                    "obj.isObject() true : fnc.isObject() false : fnc.isFunction() false"_qs});
}

// --- sorting ---

void TestQueryThread::argumentsAreSortedByType_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QStringList>("statements");
    QTest::addColumn<QString>("callbackThis");
    const auto row = [](const char *name, const QString &arguments, const QStringList &statements,
                        const QString &callbackThis = "global"_qs) {
        QTest::newRow(name) << arguments << statements << callbackThis;
    };
    row("callback, statement", "f, 's1'"_qs, {"s1"_qs});
    row("statement, callback", "'s1', f"_qs, {"s1"_qs});
    row("context, callback, statement", "ctx, f, 's1'"_qs, {"s1"_qs}, "ctx"_qs);
    row("callback, context, statement", "f, ctx, 's1'"_qs, {"s1"_qs}, "ctx"_qs);
    row("statement, callback, context", "'s1', f, ctx"_qs, {"s1"_qs}, "ctx"_qs);
    row("context of the host", "post, f, 's1'"_qs, {"s1"_qs}, "post"_qs);
    row("second context is ignored", "ctx, f, 's1', post"_qs, {"s1"_qs}, "ctx"_qs);
    row("second function is the context", "f, g, 's1'"_qs, {"s1"_qs}, "g"_qs);
    row("third function is ignored", "f, g, 's1', h"_qs, {"s1"_qs}, "g"_qs);
    row("second statement is ignored", "'s1', 's2', f"_qs, {"s1"_qs});
    row("numbers, booleans and null are ignored", "5, true, 's1', null, f"_qs, {"s1"_qs});
    row("undefined is ignored", "undefined, f, 's1'"_qs, {"s1"_qs});
    row("list", "['s1', 's2'], f"_qs, {"s1"_qs, "s2"_qs});
    row("callback and list", "f, ['s1', 's2', 's1']"_qs, {"s1"_qs, "s2"_qs, "s1"_qs});
    row("string after a list", "['s1'], 's2', f"_qs, {"s1"_qs});
    row("list with a named property", "named, f"_qs, {"s1"_qs, "s2"_qs});
}

void TestQueryThread::argumentsAreSortedByType()
{
    QFETCH(QString, arguments);
    QFETCH(QStringList, statements);
    QFETCH(QString, callbackThis);
    openStub("STUB"_qs);
    eval("var global = this, self, ctx = {}, calls = 0;"
         "function f() { self = this; ++calls; } function g() { ++calls; } function h() {}"
         "var named = ['s1', 's2']; named.extra = 's3';"_qs);
    QVERIFY(truth("db.query_thread(%1) === true"_qs.arg(arguments)));
    QVERIFY(host().waitForScript("calls > 0"_qs));
    QCOMPARE(stub().executed("_thr"_qs), statements);
    QVERIFY(truth("self === %1 && calls === 1"_qs.arg(callbackThis)));
}

void TestQueryThread::extraValuesFollowTheCallbacksOwn_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("extra");
    QTest::newRow("two values") << "record, 's1', [1, 'a']"_qs
                                << "[1,\"a\"]"_qs;
    QTest::newRow("none") << "record, 's1'"_qs
                          << "[]"_qs;
    QTest::newRow("empty array") << "record, 's1', []"_qs
                                 << "[]"_qs;
    QTest::newRow("before the callback") << "'s1', [1], record"_qs
                                         << "[1]"_qs;
    QTest::newRow("after a list") << "['s1'], [[1], {k: 2}], record"_qs
                                  << "[[1],{\"k\":2}]"_qs;
    QTest::newRow("second array is ignored") << "record, 's1', [1], [2]"_qs
                                             << "[1]"_qs;
    QTest::newRow("array after an empty one") << "record, 's1', [], [2]"_qs
                                              << "[2]"_qs;
    QTest::newRow("named properties are skipped") << "record, 's1', named"_qs
                                                  << "[1,2]"_qs;
    QTest::newRow("gaps are skipped") << "record, 's1', [1, , 3]"_qs
                                      << "[1,3]"_qs;
    QTest::newRow("null and undefined") << "record, 's1', [null, undefined, 0]"_qs
                                        << "[null,null,0]"_qs;
}

void TestQueryThread::extraValuesFollowTheCallbacksOwn()
{
    QFETCH(QString, arguments);
    QFETCH(QString, extra);
    openStub("STUB"_qs);
    recordAnswers();
    eval("var named = [1, 2]; named.extra = 3;"_qs);
    QVERIFY(truth("db.query_thread(%1)"_qs.arg(arguments)));
    QVERIFY(waitForAnswers(1));
    QVERIFY(truth("typeof answers[0][2] === 'number'"_qs));
    QCOMPARE(json("answers[0].slice(3)"_qs), extra);
}

void TestQueryThread::oneContextArgumentAloneIsQueued()
{
    openStub("STUB"_qs);
    recordAnswers();
    // A single argument is not checked, and an object is no statement.
    QVERIFY(truth("db.query_thread({}) === true"_qs));
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("[finished[0][0], finished[0][1], finished[0][3]]"_qs), "[false,false,true]"_qs);
    QCOMPARE(stub().executed("_thr"_qs), QStringList());
}

void TestQueryThread::emptyListIsQueuedWithoutStatements()
{
    openStub("STUB"_qs);
    recordAnswers();
    QVERIFY(truth("db.query_thread([], record) === true"_qs));
    QVERIFY(truth("db.query_thread(record) === true"_qs));
    QVERIFY(truth("db.query_thread(5) === true"_qs));
    QVERIFY(waitForAnswers(3));
    QCOMPARE(json("[answers[0].slice(0, 2), answers[1].slice(0, 2)]"_qs),
             "[[false,false],[false,false]]"_qs);
    QCOMPARE(stub().executed("_thr"_qs), QStringList());
}

void TestQueryThread::emptyListLeavesRoomForAString()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread([], 's1', record);"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(stub().executed("_thr"_qs), QStringList{"s1"_qs});
}

void TestQueryThread::callReturnsBeforeTheStatementRuns()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    openStub("STUB"_qs).setDefaultReply(StubReply::affected(0).withGate(gate));
    recordAnswers();
    QVERIFY(truth("db.query_thread('s1', record) === true"_qs));
    QVERIFY(gate->waitReached());
    QVERIFY(truth("answers.length === 0 && db.isRunning"_qs));
    gate->release();
    QVERIFY(waitForAnswers(1));
}

// --- results of several statements ---

void TestQueryThread::singleStatementDeliversAnObject()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("db.query_thread('s1', record)"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("[answers[0][0].a, answers[0][1], answers[0].length]"_qs), "[[7],false,3]"_qs);
    QVERIFY(truth("!(answers[0][0] instanceof Array)"_qs));
    QVERIFY(truth("answers[0][0]['$ res sql'] === 1106"_qs));
}

void TestQueryThread::listOfOneDeliversAnObject()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("db.query_thread(['s1'], record)"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("[answers[0][0].a, answers[0][1]]"_qs), "[[7],false]"_qs);
}

void TestQueryThread::listDeliversArrays()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    stub().onExact("s2"_qs, StubReply::affected(2));
    recordAnswers();
    eval("db.query_thread(['s1', 's2', 's3'], record)"_qs);
    QVERIFY(waitForAnswers(1));
    eval("var r = answers[0][0];"_qs);
    QVERIFY(truth("r instanceof Array && answers[0][1] instanceof Array"_qs));
    QCOMPARE(
        json("[r.length, r[0].a, r[1].fields, r[1].numRowsAffected, r[2].a, answers[0][1]]"_qs),
        "[3,[7],0,2,[7],[false,false,false]]"_qs);
    QVERIFY(truth("r[0]['$ res sql'] === 1106 && r[2]['$ res sql'] === 1106"_qs));
    QVERIFY(truth("r['$ res sql'] === undefined"_qs));
    QCOMPARE(json("[r[0].executedQuery, r[1].executedQuery, r[2].executedQuery]"_qs),
             "[\"s1\",\"s2\",\"s3\"]"_qs);
}

void TestQueryThread::listWithoutCallbackDeliversArrays()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("db.query_thread(['s1', 's2'])"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(
        json("[finished[0][0].length, finished[0][0][1].a, finished[0][1], finished[0][3]]"_qs),
        "[2,[7],[false,false],true]"_qs);
}

void TestQueryThread::errorInTheMiddleGoesOn()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    stub().onExact("bad"_qs, StubReply::failure(statementError("no table"_qs)));
    recordAnswers();
    eval("db.query_thread(['s1', 'bad', 's3'], record); db.query_thread(['s1', 'bad', 's3']);"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("[answers[0][0][0].a, answers[0][0][1], answers[0][0][2].a, answers[0][1]]"_qs),
             "[[7],{},[7],[false,\"no table\",false]]"_qs);
    QCOMPARE(json("[finished[0][0], finished[0][1].length, finished[0][2]]"_qs),
             "[false,3,[false,\"no table\",false]]"_qs);
    QCOMPARE(json("[db.counters().cnt_sql_ok, db.counters().cnt_sql_er]"_qs), "[4,2]"_qs);
    QVERIFY(truth("db.isRunning && db.isOpen"_qs));
}

void TestQueryThread::emptyStatementSkipsTheRest()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("db.query_thread(['insert', '', 'select']);"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(stub().executed("_thr"_qs), QStringList{"insert"_qs});
    QVERIFY(truth("finished[0][0] === false && finished[0][1].length === 3"_qs));
    QCOMPARE(
        json("[finished[0][1][0].a, finished[0][1][1], finished[0][1][2], finished[0][2][0]]"_qs),
        "[[7],{},{},false]"_qs);
    QVERIFY(host().waitFor([&] { return !sent().isEmpty(); }));
    QCOMPARE(sent(), QStringList{"-1 run пустой запрос"_qs});
}

void TestQueryThread::emptyStatementAloneDeliversItsOutcome()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread('', record); db.query_thread(''); db.query_thread('s1');"_qs);
    QVERIFY(waitForAnswers(3));
    QCOMPARE(json("answers[0].slice(0, 2)"_qs), "[false,false]"_qs);
    QCOMPARE(json("finished[0].slice(0, 3)"_qs), "[false,false,false]"_qs);
    QCOMPARE(stub().executed("_thr"_qs), QStringList{"s1"_qs});
}

void TestQueryThread::timingOfOneStatementHoldsForTheTask()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread(['s1--', 's2'], record)"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(debugLines("queryFinThr"_qs).size(), 3);
}

// --- transaction words ---

void TestQueryThread::transactionWordActsOnTheConnection_data()
{
    QTest::addColumn<QString>("statement");
    QTest::addColumn<bool>("commits");
    QTest::newRow("commit") << "commit"_qs << true;
    QTest::newRow("Commit") << "Commit"_qs << true;
    QTest::newRow("COMMIT WORK") << "COMMIT WORK"_qs << true;
    QTest::newRow("commitment") << "commitment"_qs << true;
    QTest::newRow("commit;") << "commit;"_qs << true;
    QTest::newRow("rollback") << "rollback"_qs << false;
    QTest::newRow("RollBack") << "RollBack"_qs << false;
    QTest::newRow("rollback to savepoint a") << "rollback to savepoint a"_qs << false;
    QTest::newRow("rollbacks") << "rollbacks"_qs << false;
}

void TestQueryThread::transactionWordActsOnTheConnection()
{
    QFETCH(QString, statement);
    QFETCH(bool, commits);
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread(['s1', '%1', 's2'], record)"_qs.arg(statement));
    QVERIFY(waitForAnswers(1));
    QCOMPARE(stub().executed("_thr"_qs), (QStringList{"s1"_qs, "s2"_qs}));
    QCOMPARE(stub().count(StubCall::Commit, "_thr"_qs), commits ? 1 : 0);
    QCOMPARE(stub().count(StubCall::Rollback, "_thr"_qs), commits ? 0 : 1);
}

void TestQueryThread::otherTextIsExecuted_data()
{
    QTest::addColumn<QString>("statement");
    QTest::newRow("leading blank") << " commit"_qs;
    QTest::newRow("leading line break") << "\\nrollback"_qs;
    QTest::newRow("beginning of the word") << "commi"_qs;
    QTest::newRow("blank within") << "com mit"_qs;
    QTest::newRow("another word") << "comma"_qs;
    QTest::newRow("short rollback") << "rollbac"_qs;
    QTest::newRow("comment before") << "/**/commit"_qs;
    QTest::newRow("Cyrillic letter") << "сommit"_qs;
}

void TestQueryThread::otherTextIsExecuted()
{
    QFETCH(QString, statement);
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread('%1', record)"_qs.arg(statement));
    QVERIFY(waitForAnswers(1));
    QCOMPARE(stub().executed("_thr"_qs).size(), 1);
    QCOMPARE(stub().count(StubCall::Commit) + stub().count(StubCall::Rollback), 0);
}

void TestQueryThread::transactionWordAloneDeliversItsOutcome_data()
{
    QTest::addColumn<QString>("word");
    QTest::addColumn<bool>("good");
    QTest::newRow("commit") << "commit"_qs << true;
    QTest::newRow("commit that fails") << "commit"_qs << false;
    QTest::newRow("rollback") << "rollback"_qs << true;
    QTest::newRow("rollback that fails") << "rollback"_qs << false;
}

void TestQueryThread::transactionWordAloneDeliversItsOutcome()
{
    QFETCH(QString, word);
    QFETCH(bool, good);
    openStub("STUB"_qs);
    if (!good) {
        stub().fail(StubCall::Commit, statementError("no"_qs));
        stub().fail(StubCall::Rollback, statementError("no"_qs));
    }
    recordAnswers();
    eval("db.query_thread('%1', record); db.query_thread('%1');"_qs.arg(word));
    QVERIFY(waitForAnswers(2));
    const QString outcome = good ? "true"_qs : "false"_qs;
    QCOMPARE(json("answers[0].slice(0, 2)"_qs), "[%1,false]"_qs.arg(outcome));
    // The outcome is the result; the task itself has not failed.
    QCOMPARE(json("[finished[0][0], finished[0][1], finished[0][3]]"_qs),
             "[%1,false,true]"_qs.arg(outcome));
}

void TestQueryThread::transactionWordLeavesNoResult()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval(
        "db.query_thread(['commit', 's1', 'commit', 's2'], record);"
        "db.query_thread(['s1', 'commit'], record); db.query_thread(['commit', 'rollback'], record);"_qs);
    QVERIFY(waitForAnswers(3));
    eval("var r = answers[0][0], e = answers[0][1];"_qs);
    QCOMPARE(json("[r.length, r[0], r[1].a, r[2], r[3].a, e.length, e[1], e[3]]"_qs),
             "[4,{},[7],{},[7],4,false,false]"_qs);
    QVERIFY(truth("e[0] === undefined && e[2] === undefined"_qs));
    QCOMPARE(
        json("[answers[1][0].length, answers[1][0][0].a, answers[1][0][1], answers[1][1][0]]"_qs),
        "[2,[7],{},false]"_qs);
    QVERIFY(truth("answers[2][0] === true"_qs));
}

void TestQueryThread::transactionWordIsNotCounted()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread(['commit', 's1', 'rollback'], record)"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("[db.counters().cnt_sql_ok, db.counters().cnt_sql_er]"_qs), "[1,0]"_qs);
}

void TestQueryThread::transactionWordEndsTheTransaction()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.start_thread(); db.transaction(); db.query_thread(['s1', 'commit']);"
         "db.commit();"_qs);
    QVERIFY(waitForAnswers(3));
    // The worker's transaction was over before the command came.
    QCOMPARE(stub().count(StubCall::Begin, "_thr"_qs), 1);
    QCOMPARE(stub().count(StubCall::Commit, "_thr"_qs), 1);
    QCOMPARE(stub().count(StubCall::Commit), 2);
    eval("db.stop_thread(60000)"_qs);
    QCOMPARE(stub().count(StubCall::Rollback), 0);
}

// --- the worker ---

void TestQueryThread::statementsRunOnTheThreadConnection()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread('s1', record); db.query_thread('s2', record);"_qs);
    QVERIFY(waitForAnswers(2));
    const QVector<StubCall> calls = stub().calls(StubCall::Exec);
    QCOMPARE(calls.size(), 2);
    for (const StubCall &call : calls) {
        QCOMPARE(call.connection, text("db.connectionName"_qs) + "_thr"_qs);
        QVERIFY(!call.mainThread);
    }
    QCOMPARE(stub().count(StubCall::Open, "_thr"_qs), 1);
    eval("db.stop_thread(60000)"_qs);
    QCOMPARE(stub().count(StubCall::Close, "_thr"_qs), 1);
    QCOMPARE(stub().liveDrivers(), 1);
}

void TestQueryThread::statementsAreTracedAsGiven()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.traceLog = true; db.query_thread([' s1 ', 'commit', 's%1'], record)"_qs);
    QVERIFY(waitForAnswers(1));
    QVERIFY(host().waitFor([&] { return sent().size() >= 3; }));
    QCOMPARE(sent(),
             (QStringList{"2 run sql=' s1 '"_qs, "2 run sql='commit'"_qs, "2 run sql='s%1'"_qs}));
}

void TestQueryThread::traceIsThatOfTheThreadsStart()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread('s1', record)"_qs);
    QVERIFY(waitForAnswers(1));
    eval("db.traceLog = true; db.query_thread('s2', record)"_qs);
    QVERIFY(waitForAnswers(2));
    drainEvents();
    QCOMPARE(sent().filter("run "_qs), QStringList());
    eval("db.stop_thread(60000); db.query_thread('s3', record)"_qs);
    QVERIFY(waitForAnswers(3));
    eval("db.traceLog = false; db.query_thread('s4', record)"_qs);
    QVERIFY(waitForAnswers(4));
    drainEvents();
    QCOMPARE(sent().filter("run "_qs), (QStringList{"2 run sql='s3'"_qs, "2 run sql='s4'"_qs}));
}

/// Only the line that times the callback wants its answer as a text.
void TestQueryThread::textOfACallbacksAnswerMayThrow()
{
    openStub("STUB"_qs);
    eval("db.query_thread(function() { return {toString: function() { throw new Error('no text'); "
         "}}; }, 'q --')"_qs);
    QVERIFY(log().waitFor("\\t return"_qs));
    QVERIFY(!host().engine()->hasUncaughtException());
    QVERIFY(!debugLines("queryFinThr"_qs).last().contains("Exception !!!"_qs));
}

void TestQueryThread::statementsAreCounted()
{
    openStub("STUB"_qs).onExact("bad"_qs, StubReply::failure(statementError("no"_qs)));
    recordAnswers();
    eval("db.query('s'); db.query('bad'); finished = [];"
         "db.query_thread(['s1', 'bad', 's2'], record)"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("[db.counters().cnt_sql_ok, db.counters().cnt_sql_er]"_qs), "[3,2]"_qs);
    // The worker writes no line of its own about a failed statement.
    QCOMPARE(criticalLines().size(), 1);
}

void TestQueryThread::lastStateFollowsTheWorker()
{
    openStub("STUB"_qs).onExact("bad"_qs, StubReply::failure(statementError("no table"_qs)));
    stub().onExact("five"_qs, StubReply::affected(5));
    recordAnswers();
    eval("db.query_thread('bad', record)"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("[db.lastQuery, db.lastError, db.lastErrors.typeStr]"_qs),
             "[\"bad\",\"no table STUB: failed\",\"StatementError\"]"_qs);
    eval("db.query_thread(' five ', record); db.query_thread('five', record)"_qs);
    QVERIFY(waitForAnswers(3));
    QCOMPARE(json("[db.lastQuery, db.lastError, db.affectedRows]"_qs), "[\"five\",\"\",5]"_qs);
}

void TestQueryThread::connectionErrorEndsTheThread()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    openStub("STUB"_qs).onExact(
        "lost"_qs,
        StubReply::failure(stubError(QSqlError::ConnectionError, "gone"_qs)).withGate(gate));
    recordAnswers();
    eval("db.query_thread('lost', record); db.query_thread('s1', record);"
         "db.query_thread('s2');"_qs);
    QVERIFY(gate->waitReached());
    gate->release();
    QVERIFY(waitForAnswers(3));
    QCOMPARE(json("[answers[0].slice(0, 2), answers[1].slice(0, 2), finished[0].slice(0, 3)]"_qs),
             "[[{},\"gone\"],[false,false],[false,false,false]]"_qs);
    QVERIFY(host().waitForScript("!db.isRunning"_qs));
    QCOMPARE(stub().executed("_thr"_qs), QStringList{"lost"_qs});
    QVERIFY(truth("db.isOpen"_qs));
    eval("db.query_thread('s3', record)"_qs);
    QVERIFY(waitForAnswers(4));
    QCOMPARE(stub().executed("_thr"_qs), (QStringList{"lost"_qs, "s3"_qs}));
    QCOMPARE(stub().count(StubCall::Open, "_thr"_qs), 2);
}

void TestQueryThread::connectionErrorSkipsTheRest()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    stub().onExact("lost"_qs, StubReply::failure(stubError(QSqlError::ConnectionError, "gone"_qs)));
    recordAnswers();
    eval("db.query_thread(['s1', 'lost', 's2']);"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(stub().executed("_thr"_qs), (QStringList{"s1"_qs, "lost"_qs}));
    eval("var r = finished[0][1], e = finished[0][2];"_qs);
    QCOMPARE(json("[finished[0][0], r.length, r[0].a, r[1], r[2], e.length, e[0], e[1]]"_qs),
             "[false,3,[7],{},{},3,false,\"gone\"]"_qs);
    QVERIFY(truth("e[2] === undefined"_qs));
}

void TestQueryThread::stopEndsTheListAfterItsStatement()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    openStub("STUB"_qs).onExact("s1"_qs, StubReply::affected(3).withGate(gate));
    recordAnswers();
    eval("db.query_thread(['s1', 's2']);"_qs);
    QVERIFY(gate->waitReached());
    eval("db.stop_thread(0);"_qs);
    gate->release();
    QVERIFY(waitForAnswers(1));
    QCOMPARE(stub().executed("_thr"_qs), QStringList{"s1"_qs});
    eval("var failed = finished[0][0] === false, r = finished[0][failed ? 1 : 0],"
         "    e = finished[0][failed ? 2 : 1];"_qs);
    QCOMPARE(json("[r.length, r[0].numRowsAffected, r[1], e.length, e[0]]"_qs),
             "[2,3,{},2,false]"_qs);
    QVERIFY(truth("e[1] === undefined"_qs));
    // The statement that ran was no failure, and the one that did not run left no error.
    QVERIFY(truth("finished[0][3] === true"_qs));
}

void TestQueryThread::threadConnectionThatCannotBeOpenedFailsTheTasks()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    openStub("STUB"_qs);
    stub().effect(StubCall::Open, StubEffect::held(gate),
                  StubWhere::connection("_thr"_qs).andNth(1));
    stub().fail(StubCall::Open, stubError(QSqlError::ConnectionError, "refused"_qs),
                StubWhere::connection("_thr"_qs).andNth(1));
    recordAnswers();
    eval("db.query_thread('s1', record); db.query_thread('s2');"_qs);
    QVERIFY(gate->waitReached());
    gate->release();
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("[answers[0].slice(0, 2), finished[0].slice(0, 3)]"_qs),
             "[[false,false],[false,false,false]]"_qs);
    QVERIFY(host().waitForScript("!db.isRunning"_qs));
    QCOMPARE(text("db.lastErrors.databaseText"_qs), "refused"_qs);
    QCOMPARE(sent(), QStringList());
    eval("db.query_thread('s3', record)"_qs);
    QVERIFY(waitForAnswers(3));
    QCOMPARE(stub().executed("_thr"_qs), QStringList{"s3"_qs});
}

void TestQueryThread::threadConnectionThatCannotBeOpenedIsReportedWhileTracing()
{
    openStub("STUB"_qs);
    stub().fail(StubCall::Open, stubError(QSqlError::ConnectionError, "refused"_qs),
                StubWhere::connection("_thr"_qs));
    recordAnswers();
    eval("db.traceLog = true; db.query_thread('s1', record);"_qs);
    QVERIFY(waitForAnswers(1));
    QVERIFY(host().waitFor([&] { return !sent().isEmpty(); }));
    QCOMPARE(sent(), QStringList{"-1 run не смог подключиться к БД 'refused STUB: failed'"_qs});
}

void TestQueryThread::postgresLearnsTheNameOnce()
{
    makeStub("QPSQL"_qs, QSqlDriver::PostgreSQL);
    eval("var db = new VEXT_SQL(); db.driverName = 'QPSQL'; db.app_name = 'orders'; db.open();"_qs);
    recordAnswers();
    stub().clearRecord();
    eval("db.query_thread('s1', record); db.query_thread('s2', record);"_qs);
    QVERIFY(waitForAnswers(2));
    QStringList texts;
    const QVector<StubCall> calls = stub().calls();
    for (const StubCall &call : calls) {
        if (call.what == StubCall::Exec || call.what == StubCall::ExecPrepared)
            texts.append(call.writtenText.isEmpty() ? call.text : call.writtenText);
        if (call.what == StubCall::ExecPrepared)
            QCOMPARE(call.bindings.value(0).value, QVariant("orders thr"_qs));
    }
    QCOMPARE(texts,
             (QStringList{"SET client_encoding = 'UTF8'"_qs,
                          "SELECT set_config('application_name', ?, false)"_qs, "s1"_qs, "s2"_qs}));
}

void TestQueryThread::longListRunsWhole()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("var many = []; for (var i = 0; i < 10000; ++i) many.push('s' + i);"
         "db.query_thread(many, record);"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("[answers[0][0].length, answers[0][1].length, answers[0][0][9999].executedQuery,"
                  "answers[0][1][9999], db.counters().cnt_sql_ok]"_qs),
             "[10000,10000,\"s9999\",false,10000]"_qs);
}

void TestQueryThread::tasksRunInOrder()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("for (var i = 0; i < 500; ++i) db.query_thread('s' + i, record, [i]);"_qs);
    QVERIFY(waitForAnswers(500));
    QStringList expected;
    for (int i = 0; i < 500; ++i)
        expected.append("s%1"_qs.arg(i));
    QCOMPARE(stub().executed("_thr"_qs), expected);
    QVERIFY(truth("answers.every(function(a, i) { return a[3] === i; })"_qs));
}

void TestQueryThread::sqliteRunsAListOnItsFile()
{
    openSqlite();
    eval("db.query('create table t(id integer primary key, name text)');"_qs);
    recordAnswers();
    eval("db.query_thread([\"insert into t values(1, 'a')\", 'selekt', "
         "'insert into t(name) values(null)', 'select id, name from t order by id'], record);"_qs);
    QVERIFY(waitForAnswers(1));
    eval("var r = answers[0][0], e = answers[0][1];"_qs);
    QCOMPARE(json("[r[0].lastInsertId, r[1], r[2].lastInsertId, r[3].id, r[3].name,"
                  "r[3].fields_nulls, e[0], e[2], e[3]]"_qs),
             "[1,{},2,[1,2],[\"a\",null],[[],[1]],false,false,false]"_qs);
    QVERIFY2(text("e[1]"_qs).contains("syntax error"_qs), qPrintable(text("e[1]"_qs)));
    QCOMPARE(json("db.query('select count(*) c from t').c"_qs), "[2]"_qs);
}

QTEST_GUILESS_MAIN(TestQueryThread)
#include "test_query_thread.moc"
