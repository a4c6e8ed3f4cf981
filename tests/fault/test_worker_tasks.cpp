/// @file
/// What a worker thread does with its tasks, and which errors end it.
#include "worker_test.h"

#include <QSqlDatabase>
#include <QtTest>

class WorkerTasks : public WorkerTest
{
    Q_OBJECT

private slots:
    // Queue.
    void taskOnAClosedConnectionIsDiscarded_data();
    void taskOnAClosedConnectionIsDiscarded();
    void tasksRunAndAreDeliveredInOrder();
    void queueAndWorkerTraceTheTasks();
    void countersShowTheStatesOfTheThread();
    void taskSizeCountsTheWaitingTasks();

    // Statements of a task.
    void emptyStatementSkipsTheRestOfItsTask();
    void emptyListDeliversFalse();
    void failedStatementDoesNotStopTheOthers();
    void failureWithoutAnErrorIsAFailure();
    void transactionWordsAreNotSentToTheServer();
    void statementIsTracedAtLevelTwo();
    void procedureTaskBindsItsValuesInOrder();
    void procedureThatCannotBePreparedFails();
    void statementsAreCounted();

    // Transactions.
    void transactionWithoutThreadConcernsTheMainConnectionOnly();
    void transactionFollowsOnTheThreadConnection();
    void secondTransactionRollsBackTheFirst();
    void endOfATransactionThatNeverBeganIsNoError();
    void failedCommandIsReportedByItsOwnTaskOnly();
    void transactionIsRefusedWhereItCannotBe();
    void failedMainTransactionQueuesNothing();
    void leavingThreadRollsBackAnOpenTransaction();
    void commitWordEndsTheTransactionOfTheCommand();

    // Errors that end the thread.
    void failedOpenFailsAllQueuedTasksAndTheNextTriesAgain();
    void failedOpenIsSilentWithoutTracing();
    void connectionErrorEndsTheThreadAndFailsTheQueue();
    void connectionErrorSkipsTheRestOfItsTask();
    void taskAfterAConnectionErrorRunsOnANewConnection();

    // PostgreSQL.
    void applicationNameIsSetOncePerThreadConnection();
};

// --- Queue ---

void WorkerTasks::taskOnAClosedConnectionIsDiscarded_data()
{
    QTest::addColumn<bool>("trace");
    QTest::newRow("not traced") << false;
    QTest::newRow("traced") << true;
}

void WorkerTasks::taskOnAClosedConnectionIsDiscarded()
{
    QFETCH(bool, trace);
    VEXT_SQL *db = m_script->closedConnection();
    db->setHostName(QStringLiteral("host"));
    db->setTraceLog(trace);
    auto *task = new structThrSql;
    task->func = m_script->eval(QStringLiteral("deliver('task')"));
    task->sqlList = QStringList(QStringLiteral("one"));
    QVERIFY(!db->appendSqlTask(task));
    QVERIFY(!db->isRunning());
    QCOMPARE(db->taskSize(), 0);
    drainEvents();
    QCOMPARE(m_script->delivered(), QStringList());
    const QVector<SinkMessage> found =
        sink()->withText(QStringLiteral("не открыто соединение с 'base:-1:host'"));
    QCOMPARE(found.size(), trace ? 1 : 0);
    if (!trace)
        return;
    QCOMPARE(found.constFirst().level, -1);
    QCOMPARE(found.constFirst().function, QStringLiteral("appendSqlTask"));
}

void WorkerTasks::tasksRunAndAreDeliveredInOrder()
{
    m_script->connection();
    QStringList tags;
    m_server->onPrefix(QStringLiteral("slow"), StubReply::affected(0).withDelay(3));
    m_server->onPrefix(QStringLiteral("bad"), StubReply::failure(statementError()));
    const QStringList kinds{QStringLiteral("slow"), QStringLiteral("fine"), QStringLiteral("bad")};
    for (int i = 0; i < 90; ++i) {
        tags << kinds.at(i % 3) + QString::number(i);
        QVERIFY(m_script->queue(tags.constLast()));
    }
    QVERIFY(m_script->waitDelivered(tags.size()));
    QCOMPARE(m_script->delivered(), tags);
    QCOMPARE(m_server->executed(thr), tags);
}

