// Installation into script engines: counters, tag and the constructor; the plugin object's tables.
#include "frame_host.h"
#include "message_log.h"
#include "message_sink.h"
#include "meta_table.h"

#include <QThread>
#include <QtTest>

#include <atomic>
#include <memory>

class TestInstall : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    // First, before any test writes it.
    void tagIsUndefinedBeforeAnyWrite();

    void pluginObjectsMethodTableIsLiteral();
    void baseMethodTableIsLiteral();
    void basePropertyIsTraceLog();
    void baseParametersOfMessagesAreNamed();
    void pluginObjectHasItsNameAndNoEngine();
    void objectsNamesTheScriptClass();
    void metaTypesAreRegistered_data();
    void metaTypesAreRegistered();

    void installRefusesOtherObjects_data();
    void installRefusesOtherObjects();
    void refusedInstallFromScriptIsFalse_data();
    void refusedInstallFromScriptIsFalse();
    void installReturnsTheThisObject();
    void installFromScriptUsesTheCallersThis();
    void countersIsAHiddenFixedFunction();
    void tagIsAnAccessorWithAllFlags();
    void countersIsFixedAndHiddenOnTheGlobalObject();
    void tagIsFixedAndHiddenOnTheGlobalObject();
    void hostMadeGlobalObjectGetsPlainProperties_data();
    void hostMadeGlobalObjectGetsPlainProperties();
    void installingTwiceSetsTheSameAgain();
    void installAgainRestoresWhatAScriptReplaced_data();
    void installAgainRestoresWhatAScriptReplaced();
    void installWithoutDefinePropertySetsPlainProperties_data();
    void installWithoutDefinePropertySetsPlainProperties();
    void readersOfFixedGlobalsKeepTheirValues_data();
    void readersOfFixedGlobalsKeepTheirValues();
    void installServesSeveralEngines();

    void tagIsSharedByEnginesAndConnections();
    void tagKeepsValues_data();
    void tagKeepsValues();
    void tagSetterReturnsTheTag();
    void tagCanBeSetToUndefinedAgain();
    void tagOutlivesTheEngineThatWroteIt();
    void tagOfADeletedObjectIsNoDanglingPointer();
    void tagOfAnotherEnginesConnectionIsNull();
    void tagOfAThrowingConversionLeavesTheTag();
    void jsTagWithoutContextOrEngineIsFalse();

    void countersWithoutConnectionsIsAnEmptyArray();
    void countersListsEveryConnectionInOrder();
    void countersElementsAreStatisticsObjects();
    void countersAllIsTheSameList();
    void countersShowsConnectionsOfOtherEngines();
    void countersForgetsDeletedConnections();
    void countersWithoutEngineIsFalse();
    void countersFromTwoThreadsNeitherLocksNorCrashes();
    void countersShowsWhatAnotherThreadChanges_data();
    void countersShowsWhatAnotherThreadChanges();

    void destroyedPluginObjectEmptiesTheRegistryOnly();

private:
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<FrameHost> m_host;
    FrameHost &h() { return *m_host; }
};

namespace
{

bool propertyListed(ScriptHost &host, const char *object, const char *name)
{
    return host
        .eval(QStringLiteral("(function(o) { for (var p in o) if (p === '%2') return true;"
                             "return false })(%1)")
                  .arg(QLatin1String(object), QLatin1String(name)))
        .toBool();
}

} // namespace

void TestInstall::init()
{
    m_log = std::make_unique<MessageLog>();
    m_host = std::make_unique<FrameHost>();
}

