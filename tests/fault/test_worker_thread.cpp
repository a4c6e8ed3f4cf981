/// @file
/// The worker thread of a connection: how it starts, takes tasks, waits, stops and ends.
#include "thread_fixture.h"

#include "sql_records.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSqlDatabase>
#include <QtTest>

#include <sys/resource.h>
#include <unistd.h>

#include <memory>

namespace
{

const QString thr = QStringLiteral("_thr");
const QString heldSql = QStringLiteral("held");
constexpr int promptMs = 1000; // what does not wait is over well before this
constexpr char workerFile[] = "plugins/PluginSQL/vext_sql_thread";

/// While it lives, the thread cannot be started: its stack does not fit into the address space.
class ThreadCreationBlock
{
public:
    explicit ThreadCreationBlock(QThread *thread)
        : m_thread(thread)
    {
        constexpr rlim_t room = 1024L * 1024 * 1024;
        constexpr uint tooLarge = 3U * 1024 * 1024 * 1024;
        getrlimit(RLIMIT_AS, &m_before);
        QFile statistics(QStringLiteral("/proc/self/statm"));
        statistics.open(QIODevice::ReadOnly);
        const rlim_t pages = statistics.readAll().split(' ').constFirst().toULongLong();
        rlimit limit = m_before;
        limit.rlim_cur = pages * rlim_t(sysconf(_SC_PAGESIZE)) + room;
        setrlimit(RLIMIT_AS, &limit);
        m_thread->setStackSize(tooLarge);
    }
    ~ThreadCreationBlock()
    {
        m_thread->setStackSize(0);
        setrlimit(RLIMIT_AS, &m_before);
    }
    ThreadCreationBlock(const ThreadCreationBlock &) = delete;
    ThreadCreationBlock &operator=(const ThreadCreationBlock &) = delete;

private:
    QThread *m_thread;
    rlimit m_before;
};

QSqlError connectionError()
{
    return stubError(QSqlError::ConnectionError, QStringLiteral("server closed the connection"));
}

QSqlError statementError()
{
    return stubError(QSqlError::StatementError, QStringLiteral("bad statement"));
}

} // namespace

class WorkerThread : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // Start.
    void neitherConstructionNorOpenStartsTheThread();
    void startThreadStartsItOnce();
    void firstTaskStartsTheThread();
    void threadConnectionIsOpenedByTheFirstTask();
    void threadConnectionLivesInTheWorkerThreadOnly();
    void threadConnectionHasTheParametersOfTheMainOne();
    void leftoverConnectionOfTheNameIsReplaced();
    void startingAgainCountsTheTakenTasksAnew();
    void waitForAThreadThatWasNotStartedIsShort();
    void taskIsRefusedWhenTheThreadCannotBeStarted();
    void threadsOfUnopenedConnectionsDoNotShareAName();

    // Stop.
    void stopOfAStoppedThreadDoesNothing();
    void stopWaitsForTheEndOfTheThread();
    void stopWithoutPositiveTimeDoesNotWait_data();
    void stopWithoutPositiveTimeDoesNotWait();
    void stopThreadWaitsOneSecondByDefault();
    void stopThatTimesOutSaysSoOnlyWithTracing_data();
    void stopThatTimesOutSaysSoOnlyWithTracing();
    void stopTracesItsSteps();
    void stopFailsTheQueuedTasksUnrun();
    void stopLetsARunningListEndAfterItsStatement();
    void stopRightAfterTheStartIsNotLost();
    void closeRightAfterATaskDoesNotWaitForTheLimit();
    void stoppedThreadStartsAgainWithTheNextTask();
    void taskQueuedWhileTheThreadLeavesIsCompleted();
    void taskQueuedDuringTheIdleEndIsRun();
    void wakeUpWithoutATaskEndsTheThreadAndLosesNothing();

    // Waits and idleness.
    void idleQueueEndsTheThreadAtTheFirstTimeOut_data();
    void idleQueueEndsTheThreadAtTheFirstTimeOut();
    void idleEndIsReportedOnlyWithTracing_data();
    void idleEndIsReportedOnlyWithTracing();
    void idleThreadStaysUntilItsTimeIsUp();
    void tracedWaitTellsTheIdleTime();
    void taskAfterTheIdleEndOpensTheThreadConnectionAgain();
    void everyTakenTaskRestartsTheIdleTime();
    void timeNotUseIsAtLeastAMinute_data();
    void timeNotUseIsAtLeastAMinute();

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

    // The object's life.
    void onlyTheOwnerBecomesTheScriptValue();
    void deletionWaitsForALongStatement();
    void deletionFreesTheTasksWithoutDelivery();
    void engineMayGoFirst();
    void tasksThatEndAfterTheEngineAreFreed();
    void callbackMayDeleteItsConnection_data();
    void callbackMayDeleteItsConnection();
    void callbackMayQueueCloseAndThrow();
    void callbackMayRunAnEventLoop();

private:
    /// A statement that stands still until the gate is opened.
    ThreadGatePtr hold(const QString &sql = heldSql);
    /// Queues the held statement and waits until the worker stands in it.
    void occupyWorker();
    int scriptInt(const QString &expression) { return m_script->eval(expression).toInt32(); }
    VextPostStub *sink() { return m_script->host.post(); }

    std::unique_ptr<StubServer> m_server;
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<ThreadFixture> m_script;
    QVector<ThreadGatePtr> m_gates;
    QString m_allowedComplaint;
};

