/// @file
/// Which package brings which database driver.
#pragma once

#include <QString>

/// What a user whose driver is missing can do.
///
/// It is a pure function of its argument: any thread.
namespace DriverPackages
{

/// The Debian package that holds the driver; empty for a driver that none holds.
QString package(const QString &driver);

/// A text for the user about a driver that is not there: the package to install, or for an unknown
/// driver that there is none of that name.
QString hint(const QString &driver);

} // namespace DriverPackages
