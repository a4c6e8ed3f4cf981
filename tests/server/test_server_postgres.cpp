/// @file
/// What a script can do with PostgreSQL beyond what every driver does.

#include "database_script.h"
#include "driver_layer.h"
#include "postgres_server.h"

#include <QtTest>

#include <ctime>

class TestServerPostgres : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();

    void applicationNameTellsTheTwoConnectionsApart();
    void applicationNameMayHoldAnything();
    void withoutApplicationNameNothingIsSent();
    void columnNamesAreUpperCasedInResultsOnly();

    void notificationFromAnotherConnectionArrivesWithItsPayload();
    void notificationFromTheThreadConnectionArrives();
    void notificationOfTheOwnConnectionIsMarkedSo();
    void addEventBeforeOpenIsSubscribedAtOpen();
    void eventsOfAClosedConnectionAreTheRememberedNames();
    void notificationArrivesAgainAfterCloseAndOpen();
    void closedConnectionHearsNothing();
    void addEventTwiceIsRefused();
    void removedEventArrivesNoMore();
    void removingAnUnknownEventIsRefused();
    void eventRemovedAndAddedAgainRecordsTheNewCallSite();
    void refusedSubscriptionStaysListedAndIsTriedAgain();
    void eventNamesKeepTheirCase();
    void isSupportEventIsFalseBeforeOpenAndTrueAfter();
    void hundredNotificationsArriveInOrder();
    void rolledBackNotificationDoesNotArrive();
    void eventHandlerMayCloseItsConnection();
    void eventHandlerMayQuery();
    void eventHandlerMayRenewItsSubscription();
    void callbackMayCloseItsConnection();

    void transactionSpansBothConnections();
    void transactionWithoutWorkerTouchesTheMainConnectionOnly();
    void secondTransactionRollsBackTheFirst();
    void failedTransactionIsTakenBackAsAWhole();
    void openTransactionIsRolledBackWhenTheThreadStops();

    void functionIsCalledWithArguments_data();
    void functionIsCalledWithArguments();
    void functionIsCalledWithoutArguments();
    void statementHeadTakesBoundValues();
    void batchOfStatementHeadsBindsItsOwnArguments();
    void hostileTextIsBoundNotRun();
    void wrongFunctionIsToldAsAnError();

    void statementCancelledOnTheServerIsDeliveredOnce();
    void stoppingTheThreadDoesNotInterruptTheStatement();
    void statementTimeoutIsAnErrorAndTheConnectionLives();
    void nullsAreNumberedByRow();
    void largeValuesArriveWhole();

private:
    bool open(const QString &name = QStringLiteral("db"));
    bool listen(const QString &name);
    bool notify(const QString &channel, const QString &payload);

    PostgresServer m_server;
    std::unique_ptr<DatabaseScript> m_script;
};

void TestServerPostgres::initTestCase()
{
    qputenv("TZ", "MSK-3");
    tzset();
    QString reason;
    if (!m_server.available(&reason))
        QSKIP(qPrintable(reason));
    QVERIFY2(m_server.start(), qPrintable(m_server.error()));
    DatabaseScript script;
    QVERIFY(script.open(QStringLiteral("db"), m_server.parameters()));
    const QStringList setUp{
        QStringLiteral("CREATE TABLE work (id integer UNIQUE, note text)"),
        QStringLiteral("CREATE FUNCTION f_int(bigint) RETURNS bigint LANGUAGE sql AS 'SELECT $1'"),
        QStringLiteral("CREATE FUNCTION f_num(float8) RETURNS float8 LANGUAGE sql AS 'SELECT $1'"),
        QStringLiteral("CREATE FUNCTION f_text(text) RETURNS text LANGUAGE sql AS 'SELECT $1'"),
        QStringLiteral("CREATE FUNCTION f_bool(boolean) RETURNS boolean LANGUAGE sql AS "
                       "'SELECT $1'"),
        QStringLiteral("CREATE FUNCTION f_time(timestamp) RETURNS timestamp LANGUAGE sql AS "
                       "'SELECT $1'"),
        QStringLiteral("CREATE FUNCTION f_zoned(timestamptz) RETURNS timestamptz LANGUAGE sql AS "
                       "'SELECT $1'"),
        QStringLiteral("CREATE FUNCTION f_blob(bytea) RETURNS bytea LANGUAGE sql AS 'SELECT $1'"),
        QStringLiteral("CREATE FUNCTION f_add(a integer, b integer) RETURNS integer LANGUAGE sql "
                       "AS 'SELECT $1 + $2'"),
        QStringLiteral("CREATE FUNCTION f_answer() RETURNS integer LANGUAGE sql AS 'SELECT 42'")};
    for (const QString &sql : setUp)
        QVERIFY(script.mustRun(Way::Here, QStringLiteral("db"), sql));
}

