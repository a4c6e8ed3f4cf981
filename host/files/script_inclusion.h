/// @file
/// The script global `include`.
#pragma once

#include <QScriptValue>
#include <QSet>
#include <QString>

class QScriptContext;
class QScriptEngine;

/// `include(path)` runs a script file in the global scope, once: a second call for the same file,
/// whatever its name, does nothing, and so does that of a file that includes itself. The path is
/// relative to the including file, and to the working directory for code without a file. A bare name
/// that is no file there is looked up in the script library that comes with the program: "vext".
///
/// Thread: the engine's. Outlives the engine.
class ScriptInclusion
{
public:
    void install(QScriptEngine *engine);

    /// Tells which file the program runs; including it does nothing.
    void setMainFile(const QString &path);

private:
    static QScriptValue include(QScriptContext *context, QScriptEngine *engine, void *inclusion);

    QSet<QString> m_files; ///< that have been run or are running, by their canonical paths
};
