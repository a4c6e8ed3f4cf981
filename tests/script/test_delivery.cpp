/// @file
/// Completion and delivery: what reaches a callback or query_finish, in which order, and what the
/// script may do there. Records that no script can make are handed in directly.
#include "script_test.h"

#include "plugin_sql.h"
#include "vext_sql.h"
#include "vext_sql_thread.h"

#include <QScriptContext>

namespace
{

StubReply oneRow(int value)
{
    return StubReply::table({{QStringLiteral("a"), QVariant::Int}}, {{value}});
}

/// Script function: deletes a connection object as a host may.
QScriptValue destroyNow(QScriptContext *context, QScriptEngine *)
{
    delete context->argument(0).toQObject();
    return QScriptValue();
}

/// Script function: runs events until the global `goOn` is true.
QScriptValue runEvents(QScriptContext *, QScriptEngine *engine)
{
    return waitUntil(
        [engine] { return engine->globalObject().property(QStringLiteral("goOn")).toBool(); });
}

/// Script function: handles all events that wait, deferred deletions too.
QScriptValue drain(QScriptContext *, QScriptEngine *)
{
    drainEvents();
    return QScriptValue();
}

/// Script function: the call runs in the application's thread.
QScriptValue inMainThread(QScriptContext *, QScriptEngine *)
{
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}

} // namespace

class TestDelivery : public ScriptTest
{
    Q_OBJECT

protected:
    QObject *pluginObject() override { return m_root.globalObject(); }

private Q_SLOTS:
    // the four orders of arguments
    void threadedCallbackGetsResultErrorAge();
    void threadedSignalLeadsWithFalseOrEndsWithTrue();
    void synchronousCallbackGetsNoError();
    void synchronousSignalLeadsWithFalseOrEndsWithTrue();
    void failedQueryIsNotDelivered();
    void synchronousCallsEmitQueryFinish_data();
    void synchronousCallsEmitQueryFinish();
    void ageIsThatOfTheTask();
    void deliveryRunsInTheEnginesThread();

    // records without a script
    void missingTaskIsReported_data();
    void missingTaskIsReported();
    void missingTaskIsIgnoredAtCompletion();
    void missingTaskConvertsToFalse();
    void taskWithoutQueryIsReportedAndFreed();
    void conversionLeavesTheResultInTheTask();
    void conversionWithoutAnEntryKeepsTheResult();
    void synchronousCallbackGetsTheStatementsIndex();
    void completionKeepsPreparedContainers();
    void completionFollowsTheIndexOfEachEntry();
    void completionWithoutEntriesDeliversTheOutcome_data();
    void completionWithoutEntriesDeliversTheOutcome();
    void commandOfAnUnknownKindRunsNothing();
    void lastStateMarksTheTask();
    void rowsAffectedAreSummed();
    void recordHoldsTheOutcome();
    void recordOfAFailureHasNoColumns();
    void failedSynchronousDeliveryPublishesAnEmptyResult();
    void recordOfAnErrorAmongTheRowsFailsItsTask();
    void recordOfAStoppedReadFailsItsTask();
    void recordOfARefusedStatementHoldsItsText();

    // timing
    void timingTracesTheCallback();
    void timingTracesThatNobodyIsCalled();
    void timingMarksAnException();
    void noTimingNoLines();

    // callbacks that do something
    void throwingCallbackHarmsNobody();
    void throwingHandlerHarmsNobody();
    void callbackQueuesMore();
    void callbackQueriesSynchronously();
    void callbackCloses();
    void callbackClosesAndOpensAgain();
    void callbackDeletesTheConnection();
    void callbackDeletesAnotherConnection();
    void callbackRunsAnEventLoop();
    void callbackStopsTheThread();
    void handlerQueuesMore();
    void handlerQueriesSynchronously();
    void handlerClosesWithinASynchronousCall();
    void handlerDeletesWithinASynchronousCall();
    void handlerDeletesWithinADelivery();
    void connectionDeletedInANestedLoop();
    void connectionGoneBeforeTheHandlerReturns();
    void connectionClosedInANestedLoop();
    void argumentsMayCloseTheConnection_data();
    void argumentsMayCloseTheConnection();

    // lives
    void callbackSurvivesGarbageCollection();
    void deletedConnectionDeliversNothing();
    void destroyedEngineFreesEverything();
    void resultOutlivesTheConnection();
    void clearTakesWhateverTheScriptPutThere_data();
    void clearTakesWhateverTheScriptPutThere();

private:
    VEXT_sqlThr *worker();
    QScriptValue invoke(const char *method, structThrSql *task);
    void invokeVoid(const char *method, structThrSql *task);
    /// A task as query() makes it, executed.
    structThrSql *executed(const QString &sql);
    void addFunctions();

    VextPlugin m_root;
};

VEXT_sqlThr *TestDelivery::worker()
{
    return eval("db"_qs).toQObject()->findChild<VEXT_sqlThr *>();
}

QScriptValue TestDelivery::invoke(const char *method, structThrSql *task)
{
    QScriptValue value;
    if (!QMetaObject::invokeMethod(worker(), method, Qt::DirectConnection,
                                   Q_RETURN_ARG(QScriptValue, value), Q_ARG(structThrSql *, task)))
        QTest::qFail(method, __FILE__, __LINE__);
    return value;
}

