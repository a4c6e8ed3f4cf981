// The library as a host loads it: metadata, interface, and every order of loading and unloading.
// What needs a process of its own runs in a child: this program with "--scenario" and a name.
#include "deadline.h"
#include "message_sink.h"
#include "meta_table.h"
#include "script_host.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QLibrary>
#include <QPluginLoader>
#include <QProcess>
#include <QSqlDatabase>
#include <QThread>
#include <QtTest>

#include <sys/mman.h>

#include <cstdio>
#include <map>
#include <memory>

/// The interface as hosts declare it: the order of the operations is what they were built with.
class VextPluginInterface
{
public:
    virtual QObject *globalObject() = 0;
    virtual void globalObjectDelete() = 0;
    virtual const char *vext_plugin_interface() = 0;
    virtual const char *vext_plugin_version() = 0;

protected:
    ~VextPluginInterface() = default;
};

namespace
{

const QString pluginFile = QStringLiteral(VEXT_PLUGIN_FILE);
constexpr char interfaceId[] = "Vext.2.9.Qt.5158.gcc1220";

/// The library as a host holds it, without Qt's habit of keeping plugins in memory for good: here
/// unload() is to do what it says.
class PluginLibrary
{
public:
    PluginLibrary()
        : m_loader(pluginFile)
    {
        m_loader.setLoadHints(QLibrary::LoadHints());
    }

    bool load() { return m_loader.load() && plugin(); }
    bool unload() { return m_loader.unload(); }
    QString errorString() const { return m_loader.errorString(); }
    QJsonObject metaData() const { return m_loader.metaData(); }
    QObject *root() { return m_loader.instance(); }
    VextPluginInterface *plugin()
    {
        return static_cast<VextPluginInterface *>(root()->qt_metacast(interfaceId));
    }
    QObject *globalObject() { return plugin()->globalObject(); }
    void deleteGlobalObject() { plugin()->globalObjectDelete(); }

    /// Whether the library's code is in this process's memory.
    static bool inMemory()
    {
        QFile maps(QStringLiteral("/proc/self/maps"));
        return maps.open(QIODevice::ReadOnly) &&
               maps.readAll().contains(QFileInfo(pluginFile).fileName().toUtf8());
    }

private:
    QPluginLoader m_loader;
};

// --- Scenarios: each runs in a process of its own ---

/// Ends the scenario when something does not hold; the line tells which.
#define HOLDS(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "line %d: %s\n", __LINE__, #condition);                           \
            return 1;                                                                              \
        }                                                                                          \
    } while (false)

struct Arguments {
    int count;
    char **values;
};

QString openAndQuery()
{
    return QStringLiteral(
        "var db = new VEXT_SQL('x'); db.driverName = 'QSQLITE';"
        "db.databaseName = ':memory:'; db.open() && db.query('select 7 as a').a[0]");
}

/// Runs script code in an engine with the plugin on its global object.
QScriptValue installedEval(QScriptEngine &engine, QObject *plugin, const QString &code)
{
    engine.pushContext();
    QScriptValue target;
    QMetaObject::invokeMethod(plugin, "install", Q_RETURN_ARG(QScriptValue, target),
                              Q_ARG(QObject *, &engine));
    engine.popContext();
    return engine.evaluate(code);
}

/// @return whether an engine with the plugin has a connection whose worker runs, with a task to do
bool startsWorker(QScriptEngine &engine, QObject *plugin)
{
    return installedEval(engine, plugin,
                         openAndQuery() +
                             QStringLiteral("; db.query_thread(function() {}, 'select 1');"
                                            "db.start_thread()"))
        .toBool();
}

int beforeApplication(Arguments args)
{
    PluginLibrary library;
    HOLDS(library.load());
    HOLDS(library.globalObject());
    HOLDS(library.globalObject()->parent() == nullptr);
    HOLDS(library.globalObject()->objectName() == QLatin1String("plugin_SQL"));
    QCoreApplication application(args.count, args.values);
    VextServerStub server(&application);
    QScriptEngine engine;
    HOLDS(installedEval(engine, library.globalObject(), openAndQuery()).toInt32() == 7);
    HOLDS(library.globalObject()->parent() == nullptr);
    return 0;
}

