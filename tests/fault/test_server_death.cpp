/// @file
/// Servers that end a session, die and come back: every task is told its outcome once, and a script
/// can go on.

#include "database_script.h"
#include "driver_layer.h"
#include "mariadb_server.h"
#include "postgres_server.h"

#include <QFile>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QThread>
#include <QtTest>

#include <functional>
#include <thread>

namespace
{

/// Runs a statement on a connection of its own, in the calling thread, until it answers `expected`.
void untilAnswered(const ConnectionParameters &parameters, const QString &sql,
                   const QVariant &expected)
{
    const QString name = QStringLiteral("outside");
    {
        QSqlDatabase db = parameters.database(name);
        const Deadline deadline(defaultWaitMs);
        bool done = !db.open();
        while (!done && !deadline.expired()) {
            QSqlQuery query(db);
            done = query.exec(sql) && query.next() && query.value(0) == expected;
        }
    }
    QSqlDatabase::removeDatabase(name);
}

/// Ends a session and waits until its process is gone, as only then its line is sure to be closed:
/// the list of sessions leaves it out a moment before.
void endSession(const ConnectionParameters &parameters, const QString &pid)
{
    untilAnswered(parameters, QStringLiteral("SELECT pg_terminate_backend(%1)").arg(pid), true);
    const Deadline deadline(defaultWaitMs);
    while (QFile::exists(QStringLiteral("/proc/") + pid) && !deadline.expired())
        QThread::msleep(1);
}

/// A thread that is joined at the end of the scope, however that is left.
class Alongside
{
public:
    explicit Alongside(std::function<void()> work)
        : m_thread(std::move(work))
    {
    }
    ~Alongside() { join(); }
    void join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    std::thread m_thread;
};

const char TerminateSleeper[] = "SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
                                "WHERE query LIKE 'SELECT pg_sleep(%' AND state = 'active'";

} // namespace

class TestServerDeath : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void sessionEndedInMidStatementFailsTheTaskOnce();
    void sessionEndedInMidStatementFailsTheQuery();
    void sessionEndedWhileIdleFailsTheNextStatementOnly();
    void sessionEndedInATransactionLosesIt();
    void commitTellsThatTheTransactionWasLost();
    void shutdownFailsEveryTaskOnceInOrder_data();
    void shutdownFailsEveryTaskOnceInOrder();
    void shutdownInASynchronousQueryReturnsFalse();
    void openWithoutAServerIsAConnectionError();
    void tasksRunAgainAfterARestart();
    void notificationsArriveAgainAfterARestart();
    void everyLossReturnsItsConnection();
    void engineMayGoWhileTheServerDies();

    void mariaDbSessionKilledInMidStatementFailsTheTaskOnce();
    void mariaDbConnectionIsDeadUntilItIsOpenedAgain();
    void mariaDbDeathFailsEveryTaskOnce();

private:
    bool open(const QString &name = QStringLiteral("db"))
    {
        return m_script->open(name, m_postgres.parameters());
    }
    /// Queues a statement that sleeps and `more` others; waits until the server runs the first.
    void queueBehindASleeper(int more);
    /// Whether each queued task was delivered once, in order, and no more come.
    bool deliveredOnceInOrder(int count);

    PostgresServer m_postgres;
    MariaDbServer m_mariadb;
    QString m_postgresReason;
    QString m_mariadbReason;
    std::unique_ptr<DatabaseScript> m_script;
};

#define NEEDS(reason)                                                                              \
    do {                                                                                           \
        if (!(reason).isEmpty())                                                                   \
            QSKIP(qPrintable(reason));                                                             \
    } while (false)

void TestServerDeath::initTestCase()
{
    if (m_postgres.available(&m_postgresReason))
        QVERIFY2(m_postgres.start(), qPrintable(m_postgres.error()));
    if (m_mariadb.available(&m_mariadbReason))
        QVERIFY2(m_mariadb.start(), qPrintable(m_mariadb.error()));
    if (!m_postgresReason.isEmpty() && !m_mariadbReason.isEmpty())
        QSKIP(qPrintable(m_postgresReason + QStringLiteral("; ") + m_mariadbReason));
}

