/// @file
/// Looking at script values from native code without leaving an exception behind.
#pragma once

#include <QScriptEngine>
#include <QScriptValue>
#include <QString>

/// Whether `engine` may be used. In the end of an engine its child objects are deleted when it is
/// no more than a QObject; script code that their signals reach still runs then, and calls in here.
inline bool isUsable(const QScriptEngine *engine)
{
    const QObject *object = engine;
    return qobject_cast<const QScriptEngine *>(object);
}

/// Clears, at the end of its scope, the exception that a getter or a conversion written in script
/// threw while native code looked at a value. An exception that was pending before stays as it was:
/// it belongs to the script that is running, or to the host.
/// Thread: that of the engine, which outlives the guard; a null engine makes it do nothing.
class ScriptGuard
{
    Q_DISABLE_COPY(ScriptGuard)

public:
    explicit ScriptGuard(QScriptEngine *engine)
        : m_engine(engine)
        , m_pendingBefore(engine && engine->hasUncaughtException())
    {
    }

    ~ScriptGuard()
    {
        if (threw())
            m_engine->clearExceptions();
    }

    /// Whether an exception was there when the scope began. QtScript then answers every read that
    /// goes through a getter, those of a QObject's properties included, with that exception.
    bool pendingBefore() const { return m_pendingBefore; }

    /// Whether something threw since the scope began.
    bool threw() const { return m_engine && !m_pendingBefore && m_engine->hasUncaughtException(); }

private:
    QScriptEngine *m_engine;
    bool m_pendingBefore;
};

/// Tells whether script code threw since the object was made, and leaves the exception where it is.
class ThrowWatch
{
public:
    explicit ThrowWatch(const QScriptEngine *engine)
        : m_engine(engine)
        , m_pendingBefore(engine->hasUncaughtException())
    {
    }

    bool threw() const { return !m_pendingBefore && m_engine->hasUncaughtException(); }

private:
    const QScriptEngine *m_engine;
    bool m_pendingBefore;
};

/// Reads a property.
/// @return an invalid value when there is none, its getter throws, or a pending exception was
/// answered in its place.
inline QScriptValue readProperty(const QScriptValue &object, const QString &name)
{
    QScriptEngine *engine = object.engine();
    const ScriptGuard guard(engine);
    const QScriptValue value = object.property(name);
    if (guard.threw())
        return QScriptValue();
    if (guard.pendingBefore() && value.strictlyEquals(engine->uncaughtException()))
        return QScriptValue();
    return value;
}