void TestDelivery::invokeVoid(const char *method, structThrSql *task)
{
    if (!QMetaObject::invokeMethod(worker(), method, Qt::DirectConnection,
                                   Q_ARG(structThrSql *, task)))
        QTest::qFail(method, __FILE__, __LINE__);
}

structThrSql *TestDelivery::executed(const QString &sql)
{
    auto *task = new structThrSql(worker()->db);
    task->sqlList.append(sql);
    task->ok = task->sqlQuery->exec(sql);
    return task;
}

void TestDelivery::addFunctions()
{
    QScriptValue global = host().engine()->globalObject();
    global.setProperty("destroyNow"_qs, host().engine()->newFunction(&destroyNow));
    global.setProperty("runEvents"_qs, host().engine()->newFunction(&runEvents));
    global.setProperty("drain"_qs, host().engine()->newFunction(&drain));
    global.setProperty("inMainThread"_qs, host().engine()->newFunction(&inMainThread));
}

// --- the four orders of arguments ---

void TestDelivery::threadedCallbackGetsResultErrorAge()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    stub().onExact("bad"_qs, StubReply::failure(statementError("no table"_qs)));
    recordAnswers();
    eval("var self; db.query_thread({n: 1}, function() { self = this; record.apply(null, "
         "arguments); },"
         "    'good', ['x', 2]); db.query_thread(record, 'bad', ['y']);"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(
        json(
            "[answers[0].length, answers[0][0].a, answers[0][1], answers[0][3], answers[0][4]]"_qs),
        "[5,[7],false,\"x\",2]"_qs);
    QCOMPARE(json("[answers[1].length, answers[1][0], answers[1][1], answers[1][3]]"_qs),
             "[4,{},\"no table\",\"y\"]"_qs);
    QVERIFY(truth("typeof answers[0][2] === 'number' && answers[0][2] >= 0"_qs));
    QVERIFY(truth("typeof answers[1][2] === 'number' && self.n === 1 && finished.length === 0"_qs));
}

void TestDelivery::threadedSignalLeadsWithFalseOrEndsWithTrue()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    stub().onExact("bad"_qs, StubReply::failure(statementError("no table"_qs)));
    recordAnswers();
    eval("db.query_thread('good'); db.query_thread('bad');"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("[finished[0].length, finished[0][0].a, finished[0][1], finished[0][3]]"_qs),
             "[4,[7],false,true]"_qs);
    QVERIFY(truth("typeof finished[0][2] === 'number'"_qs));
    QCOMPARE(json("[finished[1].length, finished[1][0], finished[1][1], finished[1][2]]"_qs),
             "[4,false,{},\"no table\"]"_qs);
    QVERIFY(truth("typeof finished[1][3] === 'number'"_qs));
}

void TestDelivery::synchronousCallbackGetsNoError()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    stub().onExact("cut"_qs, oneRow(7).failingAtRow(0, statementError("cut"_qs)));
    recordAnswers();
    eval("var self, ctx = {}; function note() { self = this; record.apply(null, arguments); }"_qs);
    for (const QString &sql : {"good"_qs, "cut"_qs}) {
        structThrSql *task = executed(sql);
        task->func = host().global("note"_qs);
        task->thisObject = host().global("ctx"_qs);
        task->callArgs << QScriptValue(host().engine(), "x"_qs) << QScriptValue(host().engine(), 2);
        const QScriptValue returned = invoke("fetchResFin", task);
        host().engine()->globalObject().setProperty("returned"_qs, returned);
        if (sql == "good"_qs)
            QVERIFY(truth("returned === answers[0][0] && returned === db.queryResult"_qs));
    }
    QCOMPARE(
        json(
            "[answers[0].length, answers[0][0].a, answers[0][1], answers[0][3], answers[0][4]]"_qs),
        "[5,[7],0,\"x\",2]"_qs);
    QVERIFY(truth("typeof answers[0][2] === 'number' && self === ctx"_qs));
    QCOMPARE(json("[answers[1].length, answers[1][0], answers[1][1], answers[1][2], answers[1][4],"
                  "answers[1][5]]"_qs),
             "[6,false,{},0,\"x\",2]"_qs);
    QVERIFY(truth("typeof answers[1][3] === 'number' && finished.length === 0"_qs));
    QCOMPARE(number("db.counters().cnt_sql_er"_qs), 1.0);
}

void TestDelivery::synchronousSignalLeadsWithFalseOrEndsWithTrue()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    stub().onExact("cut"_qs, oneRow(7).failingAtRow(0, statementError("cut"_qs)));
    recordAnswers();
    invoke("fetchResFin", executed("good"_qs));
    invoke("fetchResFin", executed("cut"_qs));
    QCOMPARE(json("[finished[0].length, finished[0][0].a, finished[0][1], finished[0][3]]"_qs),
             "[4,[7],false,true]"_qs);
    QCOMPARE(json("[finished[1].length, finished[1][0], finished[1][1], finished[1][2]]"_qs),
             "[4,false,{},\"cut\"]"_qs);
    QVERIFY(truth("typeof finished[0][2] === 'number' && typeof finished[1][3] === 'number'"_qs));
}

