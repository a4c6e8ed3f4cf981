#include "object_table.h"

#include "script_reading.h"
#include "table_printer.h"
#include "value_text.h"

#include <QHash>
#include <QScriptValueIterator>
#include <QSet>

#include <algorithm>

namespace
{

const int MaxColumns = 1000; ///< an object may have any number of members

/// Objects whose members are the row; others, as dates, are values by themselves.
bool hasMembers(const QScriptValue &value)
{
    return value.isObject() && !value.isDate() && !value.isFunction() && !value.isError() &&
           !value.isRegExp() && !value.isVariant() && !value.isQObject();
}

/// Columns that grow while rows are added.
class Columns
{
public:
    void addRow(const QScriptValue &value)
    {
        if (!hasMembers(value)) {
            set(QStringLiteral("value"), value);
        } else {
            QScriptValueIterator member(value);
            while (member.hasNext()) {
                member.next();
                if (!member.flags().testFlag(QScriptValue::SkipInEnumeration))
                    set(member.name(), ScriptReading::plainProperty(value, member.name()));
            }
        }
        ++m_rows;
    }

    QVector<TableColumn> take()
    {
        for (TableColumn &column : m_columns)
            column.alignRight =
                m_numbers.contains(column.heading) && !m_others.contains(column.heading);
        return m_columns;
    }

private:
    void set(const QString &name, const QScriptValue &value)
    {
        int index = m_indexes.value(name, -1);
        if (index < 0) {
            if (m_columns.size() == MaxColumns)
                return;
            index = m_columns.size();
            m_indexes.insert(name, index);
            m_columns.append({name, {}, false});
        }
        QVector<TableCell> &cells = m_columns[index].cells;
        cells.resize(m_rows); // rows without this member are blank
        cells.append(cellOf(name, value));
    }

    TableCell cellOf(const QString &name, const QScriptValue &value)
    {
        if (value.isNull())
            return {QString(), true};
        if (!value.isUndefined())
            (value.isNumber() ? m_numbers : m_others).insert(name);
        return {value.isUndefined() ? QString() : ValueText::plain(value), false};
    }

    QVector<TableColumn> m_columns;
    QHash<QString, int> m_indexes;
    QSet<QString> m_numbers; ///< columns that hold any
    QSet<QString> m_others;  ///< columns that hold anything else
    int m_rows = 0;
};

} // namespace

bool ObjectTable::isList(const QScriptValue &value)
{
    return ScriptReading::arrayLength(value) > 0 &&
           hasMembers(ScriptReading::plainProperty(value, QStringLiteral("0")));
}

QString ObjectTable::print(const QScriptValue &list)
{
    const ExceptionGuard guard(list.engine());
    const int length = ScriptReading::arrayLength(list);
    const int rows = std::min(length, maxRows);
    Columns columns;
    for (int row = 0; row < rows; ++row)
        columns.addRow(ScriptReading::plainProperty(list, QString::number(row)));
    QString text = TablePrinter::print(columns.take());
    if (length > rows)
        text += QStringLiteral("(the first %1 of %2 rows)\n").arg(rows).arg(length);
    else
        text += QStringLiteral("(%1 row%2)\n").arg(rows).arg(QLatin1String(rows == 1 ? "" : "s"));
    return text;
}
