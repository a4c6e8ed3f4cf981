/// @file
/// What is typed, sorted into script, SQL and commands.
#pragma once

#include "sql_splitter.h"
#include "sql_words.h"
#include "statement_buffer.h"

#include <QString>
#include <QVector>

/// A whole piece of input.
struct PromptEntry {
    enum class Kind { Script, Sql, Command };

    Kind kind = Kind::Script;
    QString text; ///< a command without its dot, SQL without its semicolon
    int line = 1; ///< where it begins, counted over all lines since the last clear()
};

/// Collects lines until they make whole entries. A line that begins with a dot and a letter is a
/// command; "help" and "?" lead to the command that helps; what begins like SQL goes on to its
/// semicolon; everything else is script and goes on until the engine's syntax check is content.
///
/// Thread: the engine's.
class PromptInput
{
public:
    explicit PromptInput(const SqlWords::IsVariable &isVariable);

    /// For the statements that begin from now on.
    void setDialect(const SqlDialect &dialect);

    /// Everything is SQL from now on, but for commands.
    void setSqlOnly(bool on) { m_sqlOnly = on; }

    /// Adds a line without its line break, or an older entry of several lines.
    /// @return the entries that are whole now, in their order.
    QVector<PromptEntry> add(const QString &line);

    /// Takes what is left at the end of a file.
    QVector<PromptEntry> takeRest();

    /// Whether the first lines of an entry wait for the rest.
    bool isOpen() const { return m_isSql || m_script.isOpen(); }
    bool isSqlOpen() const { return m_isSql; }

    void clear();

private:
    QVector<PromptEntry> addSql(const QString &line);
    QVector<PromptEntry> addScript(const QString &line);
    bool isCommand(const QString &line) const;
    PromptEntry command(const QString &line) const;
    PromptEntry entry(PromptEntry::Kind kind, const QString &text, int line) const;

    SqlWords::IsVariable m_isVariable;
    SqlSplitter m_sql;
    StatementBuffer m_script;
    bool m_sqlOnly = false;
    bool m_isSql = false;
    int m_line = 0;      ///< lines added so far
    int m_firstLine = 1; ///< of the open entry
};
