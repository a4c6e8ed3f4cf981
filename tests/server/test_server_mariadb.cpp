/// @file
/// What a script can do with MariaDB, and what it cannot.

#include "database_script.h"
#include "driver_layer.h"
#include "mariadb_server.h"

#include <QtTest>

class TestServerMariaDb : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup() { m_script.reset(); }

    void networkAndSocketReachTheSameServer();
    void callDeliversItsRowsAndLeavesTheConnectionUsable_data();
    void callDeliversItsRowsAndLeavesTheConnectionUsable();
    void boundProcedureCallIsRefusedByTheServer();
    void textOfFourByteCharactersNeedsTheCharacterSet();
    void notificationsAreNotSupportedAndNamesAreKept();
    void statementThatCannotBeCancelledIsDeliveredOnceAfterAll();
    void closingWaitsForTheStatementThatCannotBeCancelled();
    void lockWaitTimeoutIsAnErrorAndTheConnectionLives();
    void deadlockIsToldToExactlyOneOfTwoConnections();

private:
    bool open(const QString &name = QStringLiteral("db"))
    {
        return m_script->open(name, m_server.parameters());
    }

    MariaDbServer m_server;
    std::unique_ptr<DatabaseScript> m_script;
};

void TestServerMariaDb::initTestCase()
{
    QString reason;
    if (!m_server.available(&reason))
        QSKIP(qPrintable(reason));
    QVERIFY2(m_server.start(), qPrintable(m_server.error()));
    DatabaseScript script;
    QVERIFY(script.open(QStringLiteral("db"), m_server.parameters()));
    const QStringList setUp{
        QStringLiteral("CREATE TABLE work (id INTEGER PRIMARY KEY, note VARCHAR(40)) "
                       "ENGINE=InnoDB"),
        QStringLiteral("CREATE PROCEDURE p_add(a INTEGER, b INTEGER) SELECT a + b AS total"),
        QStringLiteral("CREATE PROCEDURE p_note(n INTEGER) INSERT INTO work VALUES (n, 'called')")};
    for (const QString &sql : setUp)
        QVERIFY(script.mustRun(Way::Here, QStringLiteral("db"), sql));
}

void TestServerMariaDb::cleanupTestCase()
{
    m_script.reset();
}

void TestServerMariaDb::init()
{
    m_script = std::make_unique<DatabaseScript>();
    QVERIFY(open());
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), QStringLiteral("DELETE FROM work")));
}

void TestServerMariaDb::networkAndSocketReachTheSameServer()
{
    ConnectionParameters network = m_server.parameters();
    network.hostName = QStringLiteral("127.0.0.1");
    network.port = m_server.port();
    network.connectOptions.clear();
    QVERIFY(m_script->open(QStringLiteral("other"), network));
    const QString server = QStringLiteral("SELECT @@pid_file");
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("other"), server),
             m_script->rows(Way::Here, QStringLiteral("db"), server));
}

void TestServerMariaDb::callDeliversItsRowsAndLeavesTheConnectionUsable_data()
{
    QTest::addColumn<bool>("thread");
    QTest::newRow("query") << false;
    QTest::newRow("query_thread") << true;
}

void TestServerMariaDb::callDeliversItsRowsAndLeavesTheConnectionUsable()
{
    QFETCH(bool, thread);
    const Way way = thread ? Way::Thread : Way::Here;
    QCOMPARE(m_script->rows(way, QStringLiteral("db"), QStringLiteral("CALL p_add(2, 3)")),
             QStringLiteral("number:5"));
    QVERIFY(m_script->mustRun(way, QStringLiteral("db"), QStringLiteral("CALL p_note(7)")));
    QCOMPARE(m_script->rows(way, QStringLiteral("db"), QStringLiteral("SELECT id FROM work")),
             QStringLiteral("number:7"));
}

