// The host as a library: what plugins rely on, by name, and what a program that embeds it gets.

#include "host_process.h"
#include "plugin_library.h"
#include "run_loop.h"
#include "script_host.h"
#include "vext_plugin_interface.h"

#include <QPluginLoader>
#include <QScriptEngine>
#include <QSignalSpy>
#include <QThread>
#include <QtTest>

class TestScriptHost : public QObject
{
    Q_OBJECT

private slots:
    void serverIsTheApplicationsChild();
    void membersThatPluginsCallByNameExist();
    void postIsTheEnginesParent();
    void messageFromAnotherThreadArrivesInThePostsThread();
    void messageWithNullTextsIsHarmless();
    void pluginObjectBelongsToTheServer();
    void pluginIsGoneAfterTheEndAndComesBack();
    void installPutsTheScriptFunctionsOnTheGlobalObject();
    void refusedInstallReachesTheServer();
    void evaluateGivesValues();
    void failureRequestsTheEndOnce();
    void keepGoingLeavesTheEndAlone();
    void programEndsWhenNothingIsPending();
    void connectionIsListedUntilItGoes();
    void timesOfDayPrintAndGoThroughJson();
    void objectsGoBeforeTheirEngine();

private:
    static ScriptHost::Settings settings();
};

ScriptHost::Settings TestScriptHost::settings()
{
    ScriptHost::Settings settings;
    settings.pluginFile = QStringLiteral(VEXT_PLUGIN_FILE);
    settings.log.level = -2; // quiet
    return settings;
}

void TestScriptHost::serverIsTheApplicationsChild()
{
    const QString name = QStringLiteral("server");
    {
        ScriptHost host(settings());
        QObject *server = QCoreApplication::instance()->findChild<QObject *>(name);
        QCOMPARE(server, host.server());
        QVERIFY(QByteArray(server->metaObject()->className()).startsWith("VextServer"));
        QVERIFY(QByteArray(host.post()->metaObject()->className()).startsWith("VextPost"));
    }
    QVERIFY(!QCoreApplication::instance()->findChild<QObject *>(name));
}

void TestScriptHost::membersThatPluginsCallByNameExist()
{
    ScriptHost host(settings());
    const char message[] = "plugin_msg(const char*,int,const char*,QString,int)";
    for (const char *slot :
         {message, "aTcp(quint16)", "rTcp(quint16)", "aUdp(quint16)", "rUdp(quint16)"})
        QVERIFY2(host.server()->metaObject()->indexOfSlot(slot) >= 0, slot);
    QVERIFY(host.post()->metaObject()->indexOfSlot(message) >= 0);

    int gui = -1;
    QVERIFY(QMetaObject::invokeMethod(host.server(), "isGuiApp", Q_RETURN_ARG(int, gui)));
    QCOMPARE(gui, 0);
    host.setScriptFile(QStringLiteral("x.js"), QDir::rootPath());
    QDir folder;
    QVERIFY(QMetaObject::invokeMethod(host.post(), "getPostDir", Q_RETURN_ARG(QDir, folder)));
    QCOMPARE(folder.absolutePath(), QDir::rootPath());
    QObject object;
    QVERIFY(QMetaObject::invokeMethod(host.post(), "insertObject", Q_ARG(QObject *, &object),
                                      Q_ARG(QString, QStringLiteral("o"))));
    QCOMPARE(host.post()->objects(), QList<QObject *>{&object});
}

void TestScriptHost::postIsTheEnginesParent()
{
    ScriptHost host(settings());
    QCOMPARE(host.engine()->parent(), host.post());
}

void TestScriptHost::messageFromAnotherThreadArrivesInThePostsThread()
{
    ScriptHost host(settings());
    QThread *receivedIn = nullptr;
    PluginMessage received;
    connect(&host, &ScriptHost::message, this, [&](const PluginMessage &message) {
        receivedIn = QThread::currentThread();
        received = message;
    });
    QScopedPointer<QThread> worker(QThread::create([&host] {
        QMetaObject::invokeMethod(host.post(), "plugin_msg", Qt::QueuedConnection,
                                  Q_ARG(const char *, "a/b"), Q_ARG(int, 7),
                                  Q_ARG(const char *, "run"),
                                  Q_ARG(QString, QStringLiteral("%1 текст")), Q_ARG(int, 2));
    }));
    worker->start();
    QVERIFY(worker->wait(HostProcess::limitMs));
    QTRY_VERIFY(receivedIn);
    QCOMPARE(receivedIn, QThread::currentThread());
    QCOMPARE(received.text, QStringLiteral("%1 текст"));
    QCOMPARE(received.source + received.operation, QStringLiteral("a/brun"));
    QCOMPARE(received.line, 7);
    QCOMPARE(received.level, 2);
}

void TestScriptHost::messageWithNullTextsIsHarmless()
{
    ScriptHost host(settings());
    QSignalSpy spy(&host, &ScriptHost::message);
    host.server()->plugin_msg(nullptr, 0, nullptr, QString(), 5);
    QCOMPARE(spy.count(), 1);
    QVERIFY(spy.first().first().value<PluginMessage>().source.isEmpty());
}

void TestScriptHost::pluginObjectBelongsToTheServer()
{
    ScriptHost host(settings());
    QString error;
    QVERIFY2(host.start(&error), qPrintable(error));
    QObject *plugin = host.server()->findChild<QObject *>(QStringLiteral("plugin_SQL"));
    QVERIFY(plugin);
    QCOMPARE(plugin->parent(), host.server());
}