int withoutAnyApplication(Arguments)
{
    PluginLibrary library;
    HOLDS(library.load());
    HOLDS(library.globalObject());
    library.deleteGlobalObject();
    HOLDS(!library.globalObject());
    HOLDS(library.unload());
    HOLDS(!PluginLibrary::inMemory());
    return 0;
}

int applicationDiesBeforeTheLibrary(Arguments args)
{
    PluginLibrary library;
    {
        QCoreApplication application(args.count, args.values);
        HOLDS(library.load());
        auto engine = std::make_unique<QScriptEngine>();
        HOLDS(installedEval(*engine, library.globalObject(),
                            openAndQuery() + QStringLiteral("; db.start_thread()"))
                  .toBool());
        // The engine dies, the worker waits for an event loop which never runs again.
        engine.reset();
    }
    HOLDS(QSqlDatabase::connectionNames().isEmpty());
    HOLDS(library.unload());
    HOLDS(!PluginLibrary::inMemory());
    return 0;
}

int engineOutlivesTheApplication(Arguments args)
{
    PluginLibrary library;
    std::unique_ptr<QScriptEngine> engine;
    {
        QCoreApplication application(args.count, args.values);
        HOLDS(library.load());
        engine = std::make_unique<QScriptEngine>();
        HOLDS(installedEval(*engine, library.globalObject(),
                            openAndQuery() + QStringLiteral("; db.start_thread()"))
                  .toBool());
    }
    engine.reset();
    HOLDS(QSqlDatabase::connectionNames().isEmpty());
    return 0;
}

int neverUnloaded(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    PluginLibrary library;
    HOLDS(library.load());
    QScriptEngine engine;
    HOLDS(installedEval(engine, library.globalObject(), openAndQuery()).toInt32() == 7);
    return 0;
}

int serverIsParent(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    VextServerStub server(&application);
    PluginLibrary library;
    HOLDS(library.load());
    HOLDS(library.globalObject()->parent() == &server);
    HOLDS(library.unload());
    HOLDS(!PluginLibrary::inMemory());
    HOLDS(server.children().isEmpty());
    return 0;
}

int serverIsFoundAnywhereByItsName(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    QObject between(&application);
    QObject server(&between); // of any class
    server.setObjectName(QStringLiteral("server"));
    PluginLibrary library;
    HOLDS(library.load());
    HOLDS(library.globalObject()->parent() == &server);
    return 0;
}

int serverThatComesLaterIsNoParent(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    PluginLibrary library;
    HOLDS(library.load());
    VextServerStub server(&application);
    HOLDS(library.globalObject()->parent() == nullptr);
    return 0;
}

int hostsTreeDeletesThePluginObjectFirst(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    auto server = std::make_unique<VextServerStub>(&application);
    PluginLibrary library;
    HOLDS(library.load());
    auto engine = std::make_unique<QScriptEngine>();
    HOLDS(installedEval(*engine, library.globalObject(), openAndQuery()).toInt32() == 7);
    server.reset();
    HOLDS(!library.globalObject());
    library.deleteGlobalObject();
    HOLDS(!library.globalObject());
    // What scripts hold goes on working without it.
    HOLDS(engine->evaluate(QStringLiteral("db.query('select 8 as a').a[0]")).toInt32() == 8);
    HOLDS(engine->evaluate(QStringLiteral("new VEXT_SQL('y').objectName")).toString() ==
          QLatin1String("y"));
    engine.reset();
    drainEvents();
    HOLDS(library.unload());
    HOLDS(!PluginLibrary::inMemory());
    return 0;
}

