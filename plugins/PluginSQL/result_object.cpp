#include "result_object.h"

#include "column_array.h"

#include <QMetaType>

namespace
{

constexpr int MarkerValue = 1106;

QString markerName()
{
    return QStringLiteral("$ res sql");
}

QScriptValue nullsArray(QScriptEngine *engine, const QList<uint> &nulls)
{
    if (nulls.isEmpty())
        return engine->newArray();
    QVariantList rows;
    rows.reserve(nulls.size());
    for (const uint row : nulls)
        rows.append(row);
    return engine->toScriptValue(rows);
}

} // namespace

QScriptValue ResultObject::newObjects(QScriptEngine *engine, int count)
{
    QScriptValue array = engine->newArray(uint(count));
    for (int i = 0; i < count; ++i)
        array.setProperty(quint32(i), engine->newObject());
    return array;
}

QScriptValue ResultObject::toScript(QScriptEngine *engine, const QVariant &value, bool enableNull)
{
    const int type = value.userType();
    if (enableNull && (type == QMetaType::UnknownType || value.isNull()))
        return QScriptValue(engine, QScriptValue::NullValue);
    switch (type) {
    case QMetaType::UnknownType:
        return QScriptValue();
    case QMetaType::Bool:
        return QScriptValue(engine, value.toBool());
    case QMetaType::Int:
        return QScriptValue(engine, value.toInt());
    case QMetaType::UInt:
        return QScriptValue(engine, value.toUInt());
    case QMetaType::LongLong:
        return QScriptValue(engine, qsreal(value.toLongLong()));
    case QMetaType::ULongLong:
        return QScriptValue(engine, qsreal(value.toULongLong()));
    case QMetaType::Double:
        return QScriptValue(engine, value.toDouble());
    case QMetaType::QString:
        return QScriptValue(engine, value.toString());
    case QMetaType::Float:
        return QScriptValue(engine, qsreal(value.toFloat()));
    default:
        return engine->toScriptValue(value);
    }
}

void ResultObject::fill(const Context &context, QScriptValue target, structSqlResult &record)
{
    QScriptEngine *engine = context.engine;
    target.setProperty(markerName(), QScriptValue(engine, MarkerValue),
                       QScriptValue::ReadOnly | QScriptValue::Undeletable |
                           QScriptValue::SkipInEnumeration);
    const int columns = record.fields.size();
    const int rows = columns > 0 ? record.fields.constFirst().values.size() : 0;
    QScriptValue index = engine->newArray(uint(columns));
    QScriptValue nulls = engine->newArray(uint(columns));
    QStringList names;
    QVariantList types;
    QStringList typeNames;
    for (int c = 0; c < columns; ++c) {
        structSqlFieldResult &field = record.fields[c];
        const QString name = context.upperCaseNames ? field.name.toUpper() : field.name;
        const QScriptValue values = ColumnArray(context, field.values).make();
        index.setProperty(quint32(c), values);
        nulls.setProperty(quint32(c), nullsArray(engine, field.nulls));
        field.nulls.clear();
        names.append(name);
        types.append(field.type);
        typeNames.append(QString::fromLatin1(QMetaType::typeName(field.type)));
        target.setProperty(name, values);
    }
    const QScriptValue lastInsertId = record.hasLastInsertId
                                          ? engine->toScriptValue(record.lastInsertId)
                                          : QScriptValue(engine, QScriptValue::NullValue);
    target.setProperty(QStringLiteral("fields"), QScriptValue(engine, columns));
    target.setProperty(QStringLiteral("numRowsAffected"),
                       QScriptValue(engine, record.numRowsAffected));
    target.setProperty(QStringLiteral("lastInsertId"), lastInsertId);
    target.setProperty(QStringLiteral("executedQuery"), QScriptValue(engine, record.executedQuery));
    target.setProperty(QStringLiteral("rows"), QScriptValue(engine, rows));
    target.setProperty(QStringLiteral("length"), QScriptValue(engine, rows));
    target.setProperty(QStringLiteral("fields_names"), engine->toScriptValue(names));
    target.setProperty(QStringLiteral("fields_index"), index);
    target.setProperty(QStringLiteral("fields_nulls"), nulls);
    target.setProperty(QStringLiteral("fields_types"), engine->toScriptValue(types));
    target.setProperty(QStringLiteral("fields_typeN"), engine->toScriptValue(typeNames));
}
