#include "result_filler.h"

#include "script_guard.h"

namespace
{

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
    return QStringLiteral("if(") + known + QStringLiteral(")return false;") + body +
           QStringLiteral("return true;");
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
    // Where the script's stack ends no function can be called; the result is made all the same.
    const ScriptGuard guard(engine);
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
    const QScriptValue done = m_function.call(QScriptValue(), args);
    return done.isBool() && done.toBool();
}