int deletedTwice(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    PluginLibrary library;
    HOLDS(library.load());
    HOLDS(library.globalObject());
    library.deleteGlobalObject();
    HOLDS(!library.globalObject());
    library.deleteGlobalObject();
    HOLDS(!library.globalObject());
    HOLDS(library.unload());
    HOLDS(!PluginLibrary::inMemory());
    return 0;
}

int unloadWithoutDeleting(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    PluginLibrary library;
    HOLDS(library.load());
    const QPointer<QObject> plugin(library.globalObject());
    HOLDS(plugin);
    HOLDS(library.unload());
    HOLDS(!PluginLibrary::inMemory());
    HOLDS(!plugin);
    drainEvents();
    return 0;
}

int loadedAgainAfterUnloading(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    VextServerStub server(&application);
    for (int i = 0; i < 3; ++i) {
        PluginLibrary library;
        HOLDS(library.load());
        HOLDS(library.globalObject()->parent() == &server);
        auto engine = std::make_unique<QScriptEngine>();
        HOLDS(installedEval(*engine, library.globalObject(), openAndQuery()).toInt32() == 7);
        HOLDS(engine->evaluate(QStringLiteral("counters().length")).toInt32() == 1);
        engine.reset();
        drainEvents();
        library.deleteGlobalObject();
        HOLDS(library.unload());
        HOLDS(!PluginLibrary::inMemory());
        HOLDS(server.children().isEmpty());
        HOLDS(QSqlDatabase::connectionNames().isEmpty());
    }
    return 0;
}

/// Takes the memory in which the library lies, once it is gone, so that it comes back elsewhere.
class OccupiedPlace
{
public:
    static OccupiedPlace ofTheLibrary()
    {
        QFile maps(QStringLiteral("/proc/self/maps"));
        OccupiedPlace place;
        const QByteArray name = QFileInfo(pluginFile).fileName().toUtf8();
        if (!maps.open(QIODevice::ReadOnly))
            return place;
        for (const QByteArray &line : maps.readAll().split('\n')) {
            if (!line.endsWith(name))
                continue;
            const QList<QByteArray> range = line.left(line.indexOf(' ')).split('-');
            if (place.m_begin == 0)
                place.m_begin = range.at(0).toULongLong(nullptr, 16);
            place.m_end = range.at(1).toULongLong(nullptr, 16);
        }
        return place;
    }

    bool occupy() const
    {
        void *wanted = reinterpret_cast<void *>(m_begin);
        return mmap(wanted, size_t(m_end - m_begin), PROT_NONE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0) == wanted;
    }

private:
    quintptr m_begin = 0;
    quintptr m_end = 0;
};

int loadedAgainElsewhere(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    for (int i = 0; i < 2; ++i) {
        PluginLibrary library;
        HOLDS(library.load());
        const OccupiedPlace place = OccupiedPlace::ofTheLibrary();
        auto engine = std::make_unique<QScriptEngine>();
        HOLDS(installedEval(*engine, library.globalObject(), openAndQuery()).toInt32() == 7);
        // Everything that Qt keeps of a library by name is used: tasks travel through queued calls.
        engine->evaluate(
            QStringLiteral("var done = 0; db.query_thread(function(r) { done = r.b[0] }, "
                           "'select 9 as b')"));
        HOLDS(waitUntil([&] { return engine->evaluate(QStringLiteral("done")).toInt32() == 9; }));
        engine->evaluate(QStringLiteral(
            "counters(); db.hasFeature(); db.lastErrors; tag = {a: db}; tag; tag = 0"));
        HOLDS(!engine->hasUncaughtException());
        engine.reset();
        drainEvents();
        HOLDS(library.unload());
        HOLDS(!PluginLibrary::inMemory());
        HOLDS(place.occupy());
    }
    return 0;
}

int unloadWithPendingDeletes(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    PluginLibrary library;
    HOLDS(library.load());
    auto engine = std::make_unique<QScriptEngine>();
    HOLDS(startsWorker(*engine, library.globalObject()));
    engine.reset();
    // The workers wait for the event loop with their threads running; the library goes first.
    library.deleteGlobalObject();
    HOLDS(library.unload());
    HOLDS(!PluginLibrary::inMemory());
    HOLDS(QSqlDatabase::connectionNames().isEmpty());
    drainEvents();
    return 0;
}

