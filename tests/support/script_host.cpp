#include "script_host.h"

#include <QCoreApplication>
#include <QScriptContext>
#include <QtTest>

namespace
{

void failTest(const QString &message, const char *file, int line)
{
    QTest::qFail(message.toUtf8().constData(), file, line);
}

} // namespace

ScriptHost::ScriptHost(const ScriptHostOptions &options)
{
    MessageSink::registerTypes();
    m_server = options.server;
    if (!m_server && options.withServer) {
        m_ownServer = std::make_unique<VextServerStub>(QCoreApplication::instance());
        m_server = m_ownServer.get();
    }
    if (options.withPost)
        m_post = std::make_unique<VextPostStub>();
    m_engine = new QScriptEngine(m_post.get());
    if (options.withGlobals)
        setGlobals(options);
}

ScriptHost::~ScriptHost()
{
    destroyEngine();
}

void ScriptHost::setGlobals(const ScriptHostOptions &options)
{
    QScriptValue globals = m_engine->globalObject();
    if (m_post)
        globals.setProperty(QStringLiteral("post"), m_engine->newQObject(m_post.get()));
    if (m_server)
        globals.setProperty(QStringLiteral("server"), m_engine->newQObject(m_server));

    QScriptValue file = m_engine->newObject();
    file.setProperty(QStringLiteral("name"), options.fileName);
    if (!options.fileDir.isEmpty())
        file.setProperty(QStringLiteral("dir"), options.fileDir);
    // The engine itself is what scripts hand to install().
    QScriptValue engine = m_engine->newQObject(m_engine, QScriptEngine::QtOwnership);
    engine.setProperty(QStringLiteral("file"), file);
    globals.setProperty(QStringLiteral("scriptEngine"), engine);
}

QScriptValue ScriptHost::global(const QString &name) const
{
    return m_engine->globalObject().property(name);
}

QScriptValue ScriptHost::install(QObject *plugin)
{
    QScriptValue result;
    m_engine->pushContext(); // its this-object is the global object
    const bool called = plugin && QMetaObject::invokeMethod(plugin, "install", Qt::DirectConnection,
                                                            Q_RETURN_ARG(QScriptValue, result),
                                                            Q_ARG(QObject *, m_engine.data()));
    m_engine->popContext();
    if (!called)
        failTest(QStringLiteral("the plugin object has no install(QObject*)"), __FILE__, __LINE__);
    return result;
}

QScriptValue ScriptHost::installFromScript(QObject *plugin, const QString &name)
{
    m_engine->globalObject().setProperty(name, m_engine->newQObject(plugin));
    return eval(name + QStringLiteral(".install(scriptEngine)"));
}

QScriptValue ScriptHost::eval(const QString &code, const QString &fileName, int line,
                              const char *callerFile, int callerLine)
{
    const QScriptValue result = m_engine->evaluate(code, fileName, line);
    if (!m_engine->hasUncaughtException())
        return result;
    failTest(takeException(result, true) + QStringLiteral("\nin: ") + code, callerFile, callerLine);
    return QScriptValue();
}

QString ScriptHost::evalThrows(const QString &code, const char *callerFile, int callerLine)
{
    const QScriptValue result = m_engine->evaluate(code, QStringLiteral("test.js"));
    if (m_engine->hasUncaughtException())
        return takeException(result, false);
    failTest(QStringLiteral("no exception from: ") + code, callerFile, callerLine);
    return QString();
}

QString ScriptHost::takeException(const QScriptValue &result, bool withBacktrace)
{
    QString text = result.toString();
    if (withBacktrace) {
        text += QStringLiteral("\nat line %1\n").arg(m_engine->uncaughtExceptionLineNumber());
        text += m_engine->uncaughtExceptionBacktrace().join(QLatin1Char('\n'));
    }
    m_engine->clearExceptions();
    return text;
}

bool ScriptHost::waitForScript(const QString &expression, int ms)
{
    return waitUntil([&] { return eval(expression).toBool(); }, ms);
}

bool ScriptHost::waitFor(const std::function<bool()> &reached, int ms)
{
    return waitUntil(reached, ms);
}

void ScriptHost::collectGarbage()
{
    m_engine->collectGarbage();
    drainEvents();
}

void ScriptHost::destroyEngine()
{
    if (!m_engine)
        return;
    delete m_engine.data();
    drainEvents();
}
