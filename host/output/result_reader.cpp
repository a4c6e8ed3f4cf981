#include "result_reader.h"

#include "script_reading.h"
#include "value_text.h"

#include <QDateTime>

#include <algorithm>

using ScriptReading::arrayLength;
using ScriptReading::plainProperty;

namespace
{

const int ResultMarker = 1106;
const int MaxColumns = 100000; ///< an array may claim any length

bool hasMarker(const QScriptValue &value)
{
    const QScriptValue marker = plainProperty(value, QStringLiteral("$ res sql"));
    return marker.isNumber() && marker.toInt32() == ResultMarker;
}

bool hasColumns(const QScriptValue &value)
{
    return plainProperty(value, QStringLiteral("fields_names")).isArray() &&
           plainProperty(value, QStringLiteral("fields_index")).isArray();
}

bool isTableList(const QScriptValue &value)
{
    return plainProperty(value, QStringLiteral("TABLES")).isArray() &&
           plainProperty(value, QStringLiteral("fields")).isNumber();
}

QScriptValue element(const QScriptValue &array, int index)
{
    return plainProperty(array, QString::number(index));
}

bool isNothing(const QScriptValue &value)
{
    return value.isNull() || value.isUndefined() || !value.isValid();
}

QString timeText(const QTime &time)
{
    return time.toString(time.msec() == 0 ? Qt::ISODate : Qt::ISODateWithMs);
}

} // namespace

bool ResultReader::isResult(const QScriptValue &value)
{
    return value.isObject() && (hasMarker(value) || hasColumns(value) || isTableList(value));
}

ResultReader::ResultReader(const QScriptValue &result, Style style)
    : m_style(style)
{
    const ExceptionGuard guard(result.engine());
    if (hasMarker(result) || hasColumns(result))
        readColumns(result);
    else
        readTableList(result);
    for (const Column &column : qAsConst(m_columns))
        m_rows = std::max(m_rows, column.length);
    m_affectedRows = plainProperty(result, QStringLiteral("numRowsAffected")).toInt32();
}

void ResultReader::readTableList(const QScriptValue &result)
{
    Column column;
    column.name = QStringLiteral("TABLES");
    column.values = plainProperty(result, column.name);
    column.length = arrayLength(column.values);
    m_columns.append(column);
}

void ResultReader::readColumns(const QScriptValue &result)
{
    const QScriptValue names = plainProperty(result, QStringLiteral("fields_names"));
    const QScriptValue values = plainProperty(result, QStringLiteral("fields_index"));
    const QScriptValue nulls = plainProperty(result, QStringLiteral("fields_nulls"));
    const QScriptValue types = plainProperty(result, QStringLiteral("fields_types"));
    const int count = std::min(arrayLength(values), MaxColumns);
    for (int i = 0; i < count; ++i) {
        Column column;
        column.name = ValueText::plain(element(names, i));
        column.type = element(types, i).toInt32();
        column.values = element(values, i);
        column.length = arrayLength(column.values);
        column.nulls = hiddenNulls(column, element(nulls, i));
        m_columns.append(column);
    }
}

/// With NULL handling off a NULL reads as 0 or as an empty text; its row number tells it apart.
QSet<int> ResultReader::hiddenNulls(const Column &column, const QScriptValue &rows)
{
    QSet<int> hidden;
    const int count = std::min(arrayLength(rows), column.length);
    for (int i = 0; i < count; ++i) {
        const int row = element(rows, i).toInt32();
        if (row >= 0 && row < column.length && !isNothing(element(column.values, row)))
            hidden.insert(row);
    }
    return hidden;
}

bool ResultReader::isNull(int column, int row) const
{
    return m_columns.at(column).nulls.contains(row) || isNothing(value(column, row));
}

QScriptValue ResultReader::value(int column, int row) const
{
    return element(m_columns.at(column).values, row);
}

QString ResultReader::text(int column, int row) const
{
    const QScriptValue cell = value(column, row);
    if (isNothing(cell) || m_columns.at(column).nulls.contains(row))
        return QString();
    if (m_style != Style::Script && cell.isDate())
        return dateText(cell.toDateTime(), m_columns.at(column).type);
    return ValueText::plain(cell);
}

QString ResultReader::dateText(const QDateTime &value, int type) const
{
    if (!value.isValid())
        return QStringLiteral("Invalid Date");
    const QString date = value.date().toString(Qt::ISODate);
    if (type == QMetaType::QDate)
        return date;
    const QChar separator = QLatin1Char(m_style == Style::Exchange ? 'T' : ' ');
    return date + separator + timeText(value.time());
}

TableColumn ResultReader::tableColumn(int column, int maxRows) const
{
    TableColumn table;
    table.heading = columnName(column);
    const int rows = std::min(m_columns.at(column).length, maxRows);
    table.cells.reserve(rows);
    bool hasNumbers = false;
    bool hasOthers = false;
    for (int row = 0; row < rows; ++row) {
        TableCell cell;
        cell.isNull = isNull(column, row);
        if (!cell.isNull)
            cell.text = text(column, row);
        const bool isNumber = value(column, row).isNumber();
        hasNumbers = hasNumbers || isNumber;
        hasOthers = hasOthers || !(isNumber || cell.isNull);
        table.cells.append(cell);
    }
    table.alignRight = hasNumbers && !hasOthers;
    return table;
}
