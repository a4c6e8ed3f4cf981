/// @file
/// Qt's message log.
#pragma once

#include <QString>

#include <functional>

/// Takes the lines of Qt's message log and leaves out those that say once more what is told in full
/// elsewhere.
///
/// The log is one for the whole process. Thread: any.
namespace MessageLog
{

/// Where the lines go; called in the thread that writes one, with a lock of the log held.
using Sink = std::function<void(const QString &line)>;

/// Begins to take lines. Until a sink is set they go to standard error.
void install();

/// @param sink an empty function: standard error.
void setSink(const Sink &sink);

/// Called instead of the lines in which Qt says that it has no driver of a name, in the thread that
/// asked for the driver and without a lock.
/// @param handler an empty function: nothing is called.
void setMissingDriverHandler(const std::function<void(const QString &driver)> &handler);

} // namespace MessageLog
