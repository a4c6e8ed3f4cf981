/// @file
/// How one column's values become a script array. Engine's thread only.
#pragma once

#include "column_values.h"

#include <QElapsedTimer>
#include <QList>
#include <QScriptEngine>
#include <QScriptValue>
#include <QStringList>
#include <QVariantList>
#include <QVector>

#include <memory>
#include <vector>

/// How long a conversion may go on before the event loop is to have its turn.
class ConversionTime
{
public:
    /// Without an end.
    ConversionTime() = default;
    explicit ConversionTime(int ms)
        : m_limitNs(qint64(ms) * 1000000)
    {
        m_timer.start();
    }

    bool isOver() const { return m_limitNs != 0 && m_timer.nsecsElapsed() >= m_limitNs; }

private:
    qint64 m_limitNs = 0;
    QElapsedTimer m_timer;
};

/// Script strings of a column in which few texts come again and again.
class StringCache;

/// Converts one column, in one piece or slice by slice, and gives values up on the way.
///
/// A call into the engine for each cell would cost more than the cell. So columns are converted by
/// the chunk, and the engine's push appends each natively: numbers as they are, texts as a list
/// that the engine turns into an array itself.
///
/// The array is reachable from nowhere else until array() has handed it out; the object keeps it
/// alive meanwhile.
class ColumnArray
{
public:
    /// Lists that are used again for chunk after chunk, of all columns that share them: assigning
    /// a cell to them allocates next to nothing. What they hold between two chunks is not read.
    struct Scratch {
        QScriptValueList numbers; ///< of no engine
        QStringList texts;
        QVector<int> nulls;
    };

    /// With what a column is shown.
    struct Context {
        QScriptEngine *engine = nullptr;
        /// The engine's own Array.prototype.push as it was at the install, or invalid.
        QScriptValue push;
        bool enableNull =
            true; ///< NULL becomes null; otherwise it is converted like its type's zero
        Scratch *scratch = nullptr;
    };

    /// Rows of a column that are null, and what their cells hold, so that they can be shown in the
    /// other way later.
    struct Nulls {
        QList<uint> rows;
        QVariant value;
    };

    ColumnArray();
    ColumnArray(ColumnArray &&) noexcept;
    ~ColumnArray();

    /// The array of a whole column, which is empty afterwards.
    QScriptValue make(const Context &context, ColumnValues &values);

    /// Converts rows that follow those converted before. When the time is over it returns early
    /// and is called again with the same values.
    /// @param mixedNulls gets the nulls of values that are stored as variants; may be null.
    /// @return whether the values are used up; they are empty then.
    bool convert(const Context &context, ColumnValues &values, const ConversionTime &time,
                 std::vector<Nulls> *mixedNulls = nullptr);

    /// Appends row numbers as an array of them shows them.
    void appendRows(const Context &context, const QList<uint> &rows);

    /// Shows nulls that were converted before as `context` says.
    void showNulls(const Context &context, const Nulls &nulls);

    /// Rows converted so far.
    int rows() const { return m_rows; }
    QScriptValue array(QScriptEngine *engine) const;

private:
    static constexpr int ChunkRows = 1024;      ///< of texts
    static constexpr int ChunkCells = 128;      ///< of what is made one by one
    static constexpr int ChunkUnits = 1 << 17;  ///< of texts
    static constexpr int TrialRows = 64;        ///< shorter columns of texts do without a cache
    static constexpr int RowsBetweenLooks = 16; ///< at the clock, where no chunks are made

    struct Slice; ///< what one call of convert() works on

    template <typename NumberOf>
    void takeNumbers(const Slice &slice, NumberOf numberOf);
    void takeTexts(const Slice &slice);
    void takeCachedTexts(const Slice &slice);
    void takeTextChunks(const Slice &slice);
    static int textsInChunk(const ColumnValues &values, int first);
    void takeVariants(const Slice &slice, std::vector<Nulls> *nulls);
    void takeNulls(const Slice &slice);
    void append(const Context &context, const QScriptValue &chunk, int count);
    void push(const Context &context, const QScriptValueList &cells, bool mayLack);
    void extend(const Slice &slice);

    QScriptValue m_array;
    int m_rows = 0;
    int m_taken = 0; ///< rows of the present slice that are converted
    bool m_caches = true;
    std::unique_ptr<StringCache> m_cache;
};
