/// @file
/// What a host knows of a plugin library: the interface of its root object.
///
/// The declaration is the host's own copy. Host and plugin share no header, only the identifier,
/// the order of the operations and the C++ ABI that the identifier names.
#pragma once

#include <QObject>

/// Interface of a plugin's root object. It has no virtual destructor: the loader deletes the root
/// object through its QObject part.
class VextPluginInterface
{
public:
    /// The library's global plugin object, or null once it is gone. Not owned by the caller.
    virtual QObject *globalObject() = 0;
    /// Deletes the global plugin object. Call it when every script engine that uses it is gone.
    virtual void globalObjectDelete() = 0;
    /// The identifier of the interface that the library was built for.
    virtual const char *vext_plugin_interface() = 0;
    /// The version of the framework that the library was built for.
    virtual const char *vext_plugin_version() = 0;

protected:
    ~VextPluginInterface() = default;
};

#define VextPluginInterface_iid "Vext.2.9.Qt.5158.gcc1220"
Q_DECLARE_INTERFACE(VextPluginInterface, VextPluginInterface_iid)
