#include "sql_connection.h"

#include "open_connection.h"
#include "script_reading.h"

#include <QMetaObject>
#include <QScriptEngine>
#include <QVariant>

#include <limits>

namespace
{

const char *const Parameters[] = {"driverName",     "databaseName", "userName",
                                  "password",       "hostName",     "port",
                                  "connectOptions", "app_name",     "enableNull"};

QString globalName()
{
    return QLatin1String(OpenConnection::GlobalName);
}

} // namespace

SqlConnection::SqlConnection(const QScriptValue &value)
{
    const QObject *object = value.toQObject();
    if (object && object->metaObject()->indexOfMethod("stop_thread(int)") >= 0)
        m_value = value;
}

SqlConnection SqlConnection::current(QScriptEngine *engine)
{
    const ExceptionGuard guard(engine);
    return SqlConnection(ScriptReading::plainProperty(engine->globalObject(), globalName()));
}

QScriptValue SqlConnection::call(const char *member, const QScriptValueList &arguments) const
{
    QScriptValue value = m_value;
    return value.property(QLatin1String(member)).call(value, arguments);
}

bool SqlConnection::isOpen() const
{
    return exists() && object()->property("isOpen").toBool();
}

bool SqlConnection::canCancel() const
{
    if (!isOpen())
        return false;
    const QScriptValue features = call("hasFeature");
    return features.isVariant()
               ? features.toVariant().toMap().value(QStringLiteral("CancelQuery")).toBool()
               : features.property(QStringLiteral("CancelQuery")).toBool();
}

QString SqlConnection::driver() const
{
    return exists() ? object()->property("driverName").toString() : QString();
}

QString SqlConnection::shown() const
{
    if (!exists())
        return QString();
    const auto text = [this](const char *name) { return object()->property(name).toString(); };
    QString place = text("databaseName");
    if (place.startsWith(QLatin1String("file:")) && place.contains(QLatin1String("mode=memory")))
        place = QStringLiteral(":memory:"); // as the user has named it
    const int port = object()->property("port").toInt();
    if (!text("hostName").isEmpty())
        place = text("hostName") + (port > 0 ? QStringLiteral(":%1").arg(port) : QString()) +
                QLatin1Char('/') + place;
    if (!text("userName").isEmpty())
        place = text("userName") + QLatin1Char('@') + place;
    return text("driverName") + QLatin1Char(' ') + place;
}

QString SqlConnection::lastError() const
{
    return exists() ? object()->property("lastError").toString() : QString();
}

bool SqlConnection::send(const QString &sql, const QScriptValue &done) const
{
    if (!isOpen())
        return false;
    // Behind a blank the plugin takes no word for its own.
    const QScriptValue queued = call("query_thread", {QLatin1Char(' ') + sql, done});
    return queued.toBool() && !queued.isError();
}

void SqlConnection::stopWorker() const
{
    if (exists())
        QMetaObject::invokeMethod(object(), "stop_thread", Qt::DirectConnection, Q_ARG(int, 0));
}

bool SqlConnection::isWorkerRunning() const
{
    return exists() && object()->property("isRunning").toBool();
}

void SqlConnection::close() const
{
    if (exists())
        QMetaObject::invokeMethod(object(), "close", Qt::DirectConnection);
}

QScriptValue SqlConnection::tables(int type) const
{
    const bool listed = call("tables", {QScriptValue(type)}).toBool();
    return listed ? m_value.property(QStringLiteral("queryResult")) : QScriptValue();
}

void SqlConnection::keepSession() const
{
    if (exists())
        object()->setProperty("timeNotUse", std::numeric_limits<int>::max());
}

SqlConnection SqlConnection::reopened(QScriptEngine *engine, QString *error) const
{
    const QScriptValue constructor = engine->globalObject().property(QStringLiteral("VEXT_SQL"));
    const SqlConnection made(
        QScriptValue(constructor)
            .construct(QScriptValueList() << QScriptValue(object()->objectName())));
    if (!made.exists()) {
        *error = QStringLiteral("no connection object can be made");
        return SqlConnection();
    }
    for (const char *parameter : Parameters)
        made.object()->setProperty(parameter, object()->property(parameter));
    if (!made.call("open").toBool()) {
        *error = OpenConnection::reason(made.object());
        made.object()->deleteLater();
        return SqlConnection();
    }
    made.keepSession();
    engine->globalObject().setProperty(globalName(), made.value());
    return made;
}
