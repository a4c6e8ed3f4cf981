/// @file
/// The values of one result column, stored plainly while they are of one kind.
#pragma once

#include <QList>
#include <QString>
#include <QVariant>
#include <QVector>

#include <iterator>
#include <vector>

/// A column's cells. For whoever reads it, a list of QVariant: size, at, iteration, append, made
/// from a list. Inside, numbers and texts of a uniform column are kept as such in blocks of rows,
/// at a few bytes a cell; the first value that does not fit turns the column into plain variants.
/// Every cell comes back as it was put in: type id, null state and value.
///
/// A plain value type without locks; it holds no script value and may be freed in any thread.
class ColumnValues
{
public:
    /// How the cells are stored. Empty also covers a column of nulls of one type alone.
    enum class Storage { Empty, Int, LongLong, Double, Text, Mixed };

    /// Rows in one block; blocks are released one by one while a column is converted.
    static constexpr int BlockRows = 4096;

    class const_iterator
    {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = QVariant;
        using difference_type = int;
        using pointer = const QVariant *;
        using reference = QVariant;

        const_iterator(const ColumnValues *column, int row) : m_column(column), m_row(row) {}
        QVariant operator*() const { return m_column->at(m_row); }
        const_iterator &operator++()
        {
            ++m_row;
            return *this;
        }
        bool operator==(const const_iterator &other) const { return m_row == other.m_row; }
        bool operator!=(const const_iterator &other) const { return m_row != other.m_row; }

    private:
        const ColumnValues *m_column;
        int m_row;
    };

    ColumnValues() = default;
    ColumnValues(const QVariantList &values); // NOLINT: stands in for the list
    ColumnValues(std::initializer_list<QVariant> values);

    int size() const { return m_size; }
    int count() const { return m_size; }
    int length() const { return m_size; }
    bool isEmpty() const { return m_size == 0; }

    /// The cell of a row. @pre 0 <= row < size(), or the row was not released yet.
    QVariant at(int row) const;
    QVariant operator[](int row) const { return at(row); }
    /// The cell of a row, an invalid variant outside the column.
    QVariant value(int row) const;
    QVariant first() const { return at(0); }
    QVariant last() const { return at(m_size - 1); }

    void append(const QVariant &value);
    ColumnValues &operator<<(const QVariant &value);
    void clear();

    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, m_size); }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }

    QVariantList toList() const;
    bool operator==(const ColumnValues &other) const;
    bool operator!=(const ColumnValues &other) const { return !(*this == other); }

    Storage storage() const { return m_storage; }
    /// Type id of the nulls of a column that is not Mixed; 0 when it has none or they are untyped.
    int nullType() const { return m_nullType; }
    bool isNullAt(int row) const;

    /// Direct access for conversion; only for the storage named, only where the cell is not null.
    int intAt(int row) const;
    qint64 longLongAt(int row) const;
    double doubleAt(int row) const;
    /// A view of the text without a copy; valid while the column and its block are.
    QString textViewAt(int row) const;

    /// Gives the memory of every whole block before `row` back. Cells before it are not read again.
    void releaseBefore(int row);

private:
    // The implementation's own: blocks of numbers or packed UTF-16, null marks, mixed variants.
    Storage m_storage = Storage::Empty;
    int m_size = 0;
    int m_nullType = -1;
};
