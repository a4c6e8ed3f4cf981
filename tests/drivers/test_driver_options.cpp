/// @file
/// What the layer's connect options, errors and transactions promise.

#include "deadline.h"
#include "layer_path.h"
#include "layered_systems.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QtTest>

#include <atomic>
#include <chrono>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace
{

const QString Connection = QStringLiteral("options");
const QString Holder = QStringLiteral("holder"); ///< holds a lock
const QString Postgres = QStringLiteral("PostgreSQL");
const QString MariaDb = QStringLiteral("MariaDB");
const QString Sqlite = QStringLiteral("SQLite file");

/// Listens on a port of its own; the system takes connections, and nobody answers.
class SilentServer
{
public:
    SilentServer()
        : m_socket(::socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto *general = reinterpret_cast<sockaddr *>(&address);
        if (::bind(m_socket, general, length) == 0 && ::listen(m_socket, 5) == 0 &&
            ::getsockname(m_socket, general, &length) == 0)
            m_port = ntohs(address.sin_port);
    }
    ~SilentServer() { ::close(m_socket); }
    int port() const { return m_port; } ///< 0: it does not listen

private:
    int m_socket;
    int m_port = 0;
};

} // namespace

class TestDriverOptions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { useDriverLayer(); }
    void cleanup();

    void wrongOptionFailsTheOpen_data();
    void wrongOptionFailsTheOpen();
    void optionsMayStandAnywhere();
    void limitIsTheOneThatWasAskedFor_data();
    void limitIsTheOneThatWasAskedFor();
    void exactNumbersKeepEveryDigit_data();
    void exactNumbersKeepEveryDigit();
    void withoutTheOptionNumbersStayNumbers();
    void silentServerFailsTheOpenInTime();
    void missingStockDriverNamesItsPackage();
    void handleIsTheStockDrivers();
    void sqliteWaitsForALockAsLongAsAsked_data();
    void sqliteWaitsForALockAsLongAsAsked();
    void cancelledChangeEndsSqlitesTransaction();
    void errorOfSqliteLeavesTheTransactionAlone();
    void backslashesOfPostgresAreThoseOfTheSession_data();
    void backslashesOfPostgresAreThoseOfTheSession();
    void settingsAreAskedForOnceAStatement();
    void settingsThatTheDriverNeedsAreKept_data();
    void settingsThatTheDriverNeedsAreKept();
    void datesOutsideOfQtsRangeAreRight_data();
    void datesOutsideOfQtsRangeAreRight();

private:
    QSqlDatabase database(const QString &system, const QString &options = {});
    static QString failure(QSqlDatabase db, const QString &sql);

    LayeredSystems m_systems;
};

void TestDriverOptions::cleanup()
{
    for (const QString &name : {Connection, Holder}) {
        if (!QSqlDatabase::contains(name))
            continue;
        QSqlDatabase::database(name, false).close();
        QSqlDatabase::removeDatabase(name);
    }
}

QSqlDatabase TestDriverOptions::database(const QString &system, const QString &options)
{
    ConnectionParameters parameters = m_systems.get(system).parameters();
    parameters.connectOptions = options;
    return parameters.database(Connection);
}

QString TestDriverOptions::failure(QSqlDatabase db, const QString &sql)
{
    QSqlQuery query(db);
    return query.exec(sql) ? QString() : query.lastError().text();
}

void TestDriverOptions::wrongOptionFailsTheOpen_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QString>("part");
    QTest::newRow("unknown name") << "VEXT_FASTER=1"
                                  << "VEXT_FASTER";
    QTest::newRow("no number") << "VEXT_STATEMENT_TIMEOUT=soon"
                               << "soon";
    QTest::newRow("negative") << "VEXT_CONNECT_TIMEOUT=-1"
                              << "-1";
    QTest::newRow("no value") << "VEXT_EXACT_NUMBERS"
                              << "VEXT_EXACT_NUMBERS";
    QTest::newRow("fraction") << "VEXT_STATEMENT_TIMEOUT=1.5"
                              << "1.5";
    QTest::newRow("too large for a number") << "VEXT_STATEMENT_TIMEOUT=4294967297"
                                            << "4294967297";
    QTest::newRow("two numbers") << "VEXT_CONNECT_TIMEOUT=5 5"
                                 << "5 5";
    QTest::newRow("nothing behind the sign") << "VEXT_CONNECT_TIMEOUT="
                                             << "VEXT_CONNECT_TIMEOUT";
    QTest::newRow("prefix alone") << "VEXT_=1"
                                  << "VEXT_";
    QTest::newRow("wrong, then right") << "VEXT_EXACT_NUMBERS=yes;VEXT_EXACT_NUMBERS=1"
                                       << "yes";
    QTest::newRow("behind another") << "QSQLITE_BUSY_TIMEOUT=10;VEXT_X=1"
                                    << "VEXT_X";
}

