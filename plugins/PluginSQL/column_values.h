/// @file
/// The values of one result column, stored plainly while they are of one kind.
#pragma once

#include "page_allocator.h"

#include <QString>
#include <QStringView>
#include <QVariant>
#include <QVariantList>

#include <initializer_list>
#include <iterator>
#include <utility>
#include <vector>

/// A column's cells. For whoever reads it, a list of QVariant: size, at, iteration, append,
/// comparison, made from and turned into a list. Inside, numbers and texts of a uniform column are
/// kept as such in blocks of rows, at a few bytes a cell; the first value that does not fit turns
/// the column into plain variants.
/// Every cell comes back as it was put in: type id, null state and value.
///
/// A copy is a full one: move or swap where the original is not needed any more. An object that was
/// moved from is empty.
///
/// A plain value type without locks; it holds no script value and may be freed in any thread.
class ColumnValues
{
public:
    /// How the cells are stored. Empty also covers a column of nulls of one type alone.
    enum class Storage { Empty, Int, LongLong, ULongLong, Double, Text, Mixed };

    /// Rows in one block; blocks are released one by one while a column is converted.
    static constexpr int BlockRows = 4096;
    /// UTF-16 units in one block of texts. Longer ones are better shared with whoever made them
    /// than copied together, so the column becomes Mixed.
    static constexpr int MaxBlockUnits = 1 << 24;

    class const_iterator
    {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = QVariant;
        using difference_type = int;
        using pointer = const QVariant *;
        using reference = QVariant;

        const_iterator(const ColumnValues *column, int row)
            : m_column(column)
            , m_row(row)
        {
        }
        QVariant operator*() const { return m_column->at(m_row); }
        const_iterator &operator++()
        {
            ++m_row;
            return *this;
        }
        const_iterator operator++(int) { return const_iterator(m_column, m_row++); }
        bool operator==(const const_iterator &other) const { return m_row == other.m_row; }
        bool operator!=(const const_iterator &other) const { return m_row != other.m_row; }

    private:
        const ColumnValues *m_column;
        int m_row;
    };

    ColumnValues() = default;
    ColumnValues(const QVariantList &values); // NOLINT: stands in for the list
    ColumnValues(std::initializer_list<QVariant> values);
    ColumnValues(const ColumnValues &other);
    ColumnValues(ColumnValues &&other) noexcept { swap(other); }
    ColumnValues &operator=(const ColumnValues &other) = default;
    ColumnValues &operator=(ColumnValues &&other) noexcept;
    ~ColumnValues() = default;

    void swap(ColumnValues &other) noexcept;

    int size() const { return m_size; }
    bool isEmpty() const { return m_size == 0; }

    /// The cell of a row. A row whose block was released reads as an invalid variant.
    /// @pre 0 <= row < size()
    QVariant at(int row) const;
    const QVariant operator[](int row) const { return at(row); } // NOLINT: not to be assigned to

    void append(const QVariant &value);
    void append(QVariant &&value);
    /// Appends a cell and tells of it what its column wants to know: its type id, 0 for a null.
    int appendCell(QVariant &&value);
    void append(const QVariantList &values);
    ColumnValues &operator<<(const QVariant &value);
    void clear();

    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, m_size); }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }

    QVariantList toList() const;
    operator QVariantList() const { return toList(); } // NOLINT: stands in for the list
    bool operator==(const ColumnValues &other) const;
    bool operator!=(const ColumnValues &other) const { return !(*this == other); }

    Storage storage() const { return m_storage; }
    /// Type id of the nulls of a column that is not Mixed; 0 when it has none or they are untyped.
    int nullType() const { return m_nullType == NoNulls ? 0 : m_nullType; }
    /// Whether a column that is not Mixed has a null at all.
    bool hasNulls() const { return m_nullType != NoNulls; }
    bool isNullAt(int row) const;

    // Direct access for conversion: only for the storage named, only where the cell is not null and
    // its block is still there.
    int intAt(int row) const { return cell(m_ints, row); }
    qint64 longLongAt(int row) const { return cell(m_longLongs, row); }
    quint64 uLongLongAt(int row) const { return quint64(cell(m_longLongs, row)); }
    double doubleAt(int row) const { return cell(m_doubles, row); }
    /// The text where it lies; valid while the column is not changed and its block is there.
    QStringView textAt(int row) const;
    /// The same as a QString that shares the memory: valid as long, not terminated by a NUL.
    QString textViewAt(int row) const;
    /// The same into a string that is used again for many rows, which saves an allocation a row.
    void textViewAt(int row, QString &view) const;
    /// Direct access to a Mixed column, nulls included.
    const QVariant &variantAt(int row) const { return cell(m_variants, row); }

    /// Gives the memory of every whole block before `row` back. Cells before it are not read again.
    void releaseBefore(int row);

    /// Moves all cells out. The object is empty then, with room for as many of the same kind.
    ColumnValues takeAll();
    /// UTF-16 units that the plainly stored texts take.
    size_t textUnits() const;

