#include "script_globals.h"

#include "script_end.h"
#include "vext_post.h"
#include "vext_server.h"

#include <QScriptContext>
#include <QScriptEngine>

namespace
{

const QScriptValue::PropertyFlags kConstant = QScriptValue::ReadOnly | QScriptValue::Undeletable;

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
    QScriptValue global = engine->globalObject();
    global.setProperty(QStringLiteral("server"), wrapped(engine, server), kConstant);
    global.setProperty(QStringLiteral("post"), wrapped(engine, post), kConstant);
    global.setProperty(QStringLiteral("scriptEngine"), wrapped(engine, engine), kConstant);
}

void ScriptGlobals::installArguments(QScriptEngine *engine, const QStringList &arguments)
{
    engine->globalObject().setProperty(QStringLiteral("arguments"),
                                       qScriptValueFromSequence(engine, arguments));
}

void ScriptGlobals::installQuit(QScriptEngine *engine, ScriptEnd *end)
{
    engine->globalObject().setProperty(QStringLiteral("quit"), engine->newFunction(quit, end),
                                       kConstant);
}

void ScriptGlobals::setScriptFile(QScriptEngine *engine, const QString &name,
                                  const QString &directory)
{
    QScriptValue file = engine->newObject();
    file.setProperty(QStringLiteral("name"), name);
    file.setProperty(QStringLiteral("dir"), directory);
    QScriptValue wrapper = engine->globalObject().property(QStringLiteral("scriptEngine"));
    wrapper.setProperty(QStringLiteral("file"), file, kConstant);
}
