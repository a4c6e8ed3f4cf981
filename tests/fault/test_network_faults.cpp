/// @file
/// A network between plugin and server that cuts, delays, half-closes and swallows the traffic.

#include "database_script.h"
#include "driver_layer.h"
#include "mariadb_server.h"
#include "postgres_server.h"
#include "tcp_relay.h"

#include <QRandomGenerator>
#include <QTimer>
#include <QtTest>

#include <map>

namespace
{

/// One network fault, and whether the statement under way survives it.
struct Fault {
    const char *name;
    void (*strike)(TcpRelay &relay);
    bool survived;
};

const Fault Faults[] = {
    {"cut", [](TcpRelay &relay) { relay.cut(); }, false},
    {"half-close", [](TcpRelay &relay) { relay.halfClose(); }, false},
    {"refusal", [](TcpRelay &relay) { relay.refuse(); }, false},
    {"delay", [](TcpRelay &relay) { relay.delay(150); }, true},
    {"black hole that ends",
     [](TcpRelay &relay) {
         relay.blackHole();
         QTimer::singleShot(1500, qApp, [&relay] { relay.heal(); });
     },
     true},
    {"black hole that breaks",
     [](TcpRelay &relay) {
         relay.blackHole();
         QTimer::singleShot(1500, qApp, [&relay] {
             relay.cut();
             relay.heal(); // a connection without a time-out would wait for ever
         });
     },
     false},
};

} // namespace

class TestNetworkFaults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void everyTaskIsDeliveredOnceAndTheNextOneRuns_data();
    void everyTaskIsDeliveredOnceAndTheNextOneRuns();
    void cutInALargeResultIsAnErrorNotAPart_data() { servers(); }
    void cutInALargeResultIsAnErrorNotAPart();
    void engineStaysResponsiveWhileTheNetworkIsDead_data() { servers(); }
    void engineStaysResponsiveWhileTheNetworkIsDead();
    void openThroughADeadNetworkEndsInTime_data() { servers(); }
    void openThroughADeadNetworkEndsInTime();
    void mariaDbReadTimeoutEndsAHungStatement();
    void cutSynchronousQueryReturnsFalse_data() { servers(); }
    void cutSynchronousQueryReturnsFalse();
    void listeningConnectionTurnsClosedByItself_data();
    void listeningConnectionTurnsClosedByItself();
    void connectionThatDoesNotListenIsFoundDeadByAStatement();
    void faultsAtRandomNeverLoseOrRepeatATask_data() { servers(); }
    void faultsAtRandomNeverLoseOrRepeatATask();

private:
    static void servers();
    bool connectThroughRelay(const QString &server, const QString &options = {});
    QString sleeping(const QString &seconds) const;
    /// As a script does that has seen a task fail: gives the worker's connection up.
    void recover();

    PostgresServer m_postgres;
    MariaDbServer m_mariadb;
    std::map<QString, QString> m_reasons;
    std::unique_ptr<TcpRelay> m_relay;
    std::unique_ptr<DatabaseScript> m_script;
    QString m_server;
};

#define USE_SERVER(server)                                                                         \
    do {                                                                                           \
        if (!m_reasons[server].isEmpty())                                                          \
            QSKIP(qPrintable(m_reasons[server]));                                                  \
        QVERIFY(connectThroughRelay(server));                                                      \
    } while (false)

void TestNetworkFaults::initTestCase()
{
    if (m_postgres.available(&m_reasons[m_postgres.name()]))
        QVERIFY2(m_postgres.start(), qPrintable(m_postgres.error()));
    if (m_mariadb.available(&m_reasons[m_mariadb.name()]))
        QVERIFY2(m_mariadb.start(), qPrintable(m_mariadb.error()));
}

void TestNetworkFaults::init()
{
    m_relay = std::make_unique<TcpRelay>();
    m_script = std::make_unique<DatabaseScript>();
}

