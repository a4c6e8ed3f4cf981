/// @file
/// The connection that SQL at the prompt goes to.
#pragma once

#include "sql_dialect.h"

#include <QScriptValue>
#include <QString>

class QScriptEngine;

/// A connection object of the plugin, seen through its meta-object and its script members. It is
/// whatever the global `db` holds, so a connection that a script has made serves as well as one
/// that was opened at the prompt.
///
/// A copy of a script value; thread: the engine's.
class SqlConnection
{
public:
    /// No connection.
    SqlConnection() = default;
    explicit SqlConnection(const QScriptValue &value);

    /// What the global `db` holds, or no connection.
    static SqlConnection current(QScriptEngine *engine);

    bool exists() const { return object() != nullptr; }
    bool isOpen() const;
    /// Whether a running statement can be cancelled.
    bool canCancel() const;
    QString driver() const;
    SqlDialect dialect() const { return SqlDialect::ofDriver(driver()); }
    /// One line without password: driver, user, host and database.
    QString shown() const;
    QString lastError() const;

    /// Queues a statement for the worker; `done` gets result, error and milliseconds. The text is
    /// sent as it is, also if it begins like the plugin's own words for transactions.
    /// @return false when the connection is not open.
    bool send(const QString &sql, const QScriptValue &done) const;

    /// Asks the worker to cancel its statement and to end; does not wait.
    void stopWorker() const;
    bool isWorkerRunning() const;

    void close() const;
    /// The names of the tables (1) or views (4) as a result object, by way of the driver.
    QScriptValue tables(int type) const;

    /// Keeps the worker and with it the session: transactions, temporary tables, settings.
    void keepSession() const;

    /// A new connection object with the same parameters, opened and put into the global `db`.
    /// @return no connection, with `error` set, when it could not be opened.
    SqlConnection reopened(QScriptEngine *engine, QString *error) const;

    QObject *object() const { return m_value.toQObject(); }
    QScriptValue value() const { return m_value; }

private:
    QScriptValue call(const char *member, const QScriptValueList &arguments = {}) const;

    QScriptValue m_value;
};
