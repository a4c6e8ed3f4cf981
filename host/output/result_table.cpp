#include "result_table.h"

#include "script_reading.h"
#include "value_text.h"

#include <algorithm>

using ScriptReading::arrayLength;
using ScriptReading::plainProperty;

namespace
{

const int ResultMarker = 1106;

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

TableCell cellOf(const QScriptValue &value)
{
    TableCell cell;
    cell.isNull = value.isNull() || value.isUndefined() || !value.isValid();
    if (!cell.isNull)
        cell.text = ValueText::plain(value);
    return cell;
}

/// With NULL handling off a NULL reads as 0 or as an empty text; its row number tells it apart.
void markNulls(TableColumn *column, const QScriptValue &nullRows)
{
    const int count = std::min(arrayLength(nullRows), column->cells.size());
    for (int i = 0; i < count; ++i) {
        const int row = element(nullRows, i).toInt32();
        if (row >= 0 && row < column->cells.size())
            column->cells[row].isNull = true;
    }
}

TableColumn columnOf(const QString &heading, const QScriptValue &values)
{
    TableColumn column;
    column.heading = heading;
    const int rows = std::min(arrayLength(values), ResultTable::maxRows);
    column.cells.reserve(rows);
    bool hasNumbers = false;
    bool hasOthers = false;
    for (int row = 0; row < rows; ++row) {
        const QScriptValue value = element(values, row);
        column.cells.append(cellOf(value));
        hasNumbers = hasNumbers || value.isNumber();
        hasOthers = hasOthers || !(value.isNumber() || column.cells.last().isNull);
    }
    column.alignRight = hasNumbers && !hasOthers;
    return column;
}

QVector<TableColumn> columnsOf(const QScriptValue &result)
{
    QVector<TableColumn> columns;
    if (!hasMarker(result) && !hasColumns(result)) {
        const QString name = QStringLiteral("TABLES");
        columns.append(columnOf(name, plainProperty(result, name)));
        return columns;
    }
    const QScriptValue names = plainProperty(result, QStringLiteral("fields_names"));
    const QScriptValue values = plainProperty(result, QStringLiteral("fields_index"));
    const QScriptValue nulls = plainProperty(result, QStringLiteral("fields_nulls"));
    const int count = std::min(arrayLength(values), ResultTable::maxRows);
    for (int i = 0; i < count; ++i) {
        columns.append(columnOf(ValueText::plain(element(names, i)), element(values, i)));
        markNulls(&columns.last(), element(nulls, i));
    }
    return columns;
}

QString counted(int count, const QString &what)
{
    return QStringLiteral("(%1 %2%3)\n").arg(count).arg(what, QLatin1String(count == 1 ? "" : "s"));
}

} // namespace

bool ResultTable::isResult(const QScriptValue &value)
{
    return value.isObject() && (hasMarker(value) || hasColumns(value) || isTableList(value));
}

QString ResultTable::print(const QScriptValue &result)
{
    const ExceptionGuard guard(result.engine());
    const QVector<TableColumn> columns = columnsOf(result);
    if (columns.isEmpty()) {
        const QScriptValue affected = plainProperty(result, QStringLiteral("numRowsAffected"));
        return counted(affected.toInt32(), QStringLiteral("affected row"));
    }
    int rows = 0;
    for (const TableColumn &column : columns)
        rows = std::max(rows, column.cells.size());
    QString text = TablePrinter::print(columns);
    const QScriptValue all = plainProperty(result, QStringLiteral("rows"));
    const int total = all.isNumber() ? all.toInt32() : rows;
    if (rows == maxRows && total > rows)
        text += QStringLiteral("(the first %1 of %2 rows)\n").arg(rows).arg(total);
    else
        text += counted(rows, QStringLiteral("row"));
    return text;
}
