#include "pending_work.h"

#include "timers.h"
#include "vext_post.h"

#include <QMetaObject>
#include <QScriptValue>
#include <QStringList>
#include <QVariant>

#include <algorithm>

namespace
{

bool hasMethod(const QObject *object, const char *signature)
{
    return object->metaObject()->indexOfMethod(signature) >= 0;
}

bool flag(const QObject *object, const char *property)
{
    return object->property(property).toBool();
}

bool hasQueuedTasks(QObject *object)
{
    int size = 0;
    return hasMethod(object, "taskSize()") &&
           QMetaObject::invokeMethod(object, "taskSize", Qt::DirectConnection,
                                     Q_RETURN_ARG(int, size)) &&
           size > 0;
}

/// Asks for the statistics only while the worker runs: they hold its figures only then.
bool isExecuting(QObject *object)
{
    if (!flag(object, "isRunning") || !hasMethod(object, "counters()"))
        return false;
    QScriptValue counters;
    QMetaObject::invokeMethod(object, "counters", Qt::DirectConnection,
                              Q_RETURN_ARG(QScriptValue, counters));
    const QScriptValue idleMs = counters.property(QStringLiteral("thr_notUsedMs"));
    const QScriptValue queue = counters.property(QStringLiteral("thr_sql_queue"));
    return queue.toNumber() > 0 || (idleMs.isNumber() && idleMs.toNumber() <= 0);
}

bool waitsForNotifications(const QObject *object)
{
    // In this order: asked on a closed connection, "isSupportEvent" sends a message.
    return flag(object, "isOpen") && !object->property("events").toStringList().isEmpty() &&
           flag(object, "isSupportEvent");
}

bool hasWork(QObject *object)
{
    return hasQueuedTasks(object) || waitsForNotifications(object) || isExecuting(object);
}

} // namespace

PendingWork::PendingWork(const VextPost *post, const Timers *timers)
    : m_post(post)
    , m_timers(timers)
{
}

bool PendingWork::hasPending() const
{
    if (m_timers->hasPending())
        return true;
    const QList<QObject *> objects = m_post->objects();
    return std::any_of(objects.begin(), objects.end(), hasWork);
}

bool PendingWork::isAnyWorkerRunning() const
{
    const QList<QObject *> objects = m_post->objects();
    return std::any_of(objects.begin(), objects.end(),
                       [](const QObject *object) { return flag(object, "isRunning"); });
}

void PendingWork::stopWorkers()
{
    const QList<QObject *> objects = m_post->objects();
    for (QObject *object : objects) {
        if (flag(object, "isRunning") && hasMethod(object, "stop_thread()"))
            QMetaObject::invokeMethod(object, "stop_thread", Qt::DirectConnection);
    }
}
