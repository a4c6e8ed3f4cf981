/// @file
/// The SQL drivers that come with the program.
#pragma once

#include <QString>

/// Vext's layer over Qt's SQL drivers. It takes their names, so nothing but a library path tells
/// which are in use.
namespace DriverLayer
{

/// The folder to add to Qt's library paths: the one that was built or installed with the program.
QString folder();

/// Makes Qt find the layer before its own drivers. Before the first use of Qt Sql, in the
/// application's thread.
void use();

} // namespace DriverLayer
