/// @file
/// How the prompt shows results.
#pragma once

#include "result_printer.h"

#include <QScriptValue>
#include <QString>

class Terminal;

/// The settings of the user and what they do: the form of results, the time that a statement took,
/// the pager.
///
/// Thread: the engine's. The terminal is not owned.
class ResultOutput
{
public:
    explicit ResultOutput(Terminal *terminal);

    ResultFormat format() const { return m_format; }
    void setFormat(ResultFormat format) { m_format = format; }
    bool showsTime() const { return m_showsTime; }
    void setShowsTime(bool on) { m_showsTime = on; }

    /// Shows the result of a statement with the time that it took. A table that is wider than the
    /// terminal is shown in the expanded form.
    /// @param countsChanges whether the number of affected rows means something
    void show(const QScriptValue &result, double milliseconds, bool countsChanges = true);

    /// Shows the value of a script: a result or a list of results as such, nothing for undefined,
    /// anything else as text.
    void showValue(const QScriptValue &value);

    /// Shows a text of the prompt itself, page by page when it is long.
    void showText(const QString &text);

    /// "12 ms", "1.25 s", "2 min 05 s".
    static QString duration(double milliseconds);

private:
    void print(const QScriptValue &result, const QString &note);

    Terminal *m_terminal;
    ResultFormat m_format = ResultFormat::Table;
    bool m_showsTime = true;
};
