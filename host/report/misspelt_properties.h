/// @file
/// Names that a script has written wrongly.
#pragma once

#include <QList>
#include <QScriptValue>
#include <QString>

/// Finds what a script has set on a connection object that has no such property: a script object
/// takes any name, and `db.drivername = "QPSQL"` goes unnoticed. Only names that resemble a
/// property are told; others are the script's own.
///
/// Thread: the engine's. It runs no script code.
namespace MisspeltProperties
{

struct Misspelt {
    QString name;
    QString nearest; ///< the property that is meant
};

/// @param connection the script value of the object
QList<Misspelt> find(const QScriptValue &connection);

} // namespace MisspeltProperties
