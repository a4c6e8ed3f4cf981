/// @file
/// Looking at script values without running script code.
#pragma once

#include <QScriptEngine>
#include <QScriptValue>

/// Leaves the engine without the exceptions that came up since the guard was made: what the host
/// does while it looks at a value must not surface in the script as an exception.
///
/// Thread: the engine's.
class ExceptionGuard
{
public:
    explicit ExceptionGuard(QScriptEngine *engine);
    ~ExceptionGuard();
    ExceptionGuard(const ExceptionGuard &) = delete;
    ExceptionGuard &operator=(const ExceptionGuard &) = delete;

private:
    QScriptEngine *m_engine;
    bool m_hadException;
};

namespace ScriptReading
{

/// A property's value, inherited ones included. A property with a getter written in script is not
/// read: getters throw, change what is looked at, and never end.
/// @return an invalid value for a getter and for a missing property.
QScriptValue plainProperty(const QScriptValue &object, const QString &name);

/// The length of a script array; 0 for anything else.
int arrayLength(const QScriptValue &array);

/// A text for a variant that has no counterpart in the script language: dates and times in ISO
/// form, bytes as hexadecimal digits, the type's name where Qt knows no text.
QString variantText(const QVariant &variant);

} // namespace ScriptReading
