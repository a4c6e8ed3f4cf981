#include "vext_sql_thread.h"

#include "debug_line.h"
#include "driver_text.h"
#include "lasting_text.h"
#include "own_meta_types.h"
#include "result_reader.h"
#include "sql_driver_kind.h"
#include "sql_secrets.h"
#include "statement_execution.h"
#include "vext_sql.h"
#include "vext_sql_module.h"
#include "vextplugin_base.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDeadlineTimer>

namespace
{

constexpr int WaitMs = 333;
constexpr int WaitTracingMs = 999;
constexpr int StartLimitMs = 299;
constexpr int StartPollMs = 9;
constexpr int StartSleepMs = 3;
constexpr int StopOnDestroyMs = 1000;
/// A statement may begin just after it was to be cancelled; asking again reaches it.
constexpr int CancelAgainMs = 100;

void registerMetaTypes()
{
    if (VEXT_sqlThr::s_typeFloat.loadAcquire() != 0)
        return;
    OwnMetaTypes::add<QSqlDriver::NotificationSource>("QSqlDriver::NotificationSource");
    OwnMetaTypes::add<structThrSql *>("structThrSql*");
    VEXT_sqlThr::s_typeFloat.storeRelease(
        QMetaType::registerTypedef("float", int(QMetaType::Float)));
}

const char *boolText(bool value)
{
    return value ? "true" : "false";
}

} // namespace

VEXT_sqlThr::VEXT_sqlThr(VEXT_SQL *owner, QScriptEngine *engine)
    : QThread(owner)
    , m_owner(owner)
    , m_engine(engine)
{
    registerMetaTypes();
    Plugin_base::connect_msg(this);
    owner->setTraceLog(false);
    m_timerNotUse.start();
    m_conNumber = s_conCounter.fetchAndAddOrdered(1) + 1;
    m_completeMethod =
        staticMetaObject.method(staticMetaObject.indexOfMethod("completeAsyncTask(structThrSql*)"));
    // Emitted by the ending thread, so it arrives in the engine's thread when the thread is over.
    connect(this, &QThread::finished, this, &VEXT_sqlThr::restartForWaitingTasks,
            Qt::QueuedConnection);
    m_shown.follow(this, owner, engine ? engine->parent() : nullptr);
    setConnectionName(QString());
    clearSqlResult();

    QMutexLocker locker(&s_mutexWorkers);
    s_workers.append(this);
}

VEXT_sqlThr::~VEXT_sqlThr()
{
    m_isDestroy = true;
    ++m_depth; // what the steps below call must not ask for another deletion
    if (isRunning())
        stop_thread(StopOnDestroyMs);
    while (isRunning()) {
        requestCancelQuery();
        wait(CancelAgainMs);
    }
    wait();
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    // Whatever was not delivered, because no event loop is left to do it, is freed here.
    m_listSqlTasks.clear();
    qDeleteAll(m_accepted);
    m_accepted.clear();
    if (db.isValid() && db.isOpen())
        close(true);
    m_relay.runDeferredSteps();

    QMutexLocker locker(&s_mutexWorkers);
    s_workers.removeOne(this);
}

void VEXT_sqlThr::releaseFromOwner(bool atOnce)
{
    m_owner = nullptr;
    setParent(nullptr);
    // Nobody is left to be told: what is queued need not run until the event loop comes round.
    m_thrStop.storeRelease(1);
    requestCancelQuery();
    {
        QMutexLocker locker(&m_mutexSqlTasks);
        m_waitTask.wakeAll();
    }
    end(atOnce);
}

void VEXT_sqlThr::end(bool atOnce)
{
    if (m_depth > 0)
        m_ending = atOnce ? Ending::AtOnce : Ending::Later;
    else if (atOnce)
        delete this;
    else
        deleteLater();
}

void VEXT_sqlThr::leaveEntry()
{
    if (--m_depth > 0)
        return;
    const Ending ending = std::exchange(m_ending, Ending::None);
    if (ending == Ending::AtOnce)
        delete this;
    else if (ending == Ending::Later)
        deleteLater();
}