void WorkerThread::init()
{
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    m_server = std::make_unique<StubServer>(QStringLiteral("STUB"));
    m_script = std::make_unique<ThreadFixture>();
    m_allowedComplaint.clear();
}

void WorkerThread::cleanup()
{
    for (const ThreadGatePtr &gate : qAsConst(m_gates))
        gate->release();
    m_gates.clear();
    m_script.reset();
    QVERIFY2(m_server->liveResults() == 0, qPrintable(m_server->record()));
    QVERIFY2(m_server->liveDrivers() == 0, qPrintable(m_server->record()));
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    m_server.reset();
    const QStringList complaints = m_log->qtComplaints(m_allowedComplaint);
    QVERIFY2(complaints.isEmpty(), qPrintable(complaints.join(QLatin1Char('\n'))));
    m_log.reset();
}

ThreadGatePtr WorkerThread::hold(const QString &sql)
{
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    m_server->onExact(sql, StubReply::affected(0).withGate(gate));
    return gate;
}

void WorkerThread::occupyWorker()
{
    const ThreadGatePtr gate = hold();
    QVERIFY(m_script->queue(heldSql));
    QVERIFY2(gate->waitReached(), qPrintable(m_server->record()));
}

// --- Start ---

void WorkerThread::neitherConstructionNorOpenStartsTheThread()
{
    VEXT_SQL *db = m_script->closedConnection();
    QVERIFY(!db->isRunning());
    QVERIFY(db->open());
    QVERIFY(!db->isRunning());
    QCOMPARE(m_server->count(StubCall::DriverCreated), 1);
}

void WorkerThread::startThreadStartsItOnce()
{
    VEXT_SQL *db = m_script->connection();
    QSignalSpy started(db, &VEXT_SQL::started);
    QSignalSpy finished(db, &VEXT_SQL::finished);
    QCOMPARE(m_script->eval(QStringLiteral("db.start_thread()")).toBool(), true);
    QVERIFY(db->isRunning());
    QVERIFY(db->start_thread());
    QVERIFY(waitUntil([&] { return started.count() == 1; }));
    db->stop_thread(10000);
    QVERIFY(waitUntil([&] { return finished.count() == 1; }));
    QCOMPARE(started.count(), 1);
}

void WorkerThread::firstTaskStartsTheThread()
{
    VEXT_SQL *db = m_script->connection();
    QVERIFY(m_script->queue(QStringLiteral("select 1")));
    QVERIFY(db->isRunning());
    QVERIFY(m_script->waitDelivered(1));
}

void WorkerThread::threadConnectionIsOpenedByTheFirstTask()
{
    VEXT_SQL *db = m_script->connection();
    db->start_thread();
    QVERIFY(waitUntil([&] { return m_server->count(StubCall::DriverCreated) == 2; }));
    QVERIFY(waitUntil([&] { return QSqlDatabase::contains(threadConnectionName(db)); }));
    QCOMPARE(m_server->count(StubCall::Open, thr), 0);
    m_script->queue(QStringLiteral("one"));
    m_script->queue(QStringLiteral("two"));
    QVERIFY(m_script->waitDelivered(2));
    QCOMPARE(m_server->count(StubCall::Open, thr), 1);
}

void WorkerThread::threadConnectionLivesInTheWorkerThreadOnly()
{
    VEXT_SQL *db = m_script->connection();
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    m_script->eval(QStringLiteral("db.query('two')"));
    db->stop_thread(10000);
    QVERIFY(!QSqlDatabase::contains(threadConnectionName(db)));
    QVERIFY(QSqlDatabase::contains(db->connectionName()));
    QCOMPARE(m_server->executed(thr), QStringList(QStringLiteral("one")));
    const QVector<StubCall> calls = m_server->calls();
    const int threadDriver = m_server->calls(StubCall::Open, thr).constFirst().driver;
    for (const StubCall &call : calls)
        QVERIFY2(call.mainThread == (call.driver != threadDriver), qPrintable(call.toString()));
}

void WorkerThread::threadConnectionHasTheParametersOfTheMainOne()
{
    VEXT_SQL *db = m_script->closedConnection();
    db->setHostName(QStringLiteral("host"));
    db->setPort(5432);
    db->setUserName(QStringLiteral("user"));
    db->setPassword(QStringLiteral("secret"));
    db->setConnectOptions(QStringLiteral("option=1"));
    db->open();
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    const StubCall call = m_server->calls(StubCall::Open, thr).constFirst();
    QCOMPARE(call.connection, threadConnectionName(db));
    QCOMPARE(call.parameters.database, QStringLiteral("base"));
    QCOMPARE(call.parameters.host, QStringLiteral("host"));
    QCOMPARE(call.parameters.port, 5432);
    QCOMPARE(call.parameters.user, QStringLiteral("user"));
    QCOMPARE(call.parameters.password, QStringLiteral("secret"));
    QCOMPARE(call.parameters.options, QStringLiteral("option=1"));
}

void WorkerThread::leftoverConnectionOfTheNameIsReplaced()
{
    VEXT_SQL *db = m_script->connection();
    QSqlDatabase::addDatabase(QStringLiteral("STUB"), threadConnectionName(db));
    m_allowedComplaint = QStringLiteral("does not belong to the calling thread");
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->eval(QStringLiteral("outcomes.one.error")).toBool(), false);
    QVERIFY2(m_log->matching(QStringLiteral("duplicate connection name")).isEmpty(),
             "the leftover was not removed first");
}