void TestServerDeath::init()
{
    m_script = std::make_unique<DatabaseScript>();
}

void TestServerDeath::cleanup()
{
    m_script.reset();
    if (m_postgresReason.isEmpty() && !m_postgres.isRunning())
        QVERIFY2(m_postgres.startAgain(), qPrintable(m_postgres.error()));
}

void TestServerDeath::queueBehindASleeper(int more)
{
    m_script->eval(QStringLiteral("db.query_thread(keep(0), 'SELECT pg_sleep(60)')"));
    for (int i = 1; i <= more; ++i)
        m_script->eval(QStringLiteral("db.query_thread(keep(%1), 'SELECT %1')").arg(i));
    untilAnswered(m_postgres.parameters(),
                  QStringLiteral("SELECT count(*) FROM pg_stat_activity WHERE query = 'SELECT "
                                 "pg_sleep(60)' AND state = 'active'"),
                  1);
}

bool TestServerDeath::deliveredOnceInOrder(int count)
{
    const bool all = m_script->waitFor(QStringLiteral("delivered.length >= %1").arg(count), 30000);
    m_script->eval(QStringLiteral("db.stop_thread(20000)")); // nothing can follow then
    drainEvents();
    return all &&
           m_script->isTrue(
               QStringLiteral("delivered.length === %1 && delivered.every(function (d, i) { return "
                              "d.tag === i; })")
                   .arg(count));
}

// --- PostgreSQL ---

void TestServerDeath::sessionEndedInMidStatementFailsTheTaskOnce()
{
    NEEDS(m_postgresReason);
    QVERIFY(open());
    queueBehindASleeper(2);
    untilAnswered(m_postgres.parameters(), QString::fromUtf8(TerminateSleeper), true);
    QVERIFY(deliveredOnceInOrder(3));
    QVERIFY(m_script->isTrue(QStringLiteral("/57P01/.test(delivered[0].error)")));
    if (driverLayerInUse()) {
        // A connection error ends the worker; the next task has it start again.
        QVERIFY(m_script->isTrue(
            QStringLiteral("delivered[1].result === false && delivered[2].result === false")));
        QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")),
                 QStringLiteral("number:1"));
        return;
    }
    // What waited behind it runs on a new session.
    QCOMPARE(m_script->eval(QStringLiteral("rows(delivered[1].result)")).toString(),
             QStringLiteral("number:1"));
    QCOMPARE(m_script->eval(QStringLiteral("rows(delivered[2].result)")).toString(),
             QStringLiteral("number:2"));
}

void TestServerDeath::sessionEndedInMidStatementFailsTheQuery()
{
    NEEDS(m_postgresReason);
    QVERIFY(open());
    const ConnectionParameters parameters = m_postgres.parameters();
    Alongside killer(
        [parameters] { untilAnswered(parameters, QString::fromUtf8(TerminateSleeper), true); });
    QVERIFY(m_script->isTrue(QStringLiteral("db.query('SELECT pg_sleep(60)') === false")));
    killer.join();
    // Qt's driver calls it a statement error; the connection is what tells.
    QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.type")).toInt32(),
             driverLayerInUse() ? 1 : 2);
    QVERIFY(m_script->isTrue(QStringLiteral("/57P01/.test(db.lastError) && !db.isOpen")));
    QVERIFY(m_script->isTrue(QStringLiteral("!db.transaction() && !db.commit() && !db.tables()")));
    QVERIFY(m_script->isTrue(QStringLiteral("!db.query_thread(keep(0), 'SELECT 1')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT 1")),
             QStringLiteral("number:1"));
}

void TestServerDeath::sessionEndedWhileIdleFailsTheNextStatementOnly()
{
    NEEDS(m_postgresReason);
    QVERIFY(open());
    for (const Way way : {Way::Here, Way::Thread}) {
        const QString pid =
            m_script->rows(way, QStringLiteral("db"), QStringLiteral("SELECT pg_backend_pid()"))
                .mid(7);
        endSession(m_postgres.parameters(), pid);
        // The layer sees the loss before the statement; the worker has a new session by then.
        QCOMPARE(m_script->ask(way, QStringLiteral("db"), QStringLiteral("SELECT 1")),
                 driverLayerInUse() && way == Way::Thread);
        m_script->eval(QStringLiteral("if (!db.isOpen) db.open()"));
        QCOMPARE(m_script->rows(way, QStringLiteral("db"), QStringLiteral("SELECT 1")),
                 QStringLiteral("number:1"));
    }
}

