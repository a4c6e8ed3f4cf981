/// @file
/// Statements that the layer keeps prepared end with their session: once the connection was opened
/// anew, in whatever way, they are neither used nor left behind.

#include "database_script.h"
#include "deadline.h"
#include "layer_path.h"
#include "layered_systems.h"

#include <QDir>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QtTest>

namespace
{

const QString Connection = QStringLiteral("reopened");
const QString Other = QStringLiteral("other");
const QString Postgres = QStringLiteral("PostgreSQL");
const QString MariaDb = QStringLiteral("MariaDB");
const QString OdbcPostgres = QStringLiteral("ODBC to PostgreSQL");
const QString FirebirdOverTcp = QStringLiteral("Firebird server");

const QString Select = QStringLiteral("SELECT a FROM reopened_rows WHERE id = ?");
const QString Update = QStringLiteral("UPDATE reopened_rows SET a = ? WHERE id = ?");

/// How a session ends, and the next one begins.
const QString Closed = QStringLiteral("closed and opened");
const QString OpenedAgain = QStringLiteral("opened again");
const QString OpenedInTime = QStringLiteral("opened again within a time");
const QString Stopped = QStringLiteral("stopped and started");
const QString Lost = QStringLiteral("lost");

bool isLostByItself(const QString &system)
{
    return system.startsWith(QLatin1String("SQLite")) || system == QLatin1String("Firebird") ||
           system == QLatin1String("ODBC to SQLite");
}

/// What one text with values gives, in a query of its own; the error's text where it fails.
QString answer(const QSqlDatabase &db, const QString &sql, const QVariantList &values = {})
{
    QSqlQuery query(db);
    query.setForwardOnly(true);
    query.prepare(sql);
    for (const QVariant &value : values)
        query.addBindValue(value);
    if (!query.exec())
        return QStringLiteral("error: ") + query.lastError().databaseText();
    return query.next() ? query.value(0).toString() : QString();
}

/// How many files of SQLite the process has open.
int openFiles()
{
    const QFileInfoList all = QDir(QStringLiteral("/proc/self/fd"))
                                  .entryInfoList(QDir::AllEntries | QDir::System | QDir::Hidden);
    int count = 0;
    for (const QFileInfo &one : all)
        count += one.symLinkTarget().endsWith(QLatin1String(".sqlite")) ? 1 : 0;
    return count;
}

/// What the sessions of a system take there: their number, and of the statements that they hold.
QString footprint(const QString &system, const QSqlDatabase &db)
{
    if (system.endsWith(QLatin1String("PostgreSQL")))
        return answer(db, QStringLiteral("SELECT count(*) FROM pg_stat_activity "
                                         "WHERE backend_type = 'client backend'"));
    if (system == MariaDb)
        return answer(
            db, QStringLiteral("SELECT CONCAT((SELECT variable_value FROM information_schema"
                               ".global_status WHERE variable_name = 'PREPARED_STMT_COUNT'), ' ', "
                               "(SELECT count(*) FROM information_schema.processlist))"));
    if (system.startsWith(QLatin1String("Firebird")))
        return answer(db, QStringLiteral("SELECT count(*) FROM mon$attachments "
                                         "WHERE mon$system_flag = 0"));
    return QString::number(openFiles());
}

/// The statement that tells the session's number.
QString sessionQuestion(const QString &system)
{
    if (system == MariaDb)
        return QStringLiteral("SELECT CONNECTION_ID()");
    return system == FirebirdOverTcp
               ? LayeredSystems::selectWithoutTable(system, QStringLiteral("CURRENT_CONNECTION"))
               : QStringLiteral("SELECT pg_backend_pid()");
}

/// Ends another session.
QString endOf(const QString &system, const QString &session)
{
    if (system == MariaDb)
        return QStringLiteral("KILL ") + session;
    return system == FirebirdOverTcp
               ? QStringLiteral("DELETE FROM mon$attachments WHERE mon$attachment_id = ") + session
               : QStringLiteral("SELECT pg_terminate_backend(%1)").arg(session);
}

} // namespace

class TestDriverReopen : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { useDriverLayer(); }
    void cleanup();

    void keptStatementEndsWithItsSession_data();
    void keptStatementEndsWithItsSession();
    void keptStatementOfAWorkerEndsWithItsSession_data();
    void keptStatementOfAWorkerEndsWithItsSession();
    void serverKnowsNothingOfTheLastSession();

