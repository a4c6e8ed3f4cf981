/// @file
/// Files as scripts read and write them.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// What can be done with a file in one step. Each function that returns false sets `error` to the
/// reason alone; the caller adds whose file it is.
///
/// Thread: any.
namespace FileAccess
{

/// All bytes of a file. A file of more than a gigabyte is refused.
bool read(const QString &path, QByteArray *bytes, QString *error);

/// Replaces the file as a whole or leaves it as it was. What is no plain file (a pipe, a device)
/// is written to.
bool write(const QString &path, const QByteArray &bytes, QString *error);

/// Adds to the end of the file, and makes it where there is none.
bool append(const QString &path, const QByteArray &bytes, QString *error);

/// The names of the files in a folder that match the pattern, sorted; no folders.
bool list(const QString &folder, const QString &pattern, QStringList *names, QString *error);

} // namespace FileAccess