bool VEXT_sqlThr::setScriptValueThis(const QScriptValue &scriptValue)
{
    QObject *wrapped = scriptValue.toQObject();
    if (!wrapped || wrapped != parent())
        return false;
    m_scriptValueThis = scriptValue;
    return true;
}

void VEXT_sqlThr::sendMessage(int line, const char *function, const QString &text, int level)
{
    emit s_msg(lastingText(VextSqlModule::Worker), line, lastingText(function), text, level);
}

// --- Start and stop: engine's thread ---

bool VEXT_sqlThr::start_thread()
{
    QMutexLocker locker(&m_mutexSqlTasks);
    return startLocked();
}

/// The flags are reset before the thread exists, so that a stop asked for later is never undone.
bool VEXT_sqlThr::startLocked()
{
    if (isRunning())
        return true;
    m_thrStop.storeRelease(0);
    m_thrSqlFinish.storeRelease(0);
    m_thrSqlBusy.storeRelease(0);
    m_leaving = false;
    m_entered = false;
    start(QThread::InheritPriority);
    if (waitStart())
        return true;
    m_leaving = true;
    return false;
}

bool VEXT_sqlThr::waitStart()
{
    if (!isRunning())
        m_thrStop.storeRelease(0);
    QElapsedTimer limit;
    limit.start();
    while (!isRunning() && limit.elapsed() <= StartLimitMs) {
        QElapsedTimer poll;
        poll.start();
        while (poll.elapsed() <= StartPollMs && m_thrStop.loadAcquire() != 1)
            QThread::msleep(StartSleepMs);
    }
    return isRunning();
}

void VEXT_sqlThr::stop_thread(int tout_ms)
{
    const Entry entry(this);
    if (!isRunning()) {
        failWaitingTasks();
        return;
    }
    const auto traceStep = [this](const char *step, int line) {
        if (traceLog)
            DebugLine::debug(VextSqlModule::Worker, line, "stop_thread")
                << step << m_thrSqlQueue.loadAcquire();
    };
    traceStep("step 1: all count ", __LINE__);
    m_thrStop.storeRelease(1);
    requestCancelQuery();
    {
        QMutexLocker locker(&m_mutexSqlTasks);
        if (m_leaving)
            failQueuedTasks();
        m_waitTask.wakeAll();
    }
    const bool stopped = waitWhileCancelling(qMax(tout_ms, 0));
    if (!stopped && traceLog) {
        sendMessage(
            __LINE__, "stop_thread",
            tr("SQL поток не остановился за %1 мс; запрос мог не поддержать отмену").arg(tout_ms),
            0);
    }
    traceStep("step 2: all count ", __LINE__);
    m_thrStop.storeRelease(1);
    m_thrSqlFinish.storeRelease(0);
    m_thrSqlBusy.storeRelease(0);
    if (stopped)
        failWaitingTasks();
    traceStep("step 3: all count ", __LINE__);
}

bool VEXT_sqlThr::waitWhileCancelling(int tout_ms)
{
    const QDeadlineTimer deadline(tout_ms);
    for (;;) {
        const qint64 left = deadline.remainingTime();
        if (wait(static_cast<unsigned long>(qMin<qint64>(left, CancelAgainMs))))
            return true;
        if (left <= CancelAgainMs)
            return false;
        requestCancelQuery();
    }
}

void VEXT_sqlThr::requestCancelQuery()
{
    QMutexLocker locker(&m_mutexDriver);
    if (m_threadDriver && m_threadDriver->hasFeature(QSqlDriver::CancelQuery))
        m_threadDriver->cancelQuery();
}

/// Tasks accepted while the thread was already leaving wait for it to finish; then it starts again.
void VEXT_sqlThr::restartForWaitingTasks()
{
    QMutexLocker locker(&m_mutexSqlTasks);
    if (m_isDestroy || isRunning() || m_listSqlTasks.isEmpty())
        return;
    if (!m_owner || !startLocked())
        failQueuedTasks();
}

// --- Queue: engine's thread ---

int VEXT_sqlThr::taskSize()
{
    QMutexLocker locker(&m_mutexSqlTasks);
    return m_listSqlTasks.size();
}

