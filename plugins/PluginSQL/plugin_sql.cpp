#include "plugin_sql.h"

#include "lasting_text.h"
#include "library_life.h"
#include "own_meta_types.h"
#include "script_guard.h"
#include "script_property.h"
#include "script_tag.h"
#include "script_variant.h"
#include "sql_records.h"
#include "vext_sql.h"
#include "vext_sql_module.h"

#include <QSqlQuery>

namespace
{

constexpr int LineInstallRefused = 91;
constexpr char PluginVersion[] = "Vext.v.2.9.1.1110";

} // namespace

// --- Root object ---

VextPlugin::VextPlugin(QObject *parent)
    : QObject(parent)
{
}

VextPlugin::~VextPlugin() = default;

QObject *VextPlugin::globalObject()
{
    return LibraryLife::globalObject();
}

void VextPlugin::globalObjectDelete()
{
    delete LibraryLife::globalObject().data();
    LibraryLife::globalObject().clear();
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
    if (LibraryLife::globalObject() == this)
        LibraryLife::globalObject().clear();
}

QScriptValue Plugin_SQL::install(QObject *obj)
{
    auto *engine = qobject_cast<QScriptEngine *>(obj);
    if (!engine) {
        // Two blanks before the dash: the text stands as it always has.
        emit s_msg(lastingText(VextSqlModule::Plugin), LineInstallRefused, lastingText("install"),
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
    if (!context || !isUsable(engine))
        return QScriptValue(false);
    if (context->argumentCount() > 0) {
        // Conversion may run script code: before the lock.
        QVariant value;
        if (!ScriptVariant::convert(context->argument(0), engine, value)) {
            return engine->hasUncaughtException()
                       ? engine->uncaughtException()
                       : context->throwError(QScriptContext::RangeError,
                                             QStringLiteral("tag: too large"));
        }
        const ScriptTag tag(value);
        QMutexLocker locker(&m_mutexTag);
        s_tag = value;
        LibraryLife::tagObjects() = tag;
    }
    QVariant tag;
    ScriptTag objects;
    {
        QMutexLocker locker(&m_mutexTag);
        tag = s_tag;
        objects = LibraryLife::tagObjects();
    }
    const QVariant shown = objects.resolved(tag, engine);
    return qScriptValueFromValue_helper(engine, shown.userType(), shown.constData());
}

QScriptValue Plugin_SQL::counters(QScriptContext *context, QScriptEngine *engine)
{
    Q_UNUSED(context)
    if (!isUsable(engine))
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
