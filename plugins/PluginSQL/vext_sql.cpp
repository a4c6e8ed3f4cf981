#include "vext_sql.h"

#include "call_depth.h"
#include "driver_list.h"
#include "lasting_text.h"
#include "plugin_sql.h"
#include "vext_sql_module.h"
#include "vext_sql_thread.h"
#include "vext_static_enums.h"

#include <QCoreApplication>

namespace
{

constexpr int LineIsSupportEvent = 127;
constexpr int LineSetTraceLog = 180;
constexpr int MinTimeNotUseMs = 60000;

} // namespace

// --- Life ---

VEXT_SQL::VEXT_SQL(QObject *parent, QScriptEngine *eng)
    : Plugin_base(parent, eng)
    , m_madeByEngine(eng)
{
    connect_msg(this);
    setTraceLog(false);
    worker = new VEXT_sqlThr(this, eng);
    connect(worker, &VEXT_sqlThr::opened, this, &VEXT_SQL::opened);
    connect(worker, &VEXT_sqlThr::closed, this, &VEXT_SQL::closed);
    connect(worker, &QThread::started, this, &VEXT_SQL::started);
    connect(worker, &QThread::finished, this, &VEXT_SQL::finished);
    connect(worker, &VEXT_sqlThr::query_finish, this, &VEXT_SQL::query_finish);
    connect(worker, &VEXT_sqlThr::event, this, &VEXT_SQL::s_event);
    QMutexLocker locker(&m_mutexSqlConns);
    m_listSqlConns.append(this);
}

VEXT_SQL::~VEXT_SQL()
{
    {
        QMutexLocker locker(&m_mutexSqlConns);
        m_listSqlConns.removeOne(this);
    }
    // Left to ~QObject, a connection whose signal the worker thread is sending loses its slot
    // object.
    disconnect(worker, nullptr, this, nullptr);
    if (m_madeByEngine && !m_engine)
        disconnect(this, nullptr, nullptr, nullptr);
    worker->releaseFromOwner(m_releaseAtOnce || !QCoreApplication::instance());
}

void VEXT_SQL::releaseWorkerAtOnce()
{
    m_releaseAtOnce = true;
}

bool VEXT_SQL::setScriptValueThis(const QScriptValue &scriptValue)
{
    if (!Plugin_base::setScriptValueThis(scriptValue))
        return false;
    if (m_engine) {
        const auto hidden = [this](const char *name, FuncWrapper::NativeFunction function) {
            m_scriptValueThis.setProperty(QLatin1String(name), m_engine->newFunction(function, 0),
                                          FuncWrapper::Hidden);
        };
        hidden("countersAll", &Plugin_SQL::counters);
        FuncWrapper::setAccessor(m_scriptValueThis, QStringLiteral("tag"),
                                 m_engine->newFunction(&Plugin_SQL::js_tag, 0));
        hidden("query_thread", &VEXT_SQL::js_query_thread);
        hidden("exec_thread", &VEXT_SQL::js_exec_thread);
    }
    return worker->setScriptValueThis(scriptValue);
}

template <typename Answer, typename Call>
Answer VEXT_SQL::enter(const char *function, const Answer &refused, Call call)
{
    const CallDepth depth;
    if (!depth.isTooDeep())
        return call();
    reportTooDeep(depth, function);
    return refused;
}

void VEXT_SQL::reportTooDeep(const CallDepth &depth, const char *function)
{
    if (!depth.isFirst())
        return;
    emit s_msg(lastingText(VextSqlModule::Connection), __LINE__, lastingText(function),
               tr("слишком много вложенных вызовов (%1)").arg(CallDepth::Most), -1);
}

void VEXT_SQL::setTraceLog(bool on)
{
    if (on == m_traceLog)
        return;
    const CallDepth depth;
    if (depth.isTooDeep()) {
        reportTooDeep(depth, "setTraceLog");
        return;
    }
    m_traceLog = on;
    if (worker)
        worker->traceLog = on;
    emit s_msg(lastingText(VextSqlModule::Connection), LineSetTraceLog, lastingText("setTraceLog"),
               tr("трассировка %1").arg(on ? tr("включена") : tr("выключена")), 1);
}

void VEXT_SQL::disableTraceLog()
{
    setTraceLog(false);
}

void VEXT_SQL::enableTraceLog(bool trace)
{
    setTraceLog(trace);
}

bool VEXT_SQL::throwScript(QScriptContext *ctx, const QString &text, QScriptContext::Error error)
{
    if (ctx)
        ctx->throwError(error, text);
    return false;
}

// --- Connection parameters ---

QString VEXT_SQL::app_name() const
{
    return worker->app_name;
}

void VEXT_SQL::setApp_name(const QString &name)
{
    worker->setParameter(worker->app_name, name);
}

QString VEXT_SQL::driverName() const
{
    return worker->driverName;
}

void VEXT_SQL::setDriverName(const QString &name)
{
    worker->setParameter(worker->driverName, name);
}

QString VEXT_SQL::databaseName() const
{
    return worker->databaseName;
}

void VEXT_SQL::setDatabaseName(const QString &name)
{
    worker->setParameter(worker->databaseName, name);
}

QString VEXT_SQL::userName() const
{
    return worker->userName;
}

void VEXT_SQL::setUserName(const QString &name)
{
    worker->setParameter(worker->userName, name);
}

QString VEXT_SQL::password() const
{
    return worker->password;
}

void VEXT_SQL::setPassword(const QString &password)
{
    worker->setParameter(worker->password, password);
}

QString VEXT_SQL::hostName() const
{
    return worker->hostName;
}

