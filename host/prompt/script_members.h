/// @file
/// The members that a script value has.
#pragma once

#include <QString>
#include <QStringList>

class QScriptEngine;

namespace ScriptMembers
{

/// The names of the members of the object that a path such as "a.b" leads to from the global
/// object, inherited ones included; of the global object itself for an empty path. Getters on the
/// way are not run: the path ends there, and there are no names.
///
/// Thread: the engine's.
QStringList names(QScriptEngine *engine, const QString &path);

} // namespace ScriptMembers