void WorkerTasks::queueAndWorkerTraceTheTasks()
{
    VEXT_SQL *db = m_script->connection();
    db->setTraceLog(true);
    occupyWorker();
    m_log->clear();
    m_script->queue(QStringLiteral("one"));
    m_script->queue(QStringLiteral("two"));
    m_gates.first()->release();
    QVERIFY(m_script->waitDelivered(3));
    const QString added = QStringLiteral(
        "appendSqlTask +\\t.*add task: all count +%1 : elapsed +\\d+ : isRunning true$");
    QCOMPARE(m_log->matching(QtDebugMsg, added.arg(1)).size(), 1);
    QCOMPARE(m_log->matching(QtDebugMsg, added.arg(2)).size(), 1);
    const QString got = QStringLiteral("getSqlTask +\\t.*get task: all count +%1 : elapsed +\\d+$");
    QCOMPARE(m_log->matching(QtDebugMsg, got.arg(1)).size(), 1);
    QCOMPARE(m_log->matching(QtDebugMsg, got.arg(0)).size(), 1);
}

void WorkerTasks::countersShowTheStatesOfTheThread()
{
    VEXT_SQL *db = m_script->connection();
    const QString keys = QStringLiteral("(function() { var list = []; for (var k in db.counters()) "
                                        "if (/^thr_/.test(k)) list.push(k); return list; })()");
    QCOMPARE(m_script->json(keys), QStringLiteral("[]"));

    db->start_thread();
    QCOMPARE(m_script->json(keys),
             QStringLiteral(
                 "[\"thr_sql_queue\",\"thr_sql_finish\",\"thr_notUsedMs\",\"thr_sql_currMs\"]"));
    QVERIFY(m_script->host.waitForScript(QStringLiteral("db.counters().thr_notUsedMs > 20")));
    QCOMPARE(scriptInt(QStringLiteral("db.counters().thr_sql_currMs")), 0);

    occupyWorker();
    m_script->queue(QStringLiteral("one"));
    m_script->queue(QStringLiteral("two"));
    m_script->eval(QStringLiteral("var busy = db.counters()"));
    QCOMPARE(scriptInt(QStringLiteral("busy.thr_sql_queue")), 2);
    QCOMPARE(scriptInt(QStringLiteral("busy.thr_sql_finish")), 1);
    QCOMPARE(scriptInt(QStringLiteral("busy.thr_notUsedMs")), 0);
    QVERIFY(m_script->host.waitForScript(QStringLiteral("db.counters().thr_sql_currMs > 20")));
    constexpr int hourMs = 3600000;
    QVERIFY(scriptInt(QStringLiteral("db.counters().thr_sql_currMs")) < hourMs);

    m_gates.first()->release();
    QVERIFY(m_script->waitDelivered(3));
    QVERIFY(m_script->host.waitForScript(QStringLiteral("db.counters().thr_sql_currMs == 0")));
    QCOMPARE(scriptInt(QStringLiteral("db.counters().thr_sql_queue")), 0);
    QCOMPARE(scriptInt(QStringLiteral("db.counters().thr_sql_finish")), 3);

    db->stop_thread(10000);
    QCOMPARE(m_script->json(keys), QStringLiteral("[]"));
}

void WorkerTasks::taskSizeCountsTheWaitingTasks()
{
    VEXT_SQL *db = m_script->connection();
    QCOMPARE(db->taskSize(), 0);
    occupyWorker();
    QCOMPARE(db->taskSize(), 0);
    m_script->queue(QStringLiteral("one"));
    m_script->queue(QStringLiteral("two"));
    QCOMPARE(scriptInt(QStringLiteral("db.taskSize()")), 2);
    m_gates.first()->release();
    QVERIFY(m_script->waitDelivered(3));
    QCOMPARE(db->taskSize(), 0);
}

// --- Statements of a task ---

