/// @file
/// Ends of engines and of stacks: objects that go with their engine, workers that are ended while
/// their functions run, and signals that are connected in a circle.
#include "frame_host.h"
#include "library_life.h"
#include "message_log.h"
#include "recording_driver.h"

#include <QSqlDatabase>
#include <QtTest>

#include <memory>

namespace
{

/// How often scripts called native functions, and with what; reset for each test.
int s_calls = 0;
bool s_gotNull = false;
QPointer<VEXT_sqlThr> s_worker;
bool s_endAll = false;
bool s_aliveOnTheStack = false;

QScriptValue countCall(QScriptContext *, QScriptEngine *)
{
    return QScriptValue(++s_calls);
}

/// Whether a script could make an object.
QScriptValue noteMade(QScriptContext *context, QScriptEngine *)
{
    ++s_calls;
    s_gotNull = context->argument(0).isNull();
    return QScriptValue();
}

/// What happens when the application ends, or the library goes, while a function of the worker is
/// on the stack.
QScriptValue endWorkers(QScriptContext *context, QScriptEngine *)
{
    ++s_calls;
    if (!s_endAll)
        delete context->argument(0).toQObject();
    LibraryLife::releaseWorkers(s_endAll);
    s_aliveOnTheStack = !s_worker.isNull();
    return QScriptValue();
}

/// Behind an inner function of the worker, while an outer one is still on the stack.
QScriptValue lookForWorker(QScriptContext *, QScriptEngine *)
{
    s_aliveOnTheStack = s_aliveOnTheStack && !s_worker.isNull();
    return QScriptValue();
}

} // namespace

class TestEnds : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void objectOfAnEndingEngineSendsNothing_data();
    void objectOfAnEndingEngineSendsNothing();
    void objectDeletedBeforeItsEngineSaysSo();
    void endingEngineGetsNoNewObjects();
    void endingEngineGetsNoAnswers_data();
    void endingEngineGetsNoAnswers();

    void objectsMayGoWhileTheirThreadsStart();
    void workerEndsWhenItsFunctionReturns_data();
    void workerEndsWhenItsFunctionReturns();
    void messageOfAFailedQueryMayEndTheWorker();
    void handlerMayEndTheWorkerThatDeliversATaskOfTheHost();

    void circleOfSignalsEnds_data();
    void circleOfSignalsEnds();
    void circleThroughSeveralObjectsEnds();
    void circleOfMessagesEnds();
    void nestedCallsBelowTheLimitAreAnswered();

private:
    FrameHost &h() { return *m_host; }
    void define(const char *name, QScriptEngine::FunctionSignature function)
    {
        h().engine()->globalObject().setProperty(QLatin1String(name),
                                                 h().engine()->newFunction(function));
    }
    int refusals() const;

    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<StubServer> m_stub;
    std::unique_ptr<FrameHost> m_host;
};

void TestEnds::init()
{
    s_calls = 0;
    s_gotNull = false;
    s_aliveOnTheStack = false;
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    m_stub = std::make_unique<StubServer>(QStringLiteral("STUB"));
    m_host = std::make_unique<FrameHost>();
    define("count", countCall);
    define("note", noteMade);
    define("endWorkers", endWorkers);
    define("lookForWorker", lookForWorker);
    // Qt Script takes the bare name for the form without arguments, which is never sent.
    h().eval("var gone = 'destroyed(QObject*)'; function make() { var db = new VEXT_SQL(); "
             "db.driverName = 'STUB'; return db }"
             "var db = make()");
}

void TestEnds::cleanup()
{
    m_host.reset();
    drainEvents();
    QVERIFY(VEXT_SQL::m_listSqlConns.isEmpty());
    QVERIFY(LibraryLife::workerCount() == 0);
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    QVERIFY2(m_stub->liveResults() == 0 && m_stub->liveDrivers() == 0,
             qPrintable(m_stub->record()));
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_stub.reset();
    m_log.reset();
}

/// The messages that refuse a call for its depth.
int TestEnds::refusals() const
{
    int count = 0;
    for (const SinkMessage &message : m_host->post()->messages(-1)) {
        if (message.text == QStringLiteral("слишком много вложенных вызовов (100)") &&
            message.file == QStringLiteral("plugins/PluginSQL/vext_sql"))
            ++count;
    }
    return count;
}

