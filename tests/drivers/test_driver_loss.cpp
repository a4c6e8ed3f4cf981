/// @file
/// How a lost connection is seen through the layer: sessions ended by the server, servers killed,
/// and lines that are cut, half-closed or silent.

#include "database_script.h"
#include "deadline.h"
#include "layer_path.h"
#include "layered_systems.h"
#include "message_log.h"
#include "relay_process.h"

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QtTest>

namespace
{

const QString Postgres = QStringLiteral("PostgreSQL");
const QString MariaDb = QStringLiteral("MariaDB");
const QString Direct = QStringLiteral("direct"); ///< a connection without a script
const QString OdbcPostgres = QStringLiteral("ODBC to PostgreSQL");
const QString Firebird = QStringLiteral("Firebird server");

constexpr int DeadServerMs = 2500; ///< within which a server that is silent is given up
constexpr int SlackMs = 2500;      ///< for a machine that stands still meanwhile

/// What a task is delivered with that did not work: a commit has no error of its own.
const QString Failed =
    QStringLiteral("(delivered[0].result === false || delivered[0].error.length > 0) && "
                   "delivered[0].error !== 'unknown error'");

QString select(const QString &system, const QString &expression)
{
    return LayeredSystems::selectWithoutTable(system, expression);
}

QString select(const QString &system, int number)
{
    return select(system, QString::number(number));
}

/// What happens to an idle line.
struct Fault {
    const char *name;
    void (*strike)(RelayProcess &relay);
};

const Fault Faults[] = {
    {"cut", [](RelayProcess &relay) { relay.cut(); }},
    {"half-close", [](RelayProcess &relay) { relay.halfClose(); }},
};

} // namespace

class TestDriverLoss : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { useDriverLayer(); }
    void init() { m_script = std::make_unique<DatabaseScript>(); }
    void cleanup();

    void brokenIdleLineIsSeenAtOnce_data();
    void brokenIdleLineIsSeenAtOnce();
    void statementsOfALostLineGoInSilence_data() { watchedServers(); }
    void statementsOfALostLineGoInSilence();
    void endedSessionIsSeenAndTheWorkerReopens_data() { everyLine(); }
    void endedSessionIsSeenAndTheWorkerReopens();
    void killedServerIsSeenAndTheWorkerReopens_data() { everyLine(); }
    void killedServerIsSeenAndTheWorkerReopens();
    void errorOfALossHasTypeOne_data();
    void errorOfALossHasTypeOne();
    void stoppingOnASilentLineEndsInTime_data() { everySilence(); }
    void stoppingOnASilentLineEndsInTime();
    void stoppingEndsTheQuestionBehindAFailure();
    void questionForTheLastIdEndsInTime();
    void closingOnASilentLineEndsInTime_data() { everySilence(); }
    void closingOnASilentLineEndsInTime();
    void closingWithAnOpenTransactionOnASilentLineEndsInTime_data() { everyLine(); }
    void closingWithAnOpenTransactionOnASilentLineEndsInTime();
    void closingWhileListeningOnASilentLineEndsInTime_data();
    void closingWhileListeningOnASilentLineEndsInTime();
    void subscribingOnASilentLineEndsInTime_data();
    void subscribingOnASilentLineEndsInTime();
    void serverThatNeverAnswersFailsTheOpenInTime_data() { everyLine(); }
    void serverThatNeverAnswersFailsTheOpenInTime();

private:
    static void watchedServers();
    static void everyServer();
    static void everyLine();
    static void everySilence();
    int portOf(const QString &system);
    /// The parameters of a system, through the relay.
    ConnectionParameters throughRelay(const QString &system, const QString &options = {});
    bool openThroughRelay(const QString &system);
    bool endSession(const QString &system, const QString &id);
    bool killServer(const QString &system);
    bool startServerAgain(const QString &system);
    /// Runs what the row wants, or begins a transaction when it wants nothing.
    bool beginBefore(const QString &system, const QString &sql);
    /// What the worker is given on the line that is silent from now on. @return whether it has it
    bool beginInSilence(const QString &call);
    /// Whether a call returns as soon as a silent server is given up.
    bool endsInTime(const QString &call);

    LayeredSystems m_systems;
    QString m_killed; ///< the system whose server was killed and not started again
    std::unique_ptr<RelayProcess> m_relay;
    std::unique_ptr<DatabaseScript> m_script;
};

