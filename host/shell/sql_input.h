/// @file
/// SQL from standard input.
#pragma once

#include "sql_splitter.h"
#include "value_output.h"

#include <QScriptValue>

class ScriptHost;

/// Runs the statements of a text one after the other on a connection and prints their results. The
/// text is read as it is needed, so that it may be of any size.
///
/// Thread: the engine's. The host is not owned.
class SqlInput
{
public:
    /// @param connection the script value of an open connection
    SqlInput(ScriptHost *host, const QScriptValue &connection, const ValueOutput &output);

    /// Runs all statements, or those up to the first that fails.
    /// @param keepsGoing whether a statement that fails leaves the rest to be run
    /// @return false when any has failed; the reason has been told with the statement's line.
    bool run(bool keepsGoing);

private:
    bool runOne(const SqlStatement &statement);
    bool runComplete(bool keepsGoing);

    ScriptHost *m_host;
    QScriptValue m_connection;
    ValueOutput m_output;
    SqlSplitter m_splitter;
    bool m_hasFailed = false;
};
