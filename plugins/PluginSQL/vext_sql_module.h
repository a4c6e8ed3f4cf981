/// @file
/// Source paths that messages carry. They are part of the interface to the host, and constants.
#pragma once

namespace VextSqlModule
{

constexpr char Plugin[] = "plugins/PluginSQL/plugin_sql";
constexpr char Connection[] = "plugins/PluginSQL/vext_sql";
constexpr char Worker[] = "plugins/PluginSQL/vext_sql_thread";

} // namespace VextSqlModule
