/// @file
/// Bytes and times as values of the script language.
#pragma once

class QScriptEngine;

/// Gives members to the values that hold a byte array, wherever they come from: results, files and
/// the global `bytes(text[, "hex" | "base64" | "text"])`. They have `length`, `get(index)`,
/// `slice(begin[, end])`, `toHex()`, `toBase64()`, `toText()` and a JSON form. Values that hold a
/// time of day get their JSON form, the text in which they print.
///
/// Thread: the engine's.
namespace ByteValues
{

void install(QScriptEngine *engine);

} // namespace ByteValues
