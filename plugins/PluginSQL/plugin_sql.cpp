#include "plugin_sql.h"

#include "own_meta_types.h"
#include "script_property.h"
#include "script_tag.h"
#include "sql_records.h"
#include "vext_sql.h"
#include "vext_sql_call.h"
#include "vext_sql_module.h"
#include "vext_sql_thread.h"

#include <QCoreApplication>
#include <QPointer>
#include <QSqlDatabase>
#include <QSqlQuery>

namespace
{

constexpr int LineInstallRefused = 91;
constexpr char PluginVersion[] = "Vext.v.2.9.1.1110";

} // namespace

// Library-wide state. It is defined in one file because only there the order of construction and of
// destruction is certain: what stands first is used by what stands last, the plugin object.
QMutex Plugin_SQL::m_mutexTag;
QMutex Plugin_SQL::m_mutexCntrs;
QVariant Plugin_SQL::s_tag;
QList<VEXT_SQL *> VEXT_SQL::m_listSqlConns;
QMutex VEXT_SQL::m_mutexSqlConns;
QAtomicInt VEXT_sqlThr::s_conCounter;
QAtomicInt VEXT_sqlThr::s_typeFloat;
QList<VEXT_sqlThr *> VEXT_sqlThr::s_workers;
QMutex VEXT_sqlThr::s_mutexWorkers;
QStringList VEXT_sqlThr::s_threadNames;
QStringList VEXT_sqlThr::s_mainNames;

namespace
{

QPointer<QObject> s_globalObject;
ScriptTag s_tagObjects; ///< the objects in Plugin_SQL::s_tag; m_mutexTag

void releaseWorkersOfApplication()
{
    VEXT_sqlThr::releaseWorkers(false);
}

/// Makes the plugin object when the library is loaded, possibly before any application object
/// exists, and leaves nothing behind that could call into the library when it is unloaded.
class LibraryLife
{
public:
    LibraryLife()
    {
        // Qt's registry of connections must outlive ours at the end of the process.
        QSqlDatabase::connectionNames();
        qAddPostRoutine(releaseWorkersOfApplication);
        QCoreApplication *application = QCoreApplication::instance();
        QObject *server =
            application ? application->findChild<QObject *>(QStringLiteral("server")) : nullptr;
        s_globalObject = new Plugin_SQL(server, nullptr);
    }

    ~LibraryLife()
    {
        qRemovePostRoutine(releaseWorkersOfApplication);
        VEXT_sqlThr::releaseWorkers(true);
        delete s_globalObject.data();
        Plugin_SQL::s_tag.clear();
        OwnMetaTypes::removeAll();
    }
};

LibraryLife s_libraryLife;

} // namespace

// --- Root object ---

VextPlugin::VextPlugin(QObject *parent)
    : QObject(parent)
{
}

VextPlugin::~VextPlugin() = default;

QObject *VextPlugin::globalObject()
{
    return s_globalObject;
}

void VextPlugin::globalObjectDelete()
{
    delete s_globalObject.data();
    s_globalObject.clear();
}

const char *VextPlugin::vext_plugin_interface()
{
    return VEXT_PLUGIN_IID;
}

const char *VextPlugin::vext_plugin_version()
{
    return PluginVersion;
}

// --- Plugin object ---

Plugin_SQL::Plugin_SQL(QObject *parent, QScriptEngine *engine)
    : Plugin_base(parent, engine)
{
    setObjectName(QStringLiteral("plugin_SQL"));
    const QString className = QStringLiteral("VEXT_SQL");
    if (!m_classNames.contains(className))
        m_classNames.append(className);
    m_classNames.sort(Qt::CaseSensitive);
    // Names under which these travel in queued calls between a connection and its worker thread.
    OwnMetaTypes::add<QSqlQuery *>("QSqlQuery*");
    OwnMetaTypes::add<QSqlQuery>("QSqlQuery&");
    qRegisterMetaType<QString>("QString&");
    qRegisterMetaType<QString>("const QString&");
    OwnMetaTypes::add<structThrSql *>("structThrSql*");
    // Otherwise registered for good at the first call of counters().
    OwnMetaTypes::add<QScriptEngine *>("QScriptEngine*");
}

/// The connections themselves belong to their engines and live on.
Plugin_SQL::~Plugin_SQL()
{
    QMutexLocker locker(&VEXT_SQL::m_mutexSqlConns);
    VEXT_SQL::m_listSqlConns.clear();
    if (s_globalObject == this)
        s_globalObject.clear();
}

QScriptValue Plugin_SQL::install(QObject *obj)
{
    auto *engine = qobject_cast<QScriptEngine *>(obj);
    if (!engine) {
        // Two blanks before the dash: the text stands as it always has.
        emit s_msg(VextSqlModule::Plugin, LineInstallRefused, "install",
                   Plugin_base::tr("вызвать можно только как install(scriptEngine)  - отмена"), -1);
        return QScriptValue(false);
    }
    const QScriptValue target = engine->currentContext()->thisObject();
    ScriptProperty::setHidden(engine, target, QStringLiteral("counters"),
                              engine->newFunction(&Plugin_SQL::counters, 0));
    ScriptProperty::setHiddenAccessor(engine, target, QStringLiteral("tag"),
                                      engine->newFunction(&Plugin_SQL::js_tag, 0));
    VEXT_SQLWrapper::registerWrapper(engine);
    return engine->currentContext()->thisObject();
}

QString Plugin_SQL::objects()
{
    return m_classNames.join(QStringLiteral(", "));
}

QScriptValue Plugin_SQL::js_tag(QScriptContext *context, QScriptEngine *engine)
{
    if (!context || !engine)
        return QScriptValue(false);
    if (context->argumentCount() > 0) {
        // Conversion may run script code: before the lock.
        QVariant value;
        if (!SqlCall::toVariant(context->argument(0), engine, value)) {
            return engine->hasUncaughtException()
                       ? engine->uncaughtException()
                       : context->throwError(QScriptContext::RangeError,
                                             QStringLiteral("tag: too large"));
        }
        const ScriptTag tag(value);
        QMutexLocker locker(&m_mutexTag);
        s_tag = value;
        s_tagObjects = tag;
    }
    QVariant tag;
    ScriptTag objects;
    {
        QMutexLocker locker(&m_mutexTag);
        tag = s_tag;
        objects = s_tagObjects;
    }
    const QVariant shown = objects.resolved(tag);
    return qScriptValueFromValue_helper(engine, shown.userType(), shown.constData());
}

QScriptValue Plugin_SQL::counters(QScriptContext *context, QScriptEngine *engine)
{
    Q_UNUSED(context)
    if (!engine)
        return QScriptValue(false);
    QMutexLocker counterLocker(&m_mutexCntrs);
    QMutexLocker registryLocker(&VEXT_SQL::m_mutexSqlConns);
    const QList<VEXT_SQL *> connections = VEXT_SQL::m_listSqlConns;
    QScriptValue array = engine->newArray(uint(connections.size()));
    for (int i = 0; i < connections.size(); ++i)
        array.setProperty(quint32(i), connections.at(i)->counters(engine),
                          QScriptValue::KeepExistingFlags);
    return array;
}
