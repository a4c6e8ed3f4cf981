/// @file
/// The script globals for files and the environment.
#pragma once

class QScriptEngine;

/// Defines `readFile`, `writeFile`, `appendFile`, `readLines`, `exists`, `listFiles` and `env`.
/// Paths are relative to the working directory. What cannot be done is thrown as an Error that
/// names the function, the file and the reason; wrong arguments are a TypeError.
///
/// Thread: the engine's.
namespace FileGlobals
{

void install(QScriptEngine *engine);

} // namespace FileGlobals
