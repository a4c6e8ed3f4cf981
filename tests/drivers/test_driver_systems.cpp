/// @file
/// What the layer gives alike on MariaDB, Firebird and ODBC, and what it cures on each of them.

#include "deadline.h"
#include "layer_path.h"
#include "layered_systems.h"

#include <QElapsedTimer>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QtTest>

#include <thread>

namespace
{

QString utf8(const char *text)
{
    return QString::fromUtf8(text);
}

const char MariaDb[] = "MariaDB";
const char Firebird[] = "Firebird";
const char OdbcPostgres[] = "ODBC to PostgreSQL";
const char OdbcSqlite[] = "ODBC to SQLite";

/// QIBASE warns of a statement without rows to count.
QString changed(const QSqlQuery &query, const QString &sql)
{
    const bool counts =
        sql.startsWith(QLatin1String("INSERT")) || sql.startsWith(QLatin1String("UPDATE"));
    return QStringLiteral("changed: %1").arg(counts ? query.numRowsAffected() : 0);
}

/// Longest time that a cancelled statement may take on a busy machine.
constexpr int CancelMs = 5000;
constexpr int AskAfterMs = 150;

} // namespace

class TestDriverSystems : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void errorHasTypeTwoAndItsState_data();
    void errorHasTypeTwoAndItsState();
    void refusedConnectionHasTypeOne_data() { everySystem(); }
    void refusedConnectionHasTypeOne();
    void cancelEndsTheStatement_data();
    void cancelEndsTheStatement();
    void cancelEndsTheWaitForALock_data() { everySystem(); }
    void cancelEndsTheWaitForALock();
    void cancelWithoutAStatementDoesNothing_data() { everySystem(); }
    void cancelWithoutAStatementDoesNothing();
    void everyScriptSurvivesTheRoundTrip_data() { everySystem(); }
    void everyScriptSurvivesTheRoundTrip();
    void exactNumbersKeepEveryDigit_data();
    void exactNumbersKeepEveryDigit();
    void longStatementEndsByItsTimeout_data() { everySystem(); }
    void longStatementEndsByItsTimeout();
    void wrongOptionKeepsTheConnectionClosed_data() { everySystem(); }
    void wrongOptionKeepsTheConnectionClosed();

    void firebirdTextsOfFixedLengthHaveTheirLength();
    void firebirdRefusesForUpdate();
    void firebirdProcedureWithoutOutputHasNoRows();
    void firebirdCancelLeavesNoTransactionBehind();
    void mariaDbProcedureTakesEveryValue();
    void mariaDbKeptStatementFollowsItsTable();
    void mariaDbLossIsSeenAndReopened();
    void odbcSqliteSeesWhatOthersChange();
    void odbcLossHasTypeOne();

private:
    void everySystem();
    QSqlDatabase open(const QString &system, const QString &options = QString());
    QString answer(QSqlQuery &query, const QString &sql);
    QString bound(QSqlQuery &query, const QString &sql, const QVariantList &values);
    QString afterCancel(QSqlDatabase db, const QString &sql, qint64 *ms);
    void fill(QSqlQuery &query);

    LayeredSystems m_systems;
    QStringList m_connections;
};

void TestDriverSystems::initTestCase()
{
    useDriverLayer();
}

void TestDriverSystems::cleanup()
{
    for (const QString &name : qAsConst(m_connections)) {
        QSqlDatabase::database(name, false).close();
        QSqlDatabase::removeDatabase(name);
    }
    m_connections.clear();
}

void TestDriverSystems::everySystem()
{
    QTest::addColumn<QString>("system");
    for (const char *system : {MariaDb, Firebird, OdbcPostgres, OdbcSqlite})
        QTest::newRow(system) << utf8(system);
}

QSqlDatabase TestDriverSystems::open(const QString &system, const QString &options)
{
    ConnectionParameters parameters = m_systems.get(system).parameters();
    if (!options.isEmpty())
        parameters.connectOptions += QLatin1Char(';') + options;
    const QString name = QStringLiteral("c%1").arg(m_connections.size());
    m_connections.append(name);
    QSqlDatabase db = parameters.database(name);
    db.open();
    return db;
}

