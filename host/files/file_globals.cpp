#include "file_globals.h"

#include "file_access.h"
#include "line_reader.h"
#include "script_lines.h"

#include <QFile>
#include <QFileInfo>
#include <QScriptContext>
#include <QScriptEngine>

namespace
{

/// "readFile 'name'", the begin of every error.
QString sourceOf(const char *function, const QString &path)
{
    return QStringLiteral("%1 '%2'").arg(QLatin1String(function), path);
}

/// Takes the first argument, which is a name.
/// @return false after a TypeError was thrown.
bool takePath(QScriptContext *context, const char *function, QString *path)
{
    const QScriptValue argument = context->argument(0);
    *path = argument.toString();
    // A name with this character would be cut there.
    if (argument.isString() && !path->isEmpty() && !path->contains(QChar(0)))
        return true;
    context->throwError(
        QScriptContext::TypeError,
        QStringLiteral("%1: the first argument must be a path").arg(QLatin1String(function)));
    return false;
}

/// Takes what is to be written: a text or bytes.
/// @return false after a TypeError was thrown.
bool takeContent(QScriptContext *context, const char *function, QByteArray *bytes)
{
    const QScriptValue argument = context->argument(1);
    if (argument.isString()) {
        *bytes = argument.toString().toUtf8();
        return true;
    }
    const QVariant variant = argument.isVariant() ? argument.toVariant() : QVariant();
    *bytes = variant.toByteArray();
    if (variant.userType() == QMetaType::QByteArray)
        return true;
    context->throwError(QScriptContext::TypeError,
                        QStringLiteral("%1: the second argument must be a text or bytes")
                            .arg(QLatin1String(function)));
    return false;
}

QScriptValue readFile(QScriptContext *context, QScriptEngine *)
{
    QString path;
    if (!takePath(context, "readFile", &path))
        return QScriptValue();
    const QString source = sourceOf("readFile", path);
    QByteArray bytes;
    QString error;
    if (!FileAccess::read(path, &bytes, &error))
        return ScriptLines::fail(context, source, error);
    const bool asBytes = context->argument(1).toString() == QLatin1String("bytes");
    return ScriptLines::content(context, bytes, asBytes, source);
}

using Writer = bool (*)(const QString &path, const QByteArray &bytes, QString *error);

QScriptValue writeWith(QScriptContext *context, const char *function, Writer writer)
{
    QString path;
    QByteArray bytes;
    if (!takePath(context, function, &path) || !takeContent(context, function, &bytes))
        return QScriptValue();
    QString error;
    if (!writer(path, bytes, &error))
        return ScriptLines::fail(context, sourceOf(function, path), error);
    return context->engine()->undefinedValue();
}

QScriptValue writeFile(QScriptContext *context, QScriptEngine *)
{
    return writeWith(context, "writeFile", FileAccess::write);
}

QScriptValue appendFile(QScriptContext *context, QScriptEngine *)
{
    return writeWith(context, "appendFile", FileAccess::append);
}

QScriptValue readLines(QScriptContext *context, QScriptEngine *)
{
    QString path;
    if (!takePath(context, "readLines", &path))
        return QScriptValue();
    const QScriptValue callback = context->argument(1);
    if (!callback.isFunction()) {
        return context->throwError(
            QScriptContext::TypeError,
            QStringLiteral("readLines: the second argument must be a function"));
    }
    const QString source = sourceOf("readLines", path);
    QFile file(path);
    if (QFileInfo(path).isDir())
        return ScriptLines::fail(context, source, QStringLiteral("it is a folder"));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return ScriptLines::fail(context, source, file.errorString());
    LineReader lines(file.handle());
    return ScriptLines::callForEach(context, &lines, callback, source);
}

QScriptValue exists(QScriptContext *context, QScriptEngine *)
{
    QString path;
    if (!takePath(context, "exists", &path))
        return QScriptValue();
    return QScriptValue(QFileInfo::exists(path));
}

QScriptValue listFiles(QScriptContext *context, QScriptEngine *engine)
{
    QString path;
    if (!takePath(context, "listFiles", &path))
        return QScriptValue();
    const QScriptValue pattern = context->argument(1);
    QStringList names;
    QString error;
    if (!FileAccess::list(path, pattern.isString() ? pattern.toString() : QString(), &names,
                          &error))
        return ScriptLines::fail(context, sourceOf("listFiles", path), error);
    return qScriptValueFromSequence(engine, names);
}

QScriptValue env(QScriptContext *context, QScriptEngine *engine)
{
    const QByteArray name = context->argument(0).toString().toLocal8Bit();
    if (!qEnvironmentVariableIsSet(name.constData()))
        return engine->undefinedValue();
    return QScriptValue(qEnvironmentVariable(name.constData()));
}

} // namespace

void FileGlobals::install(QScriptEngine *engine)
{
    QScriptValue global = engine->globalObject();
    global.setProperty(QStringLiteral("readFile"), engine->newFunction(readFile, 2));
    global.setProperty(QStringLiteral("writeFile"), engine->newFunction(writeFile, 2));
    global.setProperty(QStringLiteral("appendFile"), engine->newFunction(appendFile, 2));
    global.setProperty(QStringLiteral("readLines"), engine->newFunction(readLines, 2));
    global.setProperty(QStringLiteral("exists"), engine->newFunction(exists, 1));
    global.setProperty(QStringLiteral("listFiles"), engine->newFunction(listFiles, 2));
    global.setProperty(QStringLiteral("env"), engine->newFunction(env, 1));
}
