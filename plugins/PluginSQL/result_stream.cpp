#include "result_stream.h"

#include <algorithm>
#include <utility>

namespace
{

/// About a millisecond's work for the engine's thread: often enough that both threads have
/// something to do, and seldom enough that handing over costs nothing beside the reading.
constexpr int UsualCells = 16384;
/// Texts are cut earlier where they are long.
constexpr size_t MostUnits = size_t(1) << 20;
constexpr int RowsBetweenLooks = 64; ///< at how long they are
constexpr int WholeRows = 1024;      ///< slices with more rows have a multiple of it

/// For tests of results that come in slices though they are small.
int configuredCells()
{
    const int cells = qEnvironmentVariableIntValue("VEXT_TEST_SLICE_CELLS");
    return cells > 0 ? cells : UsualCells;
}

} // namespace

ResultStream::ResultStream(Wake wake)
    : m_wake(std::move(wake))
    , m_sliceCells(configuredCells())
{
}

void ResultStream::put(ResultSlice &&slice)
{
    {
        QMutexLocker locker(&m_mutex);
        m_slices.push_back(std::move(slice));
        if (std::exchange(m_isAwaited, true))
            return;
    }
    m_wake();
}

bool ResultStream::take(ResultSlice &slice, int last)
{
    QMutexLocker locker(&m_mutex);
    if (m_slices.empty() || m_slices.front().result > last)
        return false;
    // Only moved: the caller frees what `slice` held, and holds no lock then.
    std::swap(slice, m_slices.front());
    ResultSlice old = std::move(m_slices.front());
    m_slices.pop_front();
    locker.unlock();
    return true;
}

void ResultStream::heard()
{
    QMutexLocker locker(&m_mutex);
    m_isAwaited = false;
}

void ResultStream::ask(bool always)
{
    {
        QMutexLocker locker(&m_mutex);
        if ((!always && m_slices.empty()) || std::exchange(m_isAwaited, true))
            return;
    }
    m_wake();
}

ResultSlicer::ResultSlicer(ResultStream &stream, structSqlResult &record)
    : m_stream(stream)
    , m_record(record)
{
    const int columns = std::max(1, record.fields.size());
    m_sliceRows = std::clamp(stream.sliceCells() / columns, 1, ColumnValues::BlockRows);
    if (m_sliceRows > WholeRows)
        m_sliceRows -= m_sliceRows % WholeRows;
    m_next = std::min(m_sliceRows, RowsBetweenLooks);
}

void ResultSlicer::cut(int rows)
{
    if (isEnough(rows)) {
        handOver();
        m_handedOver = rows;
    }
    m_next = std::min(m_handedOver + m_sliceRows, rows + RowsBetweenLooks);
}

bool ResultSlicer::isEnough(int rows) const
{
    if (rows - m_handedOver >= m_sliceRows)
        return true;
    size_t units = 0;
    for (const structSqlFieldResult &field : qAsConst(m_record.fields))
        units += field.values.textUnits();
    return units >= MostUnits;
}

void ResultSlicer::finish()
{
    if (m_record.stream != 0 && !m_record.fields.isEmpty() &&
        !m_record.fields.constFirst().values.isEmpty())
        handOver();
}

void ResultSlicer::handOver()
{
    if (m_record.stream == 0)
        m_record.stream = m_stream.begin();
    ResultSlice slice;
    slice.result = m_record.stream;
    slice.columns.reserve(size_t(m_record.fields.size()));
    for (structSqlFieldResult &field : m_record.fields) {
        ColumnSlice column;
        column.values = field.values.takeAll();
        column.nulls.swap(field.nulls);
        slice.columns.push_back(std::move(column));
    }
    m_stream.put(std::move(slice));
}
