/// @file
/// Which of Qt's SQL drivers a script can use.
#pragma once

#include <QString>
#include <QStringList>

/// Qt's list of drivers, without those that are only promised. A plugin that decorates the drivers
/// of others, and says so in its metadata by "VextLayer", has all their names; a driver of such a
/// name is usable only where another plugin has that name as well. Without such a plugin the list
/// is Qt's own, in Qt's order.
///
/// Any thread. The plugins' metadata is read again only when the library paths have changed.
namespace DriverList
{

/// QSqlDatabase::drivers(), less the names that only decorating plugins have.
QStringList available();

/// QSqlDatabase::isDriverAvailable(), and whether the name is in available().
bool isAvailable(const QString &name);

} // namespace DriverList
