/// @file
/// VEXT_SQL, the connection object that a script holds, and its script constructor.
#pragma once

#include "vextplugin_base.h"

#include <QList>
#include <QMutex>
#include <QSqlDriver>
#include <QStringList>
#include <QVariant>

class CallDepth;
class VEXT_sqlThr;
struct structThrSql;

/// One database connection as scripts see it. Nearly every member forwards to its worker, which
/// holds the connection and runs the queued tasks.
///
/// Thread: that of the script engine. Ownership: child of the engine, wrapped with Qt ownership, so
/// that the script's garbage collector never deletes it; the host may. The worker is released with
/// deleteLater(). An object that goes in the end of its engine goes without a signal, `destroyed`
/// included: script code would run in an engine that is half gone.
class VEXT_SQL : public Plugin_base
{
    Q_OBJECT
    Q_CLASSINFO("Author", "Vext SQL team")
    Q_CLASSINFO("URL", "https://vext.invalid/sql")

    Q_PROPERTY(bool traceLog READ traceLog WRITE setTraceLog)
    Q_PROPERTY(int affectedRows READ affectedRows)
    Q_PROPERTY(QStringList drivers READ drivers)
    Q_PROPERTY(QString app_name READ app_name WRITE setApp_name)
    Q_PROPERTY(QString driverName READ driverName WRITE setDriverName)
    Q_PROPERTY(QString databaseName READ databaseName WRITE setDatabaseName)
    Q_PROPERTY(QString userName READ userName WRITE setUserName)
    Q_PROPERTY(QString password READ password WRITE setPassword)
    Q_PROPERTY(QString hostName READ hostName WRITE setHostName)
    Q_PROPERTY(int port READ port WRITE setPort)
    Q_PROPERTY(QString connectOptions READ connectOptions WRITE setConnectOptions)
    Q_PROPERTY(QString connectionName READ connectionName WRITE setConnectionName)
    Q_PROPERTY(int timeNotUse READ timeNotUse WRITE setTimeNotUse)
    Q_PROPERTY(bool enableNull READ enableNull WRITE setEnableNull)
    Q_PROPERTY(bool isValid READ isValid)
    Q_PROPERTY(bool isOpen READ isOpen)
    Q_PROPERTY(bool isRunning READ isRunning)
    Q_PROPERTY(bool isOpenError READ isOpenError)
    Q_PROPERTY(QString lastQuery READ lastQuery)
    Q_PROPERTY(QString lastError READ lastError)
    Q_PROPERTY(QVariantMap lastErrors READ lastErrors)
    Q_PROPERTY(bool isSupportEvent READ isSupportEvent)
    Q_PROPERTY(QStringList events READ events)

public:
    VEXT_SQL(QObject *parent, QScriptEngine *eng);
    ~VEXT_SQL() override;

    // --- Properties; connection parameters take effect at the next open of the main connection,
    //     and for the worker's at the next start of its thread ---

    void setTraceLog(bool on);
    int affectedRows() const;
    QStringList drivers() const;
    QString app_name() const;
    void setApp_name(const QString &name);
    QString driverName() const;
    void setDriverName(const QString &name);
    QString databaseName() const;
    void setDatabaseName(const QString &name);
    QString userName() const;
    void setUserName(const QString &name);
    QString password() const;
    void setPassword(const QString &password);
    QString hostName() const;
    void setHostName(const QString &name);
    int port() const;
    void setPort(int port);
    QString connectOptions() const;
    void setConnectOptions(const QString &options);
    QString connectionName() const;
    void setConnectionName(const QString &name);
    /// Idle limit of the worker thread in ms; at least 60000.
    int timeNotUse() const;
    void setTimeNotUse(int ms);
    bool enableNull() const;
    void setEnableNull(bool on);
    bool isValid() const;
    bool isOpen() const;
    bool isRunning() const;
    bool isOpenError() const;
    QString lastQuery() const;
    QString lastError() const;
    QVariantMap lastErrors() const;
    /// The driver's answer; a connection that is not open only gets a hint in the messages.
    bool isSupportEvent();
    QStringList events() const;

    /// Hands a task to the worker, which owns it from here on. @return whether it was queued.
    bool appendSqlTask(structThrSql *task);

    /// "не открыто соединение с …" (connection not open) with database, port and host.
    QString notOpenText() const;

    /// Frees the worker together with this object: no event loop will do it later.
    void releaseWorkerAtOnce();
    /// Whether the object was made in `engine`. Engine's thread.
    bool isOf(const QScriptEngine *engine) const { return m_engine == engine; }

    /// Raises `text` in `ctx`, or nothing when it is null. @return false, always.
    static bool throwScript(QScriptContext *ctx, const QString &text, QScriptContext::Error error);

    /// Script functions "query_thread" and "exec_thread": queue work and return at once.
    static QScriptValue js_query_thread(QScriptContext *context, QScriptEngine *engine);
    static QScriptValue js_exec_thread(QScriptContext *context, QScriptEngine *engine);

    /// Every live connection object of the process in order of creation; m_mutexSqlConns.
    static QList<VEXT_SQL *> m_listSqlConns;
    static QMutex m_mutexSqlConns;

signals:
    void started();
    void finished();
    void opened();
    void closed();
    void query_finish(const QScriptValue &, const QScriptValue &, const QScriptValue &,
                      const QScriptValue &);
    void event(const QString &, const QVariant &, int);

public slots:
    int taskSize();
    bool add_event(const QString &evnt);
    bool rem_event(const QString &evnt);
    bool isDriverAvailable(const QString &name);
    bool transaction();
    bool commit();
    bool rollback();
    bool open();
    bool close();
    QScriptValue query(const QString &sql);
    /// With one argument exec is query: nothing is bound, and no call is built.
    QScriptValue exec(const QString &sql);
    QScriptValue exec(const QString &proc, const QScriptValue &asql);
    bool start_thread();
    void stop_thread(int tout_ms = 1000);
    bool tables(int ttype = 1);
    void clear();
    void clearSqlResult();
    QVariant hasFeature();
    QScriptValue counters(QScriptEngine *eng = nullptr);
    /// Accepts only a value that wraps this object, and gives it the per-object functions. Hides
    /// the base's slot on purpose: the constructor calls it by name.
    bool setScriptValueThis(const QScriptValue &scriptValue);

private slots:
    void s_event(const QString &name, QSqlDriver::NotificationSource source,
                 const QVariant &payload);

public:
    Q_INVOKABLE void disableTraceLog();
    Q_INVOKABLE void enableTraceLog(bool trace = true);
    Q_INVOKABLE void setCodec(const QString &codec);

    VEXT_sqlThr *worker = nullptr; ///< never replaced

private:
    /// Makes a call that may send signals, unless too many lie within one another already.
    /// @return its answer, or `refused`. The object may be gone by then.
    template <typename Answer, typename Call>
    Answer enter(const char *function, const Answer &refused, Call call);
    void reportTooDeep(const CallDepth &depth, const char *function);

    const bool m_madeByEngine;
    bool m_releaseAtOnce = false;
};

/// The script constructor `VEXT_SQL([name])`. Engine's thread.
class VEXT_SQLWrapper
{
public:
    /// Defines the constructor on the engine's global object.
    static void registerWrapper(QScriptEngine *eng);
    /// Makes, names and wraps one connection object; never throws.
    static QScriptValue ctor(QScriptContext *ctx, QScriptEngine *eng);
};