void TestServerPostgres::cleanupTestCase()
{
    if (m_server.isRunning())
        QVERIFY(m_server.shutDown(PostgresServer::Shutdown::Immediate));
}

void TestServerPostgres::init()
{
    m_script = std::make_unique<DatabaseScript>();
    m_script->eval(QStringLiteral(
        "var heard = []; function hear(name, payload, source) { heard.push(name + '=' + payload + "
        "'/' + source); }"));
    QVERIFY(open());
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), QStringLiteral("DELETE FROM work")));
}

void TestServerPostgres::cleanup()
{
    m_script.reset();
}

bool TestServerPostgres::open(const QString &name)
{
    return m_script->open(name, m_server.parameters());
}

bool TestServerPostgres::listen(const QString &name)
{
    m_script->eval(QStringLiteral("db.event.connect(hear)"));
    return m_script->isTrue(QStringLiteral("db.add_event('%1')").arg(name));
}

bool TestServerPostgres::notify(const QString &channel, const QString &payload)
{
    if (!m_script->isTrue(QStringLiteral("typeof other !== 'undefined'")) &&
        !open(QStringLiteral("other")))
        return false;
    return m_script->mustRun(Way::Here, QStringLiteral("other"),
                             QStringLiteral("SELECT pg_notify('%1', '%2')").arg(channel, payload));
}

// --- Connection ---

void TestServerPostgres::applicationNameTellsTheTwoConnectionsApart()
{
    m_script->declare(QStringLiteral("named"), m_server.parameters());
    m_script->eval(QStringLiteral("named.app_name = 'night shift'; named.open()"));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("named"), QStringLiteral("SELECT 1")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"),
                            QStringLiteral("SELECT application_name FROM pg_stat_activity "
                                           "WHERE application_name LIKE 'night%' ORDER BY 1")),
             QStringLiteral("string:night shift;string:night shift thr"));
}

void TestServerPostgres::applicationNameMayHoldAnything()
{
    m_script->declare(QStringLiteral("named"), m_server.parameters());
    m_script->eval(QStringLiteral("named.app_name = \"o'clock; --\"; named.open()"));
    QCOMPARE(
        m_script->rows(Way::Here, QStringLiteral("named"), QStringLiteral("SHOW application_name")),
        QStringLiteral("string:o'clock; --"));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("named"),
                            QStringLiteral("SHOW application_name")),
             QStringLiteral("string:o'clock; -- thr"));
}

void TestServerPostgres::withoutApplicationNameNothingIsSent()
{
    for (const Way way : {Way::Here, Way::Thread}) {
        QCOMPARE(m_script->rows(way, QStringLiteral("db"), QStringLiteral("SHOW application_name")),
                 QStringLiteral("string:"));
    }
}

