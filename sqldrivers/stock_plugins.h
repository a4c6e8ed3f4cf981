/// @file
/// The drivers that Qt ships, behind the names that this layer takes.
#pragma once

#include <QString>
#include <QStringList>

class QSqlDriver;

/// Finds the stock driver plugins in Qt's other library paths by the keys of their metadata, as Qt
/// itself would. Any thread.
namespace StockPlugins
{

/// Makes a driver of the first other plugin that has the key ("QPSQL"), in the calling thread.
/// @return owned by the caller; null when there is none or it cannot be loaded
/// @param error then the reason, when a plugin was there but could not be loaded
QSqlDriver *create(const QString &key, QString *error);

/// The Debian package that holds the stock driver of a key; empty for an unknown key.
QString debianPackage(const QString &key);

} // namespace StockPlugins