void TestDelivery::failedQueryIsNotDelivered()
{
    openStub("STUB"_qs).setDefaultReply(StubReply::failure(statementError("no"_qs)));
    recordAnswers();
    eval("db.query('bad'); db.exec('bad', []);"_qs);
    drainEvents();
    QVERIFY(truth("finished.length === 0"_qs));
}

void TestDelivery::synchronousCallsEmitQueryFinish_data()
{
    QTest::addColumn<QString>("call");
    QTest::newRow("query") << "db.query('q')"_qs;
    QTest::newRow("exec with one argument") << "db.exec('q')"_qs;
    QTest::newRow("exec") << "db.exec('q', [1])"_qs;
}

void TestDelivery::synchronousCallsEmitQueryFinish()
{
    QFETCH(QString, call);
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("var seen; db.query_finish.connect(function() { seen = db.queryResult; });"
         "var r = %1;"_qs.arg(call));
    QVERIFY(truth("finished.length === 1 && finished[0][0] === r && seen === r"_qs));
    QCOMPARE(json("[finished[0].length, finished[0][1], finished[0][3]]"_qs), "[4,false,true]"_qs);
    QVERIFY(truth("typeof finished[0][2] === 'number'"_qs));
}

void TestDelivery::ageIsThatOfTheTask()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    openStub("STUB"_qs).setDefaultReply(StubReply::affected(0).withGate(gate));
    recordAnswers();
    QElapsedTimer age;
    age.start();
    eval("db.query_thread(record, 'q')"_qs);
    QVERIFY(gate->waitReached());
    QElapsedTimer held; // begins after the task
    held.start();
    QVERIFY(waitUntil([&] { return held.elapsed() >= 30; }));
    gate->release();
    QVERIFY(waitForAnswers(1));
    QVERIFY2(number("answers[0][2]"_qs) >= 30, qPrintable(text("answers[0][2]"_qs)));
    QVERIFY2(number("answers[0][2]"_qs) <= age.elapsed(), qPrintable(text("answers[0][2]"_qs)));
}

void TestDelivery::deliveryRunsInTheEnginesThread()
{
    openStub("STUB"_qs);
    addFunctions();
    recordAnswers();
    eval("var places = [];"
         "db.query_finish.connect(function() { places.push(inMainThread()); });"
         "db.query_thread(function() { places.push(inMainThread()); record(); }, 'q');"
         "db.query_thread('q');"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("places"_qs), "[true,true]"_qs);
}

// --- records without a script ---

void TestDelivery::missingTaskIsReported_data()
{
    QTest::addColumn<QString>("method");
    QTest::newRow("fetchResThr") << "fetchResThr"_qs;
    QTest::newRow("queryFinThr") << "queryFinThr"_qs;
}

void TestDelivery::missingTaskIsReported()
{
    QFETCH(QString, method);
    openStub("STUB"_qs);
    recordAnswers();
    invokeVoid(method.toLatin1().constData(), nullptr);
    QCOMPARE(criticalLines().size(), 1);
    const QRegularExpression line("^vext_sql_thread:\\d+ ~~~~ "_qs + method + " \\t "_qs);
    QVERIFY2(line.match(criticalLines().first()).hasMatch(), qPrintable(criticalLines().first()));
    QVERIFY(truth("finished.length === 0"_qs));
}

void TestDelivery::missingTaskIsIgnoredAtCompletion()
{
    openStub("STUB"_qs);
    recordAnswers();
    invokeVoid("completeAsyncTask", nullptr);
    QCOMPARE(criticalLines(), QStringList());
    QVERIFY(truth("finished.length === 0"_qs));
}

void TestDelivery::missingTaskConvertsToFalse()
{
    openStub("STUB"_qs);
    const QScriptValue value = invoke("fetchResult", nullptr);
    QVERIFY(value.isBool() && !value.toBool());
}

void TestDelivery::taskWithoutQueryIsReportedAndFreed()
{
    openStub("STUB"_qs);
    recordAnswers();
    invokeVoid("fetchResThr", new structThrSql); // a leak check would find it
    QCOMPARE(criticalLines().size(), 1);
    QVERIFY(criticalLines().first().contains(" ~~~~ fetchResThr \t "_qs));
    QVERIFY(truth("finished.length === 0"_qs));
}

void TestDelivery::conversionLeavesTheResultInTheTask()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    const std::unique_ptr<structThrSql> task(executed("good"_qs));
    invokeVoid("fetchResThr", task.get());
    QCOMPARE(criticalLines(), QStringList());
    QVERIFY(!task->sqlQuery);
    QCOMPARE(task->results.size(), 1);
    QCOMPARE(task->result.property("a"_qs).property(0u).toInt32(), 7);
    QVERIFY(truth("finished.length === 0"_qs));
}

void TestDelivery::conversionWithoutAnEntryKeepsTheResult()
{
    openStub("STUB"_qs);
    structThrSql task;
    task.result = QScriptValue(host().engine(), "kept"_qs);
    task.results.append(structSqlResult());
    task.results[0].index = 4;
    QCOMPARE(invoke("fetchResult", &task).toString(), "kept"_qs);
    QVERIFY(task.error.isBool() && !task.error.toBool());
}