void WorkerThread::startingAgainCountsTheTakenTasksAnew()
{
    VEXT_SQL *db = m_script->connection();
    for (int i = 0; i < 3; ++i)
        m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(3));
    QCOMPARE(scriptInt(QStringLiteral("db.counters().thr_sql_finish")), 3);
    db->stop_thread(10000);
    QCOMPARE(db->worker->m_thrSqlFinish.loadAcquire(), 0);
    m_script->queue(QStringLiteral("two"));
    QVERIFY(m_script->waitDelivered(4));
    QCOMPARE(scriptInt(QStringLiteral("db.counters().thr_sql_finish")), 1);
}

void WorkerThread::waitForAThreadThatWasNotStartedIsShort()
{
    VEXT_SQL *db = m_script->connection();
    db->worker->m_thrStop.storeRelease(1);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!db->worker->waitStart());
    QVERIFY2(timer.elapsed() >= 299, qPrintable(QString::number(timer.elapsed())));
    QVERIFY2(timer.elapsed() < scaledMs(promptMs), qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(db->worker->m_thrStop.loadAcquire(), 0);
    QVERIFY(db->start_thread());
    QVERIFY(db->worker->waitStart());
}

void WorkerThread::taskIsRefusedWhenTheThreadCannotBeStarted()
{
    VEXT_SQL *db = m_script->connection();
    m_allowedComplaint = QStringLiteral("QThread::start: Thread creation error");
    {
        const ThreadCreationBlock block(db->worker);
        QVERIFY(!m_script->queue(QStringLiteral("refused")));
        QVERIFY(!db->start_thread());
        QVERIFY(!db->isRunning());
        QCOMPARE(db->taskSize(), 0);
    }
    QVERIFY(m_log->contains(m_allowedComplaint));
    QVERIFY(m_script->queue(QStringLiteral("accepted")));
    QVERIFY(m_script->waitDelivered(1));
    drainEvents();
    QCOMPARE(m_script->delivered(), QStringList(QStringLiteral("accepted")));
    QCOMPARE(m_server->executed(thr), QStringList(QStringLiteral("accepted")));
}

/// Only open() makes the name certain, but a thread may be started before it.
void WorkerThread::threadsOfUnopenedConnectionsDoNotShareAName()
{
    VEXT_SQL *first = m_script->closedConnection(QStringLiteral("first"));
    VEXT_SQL *second = m_script->closedConnection(QStringLiteral("second"));
    QCOMPARE(first->connectionName(), second->connectionName());
    QVERIFY(first->start_thread());
    QVERIFY(second->start_thread());
    QVERIFY(waitUntil([&] { return QSqlDatabase::connectionNames().size() == 2; }));
    QVERIFY(first->open());
    QVERIFY(second->open());
    m_script->eval(QStringLiteral("first.query_thread(deliver('first'), 'one');"
                                  "second.query_thread(deliver('second'), 'two')"));
    QVERIFY(m_script->waitDelivered(2));
    QCOMPARE(m_script->json(QStringLiteral("[outcomes.first.error, outcomes.second.error]")),
             QStringLiteral("[false,false]"));
}

// --- Stop ---

void WorkerThread::stopOfAStoppedThreadDoesNothing()
{
    VEXT_SQL *db = m_script->connection();
    db->setTraceLog(true);
    m_log->clear();
    m_script->eval(QStringLiteral("db.stop_thread()"));
    QVERIFY(m_log->matching(QStringLiteral("step \\d")).isEmpty());
    QCOMPARE(db->worker->m_thrStop.loadAcquire(), 0);
}

void WorkerThread::stopWaitsForTheEndOfTheThread()
{
    VEXT_SQL *db = m_script->connection();
    m_server->onExact(QStringLiteral("slow"), StubReply::affected(1).withDelay(300));
    m_script->queue(QStringLiteral("slow"));
    QVERIFY(m_server->waitForCall(StubCall::Exec, QStringLiteral("slow")));
    db->stop_thread(60000);
    QVERIFY(!db->isRunning());
    QVERIFY(db->worker->isFinished());
    QCOMPARE(m_server->count(StubCall::Close, thr), 1);
}

void WorkerThread::stopWithoutPositiveTimeDoesNotWait_data()
{
    QTest::addColumn<int>("limit");
    QTest::newRow("-5") << -5;
    QTest::newRow("0") << 0;
}

void WorkerThread::stopWithoutPositiveTimeDoesNotWait()
{
    QFETCH(int, limit);
    VEXT_SQL *db = m_script->connection();
    occupyWorker();
    QElapsedTimer timer;
    timer.start();
    m_script->eval(QStringLiteral("db.stop_thread(%1)").arg(limit));
    QVERIFY2(timer.elapsed() < scaledMs(promptMs), qPrintable(QString::number(timer.elapsed())));
    QVERIFY(db->isRunning());
    QCOMPARE(db->worker->m_thrStop.loadAcquire(), 1);
    m_gates.first()->release();
    QVERIFY(waitStopped(db));
    QVERIFY(m_script->waitDelivered(1));
}

void WorkerThread::stopThreadWaitsOneSecondByDefault()
{
    VEXT_SQL *db = m_script->connection();
    db->setTraceLog(true);
    occupyWorker();
    QElapsedTimer timer;
    timer.start();
    m_script->eval(QStringLiteral("db.stop_thread()"));
    QVERIFY2(timer.elapsed() >= 1000, qPrintable(QString::number(timer.elapsed())));
    QVERIFY2(timer.elapsed() < scaledMs(5000), qPrintable(QString::number(timer.elapsed())));
    QVERIFY(db->isRunning());
    QVERIFY(sink()->contains(
        QStringLiteral("SQL поток не остановился за 1000 мс; запрос мог не поддержать отмену")));
}

