#include "result_printer.h"

#include "result_reader.h"
#include "row_writer.h"
#include "script_reading.h"
#include "table_printer.h"

#include <QScopedPointer>

namespace
{

const int PieceSize = 65536; ///< characters that are collected before the sink gets them

struct FormatName {
    ResultFormat format;
    const char *name;
};

const FormatName Names[] = {
    {ResultFormat::Table, "table"}, {ResultFormat::Expanded, "expanded"},
    {ResultFormat::Csv, "csv"},     {ResultFormat::Json, "json"},
    {ResultFormat::List, "list"},   {ResultFormat::JsonLines, "json-lines"},
};

QString counted(int count, const QString &what)
{
    return QStringLiteral("%1 %2%3").arg(count).arg(what, QLatin1String(count == 1 ? "" : "s"));
}

bool isForPrograms(ResultFormat format)
{
    return format != ResultFormat::Table && format != ResultFormat::Expanded;
}

} // namespace

bool ResultPrinter::print(const QScriptValue &result, const Sink &sink) const
{
    const ExceptionGuard guard(result.engine());
    const ResultReader reader(result, isForPrograms(m_format) ? ResultReader::Style::Exchange
                                                              : ResultReader::Style::Reader);
    if (isForPrograms(m_format))
        return reader.columnCount() == 0 || printRows(reader, m_format, sink);
    if (reader.columnCount() == 0)
        return sink(countLine(reader));
    if (m_format == ResultFormat::Table)
        return printTable(reader, sink);
    return printRows(reader, ResultFormat::Expanded, sink) && sink(countLine(reader));
}

bool ResultPrinter::printTable(const ResultReader &reader, const Sink &sink) const
{
    QVector<TableColumn> columns;
    for (int i = 0; i < reader.columnCount(); ++i)
        columns.append(reader.tableColumn(i, maxRows));
    const TablePrinter table(columns);
    if (m_screenWidth > 0 && table.width() > m_screenWidth && reader.rowCount() > 0)
        return printRows(reader, ResultFormat::Expanded, sink) && sink(countLine(reader));
    return sink(table.text()) && sink(countLine(reader));
}

bool ResultPrinter::printRows(const ResultReader &reader, ResultFormat format,
                              const Sink &sink) const
{
    const QScopedPointer<RowWriter> writer(RowWriter::make(format, &reader));
    const int rows = isForPrograms(format) ? reader.rowCount() : qMin(reader.rowCount(), maxRows);
    QString text = writer->head();
    for (int row = 0; row < rows; ++row) {
        writer->addRow(row, &text);
        if (text.size() < PieceSize)
            continue;
        if (!sink(text))
            return false;
        text.clear();
    }
    return sink(text + writer->tail());
}

QString ResultPrinter::countLine(const ResultReader &reader) const
{
    const int rows = reader.rowCount();
    QString text;
    if (reader.columnCount() == 0)
        text = counted(reader.affectedRows(), QStringLiteral("affected row"));
    else if (rows > maxRows)
        text = QStringLiteral("the first %1 of %2 rows").arg(maxRows).arg(rows);
    else
        text = counted(rows, QStringLiteral("row"));
    if (!m_note.isEmpty())
        text += QStringLiteral(", ") + m_note;
    return QLatin1Char('(') + text + QLatin1String(")\n");
}

bool ResultPrinter::formatOfName(const QString &name, ResultFormat *format)
{
    for (const FormatName &entry : Names) {
        if (name == QLatin1String(entry.name)) {
            *format = entry.format;
            return true;
        }
    }
    return false;
}

QString ResultPrinter::nameOfFormat(ResultFormat format)
{
    for (const FormatName &entry : Names) {
        if (entry.format == format)
            return QLatin1String(entry.name);
    }
    return QString();
}

QStringList ResultPrinter::formatNames()
{
    QStringList names;
    for (const FormatName &entry : Names)
        names.append(QLatin1String(entry.name));
    return names;
}
