/// @file
/// One statement on its way.
#pragma once

#include "sql_connection.h"

#include <QElapsedTimer>
#include <QObject>
#include <QScriptValue>
#include <QTimer>

class QScriptContext;

/// What became of a statement.
struct SqlOutcome {
    enum class Kind {
        Done,
        Failed,
        Cancelled, ///< the connection lives, its session on the server begins anew
        Abandoned, ///< the statement could not be cancelled and runs on; its connection is lost
    };

    Kind kind = Kind::Failed;
    QScriptValue result; ///< Done: the result object
    QString error;       ///< Failed: never empty
    double milliseconds = 0;
};

/// Runs one statement on the worker of a connection while the event loop goes on.
///
/// Thread: the engine's. May be deleted at any time; the statement runs on then and its outcome is
/// dropped.
class SqlRun : public QObject
{
    Q_OBJECT

public:
    explicit SqlRun(QScriptEngine *engine, QObject *parent = nullptr);

    /// Emits finished(), never before it returns. One statement an object.
    void start(const SqlConnection &connection, const QString &sql);

    /// Cancels the statement. Where the driver cannot, it may still end in the next moment, as
    /// the reading of rows does; otherwise it is abandoned. Asked again, it is abandoned at once.
    void cancel();

    double elapsedMs() const { return static_cast<double>(m_clock.elapsed()); }
    bool isCancelled() const { return m_cancelled; }
    const SqlConnection &connection() const { return m_connection; }
    const SqlOutcome &outcome() const { return m_outcome; }

signals:
    void finished();

private:
    static QScriptValue deliver(QScriptContext *context, QScriptEngine *engine);
    void take(const QScriptValue &result, const QScriptValue &error, double milliseconds);
    void end(SqlOutcome::Kind kind);

    QScriptEngine *m_engine;
    SqlConnection m_connection;
    SqlOutcome m_outcome;
    QElapsedTimer m_clock;
    QTimer m_patience; ///< runs from the cancelling on
    bool m_canCancel = false;
    bool m_cancelled = false;
    bool m_ended = false;
};
