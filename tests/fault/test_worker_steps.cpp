/// @file
/// Single steps of the worker, seen from inside: how it leaves, hands tasks over and reads queries.
#include "library_life.h"
#include "thread_fixture.h"

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QtTest>

#include <algorithm>
#include <memory>

namespace
{

const QString thr = QStringLiteral("_thr");
constexpr int longMs = 120000;
constexpr int promptMs = 10000;
const QVector<StubReply::Column> oneColumn{{QStringLiteral("id"), QVariant::Int}};

/// Holds the thread that writes a line with the text to Qt's log, one at a time in a program.
class HeldLine
{
public:
    explicit HeldLine(const QString &text)
    {
        s_text = text;
        s_gate = gate;
        s_former = qInstallMessageHandler(&HeldLine::handle);
    }
    ~HeldLine()
    {
        gate->release();
        qInstallMessageHandler(s_former);
    }
    Q_DISABLE_COPY(HeldLine)

    const ThreadGatePtr gate = ThreadGate::create();

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        s_former(type, context, text);
        if (text.contains(s_text))
            s_gate->pass();
    }

    static QString s_text;
    static ThreadGatePtr s_gate;
    static QtMessageHandler s_former;
};

QString HeldLine::s_text;
ThreadGatePtr HeldLine::s_gate;
QtMessageHandler HeldLine::s_former = nullptr;

} // namespace

class WorkerSteps : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void rollbackOfTheLeavingThreadIsNotCancelled();
    void openingAgainIsNotCancelled();
    void stopBeforeTheFirstTaskFailsIt();
    void taskTakenDuringAStopDoesNotRun();
    void openDoesNotTakeAStopBack();
    void taskOfACallbackBehindAStopRunsInTheNextThread();
    void errorOfTheLastRollbackIsTheLastError();
    void statementBehindACancelledOneIsCancelledToo();
    void deletionCancelsAStatementThatBeginsLate();
    void messageOfADeletionMayEndAllWorkers();
    void messageOfAnEndMayEndTheOtherWorkers();
    void workersOfOtherThreadsAreLeftToThem();
    void positionedQueryIsReadFromItsFirstRow_data();
    void positionedQueryIsReadFromItsFirstRow();

private:
    void begin();

    std::unique_ptr<StubServer> m_server;
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<ThreadFixture> m_script;
    VEXT_SQL *m_db = nullptr;
};

void WorkerSteps::init()
{
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    m_server = std::make_unique<StubServer>(QStringLiteral("QPSQL"), QSqlDriver::PostgreSQL);
    m_server->setFeature(QSqlDriver::CancelQuery);
    m_script = std::make_unique<ThreadFixture>(QStringLiteral("QPSQL"));
    m_db = m_script->connection();
}

void WorkerSteps::cleanup()
{
    m_script.reset();
    QVERIFY2(m_server->liveResults() == 0, qPrintable(m_server->record()));
    QVERIFY2(m_server->liveDrivers() == 0, qPrintable(m_server->record()));
    m_server.reset();
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

/// Opens a transaction on the thread connection.
void WorkerSteps::begin()
{
    m_script->eval(QStringLiteral("db.start_thread(); db.transaction()"));
    QVERIFY(m_script->queue(QStringLiteral("one")));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_server->count(StubCall::Begin, thr), 1);
}

void WorkerSteps::rollbackOfTheLeavingThreadIsNotCancelled()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->effect(StubCall::Rollback, StubEffect::held(gate), StubWhere::connection(thr));
    begin();
    m_db->stop_thread(1000); // asks again and again
    QVERIFY(gate->waitReached());
    QVERIFY(m_db->isRunning());
    const QVector<StubCall> calls = m_server->calls();
    const auto rollback = std::find_if(calls.begin(), calls.end(), [](const StubCall &call) {
        return call.what == StubCall::Rollback;
    });
    QVERIFY2(std::none_of(rollback, calls.end(),
                          [](const StubCall &call) { return call.what == StubCall::Cancel; }),
             qPrintable(m_server->record()));
    gate->release();
    QVERIFY(waitStopped(m_db));
    QCOMPARE(m_db->worker->lastError(), QString());
}

void WorkerSteps::openingAgainIsNotCancelled()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    QVERIFY(m_script->queue(QStringLiteral("one")));
    QVERIFY(m_script->waitDelivered(1));
    m_server->effect(StubCall::Open, StubEffect::held(gate), StubWhere::connection(thr));
    m_db->worker->m_threadDriver->close(); // as a driver that finds its connection lost
    QVERIFY(m_script->queue(QStringLiteral("two")));
    QVERIFY(gate->waitReached());
    m_db->stop_thread(1000); // asks again and again
    QCOMPARE(m_server->count(StubCall::Cancel), 0);
    gate->release();
    QVERIFY(waitStopped(m_db));
}

