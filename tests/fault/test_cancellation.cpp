/// @file
/// A statement that runs is cancelled where the driver can, and what has finished is not.
#include "thread_fixture.h"

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QtTest>

#include <atomic>
#include <memory>
#include <thread>

namespace
{

const QString thr = QStringLiteral("_thr");
const QString cancelledText = QStringLiteral("SQL запрос отменен");
constexpr int longMs = 120000;  // what must be cancelled, or else the test runs out of time
constexpr int promptMs = 10000; // a cancelled statement has ended by then
const QVector<StubReply::Column> oneColumn{{QStringLiteral("id"), QVariant::Int}};

StubReply manyRows(int count)
{
    return StubReply::generated(oneColumn, count, [](int row) { return QVariantList{row}; });
}

} // namespace

class Cancellation : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void endingTheThreadCancelsTheRunningStatement_data();
    void endingTheThreadCancelsTheRunningStatement();
    void closeCancelsOnTheMainConnectionToo();
    void stopThreadCancelsOnTheThreadConnectionOnly();
    void cancelledStatementEndsItsTaskAndTheQueue();
    void cancelledPreparedStatementEndsPromptly();
    void cancelledOpenOfTheThreadConnectionFailsTheTask();

    void cancelledReadEndsAtTheNextRow();
    void cancelledReadOfAListTellsItAtItsPosition();
    void readCancelledByTheDriverEndsPromptly();
    void synchronousReadIsNotStopped();

    void finishedStatementIsNotCancelled();
    void deliveryThatWaitsIsNotCancelled();
    void stopOfAnIdleThreadCancelsNothing();
    void nextTaskAfterACancelRunsToItsEnd();

    void driverThatCannotCancelIsNotAsked();
    void driverThatIgnoresTheCancelIsWaitedFor();
    void manyStopsEndEveryLongStatement();

private:
    /// Queues a statement that lasts until it is cancelled, and waits until it runs.
    void startLong();
    /// Waits until the next such statement, queued before, runs.
    void waitLongRuns();
    QString errorOf(const QString &tag);

    std::unique_ptr<StubServer> m_server;
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<ThreadFixture> m_script;
    VEXT_SQL *m_db = nullptr;
    ThreadGatePtr m_gate; // where "long" stands still
    int m_started = 0;    // how often it was seen there
};

void Cancellation::init()
{
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    m_server = std::make_unique<StubServer>(QStringLiteral("STUB"));
    m_server->setFeature(QSqlDriver::CancelQuery);
    m_gate = ThreadGate::create();
    m_started = 0;
    m_server->onExact(QStringLiteral("long"), StubReply::affected(1).withGate(m_gate));
    m_script = std::make_unique<ThreadFixture>();
    m_db = m_script->connection();
}

