#include "vext_sql_entry.h"

#include "debug_line.h"
#include "sql_driver_kind.h"
#include "vext_sql_module.h"
#include "vext_static_enums.h"

#include <QDateTime>
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

} // namespace

bool VEXT_sqlThr::isSupportEvent() const
{
    return db.driver()->hasFeature(QSqlDriver::EventNotifications);
}

bool VEXT_sqlThr::add_event(const QString &name)
{
    const Entry entry(this);
    // Script code may run while the place is looked for, and add the name itself.
    const QString place = subscribingPlace(m_engine);
    if (m_listEvents.contains(name))
        return false;
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
    return m_relay.add(name,
                       m_mainWatch.isOpen() && m_mainKind.dbmsType == SqlDriverKind::PostgreSql);
}

bool VEXT_sqlThr::rem_event(const QString &name)
{
    if (db.isOpen() && isSupportEvent())
        m_relay.remove(name);
    const int index = m_listEvents.indexOf(name);
    if (index < 0)
        return false;
    QMutexLocker locker(&m_mutexParams);
    if (index < m_listEventsCallee.size())
        m_listEventsCallee.removeAt(index);
    m_listEvents.removeAt(index);
    return true;
}

QStringList VEXT_sqlThr::events() const
{
    return db.isOpen() ? m_relay.subscribed() : m_listEvents;
}

void VEXT_sqlThr::subscribeAll()
{
    m_relay.subscribeAll([this](const QString &name) {
        if (traceLog) {
            DebugLine::debug(VextSqlModule::Worker, WorkerLines::Event + __LINE__, "open")
                << "subscribeToNotification onLine" << name;
        }
    });
}

void VEXT_sqlThr::unsubscribeAll(QSqlDriver *driver)
{
    m_relay.unsubscribeAll(driver, [this](const QString &name) {
        if (traceLog)
            traceEvent("close", WorkerLines::Event + __LINE__, "unsubscribeFromNotification", name);
    });
}

void VEXT_sqlThr::relayNotification(const QString &name, QSqlDriver::NotificationSource source,
                                    const QVariant &payload)
{
    const Entry entry(this);
    m_relay.deliver(name, [&] { emit event(name, source, payload); });
}
