#include "version_text.h"

#include "driver_layer.h"
#include "script_host.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonObject>
#include <QPluginLoader>
#include <QScriptEngine>
#include <QStringList>

namespace
{

/// The names that the layer's libraries claim, read without loading them.
QStringList layerKeys()
{
    QStringList keys;
    const QDir folder(DriverLayer::folder() + QStringLiteral("/sqldrivers"));
    const QStringList files = folder.entryList(QDir::Files);
    for (const QString &file : files) {
        const QJsonObject data = QPluginLoader(folder.filePath(file)).metaData();
        const QJsonArray names =
            data.value(QLatin1String("MetaData")).toObject().value(QLatin1String("Keys")).toArray();
        for (const QJsonValue &name : names)
            keys.append(name.toString());
    }
    return keys;
}

QStringList driversOf(ScriptHost *host)
{
    const QScriptValue drivers = host->evaluate(QStringLiteral("new VEXT_SQL('version').drivers"),
                                                QStringLiteral("[version]"));
    return qscriptvalue_cast<QStringList>(drivers);
}

QString listed(const QStringList &names)
{
    return names.isEmpty() ? QStringLiteral("none") : names.join(QLatin1String(", "));
}

} // namespace

QString VersionText::program()
{
    return QStringLiteral("vext-run " VEXT_VERSION "\n");
}

QString VersionText::all(ScriptHost *host, bool decorated)
{
    const QStringList keys = decorated ? layerKeys() : QStringList();
    QStringList layered;
    QStringList stock;
    const QStringList drivers = driversOf(host);
    for (const QString &driver : drivers)
        (keys.contains(driver) ? layered : stock).append(driver);
    return program() + QStringLiteral("plugin   %1\nQt       %2\ndrivers  %3 (decorated by Vext)\n"
                                      "         %4 (Qt's own)\n")
                           .arg(host->pluginVersion(), QString::fromLatin1(qVersion()),
                                listed(layered), listed(stock));
}
