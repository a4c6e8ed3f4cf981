#include "completion.h"

#include "dot_commands.h"
#include "result_printer.h"
#include "schema_names.h"
#include "script_members.h"
#include "sql_words.h"

#include <QScriptEngine>

namespace
{

QStringList startingWith(const QStringList &all, const QString &word, Qt::CaseSensitivity sense)
{
    QStringList found;
    for (const QString &candidate : all) {
        if (candidate.startsWith(word, sense))
            found.append(candidate);
    }
    found.removeDuplicates();
    found.sort();
    return found;
}

/// Keywords come in the case in which they were begun.
QStringList keywords(const QString &word)
{
    const bool isLower = !word.isEmpty() && word == word.toLower();
    QStringList list;
    for (const QString &keyword : SqlWords::keywords())
        list.append(isLower ? keyword.toLower() : keyword);
    return startingWith(list, word, Qt::CaseInsensitive);
}

QStringList scriptWords()
{
    return QString::fromLatin1("break case catch continue default delete do else false finally for "
                               "function if in instanceof new null return switch this throw true "
                               "try typeof var void while with")
        .split(QLatin1Char(' '));
}

QStringList prefixed(const QString &prefix, const QStringList &names)
{
    QStringList list;
    for (const QString &name : names)
        list.append(prefix + name);
    return list;
}

} // namespace

Completion::Completion(QScriptEngine *engine, const SchemaNames &names, bool insideSql)
    : m_engine(engine)
    , m_names(names)
    , m_insideSql(insideSql)
{
}

QStringList Completion::candidates(const QString &before, const QString &word) const
{
    const bool first = before.trimmed().isEmpty();
    if (!m_insideSql && (before.trimmed() + word).startsWith(QLatin1Char('.')))
        return commands(before, word);
    if (m_insideSql || (!first && isSql(before)))
        return sql(word);
    QStringList found = members(word);
    if (first && !word.contains(QLatin1Char('.')) && !word.isEmpty())
        found += keywords(word);
    found.sort();
    return found;
}

QStringList Completion::commands(const QString &before, const QString &word) const
{
    const QString command = before.trimmed();
    if (command.isEmpty())
        return startingWith(DotCommands::names(), word, Qt::CaseInsensitive);
    if (command == QLatin1String(".mode"))
        return startingWith(ResultPrinter::formatNames(), word, Qt::CaseInsensitive);
    if (command == QLatin1String(".timing"))
        return startingWith({QStringLiteral("on"), QStringLiteral("off")}, word,
                            Qt::CaseInsensitive);
    if (command == QLatin1String(".schema") || command == QLatin1String(".tables") ||
        command == QLatin1String(".views"))
        return startingWith(m_names.tables(), word, Qt::CaseInsensitive);
    return QStringList();
}

QStringList Completion::sql(const QString &word) const
{
    const int dot = word.lastIndexOf(QLatin1Char('.'));
    if (dot >= 0) {
        const QString table = word.left(dot).section(QLatin1Char('.'), -1);
        return startingWith(prefixed(word.left(dot + 1), m_names.columns(table)), word,
                            Qt::CaseInsensitive);
    }
    QStringList found =
        startingWith(m_names.tables() + m_names.columns(), word, Qt::CaseInsensitive);
    if (!word.isEmpty())
        found += keywords(word);
    found.removeDuplicates();
    return found;
}

QStringList Completion::members(const QString &word) const
{
    if (!m_engine)
        return QStringList();
    const int dot = word.lastIndexOf(QLatin1Char('.'));
    const QString path = word.left(qMax(dot, 0));
    QStringList names = prefixed(word.left(dot + 1), ScriptMembers::names(m_engine, path));
    if (dot < 0)
        names += scriptWords();
    return startingWith(names, word, Qt::CaseSensitive);
}

bool Completion::isSql(const QString &line) const
{
    return SqlWords::beginsSql(line, [this](const QString &name) { return isVariable(name); });
}

bool Completion::isVariable(const QString &name) const
{
    return m_engine && m_engine->globalObject().property(name).isValid();
}
