#include "sql_input.h"

#include "script_host.h"

namespace
{

const char InputName[] = "[input]";

} // namespace

SqlInput::SqlInput(ScriptHost *host, const QScriptValue &connection, const ValueOutput &output)
    : m_host(host)
    , m_connection(connection)
    , m_output(output)
    , m_splitter(SqlDialect::ofDriver(connection.toQObject()->property("driverName").toString()))
{
}

bool SqlInput::run(bool keepsGoing)
{
    LineReader *lines = m_host->input()->lines();
    QString line;
    LineReader::Outcome outcome = LineReader::Outcome::End;
    while ((outcome = lines->next(&line)) == LineReader::Outcome::Line) {
        m_splitter.add(line + QLatin1Char('\n'));
        if (!runComplete(keepsGoing))
            return false;
    }
    SqlStatement last;
    if (outcome == LineReader::Outcome::Failed) {
        m_host->reporter()->tellError(QLatin1String(InputName), static_cast<int>(lines->number()),
                                      line);
        return false;
    }
    if (m_splitter.takeRest(&last))
        runOne(last);
    return !m_hasFailed;
}

/// @return false when no more are to be run.
bool SqlInput::runComplete(bool keepsGoing)
{
    SqlStatement statement;
    while (m_splitter.next(&statement)) {
        const bool succeeded = runOne(statement);
        if ((!succeeded && !keepsGoing) || m_host->end()->isRequested())
            return false;
    }
    return true;
}

bool SqlInput::runOne(const SqlStatement &statement)
{
    Reporter *reporter = m_host->reporter();
    // The plugin's own message about a failure is the one line that tells it, with this place.
    reporter->setPlace(QLatin1String(InputName), statement.line);
    const QScriptValue result = m_connection.property(QStringLiteral("query"))
                                    .call(m_connection, QScriptValueList{QScriptValue(statement.text)});
    reporter->setPlace(QString(), 0);
    const bool succeeded = result.isObject();
    m_hasFailed = m_hasFailed || !succeeded;
    if (succeeded)
        m_output.print(result);
    return succeeded;
}
