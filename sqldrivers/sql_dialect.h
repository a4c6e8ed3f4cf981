/// @file
/// The kinds of SQL that the layer reads. Pure, any thread.
#pragma once

#include <QString>

/// The rules of quoting, comments and procedure calls that hold on a connection. Behind ODBC they
/// are those of the system that the ODBC driver speaks to.
enum class SqlDialect {
    Sqlite,
    PostgreSql,
    PostgreSqlBackslash,             ///< a backslash escapes in every string
    MariaDb,                         ///< a backslash escapes in strings, "x" is a string
    MariaDbPlainBackslash,           ///< NO_BACKSLASH_ESCAPES: a backslash is a character
    MariaDbAnsiQuotes,               ///< ANSI_QUOTES: "x" is a name
    MariaDbAnsiQuotesPlainBackslash, ///< both
    Firebird,
    OdbcSqlite,
    OdbcPostgreSql,
    OdbcPostgreSqlBackslash, ///< a backslash escapes in every string
    OdbcMariaDb,
    Odbc ///< a system that is not known better: standard quoting
};

/// The dialect of the system itself, ODBC or not, in whatever mode.
SqlDialect systemOf(SqlDialect dialect);
/// Whether a backslash escapes in every string. PostgreSQL has strings with an E for that, too.
bool escapesByBackslash(SqlDialect dialect);
/// Whether "x" is a string, and no name.
bool writesStringsInDoubleQuotes(SqlDialect dialect);
/// The dialect behind ODBC, by the name that the ODBC driver tells of its system ("PostgreSQL").
SqlDialect odbcDialectOf(const QString &system);