bool VEXT_sqlThr::appendSqlTask(structThrSql *task)
{
    const Entry entry(this);
    if (!task)
        return false;
    if (!db.isValid() || !db.isOpen()) {
        delete task;
        reportNotOpen("appendSqlTask", __LINE__);
        return false;
    }
    int queued = 0;
    qint64 idleMs = 0;
    bool accepted = false;
    {
        QMutexLocker locker(&m_mutexSqlTasks);
        // A thread that runs but takes no more tasks is started again when it has finished.
        accepted = startLocked();
        if (accepted) {
            m_listSqlTasks.append(task);
            m_accepted.push_back(task);
            m_thrSqlQueue.storeRelease(m_listSqlTasks.size());
            m_waitTask.wakeAll();
        }
        queued = m_listSqlTasks.size();
        idleMs = m_timerNotUse.elapsed();
    }
    if (!accepted) {
        delete task;
        return false;
    }
    if (traceLog) {
        DebugLine::debug(VextSqlModule::Worker, __LINE__, "appendSqlTask")
            << "add task: all count " << queued << ": elapsed " << idleMs << ": isRunning"
            << boolText(isRunning());
    }
    return true;
}

void VEXT_sqlThr::appendSqlTaskType(taskSqlType type)
{
    if (!isRunning())
        return;
    auto *task = new structThrSql;
    task->type = type;
    appendSqlTask(task);
}

void VEXT_sqlThr::failWaitingTasks()
{
    QMutexLocker locker(&m_mutexSqlTasks);
    if (!isRunning())
        failQueuedTasks();
}

bool VEXT_sqlThr::transactionCommand(bool (QSqlDatabase::*command)(), taskSqlType type)
{
    if (!db.isValid() || !db.isOpen() || !db.driver() ||
        !db.driver()->hasFeature(QSqlDriver::Transactions))
        return false;
    const Entry entry(this);
    const bool running = isRunning();
    const bool done = (db.*command)();
    if (!done)
        setLastError(db.lastError());
    // A thread that has ended tells nobody else that its transaction went with it.
    const bool lost =
        type == taskCommit && (m_mainWatch.isLost() || (!running && m_threadWatch.isLost()));
    if (lost)
        setLastError(StatementExecution::lostTransaction());
    if (!running)
        m_threadWatch.ended();
    if (type == taskTransaction) {
        if (done)
            m_mainWatch.begun();
    } else {
        m_mainWatch.ended();
        m_relay.afterTransaction();
    }
    if (!done || lost)
        return false;
    if (running)
        appendSqlTaskType(type);
    return true;
}

bool VEXT_sqlThr::transaction()
{
    return transactionCommand(&QSqlDatabase::transaction, taskTransaction);
}

bool VEXT_sqlThr::commit()
{
    return transactionCommand(&QSqlDatabase::commit, taskCommit);
}

bool VEXT_sqlThr::rollback()
{
    return transactionCommand(&QSqlDatabase::rollback, taskRollback);
}

// --- Completion hand-over: any thread ---

void VEXT_sqlThr::completeTask(structThrSql *task)
{
    if (m_completeMethod.invoke(this, Qt::QueuedConnection, Q_ARG(structThrSql *, task)))
        return;
    // Qt has forgotten the argument's type, for example; this way needs none.
    QMetaObject::invokeMethod(
        this, [this, task] { completeAsyncTask(task); }, Qt::QueuedConnection);
}

void VEXT_sqlThr::failTask(structThrSql *task)
{
    task->failed = true;
    task->ok = false;
    completeTask(task);
}

void VEXT_sqlThr::failQueuedTasks()
{
    for (structThrSql *task : qAsConst(m_listSqlTasks))
        failTask(task);
    m_listSqlTasks.clear();
    m_thrSqlQueue.storeRelease(0);
}

// --- Thread body: worker thread ---

void VEXT_sqlThr::run()
{
    m_entered = true;
    ThreadConnection con;
    createThreadConnection(con);
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
        if (!openThreadConnection(con, task))
            break;
        runTask(con, task);
    }
    leave(con);
}

