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

} // namespace

void ScriptProperty::setHidden(QScriptEngine *engine, QScriptValue object, const QString &name,
                               const QScriptValue &value)
{
    if (isOwnGlobal(engine, object)) {
        // The second install of an engine: the first one's property cannot be changed.
        const QScriptValue::PropertyFlags there = object.propertyFlags(name);
        if (there & QScriptValue::PropertyGetter && there & QScriptValue::Undeletable)
            return;
        QScriptValue reader = engine->newFunction(fixedValue);
        reader.setData(value);
        object.setProperty(name, QScriptValue());
        if (defineAccessor(engine, object, name, reader))
            return;
    }
    object.setProperty(name, value, FuncWrapper::Hidden);
}

void ScriptProperty::setHiddenAccessor(QScriptEngine *engine, QScriptValue object,
                                       const QString &name, const QScriptValue &function)
{
    if (isOwnGlobal(engine, object)) {
        const QScriptValue::PropertyFlags there = object.propertyFlags(name);
        if (there & QScriptValue::PropertyGetter && there & QScriptValue::Undeletable)
            return;
        object.setProperty(name, QScriptValue());
        if (defineAccessor(engine, object, name, function))
            return;
    }
    FuncWrapper::setAccessor(object, name, function);
}
