#include "vext_sql_entry.h"

#include "debug_line.h"
#include "own_properties.h"
#include "result_object.h"
#include "result_reader.h"
#include "script_guard.h"
#include "sql_driver_kind.h"
#include "vext_sql_module.h"

#include <QScriptValueIterator>
#include <QSqlQuery>

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

namespace
{

constexpr int MaxAffected = std::numeric_limits<int>::max();

QString queryResultName()
{
    return QStringLiteral("queryResult");
}

/// What the script itself may have put there goes too, without running its code.
void removeProperties(QScriptValue object)
{
    QScriptValueIterator it(object);
    while (it.hasNext()) {
        it.next();
        const QScriptValue::PropertyFlags accessor =
            it.flags() & (QScriptValue::PropertyGetter | QScriptValue::PropertySetter);
        if (accessor)
            object.setProperty(it.name(), QScriptValue(), accessor);
        else
            it.remove();
    }
}

/// Of the connection that ran the task; tasks that nobody has run here are taken for its own.
SqlDriverKind::ConnectionKind kindOf(const ConnectionParameters &worker, const structThrSql *task)
{
    if (task->kind.isKnown)
        return task->kind;
    return {worker.m_driverType.loadAcquire(), worker.m_dbmsType.loadAcquire(), true};
}

void publishResult(VEXT_sqlThr &worker, const QScriptValue &value)
{
    if (worker.m_engine && worker.m_owner)
        OwnProperties(worker.m_engine, worker.m_scriptValueThis)
            .set(worker.m_engine->toStringHandle(queryResultName()), value);
}

/// A list of statements is answered by arrays as long as the list, a single one by an object; the
/// statements of exec_thread by arrays as long as their results, as far as there are several.
void prepareContainers(QScriptEngine *engine, structThrSql *task)
{
    const int results = task->results.size();
    const int statements = task->sqlList.size();
    const int length = task->isProc ? results : std::max(results, statements);
    const bool several = task->isProc ? results > 1 : statements > 1 || results > 1;
    if (several && !task->result.isArray()) {
        task->result = ResultObject::newObjects(engine, length);
        task->error = engine->newArray(uint(length));
    } else if (!several && results == 1 && !task->result.isObject()) {
        task->result = engine->newObject();
    }
}

/// An exception of the callback is left to the host: it is neither cleared nor reported here.
void callBack(QScriptEngine *engine, structThrSql *task, const QScriptValue &age)
{
    const QPointer<QScriptEngine> alive = engine;
    const bool timing = task->timing;
    if (timing)
        DebugLine::debug(VextSqlModule::Worker, WorkerLines::Result + __LINE__, "queryFinThr")
            << "call";
    QScriptValueList args{task->result, task->error, age};
    args += task->callArgs;
    const QScriptValue returned = task->func.call(task->thisObject, args);
    if (!timing)
        return;
    const bool threw = alive && alive->hasUncaughtException();
    const ScriptGuard guard(alive); // the answer's own toString() may throw
    DebugLine::debug(VextSqlModule::Worker, WorkerLines::Result + __LINE__, "queryFinThr")
        << "return" << returned.toString() << (threw ? ":----- Exception !!!" : "");
}

/// A failure leads with false, a success ends with true: the two orders differ on purpose.
void emitQueryFinish(VEXT_sqlThr &worker, structThrSql *task, const QScriptValue &age)
{
    if (task->failed)
        emit worker.query_finish(QScriptValue(worker.m_engine, false), task->result, task->error,
                                 age);
    else
        emit worker.query_finish(task->result, task->error, age,
                                 QScriptValue(worker.m_engine, true));
}

} // namespace

// --- From query to record: executing thread ---

bool VEXT_sqlThr::detachSqlResult(structThrSql *task)
{
    return detach(task, nullptr);
}