void VEXT_sqlThr::createThreadConnection(ThreadConnection &con)
{
    QString driver;
    QString wanted;
    {
        QMutexLocker locker(&m_mutexParams);
        wanted = connectionName + QStringLiteral("_thr");
        driver = driverName;
    }
    con.claim = ConnectionNames::claimThread(wanted, m_conNumber);
    con.name = con.claim.text();
    if (QSqlDatabase::contains(con.name)) {
        {
            QSqlDatabase leftover = QSqlDatabase::database(con.name, false);
            if (leftover.isOpen())
                leftover.close();
        }
        QSqlDatabase::removeDatabase(con.name);
    }
    {
        QMutexLocker locker(&m_mutexSqlTasks);
        m_timerNotUse.restart();
    }
    con.db = QSqlDatabase::addDatabase(driver, con.name);
    con.kind = setParamToDb(con.db);
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
        DebugLine::debug(VextSqlModule::Worker, __LINE__, "getSqlTask")
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
    DebugLine::debug(VextSqlModule::Worker, __LINE__, "getSqlTask")
        << "wait" << idleMs << (m_thrStop.loadAcquire() == 1 && !leaving ? "STOP" : "")
        << m_thrSqlQueue.loadAcquire();
    if (leaving) {
        sendMessage(__LINE__, "getSqlTask",
                    tr("очередь простаивает: %1").arg(tr("соединение закрыто")), 0);
    }
}

bool VEXT_sqlThr::openThreadConnection(ThreadConnection &con, structThrSql *task)
{
    if (!con.db.isOpen() && !reopenThreadConnection(con)) {
        m_thrStop.storeRelease(1);
        QMutexLocker locker(&m_mutexSqlTasks);
        failTask(task);
        takeNoMore();
        return false;
    }
    if (!con.appNameSet && con.kind.dbmsType == SqlDriverKind::PostgreSql) {
        setPostgresAppName(con.db, QStringLiteral(" thr"));
        con.appNameSet = true;
    }
    return true;
}

bool VEXT_sqlThr::reopenThreadConnection(ThreadConnection &con)
{
    // What a driver keeps of a connection that it found lost is freed only by close().
    setThreadDriver(nullptr);
    if (con.opened) {
        con.db.close();
        m_threadWatch.sessionLost();
    }
    con.inTransaction = false;
    if (!con.db.open()) {
        const QSqlError error = con.db.lastError();
        setLastError(error);
        if (traceLog) {
            sendMessage(__LINE__, "run", tr("не смог подключиться к БД '%1'").arg(error.text()),
                        -1);
        }
        return false;
    }
    setThreadDriver(con.db.driver());
    con.opened = true;
    con.appNameSet = false;
    return true;
}

void VEXT_sqlThr::setThreadDriver(QSqlDriver *driver)
{
    QMutexLocker locker(&m_mutexDriver);
    m_threadDriver = driver;
}

