#include "vext_sql_thread.h"

#include "debug_line.h"
#include "driver_text.h"
#include "result_reader.h"
#include "sql_secrets.h"
#include "sql_text.h"
#include "statement_execution.h"
#include "thread_session.h"
#include "vext_sql_module.h"

#include <QDateTime>
#include <QSqlQuery>

// The thread body, in the order in which things happen: worker thread.

namespace
{

constexpr int WaitMs = 333;
constexpr int WaitTracingMs = 999;

} // namespace

void VEXT_sqlThr::run()
{
    m_entered = true;
    QString driver;
    QString name;
    {
        QMutexLocker locker(&m_mutexParams);
        driver = driverName;
        name = connectionName + QStringLiteral("_thr");
    }
    ThreadSession session(ConnectionNames::claimThread(name, m_conNumber), m_threadWatch);
    {
        QMutexLocker locker(&m_mutexSqlTasks);
        m_timerNotUse.restart();
    }
    session.create(driver);
    session.setKind(setParamToDb(session.database()));
    while (m_thrStop.loadAcquire() != 1) {
        structThrSql *task = getSqlTask();
        if (!task)
            continue;
        task->inThread = true;
        if (m_thrStop.loadAcquire() == 1) {
            // Asked to stop while the task was taken: nobody would cancel its statement any more.
            failTask(task);
            break;
        }
        if (!openConnection(session, task))
            break;
        runTask(session, task);
    }
    leave(session);
}

VEXT_sqlThr::Wake VEXT_sqlThr::waitForTask(bool trace)
{
    if (m_thrSqlQueue.loadAcquire() != 0)
        return Wake::Task;
    if (m_thrStop.loadAcquire() == 1)
        return Wake::Stop;
    const bool woken = m_waitTask.wait(&m_mutexSqlTasks, trace ? WaitTracingMs : WaitMs);
    if (m_thrSqlQueue.loadAcquire() > 0)
        return Wake::Task;
    if (woken || m_thrStop.loadAcquire() == 1)
        return Wake::Stop;
    return m_timerNotUse.elapsed() < m_timeNotUse ? Wake::TimedOut : Wake::Idle;
}

structThrSql *VEXT_sqlThr::getSqlTask()
{
    QMutexLocker locker(&m_mutexSqlTasks);
    m_thrSqlBusy.storeRelease(0);
    const bool trace = traceLog;
    for (;;) {
        const Wake wake = waitForTask(trace);
        if (wake == Wake::Task)
            break;
        if (wake == Wake::Stop) {
            m_thrStop.testAndSetOrdered(0, 1);
            return nullptr;
        }
        const bool idle = wake == Wake::Idle;
        if (idle) {
            // From here on new tasks wait for the next start instead of failing with this one.
            m_leaving = true;
            m_thrStop.testAndSetOrdered(0, 1);
        }
        if (trace) {
            const qint64 idleMs = m_timerNotUse.elapsed();
            locker.unlock();
            traceIdle(idleMs, idle);
            locker.relock();
        }
        if (idle)
            return nullptr;
    }
    structThrSql *task = takeTask();
    const int left = m_thrSqlQueue.loadAcquire();
    const qint64 idleMs = m_timerNotUse.restart();
    locker.unlock();
    if (trace) {
        DebugLine::debug(VextSqlModule::Worker, WorkerLines::Run + __LINE__, "getSqlTask")
            << "get task: all count " << left << ": elapsed " << idleMs;
    }
    return task;
}

/// With m_mutexSqlTasks held and a task in the queue.
structThrSql *VEXT_sqlThr::takeTask()
{
    structThrSql *task = m_listSqlTasks.takeFirst();
    m_thrSqlQueue.storeRelease(m_listSqlTasks.size());
    // Only the worker counts up; a stop may set the counter back at any time.
    m_thrSqlFinish.storeRelease(m_thrSqlFinish.loadAcquire() + 1);
    m_thrSqlBusy.storeRelease(1);
    m_thrSqlStartMs = QDateTime::currentMSecsSinceEpoch();
    return task;
}

void VEXT_sqlThr::traceIdle(qint64 idleMs, bool leaving)
{
    DebugLine::debug(VextSqlModule::Worker, WorkerLines::Run + __LINE__, "getSqlTask")
        << "wait" << idleMs << (m_thrStop.loadAcquire() == 1 && !leaving ? "STOP" : "")
        << m_thrSqlQueue.loadAcquire();
    if (leaving) {
        sendMessage(WorkerLines::Run + __LINE__, "getSqlTask",
                    tr("очередь простаивает: %1").arg(tr("соединение закрыто")), 0);
    }
}

bool VEXT_sqlThr::openConnection(ThreadSession &session, structThrSql *task)
{
    if (!session.isOpen() && !reopenConnection(session)) {
        m_thrStop.storeRelease(1);
        QMutexLocker locker(&m_mutexSqlTasks);
        failTask(task);
        takeNoMore();
        return false;
    }
    if (session.takeNameDue())
        setPostgresAppName(session.database(), QStringLiteral(" thr"));
    return true;
}

