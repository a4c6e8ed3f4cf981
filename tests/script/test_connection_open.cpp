// How the main connection is opened and closed.
#include "connection_test.h"

#include <QSignalSpy>

namespace
{

/// "level function text" of each message.
QStringList lines(const QVector<SinkMessage> &messages)
{
    QStringList found;
    for (const SinkMessage &message : messages)
        found.append(QStringLiteral("%1 %2 %3")
                         .arg(QString::number(message.level), message.function, message.text));
    return found;
}

} // namespace

class TestConnectionOpen : public ConnectionTest
{
    Q_OBJECT

private slots:
    void openAnnouncesEventSupport_data();
    void openAnnouncesEventSupport();
    void openTracesSubscriptionSupport_data();
    void openTracesSubscriptionSupport();
    void openEmitsOpenedAfterEverythingElse();
    void openingTwiceChangesNothing();
    void openingTwiceAdvisesWhenTracing_data();
    void openingTwiceAdvisesWhenTracing();
    void openDoesNotStartTheThread();
    void openCountsAttemptsAndSuccesses();

    void failedOpenIsFalseAndLeavesNothingRegistered();
    void failedOpenKeepsTheNameThatWasTried();
    void failedOpenIsSilentWithoutTracing();
    void failedOpenReportsTheParametersInOrder();
    void failedOpenLeavesOutWhatIsEmpty();
    void failedOpenNeverShowsAPassword_data();
    void failedOpenNeverShowsAPassword();
    void openAfterAFailureWorks();
    void openWithinTheReportOfAFailureHolds();
    void openThatIsClosedInItsAnnouncementIsFalse();
    void openThatIsClosedInItsSignalIsFalse();
    void openGivesALostConnectionUp();

    void closeIsFalseWhenNotOpen();
    void closingTwiceEmitsNothingTheSecondTime();
    void closeUnregistersTheConnection();
    void closeClearsErrorAndQuery();
    void closeClearsTheResultEvenWhenNotOpen();
    void closeCancelsWhereTheDriverCan_data();
    void closeCancelsWhereTheDriverCan();
    void closeFollowsItsOrder();
    void closeStopsTheThreadFirst();
    void closeEmitsClosedWhenEverythingIsDone();
    void reopenedConnectionWorks();
};

// --- Open ---

void TestConnectionOpen::openAnnouncesEventSupport_data()
{
    QTest::addColumn<bool>("supported");
    QTest::addColumn<bool>("trace");
    QTest::addColumn<QString>("line");
    QTest::newRow("yes, quiet") << true << false
                                << QStringLiteral("5 open драйвер QSTUB поддерживает события");
    QTest::newRow("no, quiet") << false << false
                               << QStringLiteral("5 open драйвер QSTUB не поддерживает события");
    QTest::newRow("yes, tracing") << true << true
                                  << QStringLiteral("2 open драйвер QSTUB поддерживает события");
    QTest::newRow("no, tracing") << false << true
                                 << QStringLiteral("0 open драйвер QSTUB не поддерживает события");
}

void TestConnectionOpen::openAnnouncesEventSupport()
{
    QFETCH(bool, supported);
    QFETCH(bool, trace);
    QFETCH(QString, line);
    useDriver("QSTUB");
    m_stub->setFeature(QSqlDriver::EventNotifications, supported);
    h().eval(QStringLiteral("db.traceLog = %1").arg(trace ? utf8("true") : utf8("false")));
    h().post()->clear();
    QVERIFY(h().holds("db.open()"));
    QCOMPARE(lines(h().post()->messages()), (QStringList{line}));
    QCOMPARE(h().post()->messages().constFirst().file, QLatin1String(workerSource));
}

void TestConnectionOpen::openTracesSubscriptionSupport_data()
{
    QTest::addColumn<bool>("supported");
    QTest::newRow("supported") << true;
    QTest::newRow("not supported") << false;
}

