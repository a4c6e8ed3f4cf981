#include "short_columns.h"

#include <algorithm>

namespace
{

/// The list that an element of a list of lists holds.
QVariantList &listIn(QVariant &element)
{
    return *static_cast<QVariantList *>(element.data());
}

constexpr int MostRows = 8;
constexpr int MostColumns = 64;

bool isPlain(int type)
{
    return type == QMetaType::Int || type == QMetaType::LongLong || type == QMetaType::ULongLong ||
           type == QMetaType::Double || type == QMetaType::QString;
}

bool fits(const ColumnValues &values, bool enableNull)
{
    if (values.storage() == ColumnValues::Storage::Mixed || values.size() > MostRows)
        return false;
    return enableNull || !values.hasNulls() || isPlain(values.nullType());
}

/// The engine shows a null pointer as null.
QVariant scriptNull()
{
    return QVariant(QMetaType::VoidStar, nullptr);
}

/// What a null reads as.
QVariant nullCell(const ColumnValues &values, bool enableNull)
{
    return enableNull ? scriptNull() : QVariant(QVariant::Type(values.nullType()));
}

/// A text that is null would not be an empty one to the engine.
QVariant shownText(const QString &text)
{
    return text.isNull() ? QString(QLatin1String("")) : text;
}

void takeCell(QVariant &cell, const ColumnValues &values, int row)
{
    switch (values.storage()) {
    case ColumnValues::Storage::Int:
        cell = values.intAt(row);
        break;
    case ColumnValues::Storage::LongLong:
        cell = double(values.longLongAt(row));
        break;
    case ColumnValues::Storage::ULongLong:
        cell = double(values.uLongLongAt(row));
        break;
    case ColumnValues::Storage::Double:
        cell = values.doubleAt(row);
        break;
    case ColumnValues::Storage::Text:
        cell = values.textAt(row).toString();
        break;
    case ColumnValues::Storage::Empty:
    case ColumnValues::Storage::Mixed:
        break; // only nulls, or not short
    }
}

void takeColumn(QVariantList &cells, const ColumnValues &values, bool enableNull)
{
    const int rows = values.size();
    while (cells.size() > rows)
        cells.removeLast();
    while (cells.size() < rows)
        cells.append(QVariant());
    for (int row = 0; row < rows; ++row) {
        if (values.isNullAt(row) || values.storage() == ColumnValues::Storage::Empty)
            cells[row] = nullCell(values, enableNull);
        else
            takeCell(cells[row], values, row);
    }
}

void setSize(QVariantList &list, int size, const QVariant &filling)
{
    while (list.size() > size)
        list.removeLast();
    while (list.size() < size)
        list.append(filling);
}

/// Lists of lists.
void setSize(QVariantList &lists, int size)
{
    setSize(lists, size, QVariantList());
}

} // namespace

bool ShortColumns::fit(const structSqlResult &record, bool enableNull)
{
    return !record.fields.isEmpty() && record.fields.size() <= MostColumns &&
           std::all_of(record.fields.cbegin(), record.fields.cend(),
                       [enableNull](const auto &field) { return fits(field.values, enableNull); });
}

QScriptValue ShortColumns::values(QScriptEngine *engine, const structSqlResult &record,
                                  bool enableNull)
{
    const int columns = record.fields.size();
    setSize(m_columns, columns);
    for (int c = 0; c < columns; ++c)
        takeColumn(listIn(m_columns[c]), record.fields.at(c).values, enableNull);
    const QScriptValue result = engine->toScriptValue(m_columns);
    // A long text is not kept until the next result comes.
    for (int c = 0; c < columns; ++c) {
        if (record.fields.at(c).values.storage() != ColumnValues::Storage::Text)
            continue;
        for (QVariant &cell : listIn(m_columns[c]))
            cell = 0;
    }
    return result;
}

QScriptValue ShortColumns::nulls(QScriptEngine *engine, const structSqlResult &record)
{
    if (std::all_of(record.fields.cbegin(), record.fields.cend(),
                    [](const auto &field) { return field.nulls.isEmpty(); }))
        return QScriptValue();
    QVariantList lists;
    for (const structSqlFieldResult &field : record.fields) {
        QVariantList rows;
        for (const uint row : field.nulls)
            rows.append(row);
        lists.append(QVariant(rows));
    }
    return engine->toScriptValue(lists);
}

QScriptValue ShortColumns::noNulls(QScriptEngine *engine, int columns)
{
    setSize(m_noNulls, columns);
    return engine->toScriptValue(m_noNulls);
}

bool ShortColumns::fitRow(const structSqlResult &record, bool enableNull)
{
    if (record.onlyRow.empty() ? !record.fields.isEmpty()
                               : int(record.onlyRow.size()) > MostRowColumns)
        return false;
    if (record.hasLastInsertId && record.lastInsertId.isValid() &&
        !isPlain(record.lastInsertId.userType()))
        return false;
    return std::all_of(record.onlyRow.cbegin(), record.onlyRow.cend(),
                       [enableNull](const QVariant &cell) {
                           return isPlain(cell.userType()) || (enableNull && cell.isNull());
                       });
}

QScriptValue ShortColumns::row(QScriptEngine *engine, const structSqlResult &record,
                               bool enableNull)
{
    const int columns = int(record.onlyRow.size());
    setSize(m_row, columns + 4, QVariant());
    int nulls = 0;
    for (int c = 0; c < columns; ++c) {
        const QVariant &cell = record.onlyRow[size_t(c)];
        const bool isNull = cell.isNull();
        if (isNull)
            nulls |= 1 << c;
        m_row[c] = isNull && enableNull ? scriptNull() : cell;
    }
    m_row[columns] = record.numRowsAffected;
    m_row[columns + 1] = record.hasLastInsertId ? record.lastInsertId : scriptNull();
    m_row[columns + 2] = shownText(record.executedQuery);
    m_row[columns + 3] = nulls;
    const QScriptValue result = engine->toScriptValue(m_row);
    // A long text is not kept until the next result comes.
    for (QVariant &cell : m_row) {
        if (cell.userType() == QMetaType::QString)
            cell = 0;
    }
    return result;
}