void TestDriverLoss::cleanup()
{
    if (m_relay) {
        m_relay->heal();
        m_relay->cut(); // whatever still hangs ends now
    }
    m_script.reset();
    m_relay.reset();
    QSqlDatabase::database(Direct, false).close();
    QSqlDatabase::removeDatabase(Direct);
    if (!m_killed.isEmpty())
        startServerAgain(m_killed);
}

void TestDriverLoss::watchedServers()
{
    QTest::addColumn<QString>("system");
    QTest::newRow("PostgreSQL") << Postgres;
    QTest::newRow("MariaDB") << MariaDb;
}

void TestDriverLoss::everyServer()
{
    watchedServers();
    QTest::newRow("ODBC to PostgreSQL") << OdbcPostgres;
}

void TestDriverLoss::everyLine()
{
    everyServer();
    QTest::newRow("Firebird server") << Firebird;
}

/// What the worker does on a line that has fallen silent: something that is run, or something that
/// the layer has to ask first.
void TestDriverLoss::everySilence()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("before"); ///< the worker's statement while the line still answers
    QTest::addColumn<QString>("call");
    const auto query = [](const QString &sql) {
        return QStringLiteral("db.query_thread(keep(0), \"%1\")").arg(sql);
    };
    const auto bound = [](const char *sql) {
        return QStringLiteral("db.exec_thread(keep(0), \"%1\", [1])").arg(QLatin1String(sql));
    };
    for (const QString &system : {Postgres, MariaDb, OdbcPostgres, Firebird}) {
        QTest::newRow(qPrintable(system))
            << system << select(system, 1) << query(select(system, 2));
        QTest::addRow("%s, commit", qPrintable(system))
            << system << QString() << query(QStringLiteral("commit"));
    }
    // What the layer asks or sets first: where a string ends, how dates are written.
    QTest::newRow("MariaDB, mode") << MariaDb << "SET @changed = 1" << bound("SELECT 'a', ?");
    QTest::newRow("PostgreSQL, settings")
        << Postgres << "SELECT set_config('DateStyle', 'German', false)"
        << query(select(Postgres, 2));
    QTest::newRow("ODBC to PostgreSQL, backslash")
        << OdbcPostgres << "SELECT 1" << bound("SELECT 'a\\\\', ?");
}

int TestDriverLoss::portOf(const QString &system)
{
    if (system == MariaDb)
        return m_systems.mariadb().port();
    return system == Firebird ? m_systems.firebirdServer().port() : m_systems.postgres().port();
}

ConnectionParameters TestDriverLoss::throughRelay(const QString &system, const QString &options)
{
    if (!m_relay) {
        m_relay = std::make_unique<RelayProcess>();
        if (!m_relay->start(quint16(portOf(system))))
            qWarning("no relay");
    }
    ConnectionParameters parameters = m_systems.get(system).parameters();
    parameters.connectOptions = options;
    if (system == OdbcPostgres) {
        parameters.databaseName += QStringLiteral(";Port=%1").arg(m_relay->port());
        return parameters;
    }
    parameters.hostName = QStringLiteral("127.0.0.1");
    parameters.port = m_relay->port();
    return parameters;
}

bool TestDriverLoss::openThroughRelay(const QString &system)
{
    return m_script->open(QStringLiteral("db"), throughRelay(system)) &&
           m_script->mustRun(Way::Thread, QStringLiteral("db"), select(system, 1));
}

bool TestDriverLoss::endSession(const QString &system, const QString &id)
{
    QString other = Postgres;
    QString end = QStringLiteral("SELECT pg_terminate_backend(%1)");
    if (system == MariaDb) {
        other = system;
        end = QStringLiteral("KILL %1");
    } else if (system == Firebird) {
        other = system;
        end = QStringLiteral("DELETE FROM mon$attachments WHERE mon$attachment_id = %1");
    }
    return m_script->open(QStringLiteral("other"), m_systems.get(other).parameters()) &&
           m_script->mustRun(Way::Here, QStringLiteral("other"), end.arg(id));
}