void TestDelivery::synchronousCallbackGetsTheStatementsIndex()
{
    openStub("STUB"_qs);
    recordAnswers();
    structThrSql *task = executed("good"_qs);
    task->current = 3;
    task->func = host().global("record"_qs);
    invoke("fetchResFin", task);
    QCOMPARE(json("[answers[0][0].fields, answers[0][1], answers[0].length]"_qs), "[0,3,3]"_qs);
}

void TestDelivery::completionKeepsPreparedContainers()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("var mine = {own: 1}, list = [{}, {}], errors = [5, 5];"_qs);
    auto *single = new structThrSql;
    single->inThread = true;
    single->result = host().global("mine"_qs);
    single->results.append(structSqlResult());
    invokeVoid("completeAsyncTask", single);
    QVERIFY(truth("finished[0][0] === mine && mine.own === 1 && mine.fields === 0"_qs));

    auto *several = new structThrSql;
    several->inThread = true;
    several->sqlList << "s1"_qs
                     << "s2"_qs;
    several->result = host().global("list"_qs);
    several->error = host().global("errors"_qs);
    several->results << structSqlResult() << structSqlResult();
    several->results[1].index = 1;
    invokeVoid("completeAsyncTask", several);
    QVERIFY(truth("finished[1][0] === list && finished[1][1] === errors"_qs));
    QCOMPARE(json("[list[0].fields, list[1].fields, errors]"_qs), "[0,0,[false,false]]"_qs);
}

void TestDelivery::completionFollowsTheIndexOfEachEntry()
{
    openStub("STUB"_qs);
    recordAnswers();
    auto *task = new structThrSql;
    task->inThread = true;
    task->sqlList << "s1"_qs
                  << "s2"_qs;
    task->results << structSqlResult() << structSqlResult();
    task->results[0].index = 1;
    task->results[0].numRowsAffected = 11;
    task->results[1].index = 0;
    task->results[1].error = statementError("first"_qs);
    invokeVoid("completeAsyncTask", task);
    QCOMPARE(json("[finished[0][0], finished[0][1][0], finished[0][1][1].numRowsAffected,"
                  "finished[0][2]]"_qs),
             "[false,{},11,[\"first\",false]]"_qs);
}

void TestDelivery::completionWithoutEntriesDeliversTheOutcome_data()
{
    QTest::addColumn<bool>("ok");
    QTest::newRow("true") << true;
    QTest::newRow("false") << false;
}

void TestDelivery::completionWithoutEntriesDeliversTheOutcome()
{
    QFETCH(bool, ok);
    openStub("STUB"_qs);
    recordAnswers();
    auto *task = new structThrSql;
    task->inThread = true;
    task->ok = ok;
    task->func = host().global("record"_qs);
    invokeVoid("completeAsyncTask", task);
    QCOMPARE(json("answers[0].slice(0, 2)"_qs), ok ? "[true,false]"_qs : "[false,false]"_qs);
}

void TestDelivery::commandOfAnUnknownKindRunsNothing()
{
    openStub("STUB"_qs);
    recordAnswers();
    auto *task = new structThrSql;
    task->type = taskSqlType(7);
    task->sqlList << "s1"_qs;
    QVERIFY(worker()->appendSqlTask(task));
    QVERIFY(waitForAnswers(1));
    QCOMPARE(stub().executed("_thr"_qs), QStringList());
    QCOMPARE(json("[finished[0][0], finished[0][1], finished[0][3]]"_qs), "[false,false,true]"_qs);
}

void TestDelivery::lastStateMarksTheTask()
{
    openStub("STUB"_qs).onExact("bad"_qs, StubReply::failure(statementError("no table"_qs)));
    const std::unique_ptr<structThrSql> bad(executed("bad"_qs));
    worker()->setLast(bad.get());
    QVERIFY(bad->failed);
    QCOMPARE(json("[db.lastQuery, db.lastErrors.databaseText]"_qs), "[\"bad\",\"no table\"]"_qs);
    const std::unique_ptr<structThrSql> good(executed(" good "_qs));
    worker()->setLast(good.get());
    QVERIFY(!good->failed);
    QCOMPARE(json("[db.lastQuery, db.lastError]"_qs), "[\"good\",\"\"]"_qs);
}

void TestDelivery::rowsAffectedAreSummed()
{
    openStub("STUB"_qs).onExact("three"_qs, StubReply::affected(3));
    stub().onExact("unknown"_qs, StubReply::affected(-1));
    const std::unique_ptr<structThrSql> task(executed("three"_qs));
    QVERIFY(worker()->detachSqlResult(task.get()));
    QVERIFY(!worker()->detachSqlResult(task.get())); // no query any more
    QVERIFY(!worker()->detachSqlResult(nullptr));
    for (const QString &sql : {"unknown"_qs, "three"_qs}) {
        task->sqlQuery = new QSqlQuery(worker()->db);
        ++task->current;
        QVERIFY(task->sqlQuery->exec(sql));
        QVERIFY(worker()->detachSqlResult(task.get()));
    }
    QCOMPARE(task->rowsAffected, 6);
    QCOMPARE(task->results.size(), 3);
    QCOMPARE(task->results.at(2).index, 2);
    QCOMPARE(task->results.at(1).numRowsAffected, 0);
    QCOMPARE(task->results.at(2).executedQuery, "three"_qs);
    stub().onExact("three"_qs, StubReply::affected(std::numeric_limits<int>::max()));
    task->sqlQuery = new QSqlQuery(worker()->db);
    QVERIFY(task->sqlQuery->exec("three"_qs) && worker()->detachSqlResult(task.get()));
    QCOMPARE(task->rowsAffected, std::numeric_limits<int>::max()); // and no negative sum
}

