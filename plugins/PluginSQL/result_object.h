/// @file
/// How a record becomes the result object that scripts read. Engine's thread only.
#pragma once

#include "sql_records.h"

#include <QScriptEngine>
#include <QScriptValue>

namespace ResultObject
{

/// How the values of a connection are shown.
struct Options {
    bool enableNull = true;  ///< NULL becomes null; otherwise it is converted like its type's zero
    bool upperCaseNames = false;
};

/// Script array of `count` new empty objects.
QScriptValue newObjects(QScriptEngine *engine, int count);

/// Fills `target` with the record's columns and figures, column by column. The values of a column
/// are given up as soon as they are converted; the record is spent afterwards.
void fill(QScriptEngine *engine, QScriptValue target, structSqlResult &record,
          const Options &options);

/// One value as a script sees it.
QScriptValue toScript(QScriptEngine *engine, const QVariant &value, bool enableNull);

} // namespace ResultObject