void TestNetworkFaults::cleanup()
{
    if (m_relay) {
        m_relay->heal();
        m_relay->cut(); // whatever still hangs ends now
    }
    m_script.reset();
    m_relay.reset();
}

void TestNetworkFaults::servers()
{
    QTest::addColumn<QString>("server");
    QTest::newRow("PostgreSQL") << QStringLiteral("PostgreSQL");
    QTest::newRow("MariaDB") << QStringLiteral("MariaDB");
}

bool TestNetworkFaults::connectThroughRelay(const QString &server, const QString &options)
{
    m_server = server;
    const bool postgres = server == m_postgres.name();
    ConnectionParameters parameters = postgres ? m_postgres.parameters() : m_mariadb.parameters();
    if (m_relay->port() == 0 &&
        !m_relay->start(quint16(postgres ? m_postgres.port() : m_mariadb.port())))
        return false;
    parameters.hostName = QStringLiteral("127.0.0.1");
    parameters.port = m_relay->port();
    parameters.connectOptions = options;
    return m_script->open(QStringLiteral("db"), parameters);
}

QString TestNetworkFaults::sleeping(const QString &seconds) const
{
    return (m_server == m_postgres.name() ? QStringLiteral("SELECT pg_sleep(%1), 7")
                                          : QStringLiteral("SELECT SLEEP(%1), 7"))
        .arg(seconds);
}

void TestNetworkFaults::recover()
{
    m_script->eval(QStringLiteral("db.stop_thread(20000); if (!db.isOpen) db.open();"));
}

void TestNetworkFaults::everyTaskIsDeliveredOnceAndTheNextOneRuns_data()
{
    QTest::addColumn<QString>("server");
    QTest::addColumn<int>("fault");
    for (const char *server : {"PostgreSQL", "MariaDB"}) {
        int index = 0;
        for (const Fault &fault : Faults)
            QTest::addRow("%s, %s", server, fault.name) << QString::fromUtf8(server) << index++;
    }
}

void TestNetworkFaults::everyTaskIsDeliveredOnceAndTheNextOneRuns()
{
    QFETCH(QString, server);
    QFETCH(int, fault);
    USE_SERVER(server);
    // So that the worker's session exists before the fault.
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")));
    const qint64 before = m_relay->fromClients();
    m_script->eval(
        QStringLiteral("db.query_thread(keep(0), '%1')")
            .arg(sleeping(Faults[fault].survived ? QStringLiteral("0.7") : QStringLiteral("10"))));
    for (int i = 1; i <= 4; ++i)
        m_script->eval(QStringLiteral("db.query_thread(keep(%1), 'SELECT %1')").arg(i));
    QVERIFY(m_script->host().waitFor([&] { return m_relay->fromClients() > before; }));

    Faults[fault].strike(*m_relay);
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 5"), 30000));
    m_relay->heal();
    recover();
    drainEvents();
    QVERIFY(m_script->isTrue(QStringLiteral(
        "delivered.length === 5 && delivered.every(function (d, i) { return d.tag === i; })")));
    if (Faults[fault].survived) {
        QVERIFY(m_script->isTrue(
            QStringLiteral("delivered.every(function (d, i) { return d.error === false && "
                           "d.result.fields_index[d.result.fields - 1][0] === (i || 7); })")));
    } else {
        QVERIFY(m_script->isTrue(QStringLiteral("typeof delivered[0].error === 'string' && "
                                                "delivered[0].error.length > 0")));
    }
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 9")),
             QStringLiteral("number:9"));
}