void WorkerThread::stopThatTimesOutSaysSoOnlyWithTracing_data()
{
    QTest::addColumn<int>("limit");
    QTest::addColumn<bool>("trace");
    QTest::newRow("5 ms, traced") << 5 << true;
    QTest::newRow("-5 ms, traced") << -5 << true;
    QTest::newRow("5 ms, not traced") << 5 << false;
}

void WorkerThread::stopThatTimesOutSaysSoOnlyWithTracing()
{
    QFETCH(int, limit);
    QFETCH(bool, trace);
    VEXT_SQL *db = m_script->connection();
    db->setTraceLog(trace);
    occupyWorker();
    db->stop_thread(limit);
    drainEvents();
    const QVector<SinkMessage> found = sink()->withText(
        QStringLiteral("SQL поток не остановился за %1 мс; запрос мог не поддержать отмену")
            .arg(limit));
    QCOMPARE(found.size(), trace ? 1 : 0);
    if (!trace)
        return;
    QCOMPARE(found.constFirst().level, 0);
    QCOMPARE(found.constFirst().function, QStringLiteral("stop_thread"));
    QVERIFY2(found.constFirst().file.startsWith(QLatin1String(workerFile)),
             qPrintable(found.constFirst().file));
}

void WorkerThread::stopTracesItsSteps()
{
    VEXT_SQL *db = m_script->connection();
    db->setTraceLog(true);
    occupyWorker();
    m_script->queue(QStringLiteral("one"));
    m_script->queue(QStringLiteral("two"));
    m_log->clear();
    db->stop_thread(0);
    for (const int step : {1, 2, 3}) {
        const QString line = QStringLiteral("stop_thread +\\t.*step %1: all count +2$").arg(step);
        QVERIFY2(m_log->matching(QtDebugMsg, line).size() == 1, qPrintable(line));
    }
}

void WorkerThread::stopFailsTheQueuedTasksUnrun()
{
    VEXT_SQL *db = m_script->connection();
    occupyWorker();
    m_script->queue(QStringLiteral("one"));
    m_script->queue(QStringLiteral("two"));
    m_script->eval(QStringLiteral(
        "var finish = []; db.query_finish.connect(function() { finish.push([].slice.call("
        "arguments, 0)); }); db.query_thread('three')"));
    db->stop_thread(0);
    m_gates.first()->release();
    QVERIFY(m_script->waitDelivered(3));
    QVERIFY(m_script->host.waitForScript(QStringLiteral("finish.length == 1")));
    QCOMPARE(m_script->delivered(),
             QStringList({heldSql, QStringLiteral("one"), QStringLiteral("two")}));
    QCOMPARE(m_server->executed(thr), QStringList(heldSql));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.one.result")), QStringLiteral("false"));
    QCOMPARE(m_script->json(QStringLiteral("finish[0].slice(0, 3)")),
             QStringLiteral("[false,false,false]"));
    QVERIFY(m_script->eval(QStringLiteral("finish[0][3] >= 0")).toBool());
    QCOMPARE(db->taskSize(), 0);
}

void WorkerThread::stopLetsARunningListEndAfterItsStatement()
{
    VEXT_SQL *db = m_script->connection();
    const ThreadGatePtr gate = hold();
    m_script->queueList({heldSql, QStringLiteral("never")}, QStringLiteral("list"));
    QVERIFY(gate->waitReached());
    db->stop_thread(0);
    gate->release();
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_server->executed(thr), QStringList(heldSql));
    QVERIFY(waitStopped(db));
}

void WorkerThread::stopRightAfterTheStartIsNotLost()
{
    VEXT_SQL *db = m_script->connection();
    for (int i = 0; i < Stress::rounds(200); ++i) {
        QVERIFY(db->start_thread());
        db->stop_thread(0);
        QVERIFY2(waitStopped(db), qPrintable(QStringLiteral("round %1").arg(i)));
    }
}

void WorkerThread::closeRightAfterATaskDoesNotWaitForTheLimit()
{
    VEXT_SQL *db = m_script->connection();
    QElapsedTimer timer;
    timer.start();
    const int rounds = Stress::rounds(100);
    for (int i = 0; i < rounds; ++i) {
        db->open();
        QVERIFY(m_script->queue(QStringLiteral("one")));
        QVERIFY(db->close());
        QVERIFY(!db->isRunning());
    }
    QVERIFY2(timer.elapsed() < scaledMs(30000), qPrintable(QString::number(timer.elapsed())));
    QVERIFY(m_script->waitDelivered(rounds));
    drainEvents();
    QCOMPARE(m_script->delivered().size(), rounds);
}

void WorkerThread::stoppedThreadStartsAgainWithTheNextTask()
{
    VEXT_SQL *db = m_script->connection();
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    db->stop_thread(10000);
    QVERIFY(!db->isRunning());
    QVERIFY(m_script->queue(QStringLiteral("two")));
    QVERIFY(m_script->waitDelivered(2));
    QCOMPARE(m_server->count(StubCall::Open, thr), 2);
    QCOMPARE(m_script->json(QStringLiteral("outcomes.two.error")), QStringLiteral("false"));
}