void TestConnectionOpen::openTracesSubscriptionSupport()
{
    QFETCH(bool, supported);
    useDriver("QSTUB");
    m_stub->setFeature(QSqlDriver::EventNotifications, supported);
    QVERIFY(h().holds("db.open() && db.close()"));
    QVERIFY(!m_log->contains(QStringLiteral("subscribeToNotification")));
    QVERIFY(h().holds("db.traceLog = true; db.open()"));
    const QString pattern =
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\d-\\d\\d:\\d\\d:\\d\\d\\.\\d{3} vext_sql_thread:\\d+ "
                       "open \\t \\d{13} subscribeToNotification %1 supported$")
            .arg(supported ? QString() : QStringLiteral("no"));
    QVERIFY2(m_log->matching(QtDebugMsg, pattern).size() == 1,
             qPrintable(m_log->lines().isEmpty() ? QString() : m_log->lines().constLast().text));
}

void TestConnectionOpen::openEmitsOpenedAfterEverythingElse()
{
    useDriver("QPSQL", QSqlDriver::PostgreSQL);
    m_stub->setFeature(QSqlDriver::EventNotifications);
    h().eval("db.app_name = 'a'; db.add_event('e'); var seen;"
             "db.opened.connect(function() { seen = db.counters().cnt_opened + ' ' + db.isOpen })");
    int statements = 0;
    int subscribed = 0;
    connect(h().connection(), &VEXT_SQL::opened, this, [&] {
        statements = m_stub->executed().size();
        subscribed = m_stub->count(StubCall::Subscribe);
    });
    QVERIFY(h().holds("db.open()"));
    QCOMPARE(h().shown("seen"), QStringLiteral("1 true"));
    QCOMPARE(statements, 2);
    QCOMPARE(subscribed, 1);
    // Subscriptions are renewed before the application name is told.
    const auto calls = m_stub->calls();
    int subscribe = -1;
    int firstStatement = -1;
    for (int i = 0; i < calls.size(); ++i) {
        if (calls.at(i).what == StubCall::Subscribe)
            subscribe = i;
        if (calls.at(i).what == StubCall::Exec && firstStatement < 0)
            firstStatement = i;
    }
    QVERIFY2(subscribe >= 0 && subscribe < firstStatement, qPrintable(m_stub->record()));
}

void TestConnectionOpen::openingTwiceChangesNothing()
{
    useDriver("QSTUB");
    h().eval("var opened = 0; db.opened.connect(function() { ++opened })");
    QVERIFY(h().holds("db.open() === true && db.open() === true"));
    QCOMPARE(m_stub->count(StubCall::Open), 1);
    QVERIFY(h().holds("opened === 1 && db.counters().cnt_open === 1"));
    QCOMPARE(h().post()->messages(-1).size() + h().post()->messages(0).size(), 0);
}

void TestConnectionOpen::openingTwiceAdvisesWhenTracing_data()
{
    QTest::addColumn<int>("port");
    QTest::addColumn<QString>("target");
    QTest::newRow("with port") << 5432 << QStringLiteral("host:5432:base");
    QTest::newRow("port 0") << 0 << QStringLiteral("host:base");
    QTest::newRow("port -1") << -1 << QStringLiteral("host:base");
}

void TestConnectionOpen::openingTwiceAdvisesWhenTracing()
{
    QFETCH(int, port);
    QFETCH(QString, target);
    useDriver("QSTUB");
    h().eval(QStringLiteral("db.hostName = 'host'; db.databaseName = 'base'; db.port = %1;"
                            "db.open(); db.traceLog = true")
                 .arg(port));
    h().post()->clear();
    QVERIFY(h().holds("db.open()"));
    QCOMPARE(
        lines(h().post()->messages()),
        (QStringList{
            QStringLiteral("0 open перед открытием БД, закройте соединение с '%1'").arg(target)}));
}

void TestConnectionOpen::openDoesNotStartTheThread()
{
    useDriver("QSTUB");
    QVERIFY(h().holds("db.open() && !db.isRunning"));
    QCOMPARE(m_stub->count(StubCall::DriverCreated), 1);
}

