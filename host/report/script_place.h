/// @file
/// Where a script is.
#pragma once

#include <QString>

class QObject;
class QScriptEngine;
class QScriptValue;

/// Looks at the calls that are under way in an engine.
///
/// Thread: the engine's.
namespace ScriptPlace
{

/// Finds the line of script that is being executed.
/// @return false when no script runs.
bool current(QScriptEngine *engine, QString *file, int *line);

/// The script value of an object: of a call to one of its members that is under way, or of a global
/// that holds it. Invalid when there is none.
QScriptValue valueOf(QScriptEngine *engine, const QObject *object);

/// The object whose member the script is calling; null when it is calling none.
QObject *calledObject(QScriptEngine *engine);

/// Whether the script is calling the member of that name.
bool isCalling(QScriptEngine *engine, const QString &member);

} // namespace ScriptPlace