bool VEXT_sqlThr::detach(structThrSql *task, ResultReader::Thread *thread)
{
    if (!task || !task->sqlQuery)
        return false;
    // Filled where it lies: a copy of it is dear.
    task->results.append(structSqlResult());
    structSqlResult &result = task->results.last();
    QSqlQuery &query = *task->sqlQuery;
    result.index = task->current;
    result.error = task->lastError();
    result.size = query.size();
    result.executedQuery = query.executedQuery();
    result.lastQuery = task->ownText.isEmpty() ? query.lastQuery() : task->ownText;
    const bool executed = result.error.type() == QSqlError::NoError;
    ResultReader reader(query, kindOf(*this, task));
    if (executed && query.driver()) {
        reader.read(
            result, [this, task] { return task->inThread && m_thrStop.loadAcquire() == 1; },
            thread);
        task->failed = task->failed || result.canceled;
    } else {
        result.numRowsAffected = reader.affectedRows();
    }
    if (executed && result.error.type() != QSqlError::NoError) {
        task->failed = true;
        setLastError(result.error);
    }
    task->releaseQuery();
    setAffectedRows(result.numRowsAffected);
    const bool good = result.error.type() == QSqlError::NoError && !result.canceled;
    task->rowsAffected += std::min(result.numRowsAffected, MaxAffected - task->rowsAffected);
    return good;
}

void VEXT_sqlThr::setLast(structThrSql *task)
{
    const QString text = task->ownText.isEmpty() ? task->sqlQuery->lastQuery() : task->ownText;
    const QSqlError error = task->lastError();
    if (error.type() != QSqlError::NoError)
        task->failed = true;
    setLastStatement(text, error);
}

// --- From record to script: engine's thread ---

ColumnArray::Context VEXT_sqlThr::columnContext() const
{
    ColumnArray::Context context;
    context.engine = m_engine;
    context.push = m_arrayPush;
    context.enableNull = enableNull;
    return context;
}

/// Converts rows that the worker has handed over, and leaves the event loop its turn before more.
void VEXT_sqlThr::convertWaitingRows()
{
    const Entry entry(this);
    m_stream.heard();
    // Code of the host runs an event loop in the midst of a conversion, which asks again at its
    // end.
    if (m_streamed.isConverting())
        return;
    if (m_isDestroy || !m_engine || !m_owner)
        m_streamed.clear();
    else
        m_streamed.step(columnContext());
    m_stream.ask(m_streamed.hasBegun());
    deliverCompleted();
}

/// The columns of a result whose rows came in slices, converted to the end.
std::unique_ptr<ResultColumns> VEXT_sqlThr::finishStreamed(int stream)
{
    std::unique_ptr<ResultColumns> columns = m_streamed.finish(stream, columnContext());
    // For what had to wait meanwhile.
    m_stream.ask(m_streamed.hasBegun() || !m_completed.empty());
    return columns;
}

/// Gives one result, or its error, to the task as a script value.
void VEXT_sqlThr::convertEntry(structThrSql *task, structSqlResult &entry)
{
    const auto setError = [task](const QScriptValue &value) {
        if (task->error.isArray())
            task->error.setProperty(quint32(task->current), value);
        else
            task->error = value;
    };
    if (entry.canceled || entry.error.type() != QSqlError::NoError) {
        task->failed = true;
        setError(QScriptValue(m_engine, entry.canceled ? tr("SQL запрос отменен")
                                                       : entry.error.databaseText()));
        if (entry.stream != 0)
            m_streamed.drop(entry.stream);
        return;
    }
    setError(QScriptValue(m_engine, false));
    QScriptValue target = task->result;
    if (target.isArray()) {
        target = task->result.property(quint32(task->current));
        if (!target.isObject()) {
            target = m_engine->newObject();
            task->result.setProperty(quint32(task->current), target);
        }
    }
    ResultObject::Context context;
    context.engine = m_engine;
    context.names = &m_resultNames;
    context.push = m_arrayPush;
    context.function = m_functionMaker;
    context.enableNull = enableNull;
    context.upperCaseNames = kindOf(*this, task).dbmsType == SqlDriverKind::PostgreSql;
    std::unique_ptr<ResultColumns> streamed;
    if (entry.stream != 0)
        streamed = finishStreamed(entry.stream);
    ResultObject::fill(context, target, entry, streamed.get());
    if (!task->inThread)
        publishResult(*this, target);
}

void VEXT_sqlThr::clearSqlResult()
{
    const Entry entry(this);
    setAffectedRows(0);
    if (!m_engine)
        return;
    // The script may have put anything there; what reading it throws is nobody's error.
    const ScriptGuard guard(m_engine);
    const QScriptValue result = readProperty(m_scriptValueThis, queryResultName());
    if (!result.isObject())
        return;
    removeProperties(result);
    m_scriptValueThis.setProperty(queryResultName(), QScriptValue());
}