int unloadWithLiveConnections(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    PluginLibrary library;
    HOLDS(library.load());
    QScriptEngine engine;
    HOLDS(startsWorker(engine, library.globalObject()));
    library.deleteGlobalObject();
    HOLDS(library.unload());
    HOLDS(!PluginLibrary::inMemory());
    HOLDS(QSqlDatabase::connectionNames().isEmpty());
    drainEvents();
    engine.collectGarbage();
    return 0;
}

int unloadWhileWorkersOpen(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    for (unsigned long microseconds = 0; microseconds < 400; microseconds += 10) {
        PluginLibrary library;
        HOLDS(library.load());
        QScriptEngine engine;
        HOLDS(startsWorker(engine, library.globalObject()));
        // The worker gets a little further each time.
        QThread::usleep(microseconds);
        HOLDS(library.unload());
        HOLDS(!PluginLibrary::inMemory());
        drainEvents();
    }
    return 0;
}

int unloadWithUndeliveredResults(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    PluginLibrary library;
    HOLDS(library.load());
    auto engine = std::make_unique<QScriptEngine>();
    HOLDS(installedEval(*engine, library.globalObject(),
                        openAndQuery() +
                            QStringLiteral("; var n = 0;"
                                           "for (var i = 0; i < 20; ++i)"
                                           "db.query_thread(function() { ++n }, 'select 1'); n"))
              .isValid());
    // Finished tasks lie in the event queue; nobody handles it any more.
    QScriptValue size = engine->evaluate(QStringLiteral("db"));
    const Deadline deadline(defaultWaitMs);
    while (size.property(QStringLiteral("taskSize")).call(size).toInt32() > 0 &&
           !deadline.expired())
        QThread::yieldCurrentThread();
    engine.reset();
    HOLDS(library.unload());
    HOLDS(!PluginLibrary::inMemory());
    drainEvents();
    return 0;
}

int messagesReachTheHost(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    VextServerStub server(&application);
    PluginLibrary library;
    HOLDS(library.load());
    auto engine = std::make_unique<QScriptEngine>();
    HOLDS(installedEval(*engine, library.globalObject(),
                        QStringLiteral("var db = new VEXT_SQL(); db.traceLog = true"))
              .toBool());
    HOLDS(server.texts() == QStringList{QStringLiteral("трассировка включена")});
    engine.reset();
    drainEvents();
    HOLDS(library.unload());
    HOLDS(!PluginLibrary::inMemory());
    // The texts outlive the library that sent them.
    HOLDS(server.messages().constFirst().file == QLatin1String("plugins/PluginSQL/vext_sql"));
    return 0;
}

/// A loader as hosts make it by default keeps the library in memory, whatever unload() answers.
int keptInMemoryAndLoadedAgain(Arguments args)
{
    QCoreApplication application(args.count, args.values);
    VextServerStub server(&application);
    QObject *plugin = nullptr;
    {
        QPluginLoader loader(pluginFile);
        HOLDS(loader.load());
        auto *entry =
            static_cast<VextPluginInterface *>(loader.instance()->qt_metacast(interfaceId));
        plugin = entry->globalObject();
        HOLDS(plugin && plugin->parent() == &server);
        HOLDS(loader.unload());
    }
    QPluginLoader loader(pluginFile);
    HOLDS(loader.load());
    auto *entry = static_cast<VextPluginInterface *>(loader.instance()->qt_metacast(interfaceId));
    HOLDS(entry->globalObject() == plugin);
    QScriptEngine engine;
    HOLDS(installedEval(engine, plugin, openAndQuery()).toInt32() == 7);
    return 0;
}

using Scenario = int (*)(Arguments);

