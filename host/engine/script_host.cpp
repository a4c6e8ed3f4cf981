#include "script_host.h"

#include "byte_values.h"
#include "console.h"
#include "file_globals.h"
#include "run_loop.h"
#include "script_globals.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QPointer>
#include <QScriptEngine>

#include <cerrno>
#include <csignal>

namespace
{

const int ExitFailure = 1;
const int ExitClosedPipe = 128 + SIGPIPE; ///< what a program ends with that does not look

/// Objects released with deleteLater() go now: the library that holds their code goes next.
void deliverDeferredDeletes()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCoreApplication::sendPostedEvents();
}

} // namespace

ScriptHost::ScriptHost(const Settings &settings, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_server(new VextServer(QCoreApplication::instance()))
    , m_post(new VextPost)
    , m_engine(new QScriptEngine(m_post.data()))
{
    connect(m_server.data(), &VextServer::message, this, &ScriptHost::onMessage);
    connect(m_post.data(), &VextPost::message, this, &ScriptHost::onMessage);
    connect(m_post.data(), &VextPost::objectInserted, this, &ScriptHost::onObjectInserted);
    m_reporter.reset(new Reporter(m_engine, &m_terminal, &m_end));
    m_loop.reset(new RunLoop(m_engine, &m_end, PendingWork(m_post.data(), &m_timers)));
    connect(m_loop.data(), &RunLoop::exceptionFound, this,
            [this](QObject *receiver) { m_reporter->tellException(QString(), receiver); });
    connect(m_loop.data(), &RunLoop::idle, m_reporter.data(), &Reporter::tellAtEnd);
    connect(m_loop.data(), &RunLoop::scriptsMustEnd, this, &ScriptHost::destroyScripts);
    installGlobals();
}

ScriptHost::~ScriptHost()
{
    shutDown();
}

void ScriptHost::installGlobals()
{
    ScriptGlobals::installObjects(m_engine, m_server.data(), m_post.data());
    ScriptGlobals::installArguments(m_engine, m_settings.arguments);
    ScriptGlobals::installQuit(m_engine, &m_end);
    Console::install(m_engine, &m_terminal);
    m_timers.install(m_engine);
    m_input.install(m_engine);
    m_inclusion.install(m_engine);
    FileGlobals::install(m_engine);
    ByteValues::install(m_engine);
    m_terminal.setFailureHandler([this](int error) { onOutputFailure(error); });
    setScriptFile(QStringLiteral("[code]"), QDir::currentPath());
    ScriptGlobals::setScriptPath(m_engine, QString());
}

bool ScriptHost::start(QString *error)
{
    if (!m_reporter->log()->open(m_settings.log, error))
        return false;
    if (!m_plugin.load(m_settings.pluginFile, error))
        return false;
    if (!m_plugin.install(m_engine)) {
        *error = QStringLiteral("plugin '%1' cannot be installed into the script engine")
                     .arg(m_settings.pluginFile);
        return false;
    }
    return true;
}

void ScriptHost::setScriptFile(const QString &name, const QString &directory)
{
    m_post->setDirectory(QDir(directory));
    if (m_engine)
        ScriptGlobals::setScriptFile(m_engine, name, directory);
}

void ScriptHost::setScriptFile(const QString &path)
{
    const QFileInfo info(path);
    setScriptFile(info.fileName(), info.absolutePath());
    m_inclusion.setMainFile(path);
    if (m_engine)
        ScriptGlobals::setScriptPath(m_engine, info.absoluteFilePath());
}

QScriptValue ScriptHost::evaluate(const QString &code, const QString &fileName)
{
    if (!m_engine || m_end.isRequested())
        return QScriptValue();
    const QScriptValue value = m_engine->evaluate(code, fileName);
    if (m_end.isRequested())
        return QScriptValue();
    if (!m_engine->hasUncaughtException())
        return value;
    m_reporter->tellException(code, nullptr);
    return QScriptValue();
}

void ScriptHost::evaluateStatement(const QString &code, const QString &fileName)
{
    const QScriptValue value = evaluate(code, fileName);
    if (value.isValid() && !value.isUndefined())
        m_terminal.write(Terminal::Stream::Output, Console::shown(value));
}

int ScriptHost::exec()
{
    m_loop->exec();
    // Who keeps going goes on after a failure, and ends with it all the same.
    return m_reporter->hasFailed() && !m_end.isRequested() ? ExitFailure : m_end.code();
}

void ScriptHost::onMessage(const PluginMessage &received)
{
    if (!m_messageFilter || m_messageFilter(received))
        m_reporter->tellMessage(received);
    emit message(received);
}

void ScriptHost::onOutputFailure(int error)
{
    const bool isClosed = error == EPIPE;
    m_terminal.writeLine(Terminal::Stream::Error,
                         isClosed ? QStringLiteral("vext-run: standard output is closed")
                                  : QStringLiteral("vext-run: cannot write to standard output: %1")
                                        .arg(qt_error_string(error)));
    m_end.request(isClosed ? ExitClosedPipe : ExitFailure);
}

void ScriptHost::onObjectInserted(QObject *object)
{
    m_reporter->watch(object);
    if (m_settings.trace && object->metaObject()->indexOfMethod("enableTraceLog()") >= 0)
        QMetaObject::invokeMethod(object, "enableTraceLog", Qt::DirectConnection);
}

void ScriptHost::destroyScripts()
{
    if (!m_engine)
        return;
    QScriptEngine *engine = m_engine;
    m_engine = nullptr;
    m_reporter->dropEngine();
    m_loop->dropEngine(); // the destruction below sends events, which the loop sees
    m_timers.clear();
    destroyObjects(engine);
    delete engine;
}

/// While the engine is whole: its children would run script code from within its end. One that is
/// deleted before takes its handlers along.
void ScriptHost::destroyObjects(const QObject *engine)
{
    QList<QPointer<QObject>> objects;
    for (QObject *object : m_post->objects()) {
        if (object->parent() == engine)
            objects.append(object);
    }
    for (const QPointer<QObject> &object : qAsConst(objects))
        delete object.data();
}

void ScriptHost::shutDown()
{
    if (!m_post)
        return;
    destroyScripts();
    deliverDeferredDeletes();
    m_plugin.unload();
    m_terminal.setFailureHandler({});
    m_loop.reset();
    m_reporter.reset();
    m_post.reset();
    m_server.reset();
}
