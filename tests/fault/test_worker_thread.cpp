/// @file
/// The worker thread of a connection: how it starts, stops, waits and ends.
#include "worker_test.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSqlDatabase>
#include <QtTest>

#include <sys/resource.h>
#include <unistd.h>

namespace
{

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

} // namespace

class WorkerThread : public WorkerTest
{
    Q_OBJECT

private slots:
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
    void taskThatIsRefusedIsTraced();
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
    void stopDuringTheIdleEndFailsTheTasks();
    void stopFailsTheTasksThatWaitForTheNextStart();
    void sleepingThreadIsWoken_data();
    void sleepingThreadIsWoken();
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
};

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
    bool started = false;
    const qint64 taken = quickAttemptMs(promptMs, [&] {
        db->worker->m_thrStop.storeRelease(1);
        started = started || db->worker->waitStart();
    });
    QVERIFY(!started);
    QVERIFY2(taken >= 299 && taken < promptMs, qPrintable(QString::number(taken)));
    QCOMPARE(db->worker->m_thrStop.loadAcquire(), 0);
    QVERIFY(db->start_thread());
    QVERIFY(db->worker->waitStart());
}

void WorkerThread::taskThatIsRefusedIsTraced()
{
    VEXT_SQL *db = m_script->connection();
    db->setTraceLog(true);
    m_allowedComplaint = QStringLiteral("QThread::start: Thread creation error");
    {
        const ThreadCreationBlock block(db->worker);
        QVERIFY(!m_script->queue(QStringLiteral("refused")));
    }
    const QString added = QStringLiteral(
        "appendSqlTask +\\t.*add task: all count +1 : elapsed +\\d+ : isRunning false$");
    QCOMPARE(m_log->matching(QtDebugMsg, added).size(), 1);
    QCOMPARE(scriptInt(QStringLiteral("db.taskSize()")), 0);
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
    const QString stop = QStringLiteral("db.stop_thread(%1)").arg(limit);
    const qint64 taken = quickAttemptMs(promptMs, [&] { m_script->eval(stop); });
    QVERIFY2(taken < promptMs, qPrintable(QString::number(taken)));
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

void WorkerThread::stopDuringTheIdleEndFailsTheTasks()
{
    VEXT_SQL *db = m_script->connection();
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    db->worker->m_timeNotUse = 1;
    m_server->effect(StubCall::Rollback, StubEffect::held(gate), StubWhere::connection(thr));
    db->start_thread();
    db->transaction();
    QVERIFY2(gate->waitReached(), qPrintable(m_server->record()));
    QVERIFY(m_script->queue(QStringLiteral("late")));
    db->stop_thread(0);
    QVERIFY(db->isRunning());
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.late.result")), QStringLiteral("false"));
    gate->release();
    QVERIFY(waitStopped(db));
    QCOMPARE(m_server->executed(thr), QStringList());
}

void WorkerThread::sleepingThreadIsWoken_data()
{
    QTest::addColumn<bool>("stops");
    QTest::newRow("task") << false;
    QTest::newRow("stop") << true;
}

/// A thread that nobody wakes sleeps for a third of a second.
void WorkerThread::sleepingThreadIsWoken()
{
    QFETCH(bool, stops);
    constexpr int rounds = 40;
    constexpr int sleepMs = 333;
    VEXT_SQL *db = m_script->connection();
    QElapsedTimer timer;
    int quick = 0; // any round may be slow on a machine that is busy, and any be quick by chance
    for (int i = 1; i <= rounds; ++i) {
        timer.start();
        QVERIFY(m_script->queue(QStringLiteral("one")));
        QVERIFY(m_script->waitDelivered(i));
        if (stops)
            db->stop_thread(60000);
        quick += timer.elapsed() < sleepMs / 2 ? 1 : 0;
    }
    QVERIFY2(quick > rounds / 2, qPrintable(QString::number(quick)));
}

/// The thread has ended by itself, and the event that starts it again has not been handled yet.
void WorkerThread::stopFailsTheTasksThatWaitForTheNextStart()
{
    VEXT_SQL *db = m_script->connection();
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    db->worker->m_timeNotUse = 1;
    m_server->effect(StubCall::Rollback, StubEffect::held(gate), StubWhere::connection(thr));
    db->start_thread();
    db->transaction();
    QVERIFY2(gate->waitReached(), qPrintable(m_server->record()));
    QVERIFY(m_script->queue(QStringLiteral("late")));
    gate->release();
    QVERIFY(db->worker->wait());
    db->stop_thread(0);
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.late.result")), QStringLiteral("false"));
    drainEvents();
    QVERIFY(!db->isRunning());
    QCOMPARE(m_server->executed(thr), QStringList());
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
    bool stopped = true;
    const qint64 taken = quickAttemptMs(waitMs * 2, [&] {
        db->start_thread();
        stopped = stopped && waitStopped(db);
    });
    QVERIFY(stopped);
    // The end comes at the first time-out, and never before it.
    QVERIFY2(taken >= waitMs - 1 && taken < waitMs * 2, qPrintable(QString::number(taken)));
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
    QCOMPARE(db->worker->m_thrSqlFinish.loadAcquire(), 1); // since the second start
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

QTEST_GUILESS_MAIN(WorkerThread)
#include "test_worker_thread.moc"