void TestConnectionOpen::openCountsAttemptsAndSuccesses()
{
    useDriver("QSTUB");
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no")),
                 StubWhere::nth(1));
    const auto counts = [this] {
        return h().shown("var c = db.counters(); c.cnt_open + ' ' + c.cnt_opened + ' '"
                         " + c.cnt_closed");
    };
    QCOMPARE(counts(), QStringLiteral("0 0 0"));
    QVERIFY(h().holds("db.open() === false"));
    QCOMPARE(counts(), QStringLiteral("1 0 0"));
    QVERIFY(h().holds("db.open() && db.open()"));
    QCOMPARE(counts(), QStringLiteral("2 1 0"));
    QVERIFY(h().holds("db.close() && !db.close()"));
    QCOMPARE(counts(), QStringLiteral("2 1 1"));
}

// --- Failed open ---

void TestConnectionOpen::failedOpenIsFalseAndLeavesNothingRegistered()
{
    useDriver("QSTUB");
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no route")));
    h().eval("var opened = 0; db.opened.connect(function() { ++opened })");
    QVERIFY(h().holds("db.open() === false && !db.isOpen && !db.isValid && opened === 0"));
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    QCOMPARE(m_stub->liveDrivers(), 0);
    QCOMPARE(h().shown("db.lastErrors.databaseText"), QStringLiteral("no route"));
}

void TestConnectionOpen::failedOpenKeepsTheNameThatWasTried()
{
    useDriver("QSTUB");
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no")));
    h().eval("db.connectionName = 'x'; db.open()");
    QCOMPARE(h().shown("db.connectionName"), QStringLiteral("QSTUB_x"));
    QSqlDatabase::addDatabase(QStringLiteral("QSTUB"), QStringLiteral("QSTUB_x"));
    h().eval("db.open()");
    QCOMPARE(h().shown("db.connectionName"),
             QStringLiteral("con_QSTUB_sql_%1").arg(h().worker()->m_conNumber));
    QSqlDatabase::removeDatabase(QStringLiteral("QSTUB_x"));
}

void TestConnectionOpen::failedOpenIsSilentWithoutTracing()
{
    useDriver("QSTUB");
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no")));
    QVERIFY(h().holds("db.open() === false"));
    QCOMPARE(h().post()->texts(), QStringList());
    QCOMPARE(m_log->lines().size(), 0);
}

void TestConnectionOpen::failedOpenReportsTheParametersInOrder()
{
    useDriver("QSTUB");
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no route")));
    h().eval("db.databaseName = 'base'; db.userName = 'user'; db.password = 'secret';"
             "db.hostName = 'host'; db.port = 77; db.connectOptions = 'A=1;B=2';"
             "db.connectionName = 'x'; db.traceLog = true");
    h().post()->clear();
    QVERIFY(h().holds("db.open() === false"));
    const QStringList wanted = {
        QStringLiteral("-1 open не смог подключиться к БД 'no route STUB: failed'"),
        QStringLiteral("1 open driverName    = 'QSTUB'"),
        QStringLiteral("1 open hostName      = 'host:77'"),
        QStringLiteral("1 open databaseName  = 'base'"),
        QStringLiteral("1 open userName      = 'user'"),
        QStringLiteral("1 open password      = '****'"),
        QStringLiteral("1 open connectOptions= 'A=1;B=2'"),
        QStringLiteral("1 open connectionName= 'QSTUB_x'"),
    };
    QCOMPARE(lines(h().post()->messages()), wanted);
    const auto messages = h().post()->messages();
    for (const SinkMessage &message : messages)
        QCOMPARE(message.file, QLatin1String(workerSource));
    QCOMPARE(h().shown("db.lastError"), QStringLiteral("no route STUB: failed"));
}

