#include "column_array.h"

#include "local_clock.h"
#include "script_cell.h"

#include <QHash>

#include <algorithm>

/// Shared strings are quicker and take a fraction of the memory. On columns of many texts looking
/// them up costs more than it saves, so the cache watches its hits and gives up.
class StringCache
{
public:
    explicit StringCache(QScriptEngine *engine)
        : m_engine(engine)
    {
    }

    bool pays() const { return m_pays; }

    QScriptValue value(const QString &text)
    {
        const auto found = m_values.constFind(text);
        if (found != m_values.constEnd()) {
            ++m_hits;
            return *found;
        }
        const QScriptValue value(m_engine, text);
        // A copy of its own: the text may lie in a block that is released before the cache is.
        if (m_values.size() < MostTexts)
            m_values.insert(QString(text.constData(), text.size()), value);
        m_pays = ++m_misses < TrialMisses || m_hits >= m_misses;
        return value;
    }

private:
    static constexpr int MostTexts = 256;
    static constexpr int TrialMisses = 64; ///< before the cache is judged

    QScriptEngine *m_engine;
    QHash<QString, QScriptValue> m_values;
    int m_hits = 0;
    int m_misses = 0;
    bool m_pays = true;
};

namespace
{

/// Gives a list its size; the elements that it has keep their memory.
template <typename List>
void fitTo(List &list, int size)
{
    list.reserve(size);
    while (list.size() < size)
        list.append(typename List::value_type());
    while (list.size() > size)
        list.removeLast();
}

void addNull(std::vector<ColumnArray::Nulls> &nulls, const QVariant &cell, int row)
{
    if (nulls.empty() || nulls.back().value.userType() != cell.userType() ||
        nulls.back().value != cell)
        nulls.push_back({{}, cell});
    nulls.back().rows.append(uint(row));
}

} // namespace

struct ColumnArray::Slice {
    const Context &context;
    ColumnValues &values;
    const ConversionTime &time;
    QScriptValue null; ///< what a null of these values reads as; invalid: its element is left out
};

ColumnArray::ColumnArray() = default;
ColumnArray::ColumnArray(ColumnArray &&) noexcept = default;
ColumnArray::~ColumnArray() = default;

QScriptValue ColumnArray::array(QScriptEngine *engine) const
{
    return m_array.isValid() ? m_array : engine->newArray();
}

QScriptValue ColumnArray::make(const Context &context, ColumnValues &values)
{
    m_caches = values.size() >= TrialRows;
    convert(context, values, ConversionTime());
    return array(context.engine);
}

bool ColumnArray::convert(const Context &context, ColumnValues &values, const ConversionTime &time,
                          std::vector<Nulls> *mixedNulls)
{
    // Every null of values that are stored plainly has the same type.
    const int type = values.nullType();
    const Slice slice{context, values, time,
                      ScriptCell::toScript(context.engine,
                                           type ? QVariant(QVariant::Type(type)) : QVariant(),
                                           context.enableNull)};
    switch (values.storage()) {
    case ColumnValues::Storage::Int:
        takeNumbers(slice, [&values](int row) { return values.intAt(row); });
        break;
    case ColumnValues::Storage::LongLong:
        takeNumbers(slice, [&values](int row) { return double(values.longLongAt(row)); });
        break;
    case ColumnValues::Storage::ULongLong:
        takeNumbers(slice, [&values](int row) { return double(values.uLongLongAt(row)); });
        break;
    case ColumnValues::Storage::Double:
        takeNumbers(slice, [&values](int row) { return values.doubleAt(row); });
        break;
    case ColumnValues::Storage::Text:
        takeTexts(slice);
        break;
    case ColumnValues::Storage::Mixed:
        takeVariants(slice, mixedNulls);
        break;
    case ColumnValues::Storage::Empty:
        takeNulls(slice);
        break;
    }
    if (m_taken < values.size())
        return false;
    m_taken = 0;
    values.clear();
    return true;
}