void VEXT_sqlThr::runTask(ThreadConnection &con, structThrSql *task)
{
    if (task->type == taskSql) {
        runStatements(con, task);
        m_thrSqlBusy.storeRelease(0);
    } else {
        // The busy mark stays until the next task is asked for, as for every command.
        runCommand(con, task);
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

void VEXT_sqlThr::runCommand(ThreadConnection &con, structThrSql *task)
{
    switch (task->type) {
    case taskTransaction:
        beginTransaction(con, task);
        break;
    case taskCommit:
        commitTransaction(con, task, true);
        break;
    case taskRollback:
        rollBackTransaction(con, task, true);
        break;
    default:
        break;
    }
}

void VEXT_sqlThr::beginTransaction(ThreadConnection &con, structThrSql *task)
{
    if (con.inTransaction)
        con.db.rollback();
    task->ok = con.db.transaction();
    con.inTransaction = task->ok;
    m_threadWatch.ended();
    if (task->ok)
        m_threadWatch.begun();
    else
        setLastError(con.db.lastError());
}

/// A commit behind a lost session is no success: what it was to keep is gone.
/// @param onlyOwn leaves a connection alone on which transaction() began nothing.
void VEXT_sqlThr::commitTransaction(ThreadConnection &con, structThrSql *task, bool onlyOwn)
{
    task->ok = (onlyOwn && !con.inTransaction) || con.db.commit();
    if (!task->ok)
        setLastError(con.db.lastError());
    if (m_threadWatch.isLost()) {
        task->ok = false;
        setLastError(StatementExecution::lostTransaction());
    }
    m_threadWatch.ended();
    con.inTransaction = false;
}

void VEXT_sqlThr::rollBackTransaction(ThreadConnection &con, structThrSql *task, bool onlyOwn)
{
    task->ok = (onlyOwn && !con.inTransaction) || con.db.rollback();
    if (!task->ok)
        setLastError(con.db.lastError());
    m_threadWatch.ended();
    con.inTransaction = false;
}

void VEXT_sqlThr::runStatements(ThreadConnection &con, structThrSql *task)
{
    const int count = task->sqlList.size();
    for (int i = 0; i < count; ++i) {
        task->current = i;
        const QString &sql = task->sqlList.at(i);
        if (sql.isEmpty()) {
            sendMessage(__LINE__, "run", tr("пустой запрос"), -1);
            task->failed = true;
            return;
        }
        if (traceLog)
            sendMessage(__LINE__, "run", tr("sql='%1'").arg(SqlSecrets::maskedStatement(sql)), 2);
        if (runTransactionWord(con, task, sql))
            continue;
        if (runStatement(con, task, sql) == QSqlError::ConnectionError) {
            con.lost = true;
            m_thrStop.storeRelease(1);
        }
        // Statements that are left over do not make a failure of those that ran.
        if (m_thrStop.loadAcquire() == 1)
            return;
    }
}

bool VEXT_sqlThr::runTransactionWord(ThreadConnection &con, structThrSql *task, const QString &sql)
{
    switch (SqlText::transactionWord(sql)) {
    case SqlText::TransactionWord::Commit:
        commitTransaction(con, task, false);
        return true;
    case SqlText::TransactionWord::Rollback:
        rollBackTransaction(con, task, false);
        return true;
    case SqlText::TransactionWord::None:
        break;
    }
    return false;
}

QSqlError::ErrorType VEXT_sqlThr::runStatement(ThreadConnection &con, structThrSql *task,
                                               const QString &sql)
{
    task->timing = task->timing || SqlText::asksForTiming(sql);
    task->kind = con.kind;
    task->sqlQuery = new QSqlQuery(con.db);
    ResultReader(*task->sqlQuery, con.kind).prepare();
    task->ok = executeStatement(con, task, sql);
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
        m_threadWatch.executed(StatementRules::transactionStep(sql, con.kind.dbmsType));
    } else {
        ++cnt_sql_er;
        task->failed = true;
    }
    return error;
}

bool VEXT_sqlThr::executeStatement(ThreadConnection &con, structThrSql *task, const QString &sql)
{
    QSqlQuery &query = *task->sqlQuery;
    if (!task->isProc)
        return StatementExecution::run(*task, m_threadWatch, sql, [&] { return query.exec(sql); });
    const QVariantList values = task->procArgs.value(task->current);
    QString procedure;
    if (!DriverText::complete(query.driver(), sql, values.size(), procedure))
        procedure = SqlText::procedureStatement(sql, values.size(), con.kind.dbmsType);
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
                __LINE__, "run",
                tr("не смог подготовить процедуру '%1' к выполнению\n%2")
                    .arg(SqlSecrets::maskedStatement(sql), SqlSecrets::maskedStatement(procedure)),
                -1);
        }
    }
    return done;
}

void VEXT_sqlThr::leave(ThreadConnection &con)
{
    m_thrStop.storeRelease(1);
    // A stop that waits goes on cancelling, which is not meant for the rollback.
    setThreadDriver(nullptr);
    if (con.lost || (con.opened && !con.db.isOpen()))
        m_threadWatch.sessionLost();
    else
        m_threadWatch.sessionClosed();
    if (con.inTransaction)
        con.db.rollback();
    setLastError(con.db.lastError());
    if (con.opened)
        con.db.close();
    con.db = QSqlDatabase();
    {
        QMutexLocker locker(&m_mutexSqlTasks);
        takeNoMore();
    }
    if (QSqlDatabase::contains(con.name))
        QSqlDatabase::removeDatabase(con.name);
    con.claim = ClaimedName();
}