void TestDelivery::recordHoldsTheOutcome()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::table({{"a"_qs, QVariant::Int}, {"B"_qs, QVariant::Int}},
                         {{1, "x"_qs}, {QVariant(QVariant::Int), "y"_qs}, {3, QVariant()}})
            .withSize(9)
            .withAffected(4)
            .withLastInsertId(5));
    const std::unique_ptr<structThrSql> task(executed(" q "_qs));
    task->current = 2;
    QVERIFY(worker()->detachSqlResult(task.get()));
    QVERIFY(!task->sqlQuery);
    QCOMPARE(stub().liveResults(), 0);
    const structSqlResult &result = task->results.first();
    QCOMPARE(result.error.type(), QSqlError::NoError);
    QCOMPARE(result.index, 2);
    QCOMPARE(result.size, 9);
    QCOMPARE(result.numRowsAffected, 4);
    QCOMPARE(result.executedQuery, "q"_qs);
    QCOMPARE(result.lastQuery, "q"_qs);
    QVERIFY(result.hasLastInsertId && !result.canceled);
    QCOMPARE(result.lastInsertId, QVariant(5));
    QCOMPARE(result.fields.size(), 2);
    QCOMPARE(result.fields.at(0).name, "a"_qs);
    QCOMPARE(result.fields.at(0).type, int(QMetaType::Int));
    QCOMPARE(result.fields.at(0).nulls, QList<uint>{1});
    QCOMPARE(result.fields.at(0).values.size(), 3);
    QCOMPARE(result.fields.at(1).name, "B"_qs);
    QCOMPARE(result.fields.at(1).type, int(QMetaType::QString));
    QCOMPARE(result.fields.at(1).nulls, QList<uint>{2});
}

void TestDelivery::recordOfAFailureHasNoColumns()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::failure(statementError("no table"_qs)).withAffected(-1));
    const std::unique_ptr<structThrSql> task(executed("bad"_qs));
    QVERIFY(!worker()->detachSqlResult(task.get()));
    QCOMPARE(task->results.size(), 1);
    const structSqlResult &result = task->results.first();
    QCOMPARE(result.error.databaseText(), "no table"_qs);
    QVERIFY(result.fields.isEmpty() && !result.hasLastInsertId && !result.canceled);
    QCOMPARE(result.numRowsAffected, 0);
    QCOMPARE(task->rowsAffected, 0);
    QCOMPARE(stub().liveResults(), 0);
}

void TestDelivery::failedSynchronousDeliveryPublishesAnEmptyResult()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7).failingAtRow(0, statementError("cut"_qs)));
    const QScriptValue returned = invoke("fetchResFin", executed("cut"_qs));
    QVERIFY(returned.strictlyEquals(eval("db.queryResult"_qs)));
    QCOMPARE(json("db.queryResult"_qs), "{}"_qs);
    QVERIFY(truth("db.queryResult['$ res sql'] === undefined"_qs));
}

void TestDelivery::recordOfAnErrorAmongTheRowsFailsItsTask()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7).failingAtRow(0, statementError("cut"_qs)));
    const std::unique_ptr<structThrSql> task(executed("cut"_qs));
    QVERIFY(!task->failed && !worker()->detachSqlResult(task.get()));
    QVERIFY(task->failed && !task->results.constFirst().canceled);
}

void TestDelivery::recordOfAStoppedReadFailsItsTask()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    const std::unique_ptr<structThrSql> task(executed("stopped"_qs));
    task->inThread = true;
    worker()->m_thrStop.storeRelease(1);
    QVERIFY(!worker()->detachSqlResult(task.get()));
    worker()->m_thrStop.storeRelease(0);
    QVERIFY(task->failed && task->results.constFirst().canceled);
}

void TestDelivery::recordOfARefusedStatementHoldsItsText()
{
    openStub("STUB"_qs);
    const std::unique_ptr<structThrSql> task(executed("sent"_qs));
    task->ownText = "refused"_qs;
    worker()->detachSqlResult(task.get());
    QCOMPARE(task->results.constFirst().lastQuery, "refused"_qs);
}

// --- timing ---

void TestDelivery::timingTracesTheCallback()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread(function() { record(); return 'done'; }, 'q --')"_qs);
    QVERIFY(waitForAnswers(1));
    QVERIFY(log().waitFor("\\t return"_qs));
    const QStringList lines = debugLines("queryFinThr"_qs);
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines.at(0).simplified(), "isFunc: true"_qs);
    QCOMPARE(lines.at(1), "call"_qs);
    QVERIFY2(QRegularExpression("^return \"?done\"?$"_qs).match(lines.at(2).trimmed()).hasMatch(),
             qPrintable(lines.at(2)));
}

