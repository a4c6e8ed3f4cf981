/// @file
/// The parameters of a connection, and how a database gets them.
#pragma once

#include "sql_driver_kind.h"

#include <QAtomicInt>
#include <QMutex>
#include <QString>

class QSqlDatabase;
class QTextCodec;

/// What a script says of the connection that it wants.
///
/// Written in the engine's thread under m_mutexParams, read there freely, elsewhere under the lock.
/// The parameters take effect at the next open of the main connection, and for the thread
/// connection at the next start of the thread.
class ConnectionParameters
{
public:
    /// Assigns a parameter where other threads may be reading it. Engine's thread.
    template <typename T>
    void setParameter(T &field, const T &value)
    {
        QMutexLocker locker(&m_mutexParams);
        field = value;
    }
    /// Classifies the driver and copies the parameters into `database`. Any thread, that of the
    /// database. @return the kind of the connection.
    SqlDriverKind::ConnectionKind setParamToDb(QSqlDatabase &database);
    /// Tells a PostgreSQL server the application name. The database's thread.
    /// @return false when a statement failed.
    bool setPostgresAppName(QSqlDatabase &database, const QString &suffix);

    void setCodec(const QString &name);
    /// "не открыто соединение с …" (connection not open) with database, port and host. Engine's
    /// thread.
    QString notOpenText() const;

    QMutex m_mutexParams;
    QString app_name;
    QString driverName;
    QString databaseName;
    QString userName;
    QString password;
    QString hostName;
    int port = -1; ///< used when above 0
    QString connectOptions;
    QString connectionName;

    QTextCodec *m_codec = nullptr; ///< Qt's; engine's thread
    QAtomicInt m_driverType;       ///< kind of Qt driver, as setParamToDb() found it last
    QAtomicInt m_dbmsType;         ///< database system behind it, likewise
};