void TestDriverOptions::wrongOptionFailsTheOpen()
{
    QFETCH(QString, options);
    QFETCH(QString, part);
    USE_SYSTEM(m_systems, Sqlite);
    QSqlDatabase db = database(Sqlite, options);
    QVERIFY(!db.open());
    QCOMPARE(db.lastError().type(), QSqlError::ConnectionError);
    QVERIFY2(db.lastError().text().contains(part), qPrintable(db.lastError().text()));
}

void TestDriverOptions::optionsMayStandAnywhere()
{
    USE_SYSTEM(m_systems, Sqlite);
    QSqlDatabase db =
        database(Sqlite, QStringLiteral("QSQLITE_BUSY_TIMEOUT=10; VEXT_EXACT_NUMBERS=1 ;"
                                        "VEXT_STATEMENT_TIMEOUT=0;QSQLITE_OPEN_URI"));
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
}

void TestDriverOptions::limitIsTheOneThatWasAskedFor_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("options");
    QTest::addColumn<QString>("limit");
    const auto rows = [](const QString &system, const char *days, const char *five,
                         const char *longest) {
        const QByteArray name = system.toUtf8();
        const auto row = [&](const char *what, const char *options, const char *limit) {
            QTest::addRow("%s, %s", name.constData(), what)
                << system << QString::fromLatin1(options) << QString::fromLatin1(limit);
        };
        row("days", "VEXT_STATEMENT_TIMEOUT=1234567891", days);
        row("small letters, blanks", " vext_statement_timeout = 5000 ;", five);
        row("the last one holds", "VEXT_STATEMENT_TIMEOUT=1;VEXT_STATEMENT_TIMEOUT=5000", five);
        row("longest", "VEXT_CONNECT_TIMEOUT=2147483647;VEXT_STATEMENT_TIMEOUT=2147483647",
            longest);
    };
    rows(Postgres, "1234567891ms", "5s", "2000000s");
    rows(MariaDb, "1234567.891000", "5.000000", "2000000.000000");
}

void TestDriverOptions::limitIsTheOneThatWasAskedFor()
{
    QFETCH(QString, system);
    QFETCH(QString, options);
    QFETCH(QString, limit);
    USE_SYSTEM(m_systems, system);
    const QString others = m_systems.get(system).parameters().connectOptions;
    QSqlDatabase db = database(system, others + QLatin1Char(';') + options);
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QSqlQuery query(db);
    QVERIFY(query.exec(system == Postgres ? QStringLiteral("SHOW statement_timeout")
                                          : QStringLiteral("SELECT CONCAT(@@max_statement_time)")));
    QVERIFY(query.next());
    QCOMPARE(query.value(0).toString(), limit);
}

void TestDriverOptions::exactNumbersKeepEveryDigit_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("expression");
    QTest::addColumn<QVariant>("expected");
    const QVariant beyond(QStringLiteral("9007199254740993"));
    for (const QString &system : {Postgres, Sqlite}) {
        const QByteArray name = system.toUtf8();
        QTest::addRow("%s, beyond", name.constData()) << system << "9007199254740993" << beyond;
        QTest::addRow("%s, below", name.constData())
            << system << "-9007199254740993" << QVariant(QStringLiteral("-9007199254740993"));
        QTest::addRow("%s, largest number", name.constData())
            << system << "9007199254740991" << QVariant(9007199254740991LL);
        QTest::addRow("%s, real", name.constData())
            << system << (system == Postgres ? "0.5::float8" : "0.5") << QVariant(0.5);
    }
    QTest::newRow("PostgreSQL, decimal")
        << Postgres << "123456789012345678.123456789::numeric"
        << QVariant(QStringLiteral("123456789012345678.123456789"));
}

