#include "sql_records.h"

structThrSql::structThrSql()
{
    timer.start();
}

structThrSql::structThrSql(const QSqlDatabase &database)
    : structThrSql()
{
    sqlQuery = new QSqlQuery(database);
}

structThrSql::~structThrSql()
{
    releaseQuery();
}

void structThrSql::releaseQuery()
{
    if (sqlQuery && sqlQuery->isActive()) {
        sqlQuery->finish();
        sqlQuery->clear();
    }
    delete sqlQuery;
    sqlQuery = nullptr;
}

QSqlError structThrSql::lastError() const
{
    if (ownError.isValid() || !sqlQuery)
        return ownError;
    return sqlQuery->lastError();
}
