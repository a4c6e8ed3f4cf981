/// @file
/// The worker of one connection: its parameters, its main connection, its queue and its thread.
#pragma once

#include "connection_names.h"
#include "notification_relay.h"
#include "result_object.h"
#include "sql_records.h"
#include "sql_text.h"
#include "statistics.h"
#include "thread_session.h"
#include "transaction_watch.h"

#include <QAtomicInt>
#include <QElapsedTimer>
#include <QMetaMethod>
#include <QMutex>
#include <QPointer>
#include <QScriptEngine>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QStringList>
#include <QThread>
#include <QWaitCondition>

#include <atomic>
#include <deque>
#include <functional>
#include <utility>
#include <vector>

class QTextCodec;
class VEXT_SQL;

/// Carries the whole state of one script connection and runs its queued tasks.
///
/// Two database connections exist: the main one (`db`), used in the engine's thread, and the
/// thread connection, which run() makes, uses and removes in the worker thread.
///
/// Threads: the object lives in the engine's thread, and so does every member that is not marked
/// otherwise. run() and what it calls execute in the worker thread and never touch a script value.
/// Both threads call what gives a connection its parameters, executes a statement and reads its
/// rows (detachSqlResult()), keeps the last
/// statement and its error (setLast(), setLastError()), and sends a message: each for the
/// connection and the task that it holds itself. Beyond these two such a function touches atomics,
/// and fields under their lock.
/// No two locks of this class are held at once, and none while script code runs or a signal is
/// emitted.
///
/// Ownership: child of its VEXT_SQL, which takes it out of the tree and releases it with
/// deleteLater(). The engine may be gone by then; it is held weakly and tasks are freed unserved.
class VEXT_sqlThr : public QThread
{
    Q_OBJECT
    Q_CLASSINFO("Author", "Vext SQL team")
    Q_CLASSINFO("URL", "https://vext.invalid/")

public:
    VEXT_sqlThr(VEXT_SQL *owner, QScriptEngine *engine);
    /// Stops the thread, cancelling what runs, and frees every task that is left.
    ~VEXT_sqlThr() override;

    /// Cuts the ties to an owner that is being destroyed and ends the worker: through the event
    /// loop, or `atOnce` where none will run any more. While one of its functions is on the stack,
    /// because script code called from there deleted the owner, it lives on until that returns.
    void releaseFromOwner(bool atOnce);
    /// Ends a worker without owner, in the same two ways.
    void end(bool atOnce);

    // --- Thread and queue (vext_sql_thread.cpp) ---

    /// Starts the thread if it is not running. @return whether it runs.
    bool start_thread();
    /// Waits up to about 300 ms for the thread to come up. @return whether it runs.
    bool waitStart();
    /// Asks the thread to stop, cancels its statement, and waits. Tasks that are still queued are
    /// completed as failed. @param tout_ms limit of the wait in ms; 0 and less do not wait.
    void stop_thread(int tout_ms);
    /// Cancels the statement that runs on the thread connection, if the driver can. Any thread.
    void requestCancelQuery();
    /// Queues a task and starts the thread when needed. Owns `task` from here on, also when it is
    /// refused. Never waits for a statement. @return false when the task was refused and freed.
    bool appendSqlTask(structThrSql *task);
    /// Queues a bare command task while the thread runs.
    void appendSqlTaskType(taskSqlType type);
    /// Number of tasks that wait in the queue.
    int taskSize();
    /// Transaction commands: on the main connection at once, and on the thread connection through
    /// the queue while the thread runs. @return the outcome on the main connection.
    bool transaction();
    bool commit();
    bool rollback();

    // --- Connection (vext_sql_connection.cpp) ---

