#include "vext_sql_thread.h"

#include "debug_line.h"
#include "sql_driver_kind.h"
#include "vext_sql_module.h"
#include "vext_static_enums.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QRegularExpression>

namespace
{

constexpr int CalleeWidth = 20;

/// Where the script subscribed: two levels above the native frame, because scripts reach a
/// connection through a function of their own. Code without such a function is its own place.
QString subscribingPlace(QScriptEngine *engine)
{
    QScriptContext *context = engine ? engine->currentContext() : nullptr;
    for (int level = 0; context && context->parentContext() && level < 2; ++level)
        context = context->parentContext();
    const QString site = FuncWrapper::getCallee(context, engine);
    return site.split(QRegularExpression(QStringLiteral("\\s+"))).constFirst();
}

void traceEvent(const char *function, int line, const char *what, const QString &name)
{
    DebugLine::debug(VextSqlModule::Worker, line, function)
        << QDateTime::currentMSecsSinceEpoch() << what << name;
}

/// Counts the queued calls that reach an object.
class CallCounter : public QObject
{
public:
    int calls = 0;
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::MetaCall)
            ++calls;
        return false;
    }
};

constexpr int FirstEventMs = 200;
constexpr int FirstEventStepUs = 100;

/// Firebird fires each new subscription once from a thread of its own, and QIBASE (5.15) crashes in
/// isc_cancel_events when the subscription ends before that was handled: so it is handled at once.
bool subscribe(QSqlDriver *driver, const QString &name)
{
    if (driver->dbmsType() != QSqlDriver::Interbase)
        return driver->subscribeToNotification(name);
    CallCounter counter;
    driver->installEventFilter(&counter);
    const bool done = driver->subscribeToNotification(name);
    QElapsedTimer timer;
    timer.start();
    while (done && counter.calls == 0 && !timer.hasExpired(FirstEventMs)) {
        QCoreApplication::sendPostedEvents(driver, QEvent::MetaCall);
        if (counter.calls == 0)
            QThread::usleep(FirstEventStepUs);
    }
    return done;
}

} // namespace

bool VEXT_sqlThr::isSupportEvent() const
{
    return db.driver()->hasFeature(QSqlDriver::EventNotifications);
}

bool VEXT_sqlThr::add_event(const QString &name)
{
    const Entry entry(this);
    if (m_listEvents.contains(name))
        return false;
    const QString place = subscribingPlace(m_engine);
    {
        QMutexLocker locker(&m_mutexParams);
        m_listEvents.append(name);
        m_listEventsCallee.append(place);
    }
    const bool trace = traceLog;
    if (trace) {
        DebugLine::debug(VextSqlModule::Worker, WorkerLines::Event + __LINE__, "add_event")
            << place.leftJustified(CalleeWidth) << name;
    }
    if (!db.isOpen() || !isSupportEvent()) {
        if (trace)
            traceEvent("add_event", WorkerLines::Event + __LINE__,
                       "subscribeToNotification offLine", name);
        return true;
    }
    if (trace)
        traceEvent("add_event", WorkerLines::Event + __LINE__, "subscribeToNotification onLine",
                   name);
    // Removed by the handler that adds it again: the driver still has it.
    if (m_pendingRemovals.removeOne(name))
        return true;
    const bool done = subscribe(db.driver(), name);
    if (m_mainWatch.isOpen() && m_mainKind.dbmsType == SqlDriverKind::PostgreSql)
        m_unsureEvents.append(name);
    return done;
}

bool VEXT_sqlThr::rem_event(const QString &name)
{
    if (db.isOpen() && isSupportEvent()) {
        m_unsureEvents.removeOne(name);
        if (!m_pendingRemovals.contains(name))
            m_pendingRemovals.append(name);
        retryRemovals();
    }
    const int index = m_listEvents.indexOf(name);
    if (index < 0)
        return false;
    QMutexLocker locker(&m_mutexParams);
    if (index < m_listEventsCallee.size())
        m_listEventsCallee.removeAt(index);
    m_listEvents.removeAt(index);
    return true;
}

