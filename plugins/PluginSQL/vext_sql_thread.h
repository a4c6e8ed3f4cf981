/// @file
/// The worker of one connection: its parameters, its main connection, its queue and its thread.
#pragma once

#include "cancel_target.h"
#include "connection_names.h"
#include "connection_parameters.h"
#include "last_statement.h"
#include "notification_relay.h"
#include "result_object.h"
#include "result_reader.h"
#include "result_stream.h"
#include "sql_records.h"
#include "sql_text.h"
#include "statistics.h"
#include "streamed_results.h"
#include "task_queue.h"
#include "transaction_watch.h"

#include <QAtomicInt>
#include <QMetaMethod>
#include <QPointer>
#include <QScriptEngine>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QStringList>
#include <QThread>

#include <atomic>
#include <deque>
#include <memory>
#include <vector>

class VEXT_SQL;

/// Carries the whole state of one script connection and runs its queued tasks. What its threads
/// share is inherited, part by part, each with its own lock.
///
/// Two database connections exist: the main one (`db`), used in the engine's thread, and the
/// thread connection, which run() makes, uses and removes in the worker thread.
///
/// Threads: the object lives in the engine's thread, and so does every member that is not marked
/// otherwise. "Worker": called by run() in the worker thread, never with a script value.
/// "Executing thread": called by both, each for the connection and the task that it holds itself;
/// such a function touches these, atomics, and fields under their lock.
/// No two locks of this class are held at once, and none while script code runs or a signal is
/// emitted.
///
/// Ownership: child of its VEXT_SQL, which takes it out of the tree and releases it with
/// deleteLater(). The engine may be gone by then; it is held weakly and tasks are freed unserved.
class VEXT_sqlThr : public QThread,
                    public ConnectionParameters,
                    public TaskQueue,
                    public CancelTarget,
                    public LastStatement,
                    public ConnectionCounts
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
    /// Queues a task and starts the thread when needed. Owns `task` from here on, also when it is
    /// refused. Never waits for a statement. @return false when the task was refused and freed.
    bool appendSqlTask(structThrSql *task);
    /// Queues a bare command task while the thread runs.
    void appendSqlTaskType(taskSqlType type);
    /// Transaction commands: on the main connection at once, and on the thread connection through
    /// the queue while the thread runs. @return the outcome on the main connection.
    bool transaction();
    bool commit();
    bool rollback();

    // --- Connection (vext_sql_connection.cpp) ---

    /// Chooses a connection name; raises a TypeError in the engine's context while open.
    void setConnectionName(const QString &name);
    bool open();
    /// @param stopThread also ends the worker thread, waiting up to 90 s for its statement.
    bool close(bool stopThread);

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
    void customEvent(QEvent *event) override;

public:
    // State. VEXT_SQL reads and assigns part of it directly, hence public.
    QScriptValue m_scriptValueThis;    ///< script value of the owner; engine's thread
    QScriptValue m_arrayPush;          ///< the engine's own Array.prototype.push; engine's thread
    QScriptValue m_functionMaker;      ///< its own Function; engine's thread
    ResultObject::Names m_resultNames; ///< engine's thread

    int m_conNumber = 0; ///< serial number of this worker, from 1; never changes

    // Written under m_mutexParams, and elsewhere than in the engine's thread read under it.
    QStringList m_listEvents;       ///< subscribed names
    QStringList m_listEventsCallee; ///< where each was subscribed

    bool enableNull = true;            ///< NULL is delivered as null; engine's thread
    std::atomic<bool> traceLog{false}; ///< read by both threads
    bool m_isDestroy = false;          ///< engine's thread

    QSqlDatabase db;   ///< main connection; engine's thread only
    VEXT_SQL *m_owner; ///< null once the owner is being destroyed
    QPointer<QScriptEngine> m_engine;

    static QAtomicInt s_conCounter; ///< workers made so far
    static QAtomicInt s_typeFloat;  ///< meta-type id of "float", 0 until the first construction

    /// Sends a message of the worker to the host. Both threads.
    void sendMessage(int line, const char *function, const QString &text, int level);
    /// Takes the next task, waiting for one; null tells the caller to look at m_thrStop. Worker.
    structThrSql *getSqlTask();

private:
    class ThreadBody; ///< what run() does; worker
    /// Hands a finished task to the engine's thread; not touched afterwards. Any thread.
    void completeTask(structThrSql *task);
    /// Completes a task that never ran. Any thread.
    void failTask(structThrSql *task);
    /// Fails every queued task. Any thread, with m_mutexSqlTasks held.
    void failQueuedTasks();
    void failWaitingTasks();
    /// Fails them, and leaves later ones to the next start. Worker, with m_mutexSqlTasks held.
    void takeNoMore();

    /// With m_mutexSqlTasks held.
    bool startLocked();
    bool waitWhileCancelling(int tout_ms);
    void restartForWaitingTasks();
    bool transactionCommand(bool (QSqlDatabase::*command)(), taskSqlType type);

    // Results.
    /// As detachSqlResult(). @param thread null outside of the worker thread
    bool detach(structThrSql *task, ResultReader::Thread *thread);
    /// Gives a result, or its error, to the task as a script value.
    void convertEntry(structThrSql *task, structSqlResult &entry);
    ColumnArray::Context columnContext() const;
    /// Answers the event that tells of rows handed over.
    void convertWaitingRows();
    std::unique_ptr<ResultColumns> finishStreamed(int stream);
    void deliverCompleted();
    void deliver(structThrSql *task);

    // Connection.
    void setName(const QString &name);
    ClaimedName claimNameToOpen();
    bool openMain(ClaimedName name);
    /// In which state the main connection is given up; Lost is what the driver found out itself.
    enum class Dropped { Open, Lost, NeverOpened };
    void dropMain(Dropped state);
    void closeRegistered(const QString &name, Dropped state);
    void connectDriver();
    void reportNotOpen(const char *function, int line);

    // Statements.
    void afterStatement(const QString &sql, const QSqlError &error);
    void closeOnConnectionError(const QSqlError &error);

    // Notifications.
    void relayNotification(const QString &name, QSqlDriver::NotificationSource source,
                           const QVariant &payload);
    void subscribeAll();
    void unsubscribeAll(QSqlDriver *driver);
    /// Any thread.
    Statistics statistics();

    class Entry; // vext_sql_entry.h
    enum class Ending { None, Later, AtOnce };
    void leaveEntry();

    // Engine's thread.
    int m_depth = 0;                        ///< entries on the stack
    Ending m_ending = Ending::None;         ///< asked for while there were some
    std::deque<structThrSql *> m_accepted;  ///< queued, running or undelivered, in order
    std::deque<structThrSql *> m_completed; ///< handed back and not yet delivered, in order
    ResultStream m_stream;                  ///< both threads
    StreamedResults m_streamed{m_stream};
    NotificationRelay m_relay{this, db, m_listEvents};
    ClaimedName m_mainName;                  ///< under which `db` is registered
    std::vector<ClaimedName> m_closingNames; ///< registered until a notification has been delivered
    SqlDriverKind::ConnectionKind m_mainKind;
    TransactionWatch m_mainWatch;
    TransactionWatch m_threadWatch; ///< worker's; the engine's while the thread does not run

    std::atomic<bool> m_entered{false}; ///< run() has begun; Qt reads the object's name before
    bool m_leaving = true;              ///< the thread takes no more tasks; m_mutexSqlTasks
    ShownNames m_shown;                 ///< what statistics of other engines' threads may show
    QMetaMethod m_completeMethod;       ///< looked up once; read-only afterwards
};
