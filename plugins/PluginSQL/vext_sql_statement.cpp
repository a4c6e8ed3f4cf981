#include "vext_sql_entry.h"

#include "debug_line.h"
#include "driver_text.h"
#include "result_reader.h"
#include "script_guard.h"
#include "script_variant.h"
#include "sql_secrets.h"
#include "statement_execution.h"
#include "statement_rules.h"
#include "vext_sql_call.h"
#include "vext_sql_module.h"

#include <QElapsedTimer>
#include <QSqlQuery>

#include <memory>
#include <utility>

namespace
{

void reportFailure(const char *function, const QSqlError &error)
{
    DebugLine::critical(VextSqlModule::Worker, WorkerLines::Statement + __LINE__, function)
        << qUtf8Printable(type2str(error.type()));
}

/// Traces the stages of a statement that asks for it with a "--" at its end, tracing on or off.
class Stopwatch
{
public:
    Stopwatch(VEXT_sqlThr *worker, bool on)
        : m_worker(worker)
        , m_on(on)
    {
        m_timer.start();
    }

    void stage(const QString &name) const
    {
        if (!m_on)
            return;
        const QString ms = QString::number(double(m_timer.nsecsElapsed()) / 1e6, 'f', 3);
        m_worker->sendMessage(WorkerLines::Statement + __LINE__, "query",
                              QStringLiteral("%1 ms %2").arg(ms, name), 0);
    }

private:
    VEXT_sqlThr *m_worker;
    bool m_on;
    QElapsedTimer m_timer;
};

/// Reads the rows of an executed statement. Drivers that stream rows report some errors only then.
QSqlError finishReading(VEXT_sqlThr &worker, structThrSql *task)
{
    if (!task->ok)
        return task->lastError();
    worker.detachSqlResult(task);
    return task->results.constLast().error;
}

void reportUnprepared(VEXT_sqlThr &worker, structThrSql *task, const QString &text)
{
    worker.setLast(task);
    const QSqlError error = task->sqlQuery->lastError();
    worker.setLastError(error);
    if (!worker.traceLog)
        return;
    worker.sendMessage(
        WorkerLines::Statement + __LINE__, "exec",
        VEXT_sqlThr::tr("не смог подготовить процедуру '%1' к выполнению\n%2")
            .arg(SqlSecrets::maskedStatement(text), SqlSecrets::maskedStatement(error.text())),
        -1);
}

/// The numbered properties of `args`, in the iterator's order.
/// @return false when the script's own code threw on the way, which is left to the script, or when
/// a value is too large.
bool argumentValues(VEXT_sqlThr &worker, const QScriptValue &args, QVariantList &values)
{
    if (!args.isObject() || !worker.m_engine)
        return true;
    QScriptEngine *engine = worker.m_engine;
    const ThrowWatch watch(engine);
    const QScriptValueList given = SqlCall::numberedValues(args, engine);
    if (watch.threw())
        return false;
    for (const QScriptValue &value : given) {
        const QScriptValue data = value.data();
        if (watch.threw())
            return false;
        QVariant variant;
        if (!ScriptVariant::convert(data.isValid() ? data : value, engine, variant)) {
            if (!watch.threw())
                worker.sendMessage(WorkerLines::Statement + __LINE__, "exec",
                                   SqlCall::tooLargeText(), -1);
            return false;
        }
        values.append(variant);
    }
    return true;
}

void bindArguments(VEXT_sqlThr &worker, QSqlQuery &query, const QVariantList &values,
                   bool positional, bool trace)
{
    for (int i = 0; i < values.size(); ++i) {
        const QVariant &value = values.at(i);
        QSql::ParamType type = QSql::In;
        if (value.userType() == QMetaType::QByteArray)
            type |= QSql::Binary;
        if (positional)
            query.bindValue(i, value, type);
        else
            query.bindValue(QStringLiteral(":a%1").arg(i), value, type);
        if (trace) {
            worker.sendMessage(WorkerLines::Statement + __LINE__, "exec",
                               VEXT_sqlThr::tr("sql bind %1 value:  type=%2")
                                   .arg(QString::number(i + 1), QLatin1String(value.typeName())),
                               2);
        }
    }
}

} // namespace

QString VEXT_sqlThr::procedureSql(const QString &text, int count) const
{
    return SqlText::procedureStatement(text, count, m_dbmsType.loadAcquire());
}