void TestInstall::cleanup()
{
    h().eval("tag = undefined");
    m_host.reset();
    QVERIFY(VEXT_SQL::m_listSqlConns.isEmpty());
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

// --- Tables ---

void TestInstall::pluginObjectsMethodTableIsLiteral()
{
    const QMetaObject &meta = Plugin_SQL::staticMetaObject;
    const QStringList table = {QStringLiteral("0 method public QScriptValue install(QObject*)"),
                               QStringLiteral("1 method public QString objects()")};
    QCOMPARE(ownMethods(meta), table);
    QCOMPARE(ownProperties(meta), QStringList());
    QCOMPARE(ownClassInfos(meta), (QStringList{QStringLiteral("Author"), QStringLiteral("URL")}));
    QCOMPARE(parameterNames(meta, "install(QObject*)"), (QStringList{QStringLiteral("obj")}));
    QCOMPARE(QByteArray(meta.superClass()->className()), QByteArray("Plugin_base"));
}

void TestInstall::baseMethodTableIsLiteral()
{
    const QStringList table = {
        QStringLiteral("0 signal public void s_msg(const char*,int,const char*,QString,int)"),
        QStringLiteral("1 slot public bool setScriptValueThis(QScriptValue)"),
        QStringLiteral("2 slot protected void msg(const char*,int,const char*,QString,int)"),
        QStringLiteral("3 method public void disableTraceLog()"),
        QStringLiteral("4 method public void enableTraceLog(bool)"),
        QStringLiteral("5 method public clone void enableTraceLog()"),
    };
    QCOMPARE(ownMethods(Plugin_base::staticMetaObject), table);
    QCOMPARE(ownClassInfos(Plugin_base::staticMetaObject),
             (QStringList{QStringLiteral("Author"), QStringLiteral("URL")}));
    QCOMPARE(Plugin_base::staticMetaObject.superClass(), &QObject::staticMetaObject);
}

void TestInstall::basePropertyIsTraceLog()
{
    QCOMPARE(ownProperties(Plugin_base::staticMetaObject),
             (QStringList{QStringLiteral("0 traceLog bool rw designable scriptable stored")}));
}

void TestInstall::baseParametersOfMessagesAreNamed()
{
    const QMetaObject &meta = Plugin_base::staticMetaObject;
    const QString none;
    QCOMPARE(parameterNames(meta, "s_msg(const char*,int,const char*,QString,int)"),
             (QStringList{none, none, none, none, none}));
    QCOMPARE(
        parameterNames(meta, "msg(const char*,int,const char*,QString,int)").join(QLatin1Char(',')),
        QStringLiteral("fl,ln,fn,msg,val"));
    QCOMPARE(parameterNames(meta, "setScriptValueThis(QScriptValue)"),
             (QStringList{QStringLiteral("scriptValue")}));
    QCOMPARE(parameterNames(meta, "enableTraceLog(bool)"), (QStringList{QStringLiteral("trace")}));
}

void TestInstall::pluginObjectHasItsNameAndNoEngine()
{
    Plugin_base::m_isGuiApp = -1;
    Plugin_SQL plugin(nullptr, nullptr);
    QCOMPARE(plugin.objectName(), QStringLiteral("plugin_SQL"));
    QVERIFY(!plugin.traceLog());
    QVERIFY(!plugin.getScriptValueThis(nullptr).isValid());
    // Without an engine the host is not asked at construction.
    QCOMPARE(Plugin_base::m_isGuiApp, -1);
}

void TestInstall::objectsNamesTheScriptClass()
{
    QString objects;
    QVERIFY(
        QMetaObject::invokeMethod(FrameHost::plugin(), "objects", Q_RETURN_ARG(QString, objects)));
    QCOMPARE(objects, QStringLiteral("VEXT_SQL"));
    Plugin_SQL another(nullptr, h().engine());
    QCOMPARE(another.objects(), QStringLiteral("VEXT_SQL"));
}

void TestInstall::metaTypesAreRegistered_data()
{
    QTest::addColumn<QString>("alias");
    QTest::newRow("QSqlQuery*") << QString();
    QTest::newRow("QSqlQuery&") << QString();
    QTest::newRow("QString&") << QStringLiteral("QString");
    QTest::newRow("const QString&") << QStringLiteral("QString");
    QTest::newRow("structThrSql*") << QString();
    QTest::newRow("float") << QStringLiteral("float");
    QTest::newRow("QSqlDriver::NotificationSource") << QString();
}

void TestInstall::metaTypesAreRegistered()
{
    QFETCH(QString, alias);
    h().eval("new VEXT_SQL()");
    const int type = QMetaType::type(QTest::currentDataTag());
    QVERIFY(type != QMetaType::UnknownType);
    if (!alias.isEmpty())
        QCOMPARE(QMetaType::typeName(type), alias.toLatin1().constData());
}

// --- install ---

void TestInstall::installRefusesOtherObjects_data()
{
    QTest::addColumn<bool>("null");
    QTest::newRow("null") << true;
    QTest::newRow("another object") << false;
}

void TestInstall::installRefusesOtherObjects()
{
    QFETCH(bool, null);
    Plugin_SQL plugin(nullptr, nullptr);
    MessageSink sink;
    Plugin_base::connect_msg(&plugin, &sink);
    const QScriptValue result = plugin.install(null ? nullptr : this);
    QVERIFY(result.isBool());
    QCOMPARE(result.toBool(), false);
    QCOMPARE(sink.messages().size(), 1);
    const SinkMessage message = sink.messages().constFirst();
    QCOMPARE(message.file, QStringLiteral("plugins/PluginSQL/plugin_sql"));
    QCOMPARE(message.line, 91);
    QCOMPARE(message.function, QStringLiteral("install"));
    QCOMPARE(message.text,
             QStringLiteral("вызвать можно только как install(scriptEngine)  - отмена"));
    QCOMPARE(message.level, -1);
}

void TestInstall::refusedInstallFromScriptIsFalse_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *argument : {"null", "server", "post", "plugin"})
        QTest::newRow(argument) << 0;
}