const std::map<QString, Scenario> &scenarios()
{
    static const std::map<QString, Scenario> all = {
#define SCENARIO(name) {QStringLiteral(#name), name}
        SCENARIO(beforeApplication),
        SCENARIO(withoutAnyApplication),
        SCENARIO(applicationDiesBeforeTheLibrary),
        SCENARIO(engineOutlivesTheApplication),
        SCENARIO(neverUnloaded),
        SCENARIO(serverIsParent),
        SCENARIO(serverIsFoundAnywhereByItsName),
        SCENARIO(serverThatComesLaterIsNoParent),
        SCENARIO(hostsTreeDeletesThePluginObjectFirst),
        SCENARIO(deletedTwice),
        SCENARIO(unloadWithoutDeleting),
        SCENARIO(loadedAgainAfterUnloading),
        SCENARIO(loadedAgainElsewhere),
        SCENARIO(unloadWithPendingDeletes),
        SCENARIO(unloadWithLiveConnections),
        SCENARIO(unloadWhileWorkersOpen),
        SCENARIO(unloadWithUndeliveredResults),
        SCENARIO(messagesReachTheHost),
        SCENARIO(keptInMemoryAndLoadedAgain),
#undef SCENARIO
    };
    return all;
}

} // namespace

class TestPluginEntry : public QObject
{
    Q_OBJECT

private slots:
    void metadataHoldsExactlyItsKeys();
    void metadataBlockStartsWithItsMark();
    void loaderFindsTheInterface();
    void rootCastsByClassInterfaceAndId();
    void rootHasNoMembersOfItsOwn();
    void rootHasNoParent();
    void interfaceOperationsAreInOrder();
    void globalObjectIsThePluginObject();
    void pluginObjectsMethodsFollowTheBase();
    void objectsIsCallableThroughTheMetaObject();
    void secondLoaderGetsTheSameObjects();
    void deletedRootIsMadeAnew();
    void deletedRootLeavesTheGlobalObject();
    void installThroughTheMetaObjectServesAScript();

    void scenario_data();
    void scenario();
    void hostThatNeedsNoQtSqlEndsWell_data();
    void hostThatNeedsNoQtSqlEndsWell();
};

void TestPluginEntry::metadataHoldsExactlyItsKeys()
{
    const QJsonObject data = PluginLibrary().metaData();
    QCOMPARE(data.value(QStringLiteral("IID")).toString(), QLatin1String(interfaceId));
    QCOMPARE(data.value(QStringLiteral("className")).toString(), QStringLiteral("VextPlugin"));
    const QJsonObject wanted{{QStringLiteral("Keys"), QJsonArray{QStringLiteral("vtxe")}}};
    QCOMPARE(data.value(QStringLiteral("MetaData")).toObject(), wanted);
    // Qt's loader adds what it read from the header of the block.
    QStringList keys = data.keys();
    keys.removeOne(QStringLiteral("archreq"));
    keys.removeOne(QStringLiteral("debug"));
    keys.removeOne(QStringLiteral("version"));
    QCOMPARE(keys, (QStringList{QStringLiteral("IID"), QStringLiteral("MetaData"),
                                QStringLiteral("className")}));
}

void TestPluginEntry::metadataBlockStartsWithItsMark()
{
    QLibrary library(pluginFile);
    using Query = const char *(*)();
    const auto query = reinterpret_cast<Query>(library.resolve("qt_plugin_query_metadata"));
    QVERIFY(query);
    QCOMPARE(QByteArray(query(), 12), QByteArray("QTMETADATA !"));
    QVERIFY(library.resolve("qt_plugin_instance"));
    library.unload();
}

void TestPluginEntry::loaderFindsTheInterface()
{
    PluginLibrary library;
    QVERIFY2(library.load(), qPrintable(library.errorString()));
    QVERIFY(library.plugin());
    QVERIFY(library.unload());
}

