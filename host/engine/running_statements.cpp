#include "running_statements.h"

#include <QList>
#include <QMutex>
#include <QMutexLocker>
#include <QObject>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QVariant>

namespace
{

class Entry;

struct Entries {
    QMutex mutex;
    QList<Entry *> list; ///< under the mutex
};

Entries &entries()
{
    static Entries s_entries;
    return s_entries;
}

/// One driver, until it is about to be closed or is deleted. Engine's thread, but for cancel().
class Entry : public QObject
{
    Q_OBJECT

public:
    explicit Entry(QSqlDriver *driver)
        : m_driver(driver)
    {
        connect(driver, &QObject::destroyed, this, &Entry::forget);
        const QMutexLocker locker(&entries().mutex);
        entries().list.append(this);
    }

    ~Entry() override
    {
        const QMutexLocker locker(&entries().mutex);
        entries().list.removeAll(this);
    }

    /// With the list's mutex held: the driver lives as long as it is in the list.
    void cancel() { m_driver->cancelQuery(); }

public slots:
    void forget() { delete this; }

private:
    QSqlDriver *m_driver;
};

/// The part of a connection object that tells before it closes: its worker emits "cancelQuery".
QObject *closingPart(const QObject *connection)
{
    const QObjectList parts = connection->children();
    for (QObject *part : parts) {
        if (part->metaObject()->indexOfSignal("cancelQuery()") >= 0)
            return part;
    }
    return nullptr;
}

} // namespace

void RunningStatements::add(QObject *connection)
{
    const QString name = connection->property("connectionName").toString();
    QSqlDriver *driver = QSqlDatabase::database(name, false).driver();
    if (!driver || !driver->hasFeature(QSqlDriver::CancelQuery))
        return;
    QObject *part = closingPart(connection);
    if (part)
        QObject::connect(part, SIGNAL(cancelQuery()), new Entry(driver), SLOT(forget()));
}

void RunningStatements::cancel()
{
    const QMutexLocker locker(&entries().mutex);
    for (Entry *entry : qAsConst(entries().list))
        entry->cancel();
}

#include "running_statements.moc"