void TestDriverOptions::exactNumbersKeepEveryDigit()
{
    QFETCH(QString, system);
    QFETCH(QString, expression);
    QFETCH(QVariant, expected);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = database(system, QStringLiteral("VEXT_EXACT_NUMBERS=1"));
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QSqlQuery query(db);
    QVERIFY2(query.exec(QStringLiteral("SELECT ") + expression),
             qPrintable(query.lastError().text()));
    QVERIFY(query.next());
    QCOMPARE(query.value(0).userType() == QMetaType::QString,
             expected.userType() == QMetaType::QString);
    QCOMPARE(query.value(0).toString(), expected.toString());
}

void TestDriverOptions::withoutTheOptionNumbersStayNumbers()
{
    USE_SYSTEM(m_systems, Postgres);
    QSqlDatabase db = database(Postgres);
    QVERIFY(db.open());
    QSqlQuery query(db);
    QVERIFY(query.exec(QStringLiteral("SELECT 9007199254740993, 1.5::numeric")));
    QVERIFY(query.next());
    QVERIFY(query.value(0).userType() != int(QMetaType::QString));
    QCOMPARE(query.value(0).toLongLong(), 9007199254740993LL);
    QCOMPARE(query.value(1).userType(), int(QMetaType::Double));
}

void TestDriverOptions::silentServerFailsTheOpenInTime()
{
    USE_SYSTEM(m_systems, Postgres);
    const SilentServer silent;
    QVERIFY(silent.port() > 0);
    QSqlDatabase db = database(Postgres, QStringLiteral("VEXT_CONNECT_TIMEOUT=2000"));
    db.setHostName(QStringLiteral("127.0.0.1"));
    db.setPort(silent.port());
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!db.open());
    QVERIFY2(timer.elapsed() < 2000 + scaledMs(1500), qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(db.lastError().type(), QSqlError::ConnectionError);
}

void TestDriverOptions::missingStockDriverNamesItsPackage()
{
    const QStringList paths = QCoreApplication::libraryPaths();
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("first"));
    db = QSqlDatabase();
    QSqlDatabase::removeDatabase(QStringLiteral("first"));
    // Qt knows its plugins by now; the layer looks for the stock driver each time.
    for (const QString &path : paths) {
        if (!path.endsWith(QLatin1String("/qtplugins")))
            QCoreApplication::removeLibraryPath(path);
    }
    {
        QSqlDatabase missing = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), Connection);
        QVERIFY(!missing.open());
        QCOMPARE(missing.lastError().type(), QSqlError::ConnectionError);
        QVERIFY2(missing.lastError().text().contains(QLatin1String("libqt5sql5-psql")),
                 qPrintable(missing.lastError().text()));
    }
    QCoreApplication::setLibraryPaths(paths);
}

void TestDriverOptions::handleIsTheStockDrivers()
{
    USE_SYSTEM(m_systems, Sqlite);
    QSqlDatabase db = database(Sqlite);
    QVERIFY(db.open());
    QCOMPARE(db.driver()->handle().typeName(), "sqlite3*");
    QCOMPARE(db.driver()->dbmsType(), QSqlDriver::SQLite);
}

void TestDriverOptions::sqliteWaitsForALockAsLongAsAsked_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QString>("statement");
    QTest::addColumn<int>("ms");
    const QString none;
    QTest::newRow("by itself") << none << none << 5000;
    QTest::newRow("option") << "QSQLITE_BUSY_TIMEOUT=300" << none << 300;
    QTest::newRow("option among others")
        << "VEXT_EXACT_NUMBERS=1; QSQLITE_BUSY_TIMEOUT = 300 ;QSQLITE_OPEN_URI" << none << 300;
    QTest::newRow("option, none") << "QSQLITE_BUSY_TIMEOUT=0" << none << 0;
    QTest::newRow("statement") << none << "PRAGMA busy_timeout = 300" << 300;
    QTest::newRow("statement, none") << none << "pragma main.BUSY_TIMEOUT(0)" << 0;
    QTest::newRow("statement after option") << "QSQLITE_BUSY_TIMEOUT=0"
                                            << "PRAGMA busy_timeout = 300" << 300;
}

