#include "vext_sql_thread.h"

#include "debug_line.h"
#include "driver_text.h"
#include "result_reader.h"
#include "sql_secrets.h"
#include "sql_text.h"
#include "statement_execution.h"
#include "thread_session.h"
#include "vext_sql_module.h"

#include <QSqlQuery>

#include <utility>

// The thread body: worker thread.

namespace
{

constexpr int WaitMs = 333;
constexpr int WaitTracingMs = 999;

void traceIdle(VEXT_sqlThr &worker, qint64 idleMs, bool leaving)
{
    DebugLine::debug(VextSqlModule::Worker, WorkerLines::Run + __LINE__, "getSqlTask")
        << "wait" << idleMs << (worker.m_thrStop.loadAcquire() == 1 && !leaving ? "STOP" : "")
        << worker.m_thrSqlQueue.loadAcquire();
    if (leaving) {
        worker.sendMessage(
            WorkerLines::Run + __LINE__, "getSqlTask",
            VEXT_sqlThr::tr("очередь простаивает: %1").arg(VEXT_sqlThr::tr("соединение закрыто")),
            0);
    }
}

} // namespace

/// One run of the thread, from its start to its end, in the order in which things happen.
class VEXT_sqlThr::ThreadBody
{
public:
    ThreadBody(VEXT_sqlThr &worker, ClaimedName name);
    void run(const QString &driver);

private:
    bool openConnection(structThrSql *task);
    bool reopenConnection();
    void runTask(structThrSql *task);
    void keepOutcome(structThrSql *task, const ThreadSession::Outcome &outcome);
    void runStatements(structThrSql *task);
    QSqlError::ErrorType runStatement(structThrSql *task, const QString &sql);
    bool executeStatement(structThrSql *task, const QString &sql);
    void leave();

    VEXT_sqlThr &m_worker;
    const bool m_trace; ///< as it was at the start, for the whole run
    ThreadSession m_session;
    ResultReader::Thread m_reading;
};

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
    ThreadBody body(*this, ConnectionNames::claimThread(name, m_conNumber));
    {
        QMutexLocker locker(&m_mutexSqlTasks);
        m_timerNotUse.restart();
    }
    body.run(driver);
}

VEXT_sqlThr::ThreadBody::ThreadBody(VEXT_sqlThr &worker, ClaimedName name)
    : m_worker(worker)
    , m_trace(worker.traceLog)
    , m_session(std::move(name), worker.m_threadWatch)
    , m_reading{worker.m_stream}
{
}

void VEXT_sqlThr::ThreadBody::run(const QString &driver)
{
    m_session.create(driver);
    m_session.setKind(m_worker.setParamToDb(m_session.database()));
    while (m_worker.m_thrStop.loadAcquire() != 1) {
        structThrSql *task = m_worker.getSqlTask();
        if (!task)
            continue;
        task->inThread = true;
        if (m_worker.m_thrStop.loadAcquire() == 1) {
            // Asked to stop while the task was taken: nobody would cancel its statement any more.
            m_worker.failTask(task);
            break;
        }
        if (!openConnection(task))
            break;
        runTask(task);
    }
    leave();
}

bool VEXT_sqlThr::ThreadBody::openConnection(structThrSql *task)
{
    if (!m_session.isOpen() && !reopenConnection()) {
        m_worker.m_thrStop.storeRelease(1);
        QMutexLocker locker(&m_worker.m_mutexSqlTasks);
        m_worker.failTask(task);
        m_worker.takeNoMore();
        return false;
    }
    if (m_session.takeNameDue())
        m_worker.setPostgresAppName(m_session.database(), QStringLiteral(" thr"));
    return true;
}

bool VEXT_sqlThr::ThreadBody::reopenConnection()
{
    // Opening closes what was lost: a cancel is not meant for it.
    m_worker.setThreadDriver(nullptr);
    if (m_session.open()) {
        m_worker.setThreadDriver(m_session.database().driver());
        return true;
    }
    const QSqlError error = m_session.database().lastError();
    m_worker.setLastError(error);
    if (m_trace) {
        m_worker.sendMessage(WorkerLines::Run + __LINE__, "run",
                             VEXT_sqlThr::tr("не смог подключиться к БД '%1'").arg(error.text()),
                             -1);
    }
    return false;
}

void VEXT_sqlThr::ThreadBody::runTask(structThrSql *task)
{
    if (task->type == taskSql) {
        runStatements(task);
        m_worker.m_thrSqlBusy.storeRelease(0);
    } else if (const auto outcome = m_session.run(task->type)) {
        // The busy mark stays until the next task is asked for, as for every command.
        keepOutcome(task, *outcome);
    }
    if (m_worker.m_thrStop.loadAcquire() != 1) {
        // Without the lock: the callback that this wakes may want it to queue the next task.
        m_worker.completeTask(task);
        return;
    }
    // Together: what the task's callback queues next belongs to the next start of the thread.
    QMutexLocker locker(&m_worker.m_mutexSqlTasks);
    m_worker.completeTask(task);
    m_worker.takeNoMore();
}

