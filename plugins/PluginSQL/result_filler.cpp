#include "result_filler.h"

#include "script_guard.h"
#include "short_columns.h"

namespace
{

constexpr int ArgumentsBeforeTypes = 7;

/// The text as a literal of a script, in ASCII.
QString literal(const QString &text)
{
    QString result = QStringLiteral("\"");
    for (const QChar c : text) {
        if (c.unicode() >= 0x20 && c.unicode() < 0x7f && c != QLatin1Char('"') &&
            c != QLatin1Char('\\'))
            result += c;
        else
            result += QStringLiteral("\\u%1").arg(int(c.unicode()), 4, 16, QLatin1Char('0'));
    }
    return result + QLatin1Char('"');
}

template <typename List, typename TextOf>
QString joined(const List &list, const char *separator, TextOf textOf)
{
    QStringList texts;
    for (const auto &element : list)
        texts.append(textOf(element));
    return texts.join(QLatin1String(separator));
}

QString arrayOf(const QString &elements)
{
    return QLatin1Char('[') + elements + QLatin1Char(']');
}

/// The properties behind the columns, in their order, and what each is set to.
struct Property {
    const char *name;
    QString value;
};

QVector<Property> fixedProperties(const ResultShape &shape)
{
    const QStringList &names = shape.names();
    const QString number = QString::number(names.size());
    return {{"fields", number},
            {"numRowsAffected", QStringLiteral("affected")},
            {"lastInsertId", QStringLiteral("id")},
            {"executedQuery", QStringLiteral("sql")},
            {"rows", QStringLiteral("rows")},
            {"length", QStringLiteral("rows")},
            {"fields_names", arrayOf(joined(names, ",", literal))},
            {"fields_index", QStringLiteral("index")},
            {"fields_nulls",
             QStringLiteral("nulls||") +
                 arrayOf(joined(names, ",", [](const QString &) { return QStringLiteral("[]"); }))},
            {"fields_types", QStringLiteral("types||") + arrayOf(joined(shape.types(), ",",
                                                                        [](const QVariant &type) {
                                                                            return type.toString();
                                                                        }))},
            {"fields_typeN",
             QStringLiteral("typeNames||") + arrayOf(joined(shape.typeNames(), ",", literal))}};
}

/// Makes columns and figures of a single row, where one is given in place of the columns.
QString rowPart(const ResultShape &shape)
{
    const int count = shape.names().size();
    if (count > ShortColumns::MostRowColumns)
        return QString();
    QStringList columns;
    QStringList nulls;
    for (int c = 0; c < count; ++c) {
        columns += QStringLiteral("[row[%1]]").arg(c);
        nulls += QStringLiteral("bits&%1?[0]:[]").arg(1 << c);
    }
    return QStringLiteral("if(rows===void 0){var row=index;index=[%1];rows=%2;"
                          "affected=row[%3];id=row[%4];sql=row[%5];"
                          "var bits=row[%6];if(bits)nulls=[%7]}")
        .arg(columns.join(QLatin1Char(',')))
        .arg(count > 0 ? 1 : 0)
        .arg(count)
        .arg(count + 1)
        .arg(count + 2)
        .arg(count + 3)
        .arg(nulls.join(QLatin1Char(',')));
}

QString bodyFor(const ResultShape &shape)
{
    const QVector<Property> fixed = fixedProperties(shape);
    QString known = joined(shape.names(), "||", [](const QString &name) {
        return literal(name) + QStringLiteral(" in o");
    });
    QString body;
    int c = 0;
    for (const QString &name : shape.names())
        body += QStringLiteral("o[%1]=index[%2];").arg(literal(name)).arg(c++);
    for (const Property &property : fixed) {
        const QString name = QLatin1String(property.name);
        known += (known.isEmpty() ? QString() : QStringLiteral("||")) + literal(name) +
                 QStringLiteral(" in o");
        body += QStringLiteral("o.") + name + QLatin1Char('=') + property.value + QLatin1Char(';');
    }
    return QStringLiteral("if(") + known + QStringLiteral(")return false;") + rowPart(shape) +
           body + QStringLiteral("return true;");
}

} // namespace

/// Makes the function when the names have come often enough.
bool ResultFiller::isReady(QScriptValue &function, const ResultShape &shape)
{
    if (m_nameChanges != shape.nameChanges()) {
        m_nameChanges = shape.nameChanges();
        m_function = QScriptValue();
        m_fills = 0;
    }
    if (m_fills < FillsBefore) {
        ++m_fills;
        return false;
    }
    if (!m_function.isValid() && m_fills == FillsBefore) {
        QScriptEngine *engine = function.engine();
        // Called by a native function that no script has called, Function crashes (Qt Script 5.15):
        // it looks for the global object of the script that runs.
        if (!engine || engine->currentContext()->parentContext())
            return false;
        ++m_fills; // once: what cannot be made is not tried again
        if (!shape.isUnambiguous() || shape.names().size() > MostColumns)
            return false;
        const ScriptGuard guard(engine);
        const QScriptValue made = function.call(
            QScriptValue(),
            {QScriptValue(engine, QStringLiteral("o,index,affected,id,sql,rows,nulls,types,"
                                                 "typeNames")),
             QScriptValue(engine, bodyFor(shape))});
        m_typeIds = shape.typeIds();
        if (made.isFunction())
            m_function = made;
    }
    return m_function.isValid();
}

bool ResultFiller::fill(QScriptValue function, const QScriptValue &target, const ResultShape &shape,
                        const Values &values)
{
    QScriptEngine *engine = target.engine();
    if (!isReady(function, shape))
        return false;
    QScriptValueList args{target,
                          values.index,
                          QScriptValue(engine, values.numRowsAffected),
                          values.lastInsertId,
                          values.executedQuery,
                          QScriptValue(engine, values.rows)};
    // What is not given is made by the function.
    const bool hasOtherTypes = shape.typeIds() != m_typeIds;
    if (values.nulls.isValid() || hasOtherTypes)
        args << values.nulls;
    if (hasOtherTypes)
        args << engine->toScriptValue(shape.types()) << engine->toScriptValue(shape.typeNames());
    return call(args);
}

bool ResultFiller::fillRow(const QScriptValue &target, const ResultShape &shape,
                           const QScriptValue &row)
{
    QScriptEngine *engine = target.engine();
    QScriptValueList args{target, row};
    if (shape.typeIds() != m_typeIds) {
        while (args.size() < ArgumentsBeforeTypes)
            args << QScriptValue();
        args << engine->toScriptValue(shape.types()) << engine->toScriptValue(shape.typeNames());
    }
    return call(args);
}

/// Where the script's stack ends no function can be called; the result is made all the same, and
/// the script is not told of it.
bool ResultFiller::call(const QScriptValueList &args)
{
    const ScriptGuard guard(m_function.engine());
    const QScriptValue done = m_function.call(QScriptValue(), args);
    return done.isBool() && done.toBool();
}
