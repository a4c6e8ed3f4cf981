/// @file
/// Errors through the layer, each provoked on each system: their type, code and state, and what
/// they leave of the connection and its transaction.

#include "layer_path.h"
#include "layered_systems.h"
#include "message_log.h"

#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QtTest>

namespace
{

/// One failing statement on the tables that makeTables() makes.
struct ErrorCase {
    const char *system;
    const char *what;
    const char *sql;
    const char *code;  ///< nativeErrorCode
    const char *state; ///< in parentheses at the end of databaseText
};

const char DuplicateKey[] = "INSERT INTO child VALUES (1, 1, 1)";
const char Null[] = "INSERT INTO child VALUES (2, NULL, 1)";
const char Check[] = "INSERT INTO child VALUES (2, 1, -1)";
const char ForeignKey[] = "INSERT INTO child VALUES (2, 77, 1)";
const char Syntax[] = "SELEC 1";
const char MissingTable[] = "SELECT 1 FROM nowhere";
const char DivisionByZero[] = "UPDATE child SET amount = 1 / 0";
const char LostElsewhere[] = "DO $$ BEGIN RAISE 'gone' USING ERRCODE = '08006'; END $$";
const char Protocol[] = "DO $$ BEGIN RAISE 'wrong' USING ERRCODE = '08P01'; END $$";

const ErrorCase Cases[] = {
    {"PostgreSQL", "duplicate key", DuplicateKey, "23505", "(23505)"},
    {"PostgreSQL", "null", Null, "23502", "(23502)"},
    {"PostgreSQL", "check", Check, "23514", "(23514)"},
    {"PostgreSQL", "foreign key", ForeignKey, "23503", "(23503)"},
    {"PostgreSQL", "syntax", Syntax, "42601", "(42601)"},
    {"PostgreSQL", "missing table", MissingTable, "42P01", "(42P01)"},
    {"PostgreSQL", "division by zero", DivisionByZero, "22012", "(22012)"},
    // A server reports what other servers do to it, and what is wrong with a message.
    {"PostgreSQL", "lost elsewhere", LostElsewhere, "08006", "(08006)"},
    {"PostgreSQL", "protocol", Protocol, "08P01", "(08P01)"},
    {"ODBC to PostgreSQL", "lost elsewhere", LostElsewhere, "08006", "(08006)"},
    {"ODBC to PostgreSQL", "protocol", Protocol, "08P01", "(08P01)"},
    {"MariaDB", "duplicate key", DuplicateKey, "1062", "(23000)"},
    {"MariaDB", "null", Null, "1048", "(23000)"},
    {"MariaDB", "check", Check, "4025", "(23000)"},
    {"MariaDB", "foreign key", ForeignKey, "1452", "(23000)"},
    {"MariaDB", "syntax", Syntax, "1064", "(42000)"},
    {"MariaDB", "missing table", MissingTable, "1146", "(42S02)"},
    {"MariaDB", "division by zero", DivisionByZero, "1365", "(22012)"},
    {"Firebird", "duplicate key", DuplicateKey, "23000", "(23000)"},
    {"Firebird", "null", Null, "23000", "(23000)"},
    {"Firebird", "check", Check, "23000", "(23000)"},
    {"Firebird", "foreign key", ForeignKey, "23000", "(23000)"},
    {"Firebird", "syntax", Syntax, "42000", "(42000)"},
    {"Firebird", "missing table", MissingTable, "42S02", "(42S02)"},
    {"Firebird", "division by zero", DivisionByZero, "22012", "(22012)"},
    {"SQLite file", "duplicate key", DuplicateKey, "19", ""},
    {"SQLite file", "null", Null, "19", ""},
    {"SQLite file", "check", Check, "19", ""},
    {"SQLite file", "foreign key", ForeignKey, "19", ""},
    {"SQLite file", "syntax", Syntax, "1", ""},
    {"SQLite file", "missing table", MissingTable, "1", ""},
    {"SQLite file", "full", "INSERT INTO child VALUES (2, 1, zeroblob(50000000))", "13", ""},
    {"ODBC to PostgreSQL", "duplicate key", DuplicateKey, "23505", "(23505)"},
    {"ODBC to PostgreSQL", "null", Null, "23502", "(23502)"},
    {"ODBC to PostgreSQL", "check", Check, "23514", "(23514)"},
    {"ODBC to PostgreSQL", "foreign key", ForeignKey, "23503", "(23503)"},
    {"ODBC to PostgreSQL", "syntax", Syntax, "42601", "(42601)"},
    {"ODBC to PostgreSQL", "missing table", MissingTable, "42P01", "(42P01)"},
    {"ODBC to PostgreSQL", "division by zero", DivisionByZero, "22012", "(22012)"},
    {"ODBC to SQLite", "duplicate key", DuplicateKey, "19", ""},
    {"ODBC to SQLite", "null", Null, "19", ""},
    {"ODBC to SQLite", "check", Check, "19", ""},
    {"ODBC to SQLite", "syntax", Syntax, "1", ""},
    {"ODBC to SQLite", "missing table", MissingTable, "1", ""},
};

} // namespace

