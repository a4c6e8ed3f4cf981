/// @file
/// The library may be unloaded, and the application may end, while worker threads run.
#include "deadline.h"
#include "message_log.h"
#include "recording_driver.h"
#include "script_host.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QLibrary>
#include <QPluginLoader>
#include <QProcess>
#include <QSqlDatabase>
#include <QtTest>

#include <memory>

namespace
{

const QString thr = QStringLiteral("_thr");
constexpr int longMs = 120000; // what must be cancelled, or else the test runs out of time
constexpr char endArgument[] = "--end-of-application";

const QString pluginFile = QStringLiteral(VEXT_PLUGIN_FILE);

/// Whether the library's code is in this process's memory. A sanitizer may have mapped other parts
/// of the file, to read names from.
bool inMemory()
{
    QFile maps(QStringLiteral("/proc/self/maps"));
    if (!maps.open(QIODevice::ReadOnly))
        return true;
    const QByteArray name = QFileInfo(pluginFile).fileName().toUtf8();
    for (const QByteArray &line : maps.readAll().split('\n')) {
        if (line.contains(" r-x") && line.endsWith(name))
            return true;
    }
    return false;
}

/// Scripts with the loaded library's object, a stub driver and running threads.
class LoadedScript
{
public:
    LoadedScript()
        : m_library(pluginFile)
        , stub(QStringLiteral("STUB"))
    {
        // By default Qt keeps plugins in memory, whatever unload() answers.
        m_library.setLoadHints(QLibrary::LoadHints());
        stub.setFeature(QSqlDriver::CancelQuery);
        stub.onExact(QStringLiteral("long"), StubReply::affected(0).withDelay(longMs));
        server = std::make_unique<VextServerStub>(QCoreApplication::instance());
    }

    bool load() { return m_library.load(); }
    bool unload() { return m_library.unload() && !inMemory(); }
    QString errorString() const { return m_library.errorString(); }

    void makeHost()
    {
        ScriptHostOptions options;
        options.server = server.get();
        host = std::make_unique<ScriptHost>(options);
        host->install(server->findChild<QObject *>(QStringLiteral("plugin_SQL")));
    }

    /// Connections of which one runs a statement, one has tasks behind it, one is idle, one is
    /// shut. All trace, so messages of their threads wait in the event queue at any time.
    void makeConnections()
    {
        host->eval(QStringLiteral(
            "function make(name) { var db = new VEXT_SQL(name); db.driverName = 'STUB'; "
            "db.databaseName = name; db.enableTraceLog(); db.open(); return db; }"
            "var calls = 0; function count() { ++calls; }"
            "var running = make('running'), waiting = make('waiting'), idle = make('idle'), "
            "shut = make('shut'); shut.close();"
            "running.query_thread(count, 'long'); waiting.query_thread(count, 'long');"
            "for (var i = 0; i < 10; ++i) waiting.query_thread(count, 'never'); "
            "idle.start_thread()"));
    }

private:
    QPluginLoader m_library;

public:
    StubServer stub;
    std::unique_ptr<VextServerStub> server;
    std::unique_ptr<ScriptHost> host;
};

/// The body of a program that ends with running threads and without an event loop.
int endOfApplication(int argc, char **argv)
{
    // Outlives the application: the driver is used until the last thread has ended.
    static LoadedScript *script = nullptr;
    {
        QCoreApplication application(argc, argv);
        script = new LoadedScript;
        if (!script->load())
            return 2;
        script->makeHost();
        script->makeConnections();
        if (!script->stub.waitForCall(StubCall::Exec, QStringLiteral("long")))
            return 3;
        script->server.release(); // the application's child
        // The engine goes without an event handled after it, so no worker is deleted later.
        delete script->host->engine();
    }
    const bool left = script->stub.liveDrivers() > 0 || script->stub.liveResults() > 0;
    return left ? 4 : 0;
}

} // namespace

class LibraryUnload : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void libraryUnloadsWithRunningThreads();
    void libraryUnloadsWhenTheEngineHasGone();
    void messagesOutliveTheLibrary();
    void libraryLoadsAndUnloadsManyTimes();
    void applicationMayEndWithRunningThreads();

