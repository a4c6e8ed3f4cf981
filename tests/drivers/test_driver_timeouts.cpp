/// @file
/// VEXT_CONNECT_TIMEOUT and VEXT_STATEMENT_TIMEOUT on every system, also on a line on which nobody
/// answers any more.

#include "deadline.h"
#include "layer_path.h"
#include "layered_systems.h"
#include "relay_process.h"

#include <QDir>
#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QtTest>

namespace
{

const QString Connection = QStringLiteral("timeouts");
const QString Postgres = QStringLiteral("PostgreSQL");
const QString MariaDb = QStringLiteral("MariaDB");
const QString FirebirdOverTcp = QStringLiteral("Firebird server");
const QString OdbcPostgres = QStringLiteral("ODBC to PostgreSQL");

constexpr int LimitMs = 700;
constexpr int ClientLimitMs = 1000; ///< the same for client libraries, which take whole seconds
/// What a machine may add that is busy, or stands still for a while.
constexpr int SlackMs = 2500;
/// How long a statement may last when its server is dead: the layer asks it for so long.
constexpr int DeadServerMs = 2500;
/// The server's own limit comes first where it has one, so the layer's comes so much later.
constexpr int ServerFirstMs = 1000;
/// How many threads may be left behind at one server.
constexpr int MostLeftBehind = 8;

/// Of this process.
int threadCount()
{
    return QDir(QStringLiteral("/proc/self/task"))
        .entryList(QDir::Dirs | QDir::NoDotAndDotDot)
        .size();
}

} // namespace

class TestDriverTimeouts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { useDriverLayer(); }
    void cleanup();

    void silentServerFailsTheOpenInTime_data() { servers(); }
    void silentServerFailsTheOpenInTime();
    void serverThatFallsSilentInTheMiddleFailsTheOpenInTime_data() { servers(); }
    void serverThatFallsSilentInTheMiddleFailsTheOpenInTime();
    void retriesOnASilentServerDoNotPileUp_data() { servers(); }
    void retriesOnASilentServerDoNotPileUp();
    void openingInTimeSucceeds_data() { everySystem(); }
    void openingInTimeSucceeds();
    void connectionIsTheCallersAfterATimedOpening_data() { everySystem(); }
    void connectionIsTheCallersAfterATimedOpening();
    void longStatementEndsByItsTimeout_data() { everySystem(); }
    void longStatementEndsByItsTimeout();
    void statementOnASilentLineEndsInTime_data() { servers(); }
    void statementOnASilentLineEndsInTime();
    void commandOnASilentLineEndsInTime_data() { servers(); }
    void commandOnASilentLineEndsInTime();
    void furtherResultsLeaveNoLimitBehind_data();
    void furtherResultsLeaveNoLimitBehind();
    void silentLineIsSeenByALook();

private:
    static void servers();
    static void everySystem();
    QSqlDatabase throughRelay(const QString &system, const QString &option);
    int portOf(const QString &system);

    LayeredSystems m_systems;
    std::unique_ptr<RelayProcess> m_relay;
};

void TestDriverTimeouts::cleanup()
{
    if (m_relay) {
        m_relay->heal();
        m_relay->cut(); // whatever still hangs ends now
    }
    if (QSqlDatabase::contains(Connection)) {
        QSqlDatabase::database(Connection, false).close();
        QSqlDatabase::removeDatabase(Connection);
    }
    m_relay.reset();
}

void TestDriverTimeouts::servers()
{
    QTest::addColumn<QString>("system");
    for (const QString &system : {Postgres, MariaDb, FirebirdOverTcp, OdbcPostgres})
        QTest::newRow(qPrintable(system)) << system;
}

void TestDriverTimeouts::everySystem()
{
    QTest::addColumn<QString>("system");
    const QStringList systems = LayeredSystems::names() << FirebirdOverTcp;
    for (const QString &system : systems)
        QTest::newRow(qPrintable(system)) << system;
}

int TestDriverTimeouts::portOf(const QString &system)
{
    if (system == MariaDb)
        return m_systems.mariadb().port();
    return system == FirebirdOverTcp ? m_systems.firebirdServer().port()
                                     : m_systems.postgres().port();
}