class TestDriverErrors : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { useDriverLayer(); }
    void cleanup();

    void failedStatementIsToldAndLeavesTheRestAlone_data();
    void failedStatementIsToldAndLeavesTheRestAlone();
    void transactionThatTheDatabaseGaveUpIsTold_data();
    void transactionThatTheDatabaseGaveUpIsTold();
    void failedFirstStatementTakesNothingWithIt();
    void transactionThatSurvivedAFailureGoesOn();
    void commitOfAFailedTransactionIsNone_data();
    void commitOfAFailedTransactionIsNone();
    void closeGivesAnOpenTransactionUp_data();
    void closeGivesAnOpenTransactionUp();
    void transactionOfAnEarlierTextIsNotMissed();
    void lockThatIsNotFreedIsAStatementError_data();
    void lockThatIsNotFreedIsAStatementError();
    void readOnlyIsAStatementError_data();
    void readOnlyIsAStatementError();
    void connectionThatNeverCameHasTypeOne_data();
    void connectionThatNeverCameHasTypeOne();
    void statementTimeoutHasItsOwnText_data();
    void statementTimeoutHasItsOwnText();

private:
    QSqlDatabase open(ConnectionParameters parameters, const QString &options = {});
    QString failure(QSqlDatabase db, const QString &sql);
    QString value(QSqlDatabase db, const QString &sql);
    void makeTables(QSqlDatabase db, const QString &system);
    static void lossySystems();

    LayeredSystems m_systems;
    QStringList m_connections;
    QSqlError m_error; ///< of the last failure()
};

void TestDriverErrors::cleanup()
{
    for (const QString &name : qAsConst(m_connections)) {
        QSqlDatabase::database(name, false).close();
        QSqlDatabase::removeDatabase(name);
    }
    m_connections.clear();
}

QSqlDatabase TestDriverErrors::open(ConnectionParameters parameters, const QString &options)
{
    QStringList all{parameters.connectOptions, options};
    all.removeAll(QString());
    parameters.connectOptions = all.join(QLatin1Char(';'));
    m_connections.append(QStringLiteral("e%1").arg(m_connections.size()));
    QSqlDatabase db = parameters.database(m_connections.last());
    db.open();
    return db;
}

QString TestDriverErrors::failure(QSqlDatabase db, const QString &sql)
{
    QSqlQuery query(db);
    bool good = true;
    if (sql.contains(QLatin1Char('?'))) {
        good = query.prepare(sql);
        query.addBindValue(9);
        good = good && query.exec();
    } else {
        good = query.exec(sql);
    }
    good = good && (!query.isSelect() || query.next());
    m_error = query.lastError();
    return good ? QString() : m_error.text();
}

QString TestDriverErrors::value(QSqlDatabase db, const QString &sql)
{
    QSqlQuery query(db);
    if (!query.exec(sql) || !query.next())
        return query.lastError().text();
    return query.value(0).toString();
}