void Cancellation::cleanup()
{
    m_script.reset();
    m_gate->release();
    QVERIFY2(m_server->liveResults() == 0, qPrintable(m_server->record()));
    QVERIFY2(m_server->liveDrivers() == 0, qPrintable(m_server->record()));
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    m_server.reset();
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

void Cancellation::startLong()
{
    QVERIFY(m_script->queue(QStringLiteral("long")));
    waitLongRuns();
}

void Cancellation::waitLongRuns()
{
    QVERIFY2(m_gate->waitReached(defaultWaitMs, ++m_started), qPrintable(m_server->record()));
}

QString Cancellation::errorOf(const QString &tag)
{
    return m_script->eval(QStringLiteral("outcomes[%1].error").arg(quoted(tag))).toString();
}

// --- Statements ---

void Cancellation::endingTheThreadCancelsTheRunningStatement_data()
{
    QTest::addColumn<QString>("way");
    QTest::addColumn<bool>("delivers");
    QTest::newRow("stop_thread") << QStringLiteral("db.stop_thread(60000)") << true;
    QTest::newRow("stop_thread without waiting") << QStringLiteral("db.stop_thread(0)") << true;
    QTest::newRow("close") << QStringLiteral("db.close()") << true;
    QTest::newRow("deletion") << QStringLiteral("destroy(db)") << false;
    QTest::newRow("later deletion") << QStringLiteral("db.deleteLater()") << false;
}

void Cancellation::endingTheThreadCancelsTheRunningStatement()
{
    QFETCH(QString, way);
    QFETCH(bool, delivers);
    startLong();
    QElapsedTimer timer;
    timer.start();
    m_script->eval(way);
    QVERIFY2(waitUntil([&] { return m_server->count(StubCall::Close, thr) == 1; }),
             qPrintable(m_server->record()));
    QVERIFY2(timer.elapsed() < scaledMs(promptMs), qPrintable(QString::number(timer.elapsed())));
    QVERIFY(m_server->count(StubCall::Cancel, thr) >= 1);
    if (!delivers)
        return;
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(errorOf(QStringLiteral("long")), QStringLiteral("canceling statement"));
    // The thread that nobody has waited for may still be on its way behind its connection's end.
    QVERIFY(way.contains(QLatin1String("stop_thread(0)")) ? waitStopped(m_db) : !m_db->isRunning());
}

void Cancellation::closeCancelsOnTheMainConnectionToo()
{
    const QString main = m_db->connectionName();
    m_script->eval(QStringLiteral("db.close()"));
    QCOMPARE(m_server->count(StubCall::Cancel, main), 1);
    QVERIFY(m_server->calls(StubCall::Cancel, main).constFirst().mainThread);
}

void Cancellation::stopThreadCancelsOnTheThreadConnectionOnly()
{
    startLong();
    m_db->stop_thread(60000);
    QCOMPARE(m_server->count(StubCall::Cancel, m_db->connectionName()), 0);
    QVERIFY(m_server->count(StubCall::Cancel, thr) >= 1);
}

void Cancellation::cancelledStatementEndsItsTaskAndTheQueue()
{
    m_script->queueList({QStringLiteral("one"), QStringLiteral("long"), QStringLiteral("never")},
                        QStringLiteral("list"));
    m_script->queue(QStringLiteral("waiting"));
    waitLongRuns();
    m_db->stop_thread(60000);
    QVERIFY(m_script->waitDelivered(2));
    QCOMPARE(m_server->executed(thr), QStringList({QStringLiteral("one"), QStringLiteral("long")}));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.list.error.slice(0, 2)")),
             QStringLiteral("[false,\"canceling statement\"]"));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.waiting.result")), QStringLiteral("false"));
}

void Cancellation::cancelledPreparedStatementEndsPromptly()
{
    m_server->onPrefix(QStringLiteral("EXECUTE PROCEDURE"),
                       StubReply::affected(1).withDelay(longMs));
    m_script->eval(QStringLiteral("db.exec_thread(deliver('call'), 'p', [1])"));
    QVERIFY(m_server->waitForCall(StubCall::ExecPrepared));
    QElapsedTimer timer;
    timer.start();
    m_db->stop_thread(60000);
    QVERIFY2(timer.elapsed() < scaledMs(promptMs), qPrintable(QString::number(timer.elapsed())));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(errorOf(QStringLiteral("call")), QStringLiteral("canceling statement"));
}

/// The thread connection is not open yet, so there is nothing to cancel; the stop is seen after it.
void Cancellation::cancelledOpenOfTheThreadConnectionFailsTheTask()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->effect(StubCall::Open, StubEffect::held(gate), StubWhere::connection(thr));
    m_script->queue(QStringLiteral("long"));
    QVERIFY(gate->waitReached());
    m_db->stop_thread(0);
    gate->release();
    QElapsedTimer timer;
    timer.start();
    m_db->stop_thread(60000);
    QVERIFY2(timer.elapsed() < scaledMs(promptMs), qPrintable(QString::number(timer.elapsed())));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->eval(QStringLiteral("outcomes.long.count")).toInt32(), 1);
    QVERIFY(!m_db->isRunning());
}

// --- Reading ---

void Cancellation::cancelledReadEndsAtTheNextRow()
{
    constexpr int rowOfStop = 500;
    // Without the feature only the worker's own look at the stop request ends the read.
    m_server->setFeature(QSqlDriver::CancelQuery, false);
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->onExact(QStringLiteral("rows"), manyRows(100000).withGateAtRow(rowOfStop, gate));
    m_script->queue(QStringLiteral("rows"));
    QVERIFY(gate->waitReached());
    m_db->stop_thread(0);
    gate->release();
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_server->rowsRead(), qint64(rowOfStop) + 1);
    QCOMPARE(errorOf(QStringLiteral("rows")), cancelledText);
    QCOMPARE(m_script->json(QStringLiteral("outcomes.rows.result")), QStringLiteral("{}"));
    QVERIFY(waitStopped(m_db));
}