private:
    /// A UTF-16 unit that is not initialised by the vector that holds it.
    struct RawUnit {
        RawUnit() {} // NOLINT: leaves the unit as it is
        ushort unit;
    };

    template <typename T>
    using Block = std::vector<T, PageAllocator<T>>;
    template <typename T>
    using Blocks = std::vector<Block<T>>;
    /// The texts of a block one behind the other, and where each of them ends.
    struct TextBlock {
        /// Room for the texts; the vector's size is the capacity, so that nothing is filled twice.
        Block<RawUnit> units;
        quint32 used = 0;
        Block<quint32> ends;
    };

    static constexpr int NoNulls = -1;
    static constexpr int NotTaken = -1;
    static constexpr int FirstUnits = 128;
    static constexpr int FirstCapacity = 16; ///< cells that a small result gets room for at once

    static int blockOf(int row) { return row / BlockRows; }
    static int withinBlock(int row) { return row % BlockRows; }
    template <typename T>
    static const T &cell(const Blocks<T> &blocks, int row)
    {
        return blocks[size_t(row) / BlockRows][size_t(row) % BlockRows];
    }

    int appendUniform(const QVariant &value);
    bool appendNull(const QVariant &value, int type);
    static bool isNull(const QVariant &value, int type);
    bool appendText(const QString &text);
    template <typename T>
    bool appendNumber(Blocks<T> &blocks, Storage storage, T value);
    template <typename T>
    void push(Blocks<T> &blocks, T &&value);
    bool pushText(const QChar *units, int length);
    void pushDefault();
    bool startUniform(Storage storage);
    void markNull(int row);
    QVariant nullCell() const;
    void becomeMixed();
    void releaseBlock(int block);

    Storage m_storage = Storage::Empty;
    int m_size = 0;
    int m_nullType = NoNulls;
    int m_releasedBlocks = 0;
    int m_firstCells = FirstCapacity; ///< room that the first block begins with
    size_t m_firstUnits = 0;          ///< the same for the units of texts; 0: as they come
    // One of these is in use, as m_storage says. Every block but the last has BlockRows cells, null
    // cells hold a zero or an empty text, released blocks are empty.
    Blocks<int> m_ints;
    Blocks<qint64> m_longLongs; ///< of either sign
    Blocks<double> m_doubles;
    std::vector<TextBlock> m_texts;
    Blocks<QVariant> m_variants;
    std::vector<quint64> m_nullBits; ///< bit per row up to the last null; unused once Mixed
};

inline QStringView ColumnValues::textAt(int row) const
{
    const TextBlock &block = m_texts[size_t(row) / BlockRows];
    const size_t within = size_t(row) % BlockRows;
    const quint32 start = within == 0 ? 0 : block.ends[within - 1];
    return QStringView(reinterpret_cast<const QChar *>(block.units.data()) + start,
                       int(block.ends[within] - start));
}

inline bool ColumnValues::isNullAt(int row) const
{
    if (m_storage == Storage::Mixed)
        return blockOf(row) >= m_releasedBlocks && variantAt(row).isNull();
    const size_t word = size_t(row) / 64;
    return word < m_nullBits.size() && (m_nullBits[word] >> (size_t(row) % 64) & 1);
}

inline void swap(ColumnValues &a, ColumnValues &b) noexcept
{
    a.swap(b);
}
