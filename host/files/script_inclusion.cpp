#include "script_inclusion.h"

#include "program_files.h"
#include "script_file.h"

#include <QFileInfo>
#include <QScriptContext>
#include <QScriptContextInfo>
#include <QScriptEngine>

namespace
{

/// The file that called, as its code was named to the engine; empty for code without a file.
QString callingFile(const QScriptContext *context)
{
    for (const QScriptContext *frame = context; frame; frame = frame->parentContext()) {
        const QString file = QScriptContextInfo(frame).fileName();
        if (!file.isEmpty())
            return file;
    }
    return QString();
}

/// The path as it is shown in errors: short where the script's own path is short.
QString pathFrom(const QString &includingFile, const QString &path)
{
    const int slash = includingFile.lastIndexOf(QLatin1Char('/'));
    if (slash < 0 || QFileInfo(path).isAbsolute())
        return path;
    return includingFile.left(slash + 1) + path;
}

/// A file beside the script comes first: nobody's own file is hidden by one that comes with us.
QString foundFrom(const QString &includingFile, const QString &path)
{
    const QString file = pathFrom(includingFile, path);
    if (QFileInfo::exists(file))
        return file;
    const QString ofLibrary = ProgramFiles::libraryFile(path);
    return ofLibrary.isEmpty() ? file : ofLibrary;
}

QScriptValue fail(QScriptContext *context, const QString &path, const QString &reason)
{
    return context->throwError(QStringLiteral("include '%1': %2").arg(path, reason));
}

/// Runs the code as the engine's outermost code does: its variables are globals.
QScriptValue evaluateGlobally(QScriptContext *context, const QString &code, const QString &path)
{
    QScriptEngine *engine = context->engine();
    context->setActivationObject(engine->globalObject());
    context->setThisObject(engine->globalObject());
    const QScriptValue value = engine->evaluate(code, path);
    return engine->hasUncaughtException() ? value : engine->undefinedValue();
}

} // namespace

void ScriptInclusion::install(QScriptEngine *engine)
{
    engine->globalObject().setProperty(QStringLiteral("include"),
                                       engine->newFunction(include, this));
}

void ScriptInclusion::setMainFile(const QString &path)
{
    m_files.insert(QFileInfo(path).canonicalFilePath());
}

QScriptValue ScriptInclusion::include(QScriptContext *context, QScriptEngine *engine,
                                      void *inclusion)
{
    const QScriptValue argument = context->argument(0);
    if (!argument.isString() || argument.toString().isEmpty()) {
        return context->throwError(QScriptContext::TypeError,
                                   QStringLiteral("include: the argument must be a path"));
    }
    const QString path = foundFrom(callingFile(context), argument.toString());
    QSet<QString> &files = static_cast<ScriptInclusion *>(inclusion)->m_files;
    const QString identity = QFileInfo(path).canonicalFilePath();
    if (!identity.isEmpty() && files.contains(identity))
        return engine->undefinedValue();
    QString code;
    QString error;
    if (!ScriptFile::read(path, &code, &error))
        return fail(context, path, error);
    files.insert(identity); // before it runs: it may include itself
    const QScriptValue value = evaluateGlobally(context, code, path);
    if (engine->hasUncaughtException())
        files.remove(identity); // a script that catches this may try again
    return value;
}