/// The first column of all rows, "changed: N", or "error: TEXT".
QString TestDriverSystems::answer(QSqlQuery &query, const QString &sql)
{
    const auto error = [&query] { return QStringLiteral("error: ") + query.lastError().text(); };
    if (!query.exec(sql))
        return error();
    QStringList rows;
    while (query.next())
        rows.append(query.value(0).toString());
    if (query.lastError().isValid())
        return error();
    if (!query.isSelect())
        return changed(query, sql);
    return rows.join(QLatin1Char(';'));
}

QString TestDriverSystems::bound(QSqlQuery &query, const QString &sql, const QVariantList &values)
{
    if (!query.prepare(sql))
        return QStringLiteral("error: ") + query.lastError().text();
    for (const QVariant &value : values)
        query.addBindValue(value);
    if (!query.exec())
        return QStringLiteral("error: ") + query.lastError().text();
    QStringList rows;
    while (query.next())
        rows.append(query.value(0).toString());
    return rows.join(QLatin1Char(';'));
}

/// A table of 2,000 rows, whose third power nobody can count.
void TestDriverSystems::fill(QSqlQuery &query)
{
    query.exec(QStringLiteral("DROP TABLE big"));
    QCOMPARE(answer(query, QStringLiteral("CREATE TABLE big (id INTEGER)")).left(5),
             QStringLiteral("chang"));
    answer(query, QStringLiteral("INSERT INTO big VALUES (1)"));
    for (int i = 0; i < 11; ++i)
        answer(query, QStringLiteral("INSERT INTO big SELECT id + 1 FROM big"));
    QCOMPARE(answer(query, QStringLiteral("SELECT COUNT(*) FROM big")), QStringLiteral("2048"));
}

/// Runs a statement that another thread cancels a little later.
QString TestDriverSystems::afterCancel(QSqlDatabase db, const QString &sql, qint64 *ms)
{
    QSqlQuery query(db);
    query.setForwardOnly(true);
    QSqlDriver *driver = db.driver();
    std::thread other([driver] {
        std::this_thread::sleep_for(std::chrono::milliseconds(AskAfterMs));
        driver->cancelQuery();
    });
    QElapsedTimer timer;
    timer.start();
    const QString outcome = answer(query, sql);
    *ms = timer.elapsed();
    other.join();
    return outcome;
}

// --- Errors ---

void TestDriverSystems::errorHasTypeTwoAndItsState_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("sql");
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("ending");
    const auto row = [](const char *system, const char *what, const char *sql, const char *code,
                        const char *ending) {
        QTest::addRow("%s, %s", system, what)
            << utf8(system) << utf8(sql) << utf8(code) << utf8(ending);
    };
    const char *duplicate = "INSERT INTO e VALUES (1, 1)";
    const char *missing = "SELECT 1 FROM nowhere";
    const char *syntax = "SELEC 1";
    const char *null = "INSERT INTO e VALUES (2, NULL)";
    row(MariaDb, "duplicate key", duplicate, "1062", "(23000)");
    row(MariaDb, "missing table", missing, "1146", "(42S02)");
    row(MariaDb, "syntax", syntax, "1064", "(42000)");
    row(MariaDb, "null", null, "1048", "(23000)");
    row(Firebird, "duplicate key", duplicate, "23000", "(23000)");
    row(Firebird, "missing table", missing, "42S02", "(42S02)");
    row(Firebird, "syntax", syntax, "42000", "(42000)");
    row(Firebird, "null", null, "23000", "(23000)");
    row(Firebird, "division by zero", "UPDATE e SET x = 1 / 0", "22012", "(22012)");
    row(Firebird, "conversion", "UPDATE e SET x = 'y'", "22018", "(22018)");
    row(OdbcPostgres, "duplicate key", duplicate, "23505", "(23505)");
    row(OdbcPostgres, "missing table", missing, "42P01", "(42P01)");
    row(OdbcPostgres, "syntax", syntax, "42601", "(42601)");
    row(OdbcPostgres, "null", null, "23502", "(23502)");
    row(OdbcSqlite, "duplicate key", duplicate, "19", "(19)");
    row(OdbcSqlite, "missing table", missing, "1", "(1)");
    row(OdbcSqlite, "syntax", syntax, "1", "(1)");
    row(OdbcSqlite, "null", null, "19", "(19)");
}

