#include "sql_driver_kind.h"

#include <QLatin1String>

namespace
{

struct DriverRow {
    QLatin1String name;
    SqlDriverKind::Kind kind;
};

const DriverRow Drivers[] = {
    {QLatin1String("QMYSQL"), SqlDriverKind::MySql},
    {QLatin1String("QPSQL"), SqlDriverKind::PostgreSql},
    {QLatin1String("QOCI"), SqlDriverKind::Oracle},
    {QLatin1String("QTDS"), SqlDriverKind::Tds},
    {QLatin1String("QSQLITE"), SqlDriverKind::SQLite},
    {QLatin1String("QSQLITE2"), SqlDriverKind::SQLite},
    {QLatin1String("QIBASE"), SqlDriverKind::Interbase},
    {QLatin1String("QFIREBIRD"), SqlDriverKind::Interbase},
    {QLatin1String("QDB2"), SqlDriverKind::Db2},
    {QLatin1String("QODBC"), SqlDriverKind::Odbc},
    {QLatin1String("QMIMER"), SqlDriverKind::Mimer},
};

/// The kinds that Qt itself numbers; what lies behind ODBC is told by these alone.
bool isQtDbmsType(int type)
{
    return type >= 1 && type <= 8;
}

} // namespace

int SqlDriverKind::driverType(const QString &driverName)
{
    for (const DriverRow &row : Drivers) {
        if (driverName.compare(row.name, Qt::CaseInsensitive) == 0)
            return row.kind;
    }
    return Unknown;
}

int SqlDriverKind::dbmsType(int driverType, int reportedByDriver)
{
    if (driverType != Odbc)
        return driverType;
    return isQtDbmsType(reportedByDriver) ? reportedByDriver : int(Unknown);
}