void TestInstall::refusedInstallFromScriptIsFalse()
{
    ScriptHost fresh;
    fresh.engine()->globalObject().setProperty(QStringLiteral("plugin"),
                                               fresh.engine()->newQObject(FrameHost::plugin()));
    const QScriptValue result = fresh.eval(
        QStringLiteral("plugin.install(%1)").arg(QLatin1String(QTest::currentDataTag())));
    QVERIFY(result.isBool() && !result.toBool());
    QVERIFY(fresh
                .eval(QStringLiteral("typeof VEXT_SQL === 'undefined'"
                                     " && plugin.counters === undefined && !('tag' in plugin)"))
                .toBool());
}

void TestInstall::installReturnsTheThisObject()
{
    ScriptHost fresh;
    const QScriptValue result = fresh.install(FrameHost::plugin());
    QVERIFY(result.strictlyEquals(fresh.engine()->globalObject()));
    QVERIFY(fresh
                .eval(QStringLiteral("typeof counters === 'function' && 'tag' in this"
                                     " && typeof VEXT_SQL === 'function'"))
                .toBool());
}

void TestInstall::installFromScriptUsesTheCallersThis()
{
    ScriptHost fresh;
    QVERIFY(fresh.installFromScript(FrameHost::plugin())
                .strictlyEquals(fresh.global(QStringLiteral("plugin"))));
    QVERIFY(fresh
                .eval(QStringLiteral("typeof plugin.counters === 'function' && 'tag' in plugin"
                                     " && typeof VEXT_SQL === 'function'"
                                     " && typeof counters === 'undefined'"))
                .toBool());
}

void TestInstall::countersIsAHiddenFixedFunction()
{
    ScriptHost fresh;
    const QScriptValue target = fresh.installFromScript(FrameHost::plugin());
    QVERIFY(target.property(QStringLiteral("counters")).isFunction());
    QCOMPARE(int(target.propertyFlags(QStringLiteral("counters"))), 7);
    QVERIFY(fresh.eval(QStringLiteral("plugin.counters.length === 0")).toBool());
    QVERIFY(fresh
                .eval(QStringLiteral("var kept = plugin.counters; plugin.counters = 5;"
                                     "delete plugin.counters; plugin.counters === kept"))
                .toBool());
    QVERIFY(!propertyListed(fresh, "plugin", "counters"));
}

void TestInstall::tagIsAnAccessorWithAllFlags()
{
    ScriptHost fresh;
    const QScriptValue target = fresh.installFromScript(FrameHost::plugin());
    QCOMPARE(int(target.propertyFlags(QStringLiteral("tag"))), 30);
    QVERIFY(fresh
                .eval(QStringLiteral("delete plugin.tag; plugin.tag = 3; delete plugin.tag;"
                                     "plugin.tag === 3"))
                .toBool());
    QVERIFY(fresh.eval(QStringLiteral("plugin.__lookupGetter__('tag').length === 0")).toBool());
    QVERIFY(!propertyListed(fresh, "plugin", "tag"));
}

void TestInstall::countersIsFixedAndHiddenOnTheGlobalObject()
{
    QVERIFY(
        h().holds("var kept = counters; counters = 5; delete this.counters; counters === kept"));
    QVERIFY(!propertyListed(h().script, "this", "counters"));
}