void Cancellation::cancelledReadOfAListTellsItAtItsPosition()
{
    m_server->setFeature(QSqlDriver::CancelQuery, false);
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->onExact(QStringLiteral("rows"), manyRows(1000).withGateAtRow(3, gate));
    m_script->eval(QStringLiteral(
        "var finish = []; db.query_finish.connect(function(a, b, c, d) { finish.push([a, c]); });"
        "db.query_thread(['one', 'rows', 'never'])"));
    QVERIFY(gate->waitReached());
    m_db->stop_thread(0);
    gate->release();
    QVERIFY(m_script->host.waitForScript(QStringLiteral("finish.length == 1")));
    QCOMPARE(m_script->json(QStringLiteral("finish[0][0]")), QStringLiteral("false"));
    QCOMPARE(m_script->json(QStringLiteral("finish[0][1].slice(0, 2)")),
             QStringLiteral("[false,\"%1\"]").arg(cancelledText));
    QCOMPARE(m_server->executed(thr), QStringList({QStringLiteral("one"), QStringLiteral("rows")}));
}

void Cancellation::readCancelledByTheDriverEndsPromptly()
{
    m_server->onExact(QStringLiteral("rows"), manyRows(100000).withRowDelay(50));
    m_script->queue(QStringLiteral("rows"));
    QVERIFY(waitUntil([&] { return m_server->rowsRead() >= 3; }));
    QElapsedTimer timer;
    timer.start();
    m_db->stop_thread(60000);
    QVERIFY2(timer.elapsed() < scaledMs(promptMs), qPrintable(QString::number(timer.elapsed())));
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(errorOf(QStringLiteral("rows")), cancelledText);
    QCOMPARE(m_script->json(QStringLiteral("outcomes.rows.result")), QStringLiteral("{}"));
}

/// The stop request concerns the thread; a query of the engine's thread reads to its end.
void Cancellation::synchronousReadIsNotStopped()
{
    m_db->start_thread();
    m_db->stop_thread(60000);
    QCOMPARE(m_db->worker->m_thrStop.loadAcquire(), 1);
    m_server->onExact(QStringLiteral("rows"), manyRows(10));
    QCOMPARE(m_script->eval(QStringLiteral("db.query('rows').rows")).toInt32(), 10);
}

// --- What has finished ---

void Cancellation::finishedStatementIsNotCancelled()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->onExact(QStringLiteral("held"), StubReply::affected(0).withGate(gate));
    m_server->onExact(QStringLiteral("rows"), manyRows(3));
    m_script->queueList({QStringLiteral("rows"), QStringLiteral("held")}, QStringLiteral("list"));
    QVERIFY(gate->waitReached());
    m_db->stop_thread(60000);
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.list.result[0].id")),
             QStringLiteral("[0,1,2]"));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.list.error")),
             QStringLiteral("[false,\"canceling statement\"]"));
}

void Cancellation::deliveryThatWaitsIsNotCancelled()
{
    m_server->onExact(QStringLiteral("rows"), manyRows(3));
    for (int i = 0; i < 10; ++i)
        m_script->queue(QStringLiteral("rows"), QStringLiteral("t%1").arg(i));
    // No event is handled until the worker has run them all.
    const Deadline limit(defaultWaitMs);
    VEXT_sqlThr *worker = m_db->worker;
    const auto hasRunAll = [worker] {
        // A task is counted and marked as running in one step behind the lock.
        QMutexLocker locker(&worker->m_mutexSqlTasks);
        return worker->m_thrSqlFinish.loadAcquire() == 10 &&
               worker->m_thrSqlBusy.loadAcquire() == 0;
    };
    while (!hasRunAll()) {
        QVERIFY2(!limit.expired(), qPrintable(m_server->record()));
        QThread::yieldCurrentThread();
    }
    QCOMPARE(m_script->delivered(), QStringList());
    m_db->stop_thread(60000);
    m_db->close();
    QVERIFY(m_script->waitDelivered(10));
    for (int i = 0; i < 10; ++i) {
        QCOMPARE(
            m_script->json(QStringLiteral("[outcomes.t%1.result.id, outcomes.t%1.error]").arg(i)),
            QStringLiteral("[[0,1,2],false]"));
    }
}

