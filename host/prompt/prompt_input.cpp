#include "prompt_input.h"

PromptInput::PromptInput(const SqlWords::IsVariable &isVariable)
    : m_isVariable(isVariable)
{
}

void PromptInput::setDialect(const SqlDialect &dialect)
{
    if (!m_isSql)
        m_sql = SqlSplitter(dialect);
}

QVector<PromptEntry> PromptInput::add(const QString &line)
{
    const bool begins = !isOpen();
    if (begins)
        m_firstLine = m_line + 1;
    m_line += 1 + line.count(QLatin1Char('\n'));
    if (begins && isCommand(line))
        return {command(line)};
    if (begins && (m_sqlOnly || SqlWords::beginsSql(line, m_isVariable))) {
        m_isSql = true;
        m_sql.clear();
    }
    return m_isSql ? addSql(line) : addScript(line);
}

QVector<PromptEntry> PromptInput::takeRest()
{
    QVector<PromptEntry> entries;
    SqlStatement statement;
    if (m_isSql && m_sql.takeRest(&statement))
        entries.append(
            entry(PromptEntry::Kind::Sql, statement.text, m_firstLine + statement.line - 1));
    const QString script = m_isSql ? QString() : m_script.take();
    if (!script.isEmpty())
        entries.append(entry(PromptEntry::Kind::Script, script, m_firstLine));
    m_isSql = false;
    return entries;
}

void PromptInput::clear()
{
    m_sql.clear();
    m_script.clear();
    m_isSql = false;
    m_line = 0;
}

QVector<PromptEntry> PromptInput::addSql(const QString &line)
{
    QVector<PromptEntry> entries;
    SqlStatement statement;
    m_sql.add(line + QLatin1Char('\n'));
    while (m_sql.next(&statement))
        entries.append(
            entry(PromptEntry::Kind::Sql, statement.text, m_firstLine + statement.line - 1));
    m_isSql = m_sql.isOpen();
    return entries;
}

QVector<PromptEntry> PromptInput::addScript(const QString &line)
{
    if (!m_script.add(line))
        return {};
    const QString text = m_script.take();
    if (text.isEmpty())
        return {};
    return {entry(PromptEntry::Kind::Script, text, m_firstLine)};
}

bool PromptInput::isCommand(const QString &line) const
{
    const QString text = line.trimmed();
    if (text == QLatin1String("?") || text == QLatin1String("help"))
        return text.size() == 1 || !m_isVariable(text);
    return text.size() > 1 && text.at(0) == QLatin1Char('.') && text.at(1).isLetter();
}

PromptEntry PromptInput::command(const QString &line) const
{
    const QString text = line.trimmed();
    const bool hasDot = text.startsWith(QLatin1Char('.'));
    return entry(PromptEntry::Kind::Command, hasDot ? text.mid(1) : QStringLiteral("help"),
                 m_firstLine);
}

PromptEntry PromptInput::entry(PromptEntry::Kind kind, const QString &text, int line) const
{
    PromptEntry made;
    made.kind = kind;
    made.text = text;
    made.line = line;
    return made;
}