void TestDriverErrors::makeTables(QSqlDatabase db, const QString &system)
{
    QSqlQuery(db).exec(QStringLiteral("DROP TABLE child"));
    QSqlQuery(db).exec(QStringLiteral("DROP TABLE parent"));
    const QString engine =
        system == QLatin1String("MariaDB") ? QStringLiteral(" ENGINE=InnoDB") : QString();
    const QStringList setUp{
        QStringLiteral("CREATE TABLE parent (id INTEGER NOT NULL PRIMARY KEY)") + engine,
        QStringLiteral("CREATE TABLE child (id INTEGER NOT NULL PRIMARY KEY, parent INTEGER NOT "
                       "NULL REFERENCES parent(id), amount INTEGER CHECK (amount > 0))") +
            engine,
        QStringLiteral("INSERT INTO parent VALUES (1)"),
        QStringLiteral("INSERT INTO child VALUES (1, 1, 1)")};
    for (const QString &sql : setUp)
        QCOMPARE(failure(db, sql), QString());
    if (system == QLatin1String("SQLite file")) {
        QSqlQuery(db).exec(QStringLiteral("PRAGMA foreign_keys = ON"));
        QSqlQuery(db).exec(QStringLiteral("PRAGMA max_page_count = 50"));
    }
    if (system == QLatin1String("MariaDB"))
        QSqlQuery(db).exec(QStringLiteral("SET sql_mode = 'STRICT_ALL_TABLES,"
                                          "ERROR_FOR_DIVISION_BY_ZERO'"));
}

void TestDriverErrors::failedStatementIsToldAndLeavesTheRestAlone_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("sql");
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("state");
    for (const ErrorCase &c : Cases) {
        QTest::addRow("%s, %s", c.system, c.what)
            << QString::fromUtf8(c.system) << QString::fromUtf8(c.sql) << QString::fromUtf8(c.code)
            << QString::fromUtf8(c.state);
    }
}

void TestDriverErrors::failedStatementIsToldAndLeavesTheRestAlone()
{
    QFETCH(QString, system);
    QFETCH(QString, sql);
    QFETCH(QString, state);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = open(m_systems.get(system).parameters());
    makeTables(db, system);
    if (QTest::currentTestFailed())
        return;

    QVERIFY(db.transaction());
    QCOMPARE(failure(db, QStringLiteral("INSERT INTO parent VALUES (5)")), QString());
    QVERIFY(!failure(db, sql).isEmpty());
    QCOMPARE(m_error.type(), QSqlError::StatementError);
    QTEST(m_error.nativeErrorCode(), "code");
    QVERIFY2(m_error.databaseText().trimmed().endsWith(state), qPrintable(m_error.databaseText()));
    QVERIFY(db.isOpen());
    // PostgreSQL takes nothing but the end of a transaction in which a statement has failed. Its
    // ODBC driver goes back to before the statement, and gives all up behind a text that cannot be
    // parsed; a full SQLite has undone it.
    const bool undone =
        m_error.nativeErrorCode() == QLatin1String("13") ||
        (system == QLatin1String("ODBC to PostgreSQL") && sql == QLatin1String(Syntax));
    const bool ends = undone || system == QLatin1String("PostgreSQL");
    const QString next = failure(db, QStringLiteral("INSERT INTO parent VALUES (6)"));
    QCOMPARE(next.isEmpty(), !ends);
    QCOMPARE(next.contains(QLatin1String("rolled back")), undone);
    QVERIFY(ends ? db.rollback() : db.commit());
    const int parents = ends ? 1 : 3;
    QCOMPARE(value(db, QStringLiteral("SELECT COUNT(*) FROM parent")), QString::number(parents));
    QCOMPARE(value(db, QStringLiteral("SELECT COUNT(*) FROM child")), QStringLiteral("1"));
}

// --- Transactions that are given up ---