/// What a statement of the engine's thread changed for the connection.
void VEXT_sqlThr::afterStatement(const QString &sql, const QSqlError &error)
{
    using Step = StatementRules::TransactionStep;
    const Step step = StatementRules::transactionStep(sql, m_mainKind.dbmsType);
    if (error.type() == QSqlError::NoError)
        m_mainWatch.executed(step);
    if (step == Step::Commit || step == Step::Rollback)
        m_relay.afterTransaction();
    else if (error.type() == QSqlError::NoError)
        m_relay.retryRemovals();
}

QScriptValue VEXT_sqlThr::query(const QString &sql)
{
    const Entry entry(this);
    if (!db.isOpen()) {
        reportNotOpen("query", WorkerLines::Statement + __LINE__);
        return QScriptValue(false);
    }
    clearSqlResult();
    // The script may have put code of its own where the result was.
    if (!m_owner || !db.isOpen())
        return QScriptValue(false);
    if (traceLog)
        sendMessage(WorkerLines::Statement + __LINE__, "query",
                    tr("sql='%1'").arg(SqlSecrets::maskedStatement(sql)), 2);

    const bool timing = SqlText::asksForTiming(sql);
    const Stopwatch stopwatch(this, timing);
    stopwatch.stage(QStringLiteral("create struct"));
    auto task = std::make_unique<structThrSql>(db);
    task->timing = timing;
    task->kind = m_mainKind;
    stopwatch.stage(QStringLiteral("create finish"));
    ResultReader(*task->sqlQuery, m_mainKind).prepare();
    stopwatch.stage(QStringLiteral("query start"));
    task->ok =
        StatementExecution::run(*task, m_mainWatch, sql, [&] { return task->sqlQuery->exec(sql); });
    stopwatch.stage(QStringLiteral("query finish"));
    setLast(task.get());

    const QSqlError error = finishReading(*this, task.get());
    afterStatement(sql, error);
    if (error.type() == QSqlError::NoError && task->ok) {
        ++cnt_sql_ok;
        return fetchResFin(task.release());
    }
    task.reset(); // the connection can be closed only when the query is gone
    ++cnt_sql_er;
    reportFailure("query", error);
    const QString reason = SqlSecrets::maskedStatement(error.text().trimmed());
    const QString message = traceLog ? tr("ошибка выполнения: '%1'\n%2")
                                           .arg(SqlSecrets::maskedStatement(sql.trimmed()), reason)
                                     : tr("ошибка выполнения: '%1'").arg(reason);
    sendMessage(WorkerLines::Statement + __LINE__, "query", message, -1);
    closeOnConnectionError(error);
    return QScriptValue(false);
}

QScriptValue VEXT_sqlThr::exec(const QString &text, const QScriptValue &args)
{
    const Entry entry(this);
    if (!db.isOpen()) {
        reportNotOpen("exec", WorkerLines::Statement + __LINE__);
        return QScriptValue(false);
    }
    clearSqlResult();
    // Conversion may run script code, so it comes before anything that this code could take away.
    QVariantList values;
    if (!argumentValues(*this, args, values) || !m_owner || !db.isOpen())
        return QScriptValue(false);
    QString statement;
    const bool positional = DriverText::complete(db.driver(), text, values.size(), statement);
    if (!positional)
        statement = SqlText::execStatement(text, values.size(), m_mainKind.driverType);

    auto task = std::make_unique<structThrSql>(db);
    task->kind = m_mainKind;
    ResultReader(*task->sqlQuery, m_mainKind).prepare();
    bool prepared = true;
    bool trace = traceLog;
    task->ok = StatementExecution::run(*task, m_mainWatch, statement, [&] {
        prepared = task->sqlQuery->prepare(statement);
        if (!prepared)
            return false;
        bindArguments(*this, *task->sqlQuery, values, positional, std::exchange(trace, false));
        return task->sqlQuery->exec();
    });
    if (!prepared) {
        reportUnprepared(*this, task.get(), text);
        return QScriptValue(false);
    }
    setLast(task.get());

    const QSqlError error = finishReading(*this, task.get());
    afterStatement(statement, error);
    // The statement counters stay as they are here, unlike in query().
    if (error.type() == QSqlError::NoError && task->ok)
        return fetchResFin(task.release());
    task.reset();
    reportFailure("exec", error);
    QString message = tr("ошибка выполнения: '%1'").arg(SqlSecrets::maskedStatement(error.text()));
    if (traceLog)
        message += QLatin1Char('\n') + SqlSecrets::maskedStatement(statement);
    sendMessage(WorkerLines::Statement + __LINE__, "exec", message, -1);
    closeOnConnectionError(error);
    return QScriptValue(false);
}

void VEXT_sqlThr::closeOnConnectionError(const QSqlError &error)
{
    if (error.type() != QSqlError::ConnectionError)
        return;
    m_mainWatch.sessionLost();
    close(true);
}
