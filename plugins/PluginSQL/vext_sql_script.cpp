#include "vext_sql.h"

#include "debug_line.h"
#include "script_guard.h"
#include "script_property.h"
#include "vext_sql_call.h"
#include "vext_sql_module.h"
#include "vext_sql_thread.h"
#include "vext_static_enums.h"

#include <QMetaMethod>
#include <QRegularExpression>

namespace
{

/// Steps that both asynchronous functions share: find the object, check it, make and queue a task.
QScriptValue queueTask(SqlCall::Function function, const char *name, QScriptContext *context,
                       QScriptEngine *engine)
{
    if (!context || !isUsable(engine))
        return QScriptValue(false);
    const auto raise = [context](const QString &text) {
        return QScriptValue(VEXT_SQL::throwScript(context, text, QScriptContext::TypeError));
    };
    QPointer<VEXT_SQL> connection = qobject_cast<VEXT_SQL *>(context->thisObject().toQObject());
    // Another engine's connection could not call this one's callback.
    if (!connection || !connection->isOf(engine)) {
        return raise(VEXT_SQL::tr("потерян объект %1").arg(QStringLiteral("VEXT_SQL")) +
                     QLatin1Char('\n') + SqlCall::usageText(function));
    }
    if (!connection->isOpen()) {
        if (!connection->traceLog())
            return QScriptValue(false);
        return raise(connection->notOpenText());
    }
    SqlCall::Refusal refusal;
    structThrSql *task = SqlCall::makeTask(function, context, engine, refusal);
    if (task) {
        // Reading the arguments may have run script code, and that may have done anything.
        if (connection)
            return QScriptValue(connection->appendSqlTask(task));
        delete task;
        return QScriptValue(false);
    }
    if (refusal.scriptException)
        return engine->uncaughtException();
    if (refusal.logLine > 0) {
        DebugLine::critical(VextSqlModule::Connection, refusal.logLine, name)
            << qUtf8Printable(refusal.logText);
    }
    return raise(refusal.text);
}

/// The caller's name, or the class name from its fifth character on, bare and in lower case.
QString objectNameFor(QScriptContext *ctx)
{
    const QScriptValue first = ctx->argument(0);
    if (first.isString() && !first.toString().isEmpty())
        return first.toString();
    QString name = QString::fromLatin1(VEXT_SQL::staticMetaObject.className()).mid(4);
    name.remove(QRegularExpression(QStringLiteral("_+")));
    return name.toLower();
}

/// Takes what is native in the engine, before a script has had much time to replace it, and keeps
/// it where none can.
QScriptValue takeNatives(QScriptEngine *engine)
{
    QScriptValue natives = engine->newObject();
    natives.setProperty(QStringLiteral("push"),
                        readProperty(engine->newArray(), QStringLiteral("push")),
                        FuncWrapper::Hidden);
    natives.setProperty(QStringLiteral("Function"),
                        readProperty(engine->globalObject(), QStringLiteral("Function")),
                        FuncWrapper::Hidden);
    return natives;
}

/// Calls the class's own setScriptValueThis by name: the base's slot of that name is another one.
void giveScriptValueThis(QObject *object, const QScriptValue &wrapper)
{
    const QMetaObject *meta = object->metaObject();
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        const QByteArray signature = meta->method(i).methodSignature();
        if (!signature.startsWith("se") ||
            signature.left(signature.indexOf('(')) != "setScriptValueThis")
            continue;
        QMetaObject::invokeMethod(object, "setScriptValueThis", Q_ARG(QScriptValue, wrapper));
        return;
    }
}

} // namespace

// --- Asynchronous functions ---

QScriptValue VEXT_SQL::js_query_thread(QScriptContext *context, QScriptEngine *engine)
{
    return queueTask(SqlCall::Function::Query, "js_query_thread", context, engine);
}

QScriptValue VEXT_SQL::js_exec_thread(QScriptContext *context, QScriptEngine *engine)
{
    return queueTask(SqlCall::Function::Exec, "js_exec_thread", context, engine);
}

// --- Script constructor ---

void VEXT_SQLWrapper::registerWrapper(QScriptEngine *eng)
{
    QScriptValue function = eng->newFunction(&VEXT_SQLWrapper::ctor, 0);
    QScriptValue holder = eng->newObject();
    FuncWrapper::createFunc(function, holder, "VEXT_SQL", true, 1);
    ScriptProperty::setFixedData(function, takeNatives(eng));
    ScriptProperty::setHidden(eng, eng->globalObject(), QStringLiteral("VEXT_SQL"), function);
}

QScriptValue VEXT_SQLWrapper::ctor(QScriptContext *ctx, QScriptEngine *eng)
{
    if (!isUsable(eng))
        return QScriptValue(QScriptValue::NullValue);
    const QPointer<VEXT_SQL> object = new VEXT_SQL(eng, eng);
    object->setObjectName(objectNameFor(ctx));
    insertObjectToPost(eng, object);
    // A host may refuse the object by deleting it.
    if (!object)
        return QScriptValue(eng, QScriptValue::NullValue);
    const QScriptValue wrapper =
        eng->newQObject(object, QScriptEngine::QtOwnership, QScriptEngine::ExcludeChildObjects);
    const QScriptValue natives = ctx->callee().data();
    object->worker->m_arrayPush =
        natives.property(QStringLiteral("push"), QScriptValue::ResolveLocal);
    object->worker->m_functionMaker =
        natives.property(QStringLiteral("Function"), QScriptValue::ResolveLocal);
    giveScriptValueThis(object, wrapper);
    return wrapper;
}
