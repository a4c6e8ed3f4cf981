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

/// @return false when the script replaced what is needed for it, or the property is there already
/// and cannot be redefined.
bool defineAccessor(QScriptEngine *engine, const QScriptValue &object, const QString &name,
                    const QScriptValue &function)
{
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
    return !guard.threw();
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

/// The second install of an engine: the first one's property cannot be changed.
bool isFixedAccessor(const QScriptValue &object, const QString &name)
{
    return holds(object, name, QScriptValue::PropertyGetter | QScriptValue::Undeletable);
}

} // namespace

void ScriptProperty::setHidden(QScriptEngine *engine, QScriptValue object, const QString &name,
                               const QScriptValue &value)
{
    if (!isOwnGlobal(engine, object)) {
        object.setProperty(name, value, FuncWrapper::Hidden);
        return;
    }
    if (isFixedAccessor(object, name))
        return;
    object.setProperty(name, QScriptValue());
    object.setProperty(name, value, FuncWrapper::Hidden);
    if (holds(object, name, FuncWrapper::Hidden))
        return;
    QScriptValue reader = engine->newFunction(fixedValue);
    reader.setData(value);
    object.setProperty(name, QScriptValue());
    if (!defineAccessor(engine, object, name, reader))
        object.setProperty(name, value, FuncWrapper::Hidden);
}

void ScriptProperty::setHiddenAccessor(QScriptEngine *engine, QScriptValue object,
                                       const QString &name, const QScriptValue &function)
{
    if (isOwnGlobal(engine, object)) {
        if (isFixedAccessor(object, name))
            return;
        object.setProperty(name, QScriptValue());
        if (defineAccessor(engine, object, name, function))
            return;
    }
    FuncWrapper::setAccessor(object, name, function);
}
