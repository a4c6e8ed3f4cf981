#include "column_values.h"

#include <QByteArray>

#include <algorithm>
#include <cstring>

namespace
{

/// Whether a null of this type holds nothing but its type, so that the type alone brings it back.
/// A null of any other type is kept as it is.
bool isBareNull(const QVariant &value, int type)
{
    switch (type) {
    case QMetaType::UnknownType:
    case QMetaType::QString:
    case QMetaType::QByteArray:
        return true;
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return value.toULongLong() == 0;
    case QMetaType::Double:
    case QMetaType::Float:
        return value.toDouble() == 0.0;
    default:
        return false;
    }
}

template <typename T>
const T &valueIn(const QVariant &value)
{
    return *static_cast<const T *>(value.constData());
}

QString emptyText()
{
    return QString(QLatin1String(""));
}

/// The next block will hold about as much as the one before it, and a little more.
size_t roomAfter(size_t used)
{
    return used * 17 / 16;
}

} // namespace

ColumnValues::ColumnValues(const QVariantList &values)
{
    append(values);
}

ColumnValues::ColumnValues(std::initializer_list<QVariant> values)
{
    for (const QVariant &value : values)
        append(value);
}

/// Most copies are of new columns, which are empty.
ColumnValues::ColumnValues(const ColumnValues &other)
{
    if (!other.isEmpty())
        *this = other;
}

ColumnValues &ColumnValues::operator=(ColumnValues &&other) noexcept
{
    ColumnValues moved(std::move(other));
    swap(moved);
    return *this;
}

void ColumnValues::swap(ColumnValues &other) noexcept
{
    std::swap(m_storage, other.m_storage);
    std::swap(m_size, other.m_size);
    std::swap(m_nullType, other.m_nullType);
    std::swap(m_releasedBlocks, other.m_releasedBlocks);
    std::swap(m_firstCells, other.m_firstCells);
    std::swap(m_firstUnits, other.m_firstUnits);
    m_ints.swap(other.m_ints);
    m_longLongs.swap(other.m_longLongs);
    m_doubles.swap(other.m_doubles);
    m_texts.swap(other.m_texts);
    m_variants.swap(other.m_variants);
    m_nullBits.swap(other.m_nullBits);
}

QVariant ColumnValues::at(int row) const
{
    Q_ASSERT(row >= 0 && row < m_size);
    if (blockOf(row) < m_releasedBlocks)
        return QVariant();
    if (m_storage == Storage::Mixed)
        return variantAt(row);
    if (isNullAt(row))
        return nullCell();
    switch (m_storage) {
    case Storage::Int:
        return intAt(row);
    case Storage::LongLong:
        return longLongAt(row);
    case Storage::ULongLong:
        return uLongLongAt(row);
    case Storage::Double:
        return doubleAt(row);
    case Storage::Text: {
        const QStringView text = textAt(row);
        return text.isEmpty() ? emptyText() : text.toString();
    }
    case Storage::Empty:
    case Storage::Mixed:
        break;
    }
    return QVariant();
}

QString ColumnValues::textViewAt(int row) const
{
    const QStringView text = textAt(row);
    // A raw string over no memory at all would be null, not empty.
    return text.isEmpty() ? emptyText() : QString::fromRawData(text.data(), int(text.size()));
}

void ColumnValues::textViewAt(int row, QString &view) const
{
    const QStringView text = textAt(row);
    if (text.isEmpty())
        view = emptyText();
    else
        view.setRawData(text.data(), int(text.size()));
}

void ColumnValues::append(const QVariant &value)
{
    if (appendUniform(value) != NotTaken)
        return;
    becomeMixed();
    push(m_variants, QVariant(value));
}

void ColumnValues::append(QVariant &&value)
{
    appendCell(std::move(value));
}

int ColumnValues::appendCell(QVariant &&value)
{
    const int taken = appendUniform(value);
    if (taken != NotTaken)
        return taken;
    becomeMixed();
    const int type = value.userType();
    const bool null = type == QMetaType::UnknownType || value.isNull();
    push(m_variants, std::move(value));
    return null ? 0 : type;
}