QSqlDatabase TestDriverTimeouts::throughRelay(const QString &system, const QString &option)
{
    m_relay = std::make_unique<RelayProcess>();
    if (!m_relay->start(quint16(portOf(system))))
        qWarning("no relay");
    ConnectionParameters parameters = m_systems.get(system).parameters();
    if (system == OdbcPostgres) {
        parameters.databaseName += QStringLiteral(";Port=%1").arg(m_relay->port());
    } else {
        parameters.hostName = QStringLiteral("127.0.0.1");
        parameters.port = m_relay->port();
    }
    parameters.connectOptions = option;
    return parameters.database(Connection);
}

// --- Opening ---

void TestDriverTimeouts::silentServerFailsTheOpenInTime()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = throughRelay(system, QStringLiteral("VEXT_CONNECT_TIMEOUT=%1").arg(LimitMs));
    m_relay->blackHole();
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!db.open());
    const qint64 ms = timer.elapsed();
    QVERIFY2(ms >= LimitMs && ms < LimitMs + scaledMs(SlackMs), qPrintable(QString::number(ms)));
    QCOMPARE(db.lastError().type(), QSqlError::ConnectionError);
    // A machine that has stood still finds the client library's limit over, too.
    QVERIFY2(db.lastError().text().contains(QString::number(LimitMs)) || ms >= ClientLimitMs,
             qPrintable(db.lastError().text()));
    QVERIFY(!db.isOpen());
    // The same object works as soon as somebody answers.
    m_relay->heal();
    db.setConnectOptions(QStringLiteral("VEXT_CONNECT_TIMEOUT=%1").arg(scaledMs(10000)));
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
}

void TestDriverTimeouts::serverThatFallsSilentInTheMiddleFailsTheOpenInTime()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db =
        throughRelay(system, QStringLiteral("VEXT_CONNECT_TIMEOUT=%1").arg(2 * LimitMs));
    // The server answers the first bytes, each piece so late that there is no time for the rest.
    m_relay->delay(LimitMs);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!db.open());
    QVERIFY2(timer.elapsed() < 2 * LimitMs + scaledMs(SlackMs),
             qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(db.lastError().type(), QSqlError::ConnectionError);
}

/// Each of them may leave a thread behind that waits for the server.
void TestDriverTimeouts::retriesOnASilentServerDoNotPileUp()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = throughRelay(system, QStringLiteral("VEXT_CONNECT_TIMEOUT=30000"));
    QVERIFY2(db.open(), qPrintable(db.lastError().text())); // client libraries have threads, too
    db.close();
    db.setConnectOptions(QStringLiteral("VEXT_CONNECT_TIMEOUT=30"));
    m_relay->blackHole();
    const int before = threadCount();
    for (int i = 0; i < 3 * MostLeftBehind; ++i)
        QVERIFY(!db.open());
    QVERIFY2(db.lastError().text().contains(QLatin1String("30 ms")),
             qPrintable(db.lastError().text()));
    QVERIFY2(threadCount() <= before + MostLeftBehind, qPrintable(QString::number(threadCount())));
    // All of them get their answer, and the next opening a place.
    m_relay->heal();
    db.setConnectOptions(QStringLiteral("VEXT_CONNECT_TIMEOUT=%1").arg(scaledMs(20000)));
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    db.close();
    QVERIFY(waitUntil([&] { return threadCount() <= before; }));
}

void TestDriverTimeouts::openingInTimeSucceeds()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    ConnectionParameters parameters = m_systems.get(system).parameters();
    QSqlDatabase db = parameters.database(Connection);
    for (const char *limit : {"0", "60000"}) {
        db.setConnectOptions(
            QStringLiteral("VEXT_CONNECT_TIMEOUT=%1;").arg(QString::fromUtf8(limit)) +
            parameters.connectOptions);
        QVERIFY2(db.open(), qPrintable(db.lastError().text()));
        QSqlQuery query(LayeredSystems::selectWithoutTable(system, QStringLiteral("7")), db);
        QVERIFY2(query.next(), qPrintable(query.lastError().text()));
        QCOMPARE(query.value(0).toInt(), 7);
        query.clear();
        db.close();
    }
}

