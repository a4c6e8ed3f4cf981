/// @file
/// Ending a script that does not end by itself.
#pragma once

#include <QObject>
#include <QPointer>
#include <QScriptEngine>


/// Ends the running script when a signal comes. A script that never returns to the event loop
/// cannot be reached through it; the engine itself looks at the events while it runs loops and
/// calls, but only when it is told to. This object tells it so from the signal handler, and stops
/// the script at the engine's next look. Neither catch nor finally holds the script then.
///
/// While the engine looks, what has been handed to the event loop before is delivered, as it would
/// be between two statements: so it looks only after the signal, never in passing. A native
/// function is not left before it returns.
///
/// At most one instance at a time; the application is a HostApplication and an InterruptWatch
/// catches the signals. Thread: the engine's, and that must be the process's first one: signals
/// arrive there.
class EvaluationGuard : public QObject
{
    Q_OBJECT

public:
    /// @param engine not owned
    explicit EvaluationGuard(QScriptEngine *engine, QObject *parent = nullptr);
    ~EvaluationGuard() override;

    /// Takes one signal that came while a script was running.
    /// @return false when there was none (any more).
    bool takeSignal();

    /// To be called when no script runs: nothing is to be stopped any more. Drops the engine's
    /// exception, which the stop may have left.
    /// @return whether a script was stopped since the last call.
    bool settle();

    /// The engine goes; unless a script still runs, which may have to be stopped first.
    void dropEngine();

signals:
    /// A script was stopped, and nobody has settled that before the event loop came to rest.
    void stopped();

private:
    static void onSignal(); ///< in the signal handler: does only what is allowed there
    void onAwake();
    void onRest();

    QPointer<QScriptEngine> m_engine;
    bool m_stopped = false;
};
