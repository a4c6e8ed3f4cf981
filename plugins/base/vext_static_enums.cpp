#include "vext_static_enums.h"

#include "debug_line.h"
#include "script_guard.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMetaEnum>
#include <QScriptContextInfo>
#include <QScriptValueIterator>

namespace
{

const char SourceFile[] = "plugins/base/vext_static_enums";

// The lines that the messages of this file carry.
constexpr int LineSetFlags = 121;
constexpr int LineSetEnums = 137;

constexpr int LineUnknown = -1;

QString undefinedFile()
{
    return QStringLiteral("undefFile");
}

QString undefinedFunction()
{
    return QStringLiteral("undefFunc");
}

// --- functions and properties ---

void setFunctionName(QScriptValue func, const QString &name)
{
    func.setProperty(QStringLiteral("name"), name, FuncWrapper::Hidden);
}

QString capitalised(const QString &name)
{
    return name.left(1).toUpper() + name.mid(1);
}

/// Sets `func` as the visible method `name`, and names it so.
void setNamedMethod(QScriptValue &obj, const QString &name, const QScriptValue &func)
{
    obj.setProperty(name, func, FuncWrapper::Visible);
    setFunctionName(readProperty(obj, name), name);
}

// --- enumerations ---

QString qualifiedName(const QMetaObject &mo, const char *enumName)
{
    return QStringLiteral("%1::%2").arg(QString::fromLatin1(mo.className()),
                                        QString::fromLatin1(enumName));
}

/// Shows the mistake where the script looks for the enumeration, and in the message log.
void reportUnknownEnum(QScriptValue &obj, const QMetaObject &mo, const char *enumName, int line,
                       const char *function)
{
    const QString text = QStringLiteral("enum %1 no found").arg(qualifiedName(mo, enumName));
    obj.setProperty(QString::fromLatin1(enumName), text, FuncWrapper::Visible);
    DebugLine::critical(SourceFile, line, function) << qUtf8Printable(text);
}

QScriptValue undefined()
{
    return QScriptValue(QScriptValue::UndefinedValue);
}

/// The key that a script's text names: the class prefix goes, but a text that begins with the
/// separator is no qualified name and stays whole.
QString keyOf(const QString &text)
{
    const QLatin1Char separator(':');
    return text.indexOf(separator) > 0 ? text.split(separator).last() : text;
}

QScriptValue valueOfKey(const QScriptValue &object, const QString &key)
{
    for (QScriptValueIterator it(object); it.hasNext();) {
        it.next();
        if (it.name().compare(key, Qt::CaseInsensitive) == 0) {
            const QScriptValue value = readProperty(object, it.name());
            return value.isValid() ? value : undefined();
        }
    }
    return undefined();
}

/// Whether the property can be read and converts to `number`.
bool convertsTo(const QScriptValue &object, const QString &name, qsreal number)
{
    const QScriptValue value = readProperty(object, name);
    if (!value.isValid())
        return false;
    const ScriptGuard guard(object.engine());
    const qint32 converted = value.toInt32();
    return !guard.threw() && converted == number;
}

/// "mapName" and "getFlag" take part and convert to 0, so that a lookup of 0 gives "mapName".
QScriptValue nameOfNumber(const QScriptValue &object, qsreal number)
{
    for (QScriptValueIterator it(object); it.hasNext();) {
        it.next();
        if (convertsTo(object, it.name(), number))
            return QScriptValue(it.name());
    }
    return undefined();
}

// --- files ---

/// The path that an object describing a file gives for itself.
/// @return an invalid value when it gives none.
QScriptValue pathOf(const QScriptValue &object)
{
    for (const QString &name : {QStringLiteral("absoluteFilePath"), QStringLiteral("filePath"),
                                QStringLiteral("fileName")}) {
        const ScriptGuard guard(object.engine());
        QScriptValue path = object.property(name);
        // An unreadable property must not make the next one name another file.
        if (guard.threw())
            return QScriptValue();
        if (!path.isValid() || path.isUndefined())
            continue;
        if (path.isFunction())
            path = path.call(object);
        return guard.threw() ? QScriptValue() : path;
    }
    return QScriptValue();
}

// --- call sites ---

/// The script file that the host says is running.
QScriptValue hostFile(const QScriptValue &scriptEngine)
{
    return readProperty(scriptEngine, QStringLiteral("file"));
}

QScriptValue hostScriptEngine(QScriptEngine *engine)
{
    return readProperty(engine->globalObject(), QStringLiteral("scriptEngine"));
}

QString hostFileName(QScriptEngine *engine)
{
    const QScriptValue file = hostFile(hostScriptEngine(engine));
    if (!file.isObject())
        return undefinedFile();
    const ScriptGuard guard(engine);
    const QString name = file.property(QStringLiteral("name")).toString();
    return guard.threw() ? undefinedFile() : name;
}

/// The part after the last `separator`; the whole text when there is none.
QString lastPart(const QString &text, const QString &separator)
{
    return text.contains(separator) ? text.section(separator, -1) : text;
}

/// The nearest frame that knows its line: native frames know none.
QScriptContextInfo nearestScriptFrame(QScriptContext *ctx)
{
    QScriptContextInfo info(ctx);
    while (info.lineNumber() < 0 && ctx->parentContext()) {
        ctx = ctx->parentContext();
        info = QScriptContextInfo(ctx);
    }
    return info;
}

QStringList locationOfFrame(QScriptContext *ctx, int &line)
{
    const QScriptContextInfo info = nearestScriptFrame(ctx);
    const QString path = info.fileName();
    const QLatin1Char separator(path.contains(QLatin1Char('@')) ? '@' : '/');
    line = info.lineNumber();
    return {path.split(separator).last(), info.functionName()};
}

/// Reads "function(arguments) at path/prefix@file:line", the form of a backtrace entry.
QStringList locationOfEntry(const QString &entry, int &line)
{
    const QString function = entry.section(QLatin1Char('('), 0, 0);
    QString file = entry.section(QLatin1Char('('), -1);
    for (const QString &separator :
         {QStringLiteral(" at "), QStringLiteral("/"), QStringLiteral("@")})
        file = lastPart(file, separator);
    const QStringList pieces = file.split(QLatin1Char(':'));
    if (pieces.size() > 1)
        line = pieces.last().toInt();
    return {pieces.first(), function};
}

/// Consumes the pending exception: reporting it is what its location is read for.
QStringList locationOfException(QScriptEngine *engine, int &line)
{
    const QStringList backtrace = engine->uncaughtExceptionBacktrace();
    engine->clearExceptions();
    if (!backtrace.isEmpty() && backtrace.first().contains(QLatin1Char('(')))
        return locationOfEntry(backtrace.first(), line);
    return {hostFileName(engine), undefinedFunction()};
}

QString calleeName(QScriptContext *ctx, QScriptEngine *engine)
{
    const QScriptContext *caller = ctx->parentContext() ? ctx->parentContext() : ctx;
    const ScriptGuard guard(engine);
    const QString name = caller->argumentsObject()
                             .property(QStringLiteral("callee"))
                             .property(QStringLiteral("name"))
                             .toString();
    return guard.threw() ? QString() : name;
}

/// "" when `dir` does not exist.
QString existingDir(const QDir &dir)
{
    return dir.exists() ? dir.absolutePath() + QLatin1Char('/') : QString();
}

/// The directory that the global "scriptEngine" tells.
/// @return an invalid value when it tells none.
QScriptValue scriptDir(QScriptEngine *engine)
{
    const QScriptValue scriptEngine = hostScriptEngine(engine);
    if (!scriptEngine.isQObject())
        return QScriptValue();
    const QScriptValue file = hostFile(scriptEngine);
    return file.isObject() ? readProperty(file, QStringLiteral("dir")) : QScriptValue();
}

QString postDir(QScriptEngine *engine)
{
    QDir dir;
    const bool answered = QMetaObject::invokeMethod(engine->parent(), "getPostDir",
                                                    Qt::AutoConnection, Q_RETURN_ARG(QDir, dir));
    return answered ? existingDir(dir) : QString();
}

} // namespace