void TestServerPostgres::columnNamesAreUpperCasedInResultsOnly()
{
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("SELECT 1 AS \"lower\", 2 AS \"LOWER\"")));
    QCOMPARE(m_script->text(QStringLiteral("answer.result.fields_names")),
             QStringLiteral("array:string:LOWER,string:LOWER"));
    QCOMPARE(m_script->text(QStringLiteral("answer.result.LOWER")),
             QStringLiteral("array:number:2"));
    QCOMPARE(m_script->text(QStringLiteral("answer.result.lower")), QStringLiteral("undefined"));
    QCOMPARE(m_script->eval(QStringLiteral("rows(answer.result)")).toString(),
             QStringLiteral("number:1|number:2"));
}

// --- Notifications ---

void TestServerPostgres::notificationFromAnotherConnectionArrivesWithItsPayload()
{
    QVERIFY(listen(QStringLiteral("jobs")));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("новое: 1")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length === 1")));
    QCOMPARE(m_script->text(QStringLiteral("heard[0]")), QStringLiteral("string:jobs=новое: 1/2"));
}

void TestServerPostgres::notificationFromTheThreadConnectionArrives()
{
    QVERIFY(listen(QStringLiteral("jobs")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("NOTIFY jobs, 'from the thread'")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length === 1")));
    QCOMPARE(m_script->text(QStringLiteral("heard[0]")),
             QStringLiteral("string:jobs=from the thread/2"));
}

void TestServerPostgres::notificationOfTheOwnConnectionIsMarkedSo()
{
    QVERIFY(listen(QStringLiteral("jobs")));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), QStringLiteral("NOTIFY jobs")));
    // Qt's driver looks for notifications when the next bytes arrive.
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("second")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length === 2")));
    QCOMPARE(m_script->text(QStringLiteral("heard")),
             QStringLiteral("array:string:jobs=/1,string:jobs=second/2"));
}

void TestServerPostgres::addEventBeforeOpenIsSubscribedAtOpen()
{
    m_script->eval(QStringLiteral("db.close(); db.event.connect(hear)"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('jobs')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:string:jobs"));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"),
                            QStringLiteral("SELECT * FROM pg_listening_channels()")),
             QStringLiteral("string:jobs"));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("x")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length === 1")));
}

void TestServerPostgres::eventsOfAClosedConnectionAreTheRememberedNames()
{
    m_script->eval(QStringLiteral("db.close()"));
    m_script->eval(
        QStringLiteral("db.add_event('second'); db.add_event('first'); db.add_event('third')"));
    QCOMPARE(m_script->text(QStringLiteral("db.events")),
             QStringLiteral("array:string:second,string:first,string:third"));
}

void TestServerPostgres::notificationArrivesAgainAfterCloseAndOpen()
{
    QVERIFY(listen(QStringLiteral("jobs")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.close() && db.open()")));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("again")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length === 1")));
    QCOMPARE(m_script->text(QStringLiteral("heard")), QStringLiteral("array:string:jobs=again/2"));
}

void TestServerPostgres::closedConnectionHearsNothing()
{
    QVERIFY(listen(QStringLiteral("jobs")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.close()")));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("while closed")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("now")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length > 0")));
    QCOMPARE(m_script->text(QStringLiteral("heard")), QStringLiteral("array:string:jobs=now/2"));
}

void TestServerPostgres::addEventTwiceIsRefused()
{
    QVERIFY(listen(QStringLiteral("jobs")));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.add_event('jobs')")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:string:jobs"));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("once")));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("twice")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length >= 2")));
    QCOMPARE(m_script->eval(QStringLiteral("heard.length")).toInt32(), 2);
}

