/// @file
/// A plugin library, from load to unload.
#pragma once

#include <QPluginLoader>
#include <QPointer>

class QScriptEngine;
class VextPluginInterface;

/// Loads a plugin, installs it into script engines and takes it away again. It knows the plugin
/// only through its interface and its meta-object.
///
/// Thread: the script engines'. The library's objects are owned by the library.
class PluginLibrary
{
public:
    PluginLibrary() = default;
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary &) = delete;
    PluginLibrary &operator=(const PluginLibrary &) = delete;

    /// Loads the library. The application's child "server" must exist by now: the plugin looks for
    /// it while it is being loaded.
    /// @return false with `error` set to a text for the user.
    bool load(const QString &file, QString *error);

    /// Lets the plugin put its facilities on the engine's global object.
    /// @return false when the plugin refuses; its reason has gone to the message slot.
    bool install(QScriptEngine *engine);

    /// Deletes the plugin's global object and unloads the library. Every engine that the plugin
    /// was installed into, and every object that the plugin made, must be gone.
    void unload();

    /// The plugin's global object, or null.
    QObject *globalObject() const;

    /// The version of the framework that the library was built for; empty when none is loaded.
    QString version() const;

    /// Where the library lies by default: next to the running program's folder, in a build tree
    /// as well as installed.
    static QString defaultFile();

private:
    bool checkMetaData(const QString &file, QString *error) const;

    QPluginLoader m_loader;
    VextPluginInterface *m_interface = nullptr; ///< owned by m_loader
};