void TestDriverTimeouts::connectionIsTheCallersAfterATimedOpening()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    ConnectionParameters parameters = m_systems.get(system).parameters();
    if (!parameters.connectOptions.isEmpty())
        parameters.connectOptions += QLatin1Char(';');
    parameters.connectOptions += QStringLiteral("VEXT_CONNECT_TIMEOUT=60000");
    QSqlDatabase db = parameters.database(Connection);
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    const auto *stock = db.driver()->property("stockDriver").value<QObject *>();
    QVERIFY(stock);
    QCOMPARE(stock->thread(), QThread::currentThread());
    // A result of the first session, still there in the second one, fails and harms nothing.
    const QString one = LayeredSystems::selectWithoutTable(system, QStringLiteral("1"));
    QSqlQuery old(db);
    QVERIFY(old.exec(one) && old.next());
    old.finish();
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QVERIFY(!old.next());
    QSqlQuery fresh(db);
    QVERIFY2(fresh.exec(one) && fresh.next(), qPrintable(fresh.lastError().text()));
    QVERIFY2(old.exec(one) && old.next(), qPrintable(old.lastError().text()));
}

// --- Statements ---

void TestDriverTimeouts::longStatementEndsByItsTimeout()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    ConnectionParameters parameters = m_systems.get(system).parameters();
    if (!parameters.connectOptions.isEmpty())
        parameters.connectOptions += QLatin1Char(';');
    parameters.connectOptions += QStringLiteral("VEXT_STATEMENT_TIMEOUT=%1").arg(LimitMs);
    QSqlDatabase db = parameters.database(Connection);
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QSqlQuery query(db);
    query.exec(QStringLiteral("DROP TABLE rows_of_time"));
    QVERIFY(query.exec(QStringLiteral("CREATE TABLE rows_of_time (id INTEGER)")));
    QVERIFY(query.exec(QStringLiteral("INSERT INTO rows_of_time VALUES (1)")));
    for (int i = 0; i < 10; ++i)
        QVERIFY(query.exec(QStringLiteral("INSERT INTO rows_of_time SELECT id + 1 "
                                          "FROM rows_of_time")));
    QElapsedTimer timer;
    timer.start();
    const bool done = query.exec(QStringLiteral("SELECT COUNT(*) FROM rows_of_time a, "
                                                "rows_of_time b, rows_of_time c "
                                                "WHERE a.id + b.id + c.id = -1")) &&
                      query.next();
    const qint64 ms = timer.elapsed();
    QVERIFY(!done);
    const QString error = query.lastError().text();
    QVERIFY2(ms >= LimitMs - 50 && ms < LimitMs + scaledMs(SlackMs),
             qPrintable(QString::number(ms)));
    QVERIFY2(!error.isEmpty() && !error.contains(QLatin1String("cancelled")), qPrintable(error));
    QCOMPARE(query.lastError().type(), QSqlError::StatementError);
    QVERIFY(db.isOpen());
    QVERIFY(query.exec(QStringLiteral("SELECT COUNT(*) FROM rows_of_time")) && query.next());
    QCOMPARE(query.value(0).toInt(), 1024);
    query.finish();
    query.exec(QStringLiteral("DROP TABLE rows_of_time"));
}

void TestDriverTimeouts::statementOnASilentLineEndsInTime()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db =
        throughRelay(system, QStringLiteral("VEXT_STATEMENT_TIMEOUT=%1").arg(LimitMs));
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QSqlQuery query(db);
    const QString one = LayeredSystems::selectWithoutTable(system, QStringLiteral("1"));
    QVERIFY2(query.exec(one) && query.next(), qPrintable(query.lastError().text()));
    query.finish();
    m_relay->blackHole();
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!(query.exec(one) && query.next()));
    QVERIFY2(timer.elapsed() < LimitMs + ServerFirstMs + DeadServerMs + scaledMs(SlackMs),
             qPrintable(QString::number(timer.elapsed())));
    // Nobody has answered the question whether the server has ended the statement, either.
    QCOMPARE(query.lastError().type(), QSqlError::ConnectionError);
    QVERIFY(!db.isOpen());
    m_relay->heal();
    query = QSqlQuery();
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
}