void TestServerDeath::sessionEndedInATransactionLosesIt()
{
    NEEDS(m_postgresReason);
    QVERIFY(open());
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("CREATE TABLE IF NOT EXISTS work (id integer)")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.start_thread() && db.transaction()")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1)")));
    queueBehindASleeper(0);
    untilAnswered(m_postgres.parameters(), QString::fromUtf8(TerminateSleeper), true);
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    m_script->eval(QStringLiteral("db.commit()")); // of what is left: nothing
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"),
                            QStringLiteral("SELECT count(*) FROM work")),
             QStringLiteral("number:0"));
}

void TestServerDeath::commitTellsThatTheTransactionWasLost()
{
    NEEDS(m_postgresReason);
    QVERIFY(open());
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("CREATE TABLE IF NOT EXISTS work (id integer)")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.start_thread() && db.transaction()")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1)")));
    const QString pid =
        m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT pg_backend_pid()"))
            .mid(7);
    endSession(m_postgres.parameters(), pid);
    // The second one runs on a new session, whose own commit would succeed.
    const QString one = QStringLiteral("SELECT 1");
    QVERIFY(!m_script->ask(Way::Thread, QStringLiteral("db"), one));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), one));
    m_script->eval(QStringLiteral("db.query_thread(keep(0), 'commit')"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QCOMPARE(m_script->text(QStringLiteral("delivered[0].result")),
             QStringLiteral("boolean:false"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rollback()")));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"),
                            QStringLiteral("SELECT count(*) FROM work")),
             QStringLiteral("number:0"));
}

void TestServerDeath::shutdownFailsEveryTaskOnceInOrder_data()
{
    QTest::addColumn<int>("how");
    QTest::newRow("fast") << int(PostgresServer::Shutdown::Fast);
    QTest::newRow("immediate") << int(PostgresServer::Shutdown::Immediate);
    QTest::newRow("kill") << int(PostgresServer::Shutdown::Kill);
}

