/// @file
/// Large amounts of work: they are done, in order, and their memory comes back.
#include "thread_fixture.h"

#include <QFile>
#include <QSqlDatabase>
#include <QTimer>
#include <QtTest>

#include <malloc.h>

#include <dirent.h>

#include <memory>

namespace
{

const QString thr = QStringLiteral("_thr");
constexpr int waitMs = 120000;

/// What the program has allocated and not freed, in MiB.
double allocatedMiB()
{
    malloc_trim(0);
    const struct mallinfo2 info = mallinfo2();
    return double(info.uordblks + info.hblkhd) / (1024 * 1024);
}

int threadsOfThisProcess()
{
    int count = 0;
    DIR *folder = opendir("/proc/self/task");
    while (const dirent *entry = readdir(folder)) {
        if (entry->d_name[0] != '.')
            ++count;
    }
    closedir(folder);
    return count;
}

} // namespace

class Volume : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void listOfTenThousandStatementsDeliversEachResult();
    void taskWithAThousandBoundValuesBindsThemAll();
    void hundredThousandQueuedTasksAreDeliveredInOrder();
    void hundredThousandQueuedTasksAreFailedInOrderByAStop();
    void twoHundredConnectionsRunTheirThreads();
    void memoryOfQueuedTasksReturns();
    void memoryOfConnectionsReturns();

private:
    void verifyReturned(const std::function<void()> &work, double leastUseMiB);
    void queueMany(int count);
    void makeConnections(int count);
    /// Destroys the script and everything that the tools keep.
    void takeDown();

    std::unique_ptr<StubServer> m_server;
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<ThreadFixture> m_script;
    std::unique_ptr<QTimer> m_forgetting; // the record of so many calls is not needed
};

void Volume::init()
{
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    m_server = std::make_unique<StubServer>(QStringLiteral("STUB"));
    m_script = std::make_unique<ThreadFixture>();
    m_forgetting = std::make_unique<QTimer>();
    connect(m_forgetting.get(), &QTimer::timeout, this, [this] { m_server->clearRecord(); });
}

void Volume::takeDown()
{
    m_forgetting.reset();
    m_script.reset();
    QCOMPARE(m_server->liveResults(), 0);
    QCOMPARE(m_server->liveDrivers(), 0);
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    m_server.reset();
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

void Volume::cleanup()
{
    if (m_log)
        takeDown();
}

// --- Amounts in one task ---

void Volume::listOfTenThousandStatementsDeliversEachResult()
{
    const int count = Stress::rounds(10000);
    m_script->connection();
    m_server->setDefaultReply(
        StubReply::table({{QStringLiteral("id"), QVariant::Int}}, {QVariantList{7}}));
    QVERIFY(m_script
                ->eval(QStringLiteral("var list = []; for (var i = 0; i < %1; ++i) list.push("
                                      "'s' + i); db.query_thread(deliver('list'), list)")
                           .arg(count))
                .toBool());
    QVERIFY(m_script->waitDelivered(1, waitMs));
    QCOMPARE(m_script->eval(QStringLiteral("outcomes.list.result.length")).toInt32(), count);
    QCOMPARE(m_script->eval(QStringLiteral("outcomes.list.error.length")).toInt32(), count);
    QVERIFY(m_script
                ->eval(QStringLiteral(
                    "var good = true; for (var i = 0; i < list.length; ++i) good = good && "
                    "outcomes.list.error[i] === false && outcomes.list.result[i].id[0] === 7 && "
                    "outcomes.list.result[i].executedQuery == list[i]; good"))
                .toBool());
}

void Volume::taskWithAThousandBoundValuesBindsThemAll()
{
    constexpr int count = 1000;
    m_script->connection();
    QVERIFY(
        m_script
            ->eval(QStringLiteral("var values = []; for (var i = 0; i < %1; ++i) "
                                  "values.push(i); db.exec_thread(deliver('call'), 'p', values)")
                       .arg(count))
            .toBool());
    QVERIFY(m_script->waitDelivered(1, waitMs));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.call.error")), QStringLiteral("false"));
    const QVector<StubCall> calls = m_server->calls(StubCall::ExecPrepared, thr);
    QCOMPARE(calls.size(), 1);
    QCOMPARE(calls.constFirst().bindings.size(), count);
    for (int i = 0; i < count; ++i)
        QCOMPARE(calls.constFirst().bindings.at(i).value.toInt(), i);
    QCOMPARE(calls.constFirst().text.count(QLatin1Char('?')), count);
}

// --- Amounts of tasks ---

/// Queues so many tasks behind one that stands still, then lets them all run.
void Volume::queueMany(int count)
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->onExact(QStringLiteral("held"), StubReply::affected(0).withGate(gate));
    m_script->eval(
        QStringLiteral("var seen = 0, wrong = 0; function count(result, error, age, number) { "
                       "if (number !== seen || error !== false) ++wrong; ++seen; }"));
    m_script->queue(QStringLiteral("held"));
    QVERIFY(gate->waitReached());
    QVERIFY(m_script
                ->eval(QStringLiteral("var all = true; for (var i = 0; i < %1; ++i) all = all && "
                                      "db.query_thread('task', count, [i]); all")
                           .arg(count))
                .toBool());
    QCOMPARE(m_script->eval(QStringLiteral("db.taskSize()")).toInt32(), count);
    m_forgetting->start(20);
    gate->release();
    const QString done = QStringLiteral("seen == %1").arg(count);
    QVERIFY2(m_script->host.waitForScript(done, waitMs),
             qPrintable(m_script->json(QStringLiteral("[seen, wrong]"))));
    m_forgetting->stop();
    QCOMPARE(m_script->eval(QStringLiteral("wrong")).toInt32(), 0);
    QCOMPARE(m_script->eval(QStringLiteral("db.taskSize()")).toInt32(), 0);
    m_server->reset();
}