bool TestDriverLoss::killServer(const QString &system)
{
    m_killed = system;
    if (system == Firebird)
        return m_systems.firebirdServer().kill();
    return system == MariaDb ? m_systems.mariadb().kill()
                             : m_systems.postgres().shutDown(PostgresServer::Shutdown::Immediate);
}

bool TestDriverLoss::startServerAgain(const QString &system)
{
    m_killed.clear();
    if (system == Firebird)
        return m_systems.firebirdServer().startAgain();
    return system == MariaDb ? m_systems.mariadb().startAgain() : m_systems.postgres().startAgain();
}

// --- Lines that break ---

void TestDriverLoss::brokenIdleLineIsSeenAtOnce_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<int>("fault");
    for (const QString &system : {Postgres, MariaDb, OdbcPostgres, Firebird}) {
        int index = 0;
        for (const Fault &fault : Faults)
            QTest::addRow("%s, %s", qPrintable(system), fault.name) << system << index++;
    }
}

void TestDriverLoss::brokenIdleLineIsSeenAtOnce()
{
    QFETCH(QString, system);
    QFETCH(int, fault);
    USE_SYSTEM(m_systems, system);
    QVERIFY(openThroughRelay(system));
    QVERIFY(m_script->isTrue(QStringLiteral("db.isOpen")));

    Faults[fault].strike(*m_relay);
    QVERIFY(m_script->waitFor(QStringLiteral("!db.isOpen")));
    m_relay->heal();
    // The worker's session was lost as well, and nothing was under way on it.
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), select(system, 2)),
             QStringLiteral("number:2"));
}

/// What was kept for the line goes with it: the stock drivers would say for each statement that its
/// server cannot be told.
void TestDriverLoss::statementsOfALostLineGoInSilence()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = throughRelay(system).database(Direct);
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QVERIFY(QSqlQuery(db).exec(QStringLiteral("CREATE TABLE kept_on_lines (id INTEGER)")));
    const auto prepared = [&db](int number) {
        auto query = std::make_unique<QSqlQuery>(db);
        query->prepare(
            QStringLiteral("DELETE FROM kept_on_lines WHERE id = ? AND id > %1").arg(number));
        query->addBindValue(number);
        return query;
    };
    for (int i = 0; i < 3; ++i)
        QVERIFY(prepared(i)->exec());
    std::unique_ptr<QSqlQuery> last = prepared(2);

    const MessageLog log;
    m_relay->cut();
    QVERIFY(!last->exec());
    last.reset(); // one that has failed is not kept, and is to be freed all the same
    db.close();
    QCOMPARE(log.lines(QtWarningMsg).size(), 0);
}

// --- Sessions and servers that end ---

void TestDriverLoss::endedSessionIsSeenAndTheWorkerReopens()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QVERIFY(m_script->open(QStringLiteral("db"), m_systems.get(system).parameters()));
    QString ask = QStringLiteral("SELECT pg_backend_pid()");
    if (system == MariaDb)
        ask = QStringLiteral("SELECT CONNECTION_ID()");
    else if (system == Firebird)
        ask = select(system, QStringLiteral("CURRENT_CONNECTION"));
    const QString id = m_script->rows(Way::Here, QStringLiteral("db"), ask).mid(7);
    QVERIFY(endSession(system, id));
    QVERIFY(m_script->waitFor(QStringLiteral("!db.isOpen")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));

    const QString worker = m_script->rows(Way::Thread, QStringLiteral("db"), ask).mid(7);
    QVERIFY(endSession(system, worker));
    // One task at most tells the loss; the next one runs on a new session.
    if (!m_script->ask(Way::Thread, QStringLiteral("db"), ask))
        QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), ask));
    QVERIFY(m_script->text(QStringLiteral("answer.result.fields_index[0][0]")) !=
            QStringLiteral("number:") + worker);
}

void TestDriverLoss::killedServerIsSeenAndTheWorkerReopens()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QVERIFY(m_script->open(QStringLiteral("db"), m_systems.get(system).parameters()));
    const QString one = select(system, 1);
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), one));
    QVERIFY(killServer(system));

    QVERIFY(m_script->waitFor(QStringLiteral("!db.isOpen")));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.type")).toInt32(), 1);

    QVERIFY(startServerAgain(system));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    if (!m_script->ask(Way::Thread, QStringLiteral("db"), one))
        QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), one));
}

