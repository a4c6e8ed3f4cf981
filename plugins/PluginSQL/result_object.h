/// @file
/// How a record becomes the result object that scripts read. Engine's thread only.
#pragma once

#include "sql_records.h"

#include <QScriptEngine>
#include <QScriptValue>

namespace ResultObject
{

/// With what, and how, the values of a connection are shown.
struct Context {
    QScriptEngine *engine = nullptr;
    /// The engine's own Array.prototype.push as it was at the install, or invalid.
    QScriptValue push;
    bool enableNull = true; ///< NULL becomes null; otherwise it is converted like its type's zero
    bool upperCaseNames = false;
};

/// Script array of `count` new empty objects.
QScriptValue newObjects(QScriptEngine *engine, int count);

/// Fills `target` with the record's columns and figures, column by column. The values of a column
/// are given up as they are converted; the record is spent afterwards.
void fill(const Context &context, QScriptValue target, structSqlResult &record);

/// One value as a script sees it.
QScriptValue toScript(QScriptEngine *engine, const QVariant &value, bool enableNull);

} // namespace ResultObject
