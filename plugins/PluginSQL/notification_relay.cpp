#include "notification_relay.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEvent>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlQuery>
#include <QThread>
#include <QVariant>

#include <algorithm>
#include <utility>

namespace
{

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

NotificationRelay::NotificationRelay(QObject *context, const QSqlDatabase &connection,
                                     const QStringList &listed)
    : m_context(context)
    , m_connection(connection)
    , m_listed(listed)
{
}

void NotificationRelay::deliver(const QString &name, const Step &send)
{
    if (m_removals.contains(name))
        return;
    ++m_delivering;
    send();
    --m_delivering;
    if (m_delivering == 0 && !m_deferred.empty()) {
        QMetaObject::invokeMethod(
            m_context, [this] { runDeferredSteps(); }, Qt::QueuedConnection);
    }
}

void NotificationRelay::afterDelivery(Step step)
{
    if (m_delivering > 0)
        m_deferred.push_back(std::move(step));
    else
        step();
}

void NotificationRelay::runDeferredSteps()
{
    // A nested event loop inside a handler: the handler's end asks again.
    if (m_delivering > 0)
        return;
    const std::vector<Step> steps = std::exchange(m_deferred, {});
    for (const Step &step : steps)
        step();
}

bool NotificationRelay::add(const QString &name, bool unsure)
{
    QSqlDriver *driver = m_connection.driver();
    // Removed by the handler that adds it again, and the driver still has it.
    if (m_removals.removeOne(name) && driver->subscribedToNotifications().contains(name))
        return true;
    const bool done = subscribe(driver, name);
    if (unsure && !m_unsure.contains(name))
        m_unsure.append(name);
    return done;
}

void NotificationRelay::remove(const QString &name)
{
    if (!m_removals.contains(name))
        m_removals.append(name);
    retryRemovals();
}

void NotificationRelay::retryRemovals()
{
    if (m_removals.isEmpty())
        return;
    afterDelivery([this] {
        const QStringList names = m_connection.isOpen() ? m_removals : QStringList();
        for (const QString &name : names) {
            m_connection.driver()->unsubscribeFromNotification(name);
            if (!m_connection.driver()->subscribedToNotifications().contains(name))
                m_removals.removeOne(name);
        }
    });
}

void NotificationRelay::afterTransaction()
{
    retryRemovals();
    const QStringList names = std::exchange(m_unsure, {});
    if (!names.isEmpty())
        afterDelivery([this, names] { renew(names); });
}

/// Subscribes again to what is still wanted and the server does not send; what it sends is left
/// alone, so that nothing is missed.
void NotificationRelay::renew(QStringList names)
{
    const auto isRemoved = [this](const QString &name) { return !m_listed.contains(name); };
    names.erase(std::remove_if(names.begin(), names.end(), isRemoved), names.end());
    if (names.isEmpty() || !m_connection.isOpen())
        return;
    QStringList sent;
    {
        QSqlQuery query(m_connection);
        query.setForwardOnly(true);
        if (!query.exec(QStringLiteral("SELECT pg_listening_channels()")))
            return;
        while (query.next())
            sent << query.value(0).toString();
    }
    QSqlDriver *driver = m_connection.driver();
    for (const QString &name : qAsConst(names)) {
        if (sent.contains(name))
            continue;
        if (driver->subscribedToNotifications().contains(name))
            driver->unsubscribeFromNotification(name);
        subscribe(driver, name);
    }
}

QStringList NotificationRelay::subscribed() const
{
    QStringList names = m_connection.driver()->subscribedToNotifications();
    for (const QString &removed : m_removals)
        names.removeAll(removed);
    return names;
}

void NotificationRelay::subscribeAll(const Tell &tell)
{
    const QStringList names = m_listed;
    for (const QString &name : names) {
        tell(name);
        subscribe(m_connection.driver(), name);
    }
}

void NotificationRelay::unsubscribeAll(QSqlDriver *driver, const Tell &tell)
{
    const QStringList names = m_listed;
    for (const QString &name : names) {
        tell(name);
        driver->unsubscribeFromNotification(name);
    }
}

void NotificationRelay::forgetDriver()
{
    m_removals.clear();
    m_unsure.clear();
}