/// Systems that end a transaction behind some failed statements, and such a statement of each.
void TestDriverErrors::lossySystems()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("sql");
    const char *rollback = "INSERT OR ROLLBACK INTO parent VALUES (1)";
    QTest::newRow("SQLite file") << "SQLite file" << rollback;
    QTest::newRow("ODBC to SQLite") << "ODBC to SQLite" << rollback;
    QTest::newRow("ODBC to PostgreSQL") << "ODBC to PostgreSQL" << Syntax;
}

void TestDriverErrors::transactionThatTheDatabaseGaveUpIsTold_data()
{
    lossySystems();
}

/// Begun and ended by the driver's commands and by texts, and in the other order.
void TestDriverErrors::transactionThatTheDatabaseGaveUpIsTold()
{
    QFETCH(QString, system);
    QFETCH(QString, sql);
    USE_SYSTEM(m_systems, system);
    for (const bool byText : {false, true}) {
        for (const bool commits : {false, true}) {
            QSqlDatabase db = open(m_systems.get(system).parameters());
            makeTables(db, system);
            if (QTest::currentTestFailed())
                return;
            const auto end = [&] {
                const QString word =
                    commits ? QStringLiteral("COMMIT") : QStringLiteral("ROLLBACK");
                if (byText)
                    return failure(db, word).isEmpty();
                return commits ? db.commit() : db.rollback();
            };
            QVERIFY(byText ? failure(db, QStringLiteral("BEGIN")).isEmpty() : db.transaction());
            QCOMPARE(failure(db, QStringLiteral("INSERT INTO parent VALUES (5)")), QString());
            QVERIFY(!failure(db, sql).isEmpty());
            QVERIFY(!m_error.text().contains(QLatin1String("rolled back when")));
            for (int i = 0; i < 2; ++i)
                QVERIFY(failure(db, QStringLiteral("INSERT INTO parent VALUES (6)"))
                            .contains(QLatin1String("rolled back when")));
            QCOMPARE(m_error.type(), QSqlError::StatementError);
            QCOMPARE(end(), !commits);

            // Each statement is on its own again, and the next transaction like any other.
            QCOMPARE(failure(db, QStringLiteral("INSERT INTO parent VALUES (7)")), QString());
            QVERIFY(db.transaction());
            QCOMPARE(failure(db, QStringLiteral("INSERT INTO parent VALUES (8)")), QString());
            QVERIFY(db.rollback());
            const QSqlDatabase other = open(m_systems.get(system).parameters());
            QCOMPARE(value(other, QStringLiteral("SELECT SUM(id) FROM parent")),
                     QStringLiteral("8"));
        }
    }
}

/// PostgreSQL's ODBC driver begins with the first statement that works.
void TestDriverErrors::failedFirstStatementTakesNothingWithIt()
{
    const QString system = QStringLiteral("ODBC to PostgreSQL");
    const QString sql = QString::fromLatin1(Syntax);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = open(m_systems.get(system).parameters());
    makeTables(db, system);
    if (QTest::currentTestFailed())
        return;
    QVERIFY(!failure(db, sql).isEmpty());
    QCOMPARE(failure(db, QStringLiteral("INSERT INTO parent VALUES (4)")), QString());
    QVERIFY(db.transaction());
    QVERIFY(!failure(db, sql).isEmpty());
    QCOMPARE(failure(db, QStringLiteral("INSERT INTO parent VALUES (5)")), QString());
    QVERIFY(db.commit());
    QVERIFY(!failure(db, sql).isEmpty());
    QCOMPARE(value(db, QStringLiteral("SELECT SUM(id) FROM parent")), QStringLiteral("10"));
}

