#include "program_files.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

QString ProgramFiles::folder(const QString &name)
{
    const QDir program(QCoreApplication::applicationDirPath());
    const QString inBuildTree = program.absoluteFilePath(QStringLiteral("../share/vext"));
    const QString installed = program.absoluteFilePath(QStringLiteral(VEXT_DATA_DIR));
    const QString data = QFileInfo::exists(inBuildTree) ? inBuildTree : installed;
    return QDir::cleanPath(data + QLatin1Char('/') + name);
}

QString ProgramFiles::libraryFile(const QString &name)
{
    if (name.isEmpty() || name.contains(QLatin1Char('/')))
        return QString();
    const QDir library(folder(QStringLiteral("library")));
    for (const QString &file : {name, QString(name + QLatin1String(".js"))}) {
        if (QFileInfo(library.filePath(file)).isFile())
            return library.filePath(file);
    }
    return QString();
}
