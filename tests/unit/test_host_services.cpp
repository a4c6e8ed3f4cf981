// The few calls that plugin objects make into the host application.
#include "message_log.h"
#include "message_sink.h"
#include "vextplugin_base.h"

#include <QScriptEngine>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

/// A plugin object whose last library answer can be seen.
class PluginProbe : public Plugin_base
{
    Q_OBJECT

public:
    explicit PluginProbe(QScriptEngine *engine = nullptr)
        : Plugin_base(nullptr, engine)
    {
    }
    using Plugin_base::m_libResult;
};

/// A server that answers as it is told.
class VextServerAnswer : public QObject
{
    Q_OBJECT

public:
    explicit VextServerAnswer(int answer)
        : QObject(QCoreApplication::instance())
        , m_answer(answer)
    {
        setObjectName(QStringLiteral("server"));
    }
    Q_INVOKABLE int isGuiApp() { return m_answer; }

private:
    int m_answer;
};

/// Its answer is of another type than the one asked for.
class BoolAnswer : public QObject
{
    Q_OBJECT

public:
    Q_INVOKABLE bool isGuiApp() { return true; }
    Q_INVOKABLE int loadLib(const QString &) { return 1; }
};

/// Opens and releases ports.
class Ports : public QObject
{
    Q_OBJECT

signals:
    void aTcp(quint16);
    void rTcp(quint16);
    void aUdp(quint16);
    void rUdp(quint16);
};

class TcpPorts : public QObject
{
    Q_OBJECT

signals:
    void aTcp(quint16);
    void rTcp(quint16);
};

class UdpPorts : public QObject
{
    Q_OBJECT

signals:
    void aUdp(quint16);
    void rUdp(quint16);
};

/// Classes whose names hold the host's names further in: they count where objects are handed over.
class MyVextPostBox : public VextPostStub
{
    Q_OBJECT
};

class MyVextServerBox : public VextServerStub
{
    Q_OBJECT
};

/// Everything a post and a server need except the class name.
class Impostor : public QObject
{
    Q_OBJECT

public:
    int calls = 0;

public slots:
    void insertObject(QObject *, const QString &) { ++calls; }
    void aTcp(quint16) { ++calls; }
    void rTcp(quint16) { ++calls; }
};

/// Refuses what it is handed by deleting it.
class VextPostRefusing : public QObject
{
    Q_OBJECT

public slots:
    void insertObject(QObject *object, const QString &) { delete object; }
};

namespace
{

/// What held before there was any application object.
struct BeforeApplication {
    bool isGui = true;
    int answer = 0;
} before;

void setGlobal(QScriptEngine &engine, const char *name, QObject *object)
{
    engine.globalObject().setProperty(QString::fromLatin1(name), engine.newQObject(object));
}

QStringList portTexts(const VextServerStub &server)
{
    QStringList texts;
    for (const VextServerStub::PortCall &call : server.portCalls())
        texts.append(call.slot + QLatin1Char(' ') + QString::number(call.port));
    return texts;
}

} // namespace