void TestServerPostgres::removedEventArrivesNoMore()
{
    QVERIFY(listen(QStringLiteral("jobs")));
    QVERIFY(listen(QStringLiteral("rest")));
    m_script->eval(QStringLiteral("db.event.disconnect(hear)")); // connected once for each name
    QVERIFY(m_script->isTrue(QStringLiteral("db.rem_event('jobs')")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:string:rest"));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("removed")));
    QVERIFY(notify(QStringLiteral("rest"), QStringLiteral("kept")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length > 0")));
    QCOMPARE(m_script->text(QStringLiteral("heard")), QStringLiteral("array:string:rest=kept/2"));
}

void TestServerPostgres::removingAnUnknownEventIsRefused()
{
    QVERIFY(listen(QStringLiteral("jobs")));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.rem_event('unknown')")));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.rem_event('JOBS')")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:string:jobs"));
}

void TestServerPostgres::eventRemovedAndAddedAgainRecordsTheNewCallSite()
{
    m_script->eval(QStringLiteral("function first() { db.add_event('jobs'); }\n"
                                  "function second() {\n db.rem_event('jobs');\n"
                                  " db.add_event('jobs');\n}\nfirst();"));
    const QString sites = QStringLiteral("db.counters(scriptEngine).subscribeEvents.join(';')");
    const QString before = m_script->eval(sites).toString();
    m_script->eval(QStringLiteral("second()"));
    const QString after = m_script->eval(sites).toString();
    QVERIFY2(before.endsWith(QLatin1String(" jobs")), qPrintable(before));
    QVERIFY2(after.endsWith(QLatin1String(" jobs")), qPrintable(after));
    QVERIFY2(before != after, qPrintable(before + QLatin1Char('\n') + after));
}

void TestServerPostgres::refusedSubscriptionStaysListedAndIsTriedAgain()
{
    m_script->eval(QStringLiteral("db.event.connect(hear)"));
    // PostgreSQL takes no empty name.
    QVERIFY(!m_script->isTrue(QStringLiteral("db.add_event('')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('jobs')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.close()")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")),
             QStringLiteral("array:string:,string:jobs"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:string:jobs"));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("x")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length === 1")));
}

void TestServerPostgres::eventNamesKeepTheirCase()
{
    QVERIFY(listen(QStringLiteral("Jobs of today")));
    QVERIFY(notify(QStringLiteral("jobs of today"), QStringLiteral("lower")));
    QVERIFY(notify(QStringLiteral("Jobs of today"), QStringLiteral("exact")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length > 0")));
    QCOMPARE(m_script->text(QStringLiteral("heard")),
             QStringLiteral("array:string:Jobs of today=exact/2"));
}

void TestServerPostgres::isSupportEventIsFalseBeforeOpenAndTrueAfter()
{
    m_script->declare(QStringLiteral("fresh"), m_server.parameters());
    QCOMPARE(m_script->text(QStringLiteral("fresh.isSupportEvent")),
             QStringLiteral("boolean:false"));
    m_script->eval(QStringLiteral("fresh.open()"));
    QCOMPARE(m_script->text(QStringLiteral("fresh.isSupportEvent")),
             QStringLiteral("boolean:true"));
}

void TestServerPostgres::hundredNotificationsArriveInOrder()
{
    QVERIFY(listen(QStringLiteral("jobs")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("SELECT pg_notify('jobs', n::text) "
                                             "FROM generate_series(1, 100) n")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length >= 100")));
    QVERIFY(m_script->isTrue(
        QStringLiteral("heard.every(function (h, i) { return h === 'jobs=' + (i + 1) + '/2'; })")));
}

void TestServerPostgres::rolledBackNotificationDoesNotArrive()
{
    QVERIFY(listen(QStringLiteral("jobs")));
    QVERIFY(open(QStringLiteral("other")));
    QVERIFY(m_script->isTrue(QStringLiteral("other.transaction()")));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("undone")));
    QVERIFY(m_script->isTrue(QStringLiteral("other.rollback()")));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("done")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length > 0")));
    QCOMPARE(m_script->text(QStringLiteral("heard")), QStringLiteral("array:string:jobs=done/2"));
}

void TestServerPostgres::eventHandlerMayCloseItsConnection()
{
    m_script->eval(QStringLiteral("db.event.connect(function (name, payload) { "
                                  "heard.push(payload); db.close(); })"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('jobs')")));
    QVERIFY(open(QStringLiteral("other")));
    // Two in one piece: the second one comes from a driver that is about to go.
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("other"),
                              QStringLiteral("SELECT pg_notify('jobs', n::text) "
                                             "FROM generate_series(1, 2) n")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length > 0 && !db.isOpen")));
    drainEvents();
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    m_script->eval(QStringLiteral("heard = []"));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("later")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length === 1 && !db.isOpen")));
}

void TestServerPostgres::eventHandlerMayQuery()
{
    // The statement causes the next notification of the same connection.
    m_script->eval(QStringLiteral(
        "db.event.connect(function (name, payload) { heard.push(payload); if (heard.length < 5) "
        "db.query(\"SELECT pg_notify('jobs', '\" + heard.length + \"')\"); })"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('jobs')")));
    QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("0")));
    for (int n = 2; n <= 5; ++n) {
        // Bytes from the server make Qt's driver look for the connection's own notifications.
        QVERIFY(notify(QStringLiteral("jobs"), QStringLiteral("more")));
    }
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length >= 5")));
    QVERIFY(m_script->isTrue(QStringLiteral("heard[0] === '0' && heard.indexOf('1') > 0")));
}

void TestServerPostgres::eventHandlerMayRenewItsSubscription()
{
    m_script->eval(QStringLiteral(
        "var answers = []; db.event.connect(function (name, payload) { heard.push(payload); "
        "answers.push(db.rem_event('jobs') && db.add_event('jobs')); })"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('jobs')")));
    for (int n = 1; n <= 3; ++n) {
        QVERIFY(notify(QStringLiteral("jobs"), QString::number(n)));
        QVERIFY(m_script->waitFor(QStringLiteral("heard.length === %1").arg(n)));
        drainEvents();
    }
    QCOMPARE(m_script->text(QStringLiteral("answers")),
             QStringLiteral("array:boolean:true,boolean:true,boolean:true"));
}

void TestServerPostgres::callbackMayCloseItsConnection()
{
    m_script->eval(QStringLiteral(
        "db.query_thread(function () { delivered.push('first'); db.close(); }, 'SELECT 1'); "
        "db.query_thread(function (result) { delivered.push(result); }, 'SELECT pg_sleep(0.3)')"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 2")));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.isOpen || db.isRunning")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")),
             QStringLiteral("number:1"));
}

// --- Transactions ---

void TestServerPostgres::transactionSpansBothConnections()
{
    QVERIFY(open(QStringLiteral("other")));
    const QString count = QStringLiteral("SELECT count(*) FROM work");
    QVERIFY(m_script->isTrue(QStringLiteral("db.start_thread()")));
    for (const char *end : {"rollback", "commit"}) {
        QVERIFY(m_script->isTrue(QStringLiteral("db.transaction()")));
        QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                                  QStringLiteral("INSERT INTO work VALUES (1, 'here')")));
        QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                                  QStringLiteral("INSERT INTO work VALUES (2, 'there')")));
        QCOMPARE(m_script->rows(Way::Here, QStringLiteral("other"), count),
                 QStringLiteral("number:0"));
        QVERIFY(m_script->isTrue(QStringLiteral("db.%1()").arg(QString::fromUtf8(end))));
        // The thread connection follows in its own time, before its next task.
        QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")));
        QCOMPARE(m_script->rows(Way::Here, QStringLiteral("other"), count),
                 QLatin1String(end) == QLatin1String("commit") ? QStringLiteral("number:2")
                                                               : QStringLiteral("number:0"));
    }
}

void TestServerPostgres::transactionWithoutWorkerTouchesTheMainConnectionOnly()
{
    QVERIFY(!m_script->isTrue(QStringLiteral("db.isRunning")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.transaction()")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'at once')")));
    QVERIFY(open(QStringLiteral("other")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("other"),
                            QStringLiteral("SELECT count(*) FROM work")),
             QStringLiteral("number:1"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rollback()")));
}

void TestServerPostgres::secondTransactionRollsBackTheFirst()
{
    QVERIFY(m_script->isTrue(QStringLiteral("db.start_thread() && db.transaction()")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'lost')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.transaction()")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (2, 'kept')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.commit()")));
    QCOMPARE(
        m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT note FROM work")),
        QStringLiteral("string:kept"));
}

void TestServerPostgres::failedTransactionIsTakenBackAsAWhole()
{
    QVERIFY(m_script->isTrue(QStringLiteral("db.start_thread() && db.transaction()")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'lost')")));
    QVERIFY(!m_script->ask(Way::Thread, QStringLiteral("db"),
                           QStringLiteral("INSERT INTO work VALUES (1, 'twice')")));
    // PostgreSQL refuses everything until the transaction ends.
    QVERIFY(!m_script->ask(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rollback()")));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"),
                            QStringLiteral("SELECT count(*) FROM work")),
             QStringLiteral("number:0"));
}

void TestServerPostgres::openTransactionIsRolledBackWhenTheThreadStops()
{
    QVERIFY(m_script->isTrue(QStringLiteral("db.start_thread() && db.transaction()")));
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("INSERT INTO work VALUES (1, 'lost')")));
    m_script->eval(QStringLiteral("db.stop_thread(10000)"));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.isRunning")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rollback()")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"),
                            QStringLiteral("SELECT count(*) FROM work")),
             QStringLiteral("number:0"));
}