    /// Chooses a connection name; raises a TypeError in the engine's context while open.
    void setConnectionName(const QString &name);
    /// Classifies the driver and copies the parameters into `db`. Engine's and worker thread.
    /// @return the kind of the connection.
    SqlDriverKind::ConnectionKind setParamToDb(QSqlDatabase &db);
    /// Tells a PostgreSQL server the application name. Engine's and worker thread.
    bool setPostgresAppName(QSqlDatabase &db, const QString &suffix);
    bool open();
    /// @param stopThread also ends the worker thread, waiting up to 90 s for its statement.
    bool close(bool stopThread);
    void setCodec(const QString &name);
    /// "не открыто соединение с …" (connection not open) with database, port and host.
    QString notOpenText() const;
    /// Text of the last error, empty when there is none.
    QString lastError();
    /// The last error as a map with the keys that scripts read.
    QVariantMap lastErrors();
    /// Assigns a connection parameter where other engines' statistics may be reading it.
    template <typename T>
    void setParameter(T &field, const T &value)
    {
        QMutexLocker locker(&m_mutexParams);
        field = value;
    }

    // --- Statements in the engine's thread (vext_sql_statement.cpp) ---

    /// Runs one statement as given. @return its result object, or false.
    QScriptValue query(const QString &sql);
    /// Runs a procedure or completes a statement head with bound values. @return as query().
    QScriptValue exec(const QString &text, const QScriptValue &args);
    /// Text of a procedure call with positional placeholders. Any thread.
    QString procedureSql(const QString &text, int count) const;

    // --- Results (vext_sql_result.cpp) ---

    /// Moves the outcome of the task's query into a record and frees the query. Executing thread.
    /// @return whether the statement ended without error and was not cancelled.
    bool detachSqlResult(structThrSql *task);
    /// Copies the query's text and error into the last-statement fields. Executing thread.
    void setLast(structThrSql *task);
    /// Empties the result object of the last synchronous call, which the script may still hold.
    void clearSqlResult();
    QString lastQueryText();
    int lastAffectedRows();

    // --- Notifications (vext_sql_event.cpp) ---

    bool isSupportEvent() const;
    bool add_event(const QString &name);
    /// Where the server refuses for now, the name's events are dropped and it is asked again.
    bool rem_event(const QString &name);
    QStringList events() const;

    // --- Introspection (vext_sql_info.cpp) ---

    bool tables(int ttype);
    QVariant hasFeature() const;
    /// Statistics, made with `eng`, or with the own engine when it is null. May be called for a
    /// connection of another engine's thread as long as the registry's lock keeps it alive.
    QScriptValue counters(QScriptEngine *eng);

signals:
    void opened();
    void closed();
    void cancelQuery();
    void query_finish(const QScriptValue &, const QScriptValue &, const QScriptValue &,
                      const QScriptValue &);
    void event(const QString &name, QSqlDriver::NotificationSource source, const QVariant &payload);
    /// Messages to the host; emitted from both threads.
    void s_msg(const char *, int, const char *, const QString &, int);

public slots:
    /// Accepts only a value that wraps the owner.
    bool setScriptValueThis(const QScriptValue &scriptValue);

private:
    Q_INVOKABLE QScriptValue fetchResult(structThrSql *sqlTask);
    Q_INVOKABLE QScriptValue queryFinish(structThrSql *sqlTask);
    Q_INVOKABLE QScriptValue fetchResFin(structThrSql *sqlTask);
    Q_INVOKABLE void fetchResThr(structThrSql *sqlTask);
    Q_INVOKABLE void queryFinThr(structThrSql *sqlTask);
    Q_INVOKABLE void completeAsyncTask(structThrSql *sqlTask);

protected:
    /// The thread body. Worker.
    void run() override;

public:
    // State. VEXT_SQL reads and assigns part of it directly, hence public.

    QScriptValue m_scriptValueThis;    ///< script value of the owner; engine's thread
    QScriptValue m_arrayPush;          ///< the engine's own Array.prototype.push; engine's thread
    ResultObject::Names m_resultNames; ///< engine's thread

