#include "column_array.h"

#include "local_clock.h"
#include "script_cell.h"

#include <QHash>

#include <algorithm>

namespace
{

/// Script strings of a column in which few texts come again and again: made once and shared, which
/// is quicker and takes a fraction of the memory. On other columns looking texts up costs more than
/// it saves, so the cache watches its hits and gives up.
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

} // namespace

ColumnArray::ColumnArray(const Context &context, ColumnValues &values)
    : m_context(context)
    , m_engine(context.engine)
    , m_values(values)
    , m_rows(values.size())
{
}

QScriptValue ColumnArray::make()
{
    // Every null of a column that is stored plainly has the same type.
    const int type = m_values.nullType();
    m_null = ScriptCell::toScript(m_engine, type ? QVariant(QVariant::Type(type)) : QVariant(),
                                  m_context.enableNull);
    if (!m_null.isValid() && m_values.hasNulls()) {
        // Elements are left out: only setting one by one does that.
        takeVariants();
        m_values.clear();
        return m_array;
    }
    switch (m_values.storage()) {
    case ColumnValues::Storage::Int:
        takeNumbers([this](int row) { return m_values.intAt(row); });
        break;
    case ColumnValues::Storage::LongLong:
        takeNumbers([this](int row) { return double(m_values.longLongAt(row)); });
        break;
    case ColumnValues::Storage::Double:
        takeNumbers([this](int row) { return m_values.doubleAt(row); });
        break;
    case ColumnValues::Storage::Text:
        takeTexts();
        break;
    case ColumnValues::Storage::Mixed:
        takeVariants();
        break;
    case ColumnValues::Storage::Empty:
        takeNulls();
        break;
    }
    m_values.clear();
    return m_array;
}

/// Takes the rows from `start` on by the chunk, in one list that is used again: assigning a cell to
/// it allocates next to nothing. `takeCell` puts a row that is not null into its place.
template <typename Cells, typename TakeCell>
void ColumnArray::takeChunks(int start, TakeCell takeCell)
{
    Cells cells;
    QVector<int> nulls;
    for (int first = start; first < m_rows; first += ChunkRows) {
        const int count = std::min(ChunkRows, m_rows - first);
        cells.reserve(count);
        while (cells.size() < count)
            cells.append(typename Cells::value_type());
        while (cells.size() > count)
            cells.removeLast();
        nulls.clear();
        for (int i = 0; i < count; ++i) {
            if (m_values.isNullAt(first + i)) {
                // Not the cell of the chunk before, whose text may be released by now.
                cells[i] = typename Cells::value_type();
                nulls.append(i);
            } else {
                takeCell(cells[i], first + i);
            }
        }
        QScriptValue chunk = m_engine->toScriptValue(cells);
        for (const int i : qAsConst(nulls))
            chunk.setProperty(quint32(i), m_null);
        append(chunk, first, count);
        m_values.releaseBefore(first + count);
    }
}

template <typename CellOf>
void ColumnArray::takeNumbers(CellOf cellOf)
{
    takeChunks<QVariantList>(0, [&](QVariant &cell, int row) { cell = cellOf(row); });
}

void ColumnArray::takeTextChunks(int start)
{
    takeChunks<QStringList>(start,
                            [this](QString &cell, int row) { m_values.textViewAt(row, cell); });
}

/// A long column starts with the cache and goes on in chunks from where that does not pay.
void ColumnArray::takeTexts()
{
    if (m_rows < TrialRows) {
        takeTextChunks(0);
        return;
    }
    m_array = m_engine->newArray();
    StringCache cache(m_engine);
    QString view;
    int row = 0;
    for (; row < m_rows && cache.pays(); ++row) {
        release(row);
        if (m_values.isNullAt(row)) {
            m_array.setProperty(quint32(row), m_null);
        } else {
            m_values.textViewAt(row, view);
            m_array.setProperty(quint32(row), cache.value(view));
        }
    }
    takeTextChunks(row);
}

void ColumnArray::takeVariants()
{
    m_array = m_engine->newArray(uint(m_rows));
    LocalClock clock;
    for (int row = 0; row < m_rows; ++row) {
        release(row);
        const QScriptValue value =
            ScriptCell::toScript(m_engine, m_values.at(row), m_context.enableNull, &clock);
        if (value.isValid())
            m_array.setProperty(quint32(row), value);
    }
}

void ColumnArray::takeNulls()
{
    m_array = m_engine->newArray(uint(m_rows));
    for (int row = 0; row < m_rows; ++row)
        m_array.setProperty(quint32(row), m_null);
}

/// The first chunk is the array; the others are appended to it natively, or element by element
/// where the push that was found does not do it.
void ColumnArray::append(QScriptValue chunk, int first, int count)
{
    if (first == 0) {
        m_array = chunk;
        return;
    }
    QScriptValue push = m_context.push;
    const QScriptValue length = push.call(m_array, chunk);
    if (length.isNumber() && length.toInt32() == first + count)
        return;
    for (int i = 0; i < count; ++i)
        m_array.setProperty(quint32(first + i), chunk.property(quint32(i)));
}

void ColumnArray::release(int row)
{
    if (row % ColumnValues::BlockRows == 0)
        m_values.releaseBefore(row);
}