/// The worker is held where it has emptied its queue for the last time and still runs: in the
/// rollback that it does on leaving, and before that in the close of its connection.
void WorkerThread::taskQueuedWhileTheThreadLeavesIsCompleted()
{
    VEXT_SQL *db = m_script->connection();
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    db->start_thread();
    db->transaction();
    QVERIFY(m_server->waitForCall(StubCall::Begin));
    QVERIFY(waitUntil([&] { return m_server->count(StubCall::Begin, thr) == 1; }));
    m_server->effect(StubCall::Rollback, StubEffect::held(gate), StubWhere::connection(thr));
    db->stop_thread(0);
    QVERIFY(gate->waitReached());
    QVERIFY(db->isRunning());
    QVERIFY(m_script->queue(QStringLiteral("late")));
    gate->release();
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(scriptInt(QStringLiteral("outcomes.late.count")), 1);
    QVERIFY(waitUntil([&] { return db->taskSize() == 0; }));
}

/// An idle end is nobody's wish: a task that comes while it is under way is run by the next start,
/// and nothing but that task asks for it.
void WorkerThread::taskQueuedDuringTheIdleEndIsRun()
{
    VEXT_SQL *db = m_script->connection();
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    db->worker->m_timeNotUse = 1;
    m_server->effect(StubCall::Rollback, StubEffect::held(gate),
                     StubWhere::connection(thr).andNth(1));
    db->start_thread();
    db->transaction();
    QVERIFY2(gate->waitReached(), qPrintable(m_server->record()));
    QVERIFY(db->isRunning());
    QVERIFY(m_script->queue(QStringLiteral("late")));
    QVERIFY(m_script->queue(QStringLiteral("later")));
    gate->release();
    QVERIFY(m_script->waitDelivered(2));
    QCOMPARE(m_script->delivered(), QStringList({QStringLiteral("late"), QStringLiteral("later")}));
    QCOMPARE(m_script->json(QStringLiteral("[outcomes.late.error, outcomes.late.result.fields]")),
             QStringLiteral("[false,0]"));
    QCOMPARE(m_server->executed(thr),
             QStringList({QStringLiteral("late"), QStringLiteral("later")}));
    QCOMPARE(m_server->count(StubCall::Open, thr), 2);
}

void WorkerThread::wakeUpWithoutATaskEndsTheThreadAndLosesNothing()
{
    VEXT_SQL *db = m_script->connection();
    for (int i = 1; i <= Stress::rounds(100); ++i) {
        QVERIFY(db->start_thread());
        {
            QMutexLocker locker(&db->worker->m_mutexSqlTasks);
            db->worker->m_waitTask.wakeAll();
        }
        QVERIFY(m_script->queue(QStringLiteral("task%1").arg(i)));
        QVERIFY2(m_script->waitDelivered(i), qPrintable(QStringLiteral("round %1").arg(i)));
    }
    QVERIFY(waitUntil([&] {
        if (!db->isRunning())
            return true;
        QMutexLocker locker(&db->worker->m_mutexSqlTasks);
        db->worker->m_waitTask.wakeAll();
        return false;
    }));
}

// --- Waits and idleness ---

void WorkerThread::idleQueueEndsTheThreadAtTheFirstTimeOut_data()
{
    QTest::addColumn<bool>("trace");
    QTest::addColumn<int>("waitMs");
    QTest::newRow("not traced") << false << 333;
    QTest::newRow("traced") << true << 999;
}

void WorkerThread::idleQueueEndsTheThreadAtTheFirstTimeOut()
{
    QFETCH(bool, trace);
    QFETCH(int, waitMs);
    VEXT_SQL *db = m_script->connection();
    db->setTraceLog(trace);
    db->worker->m_timeNotUse = 1;
    QElapsedTimer timer;
    timer.start();
    QVERIFY(db->start_thread());
    QVERIFY(waitStopped(db));
    // The end comes at the first time-out, and never before it.
    QVERIFY2(timer.elapsed() >= waitMs - 1, qPrintable(QString::number(timer.elapsed())));
    QVERIFY2(timer.elapsed() < scaledMs(waitMs * 2), qPrintable(QString::number(timer.elapsed())));
}

void WorkerThread::idleEndIsReportedOnlyWithTracing_data()
{
    QTest::addColumn<bool>("trace");
    QTest::newRow("not traced") << false;
    QTest::newRow("traced") << true;
}

void WorkerThread::idleEndIsReportedOnlyWithTracing()
{
    QFETCH(bool, trace);
    VEXT_SQL *db = m_script->connection();
    db->setTraceLog(trace);
    db->worker->m_timeNotUse = 1;
    db->start_thread();
    QVERIFY(waitStopped(db));
    drainEvents();
    const QVector<SinkMessage> found =
        sink()->withText(QStringLiteral("очередь простаивает: соединение закрыто"));
    QCOMPARE(found.size(), trace ? 1 : 0);
    if (!trace)
        return;
    QCOMPARE(found.constFirst().level, 0);
    QCOMPARE(found.constFirst().function, QStringLiteral("getSqlTask"));
}

void WorkerThread::idleThreadStaysUntilItsTimeIsUp()
{
    VEXT_SQL *db = m_script->connection();
    constexpr int idleMs = 500;
    db->worker->m_timeNotUse = idleMs;
    QElapsedTimer timer;
    timer.start();
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    QVERIFY(waitStopped(db));
    // The first time-out, at 333 ms, is too early; the second is not.
    QVERIFY2(timer.elapsed() >= idleMs, qPrintable(QString::number(timer.elapsed())));
}

