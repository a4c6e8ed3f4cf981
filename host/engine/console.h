/// @file
/// The script globals `console`, `print` and `write`.
#pragma once

#include <QScriptValue>
#include <QString>

class QScriptContext;
class QScriptEngine;
class Terminal;

/// `print`, `write` and `console.log`, `info` and `table` write to standard output, `console.warn`
/// and `error` to standard error. None of them throws, whatever its arguments are; when standard
/// output has failed, they end the script.
///
/// Thread: the engine's. The terminal is not owned and outlives the engine.
class Console
{
public:
    static void install(QScriptEngine *engine, Terminal *terminal);

    /// What a reader sees of a value: a result object as a table, a list of result objects as one
    /// table after the other, anything else as text. Ends in a line break.
    static QString shown(const QScriptValue &value);
};