void TestDriverSystems::errorHasTypeTwoAndItsState()
{
    QFETCH(QString, system);
    QFETCH(QString, sql);
    QFETCH(QString, ending);
    USE_SYSTEM(m_systems, system);
    const QSqlDatabase db = open(system);
    QSqlQuery query(db);
    query.exec(QStringLiteral("DROP TABLE e"));
    answer(query, QStringLiteral("CREATE TABLE e (id INTEGER NOT NULL PRIMARY KEY, "
                                 "x INTEGER NOT NULL)"));
    answer(query, QStringLiteral("INSERT INTO e VALUES (1, 1)"));

    QVERIFY(answer(query, sql).startsWith(QLatin1String("error: ")));
    QCOMPARE(query.lastError().type(), QSqlError::StatementError);
    QTEST(query.lastError().nativeErrorCode(), "code");
    QVERIFY2(query.lastError().databaseText().trimmed().endsWith(ending),
             qPrintable(query.lastError().databaseText()));
    QVERIFY(db.isOpen());
    QCOMPARE(answer(query, QStringLiteral("SELECT id FROM e")), QStringLiteral("1"));
}

void TestDriverSystems::refusedConnectionHasTypeOne()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    ConnectionParameters parameters = m_systems.get(system).parameters();
    parameters.databaseName = QStringLiteral("/no such/place");
    QSqlDatabase db = parameters.database(QStringLiteral("refused"));
    const bool opened = db.open();
    const QSqlError error = db.lastError();
    db = QSqlDatabase();
    QSqlDatabase::removeDatabase(QStringLiteral("refused"));
    QVERIFY(!opened);
    QCOMPARE(error.type(), QSqlError::ConnectionError);
    QVERIFY(!error.text().trimmed().isEmpty());
}

// --- Cancelling ---

void TestDriverSystems::cancelEndsTheStatement_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("sql");
    for (const char *system : {MariaDb, Firebird, OdbcPostgres, OdbcSqlite}) {
        const auto row = [system](const char *what, const char *sql) {
            QTest::addRow("%s, %s", system, what) << utf8(system) << utf8(sql);
        };
        row("query", "SELECT COUNT(*) FROM big a, big b, big c WHERE a.id + b.id + c.id = -1");
        row("rows that never come",
            "SELECT a.id FROM big a, big b, big c WHERE a.id + b.id + c.id = -1");
        row("endless rows", "SELECT a.id FROM big a, big b, big c");
        row("change", "UPDATE big SET id = (SELECT COUNT(*) FROM big a, big b, big c "
                      "WHERE a.id + b.id + c.id = -1)");
    }
    QTest::addRow("%s, sleep", MariaDb) << utf8(MariaDb) << QStringLiteral("SELECT SLEEP(60)");
    QTest::addRow("%s, sleep", OdbcPostgres)
        << utf8(OdbcPostgres) << QStringLiteral("SELECT pg_sleep(60)");
}

void TestDriverSystems::cancelEndsTheStatement()
{
    QFETCH(QString, system);
    QFETCH(QString, sql);
    USE_SYSTEM(m_systems, system);
    const QSqlDatabase db = open(system);
    QVERIFY(db.driver()->hasFeature(QSqlDriver::CancelQuery));
    QSqlQuery query(db);
    fill(query);
    if (QTest::currentTestFailed())
        return;

    qint64 ms = 0;
    const QString outcome = afterCancel(db, sql, &ms);
    QVERIFY2(outcome.startsWith(QLatin1String("error: cancelled")), qPrintable(outcome));
    QVERIFY2(ms < scaledMs(CancelMs), qPrintable(QString::number(ms)));
    QVERIFY(db.isOpen());
    QCOMPARE(answer(query, QStringLiteral("SELECT COUNT(*) FROM big")), QStringLiteral("2048"));
}

