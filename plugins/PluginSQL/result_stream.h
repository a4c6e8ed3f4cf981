/// @file
/// How rows of a large result reach the engine's thread while the worker goes on reading.
#pragma once

#include "sql_records.h"

#include <QMutex>

#include <deque>
#include <functional>
#include <vector>

/// Rows of one column, and which of the result's rows among them are null.
struct ColumnSlice {
    ColumnValues values;
    QList<uint> nulls; ///< rows of the whole result, ascending
};

/// Some rows of one result, in all its columns. Plain data: it may be freed in any thread.
struct ResultSlice {
    int result = 0; ///< number that ResultStream::begin() gave
    std::vector<ColumnSlice> columns;
};

/// The way of slices from the worker thread to the engine's: a list under a lock, and one event at
/// most that tells the engine's thread of it. What waits there is packed as it was read, and never
/// more than the results have rows.
///
/// Belongs to the worker, whose threads share it. It holds no script value. Its lock is held for
/// moving slices only, never while one is made, converted or freed.
class ResultStream
{
public:
    /// Posts an event for the engine's thread. Called in both threads, without the lock.
    using Wake = std::function<void()>;

    explicit ResultStream(Wake wake);

    // --- Worker ---

    /// Number of a result that will come in slices. Slices come in the order of these numbers.
    int begin() { return ++m_results; }
    void put(ResultSlice &&slice);
    /// Cells of a slice, about; smaller results never come in slices.
    int sliceCells() const { return m_sliceCells; }

    // --- Engine's thread ---

    /// The event has come: from here on another one may be asked for.
    void heard();
    /// The next slice, if it is of result `last` or of one before it. @return whether there is one.
    bool take(ResultSlice &slice, int last);
    /// Asks for an event unless one is under way. @param always otherwise only if a slice waits
    void ask(bool always);

private:
    const Wake m_wake;
    const int m_sliceCells;
    int m_results = 0; ///< worker's
    QMutex m_mutex;    ///< guards what follows
    std::deque<ResultSlice> m_slices;
    bool m_isAwaited = false; ///< an event is under way
};

/// Cuts slices off a record while its rows are read. Worker; lives as long as the reading.
class ResultSlicer
{
public:
    ResultSlicer(ResultStream &stream, structSqlResult &record);

    /// Number of rows read at which cut() is to be called.
    int nextCut() const { return m_next; }
    /// Hands over what the record holds, if it is enough. @param rows rows read so far
    void cut(int rows);
    /// Hands the rest over, if anything has been before: the record's columns are empty then.
    void finish();

private:
    bool isEnough(int rows) const;
    void handOver();

    ResultStream &m_stream;
    structSqlResult &m_record;
    int m_sliceRows = 0;
    int m_next = 0;
    int m_handedOver = 0; ///< rows
};
