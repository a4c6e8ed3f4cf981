/// @file
/// The globals that every script finds.
#pragma once

#include <QStringList>

class QScriptEngine;
class ScriptEnd;
class VextPost;
class VextServer;

/// Defines `server`, `post`, `scriptEngine`, `arguments`, `scriptFile` and `quit`. The console and the timers
/// define theirs themselves.
///
/// Thread: the engine's. The objects are not owned; scripts can neither delete nor
/// replace them.
namespace ScriptGlobals
{

void installObjects(QScriptEngine *engine, VextServer *server, VextPost *post);

/// `arguments`, an array of strings.
void installArguments(QScriptEngine *engine, const QStringList &arguments);

/// `quit([code])`: asks for the end and stops the running script there.
void installQuit(QScriptEngine *engine, ScriptEnd *end);

/// Fills `scriptEngine.file` with "name" and "dir", by which plugins find the script's file and
/// folder. Call it before the code of that file runs.
void setScriptFile(QScriptEngine *engine, const QString &name, const QString &directory);

/// `scriptFile`, the absolute path of the script; empty for code without a file.
void setScriptPath(QScriptEngine *engine, const QString &path);

} // namespace ScriptGlobals