void TestDriverOptions::sqliteWaitsForALockAsLongAsAsked()
{
    QFETCH(QString, options);
    QFETCH(QString, statement);
    QFETCH(int, ms);
    USE_SYSTEM(m_systems, Sqlite);
    QSqlDatabase db = database(Sqlite, options);
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QSqlDatabase holder = m_systems.get(Sqlite).parameters().database(Holder);
    QVERIFY(holder.open());
    QCOMPARE(failure(holder, QStringLiteral("BEGIN IMMEDIATE")), QString());
    if (!statement.isEmpty())
        QCOMPARE(failure(db, statement), QString());

    QSqlQuery query(db);
    for (int look = 0; look < 2; ++look) {
        QVERIFY(query.exec(QStringLiteral("PRAGMA busy_timeout")) && query.next());
        QCOMPARE(query.value(0).toInt(), ms);
    }
    query.finish();
    QElapsedTimer timer;
    timer.start();
    const QString error = failure(db, QStringLiteral("CREATE TABLE waits (a INTEGER)"));
    QVERIFY2(error.contains(QLatin1String("locked")), qPrintable(error));
    QVERIFY2(timer.elapsed() >= ms, qPrintable(QString::number(timer.elapsed())));
    if (ms == 0)
        QVERIFY2(timer.elapsed() < 5000, qPrintable(QString::number(timer.elapsed())));
}

void TestDriverOptions::cancelledChangeEndsSqlitesTransaction()
{
    USE_SYSTEM(m_systems, Sqlite);
    QSqlDatabase db = database(Sqlite);
    QVERIFY(db.open());
    QCOMPARE(failure(db, QStringLiteral("CREATE TABLE IF NOT EXISTS changed (id INTEGER)")),
             QString());
    QCOMPARE(failure(db, QStringLiteral("DELETE FROM changed")), QString());
    const QString first = QStringLiteral("INSERT INTO changed VALUES (1)");
    // What does not fit into the cache is written at once: then the change is surely under way.
    QCOMPARE(failure(db, QStringLiteral("PRAGMA cache_size = 10")), QString());
    const QString file = db.databaseName();
    const auto cancelOne = [&] {
        if (!db.transaction() || !failure(db, first).isEmpty())
            return false;
        QSqlDriver *driver = db.driver();
        std::atomic<bool> done{false};
        std::thread canceller([&, before = QFileInfo(file).size()] {
            while (!done) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                if (QFileInfo(file).size() > before)
                    driver->cancelQuery();
            }
        });
        const QString error =
            failure(db, QStringLiteral("INSERT INTO changed WITH RECURSIVE n(i) AS (SELECT 1 UNION "
                                       "ALL SELECT i + 1 FROM n) SELECT i FROM n"));
        done = true;
        canceller.join();
        return error.startsWith(QLatin1String("cancelled")) &&
               failure(db, first).contains(QLatin1String("rolled back"));
    };
    QVERIFY(cancelOne());
    QVERIFY(!db.commit());
    QVERIFY(db.lastError().text().contains(QLatin1String("rolled back")));
    QVERIFY(cancelOne());
    QVERIFY(db.rollback());
    QSqlQuery query(db);
    QVERIFY(query.exec(QStringLiteral("SELECT count(*) FROM changed")) && query.next());
    QCOMPARE(query.value(0).toInt(), 0);
    query.clear();
    QVERIFY(db.transaction());
    QCOMPARE(failure(db, first), QString());
    QVERIFY(db.commit());
}

void TestDriverOptions::errorOfSqliteLeavesTheTransactionAlone()
{
    USE_SYSTEM(m_systems, Sqlite);
    QSqlDatabase db = database(Sqlite);
    QVERIFY(db.open());
    QCOMPARE(
        failure(db, QStringLiteral("CREATE TABLE IF NOT EXISTS keyed (id INTEGER PRIMARY KEY)")),
        QString());
    QCOMPARE(failure(db, QStringLiteral("DELETE FROM keyed")), QString());
    QVERIFY(db.transaction());
    const QString first = QStringLiteral("INSERT INTO keyed VALUES (1)");
    QCOMPARE(failure(db, first), QString());
    QSqlQuery query(db);
    QVERIFY(!query.exec(first));
    QCOMPARE(query.lastError().type(), QSqlError::StatementError);
    QCOMPARE(query.lastError().nativeErrorCode(), QStringLiteral("19"));
    QVERIFY(db.isOpen());
    QCOMPARE(failure(db, QStringLiteral("INSERT INTO keyed VALUES (2)")), QString());
    QVERIFY(db.commit());
    QVERIFY(query.exec(QStringLiteral("SELECT count(*) FROM keyed")) && query.next());
    QCOMPARE(query.value(0).toInt(), 2);
}

