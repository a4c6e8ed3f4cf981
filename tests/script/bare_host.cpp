// A host that needs Qt Sql for nothing: runs script code with the plugin library, unloads it and ends.
// Its arguments are the library's file and the code.
#include <QCoreApplication>
#include <QLibrary>
#include <QPluginLoader>
#include <QScriptContext>
#include <QScriptEngine>

#include <cstdio>

namespace
{

/// The application's child, as whose child the library makes its object.
QObject *makeServer(QCoreApplication &application)
{
    auto *server = new QObject(&application);
    server->setObjectName(QStringLiteral("server"));
    return server;
}

bool run(QObject *plugin, const QString &code)
{
    QScriptEngine engine;
    engine.pushContext();
    QMetaObject::invokeMethod(plugin, "install", Q_ARG(QObject *, &engine));
    engine.popContext();
    const QScriptValue result = engine.evaluate(code);
    std::puts(qPrintable(result.toString()));
    return !engine.hasUncaughtException();
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    const QObject *server = makeServer(application);
    QPluginLoader loader(arguments.value(1));
    // By default Qt keeps plugins in memory, whatever unload() answers.
    loader.setLoadHints(QLibrary::LoadHints());
    if (!loader.load())
        return 2;
    if (!run(server->findChild<QObject *>(), arguments.value(2)))
        return 3;
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return loader.unload() ? 0 : 4;
}
