#include "sql_dialect.h"

SqlDialect systemOf(SqlDialect dialect)
{
    switch (dialect) {
    case SqlDialect::OdbcSqlite:
        return SqlDialect::Sqlite;
    case SqlDialect::OdbcPostgreSql:
    case SqlDialect::OdbcPostgreSqlBackslash:
    case SqlDialect::PostgreSqlBackslash:
        return SqlDialect::PostgreSql;
    case SqlDialect::OdbcMariaDb:
    case SqlDialect::MariaDbPlainBackslash:
    case SqlDialect::MariaDbAnsiQuotes:
    case SqlDialect::MariaDbAnsiQuotesPlainBackslash:
        return SqlDialect::MariaDb;
    default:
        return dialect;
    }
}

bool escapesByBackslash(SqlDialect dialect)
{
    if (dialect == SqlDialect::PostgreSqlBackslash ||
        dialect == SqlDialect::OdbcPostgreSqlBackslash)
        return true;
    return systemOf(dialect) == SqlDialect::MariaDb &&
           dialect != SqlDialect::MariaDbPlainBackslash &&
           dialect != SqlDialect::MariaDbAnsiQuotesPlainBackslash;
}

bool writesStringsInDoubleQuotes(SqlDialect dialect)
{
    return systemOf(dialect) == SqlDialect::MariaDb && dialect != SqlDialect::MariaDbAnsiQuotes &&
           dialect != SqlDialect::MariaDbAnsiQuotesPlainBackslash;
}

SqlDialect odbcDialectOf(const QString &system)
{
    if (system.startsWith(QLatin1String("PostgreSQL"), Qt::CaseInsensitive))
        return SqlDialect::OdbcPostgreSql;
    if (system.startsWith(QLatin1String("SQLite"), Qt::CaseInsensitive))
        return SqlDialect::OdbcSqlite;
    if (system.startsWith(QLatin1String("MariaDB"), Qt::CaseInsensitive) ||
        system.startsWith(QLatin1String("MySQL"), Qt::CaseInsensitive))
        return SqlDialect::OdbcMariaDb;
    return SqlDialect::Odbc;
}
