// Database notifications: subscriptions, their renewal, their relay to scripts.
#include "frame_host.h"
#include "library_life.h"
#include "message_log.h"
#include "recording_driver.h"

#include <QtTest>

#include <memory>

class TestNotifications : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void supportIsTheDriversAnswer();
    void supportOfAnUnopenedConnectionIsFalse();

    void addBeforeOpenIsTrueAndWaits();
    void waitingNamesAreSubscribedAtOpenInOrder();
    void addWhileOpenSubscribesAtOnce();
    void addWithoutDriverSupportIsTrueAndWaits();
    void addingTwiceIsFalseAndCallsNoDriver();
    void namesAreComparedWithCase();
    void refusedSubscriptionStaysListedAndIsRetried();

    void removeUnsubscribesAndForgets();
    void removeFromAClosedConnectionForgets();
    void removingAnUnknownNameIsFalseButStillAsksTheDriver();
    void removingAnUnknownNameFromAClosedConnectionAsksNobody();
    void removeWithoutDriverSupportForgets();
    void failedUnsubscribeIsIgnored();

    void eventsOfAClosedConnectionAreTheRememberedNames();
    void eventsOfAnOpenConnectionAreTheDrivers();

    void notificationReachesTheScript_data();
    void notificationReachesTheScript();
    void notificationReachesTheWorkersSignalInTheSameCall();
    void notificationOfAnUnknownNameIsNotRelayed();
    void oneNotificationIsOneEvent();
    void notificationArrivesAgainAfterReopening();
    void nothingArrivesAfterClose();
    void subscriptionsAreKeptApartByConnection();
    void threadConnectionNeverSubscribes();

    void callSiteOfTheSubscriberIsRecorded();
    void callSitesArePaddedToTheLongest();
    void removingAndAddingRecordsTheNewCallSite();
    void removeForgetsTheCallSiteOfThatName();
    void nameAddedWhileItsCallSiteIsLookedForIsListedOnce();

    void tracedSubscriptionsAreLogged();
    void untracedSubscriptionsAreSilent();

    void handlerMayClose();
    void handlerMayCloseAndReopen();
    void handlerMayRemoveItsEvent();
    void handlerMayAddAnEvent();
    void handlerMayQuery();
    void handlerMayThrow();
    void handlerMayDeleteTheConnection();
    void handlerMayCloseBeforeTheWorkerEndsAtOnce();
    void handlerMayStartNestedNotifications();
    void handlerMayRemoveItsEventAndAddItAgain();
    void handlerMayRemoveAndAddANameThatTheDriverDoesNotHave_data();
    void handlerMayRemoveAndAddANameThatTheDriverDoesNotHave();
    void handlersEventLoopKeepsWhatWaitsForTheDelivery();
    void closedDriverIsNotHeardUntilItGoes();
    void closedDriverIsNotCancelledWithTheNext();

    void nameIsRemovedOnce();
    void closedDriverIsNotAskedToForget();
    void otherSystemsAreNotAskedWhatTheySend();
    void removedNameOfATransactionIsNotLookedFor();
    void subscriptionOfATransactionIsRenewedOnce();
    void subscriptionRemovedAndAddedInAHandlerIsRenewedAfterTheTransaction();
    void subscriptionThatHoldsIsLeftAlone();
    void closedConnectionIsNotAskedWhatItSends();
    void nameRemovedBeforeItsRenewalStaysRemoved();
    void nextConnectionKnowsNothingOfRemovals();
    void nextConnectionKnowsNothingOfTransactions();

private:
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<StubServer> m_stub;
    std::unique_ptr<FrameHost> m_host;
    FrameHost &h() { return *m_host; }
    int notify(const char *name, const QVariant &payload = QVariant())
    {
        return m_stub->notify(utf8(name), QSqlDriver::OtherSource, payload);
    }
    /// Lets the connection reach a PostgreSQL, whose transactions take subscriptions back.
    void usePostgres();
    /// How often the server was asked what it sends.
    int lookups() const { return m_stub->executed().count(utf8("SELECT pg_listening_channels()")); }
};

/// Deletes the connection object as a host may, from a script's hand.
static QScriptValue destroy(QScriptContext *context, QScriptEngine *engine)
{
    delete context->argument(0).toQObject();
    return engine->undefinedValue();
}

