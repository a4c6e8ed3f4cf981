#include "open_connection.h"

#include "driver_packages.h"
#include "script_reading.h"

#include <QObject>
#include <QScriptEngine>
#include <QStringList>
#include <QVariant>

const char OpenConnection::GlobalName[] = "db";

namespace
{

const char MemoryName[] = ":memory:";

/// A connection object has two connections, its own and its worker's. A database in memory is
/// therefore one with a name, which both of them find, and which no other connection object does.
ConnectionAddress shared(ConnectionAddress address)
{
    static int s_number = 0;
    if (address.driver != QLatin1String("QSQLITE") || address.database != QLatin1String(MemoryName))
        return address;
    address.database =
        QStringLiteral("file:vext%1?mode=memory&cache=shared").arg(QString::number(++s_number));
    if (!address.options.isEmpty())
        address.options += QLatin1Char(';');
    address.options += QLatin1String("QSQLITE_OPEN_URI");
    return address;
}

} // namespace

QScriptValue OpenConnection::open(QScriptEngine *engine, const ConnectionAddress &address,
                                  QString *error)
{
    const ExceptionGuard guard(engine);
    QScriptValue global = engine->globalObject();
    const QString name = QLatin1String(GlobalName);
    QScriptValue value =
        global.property(QStringLiteral("VEXT_SQL")).construct(QScriptValueList{QScriptValue(name)});
    QObject *connection = value.toQObject();
    if (!connection) {
        *error = QStringLiteral("there is no VEXT_SQL to open a connection with");
        return QScriptValue();
    }
    shared(address).setOn(connection);
    bool opened = false;
    QMetaObject::invokeMethod(connection, "open", Qt::DirectConnection, Q_RETURN_ARG(bool, opened));
    if (!opened) {
        *error = QStringLiteral("%1: %2").arg(address.shown(), reason(connection));
        connection->deleteLater();
        return QScriptValue();
    }
    global.setProperty(name, value);
    return value;
}

QString OpenConnection::reason(QObject *connection)
{
    const QString driver = connection->property("driverName").toString();
    const QString text = connection->property("lastError").toString().trimmed();
    if (connection->property("drivers").toStringList().contains(driver))
        return text;
    const QString hint = DriverPackages::hint(driver);
    return hint.isEmpty() ? text : hint;
}
