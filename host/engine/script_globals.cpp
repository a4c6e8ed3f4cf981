#include "script_globals.h"

#include "script_end.h"
#include "vext_post.h"
#include "vext_server.h"

#include <QScriptContext>
#include <QScriptEngine>

namespace
{

/// Reads what the function was made for, and takes no notice of a value to set.
QScriptValue constant(QScriptContext *context, QScriptEngine *)
{
    return context->callee().data();
}

/// Defines a global that scripts can neither replace nor delete: plugins look it up later. As an
/// accessor, because the engine drops the flags of plain properties of its global object.
void defineConstant(QScriptEngine *engine, const QString &name, const QScriptValue &value)
{
    QScriptValue accessor = engine->newFunction(constant);
    accessor.setData(value);
    // Qt keeps a function's data in a property of it, which a script could replace.
    accessor.setProperty(QStringLiteral("__qt_data__"), value,
                         QScriptValue::ReadOnly | QScriptValue::Undeletable |
                             QScriptValue::SkipInEnumeration);
    QScriptValue descriptor = engine->newObject();
    descriptor.setProperty(QStringLiteral("get"), accessor);
    descriptor.setProperty(QStringLiteral("set"), accessor);
    descriptor.setProperty(QStringLiteral("enumerable"), true);
    descriptor.setProperty(QStringLiteral("configurable"), false);
    QScriptValue global = engine->globalObject();
    const QScriptValue object = global.property(QStringLiteral("Object"));
    object.property(QStringLiteral("defineProperty"))
        .call(object, {global, QScriptValue(name), descriptor});
}

QScriptValue wrapped(QScriptEngine *engine, QObject *object)
{
    return engine->newQObject(object, QScriptEngine::QtOwnership,
                              QScriptEngine::ExcludeChildObjects |
                                  QScriptEngine::ExcludeDeleteLater |
                                  QScriptEngine::PreferExistingWrapperObject);
}

/// Scripts see a folder as its absolute path.
QScriptValue dirToScript(QScriptEngine *, const QDir &directory)
{
    return QScriptValue(directory.absolutePath());
}

void dirFromScript(const QScriptValue &value, QDir &directory)
{
    directory.setPath(value.toString());
}

QScriptValue quit(QScriptContext *context, QScriptEngine *engine, void *end)
{
    const QScriptValue code = context->argument(0);
    // What a process can tell its parent is one byte.
    static_cast<ScriptEnd *>(end)->request(code.isNumber() ? code.toInt32() & 0xFF : 0);
    engine->abortEvaluation();
    return engine->undefinedValue();
}

} // namespace

void ScriptGlobals::installObjects(QScriptEngine *engine, VextServer *server, VextPost *post)
{
    qScriptRegisterMetaType<QDir>(engine, dirToScript, dirFromScript);
    defineConstant(engine, QStringLiteral("server"), wrapped(engine, server));
    defineConstant(engine, QStringLiteral("post"), wrapped(engine, post));
    defineConstant(engine, QStringLiteral("scriptEngine"), wrapped(engine, engine));
}

void ScriptGlobals::installArguments(QScriptEngine *engine, const QStringList &arguments)
{
    engine->globalObject().setProperty(QStringLiteral("arguments"),
                                       qScriptValueFromSequence(engine, arguments));
}

void ScriptGlobals::installQuit(QScriptEngine *engine, ScriptEnd *end)
{
    engine->globalObject().setProperty(QStringLiteral("quit"), engine->newFunction(quit, end));
}

void ScriptGlobals::setScriptFile(QScriptEngine *engine, const QString &name,
                                  const QString &directory)
{
    QScriptValue file = engine->newObject();
    file.setProperty(QStringLiteral("name"), name);
    file.setProperty(QStringLiteral("dir"), directory);
    QScriptValue wrapper = engine->globalObject().property(QStringLiteral("scriptEngine"));
    wrapper.setProperty(QStringLiteral("file"), file,
                        QScriptValue::ReadOnly | QScriptValue::Undeletable);
}

void ScriptGlobals::setScriptPath(QScriptEngine *engine, const QString &path)
{
    engine->globalObject().setProperty(QStringLiteral("scriptFile"), path);
}
