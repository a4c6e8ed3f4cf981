/// @file
/// Drivers that complete statements themselves.
#pragma once

#include <QString>

class QSqlDriver;

namespace DriverText
{

/// Asks a driver for the text to prepare for a script's own text and a number of values, which are
/// then bound by position. Drivers tell that they want to be asked by the invokable method
/// boundStatement(QString, int); none of Qt's own does. The connection's thread.
/// @return false when the driver is no such driver; `statement` is left alone
bool complete(const QSqlDriver *driver, const QString &text, int count, QString &statement);

} // namespace DriverText
