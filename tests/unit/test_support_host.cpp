/// @file
/// The message log and the script host of the tests keep what they promise.
#include "message_log.h"
#include "message_sink.h"
#include "plugin_library.h"
#include "recording_driver.h"
#include "script_host.h"

#include <QLoggingCategory>
#include <QProcess>
#include <QSqlDatabase>
#include <QtTest>

#include <memory>

/// Emits what a plugin object emits.
class Reporter : public QObject
{
    Q_OBJECT

Q_SIGNALS:
    void s_msg(const char *, int, const char *, const QString &, int);
    void aTcp(quint16 port);
};

/// A plugin object that no library is needed for.
class PlainPlugin : public QObject
{
    Q_OBJECT

public:
    Q_INVOKABLE QScriptValue install(QObject *object)
    {
        auto *engine = qobject_cast<QScriptEngine *>(object);
        return engine ? engine->currentContext()->thisObject() : QScriptValue(false);
    }
};

/// Run in a process of its own, because its tests are to fail.
class FailingTests : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void evalOfAThrowingScript()
    {
        ScriptHost host;
        host.eval(QStringLiteral("function broken() { throw new Error('thrown on purpose'); }\n"
                                 "broken();"));
    }
    void evalThrowsOfAQuietScript()
    {
        ScriptHost host;
        host.evalThrows(QStringLiteral("1 + 1"));
    }
    void installOfAnObjectWithoutIt()
    {
        ScriptHost host;
        QObject plain;
        host.install(&plain);
    }
    void qtComplaint()
    {
        MessageLog log;
        QObject::connect(this, "2nosuch()", this, "1nosuch()");
        VERIFY_NO_QT_COMPLAINTS(log);
    }
};

class TestSupportHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    // message log and host objects
    void messageLogRecordsEveryThread();
    void messageLogRestoresTheHandler();
    void messageLogFindsQtComplaints();
    void sinkRecordsMessagesOfOtherThreads();
    void serverStubRecordsWhatItIsAsked();
    void hostClassesAnswerOnlyWhatTheyShould();

    // script host
    void scriptSeesTheHostsGlobals();
    void installRunsInAScriptContextOfTheGlobalObject();
    void pluginLibraryIsInstalledFromScript();
    void engineTakesItsChildrenDownBeforeThePost();
    void scriptExceptionIsReturnedAsText();
    void waitForScriptRunsEvents();
    void brokenExpectationsFailTheTest();

private:
    std::unique_ptr<MessageLog> m_log;
};

void TestSupportHost::init()
{
    m_log = std::make_unique<MessageLog>();
}

