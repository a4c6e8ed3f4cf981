/// @file
/// One suite of statements, types and errors over every driver, in both threads.

#include "database_script.h"
#include "driver_differences.h"
#include "driver_layer.h"
#include "local_databases.h"
#include "mariadb_server.h"
#include "postgres_server.h"

#include <QtTest>

#include <ctime>
#include <map>

Q_DECLARE_METATYPE(Way)

namespace
{

const Way BothWays[] = {Way::Here, Way::Thread};

/// The databases of the suite, started on first use, each with one open script connection.
class Databases
{
public:
    Databases()
    {
        add(&m_postgres);
        add(&m_mariadb);
        add(&m_firebird);
        add(&m_sqliteFile);
        add(&m_sqliteMemory);
        add(&m_odbcPostgres);
        add(&m_odbcSqlite);
    }

    TestDatabase &get(const QString &name) { return *m_all.at(name); }
    bool has(const QString &name) const { return m_all.count(name) != 0; }

    /// @return whether the database runs; a reason when it cannot on this machine, an error when
    /// it should but does not
    bool started(const QString &name, QString *reason, QString *error)
    {
        TestDatabase &database = get(name);
        if (!database.available(reason))
            return false;
        const auto known = m_started.find(name);
        if (known != m_started.end())
            return known->second;
        const bool overPostgres = &database == &m_odbcPostgres;
        bool done = !overPostgres || started(m_postgres.name(), reason, error);
        done = done && database.start();
        if (!done)
            *error = database.error();
        m_started[name] = done;
        return done;
    }

private:
    void add(TestDatabase *database) { m_all[database->name()] = database; }

    PostgresServer m_postgres;
    MariaDbServer m_mariadb;
    FirebirdDatabase m_firebird;
    SqliteDatabase m_sqliteFile{SqliteDatabase::Place::File};
    SqliteDatabase m_sqliteMemory{SqliteDatabase::Place::Memory};
    OdbcSource m_odbcPostgres{OdbcSource::Behind::PostgreSql, &m_postgres};
    OdbcSource m_odbcSqlite{OdbcSource::Behind::Sqlite};
    std::map<QString, TestDatabase *> m_all;
    std::map<QString, bool> m_started;
};

const DriverTraits &traitsOf(const QString &database)
{
    for (const DriverTraits &traits : driverTraits()) {
        if (database == QLatin1String(traits.database))
            return traits;
    }
    qFatal("no traits for %s", qPrintable(database));
}

QString utf8(const char *text)
{
    return QString::fromUtf8(text);
}

} // namespace

/// Skips the row whose server is missing; fails it when the server does not start.
#define USE_DATABASE(name)                                                                         \
    do {                                                                                           \
        QString reason_;                                                                           \
        QString error_;                                                                            \
        if (!m_databases->started(name, &reason_, &error_)) {                                      \
            if (!reason_.isEmpty())                                                                \
                QSKIP(qPrintable(reason_));                                                        \
            QFAIL(qPrintable(error_));                                                             \
        }                                                                                          \
    } while (false)

class TestServerDrivers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void valueArrivesAsTheTableTells_data();
    void valueArrivesAsTheTableTells();
    void errorArrivesAsTheTableTells_data();
    void errorArrivesAsTheTableTells();
    void failedStatementLeavesTheNextOneIntact_data() { errorArrivesAsTheTableTells_data(); }
    void failedStatementLeavesTheNextOneIntact();
    void oddityIsAsThePageTells_data();
    void oddityIsAsThePageTells();
    void lastInsertIdIsTheDriversOwn_data() { everyDriverBothWays(); }
    void lastInsertIdIsTheDriversOwn();
    void affectedRowsCountChangedRows_data() { everyDriverBothWays(); }
    void affectedRowsCountChangedRows();
    void columnNamesFollowTheDatabase_data() { everyDriverBothWays(); }
    void columnNamesFollowTheDatabase();
    void nullsAreToldApartFromEmptyTexts_data() { everyDriverBothWays(); }
    void nullsAreToldApartFromEmptyTexts();
    void nullNumbersReadAsZeroWithoutEnableNull_data() { everyDriverBothWays(); }
    void nullNumbersReadAsZeroWithoutEnableNull();
    void insertReturningDeliversItsRowOnce_data() { everyDriverBothWays(); }
    void insertReturningDeliversItsRowOnce();
    void manyRowsArriveInOrder_data() { everyDriverBothWays(); }
    void manyRowsArriveInOrder();
    void emptyResultHasColumnsAndNoRows_data() { everyDriverBothWays(); }
    void emptyResultHasColumnsAndNoRows();
    void listOfStatementsFillsOneResultEach_data() { everyDriver(); }
    void listOfStatementsFillsOneResultEach();
    void rollbackUndoesTheMainConnectionsWork_data() { everyDriver(); }
    void rollbackUndoesTheMainConnectionsWork();
    void transactionWordsRuleTheThreadConnection_data() { everyDriver(); }
    void transactionWordsRuleTheThreadConnection();
    void tablesAreListedByKind_data() { everyDriver(); }
    void tablesAreListedByKind();
    void wrongDatabaseIsAConnectionError_data() { everyDriver(); }
    void wrongDatabaseIsAConnectionError();
    void connectionReopensAfterClose_data() { everyDriver(); }
    void connectionReopensAfterClose();