void TestDriverLoss::errorOfALossHasTypeOne_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("sql");
    QTest::addColumn<bool>("isBound");
    for (const QString &system : {Postgres, MariaDb, OdbcPostgres, Firebird}) {
        const QString plain = select(system, 1);
        QTest::addRow("%s", qPrintable(system)) << system << plain << false;
        QTest::addRow("%s, bound", qPrintable(system))
            << system << plain + QStringLiteral(" WHERE 1 = ?") << true;
    }
}

/// Of the first statement after the server was killed, within a transaction: elsewhere isOpen()
/// turns false before a statement is sent.
void TestDriverLoss::errorOfALossHasTypeOne()
{
    QFETCH(QString, system);
    QFETCH(QString, sql);
    QFETCH(bool, isBound);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = m_systems.get(system).parameters().database(Direct);
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QVERIFY(db.transaction());
    QSqlQuery query(db);
    const auto run = [&] {
        if (!isBound)
            return query.exec(sql);
        query.prepare(sql);
        query.addBindValue(1);
        return query.exec();
    };
    QVERIFY2(run(), qPrintable(query.lastError().text()));
    query.finish();

    QVERIFY(killServer(system));
    QVERIFY(!run());
    QVERIFY2(query.lastError().type() == QSqlError::ConnectionError,
             qPrintable(query.lastError().text()));
    QVERIFY(!db.isOpen());
    query.clear();
    QVERIFY(startServerAgain(system));
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QVERIFY2(run(), qPrintable(query.lastError().text()));
}

// --- Lines that are silent ---

bool TestDriverLoss::beginBefore(const QString &system, const QString &sql)
{
    if (sql.isEmpty() && !m_script->isTrue(QStringLiteral("db.transaction()")))
        return false;
    return m_script->mustRun(Way::Thread, QStringLiteral("db"),
                             sql.isEmpty() ? select(system, 1) : sql);
}

bool TestDriverLoss::beginInSilence(const QString &call)
{
    m_relay->blackHole();
    m_script->eval(call);
    return m_script->waitFor(QStringLiteral("db.taskSize() === 0"));
}

bool TestDriverLoss::endsInTime(const QString &call)
{
    QElapsedTimer timer;
    timer.start();
    m_script->eval(call);
    const qint64 ms = timer.elapsed();
    if (ms >= DeadServerMs + scaledMs(SlackMs))
        qWarning("%s took %lld ms", qPrintable(call), ms);
    return ms < DeadServerMs + scaledMs(SlackMs);
}

void TestDriverLoss::stoppingOnASilentLineEndsInTime()
{
    QFETCH(QString, system);
    QFETCH(QString, before);
    QFETCH(QString, call);
    USE_SYSTEM(m_systems, system);
    QVERIFY(openThroughRelay(system));
    QVERIFY(beginBefore(system, before));
    QVERIFY(beginInSilence(call));

    QVERIFY(endsInTime(QStringLiteral("db.stop_thread(20000)")));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1 && !db.isRunning")));
    QVERIFY2(m_script->isTrue(Failed),
             qPrintable(m_script->text(QStringLiteral("delivered[0].error"))));
    m_relay->heal();
    m_script->eval(QStringLiteral("if (!db.isOpen) db.open()"));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), select(system, 2)),
             QStringLiteral("number:2"));
}

/// The line falls silent when the layer asks whether the transaction is still there.
void TestDriverLoss::stoppingEndsTheQuestionBehindAFailure()
{
    USE_SYSTEM(m_systems, OdbcPostgres);
    QVERIFY(openThroughRelay(OdbcPostgres));
    QVERIFY(beginBefore(OdbcPostgres, QString()));
    m_relay->blackHoleAt("statement_timestamp()");
    m_script->eval(QStringLiteral("db.query_thread(keep(0), 'SELEC 1')"));
    QVERIFY(m_script->waitFor(QStringLiteral("db.taskSize() === 0")));

    QVERIFY(endsInTime(QStringLiteral("db.stop_thread(20000)")));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1 && !db.isRunning")));
    QVERIFY2(m_script->isTrue(Failed),
             qPrintable(m_script->text(QStringLiteral("delivered[0].error"))));
}

