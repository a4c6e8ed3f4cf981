#include "sql_dialect.h"

SqlDialect SqlDialect::ofDriver(const QString &driver)
{
    SqlDialect dialect;
    const QString name = driver.toUpper();
    if (name.contains(QLatin1String("MYSQL")) || name.contains(QLatin1String("MARIADB"))) {
        dialect.backslashEscapes = true;
        dialect.dollarQuotes = false;
        dialect.nestedComments = false;
        dialect.hashComments = true;
        dialect.dashesNeedBlank = true;
        dialect.codeInComments = true;
    } else if (name.contains(QLatin1String("SQLITE")) || name.contains(QLatin1String("IBASE"))) {
        dialect.dollarQuotes = false;
        dialect.nestedComments = false;
    }
    return dialect;
}