class TestHostServices : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void knownAnswerIsNotAskedAgain_data();
    void knownAnswerIsNotAskedAgain();
    void scriptGlobalAnswers_data();
    void scriptGlobalAnswers();
    void constructorWithEngineAsks();
    void constructorWithoutEngineDoesNotAsk();
    void twoObjectsAskTheScriptOnce();
    void engineWithoutServerStaysUnknownAndAsksAgain_data();
    void engineWithoutServerStaysUnknownAndAsksAgain();
    void scriptThatCreatesTheObjectIsNotInterrupted();
    void deletedServerLeavesNoException();
    void pendingExceptionIsNoAnswer();
    void engineIsAskedBeforeTheApplication();
    void withoutApplicationTheAnswerStaysUnknown();
    void withoutServerTheAnswerStaysUnknown();
    void applicationServerAnswers_data();
    void applicationServerAnswers();
    void applicationServerIsFoundBelowOtherObjects();
    void deadEngineIsAsIfThereWereNone();
    void serverThatCannotAnswerIsReported_data();
    void serverThatCannotAnswerIsReported();
    void failedQuestionIsAskedAgain();

    void loadLibReturnsTheLoadersAnswer();
    void loadLibWithoutTheMethodReturnsFalse();
    void loadLibOfAnotherResultTypeReturnsFalse();
    void loadLibOfNullReturnsFalse();

    void objectIsHandedToThePostWithItsName();
    void postsClassNameMayHoldTheNameAnywhere();
    void missingPostAndServerArePassedOver_data();
    void missingPostAndServerArePassedOver();
    void postAndServerOfOtherClassesArePassedOver();
    void portSignalsReachTheServer();
    void tcpAndUdpAreWiredApart();
    void portsAreAnnouncedOnceHoweverOftenInserted();
    void objectsWithoutPortsAreNotWired();
    void serversClassNameMayHoldTheNameAnywhere();
    void objectThatThePostDeletesIsNotWired();
    void nullArgumentsAreRefused();
};

void TestHostServices::init()
{
    Plugin_base::m_isGuiApp = -1;
}

void TestHostServices::knownAnswerIsNotAskedAgain_data()
{
    QTest::addColumn<int>("known");
    QTest::addColumn<bool>("answer");
    QTest::newRow("0") << 0 << false;
    QTest::newRow("1") << 1 << true;
    QTest::newRow("2") << 2 << true;
}

void TestHostServices::knownAnswerIsNotAskedAgain()
{
    QFETCH(int, known);
    QFETCH(bool, answer);
    VextServerStub server(QCoreApplication::instance());
    server.setGui(!answer);
    QScriptEngine engine;
    setGlobal(engine, "server", &server);
    Plugin_base::m_isGuiApp = known;
    QCOMPARE(PluginProbe().isGuiApp(), answer);
    QCOMPARE(PluginProbe(&engine).isGuiApp(), answer);
    QCOMPARE(server.isGuiAppCalls(), 0);
    QCOMPARE(server.guiReads(), 0);
    QCOMPARE(Plugin_base::m_isGuiApp, known);
}

void TestHostServices::scriptGlobalAnswers_data()
{
    QTest::addColumn<QString>("server");
    QTest::addColumn<int>("answer");
    const auto row = [](const char *server, int answer) {
        QTest::newRow(server) << QString::fromLatin1(server) << answer;
    };
    row("({gui: true})", 1);
    row("({gui: false})", 0);
    row("({gui: 5})", 1);
    row("({gui: ''})", 0);
    row("({gui: 'yes'})", 1);
    row("({gui: {}})", 1);
    row("({gui: null})", 0);
    row("({})", 0);
    row("({get gui() { return true }})", 1);
}

void TestHostServices::scriptGlobalAnswers()
{
    QFETCH(QString, server);
    QFETCH(int, answer);
    QScriptEngine engine;
    engine.globalObject().setProperty(QStringLiteral("server"), engine.evaluate(server));
    PluginProbe probe(&engine);
    QCOMPARE(Plugin_base::m_isGuiApp, answer);
    QCOMPARE(probe.isGuiApp(), answer == 1);
    QVERIFY(!engine.hasUncaughtException());
}

void TestHostServices::constructorWithEngineAsks()
{
    VextServerStub server;
    server.setGui(true);
    QScriptEngine engine;
    setGlobal(engine, "server", &server);
    const PluginProbe probe(&engine);
    QCOMPARE(server.guiReads(), 1);
    QCOMPARE(Plugin_base::m_isGuiApp, 1);
}

void TestHostServices::constructorWithoutEngineDoesNotAsk()
{
    VextServerStub server(QCoreApplication::instance());
    const PluginProbe probe;
    QCOMPARE(server.isGuiAppCalls(), 0);
    QCOMPARE(Plugin_base::m_isGuiApp, -1);
}