/// QODBC asks the server for it behind each statement.
void TestDriverLoss::questionForTheLastIdEndsInTime()
{
    USE_SYSTEM(m_systems, OdbcPostgres);
    QVERIFY(openThroughRelay(OdbcPostgres));
    m_relay->blackHoleAt("lastval()");
    QElapsedTimer timer;
    timer.start();
    m_script->eval(QStringLiteral("db.query_thread(keep(0), 'SELECT 2')"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1"), 10000));
    QVERIFY2(timer.elapsed() < DeadServerMs + scaledMs(SlackMs),
             qPrintable(QString::number(timer.elapsed())));
    m_relay->heal();
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), select(OdbcPostgres, 3)),
             QStringLiteral("number:3"));
}

void TestDriverLoss::closingOnASilentLineEndsInTime()
{
    QFETCH(QString, system);
    QFETCH(QString, before);
    QFETCH(QString, call);
    USE_SYSTEM(m_systems, system);
    QVERIFY(openThroughRelay(system));
    QVERIFY(beginBefore(system, before));
    QVERIFY(beginInSilence(call));

    QVERIFY(endsInTime(QStringLiteral("db.close()")));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QVERIFY2(m_script->isTrue(Failed),
             qPrintable(m_script->text(QStringLiteral("delivered[0].error"))));
    QVERIFY(m_script->isTrue(QStringLiteral("!db.isOpen")));
}

void TestDriverLoss::closingWithAnOpenTransactionOnASilentLineEndsInTime()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QVERIFY(openThroughRelay(system));
    QVERIFY(m_script->isTrue(QStringLiteral("db.transaction()"))); // the worker's, too
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), select(system, 2)));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), select(system, 3)));
    m_relay->blackHole();

    QVERIFY(endsInTime(QStringLiteral("db.close()")));
    QVERIFY(m_script->isTrue(QStringLiteral("!db.isOpen && !db.isRunning")));
}

void TestDriverLoss::closingWhileListeningOnASilentLineEndsInTime_data()
{
    QTest::addColumn<QString>("system");
    for (const QString &system : {Postgres, Firebird})
        QTest::newRow(qPrintable(system)) << system;
}

void TestDriverLoss::closingWhileListeningOnASilentLineEndsInTime()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QVERIFY(m_script->open(QStringLiteral("db"), throughRelay(system)));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('first') && db.add_event('second')")));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), select(system, 2)));
    m_relay->blackHole();

    QVERIFY(endsInTime(QStringLiteral("db.close()")));
    QVERIFY(m_script->isTrue(QStringLiteral("!db.isOpen && !db.isRunning")));
}

void TestDriverLoss::subscribingOnASilentLineEndsInTime_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("call");
    for (const QString &system : {Postgres, Firebird}) {
        QTest::addRow("%s, add", qPrintable(system)) << system << "db.add_event('second')";
        QTest::addRow("%s, remove", qPrintable(system)) << system << "db.rem_event('first')";
    }
}

void TestDriverLoss::subscribingOnASilentLineEndsInTime()
{
    QFETCH(QString, system);
    QFETCH(QString, call);
    USE_SYSTEM(m_systems, system);
    QVERIFY(m_script->open(QStringLiteral("db"), throughRelay(system)));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('first')")));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), select(system, 2)));
    m_relay->blackHole();

    QVERIFY(endsInTime(call));
    QVERIFY(m_script->waitFor(QStringLiteral("!db.isOpen")));
    m_relay->heal();
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('third')")));
}

void TestDriverLoss::serverThatNeverAnswersFailsTheOpenInTime()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    const ConnectionParameters parameters =
        throughRelay(system, QStringLiteral("VEXT_CONNECT_TIMEOUT=2000"));
    m_relay->blackHole();
    m_script->declare(QStringLiteral("db"), parameters);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!m_script->isTrue(QStringLiteral("db.open()")));
    QVERIFY2(timer.elapsed() < 2000 + scaledMs(1500), qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.type")).toInt32(), 1);
    m_relay->heal();
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
}

int main(int argc, char **argv)
{
    if (RelayProcess::runRelay(argc, argv))
        return 0;
    const QCoreApplication application(argc, argv);
    TestDriverLoss test;
    return QTest::qExec(&test, argc, argv);
}

#include "test_driver_loss.moc"
