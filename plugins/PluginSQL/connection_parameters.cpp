#include "connection_parameters.h"

#include "sql_secrets.h"

#include <QCoreApplication>
#include <QMutexLocker>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlQuery>
#include <QTextCodec>
#include <QVariant>

SqlDriverKind::ConnectionKind ConnectionParameters::setParamToDb(QSqlDatabase &database)
{
    QMutexLocker locker(&m_mutexParams);
    const int driverType = SqlDriverKind::driverType(driverName);
    const int reported = database.driver() ? int(database.driver()->dbmsType()) : 0;
    const SqlDriverKind::ConnectionKind kind{driverType,
                                             SqlDriverKind::dbmsType(driverType, reported), true};
    m_driverType.storeRelease(kind.driverType);
    m_dbmsType.storeRelease(kind.dbmsType);
    if (!connectOptions.isEmpty())
        database.setConnectOptions(connectOptions);
    database.setHostName(hostName);
    if (port > 0)
        database.setPort(port);
    database.setDatabaseName(databaseName);
    database.setUserName(userName);
    database.setPassword(password);
    return kind;
}

bool ConnectionParameters::setPostgresAppName(QSqlDatabase &database, const QString &suffix)
{
    QString name;
    {
        QMutexLocker locker(&m_mutexParams);
        name = app_name;
    }
    if (name.isEmpty())
        return true;
    QSqlQuery query(database);
    if (!query.exec(QStringLiteral("SET client_encoding = 'UTF8'")))
        return false;
    if (!query.prepare(QStringLiteral("SELECT set_config('application_name', ?, false)")))
        return false;
    query.addBindValue(name + suffix, QSql::In);
    return query.exec();
}

void ConnectionParameters::setCodec(const QString &name)
{
    m_codec = QTextCodec::codecForName(name.toLocal8Bit());
}

QString ConnectionParameters::notOpenText() const
{
    const QString target =
        QStringLiteral("%1:%2:%3")
            .arg(SqlSecrets::maskedConnection(databaseName), QString::number(port), hostName);
    return QCoreApplication::translate("VEXT_sqlThr", "не открыто соединение с '%1'").arg(target);
}
