/// @file
/// The library's root object and the one object that installs SQL into script engines.
#pragma once

#include "vextplugin_base.h"

#include <QMutex>
#include <QVariant>
#include <QtPlugin>

#define VEXT_PLUGIN_IID "Vext.2.9.Qt.5158.gcc1220"

/// What the host calls on a plugin library. The order of the operations is binary interface, and
/// there is no virtual destructor for the same reason.
class VextPluginInterface
{
public:
    /// The library's global plugin object, null once it is gone.
    virtual QObject *globalObject() = 0;
    /// Deletes the global plugin object.
    virtual void globalObjectDelete() = 0;
    virtual const char *vext_plugin_interface() = 0;
    virtual const char *vext_plugin_version() = 0;

protected:
    ~VextPluginInterface() = default;
};

Q_DECLARE_INTERFACE(VextPluginInterface, VEXT_PLUGIN_IID)

/// Root object that the Qt plugin loader makes; stateless.
class VextPlugin : public QObject, public VextPluginInterface
{
    Q_OBJECT
    Q_CLASSINFO("Author", "Vext SQL team")
    Q_CLASSINFO("URL", "https://vext.invalid/")
    Q_PLUGIN_METADATA(IID VEXT_PLUGIN_IID FILE "plugin_sql.json")
    Q_INTERFACES(VextPluginInterface)

public:
    explicit VextPlugin(QObject *parent = nullptr);
    ~VextPlugin() override;

    QObject *globalObject() override;
    void globalObjectDelete() override;
    const char *vext_plugin_interface() override;
    const char *vext_plugin_version() override;
};

/// The process-wide plugin object, made when the library is loaded.
///
/// Child of the application's object "server" when there is one, so the host's tree may delete it;
/// otherwise freed by globalObjectDelete() or with the library.
class Plugin_SQL : public Plugin_base
{
    Q_OBJECT
    Q_CLASSINFO("Author", "Vext SQL team")
    Q_CLASSINFO("URL", "https://vext.invalid/sql")

public:
    Plugin_SQL(QObject *parent, QScriptEngine *engine);
    ~Plugin_SQL() override;

    /// Puts "counters" and "tag" on the this-object of the engine's current context and defines the
    /// constructor VEXT_SQL. @return that this-object, or false when `obj` is no script engine.
    Q_INVOKABLE QScriptValue install(QObject *obj);
    /// Names of the script classes that the library provides, joined with ", ".
    Q_INVOKABLE QString objects();

    /// Script function: statistics of every live connection of the process.
    static QScriptValue counters(QScriptContext *context, QScriptEngine *engine);
    /// Script accessor: one value for all engines of the process.
    static QScriptValue js_tag(QScriptContext *context, QScriptEngine *engine);

    static QMutex m_mutexTag;   ///< guards s_tag
    static QMutex m_mutexCntrs; ///< serialises counters(); taken before VEXT_SQL::m_mutexSqlConns
    static QVariant s_tag;
};