void TestNotifications::init()
{
    m_log = std::make_unique<MessageLog>();
    m_stub = std::make_unique<StubServer>(QStringLiteral("QSTUB"));
    m_stub->setFeature(QSqlDriver::EventNotifications);
    m_host = std::make_unique<FrameHost>();
    h().engine()->globalObject().setProperty(QStringLiteral("destroy"),
                                             h().engine()->newFunction(destroy));
    h().eval("var db = new VEXT_SQL(); db.driverName = 'QSTUB'; var seen = [];"
             "db.event.connect(function(name, payload, source) { seen.push(name) })");
}

void TestNotifications::usePostgres()
{
    m_stub = std::make_unique<StubServer>(QStringLiteral("QPSQL"), QSqlDriver::PostgreSQL);
    m_stub->setFeature(QSqlDriver::EventNotifications);
    h().eval("db.driverName = 'QPSQL'");
}

void TestNotifications::cleanup()
{
    m_host.reset();
    QVERIFY(QSqlDatabase::connectionNames().isEmpty());
    QVERIFY2(m_stub->liveResults() == 0 && m_stub->liveDrivers() == 0,
             qPrintable(m_stub->record()));
    m_stub.reset();
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

// --- Support ---

void TestNotifications::supportIsTheDriversAnswer()
{
    QVERIFY(h().holds("db.open() && db.isSupportEvent === true && db.close()"));
    m_stub->setFeature(QSqlDriver::EventNotifications, false);
    QVERIFY(h().holds("db.open() && db.isSupportEvent === false"));
}

void TestNotifications::supportOfAnUnopenedConnectionIsFalse()
{
    QVERIFY(h().holds("db.isSupportEvent === false"));
    QVERIFY(h().holds("db.open() && db.close() && db.isSupportEvent === false"));
}

// --- Adding ---

void TestNotifications::addBeforeOpenIsTrueAndWaits()
{
    QVERIFY(h().holds("db.add_event('a') === true && db.events.join() === 'a'"));
    QCOMPARE(m_stub->count(StubCall::Subscribe), 0);
}

void TestNotifications::waitingNamesAreSubscribedAtOpenInOrder()
{
    h().eval("db.add_event('c'); db.add_event('a'); db.add_event('b'); db.open()");
    QCOMPARE(m_stub->texts(StubCall::Subscribe),
             (QStringList{QStringLiteral("c"), QStringLiteral("a"), QStringLiteral("b")}));
    QVERIFY(h().holds("db.events.length === 3"));
}

void TestNotifications::addWhileOpenSubscribesAtOnce()
{
    QVERIFY(h().holds("db.open() && db.add_event('новости') === true"));
    QCOMPARE(m_stub->texts(StubCall::Subscribe), (QStringList{QStringLiteral("новости")}));
    QVERIFY(h().holds("db.events.join() === 'новости'"));
}

void TestNotifications::addWithoutDriverSupportIsTrueAndWaits()
{
    m_stub->setFeature(QSqlDriver::EventNotifications, false);
    QVERIFY(h().holds("db.open() && db.add_event('a') === true"));
    QCOMPARE(m_stub->count(StubCall::Subscribe), 0);
    m_stub->setFeature(QSqlDriver::EventNotifications, true);
    QVERIFY(h().holds("db.close() && db.open()"));
    QCOMPARE(m_stub->texts(StubCall::Subscribe), (QStringList{QStringLiteral("a")}));
}

void TestNotifications::addingTwiceIsFalseAndCallsNoDriver()
{
    QVERIFY(h().holds("db.add_event('a') && db.add_event('a') === false && db.open()"
                      " && db.add_event('a') === false && db.events.join() === 'a'"));
    QCOMPARE(m_stub->count(StubCall::Subscribe), 1);
}

void TestNotifications::namesAreComparedWithCase()
{
    QVERIFY(h().holds("db.add_event('a') && db.add_event('A') && db.events.join() === 'a,A'"
                      " && db.rem_event('A') && db.events.join() === 'a'"));
}

void TestNotifications::refusedSubscriptionStaysListedAndIsRetried()
{
    m_stub->fail(StubCall::Subscribe, stubError(QSqlError::StatementError, QStringLiteral("no")),
                 StubWhere::nth(1));
    QVERIFY(h().holds("db.open() && db.add_event('a') === false"));
    QVERIFY(h().holds("db.add_event('a') === false && db.events.length === 0"));
    QVERIFY(h().holds("db.close() && db.events.join() === 'a' && db.open()"));
    QCOMPARE(m_stub->count(StubCall::Subscribe), 2);
    QCOMPARE(notify("a"), 1);
    QCOMPARE(h().shown("seen.join()"), QStringLiteral("a"));
}

// --- Removing ---

void TestNotifications::removeUnsubscribesAndForgets()
{
    QVERIFY(h().holds("db.open() && db.add_event('a') && db.rem_event('a') === true"
                      " && db.events.length === 0"));
    QCOMPARE(m_stub->texts(StubCall::Unsubscribe), (QStringList{QStringLiteral("a")}));
    QVERIFY(h().holds("db.close() && db.events.length === 0 && db.open()"));
    QCOMPARE(m_stub->count(StubCall::Subscribe), 1);
}

void TestNotifications::removeFromAClosedConnectionForgets()
{
    QVERIFY(h().holds("db.add_event('a') && db.rem_event('a') === true && db.events.length === 0"
                      " && db.rem_event('a') === false"));
    QVERIFY(h().holds("db.open()"));
    QCOMPARE(m_stub->count(StubCall::Subscribe) + m_stub->count(StubCall::Unsubscribe), 0);
}

void TestNotifications::removingAnUnknownNameIsFalseButStillAsksTheDriver()
{
    QVERIFY(h().holds("db.open() && db.rem_event('never') === false"));
    QCOMPARE(m_stub->texts(StubCall::Unsubscribe), (QStringList{QStringLiteral("never")}));
}

void TestNotifications::removingAnUnknownNameFromAClosedConnectionAsksNobody()
{
    QVERIFY(h().holds("db.rem_event('never') === false"));
    QCOMPARE(m_stub->count(StubCall::Unsubscribe), 0);
}

void TestNotifications::removeWithoutDriverSupportForgets()
{
    m_stub->setFeature(QSqlDriver::EventNotifications, false);
    QVERIFY(h().holds("db.open() && db.add_event('a') && db.rem_event('a') === true"));
    QCOMPARE(m_stub->count(StubCall::Unsubscribe), 0);
}

void TestNotifications::failedUnsubscribeIsIgnored()
{
    m_stub->fail(StubCall::Unsubscribe, stubError(QSqlError::StatementError, QStringLiteral("no")));
    QVERIFY(h().holds("db.open() && db.add_event('a') && db.rem_event('a') === true"));
    QVERIFY(h().holds("db.close() && db.events.length === 0"));
}

// --- Listing ---

void TestNotifications::eventsOfAClosedConnectionAreTheRememberedNames()
{
    QVERIFY(h().holds("db.add_event('z'); db.add_event('a'); db.add_event('m');"
                      "db.events.join() === 'z,a,m' && db.open() && db.close()"
                      " && db.events.join() === 'z,a,m'"));
}

void TestNotifications::eventsOfAnOpenConnectionAreTheDrivers()
{
    QVERIFY(h().holds("db.add_event('a') && db.open()"));
    h().worker()->db.driver()->subscribeToNotification(QStringLiteral("direct"));
    QVERIFY(h().holds("db.events.slice().sort().join() === 'a,direct'"));
    QVERIFY(h().holds("db.close() && db.events.join() === 'a'"));
}

// --- Delivery ---

void TestNotifications::notificationReachesTheScript_data()
{
    QTest::addColumn<int>("source");
    QTest::addColumn<QVariant>("payload");
    QTest::addColumn<QString>("shown");
    QTest::newRow("unknown source, no payload")
        << int(QSqlDriver::UnknownSource) << QVariant() << QStringLiteral("news|undefined|0");
    QTest::newRow("self, text") << int(QSqlDriver::SelfSource) << QVariant(QStringLiteral("привет"))
                                << QStringLiteral("news|привет|1");
    QTest::newRow("other, number")
        << int(QSqlDriver::OtherSource) << QVariant(17) << QStringLiteral("news|17|2");
    QTest::newRow("empty text") << int(QSqlDriver::OtherSource) << QVariant(QString())
                                << QStringLiteral("news||2");
}

void TestNotifications::notificationReachesTheScript()
{
    QFETCH(int, source);
    QFETCH(QVariant, payload);
    QFETCH(QString, shown);
    h().eval("var args; db.event.connect(function(n, p, s) {"
             "args = [String(n), String(p), String(s)].join('|') });"
             "db.open(); db.add_event('news')");
    QCOMPARE(
        m_stub->notify(QStringLiteral("news"), QSqlDriver::NotificationSource(source), payload), 1);
    QCOMPARE(h().shown("args"), shown);
}

void TestNotifications::notificationReachesTheWorkersSignalInTheSameCall()
{
    h().eval("db.open(); db.add_event('news')");
    QStringList order;
    connect(
        h().worker(), &VEXT_sqlThr::event, this,
        [&](const QString &name, QSqlDriver::NotificationSource source, const QVariant &payload) {
            order.append(
                QStringLiteral("%1 %2 %3").arg(name, QString::number(source), payload.toString()));
        });
    notify("news", QStringLiteral("p"));
    QCOMPARE(order, (QStringList{QStringLiteral("news 2 p")}));
}

void TestNotifications::notificationOfAnUnknownNameIsNotRelayed()
{
    h().eval("db.open(); db.add_event('a')");
    QCOMPARE(notify("b"), 0);
    QCOMPARE(h().shown("seen.join()"), QString());
}

void TestNotifications::oneNotificationIsOneEvent()
{
    h().eval("db.add_event('a'); db.open(); db.close(); db.open(); db.close(); db.open()");
    QCOMPARE(notify("a"), 1);
    drainEvents();
    QCOMPARE(h().shown("seen.join()"), QStringLiteral("a"));
}

void TestNotifications::notificationArrivesAgainAfterReopening()
{
    h().eval("db.open(); db.add_event('a')");
    notify("a");
    QVERIFY(h().holds("db.close() && db.open()"));
    QCOMPARE(m_stub->count(StubCall::Subscribe), 2);
    QCOMPARE(notify("a"), 1);
    QCOMPARE(h().shown("seen.join()"), QStringLiteral("a,a"));
}

void TestNotifications::nothingArrivesAfterClose()
{
    h().eval("db.open(); db.add_event('a'); db.close()");
    QCOMPARE(m_stub->texts(StubCall::Unsubscribe), (QStringList{QStringLiteral("a")}));
    QCOMPARE(notify("a"), 0);
    drainEvents();
    QCOMPARE(h().shown("seen.join()"), QString());
}

void TestNotifications::subscriptionsAreKeptApartByConnection()
{
    h().eval("var other = new VEXT_SQL(); other.driverName = 'QSTUB'; var theirs = [];"
             "other.event.connect(function(n) { theirs.push(n) });"
             "db.open(); other.open(); db.add_event('a'); other.add_event('b')");
    notify("a");
    notify("b");
    QCOMPARE(h().shown("seen.join() + '|' + theirs.join()"), QStringLiteral("a|b"));
}

void TestNotifications::threadConnectionNeverSubscribes()
{
    h().eval("db.add_event('a'); db.open(); var done = false;"
             "db.query_thread(function() { done = true }, 'select 1')");
    QVERIFY(h().script.waitForScript(QStringLiteral("done")));
    h().eval("db.add_event('b')");
    QCOMPARE(m_stub->count(StubCall::Subscribe, QStringLiteral("_thr")), 0);
    QCOMPARE(m_stub->count(StubCall::Subscribe), 2);
}

// --- Call sites ---

void TestNotifications::callSiteOfTheSubscriberIsRecorded()
{
    h().script.eval(QStringLiteral("function inner() {\n db.add_event('a') }\n"
                                   "function outer() {\n inner() }\nouter()"),
                    QStringLiteral("/scripts/dir/watch.js"), 10);
    const QString entry = h().shown("db.counters(scriptEngine).subscribeEvents[0]");
    // The script function that called the one which subscribed: file and line of its call.
    const QRegularExpression pattern(QStringLiteral("^watch\\.js:\\d+ a$"));
    QVERIFY2(pattern.match(entry).hasMatch(), qPrintable(entry));
}

void TestNotifications::callSitesArePaddedToTheLongest()
{
    const QString add = QStringLiteral("(function() { (function() { db.add_event('%1') })() })()");
    h().script.eval(add.arg(QLatin1Char('a')), QStringLiteral("s.js"));
    h().script.eval(add.arg(QLatin1Char('b')), QStringLiteral("a_longer_name.js"));
    const QString shortEntry = h().shown("db.counters(scriptEngine).subscribeEvents[0]");
    const QString longEntry = h().shown("db.counters(scriptEngine).subscribeEvents[1]");
    QVERIFY2(shortEntry.startsWith(QLatin1String("s.js:")), qPrintable(shortEntry));
    QVERIFY2(longEntry.startsWith(QLatin1String("a_longer_name.js:")), qPrintable(longEntry));
    QCOMPARE(shortEntry.size(), longEntry.size());
    QVERIFY(shortEntry.endsWith(QLatin1String("  a")));
    QCOMPARE(longEntry.count(QLatin1Char(' ')), 1);
}

void TestNotifications::removingAndAddingRecordsTheNewCallSite()
{
    const QString add = QStringLiteral("(function() { (function() { db.add_event('a') })() })()");
    h().script.eval(add, QStringLiteral("first.js"));
    QVERIFY(h().shown("db.counters(scriptEngine).subscribeEvents[0]")
                .startsWith(QLatin1String("first.js:")));
    h().eval("db.rem_event('a')");
    h().script.eval(add, QStringLiteral("second.js"));
    QVERIFY(h().holds("db.counters(scriptEngine).subscribeEvents.length === 1"));
    QVERIFY(h().shown("db.counters(scriptEngine).subscribeEvents[0]")
                .startsWith(QLatin1String("second.js:")));
}

void TestNotifications::removeForgetsTheCallSiteOfThatName()
{
    const QString add = QStringLiteral("(function() { (function() { db.add_event('%1') })() })()");
    for (const char *name : {"a", "b", "c"})
        h().script.eval(add.arg(QLatin1String(name)), QLatin1String(name) + QStringLiteral(".js"));
    h().eval("db.rem_event('b')");
    const QStringList entries =
        qscriptvalue_cast<QStringList>(h().eval("db.counters(scriptEngine).subscribeEvents"));
    QCOMPARE(entries.size(), 2);
    QVERIFY(entries.at(0).startsWith(QLatin1String("a.js:")) &&
            entries.at(0).endsWith(QLatin1String(" a")));
    QVERIFY(entries.at(1).startsWith(QLatin1String("c.js:")) &&
            entries.at(1).endsWith(QLatin1String(" c")));
}

/// A script can put a getter where the name of the calling function is read.
void TestNotifications::nameAddedWhileItsCallSiteIsLookedForIsListedOnce()
{
    h().eval("var within = [], trap = {};"
             "trap.__defineGetter__('name', function() {"
             " if (within.length === 0) { within.push(null); within[0] = db.add_event('a') }"
             " return 'f' });"
             "var added; (function() { arguments.callee = trap;"
             " (function() { (function() { added = db.add_event('a') })() })() })();"
             "db.open()");
    QVERIFY(h().holds("within.length === 1"));
    QCOMPARE(h().shown("within[0] + ' ' + added"), QStringLiteral("true false"));
    QVERIFY(h().holds("db.counters(scriptEngine).subscribeEvents.length === 1"));
    QCOMPARE(m_stub->texts(StubCall::Subscribe), QStringList{utf8("a")});
}

// --- Trace ---

void TestNotifications::tracedSubscriptionsAreLogged()
{
    h().eval("db.traceLog = true; db.add_event('a'); db.open(); db.add_event('b'); db.close()");
    const QString head = QStringLiteral("^\\d{4}-\\d\\d-\\d\\d-\\d\\d:\\d\\d:\\d\\d\\.\\d{3} "
                                        "vext_sql_thread:\\d+ \\w+ \\t ");
    const auto once = [&](const char *text) {
        return m_log->matching(QtDebugMsg, head + utf8(text)).size();
    };
    QCOMPARE(once("\\d{13} subscribeToNotification offLine \"?a\"?$"), 1);
    QCOMPARE(once("subscribeToNotification onLine \"?a\"?$"), 1);
    QCOMPARE(once("\\d{13} subscribeToNotification onLine \"?b\"?$"), 1);
    QCOMPARE(once("\\d{13} unsubscribeFromNotification \"?a\"?$"), 1);
    QCOMPARE(once("\\d{13} unsubscribeFromNotification \"?b\"?$"), 1);
    // The place of the subscription fills at least twenty columns.
    QCOMPARE(once(".*test\\.js:\\d+ {9,}.*a"), 1);
}

void TestNotifications::untracedSubscriptionsAreSilent()
{
    h().eval("db.add_event('a'); db.open(); db.add_event('b'); db.rem_event('a'); db.close()");
    QCOMPARE(m_log->lines().size(), 0);
}

// --- Handlers ---

void TestNotifications::handlerMayClose()
{
    h().eval("db.event.connect(function() { db.close() }); db.open(); db.add_event('a')");
    notify("a");
    QVERIFY(h().holds("!db.isOpen && !db.isValid"));
    drainEvents();
    QVERIFY(QSqlDatabase::connectionNames().isEmpty());
    QCOMPARE(m_stub->liveDrivers(), 0);
    QCOMPARE(h().shown("seen.join() + ' ' + db.events.join()"), QStringLiteral("a a"));
}

void TestNotifications::handlerMayCloseAndReopen()
{
    h().eval("var count = 0; db.event.connect(function() { ++count; db.close(); db.open() });"
             "db.open(); db.add_event('a')");
    notify("a");
    QVERIFY(h().holds("db.isOpen && count === 1"));
    drainEvents();
    QCOMPARE(m_stub->openDrivers(), 1);
    QCOMPARE(notify("a"), 1);
    drainEvents();
    QVERIFY(h().holds("db.isOpen && count === 2 && db.query('x') !== false"));
    QCOMPARE(m_stub->openDrivers(), 1);
    QCOMPARE(QSqlDatabase::connectionNames().size(), 1);
}

void TestNotifications::handlerMayRemoveItsEvent()
{
    h().eval("db.event.connect(function(n) { db.rem_event(n) }); db.open(); db.add_event('a')");
    notify("a");
    QVERIFY(h().holds("db.counters(scriptEngine).subscribeEvents.length === 0"));
    drainEvents();
    QCOMPARE(m_stub->texts(StubCall::Unsubscribe), (QStringList{QStringLiteral("a")}));
    QCOMPARE(notify("a"), 0);
    QCOMPARE(h().shown("seen.join()"), QStringLiteral("a"));
}

void TestNotifications::handlerMayAddAnEvent()
{
    h().eval("db.event.connect(function(n) { db.add_event(n + 'x') }); db.open();"
             "db.add_event('a')");
    notify("a");
    drainEvents();
    QCOMPARE(notify("ax"), 1);
    QCOMPARE(h().shown("seen.join()"), QStringLiteral("a,ax"));
}

void TestNotifications::handlerMayQuery()
{
    h().eval("var ok = false; db.event.connect(function() { ok = db.query('x') !== false });"
             "db.open(); db.add_event('a')");
    notify("a");
    QVERIFY(h().holds("ok"));
}

void TestNotifications::handlerMayThrow()
{
    h().eval("db.event.connect(function() { throw new Error('no') }); db.open();"
             "db.add_event('a')");
    notify("a");
    h().engine()->clearExceptions();
    notify("a");
    h().engine()->clearExceptions();
    QCOMPARE(h().shown("seen.join()"), QStringLiteral("a,a"));
}

void TestNotifications::handlerMayDeleteTheConnection()
{
    h().eval("db.event.connect(function() { destroy(db) }); db.open(); db.add_event('a')");
    notify("a");
    drainEvents();
    QVERIFY(VEXT_SQL::m_listSqlConns.isEmpty());
    QCOMPARE(m_stub->liveDrivers(), 0);
}

void TestNotifications::handlerMayCloseBeforeTheWorkerEndsAtOnce()
{
    h().eval("db.event.connect(function() { db.close() }); db.open(); db.add_event('a')");
    notify("a");
    QCOMPARE(m_stub->openDrivers(), 1); // until the event loop comes round, which it never does
    LibraryLife::releaseWorkers(true);
    QCOMPARE(m_stub->liveDrivers(), 0);
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
}

void TestNotifications::handlerMayStartNestedNotifications()
{
    h().eval("db.open(); db.add_event('a'); db.add_event('b')");
    bool nested = false;
    connect(h().worker(), &VEXT_sqlThr::event, this, [&](const QString &name) {
        if (name == QLatin1String("a")) {
            nested = true;
            notify("b");
            h().eval("db.close(); db.open()");
        }
    });
    notify("a");
    drainEvents();
    QVERIFY(nested);
    QVERIFY(h().holds("db.isOpen && seen.slice().sort().join() === 'a,b'"));
    QCOMPARE(m_stub->openDrivers(), 1);
    disconnect(h().worker(), nullptr, this, nullptr);
}

void TestNotifications::handlerMayRemoveItsEventAndAddItAgain()
{
    h().eval("db.event.connect(function(n) { db.rem_event(n); db.add_event(n) }); db.open();"
             "db.add_event('a')");
    notify("a");
    drainEvents();
    QCOMPARE(m_stub->texts(StubCall::Subscribe), QStringList{utf8("a")});
    QCOMPARE(m_stub->count(StubCall::Unsubscribe), 0);
    QCOMPARE(notify("a"), 1);
    QCOMPARE(h().shown("seen.join() + ' ' + db.events.join()"), QStringLiteral("a,a a"));
}

void TestNotifications::handlerMayRemoveAndAddANameThatTheDriverDoesNotHave_data()
{
    QTest::addColumn<bool>("refused");
    QTest::newRow("never subscribed") << false;
    QTest::newRow("refused before") << true;
}

void TestNotifications::handlerMayRemoveAndAddANameThatTheDriverDoesNotHave()
{
    QFETCH(bool, refused);
    h().eval("var added = null; db.event.connect(function() { db.rem_event('b');"
             "added = db.add_event('b') }); db.open(); db.add_event('a')");
    if (refused) {
        m_stub->fail(StubCall::Subscribe,
                     stubError(QSqlError::StatementError, QStringLiteral("no")), StubWhere::nth(1));
        QVERIFY(h().holds("db.add_event('b') === false"));
    }
    m_stub->clearRecord();
    notify("a");
    drainEvents();
    QCOMPARE(m_stub->texts(StubCall::Subscribe), QStringList{utf8("b")});
    QVERIFY(h().holds("added === true"));
    QCOMPARE(notify("b"), 1);
    QCOMPARE(h().shown("seen.join() + ' ' + db.events.join()"), QStringLiteral("a,b a,b"));
}

void TestNotifications::handlersEventLoopKeepsWhatWaitsForTheDelivery()
{
    h().eval("db.open(); db.add_event('a'); db.add_event('b')");
    int askedWithin = -1;
    connect(h().worker(), &VEXT_sqlThr::event, this, [&](const QString &name) {
        if (name == QLatin1String("a")) {
            h().eval("db.rem_event('a')");
            return;
        }
        drainEvents();
        askedWithin = m_stub->count(StubCall::Unsubscribe);
    });
    notify("a");
    notify("b");
    QCOMPARE(askedWithin, 0);
    drainEvents();
    QCOMPARE(m_stub->texts(StubCall::Unsubscribe), QStringList{utf8("a")});
    disconnect(h().worker(), nullptr, this, nullptr);
}

void TestNotifications::closedDriverIsNotHeardUntilItGoes()
{
    h().eval("db.event.connect(function() { db.close() }); db.open(); db.add_event('a')");
    notify("a");
    notify("a");
    QCOMPARE(h().shown("seen.join()"), QStringLiteral("a"));
    drainEvents();
}

void TestNotifications::closedDriverIsNotCancelledWithTheNext()
{
    m_stub->setFeature(QSqlDriver::CancelQuery);
    h().eval("db.event.connect(function() { db.close(); db.open(); db.close() }); db.open();"
             "db.add_event('a')");
    notify("a");
    QCOMPARE(m_stub->count(StubCall::Cancel), 2);
    drainEvents();
}

// --- What the driver refuses, and what a transaction takes back ---

void TestNotifications::nameIsRemovedOnce()
{
    m_stub->fail(StubCall::Unsubscribe, stubError(QSqlError::StatementError, QStringLiteral("no")));
    h().eval("db.open(); db.add_event('a'); db.rem_event('a'); db.rem_event('a')");
    QCOMPARE(m_stub->count(StubCall::Unsubscribe), 2);
}

void TestNotifications::closedDriverIsNotAskedToForget()
{
    h().eval("db.open(); db.add_event('a')");
    connect(h().worker(), &VEXT_sqlThr::event, this, [this] {
        h().eval("db.rem_event('a')");
        h().worker()->db.close();
    });
    notify("a");
    drainEvents();
    QCOMPARE(m_stub->count(StubCall::Unsubscribe), 0);
    disconnect(h().worker(), nullptr, this, nullptr);
    QVERIFY(h().holds("db.open() && db.close()")); // gives the lost connection back
}

void TestNotifications::otherSystemsAreNotAskedWhatTheySend()
{
    h().eval("db.open(); db.transaction(); db.add_event('a'); db.rollback()");
    QCOMPARE(lookups(), 0);
    QCOMPARE(m_stub->texts(StubCall::Subscribe), QStringList{utf8("a")});
}

void TestNotifications::removedNameOfATransactionIsNotLookedFor()
{
    usePostgres();
    h().eval("db.open(); db.transaction(); db.add_event('a'); db.rem_event('a'); db.rollback()");
    QCOMPARE(lookups(), 0);
    QCOMPARE(m_stub->texts(StubCall::Subscribe), QStringList{utf8("a")});
}

void TestNotifications::subscriptionOfATransactionIsRenewedOnce()
{
    usePostgres();
    h().eval("db.open(); db.transaction(); db.add_event('a'); db.rollback();"
             "db.transaction(); db.commit()");
    QCOMPARE(lookups(), 1);
    QCOMPARE(m_stub->texts(StubCall::Unsubscribe), QStringList{utf8("a")}); // it has that name
    QCOMPARE(m_stub->count(StubCall::Subscribe), 2);
}

void TestNotifications::subscriptionRemovedAndAddedInAHandlerIsRenewedAfterTheTransaction()
{
    usePostgres();
    h().eval("db.event.connect(function() { db.rem_event('b'); db.add_event('b') });"
             "db.open(); db.add_event('a'); db.transaction(); db.add_event('b')");
    notify("a");
    drainEvents();
    m_stub->clearRecord();
    h().eval("db.rollback()");
    QCOMPARE(lookups(), 1);
    QCOMPARE(m_stub->texts(StubCall::Subscribe), QStringList{utf8("b")});
}

void TestNotifications::subscriptionThatHoldsIsLeftAlone()
{
    usePostgres();
    m_stub->onExact(QStringLiteral("SELECT pg_listening_channels()"),
                    StubReply::table({{QStringLiteral("c"), QVariant::String}}, {{utf8("a")}}));
    h().eval("db.open(); db.transaction(); db.add_event('a'); db.commit()");
    QCOMPARE(lookups(), 1);
    QCOMPARE(m_stub->count(StubCall::Subscribe), 1);
    QCOMPARE(m_stub->count(StubCall::Unsubscribe), 0);
}

void TestNotifications::closedConnectionIsNotAskedWhatItSends()
{
    usePostgres();
    h().eval("db.event.connect(function() { db.transaction(); db.add_event('b'); db.rollback();"
             "db.close() }); db.open(); db.add_event('a')");
    notify("a");
    drainEvents();
    QCOMPARE(lookups(), 0);
    QCOMPARE(m_stub->liveDrivers(), 0);
}

void TestNotifications::nameRemovedBeforeItsRenewalStaysRemoved()
{
    usePostgres();
    h().eval("db.event.connect(function() { db.transaction(); db.add_event('b'); db.rollback();"
             "db.rem_event('b') }); db.open(); db.add_event('a')");
    notify("a");
    drainEvents();
    QCOMPARE(m_stub->texts(StubCall::Subscribe), (QStringList{utf8("a"), utf8("b")}));
    QCOMPARE(m_stub->texts(StubCall::Unsubscribe), QStringList{utf8("b")});
}

void TestNotifications::nextConnectionKnowsNothingOfRemovals()
{
    h().eval("db.event.connect(function() { db.rem_event('a'); db.close(); db.open();"
             "db.add_event('a') }); db.open(); db.add_event('a')");
    notify("a");
    drainEvents();
    QCOMPARE(m_stub->count(StubCall::Subscribe), 2);
    QCOMPARE(notify("a"), 1);
}

void TestNotifications::nextConnectionKnowsNothingOfTransactions()
{
    usePostgres();
    h().eval("db.open(); db.transaction(); db.add_event('a'); db.close();"
             "db.open(); db.transaction(); db.commit()");
    QCOMPARE(lookups(), 0);
}

QTEST_GUILESS_MAIN(TestNotifications)
#include "test_notifications.moc"
