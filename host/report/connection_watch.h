/// @file
/// What becomes of the connection objects of a script.
#pragma once

#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QScriptValue>

class QScriptEngine;

/// Follows connection objects through their signals and properties, all of them found by name: the
/// host knows no header of a plugin. It sees the failures that no script sees, and the connections
/// that were lost.
///
/// Thread: the engine's. The objects are not owned and may go at any time.
class ConnectionWatch : public QObject
{
    Q_OBJECT

public:
    /// @param engine tells whether a script is running: what fails then is the script's to see.
    explicit ConnectionWatch(QScriptEngine *engine, QObject *parent = nullptr);

    /// Follows a new object from now on.
    void watch(QObject *connection);

    /// From now on the engine is not touched any more.
    void dropEngine() { m_engine = nullptr; }

    /// All that are alive.
    QList<QObject *> connections() const;

    /// Those that were opened, listened or had tasks, and are closed now although no script has
    /// closed them.
    QList<QObject *> lost() const;

    /// The connection object that an object belongs to, the object itself included; null for
    /// others.
    QObject *connectionOf(QObject *object) const;

signals:
    /// A task has failed that has no callback, on a connection whose `query_finish` has no handler.
    /// @param statement the statement that failed; empty when it is not known.
    void taskFailed(QObject *connection, const QString &error, const QString &statement);
    void opened(QObject *connection);

private slots:
    void onOpened();
    void onClosed();
    void onStarted();
    void onQueryFinish(const QScriptValue &first, const QScriptValue &second,
                       const QScriptValue &third, const QScriptValue &fourth);

private:
    struct State {
        QPointer<QObject> object;
        bool isOpened = false; ///< opened, and not closed by the script since
        bool hadTasks = false;
    };

    QScriptEngine *m_engine;
    QHash<QObject *, State> m_states;
};