private:
    void everyDriver();
    void everyDriverBothWays();
    bool connectTo(const QString &database);
    /// A new table with one row (1, 'x'). @return its name, empty when that failed
    QString makeItems(Way way);

    std::unique_ptr<Databases> m_databases;
    std::unique_ptr<DatabaseScript> m_script;
    DriverTraits m_traits{};
    int m_tables = 0;
};

void TestServerDrivers::initTestCase()
{
    // A zone without summer time, other than the servers', shows who converts what.
    qputenv("TZ", "MSK-3");
    tzset();
    m_databases = std::make_unique<Databases>();
}

void TestServerDrivers::cleanupTestCase()
{
    m_databases.reset();
}

void TestServerDrivers::init()
{
    m_script = std::make_unique<DatabaseScript>();
}

void TestServerDrivers::cleanup()
{
    m_script.reset();
}

void TestServerDrivers::everyDriver()
{
    QTest::addColumn<QString>("database");
    for (const DriverTraits &traits : driverTraits())
        QTest::newRow(traits.database) << utf8(traits.database);
}

void TestServerDrivers::everyDriverBothWays()
{
    QTest::addColumn<QString>("database");
    QTest::addColumn<Way>("way");
    for (const DriverTraits &traits : driverTraits()) {
        for (const Way way : BothWays) {
            if (way == Way::Thread && !traits.ownThreadConnection)
                continue; // each memory connection has a database of its own
            QTest::addRow("%s, %s", traits.database, qPrintable(wayName(way)))
                << utf8(traits.database) << way;
        }
    }
}

bool TestServerDrivers::connectTo(const QString &database)
{
    m_traits = traitsOf(database);
    return m_script->open(QStringLiteral("db"), m_databases->get(database).parameters());
}

QString TestServerDrivers::makeItems(Way way)
{
    const QString table = QStringLiteral("item%1").arg(++m_tables);
    const QString insert = QStringLiteral("INSERT INTO %1 (a, b) VALUES (1, 'x')").arg(table);
    const bool done =
        m_script->mustRun(way, QStringLiteral("db"), utf8(m_traits.createItem).arg(table)) &&
        m_script->mustRun(way, QStringLiteral("db"), insert);
    return done ? table : QString();
}

void TestServerDrivers::valueArrivesAsTheTableTells_data()
{
    QTest::addColumn<QString>("database");
    QTest::addColumn<Way>("way");
    QTest::addColumn<QString>("sql");
    QTest::addColumn<QString>("script");
    QTest::addColumn<QString>("type");
    for (const TypeCase &c : typeCases()) {
        for (const Way way : BothWays) {
            QTest::addRow("%s, %s, %s", c.database, c.what, qPrintable(wayName(way)))
                << utf8(c.database) << way << utf8(c.sql) << utf8(c.script) << utf8(c.type);
        }
    }
}

