#include "result_table.h"

#include "result_reader.h"
#include "script_reading.h"
#include "table_printer.h"

namespace
{

QString counted(int count, const QString &what)
{
    return QStringLiteral("(%1 %2%3)\n").arg(count).arg(what, QLatin1String(count == 1 ? "" : "s"));
}

} // namespace

bool ResultTable::isResult(const QScriptValue &value)
{
    return ResultReader::isResult(value);
}

QString ResultTable::print(const QScriptValue &result)
{
    const ExceptionGuard guard(result.engine());
    const ResultReader reader(result, ResultReader::Style::Script);
    if (reader.columnCount() == 0)
        return counted(reader.affectedRows(), QStringLiteral("affected row"));
    QVector<TableColumn> columns;
    for (int i = 0; i < reader.columnCount(); ++i)
        columns.append(reader.tableColumn(i, maxRows));
    const int rows = reader.rowCount();
    const QString text = TablePrinter::print(columns);
    if (rows > maxRows)
        return text + QStringLiteral("(the first %1 of %2 rows)\n").arg(maxRows).arg(rows);
    return text + counted(rows, QStringLiteral("row"));
}