void TestHostServices::twoObjectsAskTheScriptOnce()
{
    VextServerStub server;
    QScriptEngine engine;
    setGlobal(engine, "server", &server);
    PluginProbe first(&engine);
    PluginProbe second(&engine);
    QVERIFY(!first.isGuiApp());
    QVERIFY(!second.isGuiApp());
    QCOMPARE(server.guiReads(), 1);
    QCOMPARE(Plugin_base::m_isGuiApp, 0);
}

void TestHostServices::engineWithoutServerStaysUnknownAndAsksAgain_data()
{
    QTest::addColumn<QString>("code");
    const auto row = [](const char *title, const char *code) {
        QTest::newRow(title) << QString::fromLatin1(code);
    };
    row("no such global", "");
    row("undefined", "server = undefined");
    row("null", "server = null");
    row("number", "server = 5");
    row("text", "server = 'gui'");
    row("throwing global", "this.__defineGetter__('server', function() { throw 1 })");
    row("throwing gui", "server = {get gui() { throw {gui: true} }}");
}

void TestHostServices::engineWithoutServerStaysUnknownAndAsksAgain()
{
    QFETCH(QString, code);
    VextServerStub applicationServer(QCoreApplication::instance());
    QScriptEngine engine;
    engine.evaluate(code);
    PluginProbe probe(&engine);
    QCOMPARE(Plugin_base::m_isGuiApp, -1);
    QVERIFY(!probe.isGuiApp());
    QCOMPARE(Plugin_base::m_isGuiApp, -1);
    QVERIFY(!engine.hasUncaughtException());
    QCOMPARE(applicationServer.isGuiAppCalls(), 0);

    engine.evaluate(QStringLiteral("delete this.server; this.server = {gui: true}"));
    QVERIFY(probe.isGuiApp());
    QCOMPARE(Plugin_base::m_isGuiApp, 1);
}

QScriptValue makeProbe(QScriptContext *, QScriptEngine *engine)
{
    const PluginProbe probe(engine);
    return QScriptValue(Plugin_base::m_isGuiApp);
}

void TestHostServices::scriptThatCreatesTheObjectIsNotInterrupted()
{
    QScriptEngine engine;
    engine.globalObject().setProperty(QStringLiteral("makeProbe"), engine.newFunction(makeProbe));
    QCOMPARE(engine
                 .evaluate(QStringLiteral("var server = {get gui() { throw new Error('no') }};"
                                          "try { makeProbe() + ' went on' } catch (e) { '' + e }"))
                 .toString(),
             QStringLiteral("-1 went on"));
}

void TestHostServices::deletedServerLeavesNoException()
{
    QScriptEngine engine;
    {
        VextServerStub server;
        server.setGui(true);
        setGlobal(engine, "server", &server);
    }
    const PluginProbe probe(&engine);
    QCOMPARE(Plugin_base::m_isGuiApp, -1);
    QVERIFY(!engine.hasUncaughtException());
}

void TestHostServices::pendingExceptionIsNoAnswer()
{
    VextServerStub server;
    QScriptEngine engine;
    setGlobal(engine, "server", &server);
    engine.evaluate(QStringLiteral("throw new Error('earlier')"), QStringLiteral("q.js"), 4);
    PluginProbe probe(&engine);
    QCOMPARE(Plugin_base::m_isGuiApp, -1);
    QCOMPARE(engine.uncaughtExceptionBacktrace(),
             QStringList{QStringLiteral("<global>() at q.js:4")});

    engine.clearExceptions();
    QVERIFY(!probe.isGuiApp());
    QCOMPARE(Plugin_base::m_isGuiApp, 0);
}

void TestHostServices::engineIsAskedBeforeTheApplication()
{
    VextServerStub server(QCoreApplication::instance());
    QScriptEngine engine;
    engine.evaluate(QStringLiteral("var server = {gui: true}"));
    PluginProbe probe(&engine);
    QVERIFY(probe.isGuiApp());
    QCOMPARE(server.isGuiAppCalls(), 0);
}

