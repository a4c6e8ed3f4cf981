#include "driver_text.h"

#include <QMetaMethod>
#include <QMetaType>
#include <QSqlDriver>

bool DriverText::complete(const QSqlDriver *driver, const QString &text, int count,
                          QString &statement)
{
    if (!driver)
        return false;
    const QMetaObject *meta = driver->metaObject();
    const int index = meta->indexOfMethod("boundStatement(QString,int)");
    if (index < 0 || meta->method(index).returnType() != QMetaType::QString)
        return false;
    // Called as QMetaMethod::invoke() does in the end: that looks every type up by its name first.
    // Queries give their driver as a constant one, and Qt invokes nothing on constant objects.
    void *arguments[] = {&statement, const_cast<QString *>(&text), &count};
    QMetaObject::metacall(const_cast<QSqlDriver *>(driver), QMetaObject::InvokeMetaMethod, index,
                          arguments);
    return true;
}
