/// @file
/// What Tab offers.
#pragma once

#include <QString>
#include <QStringList>

class QScriptEngine;
class SchemaNames;

/// Finds what may stand in the place of a word: a command behind a dot at the beginning of the
/// line; in SQL keywords, tables and columns; in script globals and the members of the object
/// before the dot. It runs no script code.
///
/// Thread: the engine's. Made for one question.
class Completion
{
public:
    /// @param engine may be null
    /// @param insideSql the line goes on with an SQL statement
    Completion(QScriptEngine *engine, const SchemaNames &names, bool insideSql);

    /// @param before the line up to the word
    /// @param word with all of its dots
    /// @return whole words, sorted, each of them once.
    QStringList candidates(const QString &before, const QString &word) const;

private:
    QStringList commands(const QString &before, const QString &word) const;
    QStringList sql(const QString &word) const;
    QStringList members(const QString &word) const;
    bool isSql(const QString &line) const;
    bool isVariable(const QString &name) const;

    QScriptEngine *m_engine;
    const SchemaNames &m_names;
    bool m_insideSql;
};
