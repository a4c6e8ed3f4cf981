#include "sql_records.h"

#include <utility>

void structSqlResult::spreadOnlyRow()
{
    for (size_t c = 0; c < onlyRow.size(); ++c) {
        structSqlFieldResult &field = fields[int(c)];
        if (field.values.appendCell(std::move(onlyRow[c])) == QMetaType::UnknownType)
            field.nulls.append(0);
    }
    onlyRow.clear();
}

const QScriptValue &structThrSql::scriptFalse()
{
    static const QScriptValue value(false);
    return value;
}

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
