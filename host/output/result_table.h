/// @file
/// The objects in which the SQL plugin hands results to scripts, read back as tables.
#pragma once

#include "table_printer.h"

#include <QScriptValue>

/// Reads result objects by the properties that scripts see. It runs no script code.
///
/// Thread: the engine's.
class ResultTable
{
public:
    /// A table of more rows is cut, with a line that says so.
    static constexpr int maxRows = 100000;

    /// Whether the value is the result of a statement or the answer of `tables()`.
    static bool isResult(const QScriptValue &value);

    /// The printed table with a last line that counts rows; for a statement without columns only
    /// the line that counts affected rows.
    static QString print(const QScriptValue &result);
};
