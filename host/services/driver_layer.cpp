#include "driver_layer.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

QString DriverLayer::folder()
{
    const QDir program(QCoreApplication::applicationDirPath());
    const QString inBuildTree = program.absoluteFilePath(QStringLiteral("../qtplugins"));
    const QString installed = program.absoluteFilePath(QStringLiteral(VEXT_DRIVER_DIR));
    return QDir::cleanPath(QFileInfo::exists(inBuildTree) ? inBuildTree : installed);
}

void DriverLayer::use()
{
    QCoreApplication::addLibraryPath(folder());
}
