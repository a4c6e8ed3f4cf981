#include "task_queue.h"

#include <QDateTime>
#include <QMutexLocker>

TaskQueue::TaskQueue()
{
    m_timerNotUse.start();
}

int TaskQueue::taskSize()
{
    QMutexLocker locker(&m_mutexSqlTasks);
    return m_listSqlTasks.size();
}

TaskQueue::Wake TaskQueue::waitForTask(int ms)
{
    if (m_thrSqlQueue.loadAcquire() != 0)
        return Wake::Task;
    if (m_thrStop.loadAcquire() == 1)
        return Wake::Stop;
    const bool woken = m_waitTask.wait(&m_mutexSqlTasks, static_cast<unsigned long>(ms));
    if (m_thrSqlQueue.loadAcquire() > 0)
        return Wake::Task;
    if (woken)
        return Wake::Stop;
    // Stopped, but not woken yet: traced as a wait that ended by itself, which the next look ends.
    if (m_thrStop.loadAcquire() == 1)
        return Wake::TimedOut;
    return m_timerNotUse.elapsed() < m_timeNotUse ? Wake::TimedOut : Wake::Idle;
}

structThrSql *TaskQueue::takeTask()
{
    structThrSql *task = m_listSqlTasks.takeFirst();
    m_thrSqlQueue.storeRelease(m_listSqlTasks.size());
    // Only the worker counts up; a stop may set the counter back at any time.
    m_thrSqlFinish.storeRelease(m_thrSqlFinish.loadAcquire() + 1);
    m_thrSqlBusy.storeRelease(1);
    m_thrSqlStartMs = QDateTime::currentMSecsSinceEpoch();
    return task;
}
