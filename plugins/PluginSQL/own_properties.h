/// @file
/// Properties that become an object's own, whatever scripts have put on its prototypes.
#pragma once

#include <QScriptEngine>
#include <QScriptString>
#include <QScriptValue>

/// Takes an object's prototype away while it lives. What is set meanwhile is the object's own: a
/// setter on Object.prototype would take the value, and a getter without one would keep it out.
/// Thread: that of the engine, which outlives it.
class WithoutPrototype
{
    Q_DISABLE_COPY(WithoutPrototype)

public:
    WithoutPrototype(QScriptEngine *engine, const QScriptValue &object)
        : m_object(object)
        , m_prototype(object.prototype())
    {
        m_object.setPrototype(engine->nullValue());
    }

    ~WithoutPrototype() { m_object.setPrototype(m_prototype); }

private:
    QScriptValue m_object;
    QScriptValue m_prototype;
};

/// Gives properties to one object as its own, and leaves its prototype alone where nothing is in
/// the way. Thread: that of the engine.
class OwnProperties
{
public:
    OwnProperties(QScriptEngine *engine, const QScriptValue &object)
        : m_engine(engine)
        , m_object(object)
    {
    }

    void set(const QScriptString &name, const QScriptValue &value,
             QScriptValue::PropertyFlags flags = QScriptValue::KeepExistingFlags)
    {
        if (m_object.propertyFlags(name) &
            (QScriptValue::PropertyGetter | QScriptValue::PropertySetter))
            setWithoutPrototype(name, value, flags);
        else
            m_object.setProperty(name, value, flags);
    }

    void setWithoutPrototype(const QScriptString &name, const QScriptValue &value,
                             QScriptValue::PropertyFlags flags)
    {
        const WithoutPrototype bare(m_engine, m_object);
        m_object.setProperty(name, value, flags);
    }

private:
    QScriptEngine *m_engine;
    QScriptValue m_object;
};