void WorkerTasks::emptyStatementSkipsTheRestOfItsTask()
{
    m_script->connection();
    m_script->queueList({QStringLiteral("insert"), QString(), QStringLiteral("select")},
                        QStringLiteral("list"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_server->executed(thr), QStringList(QStringLiteral("insert")));
    QVERIFY(sink()->waitFor(QStringLiteral("пустой запрос")));
    const SinkMessage message = sink()->withText(QStringLiteral("пустой запрос")).constFirst();
    QCOMPARE(message.level, -1);
    QCOMPARE(message.function, QStringLiteral("run"));
    QCOMPARE(scriptInt(QStringLiteral("outcomes.list.result[0].fields")), 0);
    QCOMPARE(m_script->json(QStringLiteral("outcomes.list.error[0]")), QStringLiteral("false"));
    QVERIFY(m_script->queue(QStringLiteral("next")));
    QVERIFY(m_script->waitDelivered(2));
}

void WorkerTasks::emptyListDeliversFalse()
{
    m_script->connection();
    m_script->eval(QStringLiteral("db.query_thread(deliver('none'), [])"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->json(QStringLiteral("[outcomes.none.result, outcomes.none.error]")),
             QStringLiteral("[false,false]"));
    QCOMPARE(m_server->executed(thr), QStringList());
}

void WorkerTasks::failedStatementDoesNotStopTheOthers()
{
    VEXT_SQL *db = m_script->connection();
    m_server->onExact(QStringLiteral("bad"), StubReply::failure(statementError()));
    m_script->queueList({QStringLiteral("one"), QStringLiteral("bad"), QStringLiteral("two")},
                        QStringLiteral("list"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_server->executed(thr),
             QStringList({QStringLiteral("one"), QStringLiteral("bad"), QStringLiteral("two")}));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.list.error")),
             QStringLiteral("[false,\"bad statement\",false]"));
    QVERIFY(db->isRunning());
}

void WorkerTasks::failureWithoutAnErrorIsAFailure()
{
    m_script->connection();
    m_server->onExact(QStringLiteral("silent"), StubReply::silentFailure());
    m_script->eval(QStringLiteral("var led; db.query_finish.connect(function(first) {"
                                  "led = first }); db.query_thread('silent')"));
    QVERIFY(m_script->host.waitForScript(QStringLiteral("led !== undefined")));
    QVERIFY(m_script->eval(QStringLiteral("led === false")).toBool());
    m_script->queue(QStringLiteral("silent"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.silent.result")), QStringLiteral("{}"));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.silent.error")),
             QStringLiteral("\"unknown error\""));
}

void WorkerTasks::transactionWordsAreNotSentToTheServer()
{
    VEXT_SQL *db = m_script->connection();
    const QStringList list{
        QStringLiteral("commit"),       QStringLiteral("Commit"),
        QStringLiteral("commitment"),   QStringLiteral("COMMIT WORK"),
        QStringLiteral("rollback"),     QStringLiteral("rollback to savepoint a"),
        QStringLiteral(" commit"),      QStringLiteral("commi"),
        QStringLiteral("roll backward")};
    m_script->queueList(list, QStringLiteral("words"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_server->count(StubCall::Commit, thr), 4);
    QCOMPARE(m_server->count(StubCall::Rollback, thr), 2);
    QCOMPARE(m_server->executed(thr), list.mid(6));
    db->stop_thread(10000);
    QCOMPARE(m_server->count(StubCall::Rollback, thr), 2);
}

void WorkerTasks::statementIsTracedAtLevelTwo()
{
    VEXT_SQL *db = m_script->connection();
    m_script->queue(QStringLiteral("quiet"));
    QVERIFY(m_script->waitDelivered(1));
    db->stop_thread(10000);
    db->setTraceLog(true);
    m_script->queue(QStringLiteral("one"));
    QVERIFY(sink()->waitFor(QStringLiteral("sql='one'")));
    const SinkMessage message = sink()->withText(QStringLiteral("sql='one'")).constFirst();
    QCOMPARE(message.level, 2);
    QCOMPARE(message.function, QStringLiteral("run"));
    QVERIFY(!sink()->contains(QStringLiteral("sql='quiet'")));
}

void WorkerTasks::procedureTaskBindsItsValuesInOrder()
{
    m_script->connection();
    QVERIFY(m_script->eval(QStringLiteral("db.exec_thread(deliver('call'), 'p', [1, 'two', null])"))
                .toBool());
    QVERIFY(m_script->waitDelivered(1));
    const QVector<StubCall> calls = m_server->calls(StubCall::ExecPrepared, thr);
    QCOMPARE(calls.size(), 1);
    const QVector<StubCall::Binding> bindings = calls.constFirst().bindings;
    QVERIFY2(bindings.size() == 3, qPrintable(m_server->record()));
    QCOMPARE(bindings.at(0).value.toInt(), 1);
    QCOMPARE(bindings.at(1).value.toString(), QStringLiteral("two"));
    QVERIFY(bindings.at(2).value.isNull());
    for (const StubCall::Binding &binding : bindings)
        QCOMPARE(int(binding.type), int(QSql::In));
}

void WorkerTasks::procedureThatCannotBePreparedFails()
{
    VEXT_SQL *db = m_script->connection();
    db->setTraceLog(true);
    m_server->on(StubMatch::where([](const QString &sql) { return !sql.isEmpty(); }),
                 StubReply::prepareFailure(statementError()));
    m_script->eval(QStringLiteral("db.exec_thread(deliver('call'), 'p', [1])"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.call.error")),
             QStringLiteral("\"bad statement\""));
    QCOMPARE(m_server->count(StubCall::ExecPrepared, thr), 0);
    drainEvents();
    const QString prepared = m_server->texts(StubCall::Prepare, thr).constFirst();
    const QVector<SinkMessage> found = sink()->withText(
        QStringLiteral("не смог подготовить процедуру 'p' к выполнению\n") + prepared);
    QVERIFY2(found.size() == 1, qPrintable(sink()->texts().join(QLatin1Char('\n'))));
    QCOMPARE(found.constFirst().level, -1);
    QCOMPARE(db->lastError().contains(QStringLiteral("bad statement")), true);
}

void WorkerTasks::statementsAreCounted()
{
    m_script->connection();
    m_server->onExact(QStringLiteral("bad"), StubReply::failure(statementError()));
    m_script->queueList({QStringLiteral("one"), QStringLiteral("bad"), QStringLiteral("two"),
                         QStringLiteral("commit")},
                        QStringLiteral("list"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(scriptInt(QStringLiteral("db.counters().cnt_sql_ok")), 2);
    QCOMPARE(scriptInt(QStringLiteral("db.counters().cnt_sql_er")), 1);
}

// --- Transactions ---

void WorkerTasks::transactionWithoutThreadConcernsTheMainConnectionOnly()
{
    VEXT_SQL *db = m_script->connection();
    QVERIFY(m_script->eval(QStringLiteral("db.transaction()")).toBool());
    QVERIFY(m_script->eval(QStringLiteral("db.commit()")).toBool());
    QVERIFY(m_script->eval(QStringLiteral("db.transaction() && db.rollback()")).toBool());
    QVERIFY(!db->isRunning());
    QCOMPARE(m_server->count(StubCall::Begin), 2);
    QCOMPARE(m_server->count(StubCall::Commit), 1);
    QCOMPARE(m_server->count(StubCall::Rollback), 1);
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_server->count(StubCall::Begin, thr), 0);
}

void WorkerTasks::transactionFollowsOnTheThreadConnection()
{
    VEXT_SQL *db = m_script->connection();
    db->start_thread();
    m_script->eval(QStringLiteral(
        "var finish = []; db.query_finish.connect(function(a, b, c, d) { finish.push([a, b, d]); "
        "}); db.transaction(); db.query_thread(deliver('one'), 'one'); db.commit(); "
        "db.transaction(); db.rollback()"));
    QVERIFY(m_script->host.waitForScript(QStringLiteral("finish.length == 4")));
    QStringList order;
    const QVector<StubCall> calls = m_server->calls();
    for (const StubCall &call : calls) {
        if (!call.mainThread && (call.what == StubCall::Begin || call.what == StubCall::Exec ||
                                 call.what == StubCall::Commit || call.what == StubCall::Rollback))
            order << QString::fromLatin1(QMetaEnum::fromType<StubCall::What>().key(call.what));
    }
    QCOMPARE(order,
             QStringList({QStringLiteral("Begin"), QStringLiteral("Exec"), QStringLiteral("Commit"),
                          QStringLiteral("Begin"), QStringLiteral("Rollback")}));
    QCOMPARE(m_script->json(QStringLiteral("finish")),
             QStringLiteral("[[true,false,true],[true,false,true],[true,false,true],"
                            "[true,false,true]]"));
}

void WorkerTasks::secondTransactionRollsBackTheFirst()
{
    VEXT_SQL *db = m_script->connection();
    db->start_thread();
    db->transaction();
    db->transaction();
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_server->count(StubCall::Begin, thr), 2);
    QCOMPARE(m_server->count(StubCall::Rollback, thr), 1);
    db->commit();
    m_script->queue(QStringLiteral("two"));
    QVERIFY(m_script->waitDelivered(2));
    QCOMPARE(m_server->count(StubCall::Commit, thr), 1);
}

void WorkerTasks::endOfATransactionThatNeverBeganIsNoError()
{
    VEXT_SQL *db = m_script->connection();
    db->start_thread();
    m_script->eval(QStringLiteral("var finish = []; db.query_finish.connect(function(a) { "
                                  "finish.push(a); }); db.commit(); db.rollback()"));
    QVERIFY(m_script->host.waitForScript(QStringLiteral("finish.length == 2")));
    QCOMPARE(m_script->json(QStringLiteral("finish")), QStringLiteral("[true,true]"));
    QCOMPARE(m_server->count(StubCall::Commit, thr), 0);
    QCOMPARE(m_server->count(StubCall::Rollback, thr), 0);
}

void WorkerTasks::failedCommandIsReportedByItsOwnTaskOnly()
{
    VEXT_SQL *db = m_script->connection();
    m_server->fail(StubCall::Begin, statementError(), StubWhere::connection(thr));
    db->start_thread();
    m_script->eval(QStringLiteral("var finish = []; db.query_finish.connect(function(a, b, c, d) { "
                                  "finish.push([a, b, d]); })"));
    QVERIFY(m_script->eval(QStringLiteral("db.transaction()")).toBool());
    QVERIFY(m_script->host.waitForScript(QStringLiteral("finish.length == 1")));
    QCOMPARE(m_script->json(QStringLiteral("finish[0]")), QStringLiteral("[false,false,true]"));
    // Nothing began, so the end is not sent either.
    QVERIFY(m_script->eval(QStringLiteral("db.commit()")).toBool());
    QVERIFY(m_script->host.waitForScript(QStringLiteral("finish.length == 2")));
    QCOMPARE(m_server->count(StubCall::Commit, thr), 0);
}

void WorkerTasks::transactionIsRefusedWhereItCannotBe()
{
    VEXT_SQL *db = m_script->closedConnection();
    QVERIFY(!db->transaction() && !db->commit() && !db->rollback());
    db->open();
    m_server->setFeature(QSqlDriver::Transactions, false);
    db->start_thread();
    QVERIFY(!db->transaction() && !db->commit() && !db->rollback());
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_server->count(StubCall::Begin), 0);
    QCOMPARE(m_server->count(StubCall::Commit), 0);
    QCOMPARE(m_server->count(StubCall::Rollback), 0);
}

void WorkerTasks::failedMainTransactionQueuesNothing()
{
    VEXT_SQL *db = m_script->connection();
    m_server->fail(StubCall::Begin, statementError(), StubWhere::connection(db->connectionName()));
    db->start_thread();
    QVERIFY(!m_script->eval(QStringLiteral("db.transaction()")).toBool());
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_server->count(StubCall::Begin, thr), 0);
    QCOMPARE(scriptInt(QStringLiteral("db.counters().thr_sql_finish")), 1);
}

void WorkerTasks::leavingThreadRollsBackAnOpenTransaction()
{
    VEXT_SQL *db = m_script->connection();
    db->start_thread();
    db->transaction();
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    db->stop_thread(10000);
    QCOMPARE(m_server->count(StubCall::Rollback, thr), 1);
    QCOMPARE(m_server->count(StubCall::Commit, thr), 0);
}

void WorkerTasks::commitWordEndsTheTransactionOfTheCommand()
{
    VEXT_SQL *db = m_script->connection();
    db->start_thread();
    db->transaction();
    m_script->queue(QStringLiteral("commit"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.commit.result")), QStringLiteral("true"));
    db->stop_thread(10000);
    QCOMPARE(m_server->count(StubCall::Commit, thr), 1);
    QCOMPARE(m_server->count(StubCall::Rollback, thr), 0);
}

// --- Errors that end the thread ---

void WorkerTasks::failedOpenFailsAllQueuedTasksAndTheNextTriesAgain()
{
    VEXT_SQL *db = m_script->connection();
    db->setTraceLog(true);
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    StubEffect failure = StubEffect::failure(connectionError());
    failure.gate = gate;
    m_server->effect(StubCall::Open, failure, StubWhere::connection(thr).andNth(1));
    for (const char *tag : {"one", "two", "three"})
        QVERIFY(m_script->queue(QLatin1String(tag)));
    QVERIFY(gate->waitReached());
    gate->release();
    QVERIFY(m_script->waitDelivered(3));
    QVERIFY(waitStopped(db));
    QCOMPARE(m_script->delivered(),
             QStringList({QStringLiteral("one"), QStringLiteral("two"), QStringLiteral("three")}));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.two.result")), QStringLiteral("false"));
    QCOMPARE(m_server->executed(thr), QStringList());
    QVERIFY2(db->lastError().contains(QStringLiteral("server closed the connection")),
             qPrintable(db->lastError()));
    const QString text = QStringLiteral("не смог подключиться к БД '%1'").arg(db->lastError());
    QVERIFY2(sink()->waitFor(text), qPrintable(sink()->texts().join(QLatin1Char('\n'))));
    QCOMPARE(sink()->withText(text).constFirst().level, -1);
    QCOMPARE(sink()->withText(text).constFirst().function, QStringLiteral("run"));

    QVERIFY(m_script->queue(QStringLiteral("four")));
    QVERIFY(m_script->waitDelivered(4));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.four.error")), QStringLiteral("false"));
    QCOMPARE(m_server->executed(thr), QStringList(QStringLiteral("four")));
}

void WorkerTasks::failedOpenIsSilentWithoutTracing()
{
    VEXT_SQL *db = m_script->connection();
    m_server->fail(StubCall::Open, connectionError(), StubWhere::connection(thr));
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    QVERIFY(waitStopped(db));
    drainEvents();
    QCOMPARE(sink()->messages(-1).size(), 0);
}

void WorkerTasks::connectionErrorEndsTheThreadAndFailsTheQueue()
{
    VEXT_SQL *db = m_script->connection();
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    m_server->onExact(QStringLiteral("lost"), StubReply::failure(connectionError()).withGate(gate));
    m_script->queue(QStringLiteral("lost"));
    QVERIFY(gate->waitReached());
    m_script->queue(QStringLiteral("one"));
    m_script->queue(QStringLiteral("two"));
    gate->release();
    QVERIFY(m_script->waitDelivered(3));
    QVERIFY(waitStopped(db));
    QCOMPARE(m_server->executed(thr), QStringList(QStringLiteral("lost")));
    QCOMPARE(m_script->delivered(),
             QStringList({QStringLiteral("lost"), QStringLiteral("one"), QStringLiteral("two")}));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.lost.error")),
             QStringLiteral("\"server closed the connection\""));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.one.result")), QStringLiteral("false"));
    QVERIFY(db->isOpen());
}

void WorkerTasks::connectionErrorSkipsTheRestOfItsTask()
{
    VEXT_SQL *db = m_script->connection();
    m_server->onExact(QStringLiteral("lost"), StubReply::failure(connectionError()));
    m_script->queueList({QStringLiteral("one"), QStringLiteral("lost"), QStringLiteral("two")},
                        QStringLiteral("list"));
    QVERIFY(m_script->waitDelivered(1));
    QVERIFY(waitStopped(db));
    QCOMPARE(m_server->executed(thr), QStringList({QStringLiteral("one"), QStringLiteral("lost")}));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.list.error.slice(0, 2)")),
             QStringLiteral("[false,\"server closed the connection\"]"));
}

void WorkerTasks::taskAfterAConnectionErrorRunsOnANewConnection()
{
    m_script->connection();
    m_server->onExact(QStringLiteral("lost"), StubReply::failure(connectionError()));
    for (int i = 0; i < 20; ++i) {
        m_script->queue(QStringLiteral("lost"));
        QVERIFY(m_script->waitDelivered(2 * i + 1));
        // The thread may still be leaving here.
        QVERIFY(m_script->queue(QStringLiteral("next%1").arg(i)));
        QVERIFY2(m_script->waitDelivered(2 * i + 2), qPrintable(QString::number(i)));
    }
}

// --- PostgreSQL ---

void WorkerTasks::applicationNameIsSetOncePerThreadConnection()
{
    StubServer postgres(QStringLiteral("QPSQL"), QSqlDriver::PostgreSQL);
    ThreadFixture script(QStringLiteral("QPSQL"));
    VEXT_SQL *db = script.closedConnection();
    db->setApp_name(QStringLiteral("app"));
    db->open();
    for (int round = 1; round <= 2; ++round) {
        script.queue(QStringLiteral("one"));
        script.queue(QStringLiteral("two"));
        QVERIFY(script.waitDelivered(2 * round));
        QVERIFY2(postgres.executed(thr) ==
                     QStringList({QStringLiteral("SET client_encoding = 'UTF8'"),
                                  QStringLiteral("SELECT set_config('application_name', ?, false)"),
                                  QStringLiteral("one"), QStringLiteral("two")}),
                 qPrintable(postgres.record()));
        const StubCall call = postgres.calls(StubCall::ExecPrepared, thr).constFirst();
        QCOMPARE(call.bindings.size(), 1);
        QCOMPARE(call.bindings.constFirst().value.toString(), QStringLiteral("app thr"));
        db->stop_thread(10000);
        postgres.clearRecord();
    }
    script.host.destroyEngine();
    QCOMPARE(postgres.liveDrivers(), 0);
}

QTEST_GUILESS_MAIN(WorkerTasks)
#include "test_worker_tasks.moc"
