/// @file
/// The toolkit that shows native functions, properties and enumerations to scripts.
#pragma once

#include <QMetaObject>
#include <QScriptContext>
#include <QScriptEngine>
#include <QScriptValue>
#include <QStringList>

/// Static helpers only. Thread: that of the script engine passed in. Nothing here throws, except
/// throwScript, which is made for it.
class FuncWrapper
{
public:
    using NativeFunction = QScriptValue (*)(QScriptContext *, QScriptEngine *);

    /// Flags of what scripts see; the numbers are part of the interface.
    /// Visible: methods and enumeration keys (3). Hidden: names, lengths, hidden methods (7).
    /// Accessor: a property served by one native function (30).
    static const QScriptValue::PropertyFlags Visible;
    static const QScriptValue::PropertyFlags Hidden;
    static const QScriptValue::PropertyFlags Accessor;

    /// Names `func` and sets it on `obj`; a negative `length` leaves the function's own.
    static QScriptValue createFunc(QScriptValue &func, QScriptValue obj, const char *name,
                                   bool hidden, int length);
    static QScriptValue createFunc(QScriptEngine *engine, QScriptValue &obj, const char *name,
                                   NativeFunction fn, int length);
    static QScriptValue createFunc(QScriptEngine *engine, QScriptValue &obj, const char *name,
                                   NativeFunction fn, int length, bool hidden);

    /// An accessor property `name` and a method "set"+Name, both served by `fn`: no argument is a
    /// read, one is a write. Calls `fn` once to read: an object that it gives gets the name.
    static void createFuncAndProp(QScriptEngine *engine, QScriptValue &obj, QString name,
                                  NativeFunction fn);

    /// The method "get"+Name and, if asked for, "set"+Name.
    static void createFuncs(QScriptEngine *engine, QScriptValue &obj, QString name,
                            NativeFunction fn, bool withSetter);

    /// Sets an accessor property with all of the Accessor flags, also on a name that is new. What
    /// `name` held before is gone; if it is a property of a QObject behind `obj`, it is written. A
    /// name that cannot be deleted keeps the flags it has.
    static void setAccessor(QScriptValue &obj, const QString &name, const QScriptValue &func);

    /// Spreads the keys of an enumeration over `obj`, with "mapName" and "getFlag".
    static void setEnums(QScriptEngine *engine, QScriptValue &obj, const QMetaObject &mo,
                         const char *enumName);

    /// Puts a new enumeration object on `obj` under `enumName`.
    static void setFlags(QScriptEngine *engine, QScriptValue &obj, const QMetaObject &mo,
                         const char *enumName);

    /// Script function: value of a key (any case) or name of a number, looked up on `this`. A
    /// property that cannot be read is no match; undefined when nothing matches.
    static QScriptValue getFlag(QScriptContext *context, QScriptEngine *engine);

    /// Script function: deletes the file named by the argument or, without one, by the first of
    /// "absoluteFilePath", "filePath" and "fileName" that `this` has, as text or as a method.
    /// @return true when the file is gone, false in every other case.
    static QScriptValue remove(QScriptContext *context, QScriptEngine *engine);

    /// Raises `text` in `ctx`. @return false when `ctx` is null.
    static QScriptValue throwScript(QScriptContext *ctx, const QString &text,
                                    QScriptContext::Error error);

    /// File and function of the script location that is being executed, and its line (-1 unknown).
    /// A pending exception is consumed: its location is the one reported.
    static QStringList infoDebugJs(QScriptContext *ctx, QScriptEngine *engine, int &line);

    /// The call site as "file:line function()"; empty without a context or an engine.
    static QString getCallee(QScriptContext *ctx, QScriptEngine *engine);

    /// Directory of the running script, absolute and ending in "/".
    /// With an exception pending, a directory behind a getter cannot be read: the host is asked.
    /// @return false, and `dir` empty, when neither the script nor the host tells.
    static bool getJsDir(QScriptEngine *engine, QString &dir);
};
