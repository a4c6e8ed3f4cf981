/// @file
/// Script files as the engine takes them.
#pragma once

#include <QByteArray>
#include <QString>

/// Reads scripts: UTF-8, with or without byte order mark, with or without a first line that names
/// an interpreter. Line numbers stay as they are in the file.
///
/// Thread: any.
namespace ScriptFile
{

/// @return false with `error` set to the reason alone.
bool read(const QString &path, QString *code, QString *error);

/// The same for bytes that have been read already. What is no UTF-8 is left to the engine, which
/// knows whether it stands in a comment; what is no text, or has a line over maxLineSize, is
/// refused.
bool decode(const QByteArray &bytes, QString *code, QString *error);

/// In bytes. The engine takes minutes for longer lines, which nobody writes: they are data.
const int maxLineSize = 10000000;

/// What is said of a longer line.
QString lineTooLong();

} // namespace ScriptFile