void TestNetworkFaults::cutInALargeResultIsAnErrorNotAPart()
{
    QFETCH(QString, server);
    USE_SERVER(server);
    const bool postgres = server == m_postgres.name();
    const QString large =
        postgres ? QStringLiteral("SELECT n, repeat('x', 1000) FROM generate_series(1, 60000) n")
                 : QStringLiteral("SELECT seq, REPEAT('x', 1000) FROM seq_1_to_60000");
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")));
    const qint64 before = m_relay->fromServer();
    m_relay->delay(5);
    m_script->eval(QStringLiteral("db.query_thread(keep(0), \"%1\")").arg(large));
    QVERIFY(m_script->host().waitFor([&] { return m_relay->fromServer() > before + 4000000; }));
    m_relay->cut();
    m_relay->heal();
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QVERIFY2(m_script->isTrue(QStringLiteral("typeof delivered[0].error === 'string' && "
                                             "delivered[0].error.length > 0")),
             qPrintable(m_script
                            ->eval(QStringLiteral("delivered[0].error + ', rows: ' + "
                                                  "delivered[0].result.rows"))
                            .toString()));
    QCOMPARE(m_script->text(QStringLiteral("delivered[0].result.rows")),
             QStringLiteral("undefined"));
    recover();
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), large));
    QCOMPARE(m_script->eval(QStringLiteral("answer.result.rows")).toInt32(), 60000);
}

void TestNetworkFaults::engineStaysResponsiveWhileTheNetworkIsDead()
{
    QFETCH(QString, server);
    USE_SERVER(server);
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")));
    m_relay->blackHole();
    QElapsedTimer timer;
    timer.start();
    m_script->eval(QStringLiteral("db.query_thread(keep(0), 'SELECT 1'); "
                                  "db.query_thread(keep(1), 'SELECT 2')"));
    QVERIFY(m_script->waitFor(QStringLiteral("db.taskSize() === 1"))); // the first is taken
    timer.restart();
    m_script->eval(QStringLiteral("db.stop_thread(100)"));
    m_script->eval(QStringLiteral("db.counters(scriptEngine); db.taskSize(); db.lastError"));
    QVERIFY2(timer.elapsed() < scaledMs(5000), qPrintable(QString::number(timer.elapsed())));
    QVERIFY(m_script->isTrue(QStringLiteral("db.isRunning")));
    m_relay->heal();
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 2 && !db.isRunning")));
    QCOMPARE(m_script->text(QStringLiteral("delivered[1].result")),
             QStringLiteral("boolean:false"));
}

void TestNetworkFaults::openThroughADeadNetworkEndsInTime()
{
    QFETCH(QString, server);
    USE_SERVER(server);
    const QString options = server == m_postgres.name()
                                ? QStringLiteral("connect_timeout=2")
                                : QStringLiteral("MYSQL_OPT_CONNECT_TIMEOUT=2");
    m_script->eval(QStringLiteral("db.close(); db.connectOptions = '%1'").arg(options));
    m_relay->blackHole();
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!m_script->isTrue(QStringLiteral("db.open()")));
    QVERIFY2(timer.elapsed() < 50000, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.type")).toInt32(), 1);
    m_relay->heal();
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
}