void TestHostServices::withoutApplicationTheAnswerStaysUnknown()
{
    QVERIFY(!before.isGui);
    QCOMPARE(before.answer, -1);
}

void TestHostServices::withoutServerTheAnswerStaysUnknown()
{
    const MessageLog log;
    PluginProbe probe;
    const QSignalSpy messages(&probe, &Plugin_base::s_msg);
    QVERIFY(!probe.isGuiApp());
    QCOMPARE(Plugin_base::m_isGuiApp, -1);
    QCOMPARE(messages.count(), 0);
    QCOMPARE(log.lines().size(), 0);

    VextServerStub server(QCoreApplication::instance());
    server.setGui(true);
    QVERIFY(probe.isGuiApp());
}

void TestHostServices::applicationServerAnswers_data()
{
    QTest::addColumn<int>("answer");
    QTest::addColumn<bool>("isGui");
    QTest::newRow("1") << 1 << true;
    QTest::newRow("0") << 0 << false;
    QTest::newRow("7") << 7 << true;
    QTest::newRow("-1") << -1 << false;
}

void TestHostServices::applicationServerAnswers()
{
    QFETCH(int, answer);
    QFETCH(bool, isGui);
    const VextServerAnswer server(answer);
    PluginProbe probe;
    QCOMPARE(probe.isGuiApp(), isGui);
    QCOMPARE(Plugin_base::m_isGuiApp, answer);
}

void TestHostServices::applicationServerIsFoundBelowOtherObjects()
{
    QObject between(QCoreApplication::instance());
    VextServerStub *server = new VextServerStub(&between);
    server->setGui(true);
    QVERIFY(PluginProbe().isGuiApp());
    QCOMPARE(server->isGuiAppCalls(), 1);
}

void TestHostServices::deadEngineIsAsIfThereWereNone()
{
    VextServerStub server(QCoreApplication::instance());
    server.setGui(true);
    auto engine = std::make_unique<QScriptEngine>();
    PluginProbe probe(engine.get());
    engine.reset();
    QVERIFY(probe.isGuiApp());
    QCOMPARE(server.isGuiAppCalls(), 1);
}

void TestHostServices::serverThatCannotAnswerIsReported_data()
{
    QTest::addColumn<QString>("className");
    QTest::newRow("no such method") << QStringLiteral("VextServerMute");
    QTest::newRow("another result type") << QStringLiteral("BoolAnswer");
}

void TestHostServices::serverThatCannotAnswerIsReported()
{
    QFETCH(QString, className);
    const std::unique_ptr<QObject> server(className == QLatin1String("BoolAnswer")
                                              ? static_cast<QObject *>(new BoolAnswer)
                                              : new VextServerMute);
    server->setParent(QCoreApplication::instance());
    server->setObjectName(QStringLiteral("server"));
    PluginProbe probe;
    MessageSink sink;
    Plugin_base::connect_msg(&probe, &sink);
    const MessageLog log;

    QVERIFY(!probe.isGuiApp());
    QCOMPARE(Plugin_base::m_isGuiApp, -1);
    const QString text = QStringLiteral("no invokeMethod VextServer::isGuiApp: %1").arg(className);
    QCOMPARE(sink.messages().size(), 1);
    const SinkMessage message = sink.messages().first();
    QCOMPARE(message.file, QStringLiteral("plugins/base/vextplugin_base"));
    QCOMPARE(message.line, 144);
    QCOMPARE(message.function, QStringLiteral("isGuiApp"));
    QCOMPARE(message.text, text);
    QCOMPARE(message.level, 0);

    const QVector<LogLine> lines = log.lines(QtCriticalMsg);
    QCOMPARE(lines.size(), 1);
    QCOMPARE(lines.first().category, QStringLiteral("default"));
    const QRegularExpression pattern(
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\d-\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d "
                       "vextplugin_base:146 ~~~~ isGuiApp \\t %1$")
            .arg(text));
    QVERIFY2(pattern.match(lines.first().text).hasMatch(), qPrintable(lines.first().text));
}

