/// @file
/// The files that come with the program: the script library, translations, examples.
#pragma once

#include <QString>

/// Finds what is built or installed with the program by the program's own place, so that an
/// installation may lie anywhere. Any thread, once the application object exists.
namespace ProgramFiles
{

/// The folder of that name; it need not exist.
/// @param name "library", "translations" or "examples"
QString folder(const QString &name);

/// The file of the script library that scripts call by its bare name, "vext" for "vext.js"; empty
/// where there is none.
QString libraryFile(const QString &name);

} // namespace ProgramFiles
