/// @file
/// Statements that the engine's thread is waiting for.
#pragma once

class QObject;

/// Cancels what a synchronous call is waiting for, from another thread. It knows the drivers of
/// open connections that say that they can cancel.
namespace RunningStatements
{

/// Takes the driver of a connection object that has just been opened. Engine's thread.
void add(QObject *connection);

/// Asks every driver to cancel what it runs; idle ones do nothing. Any thread.
void cancel();

} // namespace RunningStatements