void TestHostServices::failedQuestionIsAskedAgain()
{
    PluginProbe probe;
    {
        const VextServerMute server(QCoreApplication::instance());
        QVERIFY(!probe.isGuiApp());
    }
    VextServerStub server(QCoreApplication::instance());
    server.setGui(true);
    QVERIFY(probe.isGuiApp());
    QCOMPARE(Plugin_base::m_isGuiApp, 1);
}

void TestHostServices::loadLibReturnsTheLoadersAnswer()
{
    VextServerStub loader;
    PluginProbe probe;
    QVERIFY(probe.loadLib(&loader, QStringLiteral("lib один")));
    QVERIFY(probe.m_libResult);
    loader.setLoadLibAnswer(false);
    QVERIFY(!probe.loadLib(&loader, QStringLiteral("two")));
    QVERIFY(!probe.m_libResult);
    QCOMPARE(loader.loadedLibs(), (QStringList{QStringLiteral("lib один"), QStringLiteral("two")}));
}

void TestHostServices::loadLibWithoutTheMethodReturnsFalse()
{
    VextServerStub loader;
    QObject mute;
    PluginProbe probe;
    QVERIFY(probe.loadLib(&loader, QStringLiteral("one")));
    // The field still holds the former answer, which is none to this call.
    QVERIFY(!probe.loadLib(&mute, QStringLiteral("two")));
}

void TestHostServices::loadLibOfAnotherResultTypeReturnsFalse()
{
    BoolAnswer loader;
    PluginProbe probe;
    QVERIFY(!probe.loadLib(&loader, QStringLiteral("one")));
}

void TestHostServices::loadLibOfNullReturnsFalse()
{
    PluginProbe probe;
    QVERIFY(!probe.loadLib(nullptr, QStringLiteral("one")));
}

void TestHostServices::objectIsHandedToThePostWithItsName()
{
    VextPostStub post;
    QScriptEngine engine;
    setGlobal(engine, "post", &post);
    QObject object;
    object.setObjectName(QStringLiteral("заказы"));
    insertObjectToPost(&engine, &object);
    QCOMPARE(post.inserted().size(), 1);
    QCOMPARE(post.inserted().first().object.data(), &object);
    QCOMPARE(post.inserted().first().name, QStringLiteral("заказы"));
}

void TestHostServices::postsClassNameMayHoldTheNameAnywhere()
{
    MyVextPostBox post;
    QScriptEngine engine;
    setGlobal(engine, "post", &post);
    QObject object;
    insertObjectToPost(&engine, &object);
    QCOMPARE(post.inserted().size(), 1);
}

void TestHostServices::missingPostAndServerArePassedOver_data()
{
    QTest::addColumn<QString>("code");
    const auto row = [](const char *title, const char *code) {
        QTest::newRow(title) << QString::fromLatin1(code);
    };
    row("none", "");
    row("null", "post = null; server = null");
    row("plain objects", "post = {insertObject: function() { called = true }}; server = {}");
    row("numbers", "post = 1; server = 2");
    row("throwing", "this.__defineGetter__('post', function() { throw 1 });"
                    "this.__defineGetter__('server', function() { throw 2 })");
}

void TestHostServices::missingPostAndServerArePassedOver()
{
    QFETCH(QString, code);
    QScriptEngine engine;
    engine.evaluate(QStringLiteral("var called = false;") + code);
    Ports ports;
    const MessageLog log;
    insertObjectToPost(&engine, &ports);
    emit ports.aTcp(1);
    QVERIFY(!engine.hasUncaughtException());
    QVERIFY(!engine.globalObject().property(QStringLiteral("called")).toBool());
    QCOMPARE(log.lines().size(), 0);
}