void TestDriverSystems::cancelEndsTheWaitForALock()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    const QSqlDatabase db = open(system);
    QSqlQuery query(db);
    query.exec(QStringLiteral("DROP TABLE locked"));
    answer(query, QStringLiteral("CREATE TABLE locked (id INTEGER PRIMARY KEY, x INTEGER)"));
    answer(query, QStringLiteral("INSERT INTO locked VALUES (1, 1)"));
    const QString change = QStringLiteral("UPDATE locked SET x = x + 1 WHERE id = 1");

    QSqlDatabase holder = open(system);
    QVERIFY(holder.transaction());
    QSqlQuery held(holder);
    QVERIFY2(held.exec(change), qPrintable(held.lastError().text()));
    qint64 ms = 0;
    const QString outcome = afterCancel(db, change, &ms);
    QVERIFY2(outcome.startsWith(QLatin1String("error: cancelled")), qPrintable(outcome));
    QVERIFY2(ms < scaledMs(CancelMs), qPrintable(QString::number(ms)));
    held.finish();
    QVERIFY(holder.rollback());
    QCOMPARE(answer(query, change), QStringLiteral("changed: 1"));
    QCOMPARE(answer(query, QStringLiteral("SELECT x FROM locked")), QStringLiteral("2"));
}

void TestDriverSystems::cancelWithoutAStatementDoesNothing()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    const QSqlDatabase db = open(system);
    QSqlQuery query(db);
    const QString one = LayeredSystems::selectWithoutTable(system, QStringLiteral("1"));
    for (int round = 0; round < 50; ++round) {
        db.driver()->cancelQuery();
        QCOMPARE(answer(query, one), QStringLiteral("1"));
    }
}

// --- The session ---

void TestDriverSystems::everyScriptSurvivesTheRoundTrip()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    const QSqlDatabase db = open(system);
    QSqlQuery query(db);
    query.exec(QStringLiteral("DROP TABLE names"));
    QVERIFY(answer(query, utf8("CREATE TABLE names (id INTEGER PRIMARY KEY, \"имя\" VARCHAR(80))")
                              .replace(QLatin1Char('"'),
                                       QLatin1Char(system == QLatin1String(MariaDb) ? '`' : '"')))
                .startsWith(QLatin1String("changed")));
    const QString text = utf8("Привет, 世界, it's \\ \U0001F600");
    const QString plain = utf8("Привет, 世界");
    QCOMPARE(bound(query, QStringLiteral("INSERT INTO names VALUES (?, ?)"), {1.0, text}),
             QString());
    QCOMPARE(answer(query, QStringLiteral("INSERT INTO names VALUES (2, '%1')").arg(plain)),
             QStringLiteral("changed: 1"));
    QCOMPARE(bound(query, QStringLiteral("INSERT INTO names VALUES (:id, :text)"),
                   {3, QVariant(QVariant::String)}),
             QString());

    QVERIFY(query.exec(QStringLiteral("SELECT * FROM names ORDER BY id")));
    QCOMPARE(query.record().fieldName(1), utf8("имя"));
    QVERIFY(query.next());
    QCOMPARE(query.value(1).toString(), text);
    QVERIFY(query.next());
    QCOMPARE(query.value(1).toString(), plain);
    QVERIFY(query.next());
    QVERIFY(query.isNull(1));
}

void TestDriverSystems::exactNumbersKeepEveryDigit_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("number");
    QTest::addColumn<QVariant>("exact");
    const auto row = [](const char *system, const char *type, const char *number,
                        const QVariant &exact) {
        QTest::addRow("%s, %s %s", system, type, number)
            << utf8(system) << utf8(type) << utf8(number) << exact;
    };
    for (const char *system : {MariaDb, Firebird, OdbcPostgres, OdbcSqlite}) {
        row(system, "BIGINT", "9007199254740991", qlonglong(9007199254740991));
        row(system, "BIGINT", "9007199254740993", QStringLiteral("9007199254740993"));
        row(system, "BIGINT", "-9223372036854775807", QStringLiteral("-9223372036854775807"));
        row(system, "DOUBLE PRECISION", "0.5", 0.5);
    }
    for (const char *system : {MariaDb, OdbcPostgres}) {
        row(system, "DECIMAL(30,5)", "1234567890123456789012345.12345",
            QStringLiteral("1234567890123456789012345.12345"));
    }
}

