#include "vext_sql_thread.h"

#include "debug_line.h"
#include "sql_driver_kind.h"
#include "sql_secrets.h"
#include "vext_sql.h"
#include "vext_sql_module.h"

#include <QDateTime>
#include <QTextCodec>

#include <algorithm>

namespace
{

constexpr int StopOnCloseMs = 90000;
/// Level of the message about notifications while tracing is off: sent all the same, on purpose at
/// a level that no host shows by default.
constexpr int LevelUnasked = 5;

/// The name that scripts read. They compare with it, the parenthesis behind one of them included.
QString errorTypeName(QSqlError::ErrorType type)
{
    if (type == QSqlError::ConnectionError)
        return type2str(type) + QLatin1Char(')');
    if (type < QSqlError::NoError || type > QSqlError::UnknownError)
        return QStringLiteral("%1 (%2)").arg(type2str(QSqlError::UnknownError)).arg(int(type));
    return type2str(type);
}

/// The native code as a number: -1 where the driver gives none, 0 where it is no number.
int nativeNumber(const QSqlError &error)
{
    const QString code = error.nativeErrorCode();
    return code.isEmpty() ? -1 : code.toInt();
}

} // namespace

// --- Names ---

void VEXT_sqlThr::setConnectionName(const QString &name)
{
    if (db.isValid() && db.isOpen()) {
        QScriptContext *context = m_engine ? m_engine->currentContext() : nullptr;
        VEXT_SQL::throwScript(
            context,
            tr("нельзя менять имя соединения если %1").arg(QStringLiteral("isOpen == true")),
            QScriptContext::TypeError);
        return;
    }
    setName(ConnectionNames::ofObject(driverName, name.isEmpty() ? QStringLiteral("sql") : name,
                                      m_conNumber));
}

void VEXT_sqlThr::setName(const QString &name)
{
    setParameter(connectionName, name);
    // A starting thread takes its name from the object (Qt 5.15) before it enters run().
    while (isRunning() && !m_entered)
        QThread::msleep(1);
    setObjectName(name);
    m_shown.setConnection(name);
}

// --- Parameters ---

SqlDriverKind::ConnectionKind VEXT_sqlThr::setParamToDb(QSqlDatabase &database)
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

bool VEXT_sqlThr::setPostgresAppName(QSqlDatabase &database, const QString &suffix)
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

void VEXT_sqlThr::setCodec(const QString &name)
{
    m_codec = QTextCodec::codecForName(name.toLocal8Bit());
}

// --- Open ---

bool VEXT_sqlThr::open()
{
    const Entry entry(this);
    if (db.isOpen()) {
        refuseOpenTwice();
        return true;
    }
    dropMain(Dropped::Lost);
    ++cnt_open;
    // A thread that was told to stop and has not yet must not be told otherwise.
    if (!isRunning())
        m_thrStop.storeRelease(0);
    return openMain(claimNameToOpen());
}

/// Takes the name under which the main connection is registered: the object's own one, or another
/// that the object takes over.
ClaimedName VEXT_sqlThr::claimNameToOpen()
{
    ClaimedName name = ConnectionNames::claimMain(connectionName, driverName, m_conNumber);
    // Only this object's last connection has the name, until the notification that closed it has
    // been delivered: the object keeps its name, and the next open registers it again.
    if (name.text() == connectionName || !isClosing(connectionName))
        setName(name.text());
    return name;
}

bool VEXT_sqlThr::isClosing(const QString &name) const
{
    return std::any_of(m_closingNames.cbegin(), m_closingNames.cend(),
                       [&name](const ClaimedName &closing) { return closing.text() == name; });
}

bool VEXT_sqlThr::openMain(ClaimedName name)
{
    m_mainName = std::move(name);
    db = QSqlDatabase::addDatabase(driverName, m_mainName.text());
    m_mainKind = setParamToDb(db);
    m_tablesError = QSqlError();
    if (!db.open()) {
        setLastError(db.lastError());
        if (traceLog)
            reportOpenFailure();
        dropMain(Dropped::NeverOpened);
        return false;
    }
    connectDriver();
    if (!db.isOpen())
        return false;
    if (m_mainKind.dbmsType == SqlDriverKind::PostgreSql)
        setPostgresAppName(db, QString());
    m_shown.isOpen = true;
    ++cnt_opened;
    emit opened();
    return db.isOpen();
}

void VEXT_sqlThr::refuseOpenTwice()
{
    if (!traceLog)
        return;
    const QString target =
        db.port() > 0 ? QStringLiteral("%1:%3:%2")
                            .arg(db.hostName(), db.databaseName(), QString::number(db.port()))
                      : QStringLiteral("%1:%2").arg(db.hostName(), db.databaseName());
    sendMessage(WorkerLines::Connection + __LINE__, "open",
                tr("перед открытием БД, закройте соединение с '%1'")
                    .arg(SqlSecrets::maskedConnection(target)),
                0);
}

/// The blanks inside the texts align the values and are part of them.
void VEXT_sqlThr::reportOpenFailure()
{
    const auto parameter = [this](const char *pattern, const QString &value) {
        sendMessage(WorkerLines::Connection + __LINE__, "open",
                    QString::fromUtf8(pattern).arg(value), 1);
    };
    sendMessage(WorkerLines::Connection + __LINE__, "open",
                tr("не смог подключиться к БД '%1'").arg(db.lastError().text()), -1);
    const QString portText = db.port() > 0 ? QStringLiteral(":%1").arg(db.port()) : QString();
    parameter("driverName    = '%1'", db.driverName());
    parameter("hostName      = '%1'", db.hostName() + portText);
    parameter("databaseName  = '%1'", SqlSecrets::maskedConnection(db.databaseName()));
    parameter("userName      = '%1'", db.userName());
    parameter("password      = '%1'", QStringLiteral("****"));
    if (!db.connectOptions().isEmpty())
        parameter("connectOptions= '%1'", SqlSecrets::maskedConnection(db.connectOptions()));
    if (!connectionName.isEmpty())
        parameter("connectionName= '%1'", connectionName);
}