void TestServerDrivers::valueArrivesAsTheTableTells()
{
    QFETCH(QString, database);
    QFETCH(Way, way);
    QFETCH(QString, sql);
    QFETCH(QString, script);
    QFETCH(QString, type);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));

    QVERIFY(m_script->mustRun(way, QStringLiteral("db"), sql));
    QCOMPARE(m_script->eval(QStringLiteral("rows(answer.result)")).toString(), script);
    QCOMPARE(m_script->eval(QStringLiteral("answer.result.fields_typeN[0]")).toString(), type);
    const bool isNull = script == QLatin1String("null");
    QCOMPARE(m_script->text(QStringLiteral("answer.result.fields_nulls[0]")),
             isNull ? QStringLiteral("array:number:0") : QStringLiteral("array:"));
}

void TestServerDrivers::errorArrivesAsTheTableTells_data()
{
    QTest::addColumn<QString>("database");
    QTest::addColumn<Way>("way");
    QTest::addColumn<QString>("sql");
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("number");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("staysOpen");
    const bool layered = driverLayerInUse();
    for (const ErrorCase &c : errorCases()) {
        for (const Way way : BothWays) {
            QTest::addRow("%s, %s, %s", c.database, c.what, qPrintable(wayName(way)))
                << utf8(c.database) << way << utf8(c.sql)
                << (layered ? int(QSqlError::StatementError) : c.type)
                << (layered ? c.layeredNumber : c.number) << utf8(c.text)
                << (layered || c.staysOpen);
        }
    }
}

void TestServerDrivers::errorArrivesAsTheTableTells()
{
    QFETCH(QString, database);
    QFETCH(Way, way);
    QFETCH(QString, sql);
    QFETCH(int, type);
    QFETCH(int, number);
    QFETCH(QString, text);
    QFETCH(bool, staysOpen);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    const QString table = makeItems(way);
    QVERIFY(!table.isEmpty());
    const QString statement = sql.contains(QLatin1String("%1")) ? sql.arg(table) : sql;

    QVERIFY2(!m_script->ask(way, QStringLiteral("db"), statement), qPrintable(statement));
    const QString told = m_script->eval(QStringLiteral("String(answer.error)")).toString();
    if (way == Way::Thread) {
        QVERIFY2(told.contains(text), qPrintable(told));
        QCOMPARE(m_script->text(QStringLiteral("db.isOpen")), QStringLiteral("boolean:true"));
        return;
    }
    QCOMPARE(m_script->text(QStringLiteral("answer.result")), QStringLiteral("boolean:false"));
    QCOMPARE(m_script->text(QStringLiteral("db.isOpen")),
             staysOpen ? QStringLiteral("boolean:true") : QStringLiteral("boolean:false"));
    if (!staysOpen)
        return; // closing the connection has emptied the error
    QVERIFY2(told.contains(text), qPrintable(told));
    QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.type")).toInt32(), type);
    QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.number")).toInt32(), number);
}

void TestServerDrivers::failedStatementLeavesTheNextOneIntact()
{
    QFETCH(QString, database);
    QFETCH(Way, way);
    QFETCH(QString, sql);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    const QString table = makeItems(way);
    QVERIFY(!table.isEmpty());
    const QString statement = sql.contains(QLatin1String("%1")) ? sql.arg(table) : sql;

    QVERIFY2(!m_script->ask(way, QStringLiteral("db"), statement), qPrintable(statement));
    m_script->eval(QStringLiteral("if (!db.isOpen) db.open()"));
    QFETCH(int, type);
    if (type == QSqlError::ConnectionError) // ends the worker, which the next task starts again
        QVERIFY(m_script->waitFor(QStringLiteral("!db.isRunning")));
    QCOMPARE(m_script->rows(way, QStringLiteral("db"), QStringLiteral("SELECT a FROM ") + table),
             QStringLiteral("number:1"));
}

void TestServerDrivers::oddityIsAsThePageTells_data()
{
    QTest::addColumn<QString>("database");
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("seen");
    for (const OddityCase &c : oddityCases())
        QTest::addRow("%s, %s", c.database, c.what)
            << utf8(c.database) << utf8(c.code) << utf8(driverLayerInUse() ? c.layered : c.seen);
}

void TestServerDrivers::oddityIsAsThePageTells()
{
    QFETCH(QString, database);
    QFETCH(QString, code);
    QFETCH(QString, seen);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    m_script->eval(QStringLiteral(
        "function seen(outcome) { return outcome ? rows(outcome) : 'error: ' + db.lastError; }"
        "function run() { for (var i = 0; i < arguments.length; ++i)"
        "    if (!db.query(arguments[i])) throw new Error(arguments[i] + ': ' + db.lastError); }"));
    QCOMPARE(m_script->eval(code).toString(), seen);
}