void TestPluginEntry::rootCastsByClassInterfaceAndId()
{
    PluginLibrary library;
    QVERIFY(library.load());
    QObject *root = library.root();
    QCOMPARE(root->qt_metacast("VextPlugin"), static_cast<void *>(root));
    void *interface = root->qt_metacast(interfaceId);
    QVERIFY(interface);
    QVERIFY(interface != root);
    QCOMPARE(root->qt_metacast("VextPluginInterface"), interface);
    QVERIFY(!root->qt_metacast("Vext.2.8.Qt.5158.gcc1220"));
    QVERIFY(!root->qt_metacast(nullptr));
    QCOMPARE(root->qt_metacast("QObject"), static_cast<void *>(root));
    QVERIFY(library.unload());
}

void TestPluginEntry::rootHasNoMembersOfItsOwn()
{
    PluginLibrary library;
    QVERIFY(library.load());
    {
        const QMetaObject &meta = *library.root()->metaObject();
        QCOMPARE(QByteArray(meta.className()), QByteArray("VextPlugin"));
        QCOMPARE(ownMethods(meta), QStringList());
        QCOMPARE(ownProperties(meta), QStringList());
        QCOMPARE(ownClassInfos(meta),
                 (QStringList{QStringLiteral("Author"), QStringLiteral("URL")}));
        QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    }
    QVERIFY(library.unload());
}

void TestPluginEntry::rootHasNoParent()
{
    PluginLibrary library;
    QVERIFY(library.load());
    QVERIFY(!library.root()->parent());
    QVERIFY(library.unload());
}

void TestPluginEntry::interfaceOperationsAreInOrder()
{
    PluginLibrary library;
    QVERIFY(library.load());
    VextPluginInterface *plugin = library.plugin();
    QCOMPARE(plugin->globalObject()->objectName(), QStringLiteral("plugin_SQL"));
    QCOMPARE(QByteArray(plugin->vext_plugin_interface()), QByteArray(interfaceId));
    QCOMPARE(QByteArray(plugin->vext_plugin_version()), QByteArray("Vext.v.2.9.1.1110"));
    plugin->globalObjectDelete();
    QVERIFY(!plugin->globalObject());
    QVERIFY(library.unload());
}

void TestPluginEntry::globalObjectIsThePluginObject()
{
    PluginLibrary library;
    QVERIFY(library.load());
    QObject *plugin = library.globalObject();
    QVERIFY(plugin);
    QCOMPARE(library.globalObject(), plugin);
    QCOMPARE(plugin->objectName(), QStringLiteral("plugin_SQL"));
    QCOMPARE(QByteArray(plugin->metaObject()->className()), QByteArray("Plugin_SQL"));
    QCOMPARE(QByteArray(plugin->metaObject()->superClass()->className()),
             QByteArray("Plugin_base"));
    QVERIFY(library.unload());
}

void TestPluginEntry::pluginObjectsMethodsFollowTheBase()
{
    PluginLibrary library;
    QVERIFY(library.load());
    {
        const QMetaObject &meta = *library.globalObject()->metaObject();
        const QStringList own = {QStringLiteral("0 method public QScriptValue install(QObject*)"),
                                 QStringLiteral("1 method public QString objects()")};
        QCOMPARE(ownMethods(meta), own);
        QCOMPARE(meta.indexOfMethod("s_msg(const char*,int,const char*,QString,int)"),
                 QObject::staticMetaObject.methodCount());
        QCOMPARE(meta.methodOffset(), QObject::staticMetaObject.methodCount() + 6);
    }
    QVERIFY(library.unload());
}

void TestPluginEntry::objectsIsCallableThroughTheMetaObject()
{
    PluginLibrary library;
    QVERIFY(library.load());
    QString objects;
    QVERIFY(QMetaObject::invokeMethod(library.globalObject(), "objects",
                                      Q_RETURN_ARG(QString, objects)));
    QCOMPARE(objects, QStringLiteral("VEXT_SQL"));
    QVERIFY(library.unload());
}