void ColumnArray::appendRows(const Context &context, const QList<uint> &rows)
{
    if (rows.isEmpty())
        return;
    QVariantList list;
    list.reserve(rows.size());
    for (const uint row : rows)
        list.append(row);
    append(context, context.engine->toScriptValue(list), list.size());
}

void ColumnArray::showNulls(const Context &context, const Nulls &nulls)
{
    const QScriptValue value =
        ScriptCell::toScript(context.engine, nulls.value, context.enableNull);
    // One that is invalid takes the element out, as it is to be.
    for (const uint row : nulls.rows)
        m_array.setProperty(row, value);
}

/// Numbers go to push as they are. An array of each chunk would wait for the collector, and hold as
/// much memory as the column itself until it comes.
template <typename NumberOf>
void ColumnArray::takeNumbers(const Slice &slice, NumberOf numberOf)
{
    ColumnValues &values = slice.values;
    QScriptValueList &cells = slice.context.scratch->numbers;
    QVector<int> &nulls = slice.context.scratch->nulls;
    if (!m_array.isValid())
        m_array = slice.context.engine->newArray();
    while (m_taken < values.size()) {
        const int first = m_taken;
        fitTo(cells, std::min(ChunkCells, values.size() - first));
        nulls.clear();
        for (int i = 0; i < cells.size(); ++i) {
            if (values.isNullAt(first + i)) {
                cells[i] = slice.null;
                nulls.append(i);
            } else {
                cells[i] = QScriptValue(numberOf(first + i));
            }
        }
        push(slice.context, cells, !nulls.isEmpty() && !slice.null.isValid());
        for (const int i : qAsConst(nulls))
            cells[i] = QScriptValue(); // the list may outlive the engine
        m_taken += cells.size();
        values.releaseBefore(m_taken);
        if (slice.time.isOver())
            return;
    }
}

/// A long column starts with the cache and goes on in chunks from where that does not pay.
void ColumnArray::takeTexts(const Slice &slice)
{
    if (m_caches)
        takeCachedTexts(slice);
    if (!m_caches)
        takeTextChunks(slice);
}

void ColumnArray::takeCachedTexts(const Slice &slice)
{
    if (!m_cache)
        m_cache = std::make_unique<StringCache>(slice.context.engine);
    if (!m_array.isValid())
        m_array = slice.context.engine->newArray();
    ColumnValues &values = slice.values;
    QScriptValueList cells;
    QString view;
    while (m_taken < values.size() && m_cache->pays()) {
        const int first = m_taken;
        const int end = std::min(first + ChunkCells, values.size());
        fitTo(cells, end - first);
        for (; m_taken < end && m_cache->pays(); ++m_taken) {
            if (values.isNullAt(m_taken)) {
                cells[m_taken - first] = slice.null;
            } else {
                values.textViewAt(m_taken, view);
                cells[m_taken - first] = m_cache->value(view);
            }
        }
        fitTo(cells, m_taken - first);
        push(slice.context, cells, !slice.null.isValid());
        values.releaseBefore(m_taken);
        if (slice.time.isOver())
            break;
    }
    if (!m_cache->pays()) {
        m_caches = false;
        m_cache.reset();
    }
}

/// Takes texts as lists, of which the engine makes arrays itself: one by one they would cost more.
void ColumnArray::takeTextChunks(const Slice &slice)
{
    ColumnValues &values = slice.values;
    QStringList &texts = slice.context.scratch->texts;
    QVector<int> &nulls = slice.context.scratch->nulls;
    while (m_taken < values.size()) {
        const int first = m_taken;
        fitTo(texts, textsInChunk(values, first));
        nulls.clear();
        for (int i = 0; i < texts.size(); ++i) {
            if (values.isNullAt(first + i)) {
                // Not the text of the chunk before, which may be released by now.
                texts[i] = QString();
                nulls.append(i);
            } else {
                values.textViewAt(first + i, texts[i]);
            }
        }
        QScriptValue chunk = slice.context.engine->toScriptValue(texts);
        if (slice.null.isValid()) {
            for (const int i : qAsConst(nulls))
                chunk.setProperty(quint32(i), slice.null);
        }
        append(slice.context, chunk, texts.size());
        if (!slice.null.isValid()) {
            for (const int i : qAsConst(nulls))
                m_array.setProperty(quint32(m_rows - texts.size() + i), QScriptValue());
        }
        m_taken += texts.size();
        values.releaseBefore(m_taken);
        if (slice.time.isOver())
            return;
    }
}