private:
    std::unique_ptr<MessageLog> m_log;
};

void LibraryUnload::init()
{
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
}

void LibraryUnload::cleanup()
{
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

void LibraryUnload::libraryUnloadsWithRunningThreads()
{
    LoadedScript script;
    QVERIFY2(script.load(), qPrintable(script.errorString()));
    script.makeHost();
    script.makeConnections();
    QVERIFY(waitUntil([&] { return script.stub.executed(thr).size() == 2; }));
    // What scripts hold goes before the library, and that is all a host has to see to.
    script.host.reset();
    QVERIFY2(script.unload(), qPrintable(script.errorString()));
    QVERIFY2(script.stub.liveDrivers() == 0, qPrintable(script.stub.record()));
    QCOMPARE(script.stub.executed(thr),
             QStringList({QStringLiteral("long"), QStringLiteral("long")}));
    drainEvents();
}

/// No event is handled between the end of the engine and the unloading: the workers still wait for
/// their deletion, one of them in a statement.
void LibraryUnload::libraryUnloadsWhenTheEngineHasGone()
{
    LoadedScript script;
    QVERIFY2(script.load(), qPrintable(script.errorString()));
    script.makeHost();
    script.makeConnections();
    QVERIFY(waitUntil([&] { return script.stub.executed(thr).size() == 2; }));
    delete script.host->engine();
    QVERIFY(script.stub.liveDrivers() > 0);
    QVERIFY2(script.unload(), qPrintable(script.errorString()));
    QVERIFY2(script.stub.liveDrivers() == 0, qPrintable(script.stub.record()));
    drainEvents();
}

/// What worker threads have told waits in the event queue while the library goes; the host reads it
/// afterwards.
void LibraryUnload::messagesOutliveTheLibrary()
{
    LoadedScript script;
    QVERIFY2(script.load(), qPrintable(script.errorString()));
    script.makeHost();
    script.makeConnections();
    // Not by events: they would deliver the messages.
    QVERIFY(script.stub.waitForCall(StubCall::Exec, QStringLiteral("long")));
    script.host->post()->clear();
    delete script.host->engine();
    QVERIFY2(script.unload(), qPrintable(script.errorString()));
    drainEvents();
    const QVector<SinkMessage> messages =
        script.host->post()->withText(QStringLiteral("sql='long'"));
    QVERIFY(!messages.isEmpty());
    for (const SinkMessage &message : messages) {
        QCOMPARE(message.file, QStringLiteral("plugins/PluginSQL/vext_sql_thread"));
        QCOMPARE(message.function, QStringLiteral("run"));
    }
}

void LibraryUnload::libraryLoadsAndUnloadsManyTimes()
{
    for (int i = 0; i < 20; ++i) {
        LoadedScript script;
        QVERIFY2(script.load(), qPrintable(script.errorString()));
        script.makeHost();
        script.makeConnections();
        if (i % 2)
            drainEvents();
        delete script.host->engine();
        if (i % 3)
            drainEvents();
        QVERIFY2(script.unload(), qPrintable(script.errorString()));
        QCOMPARE(script.stub.liveDrivers(), 0);
    }
}

void LibraryUnload::applicationMayEndWithRunningThreads()
{
    QProcess program;
    program.setProcessChannelMode(QProcess::MergedChannels);
    program.start(QCoreApplication::applicationFilePath(), {QString::fromLatin1(endArgument)});
    QVERIFY2(program.waitForFinished(scaledMs(30000)), "the program does not end");
    const QByteArray output = program.readAll();
    QVERIFY2(program.exitStatus() == QProcess::NormalExit, output.constData());
    QVERIFY2(program.exitCode() == 0,
             qPrintable(QStringLiteral("code %1\n").arg(program.exitCode()) +
                        QString::fromUtf8(output)));
    QVERIFY2(!output.contains("QThread: Destroyed") && !output.contains("still in use"),
             output.constData());
}

int main(int argc, char **argv)
{
    if (argc > 1 && qstrcmp(argv[1], endArgument) == 0)
        return endOfApplication(argc, argv);
    QCoreApplication application(argc, argv);
    LibraryUnload test;
    return QTest::qExec(&test, argc, argv);
}

#include "test_library_unload.moc"
