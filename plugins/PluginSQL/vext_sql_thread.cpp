#include "vext_sql_entry.h"

#include "debug_line.h"
#include "lasting_text.h"
#include "library_life.h"
#include "own_meta_types.h"
#include "statement_execution.h"
#include "vext_sql.h"
#include "vext_sql_module.h"
#include "vextplugin_base.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>

#include <utility>

namespace
{

constexpr int StartLimitMs = 299;
constexpr int StartPollMs = 9;
constexpr int StartSleepMs = 3;
constexpr int StopOnDestroyMs = 1000;
/// A statement may begin just after it was to be cancelled; asking again reaches it.
constexpr int CancelAgainMs = 100;
/// Tells the engine's thread of rows to convert. Only this class posts events to its objects.
constexpr QEvent::Type RowsWait = QEvent::User;

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
    , m_stream([this] { QCoreApplication::postEvent(this, new QEvent(RowsWait)); })
{
    registerMetaTypes();
    Plugin_base::connect_msg(this);
    owner->setTraceLog(false);
    m_conNumber = s_conCounter.fetchAndAddOrdered(1) + 1;
    m_completeMethod =
        staticMetaObject.method(staticMetaObject.indexOfMethod("completeAsyncTask(structThrSql*)"));
    // Emitted by the ending thread, so it arrives in the engine's thread when the thread is over.
    connect(this, &QThread::finished, this, &VEXT_sqlThr::restartForWaitingTasks,
            Qt::QueuedConnection);
    m_shown.follow(this, owner, engine ? engine->parent() : nullptr);
    setConnectionName(QString());
    clearSqlResult();

    LibraryLife::addWorker(this);
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

    LibraryLife::removeWorker(this);
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

void VEXT_sqlThr::customEvent(QEvent *event)
{
    if (event->type() == RowsWait)
        convertWaitingRows();
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
        queued = m_listSqlTasks.size() + (accepted ? 0 : 1);
        idleMs = m_timerNotUse.elapsed();
    }
    if (traceLog) {
        DebugLine::debug(VextSqlModule::Worker, __LINE__, "appendSqlTask")
            << "add task: all count " << queued << ": elapsed " << idleMs << ": isRunning"
            << boolText(accepted && isRunning());
    }
    if (!accepted)
        delete task;
    return accepted;
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
