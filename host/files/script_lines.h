/// @file
/// Lines for a script function.
#pragma once

#include <QScriptValue>
#include <QString>

class LineReader;
class QScriptContext;

/// Hands lines to script functions and contents to scripts; what `readLines` and `stdin` share.
///
/// Thread: the engine's.
namespace ScriptLines
{

/// Calls `callback(line, number)` for each line until it returns false or throws.
/// @param source how the function and its file are called in errors
/// @return the number of lines read, or what the script gets after an exception.
QScriptValue callForEach(QScriptContext *context, LineReader *lines, QScriptValue callback,
                         const QString &source);

/// A content as a script asked for it: as bytes, or as text that has to be UTF-8.
QScriptValue content(QScriptContext *context, const QByteArray &bytes, bool asBytes,
                     const QString &source);

/// Throws an Error: "source: reason".
QScriptValue fail(QScriptContext *context, const QString &source, const QString &reason);

} // namespace ScriptLines
