/// @file
/// Properties whose flags hold wherever they are set.
#pragma once

#include <QScriptEngine>
#include <QScriptValue>
#include <QString>

/// Qt 5.15 drops every flag of a property that is new on an engine's own global object. There,
/// these functions define an accessor instead, whose flags hold: scripts see the same. A global
/// object that the host has made itself keeps them, and gets the plain property. Thread: that of
/// the engine.
namespace ScriptProperty
{

/// Sets a property that scripts can neither change nor delete nor enumerate.
void setHidden(QScriptEngine *engine, QScriptValue object, const QString &name,
               const QScriptValue &value);

/// Sets an accessor that scripts can neither delete nor enumerate; `function` reads and writes.
void setHiddenAccessor(QScriptEngine *engine, QScriptValue object, const QString &name,
                       const QScriptValue &function);

/// Gives a function data that scripts can neither change nor delete nor enumerate. Qt keeps the
/// data of a function in an ordinary property of it; what the data holds is not guarded.
void setFixedData(QScriptValue function, const QScriptValue &data);

} // namespace ScriptProperty