const QScriptValue::PropertyFlags FuncWrapper::Visible =
    QScriptValue::ReadOnly | QScriptValue::Undeletable;
const QScriptValue::PropertyFlags FuncWrapper::Hidden =
    QScriptValue::ReadOnly | QScriptValue::Undeletable | QScriptValue::SkipInEnumeration;
const QScriptValue::PropertyFlags FuncWrapper::Accessor =
    QScriptValue::Undeletable | QScriptValue::SkipInEnumeration | QScriptValue::PropertyGetter |
    QScriptValue::PropertySetter;

QScriptValue FuncWrapper::createFunc(QScriptValue &func, QScriptValue obj, const char *name,
                                     bool hidden, int length)
{
    const QString propertyName = QString::fromUtf8(name);
    setFunctionName(func, propertyName);
    if (length >= 0)
        func.setProperty(QStringLiteral("length"), length, Hidden);
    obj.setProperty(propertyName, func, hidden ? Hidden : Visible);
    return func;
}

QScriptValue FuncWrapper::createFunc(QScriptEngine *engine, QScriptValue &obj, const char *name,
                                     NativeFunction fn, int length)
{
    return createFunc(engine, obj, name, fn, length, false);
}

QScriptValue FuncWrapper::createFunc(QScriptEngine *engine, QScriptValue &obj, const char *name,
                                     NativeFunction fn, int length, bool hidden)
{
    QScriptValue func = engine->newFunction(fn, 0);
    return createFunc(func, obj, name, hidden, length);
}

