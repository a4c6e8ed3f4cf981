#include "table_printer.h"

#include <QStringList>

#include <algorithm>

namespace
{

const QLatin1Char Blank(' ');

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

QString escaped(const QString &text)
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

QString shortened(const QString &text)
{
    // Only the start of a long text is looked at: a cell may hold megabytes.
    const int enough = 2 * TablePrinter::maxCellWidth;
    const QString head = escaped(text.left(enough));
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

/// The texts of one column, from the heading down, and the width that they need.
struct Layout {
    QVector<QString> texts;
    QString heading;
    int width = 1;
    bool alignRight = false;

    explicit Layout(const TableColumn &column)
        : heading(shortened(column.heading))
        , alignRight(column.alignRight)
    {
        width = std::max(width, TablePrinter::width(heading));
        texts.reserve(column.cells.size());
        for (const TableCell &cell : column.cells) {
            texts.append(TablePrinter::cellText(cell));
            width = std::max(width, TablePrinter::width(texts.last()));
        }
    }
};

} // namespace

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

QString TablePrinter::print(const QVector<TableColumn> &columns)
{
    QVector<Layout> layouts;
    QStringList headings;
    QStringList rules;
    int rows = 0;
    for (const TableColumn &column : columns) {
        layouts.append(Layout(column));
        const Layout &layout = layouts.last();
        headings.append(padded(layout.heading, layout.width, layout.alignRight));
        rules.append(QString(layout.width, QLatin1Char('-')));
        rows = std::max(rows, column.cells.size());
    }
    QString text = line(headings, QLatin1String(" | ")) + line(rules, QLatin1String("-+-"));
    for (int row = 0; row < rows; ++row) {
        QStringList cells;
        for (const Layout &layout : qAsConst(layouts))
            cells.append(padded(layout.texts.value(row), layout.width, layout.alignRight));
        text += line(cells, QLatin1String(" | "));
    }
    return text;
}
