/// @file
/// A script host with the plugin's code in it, for the tests that also look behind the script.
#pragma once

#include "plugin_sql.h"
#include "script_host.h"
#include "vext_sql.h"
#include "vext_sql_thread.h"

#include <QScriptValueIterator>

/// Texts of the tests are UTF-8.
inline QString utf8(const char *text)
{
    return QString::fromUtf8(text);
}

/// A host whose engine has the plugin installed on its global object. The plugin object is that of
/// the program itself, made by its static initialisation. Engine's thread.
class FrameHost
{
public:
    explicit FrameHost(const ScriptHostOptions &options = ScriptHostOptions())
        : script(options)
    {
        script.install(plugin());
    }

    static QObject *plugin() { return VextPlugin().globalObject(); }

    QScriptEngine *engine() const { return script.engine(); }
    VextPostStub *post() const { return script.post(); }

    /// Runs code that must not throw.
    QScriptValue eval(const char *code, const char *file = __builtin_FILE(),
                      int line = __builtin_LINE())
    {
        return script.eval(utf8(code), QStringLiteral("test.js"), 1, file, line);
    }
    QScriptValue eval(const QString &code, const char *file = __builtin_FILE(),
                      int line = __builtin_LINE())
    {
        return script.eval(code, QStringLiteral("test.js"), 1, file, line);
    }
    /// The result of code as a script prints it.
    QString shown(const char *code, const char *file = __builtin_FILE(),
                  int line = __builtin_LINE())
    {
        return eval(code, file, line).toString();
    }
    /// Whether an expression is exactly the boolean true.
    bool holds(const char *expression, const char *file = __builtin_FILE(),
               int line = __builtin_LINE())
    {
        const QScriptValue value = eval(expression, file, line);
        return value.isBool() && value.toBool();
    }

    /// The connection object behind a global variable.
    VEXT_SQL *connection(const char *name = "db") const
    {
        return qobject_cast<VEXT_SQL *>(script.global(utf8(name)).toQObject());
    }
    VEXT_sqlThr *worker(const char *name = "db") const
    {
        VEXT_SQL *object = connection(name);
        return object ? object->worker : nullptr;
    }

    ScriptHost script;
};

/// Names of the own properties of a script object, hidden ones included, in their order.
inline QStringList propertyNames(const QScriptValue &object)
{
    QStringList names;
    QScriptValueIterator it(object);
    while (it.hasNext()) {
        it.next();
        names.append(it.name());
    }
    return names;
}
