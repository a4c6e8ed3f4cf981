/// @file
/// The protocol with a driver that sends notifications.
#pragma once

#include <QStringList>

#include <functional>
#include <vector>

class QObject;
class QSqlDatabase;
class QSqlDriver;

/// Subscribes and unsubscribes names at the driver of one connection, and keeps everything away
/// from the driver that it cannot bear while it is delivering a notification.
///
/// Belongs to the engine's thread, as a member of the object that owns the connection.
class NotificationRelay
{
public:
    using Step = std::function<void()>;
    using Tell = std::function<void(const QString &name)>;

    /// @param context whose event loop runs what waits; with `connection` and `listed`, the names
    /// that the script wants, it outlives the relay.
    NotificationRelay(QObject *context, const QSqlDatabase &connection, const QStringList &listed);

    /// Calls `send` unless the name was removed. Called on the driver's stack: the driver goes on
    /// with its own work when the handlers are done, so nothing that they ask for may take the
    /// driver or its connection away before that.
    void deliver(const QString &name, const Step &send);
    /// Runs a step now, or from the event loop when a notification is being delivered.
    void afterDelivery(Step step);
    /// Runs the steps that wait, unless a notification is still being delivered.
    void runDeferredSteps();

    /// @param unsure whether a rollback may take the subscription back. @return the driver's
    /// answer.
    bool add(const QString &name, bool unsure);
    /// Makes the driver forget the name, once it and the server are ready to.
    void remove(const QString &name);
    /// Asks again for removals that the server has refused: PostgreSQL does in a transaction that
    /// has failed. Meanwhile the names' events are dropped.
    void retryRemovals();
    /// A rollback takes back what was subscribed in the transaction, and the driver does not
    /// notice: it is subscribed again.
    void afterTransaction();
    /// What the driver has subscribed and the script has not removed.
    QStringList subscribed() const;

    /// Subscribes all listed names, each after it was told.
    void subscribeAll(const Tell &tell);
    /// Unsubscribes them at a driver that is given up. They stay listed, so that the next open
    /// subscribes them again.
    void unsubscribeAll(QSqlDriver *driver, const Tell &tell);
    /// The driver goes, and with it what it was to forget.
    void forgetDriver();

private:
    void renew(QStringList names);

    QObject *m_context;
    const QSqlDatabase &m_connection;
    const QStringList &m_listed;
    int m_delivering = 0;
    std::vector<Step> m_deferred;
    QStringList m_removals; ///< names that the driver still has to forget
    QStringList m_unsure;   ///< subscribed in an open transaction, and perhaps removed since
};
