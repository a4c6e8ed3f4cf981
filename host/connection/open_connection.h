/// @file
/// A connection object that the host makes for the user.
#pragma once

#include "connection_address.h"

#include <QScriptValue>

class QScriptEngine;

/// Makes connection objects as a script would, through the constructor that the plugin has
/// installed.
///
/// Thread: the engine's. The objects belong to the engine, as those of scripts do.
namespace OpenConnection
{

/// The name of the global that holds the connection which the user has opened.
extern const char GlobalName[];

/// Makes a connection object, opens it, and defines it as the global `db`.
/// @return the connection object; an invalid value with `error` set to a text for the user when it
/// could not be opened. The object is deleted then, and the global stays as it was.
QScriptValue open(QScriptEngine *engine, const ConnectionAddress &address, QString *error);

/// Why a connection that has just failed to open did so; for a driver that is not installed with
/// the name of the package to install.
QString reason(QObject *connection);

} // namespace OpenConnection