void TestConnectionOpen::failedOpenLeavesOutWhatIsEmpty()
{
    useDriver("QSTUB");
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no")));
    h().eval("db.traceLog = true");
    h().post()->clear();
    QVERIFY(h().holds("db.open() === false"));
    const QStringList wanted = {
        QStringLiteral("-1 open не смог подключиться к БД 'no STUB: failed'"),
        QStringLiteral("1 open driverName    = 'QSTUB'"),
        QStringLiteral("1 open hostName      = ''"),
        QStringLiteral("1 open databaseName  = ''"),
        QStringLiteral("1 open userName      = ''"),
        QStringLiteral("1 open password      = '****'"),
        QStringLiteral("1 open connectionName= '_sql'"),
    };
    QCOMPARE(lines(h().post()->messages()), wanted);
}

void TestConnectionOpen::failedOpenNeverShowsAPassword_data()
{
    QTest::addColumn<QString>("code");
    const auto row = [](const char *code) { QTest::newRow(code) << utf8(code); };
    row("db.password = 'SEC%1RET'");
    row("db.password = ''; db.connectOptions = 'password=SEC%1RET'");
    row("db.connectOptions = 'PASSWORD = SEC%1RET;A=1'");
    row("db.connectOptions = 'A=1;Pwd=SEC%1RET'");
    row("db.connectOptions = 'passwd=SEC%1RET'");
    row("db.connectOptions = 'sslpassword=SEC%1RET'");
    row("db.connectOptions = 'A=1; sslpassword = SEC%1RET ;B=2'");
    row("db.connectOptions = \"password='SEC;%1RET'\"");
    row("db.connectOptions = \"password='a\\\\'SEC%1RET'\"");
    row("db.connectOptions = 'PWD={SEC;%1RET}'");
    row("db.connectOptions = 'PWD={a}}SEC;%1RET}'");
    row("db.connectOptions = 'PWD=\"SEC;%1RET\"'");
    row("db.connectOptions = 'host=x password=SEC%1RET user=y'");
    row("db.databaseName = 'DRIVER={x};UID=u;PWD=SEC%1RET;DATABASE=d'");
    row("db.databaseName = 'DRIVER={x};pwd={SEC;%1RET}'");
    row("db.connectOptions = 'a=1;\\npassword=\\tSEC%1RET\\n'");
}

void TestConnectionOpen::failedOpenNeverShowsAPassword()
{
    QFETCH(QString, code);
    useDriver("QSTUB");
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no")));
    h().eval("db.traceLog = true");
    h().eval(code);
    QVERIFY(h().holds("db.open() === false"));
    h().eval("db.query('x'); db.tables(); db.exec('x', [])");
    m_stub->reset();
    // The advice about an open connection names the database too.
    QVERIFY(h().holds("db.open() && db.open()"));
    const QRegularExpression secret(QStringLiteral("SEC|RET"));
    const QStringList shown = h().post()->texts().filter(secret);
    QVERIFY2(shown.isEmpty(), qPrintable(shown.join(QLatin1Char('\n'))));
    const QStringList logged = m_log->matching(secret);
    QVERIFY2(logged.isEmpty(), qPrintable(logged.join(QLatin1Char('\n'))));
    QVERIFY(h().post()->contains(QStringLiteral("password      = '****'")));
}

void TestConnectionOpen::openAfterAFailureWorks()
{
    useDriver("QSTUB");
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no")),
                 StubWhere::nth(1));
    QVERIFY(h().holds("db.open() === false && db.open() === true"));
    QCOMPARE(h().shown("db.connectionName"), QStringLiteral("_sql"));
}

/// A host may show a message by running script code.
void TestConnectionOpen::openWithinTheReportOfAFailureHolds()
{
    useDriver("QSTUB");
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no")),
                 StubWhere::nth(1));
    h().eval("db.traceLog = true; var within = null");
    connect(h().worker(), &VEXT_sqlThr::s_msg, this,
            [this] { h().eval("if (within === null) { within = 0; within = db.open() }"); });
    QVERIFY(h().holds("db.open() === false && within === true && db.isOpen"));
    QCOMPARE(m_stub->openDrivers(), 1);
    disconnect(h().worker(), nullptr, this, nullptr);
}

