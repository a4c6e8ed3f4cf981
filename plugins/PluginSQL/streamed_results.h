/// @file
/// What becomes of slices of results in the engine's thread. Engine's thread only.
#pragma once

#include "column_array.h"
#include "result_stream.h"

#include <deque>
#include <memory>
#include <vector>

/// The columns of one result while they become arrays, slice by slice.
class ResultColumns
{
public:
    explicit ResultColumns(bool enableNull)
        : m_enableNull(enableNull)
    {
    }

    /// Converts a slice that follows those before; called again with it when the time was over.
    /// @return whether it is used up.
    bool convert(ColumnArray::Context context, ResultSlice &slice, const ConversionTime &time);
    /// Shows NULL as `context` says, whatever the setting was when the slices came.
    void showNulls(const ColumnArray::Context &context);

    int rows() const { return m_columns.empty() ? 0 : m_columns.front().values.rows(); }
    QScriptValue values(int column, QScriptEngine *engine) const;
    QScriptValue nulls(int column, QScriptEngine *engine) const;

private:
    struct Column {
        ColumnArray values;
        ColumnArray nulls;
        std::vector<ColumnArray::Nulls> shown; ///< the nulls among the values
    };

    const bool m_enableNull;
    std::vector<Column> m_columns;
    size_t m_at = 0; ///< column of the present slice that comes next
};

/// Converts the slices that a ResultStream brings, in steps between which the event loop has its
/// turn, and keeps what has become of them until the task is delivered. No script can reach any of
/// it before that.
///
/// Converting may run code of the host, which may run an event loop: nothing of this object is
/// called while isConverting().
class StreamedResults
{
public:
    /// @param stream outlives the object.
    explicit StreamedResults(ResultStream &stream);
    ~StreamedResults();

    bool isConverting() const { return m_isConverting; }

    /// Whether a slice has been begun and not come to its end.
    bool hasBegun() const { return !m_slice.columns.empty(); }

    /// Converts what waits, for some milliseconds.
    void step(const ColumnArray::Context &context);
    /// Converts the rest of a result and gives its columns away.
    std::unique_ptr<ResultColumns> finish(int result, const ColumnArray::Context &context);
    /// Forgets a result that nobody will see, with what is still to come of it.
    void drop(int result);
    /// Forgets everything: there is nobody left to see it.
    void clear();

private:
    struct Result {
        int number;
        std::unique_ptr<ResultColumns> columns;
    };

    bool convertNext(int last, ColumnArray::Context context, const ConversionTime &time);

    ResultStream &m_stream;
    ColumnArray::Scratch m_scratch;
    std::deque<Result> m_results; ///< begun and not delivered, in the order of their numbers
    ResultSlice m_slice;          ///< the present one; without columns there is none
    bool m_isConverting = false;
};