void ColumnValues::append(const QVariantList &values)
{
    for (const QVariant &value : values)
        append(value);
}

ColumnValues &ColumnValues::operator<<(const QVariant &value)
{
    append(value);
    return *this;
}

void ColumnValues::clear()
{
    *this = ColumnValues();
}

QVariantList ColumnValues::toList() const
{
    QVariantList list;
    list.reserve(m_size);
    for (int row = 0; row < m_size; ++row)
        list.append(at(row));
    return list;
}

bool ColumnValues::operator==(const ColumnValues &other) const
{
    return m_size == other.m_size && std::equal(begin(), end(), other.begin());
}

void ColumnValues::releaseBefore(int row)
{
    const int blocks = blockOf(qBound(0, row, m_size));
    for (; m_releasedBlocks < blocks; ++m_releasedBlocks)
        releaseBlock(m_releasedBlocks);
}

ColumnValues ColumnValues::takeAll()
{
    ColumnValues taken(std::move(*this));
    m_firstCells = std::clamp(taken.m_size, FirstCapacity, BlockRows);
    if (!taken.m_texts.empty())
        m_firstUnits = roomAfter(taken.m_texts.back().used);
    return taken;
}

size_t ColumnValues::textUnits() const
{
    size_t units = 0;
    for (const TextBlock &block : m_texts)
        units += block.used;
    return units;
}

/// Whether a value of one of the plainly stored numbers is null, asked without a call into Qt.
bool ColumnValues::isNull(const QVariant &value, int type)
{
    switch (type) {
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return value.data_ptr().is_null;
    default:
        return value.isNull();
    }
}

/// Takes the cell into the column's plain storage.
/// @return its type id, 0 for a null; NotTaken when it does not fit there.
int ColumnValues::appendUniform(const QVariant &value)
{
    if (m_storage == Storage::Mixed)
        return NotTaken;
    const int type = value.userType();
    // The text alone says whether a text is null, which is quicker to ask.
    if (type == QMetaType::QString) {
        const QString &text = valueIn<QString>(value);
        if (text.isNull())
            return appendNull(value, type) ? 0 : NotTaken;
        return appendText(text) ? type : NotTaken;
    }
    if (isNull(value, type))
        return appendNull(value, type) ? 0 : NotTaken;
    bool taken = false;
    switch (type) {
    case QMetaType::Int:
        taken = appendNumber(m_ints, Storage::Int, valueIn<int>(value));
        break;
    case QMetaType::LongLong:
        taken = appendNumber(m_longLongs, Storage::LongLong, valueIn<qint64>(value));
        break;
    case QMetaType::ULongLong:
        taken = appendNumber(m_longLongs, Storage::ULongLong, qint64(valueIn<quint64>(value)));
        break;
    case QMetaType::Double:
        taken = appendNumber(m_doubles, Storage::Double, valueIn<double>(value));
        break;
    default:
        break;
    }
    return taken ? type : NotTaken;
}

bool ColumnValues::appendNull(const QVariant &value, int type)
{
    if ((m_nullType != NoNulls && m_nullType != type) || !isBareNull(value, type))
        return false;
    m_nullType = type;
    markNull(m_size);
    pushDefault();
    return true;
}

bool ColumnValues::appendText(const QString &text)
{
    if (m_storage != Storage::Text && !startUniform(Storage::Text))
        return false;
    return pushText(text.constData(), text.size());
}

template <typename T>
bool ColumnValues::appendNumber(Blocks<T> &blocks, Storage storage, T value)
{
    if (m_storage != storage && !startUniform(storage))
        return false;
    push(blocks, std::move(value));
    return true;
}

template <typename T>
void ColumnValues::push(Blocks<T> &blocks, T &&value)
{
    if (withinBlock(m_size) == 0) {
        blocks.emplace_back();
        blocks.back().reserve(size_t(m_size == 0 ? m_firstCells : BlockRows));
    }
    blocks.back().push_back(std::forward<T>(value));
    ++m_size;
}