// --- Close ---

void TestConnectionOpen::openThatIsClosedInItsAnnouncementIsFalse()
{
    useDriver("QSTUB");
    m_stub->setFeature(QSqlDriver::EventNotifications);
    h().eval("var told = 0; db.opened.connect(function() { ++told }); db.traceLog = true;"
             "db.add_event('a')");
    connect(h().worker(), &VEXT_sqlThr::s_msg, this, [this] { h().eval("db.close()"); });
    QVERIFY(h().holds("db.open() === false && told === 0 && !db.isOpen"));
    disconnect(h().worker(), nullptr, this, nullptr);
    QCOMPARE(m_stub->liveDrivers(), 0);
}

void TestConnectionOpen::openThatIsClosedInItsSignalIsFalse()
{
    useDriver("QSTUB");
    h().eval("db.opened.connect(function() { db.close() })");
    QVERIFY(h().holds("db.open() === false && !db.isOpen"));
}

void TestConnectionOpen::openGivesALostConnectionUp()
{
    useDriver("QSTUB");
    h().eval("db.open()");
    h().worker()->db.close(); // as a driver that finds its connection lost
    QVERIFY(h().holds("db.open() && db.connectionName === '_sql'"));
    QCOMPARE(m_stub->liveDrivers(), 1);
    QCOMPARE(QSqlDatabase::connectionNames().size(), 1);
    QVERIFY(h().holds("db.close()"));
    QCOMPARE(m_stub->liveDrivers(), 0);
}

void TestConnectionOpen::closeIsFalseWhenNotOpen()
{
    useDriver("QSTUB");
    h().eval("var closed = 0; db.closed.connect(function() { ++closed })");
    QVERIFY(h().holds("db.close() === false && closed === 0 && db.counters().cnt_closed === 0"));
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no")));
    QVERIFY(h().holds("db.open() === false && db.close() === false && closed === 0"));
    // What could not be opened keeps its error.
    QVERIFY(h().holds("db.lastErrors.isValid === 1"));
}

void TestConnectionOpen::closingTwiceEmitsNothingTheSecondTime()
{
    useDriver("QSTUB");
    QSignalSpy cancelled(h().worker(), &VEXT_sqlThr::cancelQuery);
    h().eval("var closed = 0; db.closed.connect(function() { ++closed }); db.open()");
    QVERIFY(h().holds("db.close() === true && closed === 1"));
    QCOMPARE(cancelled.count(), 1);
    QVERIFY(h().holds("db.close() === false && closed === 1 && db.counters().cnt_closed === 1"));
    QCOMPARE(cancelled.count(), 1);
}

void TestConnectionOpen::closeUnregistersTheConnection()
{
    useDriver("QSTUB");
    QVERIFY(h().holds("db.open() && db.close() && !db.isValid"));
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    QCOMPARE(m_stub->liveDrivers(), 0);
    QCOMPARE(m_stub->count(StubCall::Close), 1);
    QCOMPARE(h().shown("db.connectionName"), QStringLiteral("_sql"));
}

void TestConnectionOpen::closeClearsErrorAndQuery()
{
    useDriver("QSTUB");
    m_stub->onExact(QStringLiteral("bad"), StubReply::failure(stubError(QSqlError::StatementError,
                                                                        QStringLiteral("bad"))));
    h().eval("db.open(); db.query('bad')");
    QVERIFY(h().holds("db.lastQuery === 'bad' && db.lastError !== ''"));
    QVERIFY(h().holds("db.close() && db.lastQuery === '' && db.lastError === ''"));
}

void TestConnectionOpen::closeClearsTheResultEvenWhenNotOpen()
{
    useDriver("QSTUB");
    h().eval("db.open(); var held = db.query('x'); db.close()");
    QVERIFY(h().holds("held.rows === undefined && db.queryResult === undefined"));
    h().eval("db.queryResult = {a: 1}; held = db.queryResult");
    QVERIFY(h().holds("db.close() === false && held.a === undefined"));
}

