/// @file
/// The name of the connection that a driver serves.
#pragma once

#include "deadline.h"

#include <QHash>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QString>
#include <QStringList>
#include <QThread>

#include <functional>
#include <mutex>

/// Finds the name under which a driver's connection is registered. Qt does not tell a driver, and
/// QSqlDatabase::database() may be asked for connections of the own thread only. What can be seen
/// is the list of names: the name that is new since the driver was made is the driver's, provided
/// that one driver is made after the other. So whoever makes the next driver first waits until the
/// one before, made in another thread, is registered; this is a matter of microseconds.
///
/// Drivers are destroyed while Qt holds its lock on the list of names. So the list is never read
/// under m_mutex, which forget() takes, nor in a driver's destructor.
class ConnectionNames
{
public:
    static ConnectionNames &instance()
    {
        static ConnectionNames names;
        return names;
    }

    /// Calls @p make, which returns the new driver, when its predecessors are settled.
    QSqlDriver *create(const std::function<QSqlDriver *()> &make)
    {
        std::lock_guard<std::mutex> creation(m_creation);
        awaitOtherThreads();
        const QStringList before = settleAll();
        QSqlDriver *driver = make();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_entries.insert(driver, {before, {}, QString(), QThread::currentThread()});
        return driver;
    }

    /// The name, looked for when it is not known yet; empty while there is none.
    QString find(const QSqlDriver *driver)
    {
        QString name = known(driver);
        if (!name.isEmpty())
            return name;
        settleAll();
        name = known(driver);
        return name.isEmpty() ? findByHandle(driver) : name;
    }

    /// The name if it was found before.
    QString known(const QSqlDriver *driver) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_entries.value(driver).name;
    }

    /// The driver is being destroyed.
    void forget(const QSqlDriver *driver)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const QString freed = m_entries.take(driver).name;
        for (Entry &entry : m_entries) {
            if (entry.name.isEmpty() && !freed.isEmpty())
                entry.freed.append(freed); // addDatabase() may have given it to the next driver
        }
    }

private:
    struct Entry {
        QStringList before; // registered when the driver was made
        QStringList freed;  // of drivers destroyed since
        QString name;
        const QThread *thread = nullptr;
    };

    static constexpr int settleLimitMs = 1000; // for a driver that is never registered

    void awaitOtherThreads()
    {
        const Deadline limit(settleLimitMs);
        do
            settleAll();
        while (otherThreadsUnsettled() && !limit.expired());
    }

    bool otherThreadsUnsettled() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const Entry &entry : m_entries) {
            if (entry.name.isEmpty() && entry.thread != QThread::currentThread())
                return true;
        }
        return false;
    }

    /// Names those drivers for which one name only comes into question.
    /// @return the registered names.
    QStringList settleAll()
    {
        const QStringList registered = QSqlDatabase::connectionNames();
        std::lock_guard<std::mutex> lock(m_mutex);
        for (Entry &entry : m_entries) {
            if (!entry.name.isEmpty())
                continue;
            const QStringList names = candidates(entry, registered);
            if (names.size() == 1)
                entry.name = names.first();
        }
        return registered;
    }

    /// Caller holds m_mutex.
    QStringList candidates(const Entry &wanted, const QStringList &registered) const
    {
        QStringList names;
        for (const QString &name : registered) {
            if (!wanted.before.contains(name) || wanted.freed.contains(name))
                names.append(name);
        }
        for (const Entry &entry : m_entries)
            names.removeAll(entry.name);
        return names;
    }

    /// Other connections were registered at the same time: the driver's own thread looks which name
    /// leads to it.
    QString findByHandle(const QSqlDriver *driver)
    {
        if (driver->thread() != QThread::currentThread())
            return QString();
        QStringList names;
        const QStringList registered = QSqlDatabase::connectionNames();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            names = candidates(m_entries.value(driver), registered);
        }
        for (const QString &name : qAsConst(names)) {
            if (QSqlDatabase::database(name, false).driver() != driver)
                continue;
            std::lock_guard<std::mutex> lock(m_mutex);
            m_entries[driver].name = name;
            return name;
        }
        return QString();
    }

    std::mutex m_creation; // one driver after the other; taken before m_mutex
    mutable std::mutex m_mutex;
    QHash<const QSqlDriver *, Entry> m_entries; // guarded by m_mutex
};