void TestInstall::tagIsFixedAndHiddenOnTheGlobalObject()
{
    QCOMPARE(int(h().engine()->globalObject().propertyFlags(QStringLiteral("tag"))), 30);
    QVERIFY(h().holds("delete this.tag; tag = 3; delete this.tag; this.tag === 3"));
    QVERIFY(Plugin_SQL::s_tag.isValid());
    QVERIFY(!propertyListed(h().script, "this", "tag"));
}

void TestInstall::hostMadeGlobalObjectGetsPlainProperties_data()
{
    QTest::addColumn<int>("installs");
    QTest::newRow("once") << 1;
    QTest::newRow("twice") << 2;
}

/// There Qt keeps the flags of a plain property, which need no accessor in its place.
void TestInstall::hostMadeGlobalObjectGetsPlainProperties()
{
    QFETCH(int, installs);
    QScriptEngine engine;
    QScriptValue own = engine.newObject();
    own.setPrototype(engine.globalObject());
    engine.setGlobalObject(own);
    for (int i = 0; i < installs; ++i) {
        QScriptContext *context = engine.pushContext();
        context->setThisObject(engine.globalObject());
        QVERIFY(
            QMetaObject::invokeMethod(FrameHost::plugin(), "install", Q_ARG(QObject *, &engine)));
        engine.popContext();
    }
    const QScriptValue global = engine.globalObject();
    for (const char *name : {"VEXT_SQL", "counters"}) {
        QCOMPARE(int(global.propertyFlags(QLatin1String(name))), 7);
        QVERIFY2(global.property(QLatin1String(name)).isFunction(), name);
        QVERIFY2(engine
                     .evaluate(QStringLiteral("this.%1 = 5; delete this.%1; typeof %1 === "
                                              "'function'")
                                   .arg(QLatin1String(name)))
                     .toBool(),
                 name);
    }
    QCOMPARE(int(global.propertyFlags(QStringLiteral("tag"))), 30);
    QVERIFY(engine.evaluate(QStringLiteral("new VEXT_SQL('x').objectName === 'x'")).toBool());
}

void TestInstall::installingTwiceSetsTheSameAgain()
{
    ScriptHost fresh;
    fresh.installFromScript(FrameHost::plugin());
    fresh.eval(QStringLiteral("plugin.tag = 'kept'; var db = new VEXT_SQL()"));
    const QScriptValue target = fresh.installFromScript(FrameHost::plugin());
    QCOMPARE(int(target.propertyFlags(QStringLiteral("tag"))), 30);
    QCOMPARE(int(target.propertyFlags(QStringLiteral("counters"))), 7);
    QVERIFY(fresh
                .eval(QStringLiteral("plugin.tag === 'kept' && plugin.counters().length === 1"
                                     " && new VEXT_SQL().objectName === 'sql'"))
                .toBool());
    h().script.install(FrameHost::plugin());
    QVERIFY(h().holds("tag === 'kept' && counters().length === 2"
                      " && new VEXT_SQL().objectName === 'sql'"));
}

void TestInstall::installAgainRestoresWhatAScriptReplaced_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("check");
    QTest::newRow("VEXT_SQL") << QStringLiteral("VEXT_SQL")
                              << QStringLiteral("new VEXT_SQL('x').objectName === 'x'");
    QTest::newRow("counters") << QStringLiteral("counters")
                              << QStringLiteral("counters().length === 0");
    QTest::newRow("tag") << QStringLiteral("tag")
                         << QStringLiteral("tag = 4; new VEXT_SQL().tag === 4 && tag === 4");
}

void TestInstall::installAgainRestoresWhatAScriptReplaced()
{
    QFETCH(QString, name);
    QFETCH(QString, check);
    const QScriptValue::PropertyFlags flags = h().engine()->globalObject().propertyFlags(name);
    h().eval(
        QStringLiteral("this.__defineGetter__('%1', function() { return 'replaced' })").arg(name));
    h().script.install(FrameHost::plugin());
    QVERIFY2(h().eval(check).toBool(), qPrintable(h().eval(name).toString()));
    QCOMPARE(h().engine()->globalObject().propertyFlags(name), flags);
}

void TestInstall::installWithoutDefinePropertySetsPlainProperties_data()
{
    QTest::addColumn<QString>("hostile");
    for (const char *hostile :
         {"Object.defineProperty = function(o) { return o }",
          "Object.defineProperty = function() { throw new Error('no') }",
          "Object.defineProperty = 5", "delete Object.defineProperty", "Object = undefined"})
        QTest::newRow(hostile) << utf8(hostile);
}