void WorkerThread::tracedWaitTellsTheIdleTime()
{
    VEXT_SQL *db = m_script->connection();
    db->setTraceLog(true);
    db->start_thread();
    const QRegularExpression pattern(QStringLiteral("getSqlTask +\\t.*wait (\\d+)  0$"));
    QVERIFY2(waitUntil([&] { return m_log->matching(pattern).size() >= 2; }),
             qPrintable(m_log->matching(QStringLiteral("wait")).join(QLatin1Char('\n'))));
    const QStringList lines = m_log->matching(pattern);
    QVERIFY(pattern.match(lines.at(0)).captured(1).toInt() >= 998);
    QVERIFY(pattern.match(lines.at(1)).captured(1).toInt() >= 1997);
}

void WorkerThread::taskAfterTheIdleEndOpensTheThreadConnectionAgain()
{
    VEXT_SQL *db = m_script->connection();
    db->worker->m_timeNotUse = 1;
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    QVERIFY(waitStopped(db));
    QCOMPARE(m_server->count(StubCall::Close, thr), 1);
    db->worker->m_timeNotUse = 720000;
    QVERIFY(m_script->queue(QStringLiteral("two")));
    QVERIFY(m_script->waitDelivered(2));
    QCOMPARE(m_server->count(StubCall::Open, thr), 2);
    QCOMPARE(m_server->executed(thr), QStringList({QStringLiteral("one"), QStringLiteral("two")}));
}

void WorkerThread::everyTakenTaskRestartsTheIdleTime()
{
    VEXT_SQL *db = m_script->connection();
    QElapsedTimer timer;
    timer.start();
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    QVERIFY(m_script->host.waitForScript(QStringLiteral("db.counters().thr_notUsedMs >= 100")));
    m_script->queue(QStringLiteral("two"));
    QVERIFY(m_script->waitDelivered(2));
    const int idle = scriptInt(QStringLiteral("db.counters().thr_notUsedMs"));
    QVERIFY2(idle < timer.elapsed() - 99, qPrintable(QString::number(idle)));
    QVERIFY(db->isRunning());
}

void WorkerThread::timeNotUseIsAtLeastAMinute_data()
{
    QTest::addColumn<int>("written");
    QTest::addColumn<int>("stored");
    QTest::newRow("1000") << 1000 << 60000;
    QTest::newRow("-5") << -5 << 60000;
    QTest::newRow("59999") << 59999 << 60000;
    QTest::newRow("60000") << 60000 << 60000;
    QTest::newRow("120000") << 120000 << 120000;
}

void WorkerThread::timeNotUseIsAtLeastAMinute()
{
    QFETCH(int, written);
    QFETCH(int, stored);
    VEXT_SQL *db = m_script->connection();
    QCOMPARE(db->timeNotUse(), 720000);
    m_script->eval(QStringLiteral("db.timeNotUse = %1").arg(written));
    QCOMPARE(scriptInt(QStringLiteral("db.timeNotUse")), stored);
    QCOMPARE(int(db->worker->m_timeNotUse), stored);
}

// --- Queue ---

void WorkerThread::taskOnAClosedConnectionIsDiscarded_data()
{
    QTest::addColumn<bool>("trace");
    QTest::newRow("not traced") << false;
    QTest::newRow("traced") << true;
}

void WorkerThread::taskOnAClosedConnectionIsDiscarded()
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

void WorkerThread::tasksRunAndAreDeliveredInOrder()
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

void WorkerThread::queueAndWorkerTraceTheTasks()
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

void WorkerThread::countersShowTheStatesOfTheThread()
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

    m_gates.first()->release();
    QVERIFY(m_script->waitDelivered(3));
    QVERIFY(m_script->host.waitForScript(QStringLiteral("db.counters().thr_sql_currMs == 0")));
    QCOMPARE(scriptInt(QStringLiteral("db.counters().thr_sql_queue")), 0);
    QCOMPARE(scriptInt(QStringLiteral("db.counters().thr_sql_finish")), 3);

    db->stop_thread(10000);
    QCOMPARE(m_script->json(keys), QStringLiteral("[]"));
}

void WorkerThread::taskSizeCountsTheWaitingTasks()
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

void WorkerThread::emptyStatementSkipsTheRestOfItsTask()
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

void WorkerThread::emptyListDeliversFalse()
{
    m_script->connection();
    m_script->eval(QStringLiteral("db.query_thread(deliver('none'), [])"));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->json(QStringLiteral("[outcomes.none.result, outcomes.none.error]")),
             QStringLiteral("[false,false]"));
    QCOMPARE(m_server->executed(thr), QStringList());
}

void WorkerThread::failedStatementDoesNotStopTheOthers()
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

void WorkerThread::transactionWordsAreNotSentToTheServer()
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

void WorkerThread::statementIsTracedAtLevelTwo()
{
    VEXT_SQL *db = m_script->connection();
    m_script->queue(QStringLiteral("quiet"));
    QVERIFY(m_script->waitDelivered(1));
    db->setTraceLog(true);
    m_script->queue(QStringLiteral("one"));
    QVERIFY(sink()->waitFor(QStringLiteral("sql='one'")));
    const SinkMessage message = sink()->withText(QStringLiteral("sql='one'")).constFirst();
    QCOMPARE(message.level, 2);
    QCOMPARE(message.function, QStringLiteral("run"));
    QVERIFY(!sink()->contains(QStringLiteral("sql='quiet'")));
}