bool VEXT_sqlThr::reopenConnection(ThreadSession &session)
{
    setThreadDriver(nullptr);
    if (session.open()) {
        setThreadDriver(session.database().driver());
        return true;
    }
    const QSqlError error = session.database().lastError();
    setLastError(error);
    if (traceLog) {
        sendMessage(WorkerLines::Run + __LINE__, "run",
                    tr("не смог подключиться к БД '%1'").arg(error.text()), -1);
    }
    return false;
}

void VEXT_sqlThr::setThreadDriver(QSqlDriver *driver)
{
    QMutexLocker locker(&m_mutexDriver);
    m_threadDriver = driver;
}

void VEXT_sqlThr::runTask(ThreadSession &session, structThrSql *task)
{
    if (task->type == taskSql) {
        runStatements(session, task);
        m_thrSqlBusy.storeRelease(0);
    } else {
        // The busy mark stays until the next task is asked for, as for every command.
        keepOutcome(task, session.run(task->type));
    }
    QMutexLocker locker(&m_mutexSqlTasks);
    completeTask(task);
    // Together: what the task's callback queues next belongs to the next start of the thread.
    if (m_thrStop.loadAcquire() == 1)
        takeNoMore();
}

/// Fails what is queued; later tasks wait for the next start. With m_mutexSqlTasks held.
void VEXT_sqlThr::takeNoMore()
{
    if (m_leaving)
        return;
    m_leaving = true;
    failQueuedTasks();
}

void VEXT_sqlThr::keepOutcome(structThrSql *task, const ThreadSession::Outcome &outcome)
{
    task->ok = outcome.ok;
    if (!outcome.ok)
        setLastError(outcome.error);
}

void VEXT_sqlThr::runStatements(ThreadSession &session, structThrSql *task)
{
    const int count = task->sqlList.size();
    for (int i = 0; i < count; ++i) {
        task->current = i;
        const QString &sql = task->sqlList.at(i);
        if (sql.isEmpty()) {
            sendMessage(WorkerLines::Run + __LINE__, "run", tr("пустой запрос"), -1);
            task->failed = true;
            return;
        }
        if (traceLog)
            sendMessage(WorkerLines::Run + __LINE__, "run",
                        tr("sql='%1'").arg(SqlSecrets::maskedStatement(sql)), 2);
        if (const auto outcome = session.runWord(sql)) {
            keepOutcome(task, *outcome);
            continue;
        }
        if (runStatement(session, task, sql) == QSqlError::ConnectionError) {
            session.markLost();
            m_thrStop.storeRelease(1);
        }
        // Statements that are left over do not make a failure of those that ran.
        if (m_thrStop.loadAcquire() == 1)
            return;
    }
}

QSqlError::ErrorType VEXT_sqlThr::runStatement(ThreadSession &session, structThrSql *task,
                                               const QString &sql)
{
    task->timing = task->timing || SqlText::asksForTiming(sql);
    task->kind = session.kind();
    task->sqlQuery = new QSqlQuery(session.database());
    ResultReader(*task->sqlQuery, session.kind()).prepare();
    task->ok = executeStatement(task, sql);
    setLast(task);
    detachSqlResult(task);

    structSqlResult &result = task->results.last();
    if (!task->ok && result.error.type() == QSqlError::NoError)
        result.error =
            QSqlError(QString(), QStringLiteral("unknown error"), QSqlError::UnknownError);
    // Drivers that stream rows report some errors only while these are read.
    const QSqlError::ErrorType error = result.error.type();
    if (error != QSqlError::NoError)
        task->ok = false;
    if (task->ok) {
        ++cnt_sql_ok;
        session.executed(sql);
    } else {
        ++cnt_sql_er;
        task->failed = true;
    }
    return error;
}

bool VEXT_sqlThr::executeStatement(structThrSql *task, const QString &sql)
{
    QSqlQuery &query = *task->sqlQuery;
    if (!task->isProc)
        return StatementExecution::run(*task, m_threadWatch, sql, [&] { return query.exec(sql); });
    const QVariantList values = task->procArgs.value(task->current);
    QString procedure;
    if (!DriverText::complete(query.driver(), sql, values.size(), procedure))
        procedure = SqlText::procedureStatement(sql, values.size(), task->kind.dbmsType);
    bool prepared = true;
    const bool done = StatementExecution::run(*task, m_threadWatch, procedure, [&] {
        prepared = query.prepare(procedure);
        if (!prepared)
            return false;
        for (const QVariant &value : values)
            query.addBindValue(value, QSql::In);
        return query.exec();
    });
    if (!prepared) {
        setLast(task);
        if (traceLog) {
            sendMessage(
                WorkerLines::Run + __LINE__, "run",
                tr("не смог подготовить процедуру '%1' к выполнению\n%2")
                    .arg(SqlSecrets::maskedStatement(sql), SqlSecrets::maskedStatement(procedure)),
                -1);
        }
    }
    return done;
}

void VEXT_sqlThr::leave(ThreadSession &session)
{
    m_thrStop.storeRelease(1);
    // A stop that waits goes on cancelling, which is not meant for the rollback.
    setThreadDriver(nullptr);
    setLastError(session.rollBackRest());
    session.close();
    {
        QMutexLocker locker(&m_mutexSqlTasks);
        takeNoMore();
    }
    session.remove();
}