/// A script that ran before the host's install may have taken away what flags are set with.
void TestInstall::installWithoutDefinePropertySetsPlainProperties()
{
    QFETCH(QString, hostile);
    ScriptHost fresh;
    fresh.eval(hostile);
    fresh.install(FrameHost::plugin());
    QVERIFY(fresh
                .eval(QStringLiteral("counters().length === 0 && (tag = 3) && tag === 3"
                                     " && new VEXT_SQL('x').tag === 3"))
                .toBool());
}

void TestInstall::readersOfFixedGlobalsKeepTheirValues_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("VEXT_SQL") << QStringLiteral("VEXT_SQL");
    QTest::newRow("counters") << QStringLiteral("counters");
}

/// Qt keeps a function's data in a property of it.
void TestInstall::readersOfFixedGlobalsKeepTheirValues()
{
    QFETCH(QString, name);
    h().eval(QStringLiteral("var kept = %1, reader = this.__lookupGetter__('%1')").arg(name));
    for (const char *attack : {"reader.__qt_data__ = 5", "delete reader.__qt_data__",
                               "reader.__defineGetter__('__qt_data__', function() { return 5 })",
                               "try { Object.defineProperty(reader, '__qt_data__', {value: 5}) }"
                               " catch (e) {}"}) {
        h().eval(attack);
        QVERIFY2(h().eval(QStringLiteral("%1 === kept").arg(name)).toBool(), attack);
    }
    QVERIFY(!propertyListed(h().script, "reader", "__qt_data__"));
}

void TestInstall::installServesSeveralEngines()
{
    FrameHost other;
    QCOMPARE(other.shown("new VEXT_SQL('b').objectName"), QStringLiteral("b"));
    QCOMPARE(h().shown("new VEXT_SQL('a').objectName"), QStringLiteral("a"));
}

// --- tag ---

void TestInstall::tagIsUndefinedBeforeAnyWrite()
{
    QVERIFY(h().holds("tag === undefined"));
    QVERIFY(h().holds("new VEXT_SQL().tag === undefined"));
}

void TestInstall::tagIsSharedByEnginesAndConnections()
{
    FrameHost other;
    h().eval("tag = 5");
    QVERIFY(other.holds("tag === 5"));
    QVERIFY(other.holds("new VEXT_SQL().tag === 5"));
    other.eval("new VEXT_SQL().tag = 'back'");
    QVERIFY(h().holds("tag === 'back'"));
}

void TestInstall::tagKeepsValues_data()
{
    QTest::addColumn<QString>("check");
    const auto row = [](const char *value, const char *check) {
        QTest::newRow(value) << utf8(check);
    };
    row("0", "tag === 0");
    row("-1.5", "tag === -1.5");
    row("NaN", "tag !== tag");
    row("Infinity", "tag === Infinity");
    row("true", "tag === true");
    row("false", "tag === false");
    row("''", "tag === ''");
    row("'мир'", "tag === 'мир'");
    row("[1,'a']", "tag.length === 2 && tag[0] === 1 && tag[1] === 'a'");
    row("({a: {b: 1}})", "tag.a.b === 1");
    row("new Date(1000)", "tag.getTime() === 1000");
    row("server", "tag.objectName === 'server' && tag.gui === false");
}

void TestInstall::tagKeepsValues()
{
    QFETCH(QString, check);
    h().eval(QStringLiteral("tag = %1").arg(utf8(QTest::currentDataTag())));
    QVERIFY2(h().eval(check).toBool(), qPrintable(h().shown("'' + tag")));
}

void TestInstall::tagSetterReturnsTheTag()
{
    QVERIFY(h().holds("this.__lookupSetter__('tag').call(this, 7) === 7"));
    QVERIFY(h().holds("this.__lookupGetter__('tag').call(this) === 7"));
}

void TestInstall::tagCanBeSetToUndefinedAgain()
{
    QVERIFY(h().holds("tag = 5; tag = undefined; tag === undefined"));
}

void TestInstall::tagOutlivesTheEngineThatWroteIt()
{
    {
        FrameHost other;
        other.eval("tag = {a: [1, {b: 'x'}], d: new Date(5)}");
    }
    QVERIFY(h().holds("tag.a[1].b === 'x' && tag.d.getTime() === 5"));
}