void WorkerThread::procedureTaskBindsItsValuesInOrder()
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

void WorkerThread::procedureThatCannotBePreparedFails()
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

void WorkerThread::statementsAreCounted()
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

void WorkerThread::transactionWithoutThreadConcernsTheMainConnectionOnly()
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

void WorkerThread::transactionFollowsOnTheThreadConnection()
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

void WorkerThread::secondTransactionRollsBackTheFirst()
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

void WorkerThread::endOfATransactionThatNeverBeganIsNoError()
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

void WorkerThread::failedCommandIsReportedByItsOwnTaskOnly()
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

void WorkerThread::transactionIsRefusedWhereItCannotBe()
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

void WorkerThread::failedMainTransactionQueuesNothing()
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

void WorkerThread::leavingThreadRollsBackAnOpenTransaction()
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

void WorkerThread::commitWordEndsTheTransactionOfTheCommand()
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

void WorkerThread::failedOpenFailsAllQueuedTasksAndTheNextTriesAgain()
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

void WorkerThread::failedOpenIsSilentWithoutTracing()
{
    VEXT_SQL *db = m_script->connection();
    m_server->fail(StubCall::Open, connectionError(), StubWhere::connection(thr));
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    QVERIFY(waitStopped(db));
    drainEvents();
    QCOMPARE(sink()->messages(-1).size(), 0);
}

void WorkerThread::connectionErrorEndsTheThreadAndFailsTheQueue()
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

void WorkerThread::connectionErrorSkipsTheRestOfItsTask()
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

void WorkerThread::taskAfterAConnectionErrorRunsOnANewConnection()
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

void WorkerThread::applicationNameIsSetOncePerThreadConnection()
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

// --- The object's life ---

void WorkerThread::onlyTheOwnerBecomesTheScriptValue()
{
    VEXT_SQL *db = m_script->connection();
    QObject other;
    QScriptEngine *engine = m_script->host.engine();
    VEXT_sqlThr *worker = db->worker;
    QVERIFY(!worker->setScriptValueThis(engine->newQObject(&other)));
    QVERIFY(!worker->setScriptValueThis(engine->newQObject(worker)));
    QVERIFY(!worker->setScriptValueThis(QScriptValue(5)));
    QVERIFY(!worker->setScriptValueThis(QScriptValue()));
    QCOMPARE(worker->m_scriptValueThis.toQObject(), db);
    QVERIFY(worker->setScriptValueThis(m_script->host.global(QStringLiteral("db"))));
}