void Cancellation::stopOfAnIdleThreadCancelsNothing()
{
    m_script->queue(QStringLiteral("one"));
    QVERIFY(m_script->waitDelivered(1));
    m_db->stop_thread(60000);
    m_db->close();
    m_db->open();
    m_script->queue(QStringLiteral("two"));
    QVERIFY(m_script->waitDelivered(2));
    QCOMPARE(m_script->json(QStringLiteral("[outcomes.one.error, outcomes.two.error]")),
             QStringLiteral("[false,false]"));
}

void Cancellation::nextTaskAfterACancelRunsToItsEnd()
{
    m_server->onExact(QStringLiteral("slow"), StubReply::affected(7).withDelay(30));
    for (int i = 0; i < Stress::rounds(30); ++i) {
        m_server->clearRecord();
        startLong();
        m_db->stop_thread(i % 2 ? 0 : 60000);
        QVERIFY(waitStopped(m_db));
        QVERIFY(m_script->queue(QStringLiteral("slow")));
        QVERIFY(m_script->waitDelivered(2 * i + 2));
        QCOMPARE(m_script->json(QStringLiteral("outcomes.slow.error")), QStringLiteral("false"));
        QCOMPARE(m_script->eval(QStringLiteral("outcomes.slow.result.numRowsAffected")).toInt32(),
                 7);
    }
}

// --- Drivers ---

void Cancellation::driverThatCannotCancelIsNotAsked()
{
    m_server->setFeature(QSqlDriver::CancelQuery, false);
    m_db->close();
    m_db->open();
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->onExact(QStringLiteral("held"), StubReply::affected(0).withGate(gate));
    m_server->clearRecord();
    m_script->queue(QStringLiteral("held"));
    QVERIFY(gate->waitReached());
    m_db->stop_thread(300);
    QVERIFY(m_db->isRunning());
    gate->release();
    QVERIFY(m_script->waitDelivered(1));
    m_db->close();
    QCOMPARE(m_server->count(StubCall::Cancel), 0);
    QCOMPARE(m_script->json(QStringLiteral("outcomes.held.error")), QStringLiteral("false"));
}

void Cancellation::driverThatIgnoresTheCancelIsWaitedFor()
{
    constexpr int heldMs = 200; // in which a close that does not wait is over
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->setCancelIgnored(true);
    m_server->onExact(QStringLiteral("slow"), StubReply::affected(0).withGate(gate));
    m_script->queue(QStringLiteral("slow"));
    QVERIFY(gate->waitReached());
    std::atomic<bool> released{false};
    std::thread statement([&] {
        const Deadline limit(defaultWaitMs);
        while (m_server->count(StubCall::Cancel, thr) == 0 && !limit.expired())
            QThread::msleep(1);
        QThread::msleep(heldMs);
        released = true;
        gate->release();
    });
    const bool closed = m_db->close();
    const bool waited = released;
    statement.join();
    QVERIFY(closed && waited);
    QVERIFY(!m_db->isRunning());
    QVERIFY(m_server->count(StubCall::Cancel, thr) >= 1);
    QVERIFY(m_script->waitDelivered(1));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.slow.error")), QStringLiteral("false"));
}

void Cancellation::manyStopsEndEveryLongStatement()
{
    for (int i = 1; i <= Stress::rounds(300); ++i) {
        m_server->clearRecord();
        startLong();
        m_script->queue(QStringLiteral("waiting"));
        m_db->stop_thread(i % 2 ? 60000 : 0);
        QVERIFY2(m_script->waitDelivered(2 * i), qPrintable(m_server->record()));
        QVERIFY(waitStopped(m_db));
    }
}

QTEST_GUILESS_MAIN(Cancellation)
#include "test_cancellation.moc"