void WorkerSteps::stopBeforeTheFirstTaskFailsIt()
{
    {
        QMutexLocker locker(&m_db->worker->m_mutexParams); // where the thread begins
        QVERIFY(m_script->queue(QStringLiteral("one")));
        m_db->stop_thread(0);
    }
    QVERIFY(m_script->waitDelivered(1));
    QVERIFY(waitStopped(m_db));
    QCOMPARE(m_server->executed(thr), QStringList());
}

/// The stop cancels while no statement runs yet, and does not wait to cancel again.
void WorkerSteps::taskTakenDuringAStopDoesNotRun()
{
    m_db->setTraceLog(true);
    QVERIFY(m_script->queue(QStringLiteral("one")));
    QVERIFY(m_script->waitDelivered(1));
    {
        const HeldLine taken(QStringLiteral("get task: all count"));
        QVERIFY(m_script->queue(QStringLiteral("two")));
        QVERIFY(taken.gate->waitReached());
        m_db->stop_thread(0);
    }
    QVERIFY(m_script->waitDelivered(2));
    QVERIFY(waitStopped(m_db));
    QCOMPARE(m_server->executed(thr), QStringList(QStringLiteral("one")));
    QVERIFY(m_script->eval(QStringLiteral("outcomes.two.result === false")).toBool());
}

void WorkerSteps::openDoesNotTakeAStopBack()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->setCancelIgnored(true);
    m_server->onExact(QStringLiteral("one"), StubReply::affected(1).withGate(gate));
    QVERIFY(m_script->queue(QStringLiteral("one")));
    QVERIFY(gate->waitReached());
    m_db->stop_thread(0);
    QVERIFY(m_db->worker->close(false) && m_db->open());
    QCOMPARE(m_db->worker->m_thrStop.loadAcquire(), 1);
    gate->release();
    QVERIFY(waitStopped(m_db));
}

void WorkerSteps::taskOfACallbackBehindAStopRunsInTheNextThread()
{
    const ThreadGatePtr running = ThreadGate::create();
    const ThreadGatePtr leaving = ThreadGate::create();
    const GateGuard guards[] = {GateGuard(running), GateGuard(leaving)};
    m_server->effect(StubCall::Rollback, StubEffect::held(leaving), StubWhere::connection(thr));
    m_server->onExact(QStringLiteral("two"), StubReply::affected(1).withGate(running));
    begin();
    m_script->eval(QStringLiteral("var queued = false; db.query_thread(function() {"
                                  "queued = db.query_thread(deliver('next'), 'next') }, 'two')"));
    QVERIFY(running->waitReached());
    m_db->stop_thread(0);
    running->release();
    QVERIFY(leaving->waitReached());
    QVERIFY(m_script->host.waitForScript(QStringLiteral("queued")));
    leaving->release();
    QVERIFY(m_script->waitDelivered(2));
    QVERIFY(m_server->executed(thr).contains(QStringLiteral("next")));
}

void WorkerSteps::errorOfTheLastRollbackIsTheLastError()
{
    m_server->fail(StubCall::Rollback,
                   stubError(QSqlError::TransactionError, QStringLiteral("no rollback")),
                   StubWhere::connection(thr));
    begin();
    QCOMPARE(m_db->worker->lastError(), QString());
    m_db->stop_thread(60000);
    QVERIFY2(m_db->worker->lastError().contains(QStringLiteral("no rollback")),
             qPrintable(m_db->worker->lastError()));
}

/// The first request ends what the worker itself has sent, while the task's statement has still to
/// begin; only asking again reaches that.
void WorkerSteps::statementBehindACancelledOneIsCancelledToo()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->onPrefix(QStringLiteral("SET client_encoding"),
                       StubReply::affected(0).withGate(gate));
    m_server->onExact(QStringLiteral("lasting"), StubReply::affected(1).withDelay(longMs));
    m_script->eval(QStringLiteral("db.app_name = 'test'"));
    QVERIFY(m_script->queue(QStringLiteral("lasting")));
    QVERIFY(gate->waitReached());
    QElapsedTimer timer;
    timer.start();
    m_db->stop_thread(scaledMs(2 * promptMs));
    QVERIFY2(timer.elapsed() < scaledMs(promptMs), qPrintable(QString::number(timer.elapsed())));
    QVERIFY(!m_db->isRunning());
    QVERIFY2(m_server->executed(thr).contains(QStringLiteral("lasting")),
             qPrintable(m_server->record()));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->eval(QStringLiteral("outcomes.lasting.error")).toString(),
             QStringLiteral("canceling statement"));
}

