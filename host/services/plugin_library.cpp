#include "plugin_library.h"

#include "vext_plugin_interface.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QScriptContext>
#include <QScriptEngine>

namespace
{

/// The plugin object exists before any of its objects has an engine, so nobody has connected it.
void connectMessages(QObject *plugin)
{
    QObject *server = QCoreApplication::instance()->findChild<QObject *>(QStringLiteral("server"));
    if (server)
        QObject::connect(plugin, SIGNAL(s_msg(const char *, int, const char *, QString, int)),
                         server, SLOT(plugin_msg(const char *, int, const char *, QString, int)),
                         Qt::UniqueConnection);
}

} // namespace

PluginLibrary::~PluginLibrary()
{
    unload();
}

bool PluginLibrary::load(const QString &file, QString *error)
{
    if (!QFileInfo(file).isFile()) {
        *error = QStringLiteral("plugin '%1' not found").arg(file);
        return false;
    }
    // Qt looks for other names in folders of its own.
    m_loader.setFileName(QFileInfo(file).absoluteFilePath());
    // By default Qt keeps a plugin's code loaded for ever, and the next load would make no global
    // object, which a library does once when its code arrives.
    m_loader.setLoadHints(QLibrary::LoadHints());
    if (!checkMetaData(file, error))
        return false;
    QObject *root = m_loader.instance();
    m_interface = qobject_cast<VextPluginInterface *>(root);
    if (!m_interface) {
        *error = QStringLiteral("cannot load plugin '%1': %2").arg(file, m_loader.errorString());
        return false;
    }
    QObject *plugin = m_interface->globalObject();
    if (!plugin) {
        *error = QStringLiteral("plugin '%1' has no global object").arg(file);
        return false;
    }
    connectMessages(plugin);
    return true;
}

bool PluginLibrary::checkMetaData(const QString &file, QString *error) const
{
    // Read before loading: a foreign library's initialisers must not run in this process.
    const QString iid = m_loader.metaData().value(QLatin1String("IID")).toString();
    if (iid == QLatin1String(VextPluginInterface_iid))
        return true;
    if (iid.isEmpty())
        *error = QStringLiteral("'%1' is not a plugin library").arg(file);
    else
        *error = QStringLiteral("plugin '%1' has the interface '%2', not '%3'")
                     .arg(file, iid, QLatin1String(VextPluginInterface_iid));
    return false;
}

bool PluginLibrary::install(QScriptEngine *engine)
{
    QObject *plugin = globalObject();
    if (!plugin)
        return false;
    // The plugin puts "counters" and "tag" on the this-object of the current context.
    QScriptContext *context = engine->pushContext();
    context->setThisObject(engine->globalObject());
    QScriptValue result;
    const bool called =
        QMetaObject::invokeMethod(plugin, "install", Qt::DirectConnection,
                                  Q_RETURN_ARG(QScriptValue, result), Q_ARG(QObject *, engine));
    engine->popContext();
    return called && result.isObject();
}

void PluginLibrary::unload()
{
    if (!m_interface)
        return;
    m_interface->globalObjectDelete();
    m_interface = nullptr;
    m_loader.unload();
}

QObject *PluginLibrary::globalObject() const
{
    return m_interface ? m_interface->globalObject() : nullptr;
}

QString PluginLibrary::version() const
{
    return m_interface ? QString::fromLatin1(m_interface->vext_plugin_version()) : QString();
}

QString PluginLibrary::defaultFile()
{
    const QDir program(QCoreApplication::applicationDirPath());
    const QString inBuildTree =
        program.absoluteFilePath(QStringLiteral("../plugins/libPluginSQL.so"));
    const QString installed =
        program.absoluteFilePath(QStringLiteral(VEXT_PLUGIN_DIR "/libPluginSQL.so"));
    return QDir::cleanPath(QFileInfo::exists(inBuildTree) ? inBuildTree : installed);
}