void TestScriptHost::pluginIsGoneAfterTheEndAndComesBack()
{
    for (int round = 0; round < 2; ++round) {
        ScriptHost host(settings());
        QString error;
        QVERIFY2(host.start(&error), qPrintable(error));
        host.evaluate(openSqlite() + QStringLiteral("db.query_thread('select 1')"),
                      QStringLiteral("round"));
        QVERIFY(host.post()->objects().size() == 1);
        host.shutDown();
        QVERIFY(!host.engine());
        QVERIFY(!QPluginLoader(QStringLiteral(VEXT_PLUGIN_FILE)).isLoaded());
    }
}

void TestScriptHost::installPutsTheScriptFunctionsOnTheGlobalObject()
{
    ScriptHost host(settings());
    QString error;
    QVERIFY2(host.start(&error), qPrintable(error));
    for (const char *name : {"VEXT_SQL", "counters"}) {
        QVERIFY2(host.engine()->globalObject().property(QLatin1String(name)).isFunction(), name);
    }
    QVERIFY(host.evaluate(QStringLiteral("'tag' in this"), QString()).toBool());
}

void TestScriptHost::refusedInstallReachesTheServer()
{
    ScriptHost host(settings());
    QString error;
    QVERIFY2(host.start(&error), qPrintable(error));
    QSignalSpy spy(&host, &ScriptHost::message);
    QObject *plugin = host.server()->findChild<QObject *>(QStringLiteral("plugin_SQL"));
    QVERIFY(plugin);
    QScriptValue result;
    QVERIFY(QMetaObject::invokeMethod(plugin, "install", Q_RETURN_ARG(QScriptValue, result),
                                      Q_ARG(QObject *, plugin)));
    QVERIFY(result.isBool() && !result.toBool());
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().first().value<PluginMessage>().level, -1);
}

void TestScriptHost::evaluateGivesValues()
{
    ScriptHost host(settings());
    QCOMPARE(host.evaluate(QStringLiteral("6 * 7"), QString()).toInt32(), 42);
    QVERIFY(host.evaluate(QStringLiteral("undefined"), QString()).isUndefined());
    host.end()->request(3);
    QVERIFY(!host.evaluate(QStringLiteral("6 * 7"), QString()).isValid());
    QCOMPARE(host.exec(), 3);
}

void TestScriptHost::failureRequestsTheEndOnce()
{
    ScriptHost host(settings());
    QSignalSpy spy(host.end(), &ScriptEnd::requested);
    QVERIFY(!host.evaluate(QStringLiteral("throw 1"), QStringLiteral("f")).isValid());
    host.end()->request(9);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(host.exec(), 1);
}

void TestScriptHost::keepGoingLeavesTheEndAlone()
{
    ScriptHost host(settings());
    host.setKeepGoing(true);
    QVERIFY(!host.evaluate(QStringLiteral("throw 1"), QStringLiteral("f")).isValid());
    QVERIFY(!host.end()->isRequested());
    QVERIFY(!host.engine()->hasUncaughtException());
    QCOMPARE(host.evaluate(QStringLiteral("1 + 1"), QString()).toInt32(), 2);
}

void TestScriptHost::programEndsWhenNothingIsPending()
{
    ScriptHost host(settings());
    QCOMPARE(host.exec(), 0);
    host.evaluate(QStringLiteral("var n = 0; setTimeout(function() { n = 1; }, 50)"), QString());
    QCOMPARE(host.exec(), 0); // again, with something to wait for
    QCOMPARE(host.evaluate(QStringLiteral("n"), QString()).toInt32(), 1);
}

void TestScriptHost::connectionIsListedUntilItGoes()
{
    ScriptHost host(settings());
    QString error;
    QVERIFY2(host.start(&error), qPrintable(error));
    QSignalSpy spy(host.post(), &VextPost::objectInserted);
    host.evaluate(QStringLiteral("new VEXT_SQL('a'); new VEXT_SQL('b');"), QString());
    QCOMPARE(spy.count(), 2);
    const QList<QObject *> objects = host.post()->objects();
    QCOMPARE(objects.size(), 2);
    QCOMPARE(objects.first()->objectName(), QStringLiteral("a"));
    delete objects.first();
    QCOMPARE(host.post()->objects(), QList<QObject *>{objects.last()});
}

void TestScriptHost::timesOfDayPrintAndGoThroughJson()
{
    ScriptHost host(settings());
    QVERIFY(host.start(nullptr));
    const QScriptValue time = host.engine()->newVariant(QTime(12, 34, 56, 789));
    host.engine()->globalObject().setProperty(QStringLiteral("t"), time);
    QCOMPARE(host.evaluate(QStringLiteral("JSON.stringify([t])"), QStringLiteral("x")).toString(),
             QStringLiteral("[\"12:34:56.789\"]"));
    QCOMPARE(host.evaluate(QStringLiteral("'' + t"), QStringLiteral("x")).toString(),
             QStringLiteral("12:34:56.789"));
}

void TestScriptHost::objectsGoBeforeTheirEngine()
{
    ScriptHost host(settings());
    QString error;
    QVERIFY2(host.start(&error), qPrintable(error));
    host.evaluate(QStringLiteral("var a = new VEXT_SQL(), b = new VEXT_SQL()"), QString());
    QCOMPARE(host.post()->objects().size(), 2);
    int left = -1;
    connect(host.engine(), &QObject::destroyed, this,
            [&] { left = host.post()->objects().size(); });
    host.shutDown();
    QCOMPARE(left, 0);
}

QTEST_GUILESS_MAIN(TestScriptHost)
#include "test_script_host.moc"