// --- Bound arguments ---

void TestServerPostgres::functionIsCalledWithArguments_data()
{
    QTest::addColumn<QString>("function");
    QTest::addColumn<QString>("argument");
    QTest::addColumn<QString>("result");
    const auto add = [](const char *name, const char *function, const char *argument,
                        const char *result) {
        QTest::newRow(name) << QString::fromUtf8(function) << QString::fromUtf8(argument)
                            << QString::fromUtf8(result);
    };
    add("integer", "f_int", "7", "number:7");
    add("negative integer", "f_int", "-7", "number:-7");
    add("integer of 2^53", "f_int", "9007199254740992", "number:9007199254740992");
    add("fraction", "f_num", "0.1", "number:0.1");
    add("tiny fraction", "f_num", "1e-300", "number:1e-300");
    add("infinity", "f_num", "Infinity", "number:Infinity");
    add("not a number", "f_num", "NaN", "number:NaN");
    add("text", "f_text", "'жук €'", "string:жук €");
    add("quotes and backslashes", "f_text", "\"it's \\\\ \\\"q\\\"\"", "string:it's \\ \"q\"");
    add("empty text", "f_text", "''", "string:");
    add("null", "f_text", "null", "null");
    add("undefined", "f_text", "undefined", "null");
    add("true", "f_bool", "true", "boolean:true");
    add("false", "f_bool", "false", "boolean:false");
    add("date", "f_zoned", "new Date(2024, 1, 29, 12, 34, 56, 789)",
        "date:2024-02-29T12:34:56.789");
    // Qt's driver writes a date in UTC; a column without a zone drops the mark.
    add("date without a zone", "f_time", "new Date(2024, 1, 29, 12, 34, 56, 789)",
        "date:2024-02-29T09:34:56.789");
    add("byte array", "f_blob", "blob", "variant:00ff41");
}