    QList<structThrSql *> m_listSqlTasks; ///< the queue, owns its records; m_mutexSqlTasks
    QAtomicInt m_thrSqlQueue;             ///< copy of the queue's length
    QAtomicInt m_thrSqlFinish;            ///< tasks taken since the thread was started or stopped
    QAtomicInt m_thrSqlBusy;              ///< 1 while a task is executed
    qint64 m_thrSqlStartMs = 0;           ///< epoch ms when it was taken; m_mutexSqlTasks
    QAtomicInt m_thrStop;                 ///< 1: leave the loop
    QElapsedTimer m_timerNotUse;          ///< idle time; m_mutexSqlTasks
    QAtomicInt m_timeNotUse{720000};      ///< idle limit in ms
    QWaitCondition m_waitTask;            ///< the worker sleeps on it; with m_mutexSqlTasks
    QMutex m_mutexSqlTasks;
    QMutex m_mutexLast;                   ///< guards lastQuery, m_lastError, affectedRows
    QMutex m_mutexDriver;                 ///< guards m_threadDriver
    QSqlDriver *m_threadDriver = nullptr; ///< driver of the open thread connection
    int m_conNumber = 0;                  ///< serial number of this worker, from 1

    QStringList m_listEvents;       ///< subscribed names; written in the engine's thread under
                                    ///< m_mutexParams
    QStringList m_listEventsCallee; ///< where each was subscribed; likewise

    bool enableNull = true; ///< NULL is delivered as null; engine's thread
    std::atomic<bool> traceLog{false};
    bool m_isDestroy = false; ///< engine's thread

    QSqlDatabase db;         ///< main connection; engine's thread only
    QAtomicInt m_driverType; ///< kind of Qt driver
    QAtomicInt m_dbmsType;   ///< database system behind it

    // Connection parameters: written in the engine's thread under m_mutexParams, read there freely,
    // elsewhere under the lock. They take effect at the next open of the main connection, and at
    // the next start of the thread for its own.
    QMutex m_mutexParams;
    QString app_name;
    QString driverName;
    QString databaseName;
    QString userName;
    QString password;
    QString hostName;
    int port = -1; ///< used when above 0
    QString connectOptions;
    QString connectionName;

    QString lastQuery;     ///< m_mutexLast
    QSqlError m_lastError; ///< m_mutexLast
    int affectedRows = 0;  ///< m_mutexLast

    // Statistics; read by other engines' threads too.
    QAtomicInt cnt_open;
    QAtomicInt cnt_opened;
    QAtomicInt cnt_closed;
    QAtomicInt cnt_sql_ok; ///< counted by both threads
    QAtomicInt cnt_sql_er; ///< counted by both threads

    QTextCodec *m_codec = nullptr; ///< Qt's
    VEXT_SQL *m_owner;             ///< null once the owner is being destroyed
    QPointer<QScriptEngine> m_engine;

    static QAtomicInt s_conCounter; ///< workers made so far
    static QAtomicInt s_typeFloat;  ///< meta-type id of "float", 0 until the first construction

    /// Every worker of the process, guarded by s_mutexWorkers.
    static QList<VEXT_sqlThr *> s_workers;
    static QMutex s_mutexWorkers;

    /// Takes the next task, waiting for one; null tells the caller to look at m_thrStop. Worker.
    structThrSql *getSqlTask();

private:
    // Thread body, in the order in which things happen. Worker.
    enum class Wake { Task, Stop, Idle, TimedOut };
    Wake waitForTask(bool trace);
    structThrSql *takeTask();
    void traceIdle(qint64 idleMs, bool leaving);
    bool openConnection(ThreadSession &session, structThrSql *task);
    bool reopenConnection(ThreadSession &session);
    void setThreadDriver(QSqlDriver *driver);
    void runTask(ThreadSession &session, structThrSql *task);
    void keepOutcome(structThrSql *task, const ThreadSession::Outcome &outcome);
    void runStatements(ThreadSession &session, structThrSql *task);
    QSqlError::ErrorType runStatement(ThreadSession &session, structThrSql *task,
                                      const QString &sql);
    bool executeStatement(structThrSql *task, const QString &sql);
    void leave(ThreadSession &session);