void TestServerDeath::shutdownFailsEveryTaskOnceInOrder()
{
    NEEDS(m_postgresReason);
    QFETCH(int, how);
    QVERIFY(open());
    queueBehindASleeper(20);
    QVERIFY(m_postgres.shutDown(PostgresServer::Shutdown(how)));
    QVERIFY(deliveredOnceInOrder(21));
    QVERIFY(m_script->isTrue(QStringLiteral("typeof delivered[0].error === 'string'")));
    QVERIFY(m_script->isTrue(
        QStringLiteral("delivered.slice(1).every(function (d) { return d.result === false; })")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.lastError.length > 0")));
}

void TestServerDeath::shutdownInASynchronousQueryReturnsFalse()
{
    NEEDS(m_postgresReason);
    QVERIFY(open());
    const ConnectionParameters parameters = m_postgres.parameters();
    Alongside killer([this, parameters] {
        untilAnswered(parameters,
                      QStringLiteral("SELECT count(*) FROM pg_stat_activity WHERE query = 'SELECT "
                                     "pg_sleep(60)' AND state = 'active'"),
                      1);
        m_postgres.beginShutDown(PostgresServer::Shutdown::Immediate);
    });
    QVERIFY(m_script->isTrue(QStringLiteral("db.query('SELECT pg_sleep(60)') === false")));
    killer.join();
    QVERIFY(m_postgres.waitForEnd());
    QVERIFY(m_script->isTrue(QStringLiteral("!db.isOpen && !db.open()")));
    QCOMPARE(m_script->text(QStringLiteral("db.lastErrors.typeStr")),
             QStringLiteral("string:ConnectionError)"));
    QVERIFY2(m_postgres.startAgain(), qPrintable(m_postgres.error()));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT 1")),
             QStringLiteral("number:1"));
}

void TestServerDeath::openWithoutAServerIsAConnectionError()
{
    NEEDS(m_postgresReason);
    m_script->declare(QStringLiteral("db"), m_postgres.parameters());
    QVERIFY(m_postgres.shutDown(PostgresServer::Shutdown::Fast));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.type")).toInt32(), 1);
    QVERIFY(m_script->isTrue(QStringLiteral("!db.isOpen && !db.isValid")));
}

void TestServerDeath::tasksRunAgainAfterARestart()
{
    NEEDS(m_postgresReason);
    QVERIFY(open());
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")));
    QVERIFY(m_postgres.shutDown(PostgresServer::Shutdown::Immediate));
    QVERIFY(!m_script->ask(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 2")));
    QVERIFY2(m_postgres.startAgain(), qPrintable(m_postgres.error()));
    // The first loss is found by a statement; then either the session or the worker is new.
    QVERIFY(m_script->waitFor(QStringLiteral("!db.isRunning || db.taskSize() === 0")));
    if (driverLayerInUse()) // which sees at once that the main connection is gone as well
        QVERIFY(m_script->isTrue(QStringLiteral("!db.isOpen && db.open()")));
    if (!m_script->ask(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 3"))) {
        QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 3")),
                 QStringLiteral("number:3"));
    }
}

void TestServerDeath::notificationsArriveAgainAfterARestart()
{
    NEEDS(m_postgresReason);
    QVERIFY(open());
    m_script->eval(QStringLiteral(
        "var heard = []; db.event.connect(function (name, payload) { heard.push(payload); });"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('jobs')")));
    QVERIFY(m_postgres.shutDown(PostgresServer::Shutdown::Immediate));
    QVERIFY2(m_postgres.startAgain(), qPrintable(m_postgres.error()));
    QVERIFY(m_script->isTrue(QStringLiteral("db.query('SELECT 1') === false && !db.isOpen")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:string:jobs"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"),
                            QStringLiteral("SELECT * FROM pg_listening_channels()")),
             QStringLiteral("string:jobs"));
    for (const char *payload : {"one", "two"}) {
        QVERIFY(
            m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("NOTIFY jobs, '%1'").arg(QString::fromUtf8(payload))));
    }
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length >= 2")));
    drainEvents();
    QCOMPARE(m_script->text(QStringLiteral("heard")),
             QStringLiteral("array:string:one,string:two"));
}

void TestServerDeath::everyLossReturnsItsConnection()
{
    NEEDS(m_postgresReason);
    QVERIFY(open());
    const int registered = QSqlDatabase::connectionNames().size();
    const QString name = m_script->eval(QStringLiteral("db.connectionName")).toString();
    for (int n = 0; n < 10; ++n) {
        const QString pid =
            m_script
                ->rows(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT pg_backend_pid()"))
                .mid(7);
        untilAnswered(m_postgres.parameters(),
                      QStringLiteral("SELECT pg_terminate_backend(%1)").arg(pid), true);
        QVERIFY(m_script->waitFor(QStringLiteral("db.query('SELECT 1') === false && !db.isOpen")));
        QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    }
    QCOMPARE(QSqlDatabase::connectionNames().size(), registered);
    QCOMPARE(m_script->eval(QStringLiteral("db.connectionName")).toString(), name);
    QVERIFY(m_script->isTrue(QStringLiteral("db.close()")));
    QCOMPARE(QSqlDatabase::connectionNames().size(), registered - 1);
}

void TestServerDeath::engineMayGoWhileTheServerDies()
{
    NEEDS(m_postgresReason);
    QVERIFY(open());
    queueBehindASleeper(5);
    Alongside killer([this] { m_postgres.beginShutDown(PostgresServer::Shutdown::Immediate); });
    m_script.reset(); // waits for the statement, which ends with the server
    killer.join();
    QVERIFY(m_postgres.waitForEnd());
    for (const QString &name : QSqlDatabase::connectionNames())
        QVERIFY2(!name.contains(QStringLiteral("_thr")), qPrintable(name));
}

// --- MariaDB ---

void TestServerDeath::mariaDbSessionKilledInMidStatementFailsTheTaskOnce()
{
    NEEDS(m_mariadbReason);
    QVERIFY(m_script->open(QStringLiteral("db"), m_mariadb.parameters()));
    QVERIFY(m_script->open(QStringLiteral("other"), m_mariadb.parameters()));
    m_script->eval(QStringLiteral("db.query_thread(keep(0), 'SELECT SLEEP(60)'); "
                                  "db.query_thread(keep(1), 'SELECT 1')"));
    m_script->eval(QStringLiteral("function sleeper() { return other.query(\"SELECT id FROM "
                                  "information_schema.processlist WHERE info = 'SELECT "
                                  "SLEEP(60)'\"); }"));
    QVERIFY(m_script->waitFor(QStringLiteral("sleeper().rows === 1")));
    m_script->eval(QStringLiteral("other.query('KILL ' + sleeper().fields_index[0][0])"));
    QVERIFY(deliveredOnceInOrder(2));
    QVERIFY(m_script->isTrue(QStringLiteral("/Lost connection/.test(delivered[0].error)")));
    // Qt's driver goes on with the dead session; stopping the thread gives it up. With the layer a
    // connection error ends the worker.
    QVERIFY(m_script->isTrue(driverLayerInUse()
                                 ? QStringLiteral("delivered[1].result === false")
                                 : QStringLiteral("/gone away/.test(delivered[1].error)")));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")),
             QStringLiteral("number:1"));
}

void TestServerDeath::mariaDbConnectionIsDeadUntilItIsOpenedAgain()
{
    NEEDS(m_mariadbReason);
    QVERIFY(m_script->open(QStringLiteral("db"), m_mariadb.parameters()));
    QVERIFY(m_script->open(QStringLiteral("other"), m_mariadb.parameters()));
    const QString id =
        m_script->rows(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT CONNECTION_ID()"))
            .mid(7);
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("other"), QStringLiteral("KILL ") + id));
    QVERIFY(m_script->waitFor(QStringLiteral("db.query('SELECT 1') === false")));
    if (driverLayerInUse()) {
        QVERIFY(m_script->isTrue(QStringLiteral("!db.isOpen && db.open()")));
    } else {
        QVERIFY(m_script->isTrue(QStringLiteral("db.query('SELECT 1') === false && db.isOpen")));
        QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.number")).toInt32(), 2006);
        QVERIFY(m_script->isTrue(QStringLiteral("db.close() && db.open()")));
    }
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT 1")),
             QStringLiteral("number:1"));
}

void TestServerDeath::mariaDbDeathFailsEveryTaskOnce()
{
    NEEDS(m_mariadbReason);
    QVERIFY(m_script->open(QStringLiteral("db"), m_mariadb.parameters()));
    m_script->eval(QStringLiteral("db.query_thread(keep(0), 'SELECT SLEEP(60)')"));
    for (int i = 1; i <= 10; ++i)
        m_script->eval(QStringLiteral("db.query_thread(keep(%1), 'SELECT %1')").arg(i));
    QVERIFY(m_script->waitFor(
        QStringLiteral("rows(db.query(\"SELECT COUNT(*) FROM information_schema.processlist WHERE "
                       "info = 'SELECT SLEEP(60)'\")) === 'number:1'")));
    QVERIFY(m_mariadb.kill());
    QVERIFY(deliveredOnceInOrder(11));
    // With the layer the first error ends the worker, and what waited is returned undone.
    QVERIFY(m_script->isTrue(
        QStringLiteral("typeof delivered[0].error === 'string' && delivered.every(function (d) { "
                       "return %1; })")
            .arg(driverLayerInUse()
                     ? QStringLiteral("typeof d.error === 'string' || d.result === false")
                     : QStringLiteral("typeof d.error === 'string'"))));
    QVERIFY2(m_mariadb.startAgain(), qPrintable(m_mariadb.error()));
    m_script->eval(QStringLiteral("db.close()")); // the layer's is closed by itself
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")),
             QStringLiteral("number:1"));
}

QTEST_GUILESS_MAIN(TestServerDeath)
#include "test_server_death.moc"