/// The deletion has given up stopping the thread, and waits for it, when the statement begins.
void WorkerSteps::deletionCancelsAStatementThatBeginsLate()
{
    constexpr int openMs = 2500;
    m_server->effect(StubCall::Open, StubEffect::delay(openMs), StubWhere::connection(thr));
    m_server->onExact(QStringLiteral("lasting"), StubReply::affected(1).withDelay(longMs));
    QVERIFY(m_script->queue(QStringLiteral("lasting")));
    QVERIFY(waitUntil([this] { return m_server->count(StubCall::Open, thr) == 1; }));
    QElapsedTimer timer;
    timer.start();
    m_script.reset();
    drainEvents();
    QVERIFY2(timer.elapsed() < scaledMs(promptMs), qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(m_server->executed(thr), QStringList(QStringLiteral("lasting")));
}

/// The host ends the application, say, when it is told that the thread does not stop.
void WorkerSteps::messageOfADeletionMayEndAllWorkers()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->setCancelIgnored(true);
    m_server->onExact(QStringLiteral("lasting"), StubReply::affected(1).withGate(gate));
    m_db->setTraceLog(true);
    QVERIFY(m_script->queue(QStringLiteral("lasting")));
    QVERIFY(gate->waitReached());
    int told = 0;
    int destroyed = 0;
    connect(m_db->worker, &QObject::destroyed, this, [&] { ++destroyed; });
    connect(m_db->worker, &VEXT_sqlThr::s_msg, this, [&](const char *, int, const char *function) {
        if (qstrcmp(function, "stop_thread") != 0)
            return;
        ++told;
        gate->release();
        LibraryLife::releaseWorkers(true);
    });
    m_script.reset();
    drainEvents();
    QCOMPARE(told, 1);
    QCOMPARE(destroyed, 1);
}

/// The first worker's end takes the second one with it, which was to be the next.
void WorkerSteps::messageOfAnEndMayEndTheOtherWorkers()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->setCancelIgnored(true);
    m_server->onExact(QStringLiteral("lasting"), StubReply::affected(1).withGate(gate));
    m_db->setTraceLog(true);
    const QPointer<VEXT_SQL> second = m_script->connection(QStringLiteral("second"));
    QVERIFY(m_script->queue(QStringLiteral("lasting")));
    QVERIFY(gate->waitReached());
    bool gone = false;
    connect(m_db->worker, &VEXT_sqlThr::s_msg, this, [&](const char *, int, const char *function) {
        if (qstrcmp(function, "stop_thread") != 0)
            return;
        gate->release();
        LibraryLife::releaseWorkers(true);
        gone = !second;
    });
    LibraryLife::releaseWorkers(true);
    QVERIFY(gone);
    QCOMPARE(LibraryLife::workerCount(), 0);
}

/// Its deletion waits there for the event loop.
void WorkerSteps::workersOfOtherThreadsAreLeftToThem()
{
    class Other : public QThread
    {
    public:
        ~Other() override { wait(); }
        const ThreadGatePtr gate = ThreadGate::create();

    protected:
        void run() override
        {
            QScriptEngine engine;
            VEXT_SQLWrapper::registerWrapper(&engine);
            delete engine.evaluate(QStringLiteral("new VEXT_SQL()")).toQObject();
            gate->pass();
        }
    };
    Other other;
    const GateGuard guard(other.gate);
    const int workers = LibraryLife::workerCount();
    other.start();
    QVERIFY(other.gate->waitReached());
    LibraryLife::releaseWorkers(false);
    QCOMPARE(LibraryLife::workerCount(), workers + 1);
    other.gate->release();
    QVERIFY(other.wait(static_cast<unsigned long>(scaledMs(defaultWaitMs))));
    QCOMPARE(LibraryLife::workerCount(), workers);
}

void WorkerSteps::positionedQueryIsReadFromItsFirstRow_data()
{
    QTest::addColumn<bool>("forwardOnly");
    QTest::addColumn<int>("steps");
    QTest::addColumn<int>("rows");
    QTest::newRow("fresh") << false << 0 << 3;
    QTest::newRow("fresh, forward only") << true << 0 << 3;
    QTest::newRow("on the first row") << false << 1 << 3;
    QTest::newRow("on the first row, forward only") << true << 1 << 3;
    QTest::newRow("on the last row") << false << 3 << 3;
    QTest::newRow("behind the last row") << false << 4 << 3;
    QTest::newRow("on the last row, forward only") << true << 3 << 1;
}

void WorkerSteps::positionedQueryIsReadFromItsFirstRow()
{
    QFETCH(bool, forwardOnly);
    QFETCH(int, steps);
    m_server->onExact(QStringLiteral("rows"), StubReply::table(oneColumn, {{1}, {2}, {3}}));
    structThrSql task(m_db->worker->db);
    task.sqlQuery->setForwardOnly(forwardOnly);
    QVERIFY(task.sqlQuery->exec(QStringLiteral("rows")));
    for (int n = 0; n < steps; ++n)
        task.sqlQuery->next();
    QVERIFY(m_db->worker->detachSqlResult(&task));
    QTEST(int(task.results.constFirst().fields.constFirst().values.size()), "rows");
    QVERIFY(!task.sqlQuery);
}

QTEST_GUILESS_MAIN(WorkerSteps)
#include "test_worker_steps.moc"
