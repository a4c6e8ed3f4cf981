#include "driver_text.h"

#include <QMetaMethod>
#include <QSqlDriver>

bool DriverText::complete(const QSqlDriver *driver, const QString &text, int count,
                          QString &statement)
{
    if (!driver)
        return false;
    const QMetaObject *meta = driver->metaObject();
    const int index = meta->indexOfMethod("boundStatement(QString,int)");
    if (index < 0)
        return false;
    // Queries give their driver as a constant one, and Qt invokes nothing on constant objects.
    return meta->method(index).invoke(const_cast<QSqlDriver *>(driver), Qt::DirectConnection,
                                      Q_RETURN_ARG(QString, statement), Q_ARG(QString, text),
                                      Q_ARG(int, count));
}
