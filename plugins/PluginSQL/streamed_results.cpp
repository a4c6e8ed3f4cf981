#include "streamed_results.h"

#include <QScopedValueRollback>

#include <limits>
#include <utility>

namespace
{

/// A step is short beside what people notice, and long beside what an event costs.
constexpr int StepMs = 4;

} // namespace

bool ResultColumns::convert(ColumnArray::Context context, ResultSlice &slice,
                            const ConversionTime &time)
{
    // The same for all slices, so that one look at the delivery tells whether it still holds.
    context.enableNull = m_enableNull;
    m_columns.resize(slice.columns.size());
    for (; m_at < m_columns.size(); ++m_at) {
        if (time.isOver())
            return false;
        Column &column = m_columns[m_at];
        ColumnSlice &cells = slice.columns[m_at];
        const bool mixed = cells.values.storage() == ColumnValues::Storage::Mixed;
        const int nullType = cells.values.nullType();
        if (!column.values.convert(context, cells.values, time, &column.shown))
            return false;
        column.nulls.appendRows(context, cells.nulls);
        if (!mixed && !cells.nulls.isEmpty()) {
            const QVariant null = nullType ? QVariant(QVariant::Type(nullType)) : QVariant();
            column.shown.push_back({std::move(cells.nulls), null});
        }
    }
    m_at = 0;
    return true;
}

void ResultColumns::showNulls(const ColumnArray::Context &context)
{
    if (context.enableNull == m_enableNull)
        return;
    for (Column &column : m_columns) {
        for (const ColumnArray::Nulls &nulls : column.shown)
            column.values.showNulls(context, nulls);
    }
}

QScriptValue ResultColumns::values(int column, QScriptEngine *engine) const
{
    return m_columns[size_t(column)].values.array(engine);
}

QScriptValue ResultColumns::nulls(int column, QScriptEngine *engine) const
{
    return m_columns[size_t(column)].nulls.array(engine);
}

StreamedResults::StreamedResults(ResultStream &stream)
    : m_stream(stream)
{
}

StreamedResults::~StreamedResults() = default;

void StreamedResults::step(const ColumnArray::Context &context)
{
    const QScopedValueRollback<bool> converting(m_isConverting, true);
    const ConversionTime time(StepMs);
    while (!time.isOver() && convertNext(std::numeric_limits<int>::max(), context, time)) {
    }
}

std::unique_ptr<ResultColumns> StreamedResults::finish(int result,
                                                       const ColumnArray::Context &context)
{
    const QScopedValueRollback<bool> converting(m_isConverting, true);
    while (convertNext(result, context, ConversionTime())) {
    }
    while (!m_results.empty() && m_results.front().number < result)
        m_results.pop_front();
    if (m_results.empty() || m_results.front().number != result)
        return nullptr;
    std::unique_ptr<ResultColumns> columns = std::move(m_results.front().columns);
    m_results.pop_front();
    columns->showNulls(context);
    return columns;
}

/// Works on the next slice of a result up to `last`. @return whether there was one.
bool StreamedResults::convertNext(int last, ColumnArray::Context context,
                                  const ConversionTime &time)
{
    if (m_slice.columns.empty() && !m_stream.take(m_slice, last))
        return false;
    if (m_slice.result > last)
        return false;
    if (m_results.empty() || m_results.back().number != m_slice.result)
        m_results.push_back({m_slice.result, std::make_unique<ResultColumns>(context.enableNull)});
    context.scratch = &m_scratch;
    if (m_results.back().columns->convert(context, m_slice, time))
        m_slice = ResultSlice();
    return true;
}

void StreamedResults::drop(int result)
{
    if (m_slice.result <= result)
        m_slice = ResultSlice();
    ResultSlice slice;
    while (m_stream.take(slice, result)) {
    }
    while (!m_results.empty() && m_results.front().number <= result)
        m_results.pop_front();
}

void StreamedResults::clear()
{
    drop(std::numeric_limits<int>::max());
}
