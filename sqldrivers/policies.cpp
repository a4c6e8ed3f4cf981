#include "policy.h"

#include "policy_firebird.h"
#include "policy_mariadb.h"
#include "policy_odbc.h"
#include "policy_plain.h"
#include "policy_postgres.h"
#include "policy_sqlite.h"

#include <QCoreApplication>
#include <QSqlField>

namespace
{

SqlDialect dialectOf(const QString &key)
{
    if (key == QLatin1String("QSQLITE"))
        return SqlDialect::Sqlite;
    if (key.startsWith(QLatin1String("QPSQL")))
        return SqlDialect::PostgreSql;
    if (key.startsWith(QLatin1String("QMYSQL")) || key == QLatin1String("QMARIADB"))
        return SqlDialect::MariaDb;
    if (key == QLatin1String("QIBASE"))
        return SqlDialect::Firebird;
    return SqlDialect::Odbc;
}

} // namespace

QVector<ColumnRule> Policy::columnRules(const QSqlRecord &columns, const LayerOptions &layer)
{
    QVector<ColumnRule> rules(columns.count());
    for (int i = 0; layer.exactNumbers && i < rules.size(); ++i)
        rules[i] = ColumnRule::exact(columns.field(i));
    return rules;
}

QSqlError Policy::transactionGone(QSqlError::ErrorType type)
{
    return QSqlError(QString(),
                     QCoreApplication::translate(
                         "Policy", "the transaction was rolled back when a statement of it failed; "
                                   "nothing of it is left to commit, and rollback() has to come "
                                   "before the next statement"),
                     type);
}

std::unique_ptr<Policy> makePolicy(const QString &key, QSqlDriver *stock)
{
    const SqlDialect dialect = dialectOf(key);
    if (dialect == SqlDialect::Sqlite)
        return std::make_unique<SqlitePolicy>(stock);
    if (dialect == SqlDialect::PostgreSql)
        return std::make_unique<PostgresPolicy>(stock);
    if (dialect == SqlDialect::Firebird)
        return std::make_unique<FirebirdPolicy>(stock);
    if (dialect == SqlDialect::MariaDb)
        return std::make_unique<MariaDbPolicy>(stock);
    if (dialect == SqlDialect::Odbc)
        return std::make_unique<OdbcPolicy>(stock);
    return std::make_unique<PlainPolicy>(stock, dialect);
}
