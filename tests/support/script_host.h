/// @file
/// A host with one script: server, post and engine as the plugin meets them.
#pragma once

#include "deadline.h"
#include "message_sink.h"

#include <QObject>
#include <QPointer>
#include <QScriptEngine>
#include <QScriptValue>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

/// What a ScriptHost is made of; the defaults are a complete host.
struct ScriptHostOptions {
    bool withServer = true;
    bool withPost = true;    ///< without one the engine has no parent
    bool withGlobals = true; ///< the script globals "server", "post" and "scriptEngine"
    /// A server that lives longer than the host, for programs that load the plugin library: the
    /// library's object becomes the server's child and goes with it. Null: the host makes its own,
    /// as a child of the application.
    VextServerStub *server = nullptr;
    QString fileName = QStringLiteral("test.js"); ///< scriptEngine.file.name
    QString fileDir;                              ///< scriptEngine.file.dir; empty: none
};

/// Owns server, post and engine, and takes them down in the right order: the engine first, with all
/// objects that scripts made; then the post, then the server. The engine's parent is the post. All
/// members belong to the thread that made the host, which is the engine's thread.
///
/// A plugin object is anything with an invokable install(QObject*): the object of a loaded library
/// or one that a test has made itself.
class ScriptHost
{
public:
    explicit ScriptHost(const ScriptHostOptions &options = ScriptHostOptions());
    ~ScriptHost();
    ScriptHost(const ScriptHost &) = delete;
    ScriptHost &operator=(const ScriptHost &) = delete;

    /// Null after destroyEngine().
    QScriptEngine *engine() const { return m_engine.data(); }
    VextServerStub *server() const { return m_server; }
    VextPostStub *post() const { return m_post.get(); }
    QScriptValue global(const QString &name) const;

    /// Calls the plugin object's install(engine) while a script context whose this-object is the
    /// global object is current.
    /// @return what install returned; an invalid value, and a failed test, when there is no such
    /// method.
    QScriptValue install(QObject *plugin);

    /// Makes the plugin object the global @p name and lets a script call its install(scriptEngine).
    QScriptValue installFromScript(QObject *plugin, const QString &name = QStringLiteral("plugin"));

    /// Runs script code. An exception fails the test with its message and backtrace, reported at
    /// the caller's line, and yields an invalid value; the engine is left without the exception.
    QScriptValue eval(const QString &code, const QString &fileName = QStringLiteral("test.js"),
                      int line = 1, const char *callerFile = __builtin_FILE(),
                      int callerLine = __builtin_LINE());

    /// Runs script code that is expected to throw.
    /// @return the exception as text ("TypeError: ..."); empty, and a failed test, when none came.
    QString evalThrows(const QString &code, const char *callerFile = __builtin_FILE(),
                       int callerLine = __builtin_LINE());

    /// Runs events until the script expression is true as JavaScript sees it.
    bool waitForScript(const QString &expression, int ms = defaultWaitMs);
    /// Runs events until @p reached answers true.
    bool waitFor(const std::function<bool()> &reached, int ms = defaultWaitMs);

    /// Collects script garbage and handles what it causes.
    void collectGarbage();

    /// Destroys the engine and with it all objects that scripts made, and handles the deferred
    /// deletions. Server and post live on.
    void destroyEngine();

private:
    void setGlobals(const ScriptHostOptions &options);
    QString takeException(const QScriptValue &result, bool withBacktrace);

    std::unique_ptr<VextServerStub> m_ownServer;
    VextServerStub *m_server = nullptr;
    std::unique_ptr<VextPostStub> m_post;
    QPointer<QScriptEngine> m_engine;
};