void VEXT_sqlThr::ThreadBody::keepOutcome(structThrSql *task, const ThreadSession::Outcome &outcome)
{
    task->ok = outcome.ok;
    if (!outcome.ok)
        m_worker.setLastError(outcome.error);
}

void VEXT_sqlThr::ThreadBody::runStatements(structThrSql *task)
{
    const int count = task->sqlList.size();
    for (int i = 0; i < count; ++i) {
        task->current = i;
        const QString &sql = task->sqlList.at(i);
        if (sql.isEmpty()) {
            m_worker.sendMessage(WorkerLines::Run + __LINE__, "run",
                                 VEXT_sqlThr::tr("пустой запрос"), -1);
            task->failed = true;
            return;
        }
        if (m_trace)
            m_worker.sendMessage(WorkerLines::Run + __LINE__, "run",
                                 VEXT_sqlThr::tr("sql='%1'").arg(SqlSecrets::maskedStatement(sql)),
                                 2);
        if (const auto outcome = m_session.runWord(sql)) {
            keepOutcome(task, *outcome);
            continue;
        }
        if (runStatement(task, sql) == QSqlError::ConnectionError) {
            m_session.markLost();
            m_worker.m_thrStop.storeRelease(1);
        }
        // Statements that are left over do not make a failure of those that ran.
        if (m_worker.m_thrStop.loadAcquire() == 1)
            return;
    }
}

QSqlError::ErrorType VEXT_sqlThr::ThreadBody::runStatement(structThrSql *task, const QString &sql)
{
    task->timing = task->timing || SqlText::asksForTiming(sql);
    task->kind = m_session.kind();
    task->sqlQuery = new QSqlQuery(m_session.database());
    ResultReader(*task->sqlQuery, m_session.kind()).prepare();
    task->ok = executeStatement(task, sql);
    m_worker.setLast(task);
    m_worker.detach(task, &m_reading);

    structSqlResult &result = task->results.last();
    if (!task->ok && result.error.type() == QSqlError::NoError)
        result.error =
            QSqlError(QString(), QStringLiteral("unknown error"), QSqlError::UnknownError);
    // Drivers that stream rows report some errors only while these are read.
    const QSqlError::ErrorType error = result.error.type();
    if (error != QSqlError::NoError)
        task->ok = false;
    if (task->ok) {
        ++m_worker.cnt_sql_ok;
        m_session.executed(sql);
    } else {
        ++m_worker.cnt_sql_er;
        task->failed = true;
    }
    return error;
}

bool VEXT_sqlThr::ThreadBody::executeStatement(structThrSql *task, const QString &sql)
{
    QSqlQuery &query = *task->sqlQuery;
    if (!task->isProc)
        return StatementExecution::run(*task, m_worker.m_threadWatch, sql,
                                       [&] { return query.exec(sql); });
    const QVariantList values = task->procArgs.value(task->current);
    QString procedure;
    if (!DriverText::complete(query.driver(), sql, values.size(), procedure))
        procedure = SqlText::procedureStatement(sql, values.size(), task->kind.dbmsType);
    bool prepared = true;
    const bool done = StatementExecution::run(*task, m_worker.m_threadWatch, procedure, [&] {
        prepared = query.prepare(procedure);
        if (!prepared)
            return false;
        for (const QVariant &value : values)
            query.addBindValue(value, QSql::In);
        return query.exec();
    });
    if (!prepared) {
        m_worker.setLast(task);
        if (m_trace) {
            m_worker.sendMessage(
                WorkerLines::Run + __LINE__, "run",
                VEXT_sqlThr::tr("не смог подготовить процедуру '%1' к выполнению\n%2")
                    .arg(SqlSecrets::maskedStatement(sql), SqlSecrets::maskedStatement(procedure)),
                -1);
        }
    }
    return done;
}

void VEXT_sqlThr::ThreadBody::leave()
{
    m_worker.m_thrStop.storeRelease(1);
    // A stop that waits goes on cancelling, which is not meant for the rollback.
    m_worker.setThreadDriver(nullptr);
    m_worker.setLastError(m_session.rollBackRest());
    m_session.close();
    {
        QMutexLocker locker(&m_worker.m_mutexSqlTasks);
        m_worker.takeNoMore();
    }
    m_session.remove();
}

// --- Taking tasks ---

structThrSql *VEXT_sqlThr::getSqlTask()
{
    QMutexLocker locker(&m_mutexSqlTasks);
    m_thrSqlBusy.storeRelease(0);
    const bool trace = traceLog;
    for (;;) {
        const Wake wake = waitForTask(trace ? WaitTracingMs : WaitMs);
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
            traceIdle(*this, idleMs, idle);
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

void VEXT_sqlThr::takeNoMore()
{
    if (m_leaving)
        return;
    m_leaving = true;
    failQueuedTasks();
}
