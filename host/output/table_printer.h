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

    explicit TablePrinter(const QVector<TableColumn> &columns);

    /// The number of screen cells that the widest line may take.
    int width() const;

    /// The whole table, each line with its line break; headings and a rule even without rows.
    QString text() const;

    /// text() in one call.
    static QString print(const QVector<TableColumn> &columns);

    /// The number of screen cells that a text takes: two for East Asian wide characters, none
    /// for combining marks.
    static int width(const QString &text);

    /// How a cell is printed, before it is padded.
    static QString cellText(const TableCell &cell);

    /// The text with its control characters as escapes.
    static QString oneLine(const QString &text);

private:
    /// The texts of one column, from the heading down, and the width that they need.
    struct Layout {
        explicit Layout(const TableColumn &column);
        Layout() = default; // for QVector

        QVector<QString> texts;
        QString heading;
        int width = 1;
        bool alignRight = false;
    };

    QVector<Layout> m_layouts;
    int m_rows = 0;
};