/// A text with values is parsed behind the savepoint to which PostgreSQL's ODBC driver goes back.
void TestDriverErrors::transactionThatSurvivedAFailureGoesOn()
{
    const QString system = QStringLiteral("ODBC to PostgreSQL");
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = open(m_systems.get(system).parameters());
    makeTables(db, system);
    if (QTest::currentTestFailed())
        return;
    QVERIFY(db.transaction());
    QCOMPARE(failure(db, QStringLiteral("INSERT INTO parent VALUES (5)")), QString());
    for (const char *wrong : {"INSERT INTO parent VALUS (?)", "INSERT INTO nowhere VALUES (1)"})
        QVERIFY(!failure(db, QString::fromLatin1(wrong)).isEmpty());
    QCOMPARE(failure(db, QStringLiteral("INSERT INTO parent VALUES (6)")), QString());
    QVERIFY(db.commit());
    QCOMPARE(value(db, QStringLiteral("SELECT SUM(id) FROM parent")), QStringLiteral("12"));
}

void TestDriverErrors::commitOfAFailedTransactionIsNone_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<bool>("savepoint");
    for (const char *system : {"PostgreSQL", "ODBC to PostgreSQL"}) {
        QTest::addRow("%s", system) << QString::fromLatin1(system) << false;
        QTest::addRow("%s, savepoint", system) << QString::fromLatin1(system) << true;
    }
}

/// The server rolls such a transaction back, and calls that a success. Its ODBC driver goes back to
/// a savepoint of its own behind each failure, unless it is told otherwise.
void TestDriverErrors::commitOfAFailedTransactionIsNone()
{
    QFETCH(QString, system);
    QFETCH(bool, savepoint);
    USE_SYSTEM(m_systems, system);
    ConnectionParameters parameters = m_systems.get(system).parameters();
    if (parameters.driverName == QLatin1String("QODBC"))
        parameters.databaseName += QStringLiteral(";Protocol=7.4-0");
    QSqlDatabase db = open(parameters);
    makeTables(db, system);
    if (QTest::currentTestFailed())
        return;
    const QString change = QStringLiteral("UPDATE child SET amount = amount + 1");
    QVERIFY(db.transaction());
    QCOMPARE(failure(db, change), QString());
    QCOMPARE(failure(db, QStringLiteral("SAVEPOINT before")), QString());
    QVERIFY(!failure(db, QStringLiteral("SELECT 1 / 0")).isEmpty());
    if (savepoint)
        QCOMPARE(failure(db, QStringLiteral("ROLLBACK TO SAVEPOINT before")), QString());

    QCOMPARE(db.commit(), savepoint);
    if (!savepoint)
        QCOMPARE(db.lastError().type(), QSqlError::TransactionError);
    const QString kept = savepoint ? QStringLiteral("2") : QStringLiteral("1");
    QCOMPARE(value(db, QStringLiteral("SELECT amount FROM child")), kept);
    QVERIFY(db.transaction());
    QCOMPARE(failure(db, change), QString());
    QVERIFY(db.commit());
}

void TestDriverErrors::closeGivesAnOpenTransactionUp_data()
{
    QTest::addColumn<QString>("system");
    for (const QString &system : LayeredSystems::names())
        QTest::newRow(qPrintable(system)) << system;
}

void TestDriverErrors::closeGivesAnOpenTransactionUp()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    const ConnectionParameters parameters = m_systems.get(system).parameters();
    QSqlDatabase db = open(parameters);
    makeTables(db, system);
    if (QTest::currentTestFailed())
        return;
    QVERIFY(db.transaction());
    QCOMPARE(failure(db, QStringLiteral("INSERT INTO parent VALUES (5)")), QString());
    const MessageLog log;
    db.close();
    VERIFY_NO_QT_COMPLAINTS(log);
    QVERIFY(db.open());
    QCOMPARE(failure(db, QStringLiteral("INSERT INTO parent VALUES (6)")), QString());
    QCOMPARE(value(open(parameters), QStringLiteral("SELECT SUM(id) FROM parent")),
             QStringLiteral("7"));
}

