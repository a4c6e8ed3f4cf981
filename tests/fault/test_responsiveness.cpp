/// @file
/// The engine's thread never waits for a statement of the worker: not when it queues, not when it
/// asks for figures, not when results are delivered.
#include "thread_fixture.h"

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QTimer>
#include <QtTest>

#include <algorithm>
#include <memory>

namespace
{

const QString thr = QStringLiteral("_thr");
constexpr int longTasks = 200;
constexpr int shortMs = 5;    // most tasks
constexpr int longMs = 2500;  // some of them
constexpr int everyNth = 100; // is one of the long ones
/// Far above what a busy machine adds to a timer, and far below one long statement.
constexpr int gapLimitMs = 1500;

/// Measures the gaps of a 1 ms timer of this thread while it lives.
class GapMeter : public QObject
{
public:
    GapMeter()
    {
        m_timer.setTimerType(Qt::PreciseTimer);
        connect(&m_timer, &QTimer::timeout, this, &GapMeter::tick);
        m_since.start();
        m_timer.start(1);
    }

    qint64 longestMs() const { return m_longestNs / 1000000; }
    int ticks() const { return m_ticks; }

private:
    void tick()
    {
        const qint64 gap = m_since.nsecsElapsed();
        m_since.restart();
        m_longestNs = std::max(m_longestNs, gap);
        ++m_ticks;
    }

    QTimer m_timer;
    QElapsedTimer m_since;
    qint64 m_longestNs = 0;
    int m_ticks = 0;
};

} // namespace

class Responsiveness : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void timerGapsStaySmallWhileLongTasksRun();
    void nothingWaitsForARunningStatement();
    void nothingWaitsForAThreadConnectionThatOpens();
    void nothingWaitsForRowsThatAreRead();
    void stopWithoutWaitingIsPromptWithALongQueue();

private:
    /// Calls everything that scripts may call meanwhile, many times. The worker stands still until
    /// the gate is opened afterwards, so a call that waited for it would never return.
    void callEverything();

    std::unique_ptr<StubServer> m_server;
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<ThreadFixture> m_script;
    VEXT_SQL *m_db = nullptr;
};

void Responsiveness::init()
{
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    m_server = std::make_unique<StubServer>(QStringLiteral("STUB"));
    m_script = std::make_unique<ThreadFixture>();
    m_db = m_script->connection();
}

void Responsiveness::cleanup()
{
    m_script.reset();
    QCOMPARE(m_server->liveDrivers(), 0);
    m_server.reset();
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

void Responsiveness::timerGapsStaySmallWhileLongTasksRun()
{
    m_server->onPrefix(QStringLiteral("short"), StubReply::affected(0).withDelay(shortMs));
    m_server->onPrefix(QStringLiteral("long"), StubReply::affected(0).withDelay(scaledMs(longMs)));
    int queued = 0;
    QTimer queueing;
    connect(&queueing, &QTimer::timeout, this, [&] {
        // Tasks are queued all the while, with everything else that a script does.
        if (queued < longTasks) {
            const bool isLong = queued % everyNth == 0;
            m_script->queue(isLong ? QStringLiteral("long") : QStringLiteral("short"),
                            QString::number(queued));
            ++queued;
        }
        m_script->eval(QStringLiteral("db.counters(); db.taskSize(); db.lastQuery; db.lastError; "
                                      "db.affectedRows; db.isRunning"));
    });
    queueing.start(2);
    GapMeter meter;
    QVERIFY(waitUntil([&] { return queued == longTasks; }, 60000));
    QVERIFY(m_script->waitDelivered(longTasks, 60000));
    const QString text =
        QStringLiteral("longest gap %1 ms, %2 ticks").arg(meter.longestMs()).arg(meter.ticks());
    qInfo("%s", qPrintable(text));
    QVERIFY2(meter.longestMs() < scaledMs(gapLimitMs), qPrintable(text));
    QVERIFY2(meter.ticks() > longTasks, qPrintable(text));
}

void Responsiveness::callEverything()
{
    constexpr int times = 300;
    const int before = m_db->taskSize();
    m_script->eval(
        QStringLiteral(
            "for (var i = 0; i < %1; ++i) { db.query_thread('more'); db.exec_thread('p', [i]);"
            "db.counters(); db.countersAll(); db.taskSize(); db.lastQuery; db.lastError; "
            "db.lastErrors;"
            "db.affectedRows; db.isRunning; db.isOpen; db.events; db.clear(); db.timeNotUse = "
            "60000; "
            "db.tables(); db.tables(2); db.hasFeature(); db.isSupportEvent; "
            "db.isDriverAvailable('x');"
            "db.add_event('e' + i % 5); if (i % 5 === 4) db.rem_event('e0');"
            "db.query('select 1'); db.exec('p', [i]); db.start_thread(); db.transaction(); "
            "db.commit() }")
            .arg(times));
    // Each round queued two tasks and two commands.
    QCOMPARE(m_db->taskSize() - before, 4 * times);
}

void Responsiveness::nothingWaitsForARunningStatement()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->onExact(QStringLiteral("held"), StubReply::affected(0).withGate(gate));
    m_script->queue(QStringLiteral("held"));
    QVERIFY(gate->waitReached());
    callEverything();
    QCOMPARE(gate->waiting(), 1);
}

void Responsiveness::nothingWaitsForAThreadConnectionThatOpens()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->effect(StubCall::Open, StubEffect::held(gate), StubWhere::connection(thr));
    m_script->queue(QStringLiteral("one"));
    QVERIFY(gate->waitReached());
    callEverything();
    QCOMPARE(gate->waiting(), 1);
}

void Responsiveness::nothingWaitsForRowsThatAreRead()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->onExact(
        QStringLiteral("rows"),
        StubReply::generated({{QStringLiteral("id"), QVariant::Int}}, 10, [](int row) {
            return QVariantList{row};
        }).withGateAtRow(5, gate));
    m_script->queue(QStringLiteral("rows"));
    QVERIFY(gate->waitReached());
    callEverything();
    QCOMPARE(gate->waiting(), 1);
}

void Responsiveness::stopWithoutWaitingIsPromptWithALongQueue()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->onExact(QStringLiteral("held"), StubReply::affected(0).withGate(gate));
    m_script->queue(QStringLiteral("held"));
    QVERIFY(gate->waitReached());
    for (int i = 0; i < 2000; ++i)
        m_script->queue(QStringLiteral("more"), QString::number(i));
    QElapsedTimer timer;
    timer.start();
    m_db->stop_thread(0);
    QVERIFY2(timer.elapsed() < scaledMs(gapLimitMs), qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(gate->waiting(), 1); // a stop that waited would have done so for a minute
    gate->release();
    QVERIFY(m_script->waitDelivered(2001));
}

QTEST_GUILESS_MAIN(Responsiveness)
#include "test_responsiveness.moc"