void TestInstall::tagOfADeletedObjectIsNoDanglingPointer()
{
    {
        VextServerStub object;
        h().engine()->globalObject().setProperty(QStringLiteral("o"),
                                                 h().engine()->newQObject(&object));
        h().eval("tag = o");
        QVERIFY(h().holds("tag.gui === false"));
    }
    h().eval("'' + tag; try { tag.gui } catch (e) {}");
    h().eval("tag = {inner: new VEXT_SQL('x')}");
    delete VEXT_SQL::m_listSqlConns.constLast();
    h().eval("'' + tag.inner; try { tag.inner.open() } catch (e) {}");
}

/// Its methods make values of its own engine, which no other engine may hold.
void TestInstall::tagOfAnotherEnginesConnectionIsNull()
{
    FrameHost other;
    other.eval("var db = new VEXT_SQL(); tag = {inner: [db], n: 1}");
    QVERIFY(other.holds("tag.inner[0] === db || tag.inner[0].objectName === 'sql'"));
    QVERIFY(h().holds("tag.inner[0] === null && tag.n === 1"));
    QVERIFY(h().holds("new VEXT_SQL().tag.inner[0] === null"));
    other.eval("tag = db");
    QVERIFY(h().holds("tag === null"));
    QVERIFY(other.holds("typeof tag.counters() === 'object'"));
    h().engine()->globalObject().setProperty(QStringLiteral("foreign"),
                                             h().engine()->newQObject(other.connection()));
    QVERIFY(h().holds("try { new VEXT_SQL().query_thread.call(foreign, function() {}, 'select 1')}"
                      " catch (e) { e instanceof TypeError }"));
}

void TestInstall::tagOfAThrowingConversionLeavesTheTag()
{
    h().eval("tag = 1");
    h().eval("try { tag = {get a() { throw new Error('no') }} } catch (e) {}");
    QVERIFY(!h().engine()->hasUncaughtException());
    h().eval("tag = 2");
    QVERIFY(h().holds("tag === 2"));
}

void TestInstall::jsTagWithoutContextOrEngineIsFalse()
{
    const QScriptValue noContext = Plugin_SQL::js_tag(nullptr, h().engine());
    QVERIFY(noContext.isBool() && !noContext.toBool());
    const QScriptValue noEngine = Plugin_SQL::js_tag(h().engine()->currentContext(), nullptr);
    QVERIFY(noEngine.isBool() && !noEngine.toBool());
}

// --- counters ---

void TestInstall::countersWithoutConnectionsIsAnEmptyArray()
{
    QVERIFY(h().holds("counters() instanceof Array && counters().length === 0"));
}

void TestInstall::countersListsEveryConnectionInOrder()
{
    h().eval("var a = new VEXT_SQL('a'), b = new VEXT_SQL('b'), c = new VEXT_SQL('c')");
    QCOMPARE(h().shown("counters().map(function(s) { return s.dbObjectName }).join()"),
             QStringLiteral("a,b,c"));
}

void TestInstall::countersElementsAreStatisticsObjects()
{
    h().eval("var a = new VEXT_SQL('a')");
    QCOMPARE(h().shown("JSON.stringify(counters()[0])"),
             h().shown("JSON.stringify(a.counters(scriptEngine))"));
    QVERIFY(h().holds("'postName' in counters()[0]"));
    const QScriptValue list = h().eval("counters()");
    QCOMPARE(int(list.propertyFlags(QStringLiteral("0"))), 0);
}

void TestInstall::countersAllIsTheSameList()
{
    h().eval("var a = new VEXT_SQL('a'), b = new VEXT_SQL('b')");
    QCOMPARE(h().shown("JSON.stringify(a.countersAll())"), h().shown("JSON.stringify(counters())"));
}

void TestInstall::countersShowsConnectionsOfOtherEngines()
{
    FrameHost other;
    other.eval("var theirs = new VEXT_SQL('theirs')");
    h().eval("var ours = new VEXT_SQL('ours')");
    QCOMPARE(h().shown("counters().map(function(s) { return s.dbObjectName }).join()"),
             QStringLiteral("theirs,ours"));
}

