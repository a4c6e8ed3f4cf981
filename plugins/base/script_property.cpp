#include "script_property.h"

#include "script_guard.h"
#include "vext_static_enums.h"

#include <QScriptContext>

namespace
{

/// Serves a fixed value: reading gives it, writing changes nothing.
QScriptValue fixedValue(QScriptContext *context, QScriptEngine *)
{
    return context->callee().data();
}

bool isOwnGlobal(QScriptEngine *engine, const QScriptValue &object)
{
    return object.strictlyEquals(engine->globalObject());
}

/// On an engine's own global object Qt drops the flags of a name that is new.
bool holds(const QScriptValue &object, const QString &name, QScriptValue::PropertyFlags flags)
{
    return (object.propertyFlags(name, QScriptValue::ResolveLocal) & flags) == flags;
}

/// Made by the install before, or by one whose library has gone.
bool isFixedAccessor(const QScriptValue &object, const QString &name)
{
    return holds(object, name, QScriptValue::PropertyGetter | QScriptValue::Undeletable);
}

/// @return false when the script replaced what is needed for it
bool defineAccessor(QScriptEngine *engine, QScriptValue object, const QString &name,
                    const QScriptValue &function)
{
    if (isFixedAccessor(object, name)) {
        // Its other flags stay.
        object.setProperty(name, function,
                           QScriptValue::PropertyGetter | QScriptValue::PropertySetter);
        return true;
    }
    const ScriptGuard guard(engine);
    const QScriptValue objectClass = readProperty(engine->globalObject(), QStringLiteral("Object"));
    QScriptValue define = readProperty(objectClass, QStringLiteral("defineProperty"));
    if (!define.isFunction())
        return false;
    QScriptValue descriptor = engine->newObject();
    descriptor.setProperty(QStringLiteral("get"), function);
    descriptor.setProperty(QStringLiteral("set"), function);
    descriptor.setProperty(QStringLiteral("enumerable"), QScriptValue(engine, false));
    descriptor.setProperty(QStringLiteral("configurable"), QScriptValue(engine, false));
    define.call(objectClass, QScriptValueList{object, QScriptValue(engine, name), descriptor});
    return isFixedAccessor(object, name);
}

} // namespace

void ScriptProperty::setHidden(QScriptEngine *engine, QScriptValue object, const QString &name,
                               const QScriptValue &value)
{
    if (!isOwnGlobal(engine, object)) {
        object.setProperty(name, value, FuncWrapper::Hidden);
        return;
    }
    if (!isFixedAccessor(object, name)) {
        object.setProperty(name, QScriptValue());
        object.setProperty(name, value, FuncWrapper::Hidden);
        if (holds(object, name, FuncWrapper::Hidden))
            return;
        object.setProperty(name, QScriptValue());
    }
    const QScriptValue reader = engine->newFunction(fixedValue);
    setFixedData(reader, value);
    if (!defineAccessor(engine, object, name, reader))
        object.setProperty(name, value, FuncWrapper::Hidden);
}

void ScriptProperty::setHiddenAccessor(QScriptEngine *engine, QScriptValue object,
                                       const QString &name, const QScriptValue &function)
{
    if (isOwnGlobal(engine, object)) {
        if (!isFixedAccessor(object, name))
            object.setProperty(name, QScriptValue());
        if (defineAccessor(engine, object, name, function))
            return;
    }
    FuncWrapper::setAccessor(object, name, function);
}

void ScriptProperty::setFixedData(QScriptValue function, const QScriptValue &data)
{
    function.setData(data);
    function.setProperty(QStringLiteral("__qt_data__"), data, FuncWrapper::Hidden);
}