/// False: the block would become too large, and nothing was taken.
bool ColumnValues::pushText(const QChar *units, int length)
{
    if (withinBlock(m_size) == 0) {
        TextBlock block;
        block.ends.reserve(size_t(m_size == 0 ? m_firstCells : BlockRows));
        block.units.resize(m_size == 0 ? m_firstUnits : roomAfter(m_texts.back().used));
        m_texts.push_back(std::move(block));
    }
    TextBlock &block = m_texts.back();
    const size_t needed = size_t(block.used) + size_t(length);
    if (needed > size_t(MaxBlockUnits))
        return false;
    if (needed > block.units.size())
        block.units.resize(std::max({needed, block.units.size() * 3 / 2, size_t(FirstUnits)}));
    if (length > 0)
        memcpy(static_cast<void *>(block.units.data() + block.used), units,
               size_t(length) * sizeof(QChar));
    block.used = quint32(needed);
    block.ends.push_back(block.used);
    ++m_size;
    return true;
}

/// The place of a null cell, so that rows and cells keep step.
void ColumnValues::pushDefault()
{
    switch (m_storage) {
    case Storage::Int:
        return push(m_ints, 0);
    case Storage::LongLong:
    case Storage::ULongLong:
        return push(m_longLongs, qint64(0));
    case Storage::Double:
        return push(m_doubles, 0.0);
    case Storage::Text:
        pushText(nullptr, 0);
        return;
    case Storage::Empty:
    case Storage::Mixed:
        ++m_size;
    }
}

/// The first value that is not null decides on the storage; the nulls before it get their places.
bool ColumnValues::startUniform(Storage storage)
{
    if (m_storage != Storage::Empty)
        return false;
    m_storage = storage;
    const int nulls = std::exchange(m_size, 0);
    while (m_size < nulls)
        pushDefault();
    return true;
}

void ColumnValues::markNull(int row)
{
    const size_t word = size_t(row) / 64;
    if (word >= m_nullBits.size())
        m_nullBits.resize(word + 1);
    m_nullBits[word] |= quint64(1) << (size_t(row) % 64);
}

QVariant ColumnValues::nullCell() const
{
    // This constructor alone makes a null of a type.
    return m_nullType == QMetaType::UnknownType ? QVariant() : QVariant(QVariant::Type(m_nullType));
}

/// Turns the cells into variants block by block, so that a block's memory goes when its variants
/// are made.
void ColumnValues::becomeMixed()
{
    if (m_storage == Storage::Mixed)
        return;
    Blocks<QVariant> blocks;
    const int count = (m_size + BlockRows - 1) / BlockRows;
    blocks.resize(size_t(count));
    for (int block = m_releasedBlocks; block < count; ++block) {
        const int first = block * BlockRows;
        const int end = std::min(first + BlockRows, m_size);
        blocks[size_t(block)].reserve(size_t(end - first) + 1);
        for (int row = first; row < end; ++row)
            blocks[size_t(block)].push_back(at(row));
        releaseBlock(block);
    }
    m_storage = Storage::Mixed;
    m_variants.swap(blocks);
    m_ints.clear();
    m_longLongs.clear();
    m_doubles.clear();
    m_texts.clear();
    m_nullBits.clear();
    m_nullType = NoNulls;
}

void ColumnValues::releaseBlock(int block)
{
    const size_t index = size_t(block);
    switch (m_storage) {
    case Storage::Int:
        Block<int>().swap(m_ints[index]);
        break;
    case Storage::LongLong:
    case Storage::ULongLong:
        Block<qint64>().swap(m_longLongs[index]);
        break;
    case Storage::Double:
        Block<double>().swap(m_doubles[index]);
        break;
    case Storage::Text:
        m_texts[index] = TextBlock();
        break;
    case Storage::Mixed:
        Block<QVariant>().swap(m_variants[index]);
        break;
    case Storage::Empty:
        break;
    }
}