void TestDelivery::timingTracesThatNobodyIsCalled()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread('q--')"_qs);
    QVERIFY(waitForAnswers(1));
    const QStringList lines = debugLines("queryFinThr"_qs);
    QCOMPARE(lines.size(), 1);
    QCOMPARE(lines.first().simplified(), "isFunc: false"_qs);
}

void TestDelivery::timingMarksAnException()
{
    openStub("STUB"_qs);
    eval("db.query_thread(function() { throw new Error('on purpose'); }, 'q--')"_qs);
    QVERIFY(log().waitFor("\\t return"_qs));
    const QStringList lines = debugLines("queryFinThr"_qs);
    QCOMPARE(lines.size(), 3);
    QVERIFY2(lines.at(2).startsWith("return"_qs) && lines.at(2).contains("on purpose"_qs) &&
                 lines.at(2).contains(":----- Exception !!!"_qs),
             qPrintable(lines.at(2)));
    host().engine()->clearExceptions();
}

void TestDelivery::noTimingNoLines()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval(
        "db.query('q--'); finished = []; db.query_thread(record, 'q-- '); db.query_thread('q');"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(debugLines("queryFinThr"_qs), QStringList());
}

// --- callbacks that do something ---

void TestDelivery::throwingCallbackHarmsNobody()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("var thrown = 0; db.query_thread(function() { ++thrown; throw new Error('on purpose'); },"
         "    'q');"_qs);
    // No script runs here meanwhile: it would clear the exception.
    QVERIFY(host().waitFor([&] { return host().global("thrown"_qs).toInt32() == 1; }));
    QVERIFY(host().engine()->hasUncaughtException());
    QVERIFY(host().engine()->uncaughtException().toString().contains("on purpose"_qs));
    host().engine()->clearExceptions();
    QVERIFY(truth("db.isRunning && db.isOpen"_qs));
    eval("db.query_thread(record, 'q')"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(stub().executed("_thr"_qs).size(), 2);
}

void TestDelivery::throwingHandlerHarmsNobody()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("var thrown = 0;"
         "db.query_finish.connect(function() { ++thrown; throw new Error('on purpose'); });"
         "db.query_thread('q');"_qs);
    QVERIFY(host().waitFor([&] { return host().global("thrown"_qs).toInt32() == 1; }));
    host().engine()->clearExceptions();
    eval("db.query_thread(record, 'q')"_qs);
    QVERIFY(waitForAnswers(2));
    QVERIFY(truth("db.isRunning"_qs));
}

void TestDelivery::callbackQueuesMore()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("function next(r, e, age, n) { record(r, n); if (n < 100)"
         "    db.query_thread(next, 's' + (n + 1), [n + 1]); }"
         "db.query_thread(next, 's1', [1]);"_qs);
    QVERIFY(waitForAnswers(100));
    QVERIFY(
        truth("answers.every(function(a, i) { return a[1] === i + 1 && a[0].a[0] === 7; })"_qs));
}

void TestDelivery::callbackQueriesSynchronously()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("db.query_thread(function(r) {"
         "    var s = db.query('inner'); record(r.a[0], s.a[0], db.lastQuery, db.affectedRows,"
         "        db.lastError, db.lastErrors.type, db.taskSize()); db.clear(); record(r.a[0]);"
         "}, 'outer')"_qs);
    QVERIFY(host().waitForScript("answers.length === 2"_qs));
    QCOMPARE(json("answers"_qs), "[[7,7,\"inner\",0,\"\",0,0],[7]]"_qs);
}

void TestDelivery::callbackCloses()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread(function() { record(db.close(), db.isOpen, db.isRunning); }, 'q');"
         "db.query_thread(record, 'q2'); db.query_thread('q3');"_qs);
    QVERIFY(waitForAnswers(3));
    QCOMPARE(json("answers[0]"_qs), "[true,false,false]"_qs);
    QCOMPARE(stub().liveDrivers(), 0);
}

void TestDelivery::callbackClosesAndOpensAgain()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("db.query_thread(function() { db.close(); record(db.open());"
         "    db.query_thread(record, 'again'); }, 'q');"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("[answers[0][0], answers[1][0].a]"_qs), "[true,[7]]"_qs);
}

void TestDelivery::callbackDeletesTheConnection()
{
    openStub("STUB"_qs);
    addFunctions();
    recordAnswers();
    eval("db.query_thread(function() { destroyNow(db); record('deleted'); }, 'q');"
         "db.query_thread(record, 'q2'); db.query_thread('q3');"_qs);
    QVERIFY(waitForAnswers(1));
    QVERIFY(host().waitFor([&] { return stub().liveDrivers() == 0; }));
    drainEvents();
    QCOMPARE(json("answers"_qs), "[[\"deleted\"]]"_qs);
    QVERIFY(truth("finished.length === 0"_qs));
}

