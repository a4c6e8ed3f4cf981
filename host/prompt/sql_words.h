/// @file
/// Words of SQL, and what looks like SQL.
#pragma once

#include <QString>
#include <QStringList>

#include <functional>

/// Pure: knows neither an engine nor a database.
namespace SqlWords
{

/// Tells whether a name is one that the user's scripts have defined.
using IsVariable = std::function<bool(const QString &name)>;

/// The words that completion offers, in upper case.
const QStringList &keywords();

/// Whether input that begins with this line is SQL and no script: its first word is one with which
/// SQL statements begin, and what follows does not make it script. In doubt, as in "values (1)",
/// a variable of that name makes it script.
bool beginsSql(const QString &line, const IsVariable &isVariable);

/// Whether a statement that gives no rows changes some, so that their count means something:
/// SQLite tells that of the statement before for all others.
bool changesRows(const QString &statement);

/// Whether a statement may change which tables and columns there are.
bool changesSchema(const QString &statement);

} // namespace SqlWords