private:
    ConnectionParameters parameters(const QString &system) const;
    void openBoth(const QString &system);
    void run(const QString &sql);
    void makeTable(const char *type, const char *row);
    void reopen(const QString &system, const QString &way);
    /// What the worker delivers for a text with values.
    QString workersAnswer(const QString &sql, const QString &values);

    mutable LayeredSystems m_systems;
    std::unique_ptr<DatabaseScript> m_script;
};

void TestDriverReopen::cleanup()
{
    m_script.reset();
    for (const QString &name : {Connection, Other}) {
        QSqlDatabase::database(name, false).close();
        QSqlDatabase::removeDatabase(name);
    }
}

ConnectionParameters TestDriverReopen::parameters(const QString &system) const
{
    return m_systems.get(system).parameters();
}

void TestDriverReopen::openBoth(const QString &system)
{
    for (const QString &name : {Connection, Other}) {
        QSqlDatabase db = parameters(system).database(name);
        QVERIFY2(db.open(), qPrintable(db.lastError().text()));
    }
}

/// On the connection that stays open.
void TestDriverReopen::run(const QString &sql)
{
    QSqlQuery query(QSqlDatabase::database(Other, false));
    QVERIFY2(query.exec(sql), qPrintable(sql + QLatin1Char('\n') + query.lastError().text()));
}

/// Firebird knows no IF EXISTS.
void TestDriverReopen::makeTable(const char *type, const char *row)
{
    QSqlQuery(QSqlDatabase::database(Other, false))
        .exec(QStringLiteral("DROP TABLE reopened_rows"));
    run(QStringLiteral("CREATE TABLE reopened_rows (id INTEGER PRIMARY KEY, a %1)")
            .arg(QLatin1String(type)));
    run(QStringLiteral("INSERT INTO reopened_rows VALUES (1, %1)").arg(QLatin1String(row)));
}

void TestDriverReopen::reopen(const QString &system, const QString &way)
{
    QSqlDatabase db = QSqlDatabase::database(Connection, false);
    if (way == Closed) {
        db.close();
    } else if (way == OpenedInTime) {
        const QString options = db.connectOptions();
        db.setConnectOptions(options.isEmpty()
                                 ? QStringLiteral("VEXT_CONNECT_TIMEOUT=60000")
                                 : options + QStringLiteral(";VEXT_CONNECT_TIMEOUT=60000"));
    } else if (way == Lost) {
        const QString session = answer(db, sessionQuestion(system));
        run(endOf(system, session));
        QVERIFY(waitUntil([&db] { return !db.isOpen(); }));
    }
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
}

// --- Connections ---

void TestDriverReopen::keptStatementEndsWithItsSession_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("way");
    const QStringList systems = LayeredSystems::names() << FirebirdOverTcp;
    for (const QString &system : systems) {
        for (const QString &way : {Closed, OpenedAgain, OpenedInTime, Lost}) {
            if (way != Lost || !isLostByItself(system))
                QTest::addRow("%s, %s", qPrintable(system), qPrintable(way)) << system << way;
        }
    }
}

void TestDriverReopen::keptStatementEndsWithItsSession()
{
    QFETCH(QString, system);
    QFETCH(QString, way);
    USE_SYSTEM(m_systems, system);
    openBoth(system);
    makeTable("VARCHAR(40)", "'one'");
    const QSqlDatabase db = QSqlDatabase::database(Connection, false);
    const QSqlDatabase other = QSqlDatabase::database(Other, false);
    const QString before = footprint(system, other);
    QVERIFY2(!before.startsWith(QLatin1String("error")), qPrintable(before));
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(answer(db, Update, {QStringLiteral("one"), 1}), QString());
        QCOMPARE(answer(db, Select, {1}), QStringLiteral("one"));
    }
    // Two whose owners are still there: one that has rows to give, one that has none.
    QSqlQuery half(db);
    half.prepare(QStringLiteral("SELECT a FROM reopened_rows WHERE id >= ?"));
    half.addBindValue(1);
    QVERIFY2(half.exec() && half.next(), qPrintable(half.lastError().text()));
    QSqlQuery idle(db);
    idle.prepare(Update);
    idle.addBindValue(QStringLiteral("one"));
    idle.addBindValue(1);
    QVERIFY2(idle.exec(), qPrintable(idle.lastError().text()));

    reopen(system, way);
    QVERIFY(!half.next());
    makeTable("INTEGER", "5");
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(answer(db, Select, {1}), QString::number(5 + i));
        QCOMPARE(answer(db, Update, {6 + i, 1}), QString());
    }
    // A query that was prepared in the last session is prepared anew in this one.
    idle.bindValue(0, 77);
    idle.bindValue(1, 1);
    QVERIFY2(idle.exec(), qPrintable(idle.lastError().text()));
    QCOMPARE(answer(db, Select, {1}), QStringLiteral("77"));
    half.clear();
    idle.clear();
    QSqlDatabase(db).close();
    QVERIFY2(QSqlDatabase(db).open(), qPrintable(db.lastError().text()));
    QVERIFY2(waitUntil([&] { return footprint(system, other) == before; }),
             qPrintable(before + QStringLiteral(" has become ") + footprint(system, other)));
}