void TestDelivery::callbackDeletesAnotherConnection()
{
    openStub("STUB"_qs);
    addFunctions();
    recordAnswers();
    eval("var other = db; openAgain(); function openAgain() { db = new VEXT_SQL();"
         "    db.driverName = 'STUB'; db.open(); }"
         "other.query_thread('o1'); other.query_thread('o2');"_qs);
    // No events are handled here: what the other connection delivers waits until the callback runs.
    QVERIFY(stub().waitForCall(StubCall::Exec, "o2"_qs));
    eval("db.query_thread(function() { destroyNow(other); record(1); }, 'q');"_qs);
    QVERIFY(host().waitForScript("answers.length === 1"_qs));
    eval("db.query_thread(record, 'q2')"_qs);
    QVERIFY(host().waitForScript("answers.length === 2"_qs));
    QCOMPARE(stub().liveDrivers(), 2);
}

void TestDelivery::callbackRunsAnEventLoop()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    addFunctions();
    recordAnswers();
    eval("var goOn = false, order = [];"
         "db.query_thread(function() { order.push('begin'); record(runEvents());"
         "    order.push('end'); }, 'q1');"
         "db.query_thread(function() { order.push(2); }, 'q2');"
         "db.query_thread(function() { order.push(3); goOn = true; }, 'q3');"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("[order, answers[0][0]]"_qs), "[[\"begin\",2,3,\"end\"],true]"_qs);
}

void TestDelivery::callbackStopsTheThread()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.query_thread(function() { db.stop_thread(60000); record(db.isRunning);"
         "    db.query_thread(record, 'again'); }, 'q');"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("[answers[0][0], answers[1][1]]"_qs), "[false,false]"_qs);
}

void TestDelivery::handlerQueuesMore()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("var n = 0; db.query_finish.connect(function() { if (++n < 50) db.query_thread('q'); });"
         "db.query_thread('q');"_qs);
    QVERIFY(waitForAnswers(50));
    QCOMPARE(stub().executed("_thr"_qs).size(), 50);
}

void TestDelivery::handlerQueriesSynchronously()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("var depth = 0; db.query_finish.connect(function() {"
         "    if (++depth < 5) db.query('inner'); });"
         "var r = db.query('outer');"_qs);
    // The call within the handler emptied the result that is being returned.
    QVERIFY(truth("depth === 5 && finished.length === 5 && r.a === undefined"_qs));
    QVERIFY(truth("r === finished[0][0]"_qs));
}

void TestDelivery::handlerClosesWithinASynchronousCall()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    eval("db.query_finish.connect(function() { db.close(); }); var r = db.query('q');"_qs);
    QVERIFY(truth("!db.isOpen && typeof r === 'object' && db.queryResult === undefined"_qs));
    QCOMPARE(stub().liveDrivers(), 0);
}

void TestDelivery::handlerDeletesWithinASynchronousCall()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    addFunctions();
    eval("db.query_finish.connect(function() { destroyNow(db); }); var r = db.query('q');"_qs);
    QVERIFY(truth("typeof r === 'object'"_qs));
    QVERIFY(host().waitFor([&] { return stub().liveDrivers() == 0; }));
}

void TestDelivery::handlerDeletesWithinADelivery()
{
    openStub("STUB"_qs);
    addFunctions();
    recordAnswers();
    eval("db.query_finish.connect(function() { destroyNow(db); });"
         "db.query_thread('q1'); db.query_thread('q2');"_qs);
    QVERIFY(waitForAnswers(1));
    QVERIFY(host().waitFor([&] { return stub().liveDrivers() == 0; }));
    drainEvents();
    QVERIFY(truth("finished.length === 1"_qs));
}

void TestDelivery::connectionDeletedInANestedLoop()
{
    openStub("STUB"_qs);
    addFunctions();
    recordAnswers();
    eval("var goOn = false;"
         "db.query_thread(function() { record(runEvents()); drain(); record('end'); }, 'q1');"
         "db.query_thread(function() { destroyNow(db); goOn = true; }, 'q2');"
         "db.query_thread(record, 'q3');"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("answers"_qs), "[[true],[\"end\"]]"_qs);
    QVERIFY(host().waitFor([&] { return stub().liveDrivers() == 0; }));
}

void TestDelivery::connectionGoneBeforeTheHandlerReturns()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    addFunctions();
    eval("db.query_finish.connect(function() { destroyNow(db); drain(); });"_qs);
    QVERIFY(truth("typeof db.query('q') === 'object'"_qs));
    // The worker itself goes when its functions have returned.
    QTRY_COMPARE(stub().liveDrivers(), 0);
    openDb("STUB"_qs);
    eval("var calls = 0; db.query_finish.connect(function() { destroyNow(db); drain(); ++calls; });"
         "db.query_thread('q1'); db.query_thread('q2');"_qs);
    QVERIFY(host().waitForScript("calls === 1"_qs));
    // The worker itself goes when its functions have returned.
    QTRY_COMPARE(stub().liveDrivers(), 0);
}

void TestDelivery::connectionClosedInANestedLoop()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    addFunctions();
    recordAnswers();
    eval("var goOn = false;"
         "db.query_thread(function(r) { runEvents(); record(r.a[0], db.isOpen); }, 'q1');"
         "db.query_thread(function() { db.close(); goOn = true; }, 'q2');"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("answers[0]"_qs), "[7,false]"_qs);
    QCOMPARE(stub().liveDrivers(), 0);
}