void TestDriverTimeouts::commandOnASilentLineEndsInTime()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db =
        throughRelay(system, QStringLiteral("VEXT_STATEMENT_TIMEOUT=%1").arg(LimitMs));
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QVERIFY(db.transaction());
    QSqlQuery query(db);
    const QString one = LayeredSystems::selectWithoutTable(system, QStringLiteral("1"));
    QVERIFY2(query.exec(one) && query.next(), qPrintable(query.lastError().text()));
    query.finish();
    m_relay->blackHole();
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!db.commit());
    QVERIFY2(timer.elapsed() < LimitMs + ServerFirstMs + DeadServerMs + scaledMs(SlackMs),
             qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(db.lastError().type(), QSqlError::ConnectionError);
    QVERIFY(!db.isOpen());
}

void TestDriverTimeouts::furtherResultsLeaveNoLimitBehind_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("several");
    QTest::addColumn<QString>("rest"); ///< lasts a while, much less than the limit
    const QString several = QStringLiteral("SELECT 1; SELECT 2; SELECT 3");
    QTest::newRow("PostgreSQL") << Postgres << several << "SELECT pg_sleep(0.1)";
    QTest::newRow("MariaDB") << MariaDb << several << "SELECT SLEEP(0.1)";
    QTest::newRow("ODBC to PostgreSQL") << OdbcPostgres << several << "SELECT pg_sleep(0.1)";
    QTest::newRow("SQLite file")
        << "SQLite file"
        << "SELECT 1 UNION SELECT 2"
        << "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n "
           "LIMIT 200000) SELECT count(*) FROM n";
}

/// The limit of a statement that is over must not end a later one of the same query.
void TestDriverTimeouts::furtherResultsLeaveNoLimitBehind()
{
    QFETCH(QString, system);
    QFETCH(QString, several);
    QFETCH(QString, rest);
    USE_SYSTEM(m_systems, system);
    constexpr int LongLimitMs = 2000;
    ConnectionParameters parameters = m_systems.get(system).parameters();
    if (!parameters.connectOptions.isEmpty())
        parameters.connectOptions += QLatin1Char(';');
    parameters.connectOptions += QStringLiteral("VEXT_STATEMENT_TIMEOUT=%1").arg(LongLimitMs);
    QSqlDatabase db = parameters.database(Connection);
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QSqlQuery query(db);
    QElapsedTimer timer;
    timer.start();
    QVERIFY2(query.exec(several), qPrintable(query.lastError().text()));
    while (query.next() && query.nextResult()) {
    }
    while (timer.elapsed() < LongLimitMs + ServerFirstMs + 500) {
        QVERIFY2(query.exec(rest), qPrintable(query.lastError().text()));
        QVERIFY2(query.next(), qPrintable(query.lastError().text()));
    }
}

void TestDriverTimeouts::silentLineIsSeenByALook()
{
    // PostgreSQL and MariaDB are looked at without asking the server; Firebird has to be asked.
    USE_SYSTEM(m_systems, FirebirdOverTcp);
    QSqlDatabase db = throughRelay(FirebirdOverTcp, QString());
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    m_relay->blackHole();
    QElapsedTimer timer;
    timer.start();
    QVERIFY(waitUntil([&db] { return !db.isOpen(); }, 10000));
    QVERIFY2(timer.elapsed() < DeadServerMs + scaledMs(SlackMs),
             qPrintable(QString::number(timer.elapsed())));
}

int main(int argc, char **argv)
{
    if (RelayProcess::runRelay(argc, argv))
        return 0;
    const QCoreApplication application(argc, argv);
    TestDriverTimeouts test;
    return QTest::qExec(&test, argc, argv);
}

#include "test_driver_timeouts.moc"