void TestDriverSystems::exactNumbersKeepEveryDigit()
{
    QFETCH(QString, system);
    QFETCH(QString, type);
    QFETCH(QString, number);
    QFETCH(QVariant, exact);
    USE_SYSTEM(m_systems, system);
    QSqlQuery query(open(system, QStringLiteral("VEXT_EXACT_NUMBERS=1")));
    query.exec(QStringLiteral("DROP TABLE numbers"));
    answer(query, QStringLiteral("CREATE TABLE numbers (a %1)").arg(type));
    QCOMPARE(answer(query, QStringLiteral("INSERT INTO numbers VALUES (%1)").arg(number)),
             QStringLiteral("changed: 1"));
    QVERIFY(query.exec(QStringLiteral("SELECT a FROM numbers")));
    QVERIFY(query.next());
    QCOMPARE(query.value(0).userType(), exact.userType());
    QCOMPARE(query.value(0), exact);
    QSqlQuery plain(open(system));
    QVERIFY(plain.exec(QStringLiteral("SELECT a FROM numbers")));
    QVERIFY(plain.next());
    QVERIFY(plain.value(0).userType() != QMetaType::QString);
}

void TestDriverSystems::longStatementEndsByItsTimeout()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    const QSqlDatabase db = open(system, QStringLiteral("VEXT_STATEMENT_TIMEOUT=300"));
    QSqlQuery query(db);
    fill(query);
    if (QTest::currentTestFailed())
        return;
    QElapsedTimer timer;
    timer.start();
    const QString outcome = answer(
        query,
        QStringLiteral("SELECT COUNT(*) FROM big a, big b, big c WHERE a.id + b.id + c.id = -1"));
    QVERIFY2(outcome.startsWith(QLatin1String("error: ")), qPrintable(outcome));
    QVERIFY2(!outcome.contains(QLatin1String("cancelled")), qPrintable(outcome));
    QCOMPARE(query.lastError().type(), QSqlError::StatementError);
    QVERIFY(timer.elapsed() >= 250);
    QVERIFY(timer.elapsed() < scaledMs(CancelMs));
    QCOMPARE(answer(query, QStringLiteral("SELECT COUNT(*) FROM big")), QStringLiteral("2048"));
}

void TestDriverSystems::wrongOptionKeepsTheConnectionClosed()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    for (const char *option : {"VEXT_NONSENSE=1", "VEXT_STATEMENT_TIMEOUT=soon"}) {
        const QSqlDatabase db = open(system, utf8(option));
        QVERIFY(!db.isOpen());
        QCOMPARE(db.lastError().type(), QSqlError::ConnectionError);
        QVERIFY2(db.lastError().text().contains(utf8(option).section(QLatin1Char('='), 0, 0)),
                 qPrintable(db.lastError().text()));
    }
    QVERIFY(open(system, QStringLiteral("VEXT_CONNECT_TIMEOUT=5000;VEXT_STATEMENT_TIMEOUT=0"))
                .isOpen());
}

// --- Firebird ---

void TestDriverSystems::firebirdTextsOfFixedLengthHaveTheirLength()
{
    USE_SYSTEM(m_systems, utf8(Firebird));
    QSqlQuery query(open(utf8(Firebird)));
    query.exec(QStringLiteral("DROP TABLE fixed"));
    answer(query, QStringLiteral("CREATE TABLE fixed (a CHAR(5))"));
    for (const char *text : {"ab", "\U0001F600", "abcde"})
        bound(query, QStringLiteral("INSERT INTO fixed VALUES (?)"), {utf8(text)});
    QCOMPARE(answer(query, QStringLiteral("SELECT a FROM fixed")),
             utf8("ab   ;\U0001F600    ;abcde"));
}

void TestDriverSystems::firebirdRefusesForUpdate()
{
    USE_SYSTEM(m_systems, utf8(Firebird));
    QSqlQuery query(open(utf8(Firebird)));
    query.exec(QStringLiteral("DROP TABLE fixed"));
    answer(query, QStringLiteral("CREATE TABLE fixed (a CHAR(5))"));
    const QString refused = answer(query, QStringLiteral("SELECT a FROM fixed FOR UPDATE"));
    QVERIFY2(refused.startsWith(QLatin1String("error: ")), qPrintable(refused));
    QCOMPARE(answer(query, QStringLiteral("SELECT 'FOR UPDATE' FROM rdb$database")),
             QStringLiteral("FOR UPDATE"));
}