void TestDelivery::argumentsMayCloseTheConnection_data()
{
    QTest::addColumn<QString>("call");
    QTest::addColumn<QString>("action");
    const QVector<std::pair<QString, QString>> actions{{"closes"_qs, "db.close()"_qs},
                                                       {"deletes"_qs, "destroyNow(db)"_qs}};
    for (const auto &[name, action] : actions) {
        QTest::newRow(qPrintable("exec "_qs + name)) << "db.exec('p', [o])"_qs << action;
        QTest::newRow(qPrintable("exec_thread "_qs + name))
            << "db.exec_thread('p', [o])"_qs << action;
        QTest::newRow(qPrintable("exec_thread with a list "_qs + name))
            << "db.exec_thread(['p'], [[o]])"_qs << action;
    }
}

void TestDelivery::argumentsMayCloseTheConnection()
{
    QFETCH(QString, call);
    QFETCH(QString, action);
    expectComplaints("^QSqlQuery::prepare: database not open$"_qs);
    openStub("STUB"_qs);
    addFunctions();
    eval("var o = {}; o.__defineGetter__('k', function() { %1; return 1; });"_qs.arg(action));
    QVERIFY(truth(call + " === false"_qs));
    QCOMPARE(stub().executed(), QStringList());
    QVERIFY(host().waitFor([&] { return stub().liveDrivers() == 0; }));
}

// --- lives ---

void TestDelivery::callbackSurvivesGarbageCollection()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    openStub("STUB"_qs).setDefaultReply(oneRow(7).withGate(gate));
    recordAnswers();
    eval("(function() { var ctx = {n: 5};"
         "    db.query_thread(ctx, function(r, e, age, x) { record(this.n, r.a[0], x.k); }, 'q',"
         "    [{k: 'kept'}]); })();"_qs);
    QVERIFY(gate->waitReached());
    for (int i = 0; i < 3; ++i)
        host().collectGarbage();
    gate->release();
    QVERIFY(waitForAnswers(1));
    host().collectGarbage();
    QCOMPARE(json("answers[0]"_qs), "[5,7,\"kept\"]"_qs);
}

void TestDelivery::deletedConnectionDeliversNothing()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    openStub("STUB"_qs).setFeature(QSqlDriver::CancelQuery);
    stub().setDefaultReply(StubReply::affected(0).withGate(gate));
    recordAnswers();
    eval("db.query_thread(record, 'q'); db.query_thread(record, 'q2');"_qs);
    QVERIFY(gate->waitReached());
    delete eval("db"_qs).toQObject();
    QVERIFY(host().waitFor([&] { return stub().liveDrivers() == 0; }));
    drainEvents();
    QVERIFY(truth("answers.length === 0"_qs));
    QCOMPARE(stub().liveResults(), 0);
}

void TestDelivery::destroyedEngineFreesEverything()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("for (var i = 0; i < 20; ++i) { db.query_thread(record, 'q'); db.query_thread('q'); }"_qs);
    QVERIFY(stub().waitForCall(StubCall::Exec));
    host().destroyEngine();
    QVERIFY(waitUntil([&] { return stub().liveDrivers() == 0; }));
    QCOMPARE(stub().liveResults(), 0);
}

void TestDelivery::resultOutlivesTheConnection()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("db.query_thread(record, 'q')"_qs);
    QVERIFY(waitForAnswers(1));
    delete eval("db"_qs).toQObject();
    drainEvents();
    host().collectGarbage();
    QCOMPARE(json("[answers[0][0].a, answers[0][0]['$ res sql']]"_qs), "[[7],1106]"_qs);
}

void TestDelivery::clearTakesWhateverTheScriptPutThere_data()
{
    QTest::addColumn<QString>("value");
    QTest::newRow("number") << "5"_qs;
    QTest::newRow("null") << "null"_qs;
    QTest::newRow("array") << "[1, 2, 3]"_qs;
    QTest::newRow("function") << "(function() {})"_qs;
    QTest::newRow("date") << "new Date()"_qs;
    QTest::newRow("getter that throws")
        << "(function() { var o = {a: 1}; o.__defineGetter__('b', function() { throw 5; });"
           "return o; })()"_qs;
    QTest::newRow("setter")
        << "(function() { var o = {};"
           "o.__defineSetter__('b', function() { throw 5; }); return o; })()"_qs;
    QTest::newRow("object within itself") << "(function() { var o = {}; o.o = o; return o; })()"_qs;
}

void TestDelivery::clearTakesWhateverTheScriptPutThere()
{
    QFETCH(QString, value);
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    eval("var old = %1, left = []; db.queryResult = old; db.clear();"
         "if (old !== null && typeof old === 'object') for (var n in old) left.push(n);"_qs.arg(
             value));
    QVERIFY(!host().engine()->hasUncaughtException());
    QVERIFY(truth("db.queryResult === undefined || !(db.queryResult instanceof Object)"_qs));
    QCOMPARE(json("left"_qs), "[]"_qs);
    QVERIFY(truth("db.query('q').a[0] === 7 && db.queryResult.rows === 1"_qs));
}

QTEST_GUILESS_MAIN(TestDelivery)
#include "test_delivery.moc"
