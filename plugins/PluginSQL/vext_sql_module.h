/// @file
/// Source paths that messages carry. They are part of the interface to the host, and constants.
#pragma once

namespace VextSqlModule
{

constexpr char Plugin[] = "plugins/PluginSQL/plugin_sql";
constexpr char Connection[] = "plugins/PluginSQL/vext_sql";
constexpr char Worker[] = "plugins/PluginSQL/vext_sql_thread";

} // namespace VextSqlModule

/// The worker's functions lie in several files that share its path. The thousands of a line that a
/// message carries tell the file, the rest is the line there: vext_sql_thread:2077 is line 77 of
/// vext_sql_statement.cpp. Lines of vext_sql_thread.cpp stand as they are.
namespace WorkerLines
{

constexpr int Connection = 1000; ///< vext_sql_connection.cpp
constexpr int Statement = 2000;  ///< vext_sql_statement.cpp
constexpr int Result = 3000;     ///< vext_sql_result.cpp
constexpr int Event = 4000;      ///< vext_sql_event.cpp
constexpr int Info = 5000;       ///< vext_sql_info.cpp
constexpr int Run = 6000;        ///< vext_sql_run.cpp

} // namespace WorkerLines