void TestServerDrivers::lastInsertIdIsTheDriversOwn()
{
    QFETCH(QString, database);
    QFETCH(Way, way);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));

    QVERIFY(!makeItems(way).isEmpty());
    QCOMPARE(m_script->text(QStringLiteral("answer.result.lastInsertId")),
             utf8(m_traits.lastInsertId));
}

void TestServerDrivers::affectedRowsCountChangedRows()
{
    QFETCH(QString, database);
    QFETCH(Way, way);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    const QString table = makeItems(way);
    QVERIFY(!table.isEmpty());
    QCOMPARE(m_script->text(QStringLiteral("answer.result.numRowsAffected")),
             QStringLiteral("number:1"));
    QVERIFY(m_script->mustRun(way, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO %1 (a, b) VALUES (2, 'y')").arg(table)));

    QVERIFY(m_script->mustRun(way, QStringLiteral("db"),
                              QStringLiteral("UPDATE %1 SET b = 'z'").arg(table)));
    QCOMPARE(m_script->text(QStringLiteral("answer.result.numRowsAffected")),
             QStringLiteral("number:2"));
    QVERIFY(m_script->mustRun(way, QStringLiteral("db"),
                              QStringLiteral("DELETE FROM %1 WHERE a = 77").arg(table)));
    QCOMPARE(m_script->text(QStringLiteral("answer.result.numRowsAffected")),
             QStringLiteral("number:0"));
    QVERIFY(m_script->mustRun(way, QStringLiteral("db"),
                              QStringLiteral("SELECT a FROM %1 WHERE a = 1").arg(table)));
    QCOMPARE(m_script->text(QStringLiteral("answer.result.numRowsAffected")),
             QStringLiteral("number:") + utf8(m_traits.affectedBySelect));
}

void TestServerDrivers::columnNamesFollowTheDatabase()
{
    QFETCH(QString, database);
    QFETCH(Way, way);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));

    const QString sql = QStringLiteral("SELECT 1 AS MixedCase") + utf8(m_traits.selectOne);
    QVERIFY(m_script->mustRun(way, QStringLiteral("db"), sql));
    const QString name = utf8(m_traits.mixedCaseColumn);
    QCOMPARE(m_script->text(QStringLiteral("answer.result.fields_names")),
             QStringLiteral("array:string:") + name);
    QCOMPARE(m_script->text(QStringLiteral("answer.result.%1").arg(name)),
             QStringLiteral("array:number:1"));
}

void TestServerDrivers::nullsAreToldApartFromEmptyTexts()
{
    QFETCH(QString, database);
    QFETCH(Way, way);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    const QString table = makeItems(way);
    QVERIFY(!table.isEmpty());

    for (const char *row : {"(2, '')", "(3, NULL)"}) {
        QVERIFY(m_script->mustRun(
            way, QStringLiteral("db"),
            QStringLiteral("INSERT INTO %1 (a, b) VALUES %2").arg(table, utf8(row))));
    }
    QCOMPARE(m_script->rows(way, QStringLiteral("db"),
                            QStringLiteral("SELECT b FROM %1 ORDER BY a").arg(table)),
             QStringLiteral("string:x;string:;null"));
    QCOMPARE(m_script->text(QStringLiteral("answer.result.fields_nulls[0]")),
             QStringLiteral("array:number:2"));
}

