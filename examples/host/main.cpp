// A whole host: runs one script with the SQL plugin, until the script calls server.quit().
#include <vext_plugin_interface.h>

#include <QCoreApplication>
#include <QFile>
#include <QPluginLoader>
#include <QPointer>
#include <QScriptEngine>

// The plugin finds both objects by their class names, and their members by name.
class VextServer : public QObject {
    Q_OBJECT
public slots:
    int isGuiApp() { return 0; }
    void plugin_msg(const char *, int, const char *, const QString &text, int)
    { qWarning("%s", qPrintable(text)); }
    void quit() { QCoreApplication::quit(); }
};

class VextPost : public VextServer {
    Q_OBJECT
public slots:
    void insertObject(QObject *object, const QString &) { objects << object; }
public:
    QList<QPointer<QObject>> objects; // the script's connections; it may delete them
};

static const char Signal[] = SIGNAL(s_msg(const char *, int, const char *, QString, int));
static const char Slot[] = SLOT(plugin_msg(const char *, int, const char *, QString, int));

// Evaluates the script and returns when it has called quit().
static int runScript(QObject *server, QObject *plugin, QFile *file)
{
    VextPost post;
    QScriptEngine engine(&post); // its parent gets the messages of the script's connections
    engine.globalObject().setProperty("server", engine.newQObject(server));
    engine.globalObject().setProperty("post", engine.newQObject(&post));
    engine.pushContext()->setThisObject(engine.globalObject());
    QScriptValue installed;
    QMetaObject::invokeMethod(plugin, "install", Q_RETURN_ARG(QScriptValue, installed),
                              Q_ARG(QObject *, &engine));
    engine.popContext();
    engine.evaluate(QString::fromUtf8(file->readAll()), file->fileName());
    const bool isThrown = engine.hasUncaughtException();
    if (isThrown)
        qCritical("%s", qPrintable(engine.uncaughtException().toString()));
    const int exitCode = isThrown ? 1 : QCoreApplication::exec();
    for (const QPointer<QObject> &object : qAsConst(post.objects))
        delete object; // while the engine is whole
    return exitCode;
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::addLibraryPath(DRIVER_DIR);  // before the first use of Qt Sql
    qRegisterMetaType<const char *>("const char*"); // in messages of worker threads
    VextServer *server = new VextServer; // before the plugin is loaded, which looks for it
    server->setParent(&application);
    server->setObjectName("server");

    QPluginLoader loader(PLUGIN_FILE);
    loader.setLoadHints(QLibrary::LoadHints()); // otherwise its code stays for ever
    QFile script(application.arguments().value(1));
    const bool fits = loader.metaData().value("IID").toString() == VextPluginInterface_iid;
    auto *root = fits ? qobject_cast<VextPluginInterface *>(loader.instance()) : nullptr;
    if (!root || !script.open(QIODevice::ReadOnly))
        qFatal("%s %s", qPrintable(loader.errorString()), qPrintable(script.errorString()));
    QObject::connect(root->globalObject(), Signal, server, Slot);
    const int exitCode = runScript(server, root->globalObject(), &script);

    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // workers end here
    QCoreApplication::sendPostedEvents();                                // and so do messages
    root->globalObjectDelete();
    loader.unload();
    return exitCode;
}
#include "main.moc"
