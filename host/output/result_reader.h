/// @file
/// The objects in which the SQL plugin hands results to scripts, read back cell by cell.
#pragma once

#include "table_printer.h"

#include <QScriptValue>
#include <QSet>
#include <QString>
#include <QVector>

/// Reads a result object, or the answer of `tables()`, by the properties that scripts see. It runs
/// no script code and copies no column.
///
/// Thread: the engine's. Values are looked at when they are asked for: do not keep a reader over
/// script code.
class ResultReader
{
public:
    /// How dates and times read.
    enum class Style {
        Script,   ///< as the console prints them
        Reader,   ///< 2024-02-29, 12:34:56, 2024-02-29 12:34:56
        Exchange, ///< the same with a T between date and time
    };

    /// Whether the value is the result of a statement or the answer of `tables()`.
    static bool isResult(const QScriptValue &value);

    explicit ResultReader(const QScriptValue &result, Style style = Style::Reader);

    int columnCount() const { return m_columns.size(); }
    int rowCount() const { return m_rows; }
    QString columnName(int column) const { return m_columns.at(column).name; }
    /// For a statement without columns.
    int affectedRows() const { return m_affectedRows; }

    bool isNull(int column, int row) const;
    /// The value itself; meaningless where isNull().
    QScriptValue value(int column, int row) const;
    /// The value as text, empty where isNull().
    QString text(int column, int row) const;

    /// The first rows of a column, as the table printer wants them.
    TableColumn tableColumn(int column, int maxRows) const;

private:
    struct Column {
        QString name;
        int type = 0; ///< number of the Qt type, 0 when unknown
        QScriptValue values;
        int length = 0;
        QSet<int> nulls; ///< rows whose value does not tell that they are NULL
    };

    void readTableList(const QScriptValue &result);
    void readColumns(const QScriptValue &result);
    static QSet<int> hiddenNulls(const Column &column, const QScriptValue &rows);
    QString dateText(const QDateTime &value, int type) const;

    Style m_style;
    QVector<Column> m_columns;
    int m_rows = 0;
    int m_affectedRows = 0;
};
