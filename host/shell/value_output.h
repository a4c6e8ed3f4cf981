/// @file
/// Values and results on standard output, in the form that was asked for.
#pragma once

#include "result_printer.h"

#include <QScriptValue>

class Terminal;

/// Prints what `-p` and SQL leave.
///
/// Thread: the engine's. The terminal is not owned.
class ValueOutput
{
public:
    ValueOutput(Terminal *terminal, ResultFormat format)
        : m_terminal(terminal)
        , m_printer(format)
        , m_format(format)
    {
    }

    /// Prints a result, each of a list of results, or any other value: as JSON where that is the
    /// form, and as the console prints it otherwise.
    void print(const QScriptValue &value) const;

private:
    void printResult(const QScriptValue &result) const;
    bool printJson(const QScriptValue &value) const;

    Terminal *m_terminal;
    ResultPrinter m_printer;
    ResultFormat m_format;
};
