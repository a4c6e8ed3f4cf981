#include "sql_records.h"

structThrSql::structThrSql()
{
    reset();
}

structThrSql::structThrSql(const QSqlDatabase &database)
{
    reset();
    sqlQuery = new QSqlQuery(database);
}

structThrSql::~structThrSql()
{
    releaseQuery();
    reset();
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

void structThrSql::reset()
{
    // Values without an engine: they need none, and an engine that is gone does not matter.
    thisObject = QScriptValue(false);
    func = QScriptValue(false);
    result = QScriptValue(false);
    error = QScriptValue(false);
    sqlList.clear();
    argsJs.clear();
    callArgs.clear();
    procArgs.clear();
    results.clear();
    inThread = false;
    timing = false;
    failed = false;
    isProc = false;
    ok = false;
    current = 0;
    rowsAffected = 0;
    type = taskSql;
    kind = SqlDriverKind::ConnectionKind();
    ownError = QSqlError();
    ownText.clear();
    timer.start();
}
