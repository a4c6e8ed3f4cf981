#include "row_writer.h"

#include "json_rows.h"
#include "result_reader.h"
#include "table_printer.h"

#include <QStringList>

#include <algorithm>

namespace
{

QString csvField(const QString &text)
{
    const auto isSpecial = [](QChar c) {
        return c == QLatin1Char(',') || c == QLatin1Char('"') || c == QLatin1Char('\n') ||
               c == QLatin1Char('\r');
    };
    if (!text.isEmpty() && std::none_of(text.begin(), text.end(), isSpecial))
        return text;
    QString quoted = text;
    quoted.replace(QLatin1Char('"'), QLatin1String("\"\""));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}

class CsvRows : public RowWriter
{
public:
    explicit CsvRows(const ResultReader *reader)
        : RowWriter(reader)
    {
    }

    QString head() override
    {
        QStringList names;
        for (int i = 0; i < m_reader->columnCount(); ++i)
            names.append(csvField(m_reader->columnName(i)));
        return names.join(QLatin1Char(',')) + QLatin1String("\r\n");
    }

    void addRow(int row, QString *text) override
    {
        for (int i = 0; i < m_reader->columnCount(); ++i) {
            if (i > 0)
                *text += QLatin1Char(',');
            if (!m_reader->isNull(i, row))
                *text += csvField(m_reader->text(i, row));
        }
        *text += QLatin1String("\r\n");
    }
};

class ListRows : public RowWriter
{
public:
    explicit ListRows(const ResultReader *reader)
        : RowWriter(reader)
    {
    }

    QString head() override
    {
        QStringList names;
        for (int i = 0; i < m_reader->columnCount(); ++i)
            names.append(TablePrinter::oneLine(m_reader->columnName(i)));
        return names.join(QLatin1Char('|')) + QLatin1Char('\n');
    }

    void addRow(int row, QString *text) override
    {
        for (int i = 0; i < m_reader->columnCount(); ++i) {
            if (i > 0)
                *text += QLatin1Char('|');
            *text += TablePrinter::oneLine(m_reader->text(i, row));
        }
        *text += QLatin1Char('\n');
    }
};

class ExpandedRows : public RowWriter
{
public:
    explicit ExpandedRows(const ResultReader *reader)
        : RowWriter(reader)
    {
        for (int i = 0; i < reader->columnCount(); ++i) {
            m_names.append(TablePrinter::oneLine(reader->columnName(i)));
            m_width = qMax(m_width, TablePrinter::width(m_names.last()));
        }
    }

    void addRow(int row, QString *text) override
    {
        *text += QStringLiteral("-[ row %1 ]-\n").arg(row + 1);
        for (int i = 0; i < m_reader->columnCount(); ++i) {
            const QString &name = m_names.at(i);
            *text += name + QString(m_width - TablePrinter::width(name), QLatin1Char(' ')) +
                     QLatin1String(" | ") + cell(i, row) + QLatin1Char('\n');
        }
    }

private:
    /// As in a table, but never cut: whoever looks at one row wants all of it.
    QString cell(int column, int row) const
    {
        if (m_reader->isNull(column, row))
            return QStringLiteral("NULL");
        const QString text = m_reader->text(column, row);
        return text == QLatin1String("NULL") ? QStringLiteral("'NULL'")
                                             : TablePrinter::oneLine(text);
    }

    QStringList m_names;
    int m_width = 0;
};

} // namespace

RowWriter *RowWriter::make(ResultFormat format, const ResultReader *reader)
{
    switch (format) {
    case ResultFormat::Csv:
        return new CsvRows(reader);
    case ResultFormat::Json:
    case ResultFormat::JsonLines:
        return new JsonRows(reader, format == ResultFormat::Json);
    case ResultFormat::List:
        return new ListRows(reader);
    case ResultFormat::Expanded:
        return new ExpandedRows(reader);
    case ResultFormat::Table:
        break;
    }
    return nullptr;
}
