/// @file
/// The script global `stdin`.
#pragma once

#include "line_reader.h"

#include <QScriptValue>

class QScriptContext;
class QScriptEngine;

/// Standard input for scripts: `stdin.readLine()`, `stdin.readLines(function (line, number))`,
/// `stdin.read(["bytes"])` and `stdin.isTerminal`. Reading waits for input, and what is read in one
/// way is gone for the others.
///
/// Thread: the engine's. Outlives the engine.
class StandardInput
{
public:
    StandardInput();

    void install(QScriptEngine *engine);

    /// The lines, for the host itself.
    LineReader *lines() { return &m_lines; }

    /// Takes all that is left, for the host itself.
    bool readRest(QByteArray *bytes, QString *error) { return m_lines.readRest(bytes, error); }

private:
    static QScriptValue readLine(QScriptContext *context, QScriptEngine *engine, void *input);
    static QScriptValue readLines(QScriptContext *context, QScriptEngine *engine, void *input);
    static QScriptValue read(QScriptContext *context, QScriptEngine *engine, void *input);

    LineReader m_lines;
};