void TestNetworkFaults::mariaDbReadTimeoutEndsAHungStatement()
{
    if (!m_reasons[m_mariadb.name()].isEmpty())
        QSKIP(qPrintable(m_reasons[m_mariadb.name()]));
    QVERIFY(connectThroughRelay(m_mariadb.name(), QStringLiteral("MYSQL_OPT_READ_TIMEOUT=1")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")));
    m_relay->blackHole();
    m_script->eval(QStringLiteral("db.query_thread(keep(0), 'SELECT 1')"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1"), 20000));
    QVERIFY(m_script->isTrue(QStringLiteral("/Lost connection/.test(delivered[0].error)")));
    m_relay->heal();
    recover();
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 2")),
             QStringLiteral("number:2"));
}

void TestNetworkFaults::cutSynchronousQueryReturnsFalse()
{
    QFETCH(QString, server);
    USE_SERVER(server);
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT 1")));
    const qint64 before = m_relay->fromClients();
    std::thread cutter([this, before] {
        const Deadline deadline(defaultWaitMs);
        while (m_relay->fromClients() == before && !deadline.expired())
            std::this_thread::yield();
        m_relay->cut();
    });
    const bool failed = m_script->isTrue(
        QStringLiteral("db.query('%1') === false").arg(sleeping(QStringLiteral("20"))));
    cutter.join();
    QVERIFY(failed);
    QVERIFY(m_script->isTrue(QStringLiteral("db.lastError.length > 0")));
    m_script->eval(QStringLiteral("db.close()"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT 1")),
             QStringLiteral("number:1"));
}

void TestNetworkFaults::listeningConnectionTurnsClosedByItself_data()
{
    QTest::addColumn<int>("fault");
    for (int index = 0; index < 2; ++index)
        QTest::newRow(Faults[index].name) << index;
}

void TestNetworkFaults::listeningConnectionTurnsClosedByItself()
{
    USE_SERVER(QStringLiteral("PostgreSQL"));
    QFETCH(int, fault);
    m_script->eval(QStringLiteral(
        "var heard = []; db.event.connect(function (name, payload) { heard.push(payload); });"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('jobs')")));
    Faults[fault].strike(*m_relay);
    // Qt's driver watches the socket of a connection that listens.
    QVERIFY(m_script->waitFor(QStringLiteral("!db.isOpen")));
    m_relay->heal();
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("NOTIFY jobs, 'again'")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length > 0")));
    QCOMPARE(m_script->text(QStringLiteral("heard")), QStringLiteral("array:string:again"));
}

void TestNetworkFaults::connectionThatDoesNotListenIsFoundDeadByAStatement()
{
    USE_SERVER(QStringLiteral("PostgreSQL"));
    m_relay->cut();
    drainEvents();
    if (driverLayerInUse()) // which watches the socket
        QVERIFY(m_script->waitFor(QStringLiteral("!db.isOpen")));
    else
        QVERIFY(m_script->isTrue(QStringLiteral("db.isOpen")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.query('SELECT 1') === false && !db.isOpen")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open() && db.query('SELECT 1') !== false")));
}

void TestNetworkFaults::faultsAtRandomNeverLoseOrRepeatATask()
{
    QFETCH(QString, server);
    USE_SERVER(server);
    constexpr quint32 Seed = 20240229;
    QRandomGenerator random(Seed);
    int queued = 0;
    for (int round = 0; round < 30; ++round) {
        for (int n = random.bounded(1, 8); n > 0; --n) {
            const QString sql = random.bounded(3) == 0 ? sleeping(QStringLiteral("0.01"))
                                                       : QStringLiteral("SELECT 1");
            if (m_script->isTrue(
                    QStringLiteral("db.query_thread(keep(%1), '%2')").arg(queued).arg(sql)))
                ++queued;
        }
        const int deliver = random.bounded(3);
        m_script->waitFor(QStringLiteral("delivered.length >= %1").arg(queued - deliver), 300);
        switch (random.bounded(6)) {
        case 0:
            m_relay->cut();
            break;
        case 1:
            m_relay->halfClose();
            break;
        case 2:
            m_relay->delay(random.bounded(20));
            break;
        case 3:
            m_script->eval(QStringLiteral("db.stop_thread(%1)").arg(random.bounded(50)));
            break;
        case 4:
            m_script->eval(QStringLiteral("db.close(); db.open()"));
            break;
        default:
            m_relay->heal();
        }
        m_script->eval(QStringLiteral("if (!db.isOpen) db.open()"));
    }
    m_relay->heal();
    QVERIFY(queued > 30);
    QVERIFY2(m_script->waitFor(QStringLiteral("delivered.length >= %1").arg(queued), 30000),
             qPrintable(m_script->eval(QStringLiteral("delivered.length")).toString()));
    recover();
    drainEvents();
    QCOMPARE(m_script->eval(QStringLiteral("delivered.length")).toInt32(), queued);
    QVERIFY(m_script->isTrue(
        QStringLiteral("delivered.every(function (d, i) { return d.tag === i; })")));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 9")),
             QStringLiteral("number:9"));
}

QTEST_GUILESS_MAIN(TestNetworkFaults)
#include "test_network_faults.moc"
