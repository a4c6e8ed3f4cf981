/// @file
/// The event loop of a script program: how long it runs and what ends it.
#pragma once

#include "pending_work.h"

#include <QEventLoop>
#include <QObject>
#include <QPointer>
#include <QTimer>

class QScriptEngine;
class ScriptEnd;

/// Runs the event loop until nothing is pending or an end is requested, and sees to it that
/// between two events no uncaught exception stays unnoticed and no script code runs once the end
/// is requested.
///
/// Plugins call script callbacks and leave their exceptions in the engine. The loop therefore
/// looks at the engine before every event, as an event filter of the application.
///
/// Thread: the application's. Nothing that it is given is owned.
class RunLoop : public QObject
{
    Q_OBJECT

public:
    /// @param engine may go before the loop; see dropEngine().
    RunLoop(QScriptEngine *engine, ScriptEnd *end, const PendingWork &work,
            QObject *parent = nullptr);
    ~RunLoop() override;

    /// Keeps the loop running although nothing is pending: more input may come.
    void hold() { ++m_holds; }
    void release() { --m_holds; }

    /// Runs until the end. May be called again after it has returned.
    void exec();

    /// From now on the engine is not touched any more.
    void dropEngine();

    bool eventFilter(QObject *receiver, QEvent *event) override;

signals:
    /// The engine holds an uncaught exception and no script runs. The receiver takes it out.
    /// @param receiver the object whose event came last; null when it is gone or unknown
    void exceptionFound(QObject *receiver);
    /// Nothing is left to wait for.
    void idle();
    /// The end is requested and no script runs: the receiver destroys the engine now, so that what
    /// is still in the event queue runs no callback.
    void scriptsMustEnd();

private:
    void checkForException();
    void poll();

    QScriptEngine *m_engine;
    ScriptEnd *m_end;
    PendingWork m_work;
    QEventLoop m_loop;
    QTimer m_poll;
    int m_holds = 0;
    QPointer<QObject> m_receiver; ///< of the event that came last
    int m_quietPolls = 0;         ///< consecutive observations without pending work
};
