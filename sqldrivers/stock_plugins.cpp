#include "stock_plugins.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonArray>
#include <QJsonObject>
#include <QLibrary>
#include <QPluginLoader>
#include <QSqlDriver>
#include <QSqlDriverPlugin>

namespace
{

/// What marks the metadata of this layer's own plugin, wherever it was copied to.
const char LayerMark[] = "VextLayer";

QStringList pluginFiles()
{
    QStringList files;
    const QStringList paths = QCoreApplication::libraryPaths();
    for (const QString &path : paths) {
        const QDir folder(path + QLatin1String("/sqldrivers"));
        const QStringList names = folder.entryList(QDir::Files, QDir::Name);
        for (const QString &name : names) {
            if (QLibrary::isLibrary(name))
                files.append(folder.absoluteFilePath(name));
        }
    }
    return files;
}

bool hasKey(const QPluginLoader &loader, const QString &key)
{
    const QJsonObject all = loader.metaData();
    if (all.value(QLatin1String("IID")).toString() != QLatin1String(QSqlDriverFactoryInterface_iid))
        return false;
    const QJsonObject own = all.value(QLatin1String("MetaData")).toObject();
    if (own.contains(QLatin1String(LayerMark)))
        return false;
    const QJsonArray keys = own.value(QLatin1String("Keys")).toArray();
    for (const QJsonValue &value : keys) {
        if (value.toString().compare(key, Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

} // namespace

QSqlDriver *StockPlugins::create(const QString &key, QString *error)
{
    const QStringList files = pluginFiles();
    for (const QString &file : files) {
        QPluginLoader loader(file);
        if (!hasKey(loader, key))
            continue;
        // Like every plugin of Qt it stays loaded: drivers and values made by it live on.
        loader.setLoadHints(QLibrary::PreventUnloadHint);
        auto *plugin = qobject_cast<QSqlDriverPlugin *>(loader.instance());
        if (QSqlDriver *driver = plugin ? plugin->create(key) : nullptr)
            return driver;
        *error = loader.errorString();
    }
    return nullptr;
}

QString StockPlugins::debianPackage(const QString &key)
{
    if (key == QLatin1String("QSQLITE"))
        return QStringLiteral("libqt5sql5-sqlite");
    if (key == QLatin1String("QPSQL") || key == QLatin1String("QPSQL7"))
        return QStringLiteral("libqt5sql5-psql");
    if (key == QLatin1String("QMYSQL") || key == QLatin1String("QMYSQL3") ||
        key == QLatin1String("QMARIADB"))
        return QStringLiteral("libqt5sql5-mysql");
    if (key == QLatin1String("QIBASE"))
        return QStringLiteral("libqt5sql5-ibase");
    if (key == QLatin1String("QODBC") || key == QLatin1String("QODBC3"))
        return QStringLiteral("libqt5sql5-odbc");
    return QString();
}
