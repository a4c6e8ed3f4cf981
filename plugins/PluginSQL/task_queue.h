/// @file
/// The queue between the threads of one connection.
#pragma once

#include <QAtomicInt>
#include <QElapsedTimer>
#include <QList>
#include <QMutex>
#include <QWaitCondition>

struct structThrSql;

/// The tasks that wait for the worker thread, and how it waits for them. The protocol of starting
/// and leaving around it is the worker's.
class TaskQueue
{
public:
    TaskQueue();

    /// Number of tasks that wait. Any thread.
    int taskSize();

    QList<structThrSql *> m_listSqlTasks; ///< owns its records; m_mutexSqlTasks
    QAtomicInt m_thrSqlQueue;             ///< copy of the queue's length
    QAtomicInt m_thrSqlFinish;            ///< tasks taken since the thread was started or stopped
    QAtomicInt m_thrSqlBusy;              ///< 1 while a task is executed
    qint64 m_thrSqlStartMs = 0;           ///< epoch ms when it was taken; m_mutexSqlTasks
    QAtomicInt m_thrStop;                 ///< 1: leave the loop
    QElapsedTimer m_timerNotUse;          ///< idle time; m_mutexSqlTasks
    QAtomicInt m_timeNotUse{720000};      ///< idle limit in ms
    QWaitCondition m_waitTask;            ///< the worker sleeps on it; with m_mutexSqlTasks
    QMutex m_mutexSqlTasks;

protected:
    enum class Wake { Task, Stop, Idle, TimedOut };

    /// Sleeps once, unless a task or a stop waits. Worker, with m_mutexSqlTasks held.
    Wake waitForTask(int ms);
    /// Takes the first task. Worker, with m_mutexSqlTasks held and a task in the queue.
    structThrSql *takeTask();
};