/// Gives the handle, the driver's connection and the registration up. Nothing stays registered but
/// closed, also after a connection that the driver found to be lost.
void VEXT_sqlThr::dropMain(Dropped state)
{
    if (!db.isValid() && db.connectionName().isEmpty())
        return;
    QSqlDriver *driver = db.driver();
    disconnect(this, nullptr, driver, nullptr);
    disconnect(driver, nullptr, this, nullptr);
    const QString name = db.connectionName();
    db = QSqlDatabase();
    m_shown.isOpen = false;
    m_relay.forgetDriver();
    if (state == Dropped::Lost)
        m_mainWatch.sessionLost();
    else if (state == Dropped::Open)
        m_mainWatch.sessionClosed();
    m_closingNames.push_back(std::move(m_mainName));
    // A driver must not lose its connection while it is delivering a notification.
    m_relay.afterDelivery([this, name, state] { closeRegistered(name, state); });
}

/// Closes and unregisters a connection that only its registration still holds.
void VEXT_sqlThr::closeRegistered(const QString &name, Dropped state)
{
    if (state != Dropped::NeverOpened) {
        QSqlDatabase closing = QSqlDatabase::database(name, false);
        if (state == Dropped::Open && closing.driver()->hasFeature(QSqlDriver::EventNotifications))
            unsubscribeAll(closing.driver());
        closing.close();
    }
    QSqlDatabase::removeDatabase(name);
    m_closingNames.erase(
        std::remove_if(m_closingNames.begin(), m_closingNames.end(),
                       [&name](const ClaimedName &closed) { return closed.text() == name; }),
        m_closingNames.end());
}

void VEXT_sqlThr::connectDriver()
{
    QSqlDriver *driver = db.driver();
    if (driver->hasFeature(QSqlDriver::CancelQuery))
        connect(this, &VEXT_sqlThr::cancelQuery, driver, &QSqlDriver::cancelQuery);
    announceEvents();
    // Whoever shows the message may have closed the connection.
    if (!db.isOpen())
        return;
    driver = db.driver();
    if (isSupportEvent()) {
        connect(driver,
                qOverload<const QString &, QSqlDriver::NotificationSource, const QVariant &>(
                    &QSqlDriver::notification),
                this, &VEXT_sqlThr::relayNotification, Qt::DirectConnection);
        subscribeAll();
    }
}

void VEXT_sqlThr::announceEvents()
{
    const bool supported = isSupportEvent();
    const bool trace = traceLog;
    if (trace) {
        DebugLine::debug(VextSqlModule::Worker, WorkerLines::Connection + __LINE__, "open")
            << QDateTime::currentMSecsSinceEpoch() << "subscribeToNotification"
            << (supported ? "" : "no") << "supported";
    }
    const QString who = supported ? driverName : driverName + QLatin1Char(' ') + tr("не");
    int level = LevelUnasked;
    if (trace)
        level = supported ? 2 : 0;
    sendMessage(WorkerLines::Connection + __LINE__, "open",
                tr("драйвер %1 поддерживает события").arg(who), level);
}

// --- Close ---

bool VEXT_sqlThr::close(bool stopThread)
{
    const Entry entry(this);
    if (stopThread)
        stop_thread(StopOnCloseMs);
    clearSqlResult();
    if (!db.isValid())
        return false;
    if (!db.isOpen()) {
        dropMain(Dropped::Lost);
        return false;
    }
    emit cancelQuery();
    dropMain(Dropped::Open);
    {
        QMutexLocker locker(&m_mutexLast);
        m_lastError = QSqlError();
        lastQuery.clear();
    }
    ++cnt_closed;
    emit closed();
    return true;
}

// --- Errors ---

void VEXT_sqlThr::reportNotOpen(const char *function, int line)
{
    if (traceLog)
        sendMessage(line, function, notOpenText(), -1);
}

QString VEXT_sqlThr::notOpenText() const
{
    const QString target =
        QStringLiteral("%1:%2:%3")
            .arg(SqlSecrets::maskedConnection(databaseName), QString::number(port), hostName);
    return tr("не открыто соединение с '%1'").arg(target);
}

void VEXT_sqlThr::setLastError(const QSqlError &error)
{
    QMutexLocker locker(&m_mutexLast);
    m_lastError = error;
}

QString VEXT_sqlThr::lastError()
{
    QMutexLocker locker(&m_mutexLast);
    return m_lastError.isValid() ? m_lastError.text() : QString();
}

QVariantMap VEXT_sqlThr::lastErrors()
{
    QSqlError error;
    {
        QMutexLocker locker(&m_mutexLast);
        error = m_lastError;
    }
    return {
        {QStringLiteral("driverText"), error.driverText()},
        {QStringLiteral("databaseText"), error.databaseText()},
        {QStringLiteral("type"), int(error.type())},
        {QStringLiteral("typeStr"), errorTypeName(error.type())},
        {QStringLiteral("number"), nativeNumber(error)},
        {QStringLiteral("text"), error.text()},
        {QStringLiteral("isValid"), error.isValid() ? 1 : 0},
    };
}
