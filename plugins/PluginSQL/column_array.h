/// @file
/// How one column's values become a script array. Engine's thread only.
#pragma once

#include "column_values.h"

#include <QScriptEngine>
#include <QScriptValue>

/// Converts one column and gives its values up block by block on the way.
///
/// Making a script value costs more than storing it. So long columns are converted by the chunk,
/// as lists that the engine turns into arrays itself, which push then appends natively.
class ColumnArray
{
public:
    /// With what a column is shown.
    struct Context {
        QScriptEngine *engine = nullptr;
        /// The engine's own Array.prototype.push as it was at the install, or invalid.
        QScriptValue push;
        bool enableNull =
            true; ///< NULL becomes null; otherwise it is converted like its type's zero
    };

    /// Both outlive the object.
    ColumnArray(const Context &context, ColumnValues &values);

    /// The array. The column is empty afterwards.
    QScriptValue make();

private:
    static constexpr int ChunkRows = 1024;
    static constexpr int TrialRows = 64; ///< shorter columns of texts do without a cache

    template <typename CellOf>
    void takeNumbers(CellOf cellOf);
    void takeTexts();
    void takeTextChunks(int start);
    void takeVariants();
    void takeNulls();
    template <typename Cells, typename TakeCell>
    void takeChunks(int start, TakeCell takeCell);
    void append(QScriptValue chunk, int first, int count);
    void release(int row);

    const Context &m_context;
    QScriptEngine *m_engine;
    ColumnValues &m_values;
    const int m_rows;
    QScriptValue m_array;
    QScriptValue m_null; ///< what a null of this column reads as; invalid: its element is left out
};
