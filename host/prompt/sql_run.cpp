#include "sql_run.h"

#include <QScriptContext>
#include <QScriptEngine>

namespace
{

const int CancelMs = 5000; ///< a server that can cancel does so within this time
const int GraceMs = 700;   ///< reading rows ends at the next row, with every driver

/// The error of a task: a text, or false.
QString errorText(const QScriptValue &error)
{
    return error.isString() ? error.toString() : QString();
}

} // namespace

SqlRun::SqlRun(QScriptEngine *engine, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
{
    m_patience.setSingleShot(true);
    connect(&m_patience, &QTimer::timeout, this, [this] { end(SqlOutcome::Kind::Abandoned); });
}

void SqlRun::start(const SqlConnection &connection, const QString &sql)
{
    m_connection = connection;
    m_clock.start();
    m_canCancel = connection.canCancel();
    QScriptValue done = m_engine->newFunction(&SqlRun::deliver);
    // The engine reads a wrapped object that has gone as null.
    done.setData(m_engine->newQObject(this, QScriptEngine::QtOwnership));
    if (connection.send(sql, done))
        return;
    m_outcome.error = QStringLiteral("the connection is closed");
    end(SqlOutcome::Kind::Failed);
}

QScriptValue SqlRun::deliver(QScriptContext *context, QScriptEngine *engine)
{
    SqlRun *run = qobject_cast<SqlRun *>(context->callee().data().toQObject());
    if (run)
        run->take(context->argument(0), context->argument(1), context->argument(2).toNumber());
    return engine->undefinedValue();
}

void SqlRun::take(const QScriptValue &result, const QScriptValue &error, double milliseconds)
{
    if (m_ended)
        return;
    m_outcome.milliseconds = milliseconds;
    m_outcome.result = result;
    m_outcome.error = errorText(error);
    const bool failed = !m_outcome.error.isEmpty() || !result.isObject();
    if (!failed) {
        end(SqlOutcome::Kind::Done); // it was quicker than the cancelling
        return;
    }
    if (m_outcome.error.isEmpty())
        m_outcome.error = m_connection.lastError();
    if (m_outcome.error.isEmpty())
        m_outcome.error = QStringLiteral("the statement was not run");
    end(m_cancelled ? SqlOutcome::Kind::Cancelled : SqlOutcome::Kind::Failed);
}

void SqlRun::cancel()
{
    if (m_ended)
        return;
    if (m_cancelled) {
        end(SqlOutcome::Kind::Abandoned);
        return;
    }
    m_cancelled = true;
    m_patience.start(m_canCancel ? CancelMs : GraceMs);
    m_connection.stopWorker();
}

/// The receiver goes on only after the delivery that may be under way.
void SqlRun::end(SqlOutcome::Kind kind)
{
    if (m_ended)
        return;
    m_ended = true;
    m_patience.stop();
    m_outcome.kind = kind;
    QMetaObject::invokeMethod(this, &SqlRun::finished, Qt::QueuedConnection);
}