// --- Engines ---

void TestEnds::objectOfAnEndingEngineSendsNothing_data()
{
    QTest::addColumn<QString>("code");
    QTest::newRow("handler") << QStringLiteral("db[gone].connect(function() { count() })");
    QTest::newRow("handler that uses its object")
        << QStringLiteral("db.open(); db[gone].connect(function() { count(); db.query('x') })");
    // Without an end it would never end; the tenth object has no handler any more.
    QTest::newRow("handler that makes objects with the same handler")
        << QStringLiteral("function again() { if (count() < 10) make()[gone].connect(again) }"
                          "db[gone].connect(again)");
    QTest::newRow("native handler") << QStringLiteral("db[gone].connect(count)");
}

void TestEnds::objectOfAnEndingEngineSendsNothing()
{
    QFETCH(QString, code);
    h().eval(code);
    h().script.destroyEngine();
    QCOMPARE(s_calls, 0);
}

/// To the host's own listeners; those of scripts go with the object, as Qt Script has it.
void TestEnds::objectDeletedBeforeItsEngineSaysSo()
{
    QSignalSpy spy(h().connection(), &QObject::destroyed);
    delete h().connection();
    QCOMPARE(spy.size(), 1);
}

/// Signals of the host's own objects still reach scripts there.
void TestEnds::endingEngineGetsNoNewObjects()
{
    auto *thing = new QObject(h().engine());
    h().engine()->globalObject().setProperty(QStringLiteral("thing"),
                                             h().engine()->newQObject(thing));
    h().eval("thing[gone].connect(function() { note(new VEXT_SQL()) });"
             "thing[gone].connect(function() { note(VEXT_SQL('x')) })");
    h().script.destroyEngine();
    QCOMPARE(s_calls, 2);
    QVERIFY(s_gotNull);
}

void TestEnds::endingEngineGetsNoAnswers_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *call : {"counters()", "tag", "tag = 5", "db.query_thread('x')",
                             "db.exec_thread('x', [1])", "db.query('x')", "db.exec('x', [1])",
                             "db.open()", "db.close()", "db.counters()", "db.queryResult"})
        QTest::newRow(call) << 0;
}

void TestEnds::endingEngineGetsNoAnswers()
{
    auto *thing = new QObject(h().engine());
    thing->setParent(nullptr);
    thing->setParent(h().engine());
    h().engine()->globalObject().setProperty(QStringLiteral("thing"),
                                             h().engine()->newQObject(thing));
    h().eval(QStringLiteral("db.open(); db.query('x'); thing[gone].connect(function() {"
                            " count(); try { %1 } catch (e) {} })")
                 .arg(utf8(QTest::currentDataTag())));
    h().script.destroyEngine();
    QCOMPARE(s_calls, 1);
}

// --- Workers ---

/// What a signal that is just being sent holds is freed, too. Only a leak checker sees it, and only
/// now and then: without the repair one run of four loses the slot object of a connection.
void TestEnds::objectsMayGoWhileTheirThreadsStart()
{
    for (int i = 0; i < 4000; ++i) {
        auto *object = new VEXT_SQL(h().engine(), h().engine());
        object->setDriverName(QStringLiteral("STUB"));
        QVERIFY(object->start_thread());
        delete object;
        if (i % 50 == 0)
            drainEvents();
    }
    drainEvents();
    QCOMPARE(LibraryLife::workerCount(), 1);
}

void TestEnds::workerEndsWhenItsFunctionReturns_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<bool>("all");
    for (const bool all : {false, true}) {
        const auto row = [all](const char *name, const char *code) {
            QTest::newRow(qPrintable(
                QStringLiteral("%1, end of the %2")
                    .arg(QLatin1String(name), QLatin1String(all ? "library" : "application"))))
                << QString::fromUtf8(code) << all;
        };
        row("open", "db.opened.connect(function() { endWorkers(db) }); db.open()");
        row("close", "db.closed.connect(function() { endWorkers(db) }); db.open(); db.close()");
        row("query", "db.open(); db.query_finish.connect(function() { endWorkers(db) });"
                     "db.query('x')");
        row("close in open", "db.closed.connect(function() { endWorkers(db) });"
                             "db.opened.connect(function() { db.close(); lookForWorker() });"
                             "db.open()");
        row("delivery", "db.open(); db.query_thread(function() { endWorkers(db) }, 'x')");
        row("notification", "db.open(); db.add_event('news');"
                            "db.event.connect(function() { endWorkers(db) })");
    }
}

