/// @file
/// SQLite in a file and in memory: its notifications, its locks and its connection errors.

#include "database_script.h"
#include "driver_layer.h"
#include "local_databases.h"

#include <QtTest>

class TestServerSqlite : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup() { m_script.reset(); }

    void changeOfAWatchedTableIsNotifiedWithItsRow();
    void changeByTheThreadConnectionIsNotNotified();
    void notificationArrivesAgainAfterCloseAndOpen();
    void eventsOfAClosedConnectionAreTheRememberedNames();
    void removedEventArrivesNoMore();
    void addEventTwiceIsRefused();
    void duplicateKeyClosesTheMainConnection();
    void duplicateKeyEndsTheWorkerAndFailsWhatWaits();
    void workerStartsAgainAfterADuplicateKey();
    void lockedDatabaseIsAConnectionErrorAfterTheBusyTimeout();
    void readersSeeNothingOfAnOpenTransaction();
    void memoryConnectionsShareNothing();
    void sharedMemoryIsSeenByTheThreadConnection();
    void nullByteInTextSurvives();
    void columnOfMixedTypesKeepsEveryValue();

private:
    bool open(const QString &name = QStringLiteral("db"), const QString &options = {});

    SqliteDatabase m_database;
    std::unique_ptr<DatabaseScript> m_script;
};

void TestServerSqlite::initTestCase()
{
    QString reason;
    if (!m_database.available(&reason))
        QSKIP(qPrintable(reason));
    QVERIFY2(m_database.start(), qPrintable(m_database.error()));
    DatabaseScript script;
    QVERIFY(script.open(QStringLiteral("db"), m_database.parameters()));
    QVERIFY(script.mustRun(Way::Here, QStringLiteral("db"),
                           QStringLiteral("CREATE TABLE work (id INTEGER PRIMARY KEY, note)")));
    QVERIFY(script.mustRun(Way::Here, QStringLiteral("db"),
                           QStringLiteral("CREATE TABLE rest (id INTEGER PRIMARY KEY)")));
}

void TestServerSqlite::init()
{
    m_script = std::make_unique<DatabaseScript>();
    m_script->eval(QStringLiteral("var heard = []; function hear(name, payload, source) { "
                                  "heard.push(name + '=' + payload + '/' + source); }"));
    QVERIFY(open());
    for (const char *table : {"work", "rest"}) {
        QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                                  QStringLiteral("DELETE FROM ") + QString::fromUtf8(table)));
    }
}

bool TestServerSqlite::open(const QString &name, const QString &options)
{
    ConnectionParameters parameters = m_database.parameters();
    parameters.connectOptions = options;
    return m_script->open(name, parameters);
}

void TestServerSqlite::changeOfAWatchedTableIsNotifiedWithItsRow()
{
    QVERIFY(m_script->isTrue(QStringLiteral("db.isSupportEvent")));
    m_script->eval(QStringLiteral("db.event.connect(hear)"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('work')")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:string:work"));
    for (const char *sql : {"INSERT INTO rest VALUES (1)", "INSERT INTO work VALUES (41, 'x')",
                            "UPDATE work SET note = 'y'"})
        QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), QString::fromUtf8(sql)));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length === 2")));
    QCOMPARE(m_script->text(QStringLiteral("heard")),
             QStringLiteral("array:string:work=41/0,string:work=41/0"));
}

void TestServerSqlite::changeByTheThreadConnectionIsNotNotified()
{
    m_script->eval(QStringLiteral("db.event.connect(hear)"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('work')")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'there')")));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (2, 'here')")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length > 0")));
    QCOMPARE(m_script->text(QStringLiteral("heard")), QStringLiteral("array:string:work=2/0"));
}