void Volume::hundredThousandQueuedTasksAreDeliveredInOrder()
{
    m_script->connection();
    queueMany(Stress::rounds(100000));
}

void Volume::hundredThousandQueuedTasksAreFailedInOrderByAStop()
{
    const int count = Stress::rounds(100000);
    VEXT_SQL *db = m_script->connection();
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->onExact(QStringLiteral("held"), StubReply::affected(0).withGate(gate));
    m_script->queue(QStringLiteral("held"));
    QVERIFY(gate->waitReached());
    m_script->eval(
        QStringLiteral("var seen = 0, wrong = 0; for (var i = 0; i < %1; ++i) "
                       "db.query_thread('task', function(result, error, age, number) { "
                       "if (number !== seen || result !== false) ++wrong; ++seen; }, [i])")
            .arg(count));
    db->stop_thread(0);
    gate->release();
    QVERIFY2(m_script->host.waitForScript(QStringLiteral("seen == %1").arg(count), waitMs),
             qPrintable(m_script->json(QStringLiteral("[seen, wrong]"))));
    QCOMPARE(m_script->eval(QStringLiteral("wrong")).toInt32(), 0);
    QCOMPARE(m_server->executed(thr), QStringList(QStringLiteral("held")));
}

// --- Amounts of connections ---

/// Makes connections with a running thread each, lets each run a task, and deletes them.
void Volume::makeConnections(int count)
{
    const int before = threadsOfThisProcess();
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_server->onExact(QStringLiteral("held"), StubReply::affected(0).withGate(gate));
    QVector<QPointer<VEXT_SQL>> made;
    m_script->eval(QStringLiteral("delivered = []; outcomes = {}"));
    for (int i = 0; i < count; ++i) {
        const QString name = QStringLiteral("c%1").arg(i);
        made.append(m_script->connection(name));
        QVERIFY(m_script->eval(QStringLiteral("%1.query_thread(deliver('%1'), 'held')").arg(name))
                    .toBool());
    }
    QVERIFY2(gate->waitReached(waitMs, count), qPrintable(QString::number(gate->arrivals())));
    QCOMPARE(threadsOfThisProcess() - before, count);
    QCOMPARE(m_script->eval(QStringLiteral("c0.countersAll().length")).toInt32(), count);
    gate->release();
    QVERIFY(m_script->waitDelivered(count, waitMs));
    for (const QPointer<VEXT_SQL> &db : qAsConst(made))
        delete db.data();
    QVERIFY(waitUntil([&] { return m_server->liveDrivers() == 0; }, waitMs));
    QVERIFY(waitUntil([&] { return threadsOfThisProcess() <= before; }));
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    m_script->eval(QStringLiteral("for (var i = 0; i < %1; ++i) delete this['c' + i]").arg(count));
    m_server->reset();
}

void Volume::twoHundredConnectionsRunTheirThreads()
{
    makeConnections(200);
}

// --- Memory ---

/// The first time fills what is kept on purpose; more times must leave nothing more. Each time
/// everything is made and destroyed again, so that only what is lost is seen.
void Volume::verifyReturned(const std::function<void()> &work, double leastUseMiB)
{
    constexpr int times = 3;
    double before = 0;
    for (int i = 0; i < times; ++i) {
        if (i > 0)
            init();
        work();
        if (QTest::currentTestFailed())
            return;
        takeDown();
        if (i == 0)
            before = allocatedMiB();
    }
    const double grown = allocatedMiB() - before;
    const QString text =
        QStringLiteral("%1 MiB, and %2 MiB more at the end").arg(before).arg(grown);
    qInfo("%s", qPrintable(text));
    // A sanitizer has an allocator of its own, and looks for leaks itself.
    if (Stress::ownAllocator())
        QVERIFY2(grown < (times - 1) * leastUseMiB / 4, qPrintable(text));
}

void Volume::memoryOfQueuedTasksReturns()
{
    const int count = Stress::rounds(20000);
    // A task takes some hundred bytes at the least.
    verifyReturned(
        [&] {
            m_script->connection();
            queueMany(count);
        },
        count * 400.0 / (1024 * 1024));
}

void Volume::memoryOfConnectionsReturns()
{
    // So does a connection with its worker, driver and script objects: some kilobytes.
    verifyReturned([&] { makeConnections(200); }, 200 * 8.0 / 1024);
}

QTEST_GUILESS_MAIN(Volume)
#include "test_volume.moc"
