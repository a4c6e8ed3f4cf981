#include "plugin_library.h"

#include <QObject>

/// The host's side of the plugin interface: same name, same order of operations.
class VextPluginInterface
{
public:
    virtual QObject *globalObject() = 0;
    virtual void globalObjectDelete() = 0;
    virtual const char *vext_plugin_interface() = 0;
    virtual const char *vext_plugin_version() = 0;

protected:
    ~VextPluginInterface() = default; // never deleted through the interface
};

namespace
{

VextPluginInterface *interfaceOf(QObject *root)
{
    return root ? static_cast<VextPluginInterface *>(root->qt_metacast("Vext.2.9.Qt.5158.gcc1220"))
                : nullptr;
}

} // namespace

PluginLibrary::PluginLibrary(const QString &file)
    : m_loader(file)
{
}

bool PluginLibrary::load()
{
    return m_loader.load() && interfaceOf(m_loader.instance());
}

bool PluginLibrary::unload()
{
    return m_loader.unload();
}

QObject *PluginLibrary::root()
{
    return m_loader.isLoaded() ? m_loader.instance() : nullptr;
}

QObject *PluginLibrary::globalObject()
{
    VextPluginInterface *plugin = interfaceOf(root());
    return plugin ? plugin->globalObject() : nullptr;
}

void PluginLibrary::deleteGlobalObject()
{
    if (VextPluginInterface *plugin = interfaceOf(root()))
        plugin->globalObjectDelete();
}

QString PluginLibrary::interfaceText()
{
    VextPluginInterface *plugin = interfaceOf(root());
    return plugin ? QString::fromUtf8(plugin->vext_plugin_interface()) : QString();
}

QString PluginLibrary::versionText()
{
    VextPluginInterface *plugin = interfaceOf(root());
    return plugin ? QString::fromUtf8(plugin->vext_plugin_version()) : QString();
}
