#include "workloads.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QPluginLoader>
#include <QScriptEngine>

#include <malloc.h>

QString pluginFile()
{
    return qEnvironmentVariable(PluginVariable, QStringLiteral(VEXT_PLUGIN_FILE));
}

namespace
{

/// A script engine with the plugin and one open connection "db".
class PluginEngine
{
public:
    explicit PluginEngine(const Target &target)
        : m_target(target)
    {
        m_loader.setFileName(pluginFile());
        // The plugin object is a child of the application's "server", where there is one.
        QObject *server = new QObject(QCoreApplication::instance());
        server->setObjectName(QStringLiteral("server"));
        if (!m_loader.load())
            qFatal("%s", qPrintable(m_loader.errorString()));
        auto *plugin = server->findChild<QObject *>(QStringLiteral("plugin_SQL"));
        engine.pushContext();
        QMetaObject::invokeMethod(plugin, "install", Q_ARG(QObject *, &engine));
        engine.popContext();
        QScriptValue finished = engine.newFunction(&PluginEngine::finishedFunction);
        finished.setData(engine.newVariant(QVariant::fromValue(static_cast<void *>(this))));
        engine.globalObject().setProperty(QStringLiteral("finished"), finished);
        eval(QStringLiteral("function connect() { var db = new VEXT_SQL(); %1; return db; }"
                            "var db = connect();"
                            "if (!db.open()) throw db.lastError;")
                 .arg(parameters()));
    }

    void eval(const QString &code)
    {
        const QScriptValue value = engine.evaluate(code);
        if (engine.hasUncaughtException())
            qFatal("%s", qPrintable(value.toString()));
    }

    /// Runs the event loop until the script calls finished().
    void waitForScript() { m_loop.exec(); }

    QScriptEngine engine;
    QElapsedTimer timer;
    double ms = 0;

private:
    static QScriptValue finishedFunction(QScriptContext *context, QScriptEngine *)
    {
        auto *self =
            static_cast<PluginEngine *>(context->callee().data().toVariant().value<void *>());
        self->ms = double(self->timer.nsecsElapsed()) / 1e6;
        // Leaves the loop only after what the delivery frees behind the callback.
        QMetaObject::invokeMethod(&self->m_loop, "quit", Qt::QueuedConnection);
        return QScriptValue();
    }

    QString parameters() const
    {
        const QString database =
            m_target.sqliteFile.isEmpty() ? m_target.database : m_target.sqliteFile;
        QString code = QStringLiteral("db.driverName = '%1'; db.databaseName = '%2';")
                           .arg(m_target.driverName(), database);
        if (m_target.postgres)
            code += QStringLiteral("db.hostName = '%1'; db.port = %2; db.userName = '%3';"
                                   "db.password = '%4';")
                        .arg(m_target.host, QString::number(m_target.port), m_target.user,
                             m_target.password);
        return code;
    }

    Target m_target;
    QPluginLoader m_loader;
    QEventLoop m_loop;
};

QString readCode(const Workload &workload)
{
    return QStringLiteral("var result = null;"
                          "db.query_thread(function (r, e) {"
                          "  if (e) throw e; result = r; finished(); }, \"%1\");")
        .arg(workload.readStatement());
}

/// The statement texts are made before the clock starts, as for every other way.
QString statementsCode(const Workload &workload)
{
    QStringList texts;
    for (int i = 0; i < workload.count; ++i)
        texts << workload.smallStatement(i);
    return QStringLiteral("var sql = \"%1\".split(';');").arg(texts.join(QLatin1Char(';')));
}

QString workCode(const Target &target, const Workload &workload)
{
    switch (workload.kind) {
    case Workload::Kind::Read:
        return readCode(workload);
    case Workload::Kind::Chain:
        return QStringLiteral("var i = 0;"
                              "function step(r, e) { if (e) throw e;"
                              "  if (i == sql.length) finished();"
                              "  else db.query_thread(step, sql[i++]); }"
                              "step();");
    case Workload::Kind::Queue:
        return QStringLiteral(
            "var left = sql.length;"
            "function done(r, e) { if (e) throw e; if (--left == 0) finished(); }"
            "for (var i = 0; i < sql.length; ++i) db.query_thread(done, sql[i]);");
    case Workload::Kind::Insert:
        return target.postgres || workload.bound
                   ? QStringLiteral("var left = %1;"
                                    "function done(r, e) { if (e) throw e; if (--left == 0)"
                                    "  db.query_thread(finished, 'commit'); }"
                                    "db.start_thread(); db.transaction();"
                                    "for (var i = 0; i < %1; ++i)"
                                    "  db.exec_thread(done, 'insert into inserts values',"
                                    "                 [i, 'text ' + i, i * 0.5]);")
                         .arg(workload.count)
                   : QStringLiteral(
                         "var left = %1;"
                         "function done(r, e) { if (e) throw e; if (--left == 0)"
                         "  db.query_thread(finished, 'commit'); }"
                         "db.query_thread('begin');"
                         "for (var i = 0; i < %1; ++i)"
                         "  db.query_thread(done, \"insert into inserts values(\" + i +"
                         "                  \", 'text \" + i + \"', \" + i * 0.5 + \")\");")
                         .arg(workload.count);
    case Workload::Kind::Connections:
        return QStringLiteral("var all = []; var left = %1;"
                              "for (var i = 0; i < %1; ++i) { var c = connect(); all.push(c);"
                              "  if (!c.open()) throw c.lastError;"
                              "  c.query_thread(function () { if (--left == 0) finished(); },"
                              "                 'select 1'); }")
            .arg(workload.count);
    }
    return QString();
}

bool usesThread(const Workload &workload)
{
    return workload.kind != Workload::Kind::Connections;
}

} // namespace

Measurement pluginSync(const Target &target, const Workload &workload)
{
    PluginEngine plugin(target);
    Measurement m;
    m.startMb = memoryMb();
    plugin.timer.start();
    if (workload.kind == Workload::Kind::Read) {
        plugin.eval(QStringLiteral("var result = db.query(\"%1\"); if (!result) throw db.lastError")
                        .arg(workload.readStatement()));
    } else {
        plugin.eval(statementsCode(workload));
        plugin.timer.start();
        plugin.eval(QStringLiteral("for (var i = 0; i < sql.length; ++i) db.query(sql[i]);"));
    }
    m.ms = double(plugin.timer.nsecsElapsed()) / 1e6;
    m.gapMs = m.ms;
    m.peakMb = peakMemoryMb();
    m.endMb = memoryMb();
    return m;
}

Measurement pluginAsync(const Target &target, const Workload &workload)
{
    PluginEngine plugin(target);
    if (usesThread(workload)) {
        // The clock starts when the thread connection is there.
        plugin.eval(QStringLiteral("db.query_thread(function () { finished(); }, 'select 1');"));
        plugin.waitForScript();
    }
    if (workload.kind == Workload::Kind::Chain || workload.kind == Workload::Kind::Queue)
        plugin.eval(statementsCode(workload));
    Measurement m;
    m.startMb = memoryMb();
    GapTimer gap;
    gap.start();
    plugin.timer.start();
    plugin.eval(workCode(target, workload));
    plugin.waitForScript();
    m.ms = plugin.ms;
    m.gapMs = gap.longestMs();
    m.peakMb = peakMemoryMb();
    plugin.eval(QStringLiteral("result = null; all = null; sql = null;"));
    plugin.engine.collectGarbage();
    malloc_trim(0);
    m.endMb = memoryMb();
    return m;
}
