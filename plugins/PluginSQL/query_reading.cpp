#include "query_reading.h"

#include "sql_driver_kind.h"

#include <QSqlDriver>
#include <QSqlResult>

/// Whether the rows of a driver are read without being kept by it. For the drivers below nothing
/// that a script sees depends on it. The others may choose another kind of cursor on the server;
/// QMYSQL (5.15) ends a streamed result silently when the connection breaks, so a part of the rows
/// would pass for all of them; QIBASE (5.15) repeats the one row of a procedure for ever.
bool QueryReading::readsForwardOnly(int driverType)
{
    return driverType == SqlDriverKind::PostgreSql || driverType == SqlDriverKind::SQLite;
}

/// QMYSQL (5.15) reports success and no columns when the connection breaks while it takes a result
/// over; only the affected rows are unknown then, which they are for no statement that worked.
/// @return the error that the connection gives when it is asked again.
QSqlError QueryReading::silentLoss(QSqlQuery &query)
{
    if (query.isSelect() || query.numRowsAffected() != -1)
        return QSqlError();
    QSqlQuery probe(query.driver()->createResult());
    if (!probe.exec(QStringLiteral("DO 0")))
        return probe.lastError();
    return QSqlError(QStringLiteral("QMYSQL"), QStringLiteral("the result was lost"),
                     QSqlError::StatementError);
}

/// The first error among the results behind the delivered one: those of the further statements of a
/// text, or of a procedure.
QSqlError QueryReading::errorBehind(QSqlQuery &query)
{
    if (!query.driver()->hasFeature(QSqlDriver::MultipleResultSets))
        return QSqlError();
    while (query.nextResult()) {
    }
    return query.lastError();
}

/// Goes to the row from which a query is read: its first one, or the current one where the driver
/// cannot go back.
bool QueryReading::toFirstRow(QSqlQuery &query)
{
    if (query.at() == QSql::BeforeFirstRow)
        return query.next();
    return query.isForwardOnly() ? query.isValid() : query.first();
}