void TestServerMariaDb::boundProcedureCallIsRefusedByTheServer()
{
    if (driverLayerInUse()) { // which calls it
        m_script->eval(QStringLiteral("var direct = db.exec('p_add', [2, 3]); "
                                      "db.exec_thread(keep('p'), 'p_add', [2, 3])"));
        QCOMPARE(m_script->eval(QStringLiteral("rows(direct)")).toString(),
                 QStringLiteral("number:5"));
        QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
        QCOMPARE(m_script->eval(QStringLiteral("rows(delivered[0].result)")).toString(),
                 QStringLiteral("number:5"));
        return;
    }
    QVERIFY(m_script->isTrue(QStringLiteral("db.exec('p_add', [2, 3]) === false")));
    QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.number")).toInt32(), 1064);
    m_script->eval(QStringLiteral("db.exec_thread(keep('p'), 'p_add', [2, 3])"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QVERIFY(m_script->isTrue(QStringLiteral("delivered[0].error.indexOf('EXECUTE') < 0")));
    QVERIFY(m_script->isTrue(QStringLiteral("delivered[0].error.indexOf('PROCEDURE') >= 0")));
}

void TestServerMariaDb::textOfFourByteCharactersNeedsTheCharacterSet()
{
    // Qt 5.15's driver asks for the three-byte "utf8", the layer for all of Unicode.
    const QString insert = QStringLiteral("INSERT INTO work VALUES (%1, 'жук 🐞')");
    const bool layered = driverLayerInUse();
    if (!layered) {
        QVERIFY(!m_script->ask(Way::Here, QStringLiteral("db"), insert.arg(1)));
        QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.number")).toInt32(), 1366);
    }
    int row = 1;
    for (const Way way : {Way::Here, Way::Thread}) {
        QVERIFY(layered ||
                m_script->mustRun(way, QStringLiteral("db"), QStringLiteral("SET NAMES utf8mb4")));
        QVERIFY(m_script->mustRun(way, QStringLiteral("db"), insert.arg(row)));
        QCOMPARE(m_script->rows(
                     way, QStringLiteral("db"),
                     QStringLiteral("SELECT note, HEX(note) FROM work WHERE id = %1").arg(row)),
                 QStringLiteral("string:жук 🐞|string:D0B6D183D0BA20F09F909E"));
        ++row;
    }
}

void TestServerMariaDb::notificationsAreNotSupportedAndNamesAreKept()
{
    QVERIFY(!m_script->isTrue(QStringLiteral("db.isSupportEvent")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('jobs')")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.close()")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:string:jobs"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rem_event('jobs')")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:"));
}

void TestServerMariaDb::statementThatCannotBeCancelledIsDeliveredOnceAfterAll()
{
    const bool cancels = driverLayerInUse();
    QCOMPARE(m_script->isTrue(QStringLiteral("db.hasFeature().CancelQuery")), cancels);
    m_script->eval(QStringLiteral("db.query_thread(keep('sleep'), 'SELECT SLEEP(6)')"));
    QVERIFY(m_script->waitFor(
        QStringLiteral("rows(db.query(\"SELECT COUNT(*) FROM information_schema.processlist "
                       "WHERE info = 'SELECT SLEEP(6)'\")) === 'number:1'")));
    m_script->eval(QStringLiteral("db.stop_thread(100)"));
    QVERIFY(cancels || m_script->isTrue(QStringLiteral("db.isRunning")));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1 && !db.isRunning")));
    QCOMPARE(m_script->isTrue(QStringLiteral("/^cancelled/.test(delivered[0].error)")), cancels);
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")),
             QStringLiteral("number:1"));
    QCOMPARE(m_script->eval(QStringLiteral("delivered.length")).toInt32(), 1);
}

void TestServerMariaDb::closingWaitsForTheStatementThatCannotBeCancelled()
{
    m_script->eval(QStringLiteral("db.query_thread(keep('sleep'), 'SELECT SLEEP(1)'); "
                                  "db.query_thread(keep('queued'), 'SELECT 1')"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.close()")));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 2")));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.isOpen || db.isRunning")));
    QCOMPARE(m_script->text(QStringLiteral("delivered[1].result")),
             QStringLiteral("boolean:false"));
}

void TestServerMariaDb::lockWaitTimeoutIsAnErrorAndTheConnectionLives()
{
    QVERIFY(open(QStringLiteral("other")));
    QVERIFY(m_script->isTrue(QStringLiteral("other.transaction()")));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("other"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'locked')")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("SET innodb_lock_wait_timeout = 1")));
    QVERIFY(!m_script->ask(Way::Thread, QStringLiteral("db"),
                           QStringLiteral("INSERT INTO work VALUES (1, 'late')")));
    QVERIFY(m_script->isTrue(QStringLiteral("answer.error.indexOf('Lock wait timeout') >= 0")));
    QVERIFY(m_script->isTrue(QStringLiteral("other.rollback()")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'late')")));
}

void TestServerMariaDb::deadlockIsToldToExactlyOneOfTwoConnections()
{
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'a'), (2, 'b')")));
    QVERIFY(open(QStringLiteral("other")));
    const QString update = QStringLiteral("UPDATE work SET note = 'x' WHERE id = %1");
    int row = 1;
    for (const char *name : {"db", "other"}) {
        const QString connection = QString::fromUtf8(name);
        QVERIFY(m_script->isTrue(
            QStringLiteral("%1.start_thread() && %1.transaction()").arg(connection)));
        QVERIFY(m_script->mustRun(Way::Thread, connection, update.arg(row++)));
    }
    m_script->eval(QStringLiteral("db.query_thread(keep('db'), \"%1\"); "
                                  "other.query_thread(keep('other'), \"%2\")")
                       .arg(update.arg(2), update.arg(1)));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 2"), 30000));
    QVERIFY(m_script->isTrue(
        QStringLiteral("delivered.filter(function (d) { return d.error === false; }).length === 1 "
                       "&& delivered.filter(function (d) { return /Deadlock/.test(d.error); })"
                       ".length === 1")));
    m_script->eval(QStringLiteral("db.rollback(); other.rollback()"));
}

QTEST_GUILESS_MAIN(TestServerMariaDb)
#include "test_server_mariadb.moc"