void VEXT_SQL::setHostName(const QString &name)
{
    worker->setParameter(worker->hostName, name);
}

int VEXT_SQL::port() const
{
    return worker->port;
}

void VEXT_SQL::setPort(int port)
{
    worker->setParameter(worker->port, port);
}

QString VEXT_SQL::connectOptions() const
{
    return worker->connectOptions;
}

void VEXT_SQL::setConnectOptions(const QString &options)
{
    worker->setParameter(worker->connectOptions, options);
}

QString VEXT_SQL::connectionName() const
{
    return worker->connectionName;
}

void VEXT_SQL::setConnectionName(const QString &name)
{
    worker->setConnectionName(name);
}

int VEXT_SQL::timeNotUse() const
{
    return worker->m_timeNotUse;
}

void VEXT_SQL::setTimeNotUse(int ms)
{
    worker->m_timeNotUse = qMax(ms, MinTimeNotUseMs);
}

bool VEXT_SQL::enableNull() const
{
    return worker->enableNull;
}

void VEXT_SQL::setEnableNull(bool on)
{
    worker->enableNull = on;
}

// --- State ---

int VEXT_SQL::affectedRows() const
{
    return worker->lastAffectedRows();
}

QStringList VEXT_SQL::drivers() const
{
    return DriverList::available();
}

bool VEXT_SQL::isValid() const
{
    return worker->db.isValid();
}

bool VEXT_SQL::isOpen() const
{
    return worker->db.isValid() && worker->db.isOpen();
}

bool VEXT_SQL::isRunning() const
{
    return worker->isRunning();
}

bool VEXT_SQL::isOpenError() const
{
    return worker->db.isOpenError();
}

QString VEXT_SQL::lastQuery() const
{
    return worker->lastQueryText();
}

QString VEXT_SQL::lastError() const
{
    return worker->lastError();
}

QVariantMap VEXT_SQL::lastErrors() const
{
    return worker->lastErrors();
}

QString VEXT_SQL::notOpenText() const
{
    return worker->notOpenText();
}

bool VEXT_SQL::isDriverAvailable(const QString &name)
{
    return worker->db.isValid() && DriverList::isAvailable(name);
}

QVariant VEXT_SQL::hasFeature()
{
    return worker->hasFeature();
}

QScriptValue VEXT_SQL::counters(QScriptEngine *eng)
{
    return worker->counters(eng);
}

// --- Notifications ---

bool VEXT_SQL::isSupportEvent()
{
    const QPointer<VEXT_SQL> self(this);
    if (!isOpen() && m_traceLog) {
        emit s_msg(lastingText(VextSqlModule::Connection), LineIsSupportEvent,
                   lastingText("isSupportEvent"),
                   tr("Проверить isSupportEvent можно только после открытия соединения с БД"), 0);
    }
    return self && worker->isSupportEvent();
}

QStringList VEXT_SQL::events() const
{
    return worker->events();
}

bool VEXT_SQL::add_event(const QString &evnt)
{
    return enter("add_event", false, [&] { return worker->add_event(evnt); });
}

bool VEXT_SQL::rem_event(const QString &evnt)
{
    return enter("rem_event", false, [&] { return worker->rem_event(evnt); });
}

void VEXT_SQL::s_event(const QString &name, QSqlDriver::NotificationSource source,
                       const QVariant &payload)
{
    emit event(name, payload, int(source));
}

// --- Connection, statements and transactions ---

bool VEXT_SQL::open()
{
    return enter("open", false, [&] { return worker->open(); });
}

bool VEXT_SQL::close()
{
    return enter("close", false, [&] { return worker->close(true); });
}

QScriptValue VEXT_SQL::query(const QString &sql)
{
    return enter("query", QScriptValue(false), [&] { return worker->query(sql); });
}

QScriptValue VEXT_SQL::exec(const QString &sql)
{
    return enter("exec", QScriptValue(false), [&] { return worker->query(sql); });
}

QScriptValue VEXT_SQL::exec(const QString &proc, const QScriptValue &asql)
{
    return enter("exec", QScriptValue(false), [&] { return worker->exec(proc, asql); });
}

bool VEXT_SQL::tables(int ttype)
{
    return enter("tables", false, [&] { return worker->tables(ttype); });
}

void VEXT_SQL::clear()
{
    const CallDepth depth;
    if (depth.isTooDeep())
        reportTooDeep(depth, "clear");
    else
        worker->clearSqlResult();
}

void VEXT_SQL::clearSqlResult()
{
    const CallDepth depth;
    if (depth.isTooDeep())
        reportTooDeep(depth, "clearSqlResult");
    else
        worker->clearSqlResult();
}

void VEXT_SQL::setCodec(const QString &codec)
{
    worker->setCodec(codec);
}

bool VEXT_SQL::transaction()
{
    return enter("transaction", false, [&] { return worker->transaction(); });
}

bool VEXT_SQL::commit()
{
    return enter("commit", false, [&] { return worker->commit(); });
}

bool VEXT_SQL::rollback()
{
    return enter("rollback", false, [&] { return worker->rollback(); });
}

// --- Worker thread ---

int VEXT_SQL::taskSize()
{
    return worker->taskSize();
}

bool VEXT_SQL::start_thread()
{
    return enter("start_thread", false, [&] { return worker->start_thread(); });
}

void VEXT_SQL::stop_thread(int tout_ms)
{
    const CallDepth depth;
    if (depth.isTooDeep())
        reportTooDeep(depth, "stop_thread");
    else
        worker->stop_thread(tout_ms);
}

bool VEXT_SQL::appendSqlTask(structThrSql *task)
{
    return worker->appendSqlTask(task);
}