void TestPluginEntry::secondLoaderGetsTheSameObjects()
{
    PluginLibrary first;
    PluginLibrary second;
    QVERIFY(first.load() && second.load());
    QCOMPARE(first.root(), second.root());
    QCOMPARE(first.globalObject(), second.globalObject());
    QObject *plugin = first.globalObject();
    QVERIFY(!first.unload());
    QCOMPARE(second.globalObject(), plugin);
    QVERIFY(second.unload());
}

void TestPluginEntry::deletedRootIsMadeAnew()
{
    PluginLibrary library;
    QVERIFY(library.load());
    const QPointer<QObject> former(library.root());
    QObject *plugin = library.globalObject();
    delete former.data();
    PluginLibrary again;
    QVERIFY(again.load());
    QVERIFY(again.root());
    QVERIFY(!former);
    QCOMPARE(again.globalObject(), plugin);
    library.unload();
    QVERIFY(again.unload());
}

void TestPluginEntry::deletedRootLeavesTheGlobalObject()
{
    PluginLibrary library;
    QVERIFY(library.load());
    const QPointer<QObject> plugin(library.globalObject());
    delete library.root();
    QVERIFY(plugin);
    QVERIFY(library.unload());
    QVERIFY(!plugin);
}

void TestPluginEntry::installThroughTheMetaObjectServesAScript()
{
    PluginLibrary library;
    QVERIFY(library.load());
    {
        ScriptHost host;
        QVERIFY(host.installFromScript(library.globalObject()).isObject());
        QCOMPARE(host.eval(openAndQuery()).toInt32(), 7);
        host.destroyEngine();
    }
    library.deleteGlobalObject();
    QVERIFY(library.unload());
    drainEvents();
}

void TestPluginEntry::scenario_data()
{
    QTest::addColumn<int>("dummy");
    for (const auto &entry : scenarios())
        QTest::newRow(qPrintable(entry.first)) << 0;
}

void TestPluginEntry::scenario()
{
    QProcess child;
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start(QCoreApplication::applicationFilePath(),
                {QStringLiteral("--scenario"), QLatin1String(QTest::currentDataTag())});
    QVERIFY(child.waitForFinished(scaledMs(3 * defaultWaitMs)));
    const QByteArray output = child.readAll();
    QVERIFY2(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0,
             output.constData());
    // Qt complains there about threads, timers and connections that were left behind.
    QVERIFY2(!output.contains("QThread") && !output.contains("QObject") &&
                 !output.contains("QSqlDatabase"),
             output.constData());
}

void TestPluginEntry::hostThatNeedsNoQtSqlEndsWell_data()
{
    QTest::addColumn<QString>("code");
    QTest::newRow("list of drivers") << QStringLiteral("new VEXT_SQL().drivers.length > 0");
    QTest::newRow("open without a name") << QStringLiteral("!new VEXT_SQL().open()");
    QTest::newRow("thread with a missing driver")
        << QStringLiteral("var db = new VEXT_SQL(); db.driverName = 'QNONE'; db.start_thread()");
}

/// Qt Sql must not go with the library: the end of the application calls a routine of it.
void TestPluginEntry::hostThatNeedsNoQtSqlEndsWell()
{
    QFETCH(QString, code);
    QProcess host;
    host.start(QStringLiteral(VEXT_BARE_HOST), {pluginFile, code});
    QVERIFY(host.waitForFinished(scaledMs(3 * defaultWaitMs)));
    const QByteArray errors = host.readAllStandardError();
    QVERIFY2(host.exitStatus() == QProcess::NormalExit && host.exitCode() == 0, errors.constData());
    QCOMPARE(host.readAllStandardOutput(), QByteArray("true\n"));
}

int main(int argc, char *argv[])
{
    if (argc == 3 && qstrcmp(argv[1], "--scenario") == 0) {
        const auto found = scenarios().find(QString::fromLocal8Bit(argv[2]));
        return found == scenarios().end() ? 2 : found->second({argc, argv});
    }
    QCoreApplication application(argc, argv);
    TestPluginEntry test;
    return QTest::qExec(&test, argc, argv);
}

#include "test_plugin_entry.moc"