/// Makes the driver forget what the script has removed. PostgreSQL refuses in a transaction that
/// has failed; then the names wait for its end, and their events are dropped.
void VEXT_sqlThr::retryRemovals()
{
    if (m_pendingRemovals.isEmpty())
        return;
    afterNotification([this] {
        const QStringList names = db.isOpen() ? m_pendingRemovals : QStringList();
        for (const QString &name : names) {
            db.driver()->unsubscribeFromNotification(name);
            if (!db.driver()->subscribedToNotifications().contains(name))
                m_pendingRemovals.removeOne(name);
        }
    });
}

/// A rollback takes back what was subscribed in the transaction, and the driver does not notice.
void VEXT_sqlThr::afterMainTransaction()
{
    retryRemovals();
    const QStringList names = std::exchange(m_unsureEvents, {});
    if (!names.isEmpty())
        afterNotification([this, names] { renewSubscriptions(names); });
}

/// Subscribes again to what the server does not send; what it sends is left alone, so that nothing
/// is missed.
void VEXT_sqlThr::renewSubscriptions(const QStringList &names)
{
    if (!db.isOpen())
        return;
    QStringList sent;
    {
        QSqlQuery query(db);
        query.setForwardOnly(true);
        if (!query.exec(QStringLiteral("SELECT pg_listening_channels()")))
            return;
        while (query.next())
            sent << query.value(0).toString();
    }
    QSqlDriver *driver = db.driver();
    for (const QString &name : names) {
        if (sent.contains(name) || !m_listEvents.contains(name))
            continue;
        if (driver->subscribedToNotifications().contains(name))
            driver->unsubscribeFromNotification(name);
        subscribe(driver, name);
    }
}

QStringList VEXT_sqlThr::events() const
{
    if (!db.isOpen())
        return m_listEvents;
    QStringList names = db.driver()->subscribedToNotifications();
    for (const QString &removed : m_pendingRemovals)
        names.removeAll(removed);
    return names;
}

void VEXT_sqlThr::subscribeAll()
{
    const QStringList names = m_listEvents;
    for (const QString &name : names) {
        if (traceLog) {
            DebugLine::debug(VextSqlModule::Worker, WorkerLines::Event + __LINE__, "open")
                << "subscribeToNotification onLine" << name;
        }
        subscribe(db.driver(), name);
    }
}

/// The list of names is kept, so that the next open subscribes again.
void VEXT_sqlThr::unsubscribeAll(QSqlDriver *driver)
{
    const QStringList names = m_listEvents;
    for (const QString &name : names) {
        if (traceLog)
            traceEvent("close", WorkerLines::Event + __LINE__, "unsubscribeFromNotification", name);
        driver->unsubscribeFromNotification(name);
    }
}

/// Called on the driver's stack: the driver goes on with its own work when the handlers are done,
/// so nothing that they ask for may take the driver or its connection away before that.
void VEXT_sqlThr::relayNotification(const QString &name, QSqlDriver::NotificationSource source,
                                    const QVariant &payload)
{
    const Entry entry(this);
    if (m_pendingRemovals.contains(name))
        return;
    ++m_notifying;
    emit event(name, source, payload);
    --m_notifying;
    if (m_notifying == 0 && !m_afterNotification.empty())
        QMetaObject::invokeMethod(this, &VEXT_sqlThr::runDeferredSteps, Qt::QueuedConnection);
}

/// Runs a step now, or from the event loop when a notification is being delivered.
void VEXT_sqlThr::afterNotification(std::function<void()> step)
{
    if (m_notifying > 0)
        m_afterNotification.push_back(std::move(step));
    else
        step();
}

void VEXT_sqlThr::runDeferredSteps()
{
    // A nested event loop inside a handler: the handler's end asks again.
    if (m_notifying > 0)
        return;
    const std::vector<std::function<void()>> steps = std::exchange(m_afterNotification, {});
    for (const auto &step : steps)
        step();
}