void TestServerDrivers::nullNumbersReadAsZeroWithoutEnableNull()
{
    QFETCH(QString, database);
    QFETCH(Way, way);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    const QString table = makeItems(way);
    QVERIFY(!table.isEmpty());
    QVERIFY(
        m_script->mustRun(way, QStringLiteral("db"),
                          QStringLiteral("INSERT INTO %1 (a, b) VALUES (NULL, 'n')").arg(table)));
    m_script->eval(QStringLiteral("db.enableNull = false"));

    QVERIFY(m_script->mustRun(way, QStringLiteral("db"),
                              QStringLiteral("SELECT a FROM %1 ORDER BY b DESC").arg(table)));
    QCOMPARE(m_script->text(QStringLiteral("answer.result.fields_nulls[0]")),
             QStringLiteral("array:number:1"));
    // Firebird's and SQLite's drivers hand a NULL over without the column's type.
    const QString value = m_script->text(QStringLiteral("answer.result.fields_index[0][1]"));
    const QString expected = database == QLatin1String("Firebird") ? QStringLiteral("undefined")
                             : database.startsWith(QLatin1String("SQL"))
                                 ? QStringLiteral("string:")
                                 : QStringLiteral("number:0");
    QCOMPARE(value, expected);
}

void TestServerDrivers::insertReturningDeliversItsRowOnce()
{
    QFETCH(QString, database);
    QFETCH(Way, way);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    const QString table = makeItems(way);
    QVERIFY(!table.isEmpty());
    QCOMPARE(m_script->rows(
                 way, QStringLiteral("db"),
                 QStringLiteral("INSERT INTO %1 (a, b) VALUES (5, 'r') RETURNING a").arg(table)),
             m_traits.returningHasRows ? QStringLiteral("number:5") : QString());
    QCOMPARE(
        m_script->rows(way, QStringLiteral("db"), QStringLiteral("SELECT COUNT(*) FROM ") + table),
        QStringLiteral("number:2"));
}

void TestServerDrivers::manyRowsArriveInOrder()
{
    QFETCH(QString, database);
    QFETCH(Way, way);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    const QString table = makeItems(way);
    QVERIFY(!table.isEmpty());
    // 1, 2, 4 ... 8192 rows, doubled by the database itself.
    const QString grow = QStringLiteral("INSERT INTO %1 (a, b) SELECT a + %2, b FROM %1");
    constexpr int Rows = 8192;
    for (int step = 1; step < Rows; step *= 2)
        QVERIFY(m_script->mustRun(way, QStringLiteral("db"), grow.arg(table).arg(step)));

    QVERIFY(m_script->mustRun(way, QStringLiteral("db"),
                              QStringLiteral("SELECT a FROM %1 ORDER BY a").arg(table)));
    QCOMPARE(m_script->eval(QStringLiteral("answer.result.rows")).toInt32(), Rows);
    QVERIFY(m_script->isTrue(QStringLiteral(
        "answer.result.fields_index[0].every(function (v, i) { return v === i + 1; })")));
}

void TestServerDrivers::emptyResultHasColumnsAndNoRows()
{
    QFETCH(QString, database);
    QFETCH(Way, way);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    const QString table = makeItems(way);
    QVERIFY(!table.isEmpty());

    QVERIFY(m_script->mustRun(way, QStringLiteral("db"),
                              QStringLiteral("SELECT a, b FROM %1 WHERE a = 99").arg(table)));
    QCOMPARE(m_script->eval(QStringLiteral("answer.result.fields")).toInt32(), 2);
    QCOMPARE(m_script->eval(QStringLiteral("answer.result.rows")).toInt32(), 0);
    QCOMPARE(m_script->text(QStringLiteral("answer.result.fields_index[0]")),
             QStringLiteral("array:"));
}

void TestServerDrivers::listOfStatementsFillsOneResultEach()
{
    QFETCH(QString, database);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));

    const QString from = utf8(m_traits.selectOne);
    m_script->eval(QStringLiteral("db.query_thread(keep('list'), ['SELECT 1%1', 'SELEC', "
                                  "'SELECT 3%1'])")
                       .arg(from));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QCOMPARE(m_script->eval(QStringLiteral("rows(delivered[0].result[0])")).toString(),
             QStringLiteral("number:1"));
    QCOMPARE(m_script->eval(QStringLiteral("rows(delivered[0].result[2])")).toString(),
             QStringLiteral("number:3"));
    QCOMPARE(m_script->text(QStringLiteral("delivered[0].error.map(function (e) { return e === "
                                           "false; })")),
             QStringLiteral("array:boolean:true,boolean:false,boolean:true"));
}