void TestEnds::workerEndsWhenItsFunctionReturns()
{
    QFETCH(QString, code);
    QFETCH(bool, all);
    s_endAll = all;
    s_worker = h().worker();
    m_stub->setFeature(QSqlDriver::EventNotifications);
    h().eval(code);
    m_stub->notify(QStringLiteral("news"), QSqlDriver::OtherSource);
    QVERIFY(waitUntil([] { return s_calls > 0; }));
    QCOMPARE(s_calls, 1);
    QVERIFY2(s_aliveOnTheStack, "deleted while its function ran");
    QVERIFY2(s_worker.isNull(), "still there after its function");
}

void TestEnds::messageOfAFailedQueryMayEndTheWorker()
{
    m_stub->setDefaultReply(
        StubReply::failure(stubError(QSqlError::ConnectionError, QStringLiteral("lost"))));
    h().eval("db.open()");
    const QPointer<VEXT_sqlThr> worker = h().worker();
    bool alive = false;
    connect(worker, &VEXT_sqlThr::s_msg, this, [&] {
        LibraryLife::releaseWorkers(true);
        alive = !worker.isNull();
    });
    h().eval("db.query('x')");
    QVERIFY2(alive, "deleted while its function ran");
    QVERIFY2(!worker, "still there after its function");
}

void TestEnds::handlerMayEndTheWorkerThatDeliversATaskOfTheHost()
{
    s_endAll = true;
    s_worker = h().worker();
    h().eval("db.open(); db.query_finish.connect(function() { endWorkers(db) })");
    QMetaObject::invokeMethod(s_worker, "queryFinish", Qt::DirectConnection,
                              Q_ARG(structThrSql *, new structThrSql));
    QCOMPARE(s_calls, 1);
    QVERIFY2(s_aliveOnTheStack, "deleted while its function ran");
    QVERIFY2(s_worker.isNull(), "still there after its function");
}

// --- Stacks ---

void TestEnds::circleOfSignalsEnds_data()
{
    QTest::addColumn<QString>("code");
    QTest::newRow("open and close")
        << QStringLiteral("db.opened.connect(db.close); db.closed.connect(db.open); db.open()");
    QTest::newRow("close and open") << QStringLiteral(
        "db.open(); db.opened.connect(db.close); db.closed.connect(db.open); db.close()");
    QTest::newRow("with two branches") << QStringLiteral(
        "for (var i = 0; i < 2; ++i) { db.opened.connect(db.close); db.closed.connect(db.open) }"
        "db.open()");
    QTest::newRow("queries") << QStringLiteral(
        "db.open(); db.query_finish.connect(db, 'query'); db.query('x')");
}

void TestEnds::circleOfSignalsEnds()
{
    QFETCH(QString, code);
    h().eval(code);
    QCOMPARE(refusals(), 1);
    QVERIFY(h().holds("var other = make(); other.open() && other.close()"));
}

void TestEnds::circleThroughSeveralObjectsEnds()
{
    h().eval("var all = []; for (var i = 0; i < 300; ++i) all.push(make());"
             "for (i = 0; i < 300; ++i) all[i].opened.connect(all[(i + 1) % 300].open)");
    h().eval("all[0].open()");
    QCOMPARE(refusals(), 1);
    QVERIFY(h().holds("all[99].isOpen && !all[100].isOpen"));
}

/// The refusal is a message as well.
void TestEnds::circleOfMessagesEnds()
{
    h().eval("db.s_msg.connect(db.disableTraceLog); db.s_msg.connect(db['enableTraceLog()']);"
             "db.enableTraceLog()");
    QCOMPARE(refusals(), 1);
}

void TestEnds::nestedCallsBelowTheLimitAreAnswered()
{
    h().eval("db.open(); var left = 40; db.query_finish.connect(function() {"
             " if (--left > 0) db.query('x') }); db.query('x')");
    QVERIFY(h().holds("left === 0"));
    QCOMPARE(refusals(), 0);
}

QTEST_GUILESS_MAIN(TestEnds)

#include "test_ends.moc"