void FuncWrapper::createFuncAndProp(QScriptEngine *engine, QScriptValue &obj, QString name,
                                    NativeFunction fn)
{
    const QScriptValue func = engine->newFunction(fn, 0);
    setAccessor(obj, name, func);
    // Reading an accessor back calls it: the value it gives gets the name, if it is an object.
    setFunctionName(readProperty(obj, name), name);
    setNamedMethod(obj, QStringLiteral("set") + capitalised(name), func);
}

void FuncWrapper::createFuncs(QScriptEngine *engine, QScriptValue &obj, QString name,
                              NativeFunction fn, bool withSetter)
{
    const QString suffix = capitalised(name);
    setNamedMethod(obj, QStringLiteral("get") + suffix, engine->newFunction(fn, 0));
    // A function object of its own: one object would carry one name for both.
    if (withSetter)
        setNamedMethod(obj, QStringLiteral("set") + suffix, engine->newFunction(fn, 0));
}

void FuncWrapper::setAccessor(QScriptValue &obj, const QString &name, const QScriptValue &func)
{
    // Qt drops all but the accessor bits when the name is new; an existing name keeps its others.
    obj.setProperty(name, undefined(), QScriptValue::Undeletable | QScriptValue::SkipInEnumeration);
    obj.setProperty(name, func, Accessor);
}

void FuncWrapper::setEnums(QScriptEngine *engine, QScriptValue &obj, const QMetaObject &mo,
                           const char *enumName)
{
    const int index = mo.indexOfEnumerator(enumName);
    if (index < 0) {
        reportUnknownEnum(obj, mo, enumName, LineSetEnums, "setEnums");
        return;
    }
    const QMetaEnum keys = mo.enumerator(index);
    obj.setProperty(QStringLiteral("mapName"), qualifiedName(mo, enumName), Hidden);
    for (int i = 0; i < keys.keyCount(); ++i)
        obj.setProperty(QString::fromLatin1(keys.key(i)), keys.value(i), Visible);
    createFunc(engine, obj, "getFlag", getFlag, 1);
}

void FuncWrapper::setFlags(QScriptEngine *engine, QScriptValue &obj, const QMetaObject &mo,
                           const char *enumName)
{
    if (mo.indexOfEnumerator(enumName) < 0) {
        reportUnknownEnum(obj, mo, enumName, LineSetFlags, "setFlags");
        return;
    }
    QScriptValue flags = engine->newObject();
    setEnums(engine, flags, mo, enumName);
    obj.setProperty(QString::fromLatin1(enumName), flags, Hidden);
}

QScriptValue FuncWrapper::getFlag(QScriptContext *context, QScriptEngine *)
{
    if (!context || !context->thisObject().isObject() || context->argumentCount() == 0)
        return undefined();
    const QScriptValue wanted = context->argument(0);
    if (wanted.isString())
        return valueOfKey(context->thisObject(), keyOf(wanted.toString()));
    if (wanted.isNumber())
        return nameOfNumber(context->thisObject(), wanted.toNumber());
    return undefined();
}

QScriptValue FuncWrapper::remove(QScriptContext *context, QScriptEngine *)
{
    if (!context)
        return QScriptValue(false);
    const QScriptValue path =
        context->argumentCount() > 0 ? context->argument(0) : pathOf(context->thisObject());
    return QScriptValue(path.isString() && QFile::remove(path.toString()));
}

QScriptValue FuncWrapper::throwScript(QScriptContext *ctx, const QString &text,
                                      QScriptContext::Error error)
{
    return ctx ? ctx->throwError(error, text) : QScriptValue(false);
}

QStringList FuncWrapper::infoDebugJs(QScriptContext *ctx, QScriptEngine *engine, int &line)
{
    line = LineUnknown;
    if (!ctx || !engine)
        return {undefinedFile(), undefinedFunction()};
    return engine->hasUncaughtException() ? locationOfException(engine, line)
                                          : locationOfFrame(ctx, line);
}

QString FuncWrapper::getCallee(QScriptContext *ctx, QScriptEngine *engine)
{
    if (!ctx || !engine)
        return QString();
    const QString callee = calleeName(ctx, engine);
    int line = LineUnknown;
    const QString file = infoDebugJs(ctx, engine, line).first();
    // One call fills all three, so that a file name with a "%2" in it stays as it is.
    return QStringLiteral("%1:%3 %2()").arg(file, callee, QString::number(line));
}

bool FuncWrapper::getJsDir(QScriptEngine *engine, QString &dir)
{
    dir.clear();
    if (!engine)
        return false;
    const QScriptValue told = scriptDir(engine);
    if (!told.isString())
        dir = postDir(engine);
    // A directory that the script names decides alone, even where it does not exist.
    else if (!told.toString().isEmpty())
        dir = existingDir(QDir(told.toString()));
    return !dir.isEmpty();
}
