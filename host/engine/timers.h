/// @file
/// The script globals setTimeout, setInterval, clearTimeout and clearInterval.
#pragma once

#include <QHash>
#include <QObject>
#include <QScriptValue>
#include <QScriptValueList>

class QScriptContext;
class QScriptEngine;

/// The timers of one script. A callback may clear any timer, its own included, and set new ones.
///
/// Thread: the engine's. Must be cleared before the engine goes.
class Timers : public QObject
{
    Q_OBJECT

public:
    explicit Timers(QObject *parent = nullptr);

    /// Defines the four functions in the engine's global object.
    void install(QScriptEngine *engine);

    /// Whether any callback is still to come.
    bool hasPending() const { return !m_timers.isEmpty(); }

    /// Forgets every timer and its callback.
    void clear();

protected:
    void timerEvent(QTimerEvent *event) override;

private:
    struct Timer {
        int scriptId = 0; ///< never used again, unlike Qt's numbers
        bool repeats = false;
        QScriptValue callback;
        QScriptValueList arguments;
    };

    static QScriptValue setTimeout(QScriptContext *context, QScriptEngine *engine, void *timers);
    static QScriptValue setInterval(QScriptContext *context, QScriptEngine *engine, void *timers);
    static QScriptValue clearTimer(QScriptContext *context, QScriptEngine *engine, void *timers);

    QScriptValue add(QScriptContext *context, bool repeats);
    void remove(int scriptId);

    QHash<int, Timer> m_timers; ///< by Qt's timer number
    int m_lastScriptId = 0;
};
