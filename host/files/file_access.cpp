#include "file_access.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace
{

const qint64 MaxSize = 1 << 30; ///< of a file that is read as a whole; texts take twice as much

bool fail(const QFileDevice &file, QString *error)
{
    *error = file.errorString();
    return false;
}

bool isFolder(const QString &path, QString *error)
{
    if (!QFileInfo(path).isDir())
        return false;
    *error = QStringLiteral("it is a folder");
    return true;
}

/// Neither a file nor nothing.
bool isDevice(const QString &path)
{
    const QFileInfo info(path);
    return info.exists() && !info.isFile();
}

/// Writes without a buffer: the last bytes must not fail unseen when the file is closed.
bool writeDirectly(const QString &path, const QByteArray &bytes, QIODevice::OpenMode mode,
                   QString *error)
{
    QFile file(path);
    if (!file.open(mode | QIODevice::Unbuffered) || file.write(bytes) != bytes.size())
        return fail(file, error);
    return true;
}

bool replace(const QString &path, const QByteArray &bytes, QString *error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        return fail(file, error);
    return true;
}

} // namespace

bool FileAccess::read(const QString &path, QByteArray *bytes, QString *error)
{
    QFile file(path);
    if (isFolder(path, error))
        return false;
    if (!file.open(QIODevice::ReadOnly))
        return fail(file, error);
    if (file.size() > MaxSize) {
        *error = QStringLiteral("it is larger than a gigabyte; readLines() reads it line by line");
        return false;
    }
    *bytes = file.readAll();
    return file.error() == QFileDevice::NoError || fail(file, error);
}

bool FileAccess::write(const QString &path, const QByteArray &bytes, QString *error)
{
    if (isFolder(path, error))
        return false;
    if (isDevice(path))
        return writeDirectly(path, bytes, QIODevice::WriteOnly, error);
    return replace(path, bytes, error);
}

bool FileAccess::append(const QString &path, const QByteArray &bytes, QString *error)
{
    const QIODevice::OpenMode mode =
        isDevice(path) ? QIODevice::WriteOnly : QIODevice::WriteOnly | QIODevice::Append;
    return !isFolder(path, error) && writeDirectly(path, bytes, mode, error);
}

bool FileAccess::list(const QString &folder, const QString &pattern, QStringList *names,
                      QString *error)
{
    const QDir dir(folder);
    if (!dir.exists() || !dir.isReadable()) {
        *error = dir.exists() ? QStringLiteral("Permission denied")
                              : QStringLiteral("No such file or directory");
        return false;
    }
    const QStringList patterns = pattern.isEmpty() ? QStringList() : QStringList{pattern};
    *names = dir.entryList(patterns, QDir::Files | QDir::Hidden, QDir::Name);
    return true;
}