void TestServerSqlite::notificationArrivesAgainAfterCloseAndOpen()
{
    m_script->eval(QStringLiteral("db.close(); db.event.connect(hear)"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('work')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open() && db.close() && db.open()")));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (3, 'x')")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length > 0")));
    QCOMPARE(m_script->text(QStringLiteral("heard")), QStringLiteral("array:string:work=3/0"));
}

void TestServerSqlite::eventsOfAClosedConnectionAreTheRememberedNames()
{
    m_script->eval(QStringLiteral("db.close(); db.add_event('work'); db.add_event('rest')"));
    QCOMPARE(m_script->text(QStringLiteral("db.events")),
             QStringLiteral("array:string:work,string:rest"));
}

void TestServerSqlite::removedEventArrivesNoMore()
{
    m_script->eval(QStringLiteral("db.event.connect(hear)"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('work') && db.add_event('rest')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rem_event('work')")));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.rem_event('work')")));
    for (const char *sql : {"INSERT INTO work VALUES (1, 'x')", "INSERT INTO rest VALUES (1)"})
        QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), QString::fromUtf8(sql)));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length > 0")));
    QCOMPARE(m_script->text(QStringLiteral("heard")), QStringLiteral("array:string:rest=1/0"));
}

void TestServerSqlite::addEventTwiceIsRefused()
{
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('work')")));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.add_event('work')")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:string:work"));
}

void TestServerSqlite::duplicateKeyClosesTheMainConnection()
{
    m_script->eval(QStringLiteral("var closed = 0; db.closed.connect(function () { ++closed; })"));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'x')")));
    QVERIFY(m_script->isTrue(
        QStringLiteral("db.query(\"INSERT INTO work VALUES (1, 'y')\") === false")));
    if (driverLayerInUse()) {
        QVERIFY(m_script->isTrue(QStringLiteral("db.isOpen && closed === 0")));
        QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.type")).toInt32(), 2);
        QVERIFY(m_script->isTrue(QStringLiteral("/UNIQUE/.test(db.lastError)")));
    } else {
        QVERIFY(m_script->isTrue(QStringLiteral("!db.isOpen && closed === 1")));
        QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    }
    QCOMPARE(
        m_script->rows(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT note FROM work")),
        QStringLiteral("string:x"));
}

void TestServerSqlite::duplicateKeyEndsTheWorkerAndFailsWhatWaits()
{
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'x')")));
    // The first task waits for the lock until the others wait behind it.
    m_script->eval(QStringLiteral(
        "db.query('BEGIN IMMEDIATE');"
        "db.query_thread(keep('locked'), 'INSERT INTO rest VALUES (1)');"
        "db.query_thread(keep('twice'), [\"INSERT INTO work VALUES (1, 'y')\", 'SELECT 1']);"
        "db.query_thread(keep('waiting'), 'SELECT 2');"
        "db.query('COMMIT')"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 3")));
    QCOMPARE(m_script->text(QStringLiteral("delivered.map(function (d) { return d.tag; })")),
             QStringLiteral("array:string:locked,string:twice,string:waiting"));
    QVERIFY(m_script->isTrue(QStringLiteral(
        "delivered[0].error === false && /UNIQUE/.test(String(delivered[1].error))")));
    if (driverLayerInUse()) {
        QVERIFY(m_script->isTrue(QStringLiteral("db.isRunning")));
        QCOMPARE(m_script->text(QStringLiteral("rows(delivered[2].result)")),
                 QStringLiteral("string:number:2"));
    } else {
        QVERIFY(m_script->isTrue(QStringLiteral("delivered[2].result === false")));
        QVERIFY(m_script->waitFor(QStringLiteral("!db.isRunning")));
    }
    QVERIFY(m_script->isTrue(QStringLiteral("db.isOpen")));
}

void TestServerSqlite::workerStartsAgainAfterADuplicateKey()
{
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'x')")));
    for (int n = 0; n < 20; ++n) {
        QVERIFY(!m_script->ask(Way::Thread, QStringLiteral("db"),
                               QStringLiteral("INSERT INTO work VALUES (1, 'y')")));
        // While the worker leaves, a task may still be turned down, but is told so.
        const QString select = QStringLiteral("SELECT note FROM work");
        if (!m_script->ask(Way::Thread, QStringLiteral("db"), select)) {
            QCOMPARE(m_script->text(QStringLiteral("answer.result")),
                     QStringLiteral("boolean:false"));
            QVERIFY(m_script->waitFor(QStringLiteral("!db.isRunning")));
        }
        QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), select),
                 QStringLiteral("string:x"));
    }
}

