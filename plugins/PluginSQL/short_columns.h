/// @file
/// How the columns of a short result become script arrays all at once. Engine's thread only.
#pragma once

#include "sql_records.h"

#include <QScriptEngine>
#include <QScriptValue>
#include <QVariantList>

/// Makes the arrays of results of few rows. A call into the engine costs more than a cell, so the
/// columns are one list of lists that the engine turns into arrays itself, and the lists are kept
/// for the next result. A single row goes as one list of its cells, which ResultFiller's function
/// makes columns of. Holds no script values.
class ShortColumns
{
public:
    /// Columns of a row at most that row() takes: as many as there are quick bits in a number.
    static constexpr int MostRowColumns = 30;

    /// Whether a result is short, and of values that a list of lists shows as a column does.
    static bool fit(const structSqlResult &record, bool enableNull);

    /// Array of the columns' arrays. The values stay in the record.
    QScriptValue values(QScriptEngine *engine, const structSqlResult &record, bool enableNull);
    /// Array of the arrays of the rows that are null; invalid where there are none.
    QScriptValue nulls(QScriptEngine *engine, const structSqlResult &record);
    /// Array of as many empty arrays.
    QScriptValue noNulls(QScriptEngine *engine, int columns);

    /// Whether a result is one row, or has no columns, and is of values that a list shows as a
    /// column does.
    static bool fitRow(const structSqlResult &record, bool enableNull);
    /// The array that ResultFiller::fillRow() takes: the cells, the affected rows, the inserted id,
    /// the text, and a number with a bit set for each cell that is null. The record keeps them all.
    QScriptValue row(QScriptEngine *engine, const structSqlResult &record, bool enableNull);

private:
    QVariantList m_columns; ///< lists of cells
    QVariantList m_noNulls; ///< as many empty lists
    QVariantList m_row;
};
