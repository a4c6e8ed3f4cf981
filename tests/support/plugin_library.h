/// @file
/// The plugin library as a host sees it: loaded by file name, reached through its interface.
#pragma once

#include <QJsonObject>
#include <QPluginLoader>
#include <QString>

/// Loads a plugin library and asks it what a host may ask. Knows no header of the plugin. The test
/// decides when the library is loaded: an application child named "server" must be there before.
/// The library stays loaded when this object goes, unless unload() was called. Engine's thread.
class PluginLibrary
{
public:
    /// Does not load yet.
    explicit PluginLibrary(const QString &file);

    /// @return whether the library is loaded and has the interface; errorString() says why not.
    bool load();
    bool isLoaded() const { return m_loader.isLoaded(); }
    QString errorString() const { return m_loader.errorString(); }
    QJsonObject metaData() const { return m_loader.metaData(); }
    /// @return whether the library is gone.
    bool unload();

    /// The plugin's root object; null while not loaded.
    QObject *root();
    /// The object that is to be installed into engines; null while not loaded or when it is gone.
    QObject *globalObject();
    void deleteGlobalObject();
    QString interfaceText();
    QString versionText();

private:
    QPluginLoader m_loader;
};