void TestServerDrivers::rollbackUndoesTheMainConnectionsWork()
{
    QFETCH(QString, database);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    const QString table = makeItems(Way::Here);
    QVERIFY(!table.isEmpty());
    const QString insert = QStringLiteral("INSERT INTO %1 (a, b) VALUES (2, 'y')").arg(table);
    const QString count = QStringLiteral("SELECT COUNT(*) FROM ") + table;

    QVERIFY(m_script->isTrue(QStringLiteral("db.transaction()")));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), insert));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rollback()")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"), count), QStringLiteral("number:1"));

    QVERIFY(m_script->isTrue(QStringLiteral("db.transaction()")));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), insert));
    QVERIFY(m_script->isTrue(QStringLiteral("db.commit()")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"), count), QStringLiteral("number:2"));
}

void TestServerDrivers::transactionWordsRuleTheThreadConnection()
{
    QFETCH(QString, database);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    if (!m_traits.ownThreadConnection)
        QSKIP("each memory connection has a database of its own");
    const QString table = makeItems(Way::Thread);
    QVERIFY(!table.isEmpty());
    const QString insert = QStringLiteral("INSERT INTO %1 (a, b) VALUES (2, 'y')").arg(table);
    const QString count = QStringLiteral("SELECT COUNT(*) FROM ") + table;

    // The worker runs already, so transaction() reaches its connection too.
    QVERIFY(m_script->isTrue(QStringLiteral("db.transaction()")));
    m_script->eval(
        QStringLiteral("db.query_thread(keep('undone'), [\"%1\", 'rollback'])").arg(insert));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rollback()")));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), count), QStringLiteral("number:1"));

    QVERIFY(m_script->isTrue(QStringLiteral("db.transaction()")));
    m_script->eval(QStringLiteral("db.query_thread(keep('kept'), [\"%1\", 'commit'])").arg(insert));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 2")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.commit()")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"), count), QStringLiteral("number:2"));
}

void TestServerDrivers::tablesAreListedByKind()
{
    QFETCH(QString, database);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    const QString table = makeItems(Way::Here);
    QVERIFY(!table.isEmpty());
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("CREATE VIEW v%1 AS SELECT a FROM %1").arg(table)));

    const QString lists = QStringLiteral("db.queryResult.TABLES.some(function (name) { return "
                                         "name.toLowerCase().replace('public.', '') === '%1'; })");
    QVERIFY(m_script->isTrue(QStringLiteral("db.tables()")));
    QVERIFY(m_script->isTrue(lists.arg(table)));
    QVERIFY(!m_script->isTrue(lists.arg(QStringLiteral("v") + table)));
    QVERIFY(m_script->isTrue(QStringLiteral("db.tables(4)")));
    QVERIFY(!m_script->isTrue(lists.arg(table)));
    QVERIFY(m_script->isTrue(lists.arg(QStringLiteral("v") + table)));
}

void TestServerDrivers::wrongDatabaseIsAConnectionError()
{
    QFETCH(QString, database);
    USE_DATABASE(database);
    ConnectionParameters wrong = m_databases->get(database).parameters();
    wrong.databaseName = QStringLiteral("/no/such/place/database");
    if (database == QLatin1String("ODBC to SQLite"))
        wrong.databaseName = QStringLiteral("NoSuchSource");
    m_script->declare(QStringLiteral("bad"), wrong);

    QVERIFY(!m_script->isTrue(QStringLiteral("bad.open()")));
    QCOMPARE(m_script->text(QStringLiteral("bad.lastErrors.typeStr")),
             QStringLiteral("string:ConnectionError)"));
    QVERIFY(m_script->isTrue(QStringLiteral("bad.lastError.length > 0 && !bad.isOpen")));
    QVERIFY(m_script->isTrue(QStringLiteral("bad.query_thread('SELECT 1') === false")));
}

void TestServerDrivers::connectionReopensAfterClose()
{
    QFETCH(QString, database);
    USE_DATABASE(database);
    QVERIFY(connectTo(database));
    const QString one = QStringLiteral("SELECT 1") + utf8(m_traits.selectOne);
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), one), QStringLiteral("number:1"));

    QVERIFY(m_script->isTrue(QStringLiteral("db.close()")));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.close()")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.query('SELECT 1') === false")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"), one), QStringLiteral("number:1"));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), one), QStringLiteral("number:1"));
}

QTEST_GUILESS_MAIN(TestServerDrivers)
#include "test_server_drivers.moc"
