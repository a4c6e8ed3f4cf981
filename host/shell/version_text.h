/// @file
/// What `--version` tells.
#pragma once

#include <QString>

class ScriptHost;

namespace VersionText
{

/// The first line, and all that is known without the plugin.
QString program();

/// Program, plugin, Qt, and the SQL drivers with those that Vext's layer decorates.
/// @param host started, so that its plugin is loaded
/// @param decorated whether the layer is in use
QString all(ScriptHost *host, bool decorated);

} // namespace VersionText
