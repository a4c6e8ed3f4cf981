/// @file
/// A script engine with everything around it: what a program embeds to run scripts.
#pragma once

#include "plugin_library.h"
#include "reporter.h"
#include "script_end.h"
#include "script_inclusion.h"
#include "standard_input.h"
#include "terminal.h"
#include "timers.h"
#include "vext_post.h"
#include "vext_server.h"

#include <QObject>
#include <QScopedPointer>
#include <QStringList>

#include <functional>

class QScriptEngine;
class RunLoop;

/// Builds the host objects, the engine, its globals and the plugin in the order in which they need
/// one another, runs code, and takes all of it down again in the reverse order.
///
/// Needs a living QCoreApplication, and one instance at a time: the application has one child
/// "server". Thread: the application's.
class ScriptHost : public QObject
{
    Q_OBJECT

public:
    struct Settings {
        QString pluginFile;    ///< the library to load
        QStringList arguments; ///< what scripts read as `arguments`
        Log::Settings log;     ///< which messages are shown, how and where
        bool trace = false;    ///< new connection objects start with their trace on
    };

    explicit ScriptHost(const Settings &settings, QObject *parent = nullptr);
    ~ScriptHost() override;

    /// Opens the log, loads the plugin and installs it into the engine.
    /// @return false with `error` set to a text for the user.
    bool start(QString *error);

    /// Tells scripts and plugins which file runs. For code without a file, `name` is a word in
    /// brackets and `directory` the current one.
    void setScriptFile(const QString &name, const QString &directory);

    /// The same for a file, which `include` then does not run once more.
    void setScriptFile(const QString &path);

    /// Whether an uncaught exception or a failed task leaves the program running. Off at first.
    void setKeepGoing(bool on) { m_reporter->setKeepGoing(on); }

    /// Tells whether a message is shown.
    using MessageFilter = std::function<bool(const PluginMessage &message)>;

    /// Asked for every message that would be shown; an empty filter lets all of them pass.
    void setMessageFilter(const MessageFilter &filter) { m_messageFilter = filter; }

    Reporter *reporter() { return m_reporter.data(); }

    /// Runs code. An uncaught exception is printed; unless the host keeps going, it requests the
    /// end with exit code 1, or 2 when the code could not be compiled.
    /// @return the value of the code, invalid after an exception and after an end was requested.
    QScriptValue evaluate(const QString &code, const QString &fileName);

    /// Like evaluate(), and shows the value unless it is undefined: a result object as a table.
    void evaluateStatement(const QString &code, const QString &fileName);

    /// Runs the event loop until nothing is pending or the end is requested.
    /// @return the program's exit code.
    int exec();

    /// Ends the engine with everything that scripts made, then the plugin. Called by the
    /// destructor too.
    void shutDown();

    /// The version of the framework that the plugin was built for.
    QString pluginVersion() const { return m_plugin.version(); }

    /// Null after the end.
    QScriptEngine *engine() const { return m_engine; }
    VextServer *server() const { return m_server.data(); }
    VextPost *post() const { return m_post.data(); }
    RunLoop *runLoop() const { return m_loop.data(); }
    ScriptEnd *end() { return &m_end; }
    Terminal *terminal() { return &m_terminal; }
    StandardInput *input() { return &m_input; }

signals:
    /// Every message, whatever its level.
    void message(const PluginMessage &message);

private:
    void installGlobals();
    void onMessage(const PluginMessage &message);
    void onObjectInserted(QObject *object);
    void onOutputFailure(int error);
    void destroyScripts();
    void destroyObjects(const QObject *engine);

    Settings m_settings;
    MessageFilter m_messageFilter;
    Terminal m_terminal;
    StandardInput m_input;
    ScriptInclusion m_inclusion;
    ScriptEnd m_end;
    Timers m_timers;
    QScopedPointer<VextServer> m_server;
    QScopedPointer<VextPost> m_post;
    QScriptEngine *m_engine; ///< child of m_post
    QScopedPointer<Reporter> m_reporter;
    QScopedPointer<RunLoop> m_loop;
    PluginLibrary m_plugin;
};
