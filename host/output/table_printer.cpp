#include "table_printer.h"

#include <QStringList>

#include <algorithm>

namespace
{

const QLatin1Char Blank(' ');
const QLatin1String Separator(" | ");

bool isWide(uint code)
{
    // The blocks that terminals draw two cells wide.
    return (code >= 0x1100 && code <= 0x115F) || (code >= 0x2E80 && code <= 0xA4CF) ||
           (code >= 0xAC00 && code <= 0xD7A3) || (code >= 0xF900 && code <= 0xFAFF) ||
           (code >= 0xFE30 && code <= 0xFE6F) || (code >= 0xFF00 && code <= 0xFF60) ||
           (code >= 0xFFE0 && code <= 0xFFE6) || (code >= 0x1F300 && code <= 0x1FAFF) ||
           (code >= 0x20000 && code <= 0x3FFFD);
}

int codeWidth(uint code)
{
    switch (QChar::category(code)) {
    case QChar::Mark_NonSpacing:
    case QChar::Mark_Enclosing:
    case QChar::Other_Format:
        return 0;
    default:
        return isWide(code) ? 2 : 1;
    }
}

QString shortened(const QString &text)
{
    // Only the start of a long text is looked at: a cell may hold megabytes.
    const int enough = 2 * TablePrinter::maxCellWidth;
    const QString head = TablePrinter::oneLine(text.left(enough));
    if (text.size() <= enough && TablePrinter::width(head) <= TablePrinter::maxCellWidth)
        return head;
    int used = 0;
    QString result;
    for (uint code : head.toUcs4()) {
        used += codeWidth(code);
        if (used > TablePrinter::maxCellWidth - 1)
            break;
        result += QString::fromUcs4(&code, 1);
    }
    return result + QChar(0x2026);
}

QString padded(const QString &text, int width, bool alignRight)
{
    const QString filling(std::max(0, width - TablePrinter::width(text)), Blank);
    return alignRight ? filling + text : text + filling;
}

QString line(const QStringList &cells, const QLatin1String &separator)
{
    QString text = cells.join(separator);
    while (text.endsWith(Blank))
        text.chop(1);
    return text + QLatin1Char('\n');
}

} // namespace

TablePrinter::Layout::Layout(const TableColumn &column)
    : heading(shortened(column.heading))
    , alignRight(column.alignRight)
{
    width = std::max(width, TablePrinter::width(heading));
    texts.reserve(column.cells.size());
    for (const TableCell &cell : column.cells) {
        texts.append(cellText(cell));
        width = std::max(width, TablePrinter::width(texts.last()));
    }
}

TablePrinter::TablePrinter(const QVector<TableColumn> &columns)
{
    m_layouts.reserve(columns.size());
    for (const TableColumn &column : columns) {
        m_layouts.append(Layout(column));
        m_rows = std::max(m_rows, column.cells.size());
    }
}

int TablePrinter::width() const
{
    int sum = 0;
    for (const Layout &layout : m_layouts)
        sum += layout.width;
    return sum + Separator.size() * std::max(0, m_layouts.size() - 1);
}

QString TablePrinter::text() const
{
    QStringList headings;
    QStringList rules;
    for (const Layout &layout : m_layouts) {
        headings.append(padded(layout.heading, layout.width, layout.alignRight));
        rules.append(QString(layout.width, QLatin1Char('-')));
    }
    QString text = line(headings, Separator) + line(rules, QLatin1String("-+-"));
    for (int row = 0; row < m_rows; ++row) {
        QStringList cells;
        for (const Layout &layout : m_layouts)
            cells.append(padded(layout.texts.value(row), layout.width, layout.alignRight));
        text += line(cells, Separator);
    }
    return text;
}

QString TablePrinter::print(const QVector<TableColumn> &columns)
{
    return TablePrinter(columns).text();
}

int TablePrinter::width(const QString &text)
{
    int width = 0;
    for (uint code : text.toUcs4())
        width += codeWidth(code);
    return width;
}

QString TablePrinter::cellText(const TableCell &cell)
{
    if (cell.isNull)
        return QStringLiteral("NULL");
    if (cell.text == QLatin1String("NULL"))
        return QStringLiteral("'NULL'");
    return shortened(cell.text);
}

QString TablePrinter::oneLine(const QString &text)
{
    QString result;
    result.reserve(text.size());
    for (const QChar c : text) {
        if (c == QLatin1Char('\n'))
            result += QLatin1String("\\n");
        else if (c == QLatin1Char('\r'))
            result += QLatin1String("\\r");
        else if (c == QLatin1Char('\t'))
            result += QLatin1String("\\t");
        else if (c.category() == QChar::Other_Control)
            result += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        else
            result += c;
    }
    return result;
}