    /// Hands a finished task to the engine's thread; not touched afterwards. Any thread.
    void completeTask(structThrSql *task);
    /// Completes a task that never ran. Any thread.
    void failTask(structThrSql *task);
    /// Fails every queued task. Any thread, with m_mutexSqlTasks held.
    void failQueuedTasks();
    void failWaitingTasks();
    void takeNoMore();

    bool startLocked();
    bool waitWhileCancelling(int tout_ms);
    void restartForWaitingTasks();
    bool transactionCommand(bool (QSqlDatabase::*command)(), taskSqlType type);

    // Connection.
    void setName(const QString &name);
    ClaimedName claimNameToOpen();
    bool isClosing(const QString &name) const;
    bool openMain(ClaimedName name);
    void refuseOpenTwice();
    void reportOpenFailure();
    /// In which state the main connection is given up; Lost is what the driver found out itself.
    enum class Dropped { Open, Lost, NeverOpened };
    void dropMain(Dropped state);
    void closeRegistered(const QString &name, Dropped state);
    void announceEvents();
    void connectDriver();
    void setLastError(const QSqlError &error);
    void reportNotOpen(const char *function, int line);

    // Statements.
    class Stopwatch;
    QSqlError finishReading(structThrSql *task);
    void afterStatement(const QString &sql, const QSqlError &error);
    void reportFailure(const char *function, const QSqlError &error);
    void reportUnprepared(structThrSql *task, const QString &text);
    void closeOnConnectionError(const QSqlError &error);
    void bindArguments(QSqlQuery &query, const QVariantList &values, bool positional, bool trace);
    bool argumentValues(const QScriptValue &args, QVariantList &values);

    // Results.
    SqlDriverKind::ConnectionKind kindOf(const structThrSql *task) const;
    void prepareContainers(structThrSql *task);
    void convertEntry(structThrSql *task, structSqlResult &entry);
    void forgetAccepted(structThrSql *task);
    void callBack(structThrSql *task, const QScriptValue &age);
    void emitQueryFinish(structThrSql *task, const QScriptValue &age);
    void publishResult(const QScriptValue &value);

    // Notifications.
    void relayNotification(const QString &name, QSqlDriver::NotificationSource source,
                           const QVariant &payload);
    void subscribeAll();
    void unsubscribeAll(QSqlDriver *driver);

    // Introspection.
    Statistics statistics();

    void sendMessage(int line, const char *function, const QString &text, int level);

    /// Stands in every function of the engine's thread that may run script code.
    class Entry
    {
    public:
        explicit Entry(VEXT_sqlThr *worker)
            : m_worker(worker)
        {
            ++m_worker->m_depth;
        }
        ~Entry() { m_worker->leaveEntry(); }
        Q_DISABLE_COPY(Entry)

    private:
        VEXT_sqlThr *m_worker;
    };
    enum class Ending { None, Later, AtOnce };
    void leaveEntry();

    // Engine's thread.
    int m_depth = 0;                       ///< entries on the stack
    Ending m_ending = Ending::None;        ///< asked for while there were some
    std::deque<structThrSql *> m_accepted; ///< queued, running or undelivered, in order
    NotificationRelay m_relay{this, db, m_listEvents};
    ClaimedName m_mainName;                  ///< under which `db` is registered
    std::vector<ClaimedName> m_closingNames; ///< registered until a notification has been delivered
    SqlDriverKind::ConnectionKind m_mainKind;
    TransactionWatch m_mainWatch;
    QSqlError m_tablesError;        ///< left in the driver by tables()
    TransactionWatch m_threadWatch; ///< worker's; the engine's while the thread does not run

    std::atomic<bool> m_entered{false}; ///< run() has begun; Qt reads the object's name before
    bool m_leaving = true;              ///< the thread takes no more tasks; m_mutexSqlTasks

    ShownNames m_shown; ///< what statistics of other engines' threads may show

    QMetaMethod m_completeMethod; ///< looked up once; read-only afterwards
};