void TestDriverOptions::backslashesOfPostgresAreThoseOfTheSession_data()
{
    QTest::addColumn<QString>("system");
    QTest::newRow("native") << Postgres;
    QTest::newRow("ODBC") << QStringLiteral("ODBC to PostgreSQL");
}

/// Where a placeholder is taken for a part of a string, or the other way round, a value might
/// become a part of the statement.
void TestDriverOptions::backslashesOfPostgresAreThoseOfTheSession()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = database(system);
    QVERIFY(db.open());
    QCOMPARE(failure(db, QStringLiteral("SET escape_string_warning = off")), QString());
    const QString value = QStringLiteral("', (SELECT 'broken out'), '\\");
    // What is prepared, and what gets its values as literals.
    const auto answer = [&](const QString &sql, bool isBound) {
        QSqlQuery query(db);
        query.prepare(sql);
        if (isBound)
            query.addBindValue(value);
        if (!query.exec())
            return QStringLiteral("error: ") + query.lastError().databaseText();
        if (query.next())
            return query.value(query.record().count() - 1).toString();
        QSqlQuery made(QStringLiteral("SELECT b FROM made"), db);
        return made.next() ? made.value(0).toString() : QString();
    };
    const QString make = QStringLiteral("CREATE TEMPORARY TABLE made AS ");
    const QString twoForms[] = {QString(), make};
    for (const char *setting : {"off", "on", "off"}) {
        const bool escapes = qstrcmp(setting, "off") == 0;
        // A function sets it, so that nobody learns it from the text.
        QCOMPARE(failure(db, QStringLiteral(
                                 "SELECT set_config('standard_conforming_strings', '%1', false)")
                                 .arg(QLatin1String(setting))),
                 QString());
        for (const QString &form : twoForms) {
            failure(db, QStringLiteral("DROP TABLE IF EXISTS made"));
            // A string, a value and a comment; or one string.
            const QString mixed = form + QStringLiteral("SELECT 'a\\' AS a, ? AS b -- ' AS b");
            const QString seen = answer(mixed, !escapes);
            QCOMPARE(seen, escapes ? QStringLiteral("a' AS a, ? AS b -- ") : value);
            QVERIFY(answer(mixed, escapes).contains(QLatin1String("Wrong number of values")));
            // A string, and a value behind it; or a string that goes on to a comment.
            failure(db, QStringLiteral("DROP TABLE IF EXISTS made"));
            const QString named = form + QStringLiteral("SELECT 'a\\' AS a, :b AS b -- ' AS b");
            QCOMPARE(answer(named, !escapes),
                     escapes ? QStringLiteral("a' AS a, :b AS b -- ") : value);
        }
    }
}

/// ODBC to PostgreSQL has to ask where a string with a backslash ends. The server's log tells.
void TestDriverOptions::settingsAreAskedForOnceAStatement()
{
    const QString system = QStringLiteral("ODBC to PostgreSQL");
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = database(system);
    QVERIFY(db.open());
    const auto questions = [&db] {
        // In two parts: the log tells of this text as well.
        QSqlQuery query(QStringLiteral("SELECT array_length(string_to_array(pg_read_file("
                                       "current_setting('data_directory') || '/../log'), "
                                       "'SHOW ' || 'standard_conforming_strings'), 1)"),
                        db);
        return query.next() ? query.value(0).toInt() : -1;
    };
    QCOMPARE(failure(db, QStringLiteral("SET log_statement = 'all'")), QString());
    const int before = questions();
    QVERIFY(before >= 0);
    const auto run = [&db](const QString &text) {
        QString statement;
        QMetaObject::invokeMethod(db.driver(), "boundStatement", Q_RETURN_ARG(QString, statement),
                                  Q_ARG(QString, text), Q_ARG(int, 1));
        QSqlQuery query(db);
        query.prepare(statement);
        query.addBindValue(1);
        return query.exec() && query.next();
    };
    for (int i = 0; i < 3; ++i)
        QVERIFY(run(QStringLiteral("SELECT '\\', ?")));
    QCOMPARE(questions(), before + 3);
    QVERIFY(run(QStringLiteral("SELECT 'none', ?")));
    QCOMPARE(questions(), before + 3);
}

