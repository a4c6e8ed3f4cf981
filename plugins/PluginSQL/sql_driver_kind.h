/// @file
/// Kinds of Qt SQL drivers and of the database systems behind them.
#pragma once

#include <QString>

namespace SqlDriverKind
{

/// 1 to 8 are QSqlDriver::DbmsType; 9 and 11 are this system's own; 10 is kept free.
enum Kind : int {
    Unknown = 0,
    MySql = 2,
    PostgreSql = 3,
    Oracle = 4,
    Tds = 5,
    SQLite = 6,
    Interbase = 7,
    Db2 = 8,
    Odbc = 9,
    Mimer = 11
};

/// What a statement and its result need to know of the connection on which it runs. It travels with
/// them: the parameters of the connection object may be another driver's by then.
struct ConnectionKind {
    int driverType = Unknown; ///< kind of Qt driver
    int dbmsType = Unknown;   ///< database system behind it
    bool isKnown = false;
};

/// Kind of the driver of this name, compared without regard to case; 0 for an unknown one.
int driverType(const QString &driverName);

/// Database system: the driver's kind, except behind ODBC, where it is what the driver reports if
/// that is 1 to 8, else 0.
int dbmsType(int driverType, int reportedByDriver);

} // namespace SqlDriverKind