void TestServerPostgres::functionIsCalledWithArguments()
{
    QFETCH(QString, function);
    QFETCH(QString, argument);
    QFETCH(QString, result);
    m_script->eval(QStringLiteral("var blob = db.query(\"SELECT '\\\\x00ff41'::bytea\")"
                                  ".fields_index[0][0]"));

    m_script->eval(QStringLiteral("var direct = db.exec('%1', [%2])").arg(function, argument));
    QVERIFY2(m_script->isTrue(QStringLiteral("direct !== false")),
             qPrintable(m_script->eval(QStringLiteral("db.lastError")).toString()));
    QCOMPARE(m_script->eval(QStringLiteral("rows(direct)")).toString(), result);

    QVERIFY(m_script->isTrue(
        QStringLiteral("db.exec_thread(keep('f'), '%1', [%2])").arg(function, argument)));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QCOMPARE(m_script->text(QStringLiteral("delivered[0].error")), QStringLiteral("boolean:false"));
    QCOMPARE(m_script->eval(QStringLiteral("rows(delivered[0].result)")).toString(), result);
}

void TestServerPostgres::functionIsCalledWithoutArguments()
{
    QCOMPARE(m_script->eval(QStringLiteral("rows(db.exec('f_answer()', []))")).toString(),
             QStringLiteral("number:42"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.exec_thread(keep('f'), 'f_answer()', [])")));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QCOMPARE(m_script->eval(QStringLiteral("rows(delivered[0].result)")).toString(),
             QStringLiteral("number:42"));
}

void TestServerPostgres::statementHeadTakesBoundValues()
{
    QVERIFY(m_script->isTrue(
        QStringLiteral("db.exec('INSERT INTO work VALUES', [1, 'direct']) !== false")));
    QVERIFY(m_script->isTrue(
        QStringLiteral("db.exec_thread(keep('i'), 'INSERT INTO work VALUES', [2, 'thread'])")));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"),
                            QStringLiteral("SELECT * FROM work ORDER BY id")),
             QStringLiteral("number:1|string:direct;number:2|string:thread"));
    QCOMPARE(
        m_script->eval(QStringLiteral("rows(db.exec('SELECT note FROM work WHERE id IN', [2]))"))
            .toString(),
        QStringLiteral("string:thread"));
}