/// Chunks of long texts have fewer rows.
int ColumnArray::textsInChunk(const ColumnValues &values, int first)
{
    const int most = std::min(ChunkRows, values.size() - first);
    int count = 0;
    for (int units = 0; count < most && units < ChunkUnits; ++count) {
        if (!values.isNullAt(first + count))
            units += int(values.textAt(first + count).size());
    }
    return count;
}

void ColumnArray::takeVariants(const Slice &slice, std::vector<Nulls> *nulls)
{
    ColumnValues &values = slice.values;
    QScriptValueList cells; // own: a host's conversion may run anything, other columns' too
    LocalClock clock;
    if (!m_array.isValid())
        m_array = slice.context.engine->newArray();
    while (m_taken < values.size()) {
        const int first = m_taken;
        const int end = std::min(first + ChunkCells, values.size());
        fitTo(cells, end - first);
        for (; m_taken < end; ++m_taken) {
            if (m_taken % RowsBetweenLooks == 0 && m_taken > first && slice.time.isOver())
                break;
            const QVariant &cell = values.variantAt(m_taken);
            cells[m_taken - first] =
                ScriptCell::toScript(slice.context.engine, cell, slice.context.enableNull, &clock);
            if (nulls && cell.isNull())
                addNull(*nulls, cell, m_rows + m_taken - first);
        }
        fitTo(cells, m_taken - first);
        push(slice.context, cells, true);
        values.releaseBefore(m_taken);
        if (slice.time.isOver())
            return;
    }
}

void ColumnArray::takeNulls(const Slice &slice)
{
    extend(slice);
    for (; m_taken < slice.values.size(); ++m_taken, ++m_rows) {
        if (m_taken % RowsBetweenLooks == 0 && m_taken > 0 && slice.time.isOver())
            return;
        if (slice.null.isValid())
            m_array.setProperty(quint32(m_rows), slice.null);
    }
}

/// The first chunk is the array; the others are appended to it natively, or element by element
/// where the push that was found does not do it.
void ColumnArray::append(const Context &context, const QScriptValue &chunk, int count)
{
    const int first = m_rows;
    m_rows += count;
    if (!m_array.isValid()) {
        m_array = chunk;
        return;
    }
    QScriptValue push = context.push;
    const QScriptValue length = push.call(m_array, chunk);
    if (length.isNumber() && length.toInt32() == m_rows)
        return;
    for (int i = 0; i < count; ++i)
        m_array.setProperty(quint32(first + i), chunk.property(quint32(i)));
}

/// The same of values that are made already. One that is invalid leaves its element out; `mayLack`
/// says whether there may be such.
void ColumnArray::push(const Context &context, const QScriptValueList &cells, bool mayLack)
{
    const int first = m_rows;
    m_rows += cells.size();
    QScriptValue push = context.push;
    const QScriptValue length = push.call(m_array, cells);
    const bool isPushed = length.isNumber() && length.toInt32() == m_rows;
    if (isPushed && !mayLack)
        return;
    for (int i = 0; i < cells.size(); ++i) {
        if (isPushed && cells.at(i).isValid())
            continue;
        // Set before it is taken out again, so that the array is as long as its rows are many.
        if (!isPushed)
            m_array.setProperty(quint32(first + i), context.engine->undefinedValue());
        m_array.setProperty(quint32(first + i), cells.at(i));
    }
}

/// Makes the array as long as it will be after the slice, where elements are set one by one: some
/// may be left out.
void ColumnArray::extend(const Slice &slice)
{
    if (m_taken > 0)
        return;
    const int rows = m_rows + slice.values.size();
    if (m_array.isValid())
        m_array.setProperty(QStringLiteral("length"), rows);
    else
        m_array = slice.context.engine->newArray(uint(rows));
}