void TestHostServices::postAndServerOfOtherClassesArePassedOver()
{
    Impostor impostor;
    QScriptEngine engine;
    setGlobal(engine, "post", &impostor);
    setGlobal(engine, "server", &impostor);
    Ports ports;
    const MessageLog log;
    insertObjectToPost(&engine, &ports);
    emit ports.aTcp(1);
    QCOMPARE(impostor.calls, 0);
    QCOMPARE(log.lines().size(), 0);
}

void TestHostServices::portSignalsReachTheServer()
{
    VextServerStub server;
    QScriptEngine engine;
    setGlobal(engine, "server", &server);
    Ports ports;
    insertObjectToPost(&engine, &ports);
    emit ports.aTcp(1);
    emit ports.rTcp(2);
    emit ports.aUdp(3);
    emit ports.rUdp(65535);
    QCOMPARE(portTexts(server),
             (QStringList{QStringLiteral("aTcp 1"), QStringLiteral("rTcp 2"),
                          QStringLiteral("aUdp 3"), QStringLiteral("rUdp 65535")}));
}

void TestHostServices::tcpAndUdpAreWiredApart()
{
    VextServerStub server;
    QScriptEngine engine;
    setGlobal(engine, "server", &server);
    TcpPorts tcp;
    UdpPorts udp;
    const MessageLog log;
    insertObjectToPost(&engine, &tcp);
    insertObjectToPost(&engine, &udp);
    QCOMPARE(log.lines().size(), 0);
    emit tcp.aTcp(1);
    emit tcp.rTcp(2);
    emit udp.aUdp(3);
    emit udp.rUdp(4);
    QCOMPARE(portTexts(server), (QStringList{QStringLiteral("aTcp 1"), QStringLiteral("rTcp 2"),
                                             QStringLiteral("aUdp 3"), QStringLiteral("rUdp 4")}));
}

void TestHostServices::portsAreAnnouncedOnceHoweverOftenInserted()
{
    VextServerStub server;
    QScriptEngine engine;
    setGlobal(engine, "server", &server);
    Ports ports;
    insertObjectToPost(&engine, &ports);
    insertObjectToPost(&engine, &ports);
    emit ports.aTcp(1);
    QCOMPARE(portTexts(server), QStringList{QStringLiteral("aTcp 1")});
}

void TestHostServices::objectsWithoutPortsAreNotWired()
{
    VextServerStub server;
    QScriptEngine engine;
    setGlobal(engine, "server", &server);
    QObject object;
    const MessageLog log;
    insertObjectToPost(&engine, &object);
    QCOMPARE(log.lines().size(), 0);
}

void TestHostServices::serversClassNameMayHoldTheNameAnywhere()
{
    MyVextServerBox server;
    QScriptEngine engine;
    setGlobal(engine, "server", &server);
    TcpPorts ports;
    insertObjectToPost(&engine, &ports);
    emit ports.aTcp(1);
    QCOMPARE(portTexts(server), QStringList{QStringLiteral("aTcp 1")});
}

void TestHostServices::objectThatThePostDeletesIsNotWired()
{
    VextServerStub server;
    VextPostRefusing post;
    QScriptEngine engine;
    setGlobal(engine, "server", &server);
    setGlobal(engine, "post", &post);
    QPointer<QObject> ports = new Ports;
    insertObjectToPost(&engine, ports);
    QVERIFY(ports.isNull());
}

void TestHostServices::nullArgumentsAreRefused()
{
    VextPostStub post;
    QScriptEngine engine;
    setGlobal(engine, "post", &post);
    QObject object;
    insertObjectToPost(&engine, nullptr);
    insertObjectToPost(nullptr, &object);
    QCOMPARE(post.inserted().size(), 0);
}

/// Plugin objects are made when their library is loaded, which may be before the application.
int main(int argc, char *argv[])
{
    before.isGui = PluginProbe().isGuiApp();
    before.answer = Plugin_base::m_isGuiApp;
    QCoreApplication application(argc, argv);
    TestHostServices test;
    return QTest::qExec(&test, argc, argv);
}

#include "test_host_services.moc"
