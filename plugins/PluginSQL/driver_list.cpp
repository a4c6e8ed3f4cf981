#include "driver_list.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonArray>
#include <QJsonObject>
#include <QLibrary>
#include <QMutex>
#include <QMutexLocker>
#include <QPluginLoader>
#include <QSet>
#include <QSqlDatabase>
#include <QSqlDriverPlugin>

#include <algorithm>

namespace
{

/// The names that plugins of the library paths have.
struct Names {
    QSet<QString> decorated;
    QSet<QString> stock;
};

/// Reads the metadata alone: the plugin is not loaded.
void readPlugin(const QString &file, Names *names)
{
    const QJsonObject all = QPluginLoader(file).metaData();
    if (all.value(QLatin1String("IID")).toString() != QLatin1String(QSqlDriverFactoryInterface_iid))
        return;
    const QJsonObject own = all.value(QLatin1String("MetaData")).toObject();
    QSet<QString> &kind =
        own.contains(QLatin1String("VextLayer")) ? names->decorated : names->stock;
    const QJsonArray keys = own.value(QLatin1String("Keys")).toArray();
    for (const QJsonValue &key : keys)
        kind.insert(key.toString());
}

QSet<QString> readPromised(const QStringList &paths)
{
    Names names;
    for (const QString &path : paths) {
        const QDir folder(path + QLatin1String("/sqldrivers"));
        const QStringList files = folder.entryList(QDir::Files);
        for (const QString &file : files) {
            if (QLibrary::isLibrary(file))
                readPlugin(folder.absoluteFilePath(file), &names);
        }
    }
    return names.decorated - names.stock;
}

/// The names behind which there is no driver.
QSet<QString> promisedOnly()
{
    static QMutex mutex;
    static bool isKnown = false;    // mutex
    static QStringList knownPaths;  // mutex
    static QSet<QString> knownOnly; // mutex
    const QStringList paths = QCoreApplication::libraryPaths();
    {
        QMutexLocker locker(&mutex);
        if (isKnown && paths == knownPaths)
            return knownOnly;
    }
    const QSet<QString> promised = readPromised(paths);
    QMutexLocker locker(&mutex);
    isKnown = true;
    knownPaths = paths;
    knownOnly = promised;
    return promised;
}

} // namespace

QStringList DriverList::available()
{
    QStringList drivers = QSqlDatabase::drivers();
    const QSet<QString> promised = promisedOnly();
    const auto isPromised = [&promised](const QString &name) { return promised.contains(name); };
    drivers.erase(std::remove_if(drivers.begin(), drivers.end(), isPromised), drivers.end());
    return drivers;
}

bool DriverList::isAvailable(const QString &name)
{
    return QSqlDatabase::isDriverAvailable(name) && !promisedOnly().contains(name);
}