/// Numbers of statements begin anew with each session, so one that is used although it is gone
/// might go unnoticed otherwise.
void TestDriverReopen::serverKnowsNothingOfTheLastSession()
{
    USE_SYSTEM(m_systems, Postgres);
    openBoth(Postgres);
    makeTable("VARCHAR(40)", "'one'");
    const QSqlDatabase db = QSqlDatabase::database(Connection, false);
    const QString count = QStringLiteral("SELECT count(*) FROM pg_prepared_statements");
    for (const QString &way : {Closed, OpenedAgain, OpenedInTime, Lost}) {
        QCOMPARE(answer(db, Select, {1}), QStringLiteral("one"));
        QCOMPARE(answer(db, count), QStringLiteral("1"));
        reopen(Postgres, way);
        QCOMPARE(answer(db, count), QStringLiteral("0"));
        // The first statement of the new session has the name that the kept one had.
        QCOMPARE(answer(db, QStringLiteral("SELECT a || 'r' FROM reopened_rows WHERE id = ?"), {1}),
                 QStringLiteral("oner"));
        QCOMPARE(answer(db, Select, {1}), QStringLiteral("one"));
        QCOMPARE(answer(db, count), QStringLiteral("2"));
        reopen(Postgres, Closed);
    }
}

// --- Workers ---

QString TestDriverReopen::workersAnswer(const QString &sql, const QString &values)
{
    m_script->eval(
        QStringLiteral("delivered = []; db.exec_thread('%1', %2, keep('x'))").arg(sql, values));
    if (!m_script->waitFor(QStringLiteral("delivered.length === 1")))
        return QStringLiteral("nothing");
    if (m_script->isTrue(QStringLiteral("delivered[0].result === false")))
        return QStringLiteral("error: ") + m_script->text(QStringLiteral("delivered[0].error"));
    return m_script->eval(QStringLiteral("rows(delivered[0].result)")).toString();
}

void TestDriverReopen::keptStatementOfAWorkerEndsWithItsSession_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("way");
    const QStringList systems = LayeredSystems::names() << FirebirdOverTcp;
    for (const QString &system : systems) {
        for (const QString &way : {Stopped, Closed, Lost}) {
            if (way != Lost || !isLostByItself(system))
                QTest::addRow("%s, %s", qPrintable(system), qPrintable(way)) << system << way;
        }
    }
}

void TestDriverReopen::keptStatementOfAWorkerEndsWithItsSession()
{
    QFETCH(QString, system);
    QFETCH(QString, way);
    USE_SYSTEM(m_systems, system);
    openBoth(system);
    QSqlDatabase::database(Connection, false).close();
    makeTable("VARCHAR(40)", "'one'");
    m_script = std::make_unique<DatabaseScript>();
    QVERIFY(m_script->open(QStringLiteral("db"), parameters(system)));
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(workersAnswer(Update, QStringLiteral("['one', 1]")), QString());
        QCOMPARE(workersAnswer(Select, QStringLiteral("[1]")), QStringLiteral("string:one"));
    }

    if (way == Lost) {
        const QString session =
            m_script->rows(Way::Thread, QStringLiteral("db"), sessionQuestion(system))
                .section(QLatin1Char(':'), 1);
        run(endOf(system, session));
    } else {
        m_script->eval(way == Closed ? QStringLiteral("db.close(); db.open()")
                                     : QStringLiteral("db.stop_thread(20000)"));
        QVERIFY(m_script->waitFor(QStringLiteral("!db.isRunning && db.isOpen")));
    }
    makeTable("INTEGER", "5");
    // One task at most tells the loss.
    if (workersAnswer(Select, QStringLiteral("[1]")).startsWith(QLatin1String("error")))
        QCOMPARE(way, Lost);
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(workersAnswer(Select, QStringLiteral("[1]")),
                 QStringLiteral("number:%1").arg(5 + i));
        QCOMPARE(workersAnswer(Update, QStringLiteral("[%1, 1]").arg(6 + i)), QString());
    }
}

QTEST_GUILESS_MAIN(TestDriverReopen)

#include "test_driver_reopen.moc"
