#include "script_place.h"

#include "script_reading.h"

#include <QScriptContext>
#include <QScriptContextInfo>
#include <QScriptEngine>
#include <QScriptValueIterator>

bool ScriptPlace::current(QScriptEngine *engine, QString *file, int *line)
{
    if (!engine || !engine->isEvaluating())
        return false;
    for (const QScriptContext *call = engine->currentContext(); call;
         call = call->parentContext()) {
        const QScriptContextInfo info(call);
        if (info.lineNumber() > 0 && !info.fileName().isEmpty()) {
            *file = info.fileName();
            *line = info.lineNumber();
            return true;
        }
    }
    return false;
}

QScriptValue ScriptPlace::valueOf(QScriptEngine *engine, const QObject *object)
{
    for (const QScriptContext *call = engine->currentContext(); call;
         call = call->parentContext()) {
        if (call->thisObject().toQObject() == object)
            return call->thisObject();
    }
    QScriptValueIterator global(engine->globalObject());
    while (global.hasNext()) {
        global.next();
        // Reading it through the iterator would run a getter.
        const QScriptValue value =
            ScriptReading::plainProperty(engine->globalObject(), global.name());
        if (value.isQObject() && value.toQObject() == object)
            return value;
    }
    return QScriptValue();
}

QObject *ScriptPlace::calledObject(QScriptEngine *engine)
{
    return engine->isEvaluating() ? engine->currentContext()->thisObject().toQObject() : nullptr;
}

bool ScriptPlace::isCalling(QScriptEngine *engine, const QString &member)
{
    return engine->isEvaluating() &&
           QScriptContextInfo(engine->currentContext()).functionName() == member;
}