void WorkerThread::deletionWaitsForALongStatement()
{
    VEXT_SQL *db = m_script->connection();
    constexpr int longMs = 1800; // longer than the first wait, and not to be cancelled
    m_server->onExact(QStringLiteral("long"), StubReply::affected(0).withDelay(longMs));
    QElapsedTimer timer;
    timer.start();
    m_script->queue(QStringLiteral("long"));
    m_script->queue(QStringLiteral("never"));
    QVERIFY(m_server->waitForCall(StubCall::Exec, QStringLiteral("long")));
    delete db;
    QVERIFY(waitUntil([&] { return m_server->liveDrivers() == 0; }));
    QVERIFY2(timer.elapsed() >= longMs, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(m_server->executed(thr), QStringList(QStringLiteral("long")));
    drainEvents();
    QCOMPARE(m_script->delivered(), QStringList());
}

void WorkerThread::deletionFreesTheTasksWithoutDelivery()
{
    VEXT_SQL *db = m_script->connection();
    const ThreadGatePtr gate = hold();
    // A value that only the tasks hold; it goes with the last of them.
    QPointer<QObject> token = new QObject;
    m_script->host.engine()->globalObject().setProperty(
        QStringLiteral("token"),
        m_script->host.engine()->newQObject(token, QScriptEngine::ScriptOwnership));
    m_script->eval(QStringLiteral("for (var i = 0; i < 5; ++i) db.query_thread(deliver('t' + i), "
                                  "'held', [token]); token = null"));
    QVERIFY(gate->waitReached());
    m_script->host.collectGarbage();
    QVERIFY(token);
    db->stop_thread(0);
    gate->release();
    // Not a single event is handled before the object goes: the completions are still posted.
    db->worker->wait();
    delete db;
    QVERIFY(waitUntil([&] { return m_server->liveDrivers() == 0; }));
    QVERIFY2(waitUntil([&] {
                 m_script->host.collectGarbage();
                 return !token;
             }),
             "a task of the deleted connection is still there");
    for (const QString &tag : m_script->delivered())
        QVERIFY2(scriptInt(QStringLiteral("outcomes[%1].count").arg(quoted(tag))) == 1,
                 qPrintable(tag));
}

void WorkerThread::engineMayGoFirst()
{
    m_script->connection(QStringLiteral("db"));
    m_script->connection(QStringLiteral("idle"))->start_thread();
    m_server->setFeature(QSqlDriver::CancelQuery);
    const ThreadGatePtr gate = hold();
    m_script->queue(heldSql);
    m_script->queue(QStringLiteral("never"));
    QVERIFY(gate->waitReached());
    m_script->host.destroyEngine();
    QVERIFY2(waitUntil([&] { return m_server->liveDrivers() == 0; }),
             qPrintable(m_server->record()));
    QCOMPARE(m_server->executed(thr), QStringList(heldSql));
}

void WorkerThread::tasksThatEndAfterTheEngineAreFreed()
{
    QObject holder;
    auto *db = new VEXT_SQL(&holder, m_script->host.engine());
    db->setDriverName(QStringLiteral("STUB"));
    QVERIFY(db->open());
    const ThreadGatePtr gate = hold();
    for (int i = 0; i < 3; ++i) {
        auto *task = new structThrSql;
        task->sqlList = QStringList(heldSql);
        task->func = m_script->eval(QStringLiteral("deliver('late')"));
        QVERIFY(db->appendSqlTask(task));
    }
    QVERIFY(gate->waitReached());
    m_script->host.destroyEngine();
    gate->release();
    QVERIFY(waitUntil([&] { return m_server->executed(thr).size() == 3; }));
    QVERIFY(waitUntil([&] { return db->taskSize() == 0; }));
    drainEvents();
    db->stop_thread(10000);
    QVERIFY(db->close());
}

void WorkerThread::callbackMayDeleteItsConnection_data()
{
    QTest::addColumn<QString>("deletion");
    QTest::newRow("on the spot") << QStringLiteral("destroy(db)");
    QTest::newRow("later") << QStringLiteral("db.deleteLater()");
    QTest::newRow("with a close before") << QStringLiteral("db.close(); destroy(db)");
    QTest::newRow("with its worker") << QStringLiteral("destroy(db); handleEvents()");
    QTest::newRow("later, with events") << QStringLiteral("db.deleteLater(); handleEvents()");
}

void WorkerThread::callbackMayDeleteItsConnection()
{
    QFETCH(QString, deletion);
    QPointer<VEXT_SQL> db = m_script->connection();
    m_script->eval(QStringLiteral("db.query_thread(deliver('one'), 'one');"
                                  "db.query_thread(function() { delivered.push('two'); %1; }, "
                                  "'two'); for (var i = 0; i < 20; ++i) "
                                  "db.query_thread(deliver('later' + i), 'later')")
                       .arg(deletion));
    QVERIFY(waitUntil([&] { return !db; }));
    QVERIFY(waitUntil([&] { return m_server->liveDrivers() == 0; }));
    drainEvents();
    const QStringList delivered = m_script->delivered();
    QCOMPARE(delivered.mid(0, 2), QStringList({QStringLiteral("one"), QStringLiteral("two")}));
    // Until deleteLater() takes effect some more may come, each once and in order.
    const bool later = deletion.contains(QLatin1String("deleteLater"));
    QVERIFY2(later || delivered.size() == 2, qPrintable(delivered.join(QLatin1Char(' '))));
    for (int i = 2; i < delivered.size(); ++i)
        QCOMPARE(delivered.at(i), QStringLiteral("later%1").arg(i - 2));
}

void WorkerThread::callbackMayQueueCloseAndThrow()
{
    VEXT_SQL *db = m_script->connection();
    m_script->eval(QStringLiteral(
        "db.query_thread(function() { delivered.push('one'); db.query_thread(deliver('inner'), "
        "'inner'); throw new Error('of the callback'); }, 'one');"
        "db.query_thread(deliver('two'), 'two');"));
    QVERIFY(m_script->waitDelivered(3));
    QCOMPARE(m_script->delivered(),
             QStringList({QStringLiteral("one"), QStringLiteral("two"), QStringLiteral("inner")}));
    m_script->host.engine()->clearExceptions();
    m_script->eval(QStringLiteral(
        "db.query_thread(function() { delivered.push('closing'); db.close(); db.open(); "
        "db.query_thread(deliver('reopened'), 'reopened'); }, 'closing');"
        "for (var i = 0; i < 3; ++i) db.query_thread(deliver('rest' + i), 'rest')"));
    QVERIFY(m_script->waitDelivered(8));
    QCOMPARE(
        m_script->delivered().mid(3),
        QStringList({QStringLiteral("closing"), QStringLiteral("rest0"), QStringLiteral("rest1"),
                     QStringLiteral("rest2"), QStringLiteral("reopened")}));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.reopened.error")), QStringLiteral("false"));
    QVERIFY(db->isRunning());
}

void WorkerThread::callbackMayRunAnEventLoop()
{
    m_script->connection();
    QScriptEngine *engine = m_script->host.engine();
    engine->globalObject().setProperty(
        QStringLiteral("runEvents"),
        engine->newFunction([](QScriptContext *context, QScriptEngine *) {
            QScriptValue list = context->argument(0);
            const int count = context->argument(1).toInt32();
            return QScriptValue(waitUntil(
                [&] { return list.property(QStringLiteral("length")).toInt32() >= count; }));
        }));
    m_script->eval(QStringLiteral(
        "var nested = false; db.query_thread(function() { delivered.push('outer'); "
        "nested = runEvents(delivered, 4); delivered.push('outer ends'); }, 'outer');"
        "for (var i = 0; i < 3; ++i) db.query_thread(deliver('inner' + i), 'inner')"));
    QVERIFY(m_script->waitDelivered(5));
    QCOMPARE(m_script->delivered(), QStringList({QStringLiteral("outer"), QStringLiteral("inner0"),
                                                 QStringLiteral("inner1"), QStringLiteral("inner2"),
                                                 QStringLiteral("outer ends")}));
    QVERIFY(m_script->eval(QStringLiteral("nested")).toBool());
}

QTEST_GUILESS_MAIN(WorkerThread)
#include "test_worker_thread.moc"
