/// @file
/// What every plugin object of the framework shares, and the few calls into the host application.
#pragma once

#include <QObject>
#include <QPointer>
#include <QScriptContext>
#include <QScriptEngine>
#include <QScriptValue>
#include <QStringList>

/// Base class of the framework's plugin objects: the message signal, the trace flag, the script
/// value that stands for the object, script exceptions, and host services.
///
/// Thread: an object lives in the thread of its script engine. `s_msg` may be emitted from any
/// thread. The engine is not owned and may be null or die first; it is not used then.
class Plugin_base : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("Author", "Vext SQL team")
    Q_CLASSINFO("URL", "https://vext.invalid/")
    Q_PROPERTY(bool traceLog READ traceLog WRITE setTraceLog)

public:
    /// Asks the host once whether it is graphical when `engine` is not null.
    Plugin_base(QObject *parent, QScriptEngine *engine);
    ~Plugin_base() override;

    bool traceLog() const { return m_traceLog; }

    /// Switches tracing; sends one message of level 1 when the state changes, none otherwise.
    void setTraceLog(bool on);

    Q_INVOKABLE void disableTraceLog();
    Q_INVOKABLE void enableTraceLog(bool trace = true);

    /// The script value of this object, made with Qt ownership on first use.
    /// @return an invalid value when it was never set and `engine` is null.
    QScriptValue getScriptValueThis(QScriptEngine *engine);

    /// Raises `text` in the engine's current context.
    /// @return what throwError returns; the script value false when there is no context.
    QScriptValue throwScript(const QString &text, QScriptContext::Error error);

    /// Connects the sender's `s_msg` to the receiver's `plugin_msg`, never twice. A connection that
    /// fails, the second of the same pair included, writes two critical lines to the message log.
    static void connect_msg(QObject *sender, QObject *receiver);

    /// Connects the sender to the nearest object of a class "VextPost…" on its parent chain, else
    /// to the application's child "server" if its class is "VextServer…", else to nothing.
    static void connect_msg(QObject *sender);

    /// Asks `loader` to load the library `name`.
    /// @return the loader's answer, or false when it has no such method.
    bool loadLib(QObject *loader, const QString &name);

    /// Whether the host runs with a graphical interface: the script's global "server" is asked for
    /// "gui", or without an engine the application's child "server" for isGuiApp(). The first
    /// answer serves the process; while nobody can answer it stays unknown, which reads as false.
    /// A server without the method is reported by a message of level 0 and a critical line.
    bool isGuiApp();

    /// -1 unknown, 0 no, 1 yes. Shared by the engines of all threads: isGuiApp() locks it.
    static int m_isGuiApp;

signals:
    /// The one channel to the host: source file, line, operation, finished text, level (-1 error,
    /// 0 notice, 1 state changes, 2 statement texts). The `const char*` are string constants.
    void s_msg(const char *, int, const char *, const QString &, int);

public slots:
    /// Accepts only a value that wraps this very object.
    bool setScriptValueThis(const QScriptValue &scriptValue);

protected slots:
    /// Relays a child object's message.
    void msg(const char *fl, int ln, const char *fn, const QString &msg, int val);

protected:
    QScriptValue m_scriptValueThis;
    bool m_traceLog = false;
    QPointer<QScriptEngine> m_engine;
    QStringList m_classNames;
    bool m_libResult = false;
};

/// Registers `obj` with the script's "post" object and connects its port signals to "server".
/// Objects of other classes behind these names, or none, are passed over silently.
void insertObjectToPost(QScriptEngine *engine, QObject *obj);
