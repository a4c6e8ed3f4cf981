/// @file
/// How the results of an executed query are gone through, and what some drivers leave out.
#pragma once

#include <QSqlError>
#include <QSqlQuery>

/// In the thread of the query's connection.
namespace QueryReading
{

/// Whether the rows of a driver of this kind are read without being kept by it.
bool readsForwardOnly(int driverType);

/// Goes to the row from which a query is read. @return whether there is one.
bool toFirstRow(QSqlQuery &query);

/// The error of a QMYSQL query that lost its result without a word; no error when it did not.
QSqlError silentLoss(QSqlQuery &query);

/// Goes through the results behind the current one. @return the first error among them.
QSqlError errorBehind(QSqlQuery &query);

} // namespace QueryReading