void TestDriverErrors::transactionOfAnEarlierTextIsNotMissed()
{
    const QString system = QStringLiteral("ODBC to PostgreSQL");
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = open(m_systems.get(system).parameters());
    makeTables(db, system);
    if (QTest::currentTestFailed())
        return;
    QCOMPARE(failure(db, QStringLiteral("BEGIN; INSERT INTO parent VALUES (5); COMMIT")),
             QString());
    QVERIFY(!failure(db, QString::fromLatin1(Syntax)).isEmpty());
    QCOMPARE(failure(db, QStringLiteral("INSERT INTO parent VALUES (6)")), QString());
    QCOMPARE(failure(db, QStringLiteral("BEGIN; INSERT INTO parent VALUES (7)")), QString());
    QVERIFY(!failure(db, QString::fromLatin1(Syntax)).isEmpty());
    QVERIFY(!failure(db, QStringLiteral("INSERT INTO parent VALUES (8)")).isEmpty());
    QCOMPARE(failure(db, QStringLiteral("ROLLBACK")), QString());
    QCOMPARE(value(db, QStringLiteral("SELECT SUM(id) FROM parent")), QStringLiteral("12"));
}

void TestDriverErrors::lockThatIsNotFreedIsAStatementError_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("setting");
    QTest::addColumn<QString>("options");
    QTest::addColumn<QString>("code");
    const QString none;
    QTest::newRow("PostgreSQL") << "PostgreSQL"
                                << "SET lock_timeout = 100" << none << "55P03";
    QTest::newRow("MariaDB") << "MariaDB"
                             << "SET innodb_lock_wait_timeout = 1" << none << "1205";
    QTest::newRow("SQLite file") << "SQLite file" << none << "QSQLITE_BUSY_TIMEOUT=100"
                                 << "5";
    QTest::newRow("ODBC to PostgreSQL") << "ODBC to PostgreSQL"
                                        << "SET lock_timeout = 100" << none << "55P03";
}

void TestDriverErrors::lockThatIsNotFreedIsAStatementError()
{
    QFETCH(QString, system);
    QFETCH(QString, setting);
    QFETCH(QString, options);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase holder = open(m_systems.get(system).parameters());
    makeTables(holder, system);
    if (QTest::currentTestFailed())
        return;
    QSqlDatabase db = open(m_systems.get(system).parameters(), options);
    if (!setting.isEmpty())
        QCOMPARE(failure(db, setting), QString());
    const QString change = QStringLiteral("UPDATE child SET amount = amount + 1");
    QVERIFY(holder.transaction());
    QCOMPARE(failure(holder, change), QString());

    QVERIFY(!failure(db, change).isEmpty());
    QCOMPARE(m_error.type(), QSqlError::StatementError);
    QTEST(m_error.nativeErrorCode(), "code");
    QVERIFY(!m_error.text().startsWith(QLatin1String("cancelled")));
    QVERIFY(db.isOpen());
    QVERIFY(holder.rollback());
    QCOMPARE(failure(db, change), QString());
    QCOMPARE(value(db, QStringLiteral("SELECT amount FROM child")), QStringLiteral("2"));
}

void TestDriverErrors::readOnlyIsAStatementError_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("setting");
    QTest::addColumn<QString>("code");
    const QString session = QStringLiteral("SET SESSION CHARACTERISTICS AS TRANSACTION READ ONLY");
    QTest::newRow("PostgreSQL") << "PostgreSQL" << session << "25006";
    QTest::newRow("MariaDB") << "MariaDB"
                             << "SET SESSION TRANSACTION READ ONLY"
                             << "1792";
    QTest::newRow("SQLite file") << "SQLite file"
                                 << "PRAGMA query_only = ON"
                                 << "8";
    QTest::newRow("ODBC to PostgreSQL") << "ODBC to PostgreSQL" << session << "25006";
}

void TestDriverErrors::readOnlyIsAStatementError()
{
    QFETCH(QString, system);
    QFETCH(QString, setting);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = open(m_systems.get(system).parameters());
    makeTables(db, system);
    if (QTest::currentTestFailed())
        return;
    failure(db, setting);
    QVERIFY(!failure(db, QStringLiteral("INSERT INTO parent VALUES (5)")).isEmpty());
    QCOMPARE(m_error.type(), QSqlError::StatementError);
    QTEST(m_error.nativeErrorCode(), "code");
    QVERIFY(db.isOpen());
    QCOMPARE(value(db, QStringLiteral("SELECT COUNT(*) FROM parent")), QStringLiteral("1"));
}