void TestDriverSystems::firebirdProcedureWithoutOutputHasNoRows()
{
    USE_SYSTEM(m_systems, utf8(Firebird));
    QSqlQuery query(open(utf8(Firebird)));
    QVERIFY(query.exec(QStringLiteral("EXECUTE BLOCK AS DECLARE i INTEGER; BEGIN i = 1; END")));
    QVERIFY(!query.isSelect());
    QVERIFY(!query.next());
}

void TestDriverSystems::firebirdCancelLeavesNoTransactionBehind()
{
    USE_SYSTEM(m_systems, utf8(Firebird));
    const QSqlDatabase db = open(utf8(Firebird));
    QSqlQuery query(db);
    fill(query);
    if (QTest::currentTestFailed())
        return;
    std::atomic<bool> stop{false};
    QSqlDriver *driver = db.driver();
    std::thread other([&stop, driver] {
        while (!stop) {
            driver->cancelQuery();
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    int changed = 0;
    for (int round = 0; round < 400; ++round) {
        const bool done = query.exec(QStringLiteral("UPDATE big SET id = id WHERE id = 1"));
        changed += done ? 1 : 0;
    }
    stop = true;
    other.join();
    query = QSqlQuery(db);
    QCOMPARE(answer(query, QStringLiteral("SELECT COUNT(*) FROM mon$transactions "
                                          "WHERE mon$attachment_id = CURRENT_CONNECTION")),
             QStringLiteral("1"));
    QSqlQuery second(open(utf8(Firebird)));
    QVERIFY(answer(second, QStringLiteral("UPDATE big SET id = id WHERE id = 1"))
                .startsWith(QLatin1String("changed")));
}

// --- MariaDB ---

void TestDriverSystems::mariaDbProcedureTakesEveryValue()
{
    USE_SYSTEM(m_systems, utf8(MariaDb));
    QSqlQuery query(open(utf8(MariaDb)));
    query.exec(QStringLiteral("DROP PROCEDURE joined"));
    answer(query, QStringLiteral("CREATE PROCEDURE joined(a DOUBLE, b VARCHAR(80) CHARACTER SET "
                                 "utf8mb4, c DATETIME(3)) SELECT CONCAT_WS('|', a, b, c)"));
    const QDateTime time(QDate(2020, 2, 3), QTime(4, 5, 6, 789));
    const QString call = QStringLiteral("CALL joined(?, ?, ?)");
    for (const char *mode : {"", "NO_BACKSLASH_ESCAPES"}) {
        answer(query, QStringLiteral("SET sql_mode = '%1'").arg(utf8(mode)));
        QCOMPARE(bound(query, call, {0.1, utf8("it's \\ \U0001F600 ?"), time}),
                 utf8("0.1|it's \\ \U0001F600 ?|2020-02-03 04:05:06.789"));
        QCOMPARE(bound(query, call, {QVariant(QVariant::Double), utf8("\\' OR 1"), time}),
                 utf8("\\' OR 1|2020-02-03 04:05:06.789"));
    }
    QCOMPARE(bound(query, QStringLiteral("SHOW VARIABLES LIKE :name"),
                   {QStringLiteral("character_set_client")}),
             QStringLiteral("character_set_client"));
    QVERIFY(bound(query, call, {qInf(), 1, time}).startsWith(QLatin1String("error: ")));
}

void TestDriverSystems::mariaDbKeptStatementFollowsItsTable()
{
    USE_SYSTEM(m_systems, utf8(MariaDb));
    QSqlQuery query(open(utf8(MariaDb)));
    const QString insert = QStringLiteral("INSERT INTO kept (a) VALUES (?)");
    const QString all = QStringLiteral("SELECT COUNT(*) FROM kept");
    query.exec(QStringLiteral("DROP TABLE kept"));
    query.exec(QStringLiteral("DROP DATABASE elsewhere"));
    const QString create = QStringLiteral("CREATE TABLE kept (a INTEGER)");
    const QString changes[] = {QStringLiteral("ALTER TABLE kept ADD COLUMN b INTEGER"),
                               QStringLiteral("ALTER TABLE kept MODIFY a VARCHAR(10)"),
                               QStringLiteral("DROP TABLE kept"),
                               QStringLiteral("CREATE DATABASE elsewhere"),
                               QStringLiteral("USE elsewhere"),
                               create};
    answer(query, create);
    for (const QString &change : changes) {
        for (int round = 0; round < 2; ++round)
            bound(query, insert, {round});
        QVERIFY2(!answer(query, change).startsWith(QLatin1String("error")), qPrintable(change));
        if (change == changes[2])
            answer(query, create);
    }
    QCOMPARE(bound(query, insert, {1}), QString());
    QCOMPARE(answer(query, all), QStringLiteral("1"));
}

void TestDriverSystems::mariaDbLossIsSeenAndReopened()
{
    USE_SYSTEM(m_systems, utf8(MariaDb));
    QSqlDatabase idle = open(utf8(MariaDb));
    QSqlDatabase busy = open(utf8(MariaDb));
    QVERIFY(busy.transaction());
    QSqlQuery query(busy);
    QCOMPARE(answer(query, QStringLiteral("SELECT 1")), QStringLiteral("1"));
    QVERIFY(m_systems.mariadb().kill());

    QTRY_VERIFY(!idle.isOpen());
    QVERIFY(busy.isOpen()); // its next statement tells that the transaction is gone
    QVERIFY(answer(query, QStringLiteral("SELECT 1")).startsWith(QLatin1String("error: ")));
    QCOMPARE(query.lastError().type(), QSqlError::ConnectionError);
    QVERIFY(!busy.isOpen());

    QVERIFY(m_systems.mariadb().startAgain());
    query = QSqlQuery();
    idle.close();
    QVERIFY2(idle.open(), qPrintable(idle.lastError().text()));
    QSqlQuery again(idle);
    QCOMPARE(answer(again, QStringLiteral("SELECT 2")), QStringLiteral("2"));
}

// --- ODBC ---

void TestDriverSystems::odbcSqliteSeesWhatOthersChange()
{
    USE_SYSTEM(m_systems, utf8(OdbcSqlite));
    QSqlQuery query(open(utf8(OdbcSqlite)));
    QSqlQuery other(open(utf8(OdbcSqlite)));
    const QString select = QStringLiteral("SELECT * FROM shape");
    query.exec(QStringLiteral("DROP TABLE shape"));
    answer(query, QStringLiteral("CREATE TABLE shape (a INTEGER)"));
    answer(query, QStringLiteral("INSERT INTO shape VALUES (1)"));
    for (int columns = 2; columns < 6; ++columns) {
        QCOMPARE(answer(query, select), QStringLiteral("1"));
        const QString change =
            QStringLiteral("ALTER TABLE shape ADD COLUMN c%1 INTEGER").arg(columns);
        QVERIFY(!answer(other, change).startsWith(QLatin1String("error")));
        QVERIFY(query.exec(select));
        QCOMPARE(query.record().count(), columns);
        query.finish();
        QCOMPARE(bound(query, QStringLiteral("SELECT * FROM shape WHERE a = ?"), {1}),
                 QStringLiteral("1"));
        QCOMPARE(query.record().count(), columns);
    }
}

void TestDriverSystems::odbcLossHasTypeOne()
{
    USE_SYSTEM(m_systems, utf8(OdbcPostgres));
    QSqlDatabase db = open(utf8(OdbcPostgres));
    QVERIFY(db.transaction()); // elsewhere a look finds the loss before a statement is sent
    QSqlQuery query(db);
    QCOMPARE(answer(query, QStringLiteral("SELECT 1")), QStringLiteral("1"));
    QVERIFY(m_systems.postgres().shutDown(PostgresServer::Shutdown::Immediate));
    QVERIFY(answer(query, QStringLiteral("SELECT 1")).startsWith(QLatin1String("error: ")));
    QCOMPARE(query.lastError().type(), QSqlError::ConnectionError);
    QVERIFY(!db.isOpen());
    QVERIFY(m_systems.postgres().startAgain());
    query = QSqlQuery();
    db.close();
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    QSqlQuery again(db);
    QCOMPARE(answer(again, QStringLiteral("SELECT 2")), QStringLiteral("2"));
}

QTEST_GUILESS_MAIN(TestDriverSystems)

#include "test_driver_systems.moc"
