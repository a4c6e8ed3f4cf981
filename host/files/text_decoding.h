/// @file
/// Bytes that are meant to be text.
#pragma once

#include <QByteArray>
#include <QString>

/// Reads UTF-8, and tells what is none: a binary file read as text would otherwise go on as a text
/// full of replacement characters.
///
/// It is a pure function of its argument: any thread.
namespace TextDecoding
{

/// Reads a text; a byte order mark at its begin is left out.
/// @return false with `error` set to what is wrong and at which byte.
bool decode(const QByteArray &bytes, QString *text, QString *error);

} // namespace TextDecoding