void TestConnectionOpen::closeCancelsWhereTheDriverCan_data()
{
    QTest::addColumn<bool>("canCancel");
    QTest::newRow("can cancel") << true;
    QTest::newRow("cannot cancel") << false;
}

void TestConnectionOpen::closeCancelsWhereTheDriverCan()
{
    QFETCH(bool, canCancel);
    useDriver("QSTUB");
    m_stub->setFeature(QSqlDriver::CancelQuery, canCancel);
    QSignalSpy cancelled(h().worker(), &VEXT_sqlThr::cancelQuery);
    QVERIFY(h().holds("db.open() && db.close()"));
    QCOMPARE(m_stub->count(StubCall::Cancel), canCancel ? 1 : 0);
    QCOMPARE(cancelled.count(), 1);
}

void TestConnectionOpen::closeFollowsItsOrder()
{
    useDriver("QSTUB");
    m_stub->setFeature(QSqlDriver::CancelQuery);
    m_stub->setFeature(QSqlDriver::EventNotifications);
    QVERIFY(h().holds("db.add_event('b'); db.add_event('a'); db.open()"));
    m_stub->clearRecord();
    QVERIFY(h().holds("db.close()"));
    QStringList seen;
    const auto calls = m_stub->calls();
    for (const StubCall &call : calls) {
        if (call.what == StubCall::Cancel)
            seen.append(QStringLiteral("cancel"));
        if (call.what == StubCall::Unsubscribe)
            seen.append(QStringLiteral("unsubscribe ") + call.text);
        if (call.what == StubCall::Close)
            seen.append(QStringLiteral("close"));
        if (call.what == StubCall::DriverDestroyed)
            seen.append(QStringLiteral("removed"));
    }
    QCOMPARE(seen, (QStringList{QStringLiteral("cancel"), QStringLiteral("unsubscribe b"),
                                QStringLiteral("unsubscribe a"), QStringLiteral("close"),
                                QStringLiteral("removed")}));
}

void TestConnectionOpen::closeStopsTheThreadFirst()
{
    useDriver("QSTUB");
    m_stub->setFeature(QSqlDriver::CancelQuery);
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_stub->onExact(QStringLiteral("slow"), StubReply::affected(0).withGate(gate));
    h().eval("db.open(); var done = 0; db.query_thread(function() { ++done }, 'slow');"
             "db.query_thread(function() { ++done }, 'next')");
    QVERIFY(gate->waitReached());
    QVERIFY(h().holds("db.close() && !db.isRunning && !db.isOpen"));
    QVERIFY(h().script.waitForScript(QStringLiteral("done === 2")));
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    // The thread's connection goes before the main one.
    QStringList closed;
    const auto calls = m_stub->calls(StubCall::Close);
    for (const StubCall &call : calls)
        closed.append(call.connection);
    QCOMPARE(closed, (QStringList{QStringLiteral("_sql_thr"), QStringLiteral("_sql")}));
    QVERIFY(!m_stub->executed().contains(QStringLiteral("next")));
}

void TestConnectionOpen::closeEmitsClosedWhenEverythingIsDone()
{
    useDriver("QSTUB");
    h().eval("var seen; db.closed.connect(function() { seen = [db.isOpen, db.isValid,"
             "db.lastQuery, db.lastError, db.counters().cnt_closed].join() });"
             "db.open(); db.query('x'); db.close()");
    QCOMPARE(h().shown("seen"), QStringLiteral("false,false,,,1"));
}

void TestConnectionOpen::reopenedConnectionWorks()
{
    useDriver("QSTUB");
    for (int i = 0; i < 3; ++i)
        QVERIFY(h().holds("db.open() && db.query('x') !== false && db.close()"));
    QVERIFY(h().holds("db.counters().cnt_opened === 3 && db.counters().cnt_closed === 3"));
}

QTEST_GUILESS_MAIN(TestConnectionOpen)
#include "test_connection_open.moc"