void TestInstall::countersForgetsDeletedConnections()
{
    h().eval("var a = new VEXT_SQL('a'), b = new VEXT_SQL('b')");
    delete h().connection("a");
    QCOMPARE(h().shown("counters().map(function(s) { return s.dbObjectName }).join()"),
             QStringLiteral("b"));
}

void TestInstall::countersWithoutEngineIsFalse()
{
    const QScriptValue result = Plugin_SQL::counters(h().engine()->currentContext(), nullptr);
    QVERIFY(result.isBool() && !result.toBool());
    QVERIFY(Plugin_SQL::counters(nullptr, h().engine()).isArray());
}

/// Makes, counts and destroys connections in an engine of its own.
class CountingThread : public QThread
{
public:
    std::atomic<int> rounds{0};
    std::atomic<int> errors{0};

protected:
    void run() override
    {
        QScriptEngine engine;
        VEXT_SQLWrapper::registerWrapper(&engine);
        engine.globalObject().setProperty(QStringLiteral("counters"),
                                          engine.newFunction(&Plugin_SQL::counters, 0));
        while (rounds < 100) {
            engine.evaluate(QStringLiteral("var o = new VEXT_SQL('t'); o.hostName = 'h' + o.port;"
                                           "o.add_event('e'); counters(); o.tag = o.hostName;"));
            if (engine.hasUncaughtException())
                ++errors;
            delete engine.globalObject().property(QStringLiteral("o")).toQObject();
            ++rounds;
        }
    }
};

void TestInstall::countersFromTwoThreadsNeitherLocksNorCrashes()
{
    CountingThread thread;
    thread.start();
    h().eval("var mine = new VEXT_SQL('m')");
    const bool done = waitUntil([&] {
        h().eval("mine.databaseName = 'd' + counters().length; mine.tag");
        return thread.rounds >= 100;
    });
    QVERIFY(thread.wait(static_cast<unsigned long>(scaledMs(defaultWaitMs))));
    QVERIFY(done);
    QCOMPARE(thread.errors.load(), 0);
    QCOMPARE(VEXT_SQL::m_listSqlConns.size(), 1);
}

/// Runs code in an engine of its own, with a new number each time, until it was seen often enough.
class ChangingThread : public QThread
{
public:
    explicit ChangingThread(const QString &code)
        : m_code(code)
    {
    }
    ~ChangingThread() override { wait(); }

    static constexpr int enough = 50;
    std::atomic<int> seen{0};

protected:
    void run() override
    {
        QScriptEngine engine;
        VEXT_SQLWrapper::registerWrapper(&engine);
        engine.evaluate(QStringLiteral("var db = new VEXT_SQL('theirs')"));
        for (int i = 0; seen < enough; ++i)
            engine.evaluate(m_code.arg(i));
        delete engine.globalObject().property(QStringLiteral("db")).toQObject();
    }

private:
    const QString m_code;
};

void TestInstall::countersShowsWhatAnotherThreadChanges_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("member");
    QTest::newRow("subscriptions") << utf8("db.add_event('e%1')") << utf8("subscribeEvents.length");
    QTest::newRow("name") << utf8("db.objectName = 'theirs%1'") << utf8("dbObjectName");
}

void TestInstall::countersShowsWhatAnotherThreadChanges()
{
    QFETCH(QString, change);
    QFETCH(QString, member);
    ChangingThread thread(change);
    thread.start();
    QString last;
    const bool enough = waitUntil([&] {
        const QString now =
            h().eval(utf8("var c = counters()[0]; c ? c.%1 : ''").arg(member)).toString();
        thread.seen += now != last;
        last = now;
        return thread.seen >= thread.enough;
    });
    thread.seen = thread.enough;
    QVERIFY(enough);
}

void TestInstall::destroyedPluginObjectEmptiesTheRegistryOnly()
{
    h().eval("var db = new VEXT_SQL('kept')");
    const QPointer<VEXT_SQL> object(h().connection());
    {
        Plugin_SQL plugin(nullptr, nullptr);
    }
    QVERIFY(VEXT_SQL::m_listSqlConns.isEmpty());
    QVERIFY(object);
    QVERIFY(h().holds("counters().length === 0 && db.objectName === 'kept'"));
    // Its own destruction finds nothing to remove, which is fine.
    delete object.data();
    // Another plugin object than the library's own leaves the library's in place.
    QVERIFY(FrameHost::plugin());
}

QTEST_GUILESS_MAIN(TestInstall)
#include "test_install.moc"