void TestServerPostgres::batchOfStatementHeadsBindsItsOwnArguments()
{
    m_script->eval(
        QStringLiteral("db.exec_thread(keep('batch'), ['INSERT INTO work VALUES', 'f_add', "
                       "'DELETE FROM work WHERE id ='], [[5, 'five'], [2, 3], [5]])"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QCOMPARE(m_script->text(QStringLiteral("delivered[0].error")),
             QStringLiteral("array:boolean:false,boolean:false,boolean:false"));
    QCOMPARE(m_script->eval(QStringLiteral("rows(delivered[0].result[1])")).toString(),
             QStringLiteral("number:5"));
    QCOMPARE(m_script->text(QStringLiteral("delivered[0].result[2].numRowsAffected")),
             QStringLiteral("number:1"));
}

void TestServerPostgres::hostileTextIsBoundNotRun()
{
    m_script->eval(
        QStringLiteral("var evil = \"'); DROP TABLE work; --\"; "
                       "db.exec('INSERT INTO work VALUES', [1, evil]); "
                       "db.exec_thread(keep('e'), 'INSERT INTO work VALUES', [2, evil])"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"),
                            QStringLiteral("SELECT count(*) FROM work "
                                           "WHERE note = '''); DROP TABLE work; --'")),
             QStringLiteral("number:2"));
}

void TestServerPostgres::wrongFunctionIsToldAsAnError()
{
    QVERIFY(m_script->isTrue(QStringLiteral("db.exec('f_nosuch', [1]) === false")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.lastError.indexOf('f_nosuch') >= 0")));
    m_script->eval(QStringLiteral("db.exec_thread(keep('f'), 'f_nosuch', [1])"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QVERIFY(m_script->isTrue(QStringLiteral("delivered[0].error.indexOf('f_nosuch') >= 0")));
}

// --- Long statements and large values ---

void TestServerPostgres::statementCancelledOnTheServerIsDeliveredOnce()
{
    QVERIFY(open(QStringLiteral("other")));
    m_script->eval(QStringLiteral("db.query_thread(keep('sleep'), 'SELECT pg_sleep(60)'); "
                                  "db.query_thread(keep('queued'), 'SELECT 1')"));
    QVERIFY(m_script->waitFor(QStringLiteral(
        "rows(other.query(\"SELECT pg_cancel_backend(pid) FROM pg_stat_activity WHERE query = "
        "'SELECT pg_sleep(60)' AND state = 'active'\")) === 'boolean:true'")));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 2")));
    QCOMPARE(m_script->text(QStringLiteral("delivered[0].tag")), QStringLiteral("string:sleep"));
    QVERIFY(m_script->isTrue(QStringLiteral("delivered[0].error.indexOf('57014') >= 0")));
    QCOMPARE(m_script->text(QStringLiteral("delivered[1].error")), QStringLiteral("boolean:false"));
}

void TestServerPostgres::stoppingTheThreadDoesNotInterruptTheStatement()
{
    // Qt 5.15's driver cannot cancel, the layer's can.
    const bool cancels = driverLayerInUse();
    QCOMPARE(m_script->isTrue(QStringLiteral("db.hasFeature().CancelQuery")), cancels);
    QVERIFY(open(QStringLiteral("other")));
    m_script->eval(QStringLiteral("db.query_thread(keep('sleep'), 'SELECT pg_sleep(6)'); "
                                  "db.query_thread(keep('queued'), 'SELECT 1')"));
    QVERIFY(m_script->waitFor(
        QStringLiteral("rows(other.query(\"SELECT count(*) FROM pg_stat_activity WHERE query = "
                       "'SELECT pg_sleep(6)' AND state = 'active'\")) === 'number:1'")));
    m_script->eval(QStringLiteral("db.stop_thread(%1)").arg(cancels ? 60000 : 50));
    QCOMPARE(m_script->isTrue(QStringLiteral("db.isRunning")), !cancels);
    QVERIFY(m_script->isTrue(QStringLiteral("db.close()"))); // waits for it
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 2")));
    QCOMPARE(m_script->text(QStringLiteral("delivered[1].result")),
             QStringLiteral("boolean:false"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.open()")));
    QCOMPARE(m_script->rows(Way::Thread, QStringLiteral("db"), QStringLiteral("SELECT 1")),
             QStringLiteral("number:1"));
}

void TestServerPostgres::statementTimeoutIsAnErrorAndTheConnectionLives()
{
    // Enough for a statement on a server that is given its time late.
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"),
                              QStringLiteral("SET statement_timeout = 1500")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.query('SELECT pg_sleep(30)') === false")));
    QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.number")).toInt32(), 57014);
    QVERIFY(m_script->isTrue(QStringLiteral("db.isOpen")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT 1")),
             QStringLiteral("number:1"));
}

void TestServerPostgres::nullsAreNumberedByRow()
{
    m_script->eval(QStringLiteral("db.query_thread(keep('n'), \"SELECT NULLIF(n % 2, 0) AS half "
                                  "FROM generate_series(1, 4) n\")"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QCOMPARE(m_script->eval(QStringLiteral("rows(delivered[0].result)")).toString(),
             QStringLiteral("number:1;null;number:1;null"));
    QCOMPARE(m_script->text(QStringLiteral("delivered[0].result.fields_nulls[0]")),
             QStringLiteral("array:number:1,number:3"));
}

void TestServerPostgres::largeValuesArriveWhole()
{
    QVERIFY(m_script->mustRun(Way::Thread, QStringLiteral("db"),
                              QStringLiteral("SELECT repeat('ж', 3000000)")));
    QVERIFY(
        m_script->isTrue(QStringLiteral("answer.result.fields_index[0][0].length === 3000000")));
    QVERIFY(m_script->mustRun(
        Way::Thread, QStringLiteral("db"),
        QStringLiteral("SELECT n, md5(n::text) FROM generate_series(1, 50000) n")));
    QVERIFY(m_script->isTrue(QStringLiteral(
        "answer.result.rows === 50000 && answer.result.fields_index[0][49999] === 50000")));
}

QTEST_GUILESS_MAIN(TestServerPostgres)
#include "test_server_postgres.moc"
