#include "layer_path.h"

#include <QCoreApplication>

void useDriverLayer()
{
    QCoreApplication::addLibraryPath(QStringLiteral(VEXT_LAYER_PATH));
}
