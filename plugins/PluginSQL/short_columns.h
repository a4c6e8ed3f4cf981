/// @file
/// How the columns of a short result become script arrays all at once. Engine's thread only.
#pragma once

#include "sql_records.h"

#include <QScriptEngine>
#include <QScriptValue>
#include <QVariantList>

/// Makes the arrays of results of few rows. A call into the engine costs more than a cell, so the
/// columns are one list of lists that the engine turns into arrays itself, and the lists are kept
/// for the next result. Holds no script values.
class ShortColumns
{
public:
    /// Whether a result is short, and of values that a list of lists shows as a column does.
    static bool fit(const structSqlResult &record, bool enableNull);

    /// Array of the columns' arrays. The values stay in the record.
    QScriptValue values(QScriptEngine *engine, const structSqlResult &record, bool enableNull);
    /// Array of the arrays of the rows that are null; invalid where there are none.
    QScriptValue nulls(QScriptEngine *engine, const structSqlResult &record);
    /// Array of as many empty arrays.
    QScriptValue noNulls(QScriptEngine *engine, int columns);

private:
    QVariantList m_columns; ///< lists of cells
    QVariantList m_noNulls; ///< as many empty lists
};