void TestDriverOptions::settingsThatTheDriverNeedsAreKept_data()
{
    QTest::addColumn<QString>("sql");
    QTest::addColumn<QString>("refusal");
    const auto row = [](const char *sql, const char *refusal) {
        QTest::newRow(sql) << QString::fromUtf8(sql) << QString::fromUtf8(refusal);
    };
    for (const char *sql :
         {"SET DateStyle TO German", "set datestyle = 'Postgres, DMY'", "SET LOCAL DateStyle = SQL",
          "/* style */ SET SESSION \"DateStyle\" TO 'iso', 'german'"})
        row(sql, "ISO");
    for (const char *sql : {"set client_encoding = 'LATIN1'", "SET NAMES 'win1251'",
                            "SET SESSION client_encoding TO latin1"})
        row(sql, "UTF8");
    for (const char *sql :
         {"SET DateStyle TO 'ISO, DMY'", "SET DateStyle = ymd", "SET DateStyle TO DEFAULT",
          "SET client_encoding TO 'utf-8'", "SET NAMES 'UNICODE'", "SET NAMES DEFAULT",
          "SET application_name TO 'names'", "SET search_path TO names, sql",
          "SET search_path TO client_encoding", "SELECT set_config('DateStyle', 'German', false)",
          "SELECT set_config('client_encoding', 'LATIN1', false)"})
        row(sql, "");
}

void TestDriverOptions::settingsThatTheDriverNeedsAreKept()
{
    QFETCH(QString, sql);
    QFETCH(QString, refusal);
    USE_SYSTEM(m_systems, Postgres);
    QSqlDatabase db = database(Postgres);
    QVERIFY(db.open());
    const QString error = failure(db, sql);
    QVERIFY2(refusal.isEmpty() ? error.isEmpty() : error.contains(refusal), qPrintable(error));
    QSqlQuery query(db);
    QVERIFY(query.exec(QStringLiteral("SELECT '2024-05-06'::date, 'ß'")) && query.next());
    QCOMPARE(query.value(0).toDate(), QDate(2024, 5, 6));
    QCOMPARE(query.value(1).toString(), QStringLiteral("ß"));
}

void TestDriverOptions::datesOutsideOfQtsRangeAreRight_data()
{
    QTest::addColumn<QString>("expression");
    QTest::addColumn<QVariant>("expected");
    QTest::newRow("before Christ") << "'0044-03-15 BC'::date" << QVariant(QDate(-44, 3, 15));
    QTest::newRow("far") << "'12024-03-15'::date" << QVariant(QDate(12024, 3, 15));
    QTest::newRow("far timestamp")
        << "'12024-03-15 10:20:30.5'::timestamp"
        << QVariant(QDateTime(QDate(12024, 3, 15), QTime(10, 20, 30, 500)));
    QTest::newRow("timestamp before Christ")
        << "'0044-03-15 10:20:30.123456 BC'::timestamp"
        << QVariant(QDateTime(QDate(-44, 3, 15), QTime(10, 20, 30, 123)));
    const QDateTime far(QDate(12024, 3, 15), QTime(10, 20, 30), Qt::UTC);
    QTest::newRow("far timestamp with zone")
        << "'12024-03-15 10:20:30+00'::timestamptz" << QVariant(far.toLocalTime());
    QTest::newRow("xid") << "'4000000000'::xid" << QVariant(4000000000LL);
    QTest::newRow("plain date") << "'2024-03-15'::date" << QVariant(QDate(2024, 3, 15));
}

void TestDriverOptions::datesOutsideOfQtsRangeAreRight()
{
    QFETCH(QString, expression);
    QFETCH(QVariant, expected);
    USE_SYSTEM(m_systems, Postgres);
    QSqlDatabase db = database(Postgres);
    QVERIFY(db.open());
    for (const char *zone : {"UTC", "Asia/Kolkata", "America/St_Johns"}) {
        for (const bool forwardOnly : {true, false}) {
            QSqlQuery query(db);
            QVERIFY(query.exec(QStringLiteral("SET TIME ZONE '%1'").arg(QLatin1String(zone))));
            query.setForwardOnly(forwardOnly);
            QVERIFY(query.exec(QStringLiteral("SELECT ") + expression) && query.next());
            QCOMPARE(query.value(0), expected);
        }
    }
}

QTEST_GUILESS_MAIN(TestDriverOptions)

#include "test_driver_options.moc"