void TestSupportHost::cleanup()
{
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

void TestSupportHost::messageLogRecordsEveryThread()
{
    MessageLog log(MessageLog::Forward::No);
    qCritical("first %d", 1);
    QScopedPointer<QThread> other(QThread::create([] {
        QLoggingCategory category("selftest");
        qCWarning(category) << "second";
    }));
    other->start();
    QVERIFY(log.waitFor(QStringLiteral("^second")));
    QVERIFY(other->wait(scaledMs(defaultWaitMs)));
    const QVector<LogLine> lines = log.lines();
    QCOMPARE(lines.size(), 2);
    QCOMPARE(lines.at(0).text, QStringLiteral("first 1"));
    QCOMPARE(lines.at(0).severity, QtCriticalMsg);
    QVERIFY(lines.at(0).mainThread && !lines.at(1).mainThread);
    QCOMPARE(lines.at(1).category, QStringLiteral("selftest"));
    QCOMPARE(log.matching(QtWarningMsg, QStringLiteral("second")).size(), 1);
    QVERIFY(!log.contains(QStringLiteral("third")));
}

namespace
{
int handled = 0;
void countLines(QtMsgType, const QMessageLogContext &, const QString &)
{
    ++handled;
}
} // namespace

void TestSupportHost::messageLogRestoresTheHandler()
{
    m_log.reset();
    const QtMessageHandler former = qInstallMessageHandler(countLines);
    handled = 0;
    {
        MessageLog outer;
        qInfo("to both");
        {
            MessageLog inner(MessageLog::Forward::No);
            qInfo("kept back");
            QCOMPARE(inner.lines().size(), 1);
        }
        QCOMPARE(outer.lines().size(), 2);
    }
    QCOMPARE(handled, 1);
    qInfo("after");
    QCOMPARE(handled, 2);
    QVERIFY(qInstallMessageHandler(former) == countLines);
    m_log = std::make_unique<MessageLog>();
}

void TestSupportHost::messageLogFindsQtComplaints()
{
    MessageLog log(MessageLog::Forward::No);
    qWarning("a test may say so");
    QCOMPARE(log.qtComplaints(), QStringList());
    {
        const StubServer server(QStringLiteral("STUB"));
        const QString name = QStringLiteral("held");
        QSqlDatabase held = QSqlDatabase::addDatabase(server.driverName(), name);
        held.open();
        QSqlDatabase::removeDatabase(name);
    }
    QObject::connect(this, "2nosuch()", this, "1nosuch()");
    QCOMPARE(log.qtComplaints().size(), 2);
    QVERIFY(log.qtComplaints().first().contains(QLatin1String("still in use")));
    QCOMPARE(log.qtComplaints(QStringLiteral("still in use")).size(), 1);
    m_log->clear();
}

void TestSupportHost::sinkRecordsMessagesOfOtherThreads()
{
    MessageSink sink;
    Reporter reporter;
    QVERIFY(connect(&reporter, SIGNAL(s_msg(const char *, int, const char *, QString, int)), &sink,
                    SLOT(plugin_msg(const char *, int, const char *, QString, int))));
    Q_EMIT reporter.s_msg("file", 12, "operation", QStringLiteral("here"), -1);
    QScopedPointer<QThread> other(QThread::create(
        [&] { Q_EMIT reporter.s_msg("file", 13, "operation", QStringLiteral("there"), 2); }));
    other->start();
    QVERIFY(other->wait(scaledMs(defaultWaitMs)));
    QCOMPARE(sink.texts(), QStringList{QStringLiteral("here")});
    QVERIFY(sink.waitFor(QStringLiteral("there")));
    const SinkMessage message = sink.messages(2).first();
    QCOMPARE(message.file, QStringLiteral("file"));
    QCOMPARE(message.line, 13);
    QCOMPARE(message.function, QStringLiteral("operation"));
    QVERIFY(message.mainThread);
}

void TestSupportHost::serverStubRecordsWhatItIsAsked()
{
    VextServerStub server;
    server.setGui(true);
    int gui = -1;
    QVERIFY(QMetaObject::invokeMethod(&server, "isGuiApp", Q_RETURN_ARG(int, gui)));
    QCOMPARE(gui, 1);
    QVERIFY(server.property("gui").toBool());
    QCOMPARE(server.isGuiAppCalls(), 1);
    QCOMPARE(server.guiReads(), 1);
    server.setLoadLibAnswer(false);
    bool loaded = true;
    QVERIFY(QMetaObject::invokeMethod(&server, "loadLib", Q_RETURN_ARG(bool, loaded),
                                      Q_ARG(QString, QStringLiteral("lib"))));
    QVERIFY(!loaded);
    QCOMPARE(server.loadedLibs(), QStringList{QStringLiteral("lib")});
    Reporter reporter;
    QVERIFY(connect(&reporter, SIGNAL(aTcp(quint16)), &server, SLOT(aTcp(quint16))));
    Q_EMIT reporter.aTcp(8080);
    QCOMPARE(server.portCalls().size(), 1);
    QCOMPARE(server.portCalls().first().port, quint16(8080));
}

void TestSupportHost::hostClassesAnswerOnlyWhatTheyShould()
{
    VextServerMute mute;
    VextServerWithoutGui withoutGui;
    VextPostMute mutePost;
    VextPostStub post;
    const QByteArray slot("plugin_msg(const char*,int,const char*,QString,int)");
    QVERIFY(QByteArray(mute.metaObject()->className()).startsWith("VextServer"));
    QVERIFY(QByteArray(mutePost.metaObject()->className()).startsWith("VextPost"));
    QCOMPARE(mute.metaObject()->indexOfMethod(slot), -1);
    QCOMPARE(mutePost.metaObject()->indexOfMethod(slot), -1);
    QVERIFY(withoutGui.metaObject()->indexOfMethod(slot) >= 0);
    QCOMPARE(withoutGui.metaObject()->indexOfMethod("isGuiApp()"), -1);
    QObject object;
    QVERIFY(QMetaObject::invokeMethod(&post, "insertObject", Q_ARG(QObject *, &object),
                                      Q_ARG(QString, QStringLiteral("o"))));
    QCOMPARE(post.inserted().first().object.data(), &object);
    post.setPostDir(QDir::root());
    QDir dir;
    QVERIFY(QMetaObject::invokeMethod(&post, "getPostDir", Q_RETURN_ARG(QDir, dir)));
    QCOMPARE(dir, QDir::root());
}

void TestSupportHost::scriptSeesTheHostsGlobals()
{
    ScriptHostOptions options;
    options.fileName = QStringLiteral("orders.js");
    options.fileDir = QDir::rootPath();
    ScriptHost host(options);
    QCOMPARE(host.eval(QStringLiteral("scriptEngine.file.name")).toString(),
             QStringLiteral("orders.js"));
    QCOMPARE(host.global(QStringLiteral("server")).toQObject(), host.server());
    QCOMPARE(host.global(QStringLiteral("post")).toQObject(), host.post());
    QCOMPARE(host.global(QStringLiteral("scriptEngine")).toQObject(), host.engine());
    QCOMPARE(host.engine()->parent(), host.post());
    QCOMPARE(QCoreApplication::instance()->findChild<QObject *>(QStringLiteral("server")),
             host.server());
}

void TestSupportHost::installRunsInAScriptContextOfTheGlobalObject()
{
    ScriptHost host;
    PlainPlugin plugin;
    QVERIFY(host.install(&plugin).strictlyEquals(host.engine()->globalObject()));
}

void TestSupportHost::pluginLibraryIsInstalledFromScript()
{
    PluginLibrary library(QStringLiteral(VEXT_SELFTEST_PLUGIN_FILE));
    QVERIFY(!library.globalObject());
    QVERIFY2(library.load(), qPrintable(library.errorString()));
    QCOMPARE(library.interfaceText(), QStringLiteral("Vext.2.9.Qt.5158.gcc1220"));
    QCOMPARE(library.versionText(), QStringLiteral("selftest"));
    QCOMPARE(library.metaData().value(QStringLiteral("className")).toString(),
             QStringLiteral("SelftestPlugin"));
    {
        ScriptHost host;
        QVERIFY(host.installFromScript(library.globalObject()).isObject());
        QCOMPARE(host.eval(QStringLiteral("plugin.installed")).toInt32(), 7);
    }
    library.deleteGlobalObject();
    QVERIFY(!library.globalObject());
    QVERIFY(library.unload());
}

void TestSupportHost::engineTakesItsChildrenDownBeforeThePost()
{
    QStringList order;
    ScriptHost host;
    auto *child = new QObject(host.engine());
    connect(child, &QObject::destroyed, this, [&] {
        order.append(QStringLiteral("child"));
        if (host.post()->objectName() == QLatin1String("post"))
            order.append(QStringLiteral("post lives"));
        (new QObject(host.post()))->deleteLater();
    });
    host.destroyEngine();
    QVERIFY(!host.engine());
    QCOMPARE(order, (QStringList{QStringLiteral("child"), QStringLiteral("post lives")}));
    QVERIFY(host.post()->children().isEmpty());
    host.destroyEngine();
}

void TestSupportHost::scriptExceptionIsReturnedAsText()
{
    ScriptHost host;
    QCOMPARE(host.evalThrows(QStringLiteral("throw new TypeError('no')")),
             QStringLiteral("TypeError: no"));
    QCOMPARE(host.eval(QStringLiteral("1 + 1")).toInt32(), 2);
}

void TestSupportHost::waitForScriptRunsEvents()
{
    ScriptHost host;
    QTimer::singleShot(1, host.server(), [&] { host.eval(QStringLiteral("var done = true")); });
    QVERIFY(host.waitForScript(QStringLiteral("typeof done !== 'undefined'")));
    QVERIFY(!host.waitForScript(QStringLiteral("false"), 10));
    QVERIFY(host.waitFor([] { return true; }));
    host.collectGarbage();
}

void TestSupportHost::brokenExpectationsFailTheTest()
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--failing")});
    QVERIFY(process.waitForFinished(scaledMs(30000)));
    const QString output = QString::fromUtf8(process.readAll());
    QVERIFY(process.exitCode() != 0);
    for (const char *expected : {"2 passed, 4 failed", "thrown on purpose", "broken() at test.js:1",
                                 "no exception from: 1 + 1",
                                 "the plugin object has no install(QObject*)", "QObject::connect"})
        QVERIFY2(output.contains(QString::fromLatin1(expected)), qPrintable(output));
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    if (argc == 2 && qstrcmp(argv[1], "--failing") == 0) {
        FailingTests failing;
        return QTest::qExec(&failing, argc - 1, argv);
    }
    TestSupportHost tests;
    return QTest::qExec(&tests, argc, argv);
}

#include "test_support_host.moc"