void TestServerSqlite::lockedDatabaseIsAConnectionErrorAfterTheBusyTimeout()
{
    QVERIFY(open(QStringLiteral("other"), QStringLiteral("QSQLITE_BUSY_TIMEOUT=50")));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), QStringLiteral("BEGIN IMMEDIATE")));
    QVERIFY(!m_script->ask(Way::Thread, QStringLiteral("other"),
                           QStringLiteral("INSERT INTO work VALUES (1, 'x')")));
    QCOMPARE(m_script->text(QStringLiteral("answer.error")),
             QStringLiteral("string:database is locked"));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), QStringLiteral("COMMIT")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("other"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'x')")));
}

void TestServerSqlite::readersSeeNothingOfAnOpenTransaction()
{
    QVERIFY(m_script->isTrue(QStringLiteral("db.transaction()")));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'x')")));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"),
                            QStringLiteral("SELECT count(*) FROM work")),
             QStringLiteral("number:0"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rollback()")));
}

void TestServerSqlite::memoryConnectionsShareNothing()
{
    SqliteDatabase memory(SqliteDatabase::Place::Memory);
    QVERIFY(memory.start());
    QVERIFY(m_script->open(QStringLiteral("mem"), memory.parameters()));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("mem"),
                              QStringLiteral("CREATE TABLE work (id)")));
    QVERIFY(
        !m_script->ask(Way::Thread, QStringLiteral("mem"), QStringLiteral("SELECT * FROM work")));
    QVERIFY(m_script->isTrue(QStringLiteral("/no such table/.test(answer.error)")));
}

void TestServerSqlite::sharedMemoryIsSeenByTheThreadConnection()
{
    ConnectionParameters shared = m_database.parameters();
    shared.databaseName = QStringLiteral("file:vext?mode=memory&cache=shared");
    shared.connectOptions = QStringLiteral("QSQLITE_OPEN_URI;QSQLITE_ENABLE_SHARED_CACHE");
    QVERIFY(m_script->open(QStringLiteral("mem"), shared));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("mem"),
                              QStringLiteral("CREATE TABLE work AS SELECT 7 AS id")));
    QCOMPARE(
        m_script->rows(Way::Thread, QStringLiteral("mem"), QStringLiteral("SELECT id FROM work")),
        QStringLiteral("number:7"));
}

void TestServerSqlite::nullByteInTextSurvives()
{
    for (const Way way : {Way::Here, Way::Thread}) {
        QVERIFY(m_script->mustRun(way, QStringLiteral("db"),
                                  QStringLiteral("SELECT 'a' || char(0) || 'b'")));
        QVERIFY(
            m_script->isTrue(QStringLiteral("answer.result.fields_index[0][0] === 'a\\u0000b'")));
    }
}

void TestServerSqlite::columnOfMixedTypesKeepsEveryValue()
{
    for (const Way way : {Way::Here, Way::Thread}) {
        QCOMPARE(m_script->rows(way, QStringLiteral("db"),
                                QStringLiteral("SELECT 1 UNION ALL SELECT 'two' UNION ALL SELECT "
                                               "NULL UNION ALL SELECT 4.5 UNION ALL SELECT x'05'")),
                 QStringLiteral("number:1;string:two;null;number:4.5;variant:05"));
        QCOMPARE(m_script->text(QStringLiteral("answer.result.fields_typeN[0]")),
                 QStringLiteral("string:QByteArray"));
    }
}

QTEST_GUILESS_MAIN(TestServerSqlite)
#include "test_server_sqlite.moc"