QScriptValue VEXT_sqlThr::fetchResult(structThrSql *task)
{
    const Entry entry(this);
    if (!task)
        return QScriptValue(false);
    if (task->sqlQuery && !detachSqlResult(task)) {
        ++cnt_sql_er;
        task->failed = true;
    }
    if (!m_engine)
        return task->result;
    // Almost always the entries lie at their own index.
    QList<structSqlResult> &results = task->results;
    int at = task->current;
    if (at < 0 || at >= results.size() || results.at(at).index != task->current) {
        const auto found = std::find_if(results.cbegin(), results.cend(),
                                        [task](const auto &r) { return r.index == task->current; });
        if (found == results.cend())
            return task->result;
        at = int(found - results.cbegin());
    }
    if (!task->inThread)
        task->result = m_engine->newObject();
    convertEntry(task, results[at]);
    return task->result;
}

void VEXT_sqlThr::fetchResThr(structThrSql *task)
{
    if (!task || !task->sqlQuery) {
        DebugLine::critical(VextSqlModule::Worker, WorkerLines::Result + __LINE__, "fetchResThr")
            << (task ? "no query" : "no task");
        delete task;
        return;
    }
    fetchResult(task);
}

QScriptValue VEXT_sqlThr::fetchResFin(structThrSql *task)
{
    const Entry entry(this);
    fetchResult(task);
    return queryFinish(task);
}

// --- Delivery: engine's thread. Nothing is locked; script code may do anything, even delete. ---

QScriptValue VEXT_sqlThr::queryFinish(structThrSql *task)
{
    const Entry entry(this);
    if (!task)
        return QScriptValue(false);
    const std::unique_ptr<structThrSql> owned(task);
    if (!m_engine)
        return QScriptValue(false);
    if (!task->inThread)
        publishResult(*this, task->result);
    const QScriptValue age(m_engine, qsreal(task->timer.elapsed()));
    // A synchronous callback gets no error but a leading false on failure, unlike a threaded one.
    if (task->func.isFunction()) {
        QScriptValueList args;
        if (task->failed)
            args << QScriptValue(m_engine, false);
        args << task->result << QScriptValue(m_engine, task->current) << age;
        task->func.call(task->thisObject, args + task->callArgs);
    } else {
        emitQueryFinish(*this, task, age);
    }
    return task->result;
}

void VEXT_sqlThr::completeAsyncTask(structThrSql *task)
{
    const Entry entry(this);
    if (!task)
        return;
    m_completed.push_back(task);
    deliverCompleted();
}

/// Usually there is one. While rows are converted, code of the host that does part of it may run an
/// event loop; what is handed back there waits until it returns.
void VEXT_sqlThr::deliverCompleted()
{
    while (!m_completed.empty() && !m_streamed.isConverting()) {
        structThrSql *task = m_completed.front();
        m_completed.pop_front();
        deliver(task);
    }
}

void VEXT_sqlThr::deliver(structThrSql *task)
{
    // Deliveries come in the order of acceptance, so the task is the first, or close to it when a
    // callback runs an event loop of its own.
    const auto found = std::find(m_accepted.begin(), m_accepted.end(), task);
    if (found != m_accepted.end())
        m_accepted.erase(found);
    if (m_isDestroy || !m_engine || !m_owner) {
        delete task;
        m_streamed.clear();
        return;
    }
    prepareContainers(m_engine, task);
    for (int i = 0, count = task->results.size(); i < count; ++i) {
        task->current = task->results.at(i).index;
        convertEntry(task, task->results[i]);
    }
    if (task->results.isEmpty())
        task->result = QScriptValue(m_engine, task->ok);
    queryFinThr(task);
}

void VEXT_sqlThr::queryFinThr(structThrSql *task)
{
    const Entry entry(this);
    if (!task) {
        DebugLine::critical(VextSqlModule::Worker, WorkerLines::Result + __LINE__, "queryFinThr")
            << "no task";
        return;
    }
    const std::unique_ptr<structThrSql> owned(task);
    if (!m_engine)
        return;
    const bool isFunction = task->func.isFunction();
    if (task->timing) {
        DebugLine::debug(VextSqlModule::Worker, WorkerLines::Result + __LINE__, "queryFinThr")
            << "isFunc: " << (isFunction ? "true" : "false");
    }
    const QScriptValue age(m_engine, qsreal(task->timer.elapsed()));
    if (isFunction)
        callBack(m_engine, task, age);
    else
        emitQueryFinish(*this, task, age);
}
