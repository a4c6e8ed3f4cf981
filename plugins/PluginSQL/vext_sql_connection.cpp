#include "vext_sql_entry.h"

#include "debug_line.h"
#include "sql_driver_kind.h"
#include "sql_secrets.h"
#include "sqlite_schema_guard.h"
#include "vext_sql_module.h"

#include <QDateTime>

#include <algorithm>
#include <utility>

namespace
{

constexpr int StopOnCloseMs = 90000;
/// Level of the message about notifications while tracing is off: sent all the same, on purpose at
/// a level that no host shows by default.
constexpr int LevelUnasked = 5;

void refuseOpenTwice(VEXT_sqlThr &worker)
{
    if (!worker.traceLog)
        return;
    const QString target =
        worker.db.port() > 0
            ? QStringLiteral("%1:%3:%2")
                  .arg(worker.db.hostName(), worker.db.databaseName(),
                       QString::number(worker.db.port()))
            : QStringLiteral("%1:%2").arg(worker.db.hostName(), worker.db.databaseName());
    worker.sendMessage(WorkerLines::Connection + __LINE__, "open",
                       VEXT_sqlThr::tr("перед открытием БД, закройте соединение с '%1'")
                           .arg(SqlSecrets::maskedConnection(target)),
                       0);
}

/// What a failed open is told with; the blanks inside the texts align the values and are part of
/// them.
QStringList openFailure(const VEXT_sqlThr &worker)
{
    const QSqlDatabase &db = worker.db;
    QStringList texts{VEXT_sqlThr::tr("не смог подключиться к БД '%1'").arg(db.lastError().text())};
    const auto parameter = [&texts](const char *pattern, const QString &value) {
        texts.append(QString::fromUtf8(pattern).arg(value));
    };
    const QString portText = db.port() > 0 ? QStringLiteral(":%1").arg(db.port()) : QString();
    parameter("driverName    = '%1'", db.driverName());
    parameter("hostName      = '%1'", db.hostName() + portText);
    parameter("databaseName  = '%1'", SqlSecrets::maskedConnection(db.databaseName()));
    parameter("userName      = '%1'", db.userName());
    parameter("password      = '%1'", QStringLiteral("****"));
    if (!db.connectOptions().isEmpty())
        parameter("connectOptions= '%1'", SqlSecrets::maskedConnection(db.connectOptions()));
    if (!worker.connectionName.isEmpty())
        parameter("connectionName= '%1'", worker.connectionName);
    return texts;
}

void reportOpenFailure(VEXT_sqlThr &worker, const QStringList &texts)
{
    int level = -1;
    for (const QString &text : texts) {
        worker.sendMessage(WorkerLines::Connection + __LINE__, "open", text, level);
        level = 1;
    }
}

void announceEvents(VEXT_sqlThr &worker)
{
    const bool supported = worker.isSupportEvent();
    const bool trace = worker.traceLog;
    if (trace) {
        DebugLine::debug(VextSqlModule::Worker, WorkerLines::Connection + __LINE__, "open")
            << QDateTime::currentMSecsSinceEpoch() << "subscribeToNotification"
            << (supported ? "" : "no") << "supported";
    }
    const QString who = supported ? worker.driverName
                                  : worker.driverName + QLatin1Char(' ') + VEXT_sqlThr::tr("не");
    int level = LevelUnasked;
    if (trace)
        level = supported ? 2 : 0;
    worker.sendMessage(WorkerLines::Connection + __LINE__, "open",
                       VEXT_sqlThr::tr("драйвер %1 поддерживает события").arg(who), level);
}

} // namespace

// --- Names ---

void VEXT_sqlThr::setConnectionName(const QString &name)
{
    if (db.isValid() && db.isOpen()) {
        QScriptContext *context = m_engine ? m_engine->currentContext() : nullptr;
        if (context) {
            context->throwError(
                QScriptContext::TypeError,
                tr("нельзя менять имя соединения если %1").arg(QStringLiteral("isOpen == true")));
        }
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

// --- Open ---

bool VEXT_sqlThr::open()
{
    const Entry entry(this);
    if (db.isOpen()) {
        refuseOpenTwice(*this);
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
    const bool closing =
        std::any_of(m_closingNames.cbegin(), m_closingNames.cend(),
                    [this](const ClaimedName &other) { return other.text() == connectionName; });
    // Only this object's last connection has the name, until the notification that closed it has
    // been delivered: the object keeps its name, and the next open registers it again.
    if (name.text() == connectionName || !closing)
        setName(name.text());
    return name;
}

bool VEXT_sqlThr::openMain(ClaimedName name)
{
    m_mainName = std::move(name);
    db = QSqlDatabase::addDatabase(driverName, m_mainName.text());
    m_mainKind = setParamToDb(db);
    if (!db.open()) {
        setLastError(db.lastError());
        const QStringList texts = traceLog ? openFailure(*this) : QStringList();
        // Before it is told: whoever shows the messages may open the connection again.
        dropMain(Dropped::NeverOpened);
        reportOpenFailure(*this, texts);
        return false;
    }
    SqliteSchemaGuard::opened(db.driver());
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
    announceEvents(*this);
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
    setLastStatement(QString(), QSqlError());
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