void TestDriverErrors::connectionThatNeverCameHasTypeOne_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("what");
    for (const char *system : {"PostgreSQL", "MariaDB"}) {
        for (const char *what : {"password", "server", "database"})
            QTest::addRow("%s, %s", system, what)
                << QString::fromUtf8(system) << QString::fromUtf8(what);
    }
    for (const char *system : {"Firebird", "SQLite file", "ODBC to PostgreSQL", "ODBC to SQLite"})
        QTest::addRow("%s, database", system)
            << QString::fromUtf8(system) << QStringLiteral("database");
}

void TestDriverErrors::connectionThatNeverCameHasTypeOne()
{
    QFETCH(QString, system);
    QFETCH(QString, what);
    USE_SYSTEM(m_systems, system);
    ConnectionParameters parameters = m_systems.get(system).parameters();
    if (what == QLatin1String("database")) {
        parameters.databaseName = QStringLiteral("/no such/place");
    } else {
        parameters.hostName = QStringLiteral("127.0.0.1");
        parameters.connectOptions.clear();
        if (system == QLatin1String("MariaDB"))
            parameters.port = m_systems.mariadb().port();
        if (what == QLatin1String("server"))
            parameters.port = 1; // nothing listens there
        else
            parameters.password = QStringLiteral("not the one");
    }
    const QSqlDatabase db = open(parameters);
    QVERIFY(!db.isOpen());
    QCOMPARE(db.lastError().type(), QSqlError::ConnectionError);
    QVERIFY(!db.lastError().text().trimmed().isEmpty());
    QVERIFY(!db.lastError().text().contains(QLatin1String("not the one")));
}

void TestDriverErrors::statementTimeoutHasItsOwnText_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("sql");
    QTest::addColumn<QString>("part");
    const QString own = QStringLiteral("the statement took longer than 300 ms");
    QTest::newRow("PostgreSQL") << "PostgreSQL"
                                << "SELECT pg_sleep(30)"
                                << "statement timeout";
    QTest::newRow("MariaDB") << "MariaDB"
                             << "SELECT SLEEP(30)"
                             << "max_statement_time";
    QTest::newRow("ODBC to PostgreSQL") << "ODBC to PostgreSQL"
                                        << "SELECT pg_sleep(30)" << own;
    const QString endless = QStringLiteral(
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT COUNT(*) FROM n");
    QTest::newRow("SQLite file") << "SQLite file" << endless << own;
    QTest::newRow("ODBC to SQLite") << "ODBC to SQLite" << endless << own;
    QTest::newRow("Firebird")
        << "Firebird"
        << "SELECT COUNT(*) FROM rdb$fields a, rdb$fields b, rdb$fields c, rdb$fields d" << own;
}

void TestDriverErrors::statementTimeoutHasItsOwnText()
{
    QFETCH(QString, system);
    QFETCH(QString, sql);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db =
        open(m_systems.get(system).parameters(), QStringLiteral("VEXT_STATEMENT_TIMEOUT=300"));
    QVERIFY2(db.isOpen(), qPrintable(db.lastError().text()));
    const QString error = failure(db, sql);
    QCOMPARE(m_error.type(), QSqlError::StatementError);
    QFETCH(QString, part);
    QVERIFY2(error.contains(part), qPrintable(error));
    QVERIFY2(!error.contains(QLatin1String("cancelled")), qPrintable(error));
    QVERIFY(db.isOpen());
    QCOMPARE(value(db, LayeredSystems::selectWithoutTable(system, QStringLiteral("7"))),
             QStringLiteral("7"));
}

QTEST_GUILESS_MAIN(TestDriverErrors)
#include "test_driver_errors.moc"
