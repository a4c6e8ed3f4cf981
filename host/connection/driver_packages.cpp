#include "driver_packages.h"

namespace
{

struct DriverPackage {
    const char *driver;
    const char *package;
};

const DriverPackage Packages[] = {
    {"QSQLITE", "libqt5sql5-sqlite"}, {"QPSQL", "libqt5sql5-psql"},
    {"QPSQL7", "libqt5sql5-psql"},    {"QMYSQL", "libqt5sql5-mysql"},
    {"QMYSQL3", "libqt5sql5-mysql"},  {"QMARIADB", "libqt5sql5-mysql"},
    {"QIBASE", "libqt5sql5-ibase"},   {"QODBC", "libqt5sql5-odbc"},
    {"QODBC3", "libqt5sql5-odbc"},    {"QTDS", "libqt5sql5-tds"},
    {"QTDS7", "libqt5sql5-tds"},
};

} // namespace

QString DriverPackages::package(const QString &driver)
{
    for (const DriverPackage &known : Packages) {
        if (driver.compare(QLatin1String(known.driver), Qt::CaseInsensitive) == 0)
            return QLatin1String(known.package);
    }
    return QString();
}

QString DriverPackages::hint(const QString &driver)
{
    if (driver.isEmpty())
        return QStringLiteral("no driver is named: driverName is empty");
    const QString name = package(driver);
    if (name.isEmpty())
        return QStringLiteral("there is no driver '%1' here").arg(driver);
    return QStringLiteral("the driver %1 is not installed; on Debian it is in the package %2")
        .arg(driver, name);
}
