/// @file
/// Keeps Qt's SQLite driver away from a statement that changes under it.
#pragma once

#include <QSqlError>
#include <QString>

#include <functional>

class QSqlDriver;

/// QSQLITE (5.15) makes room for the first row before the first step of a statement. When the
/// schema has changed meanwhile, SQLite prepares the statement anew within that step, and the
/// driver writes the columns that `*` has got since beyond its room.
///
/// So SQLite is asked to refuse just this: an authorizer of the connection answers no while a
/// statement that has begun to run is prepared again, and the statement is sent anew. No lock is
/// taken and nothing is waited for, so writing statements keep their busy time-out, and no
/// statement is sent that a driver could record. Statements that SQLite prepares anew for other
/// reasons, as for a bound pattern of LIKE, have not begun to run, and its extensions' own ones
/// have another text; these go on.
///
/// The authorizer is set when a connection opens and stays: SQLite prepares all statements of a
/// connection anew after each change of it. One that a host has set is lost.
namespace SqliteSchemaGuard
{

/// Makes what all connections share, so that it outlives whatever is made later. Any thread.
void prepare();

/// Has to be called for each connection of SQLite that opens, before its first statement. In the
/// thread of the connection; nothing happens for other drivers.
void opened(QSqlDriver *driver);

/// Runs `attempt`, which prepares and executes `sql` on `driver`, until the schema holds still.
/// Where the driver has no handle of SQLite, or its functions cannot be found, it runs once. In the
/// thread of the connection; `attempt` must do all its work in the call, and may run other
/// statements of the connection, or delete its driver.
/// @param error set, with the answer false, when the schema changed at every attempt.
/// @return what the last attempt returned.
bool run(QSqlDriver *driver, const QString &sql, const std::function<bool()> &attempt,
         QSqlError *error);

} // namespace SqliteSchemaGuard
