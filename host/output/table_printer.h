/// @file
/// Tables of text, aligned. Nothing here knows scripts or databases.
#pragma once

#include <QString>
#include <QVector>

/// One cell: a text, or no value at all.
struct TableCell {
    QString text;
    bool isNull = false;
};

/// One column: its heading and its cells from the first row on. A column may be shorter than the
/// others; what is missing is printed as blank.
struct TableColumn {
    QString heading;
    QVector<TableCell> cells;
    bool alignRight = false; ///< numbers
};

/// Prints columns side by side under their headings.
///
/// A cell without value reads NULL and the empty string is blank; a text that itself reads NULL
/// is put in quotes. Control characters are printed as escapes, so that a row is one line, and a
/// text longer than maxCellWidth ends in an ellipsis.
class TablePrinter
{
public:
    static constexpr int maxCellWidth = 120; ///< in screen cells

    /// The whole table, each line with its line break; headings and a rule even without rows.
    static QString print(const QVector<TableColumn> &columns);

    /// The number of screen cells that a text takes: two for East Asian wide characters, none
    /// for combining marks.
    static int width(const QString &text);

    /// How a cell is printed, before it is padded.
    static QString cellText(const TableCell &cell);
};
