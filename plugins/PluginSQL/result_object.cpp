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
    QScriptValue array = engine->newArray(uint(nulls.size()));
    for (int i = 0; i < nulls.size(); ++i)
        array.setProperty(quint32(i), QScriptValue(engine, nulls.at(i)));
    return array;
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
                       QScriptValue::ReadOnly | QScriptValue::Undeletable
                           | QScriptValue::SkipInEnumeration);
    const int columns = record.fields.size();
    const int rows = columns > 0 ? record.fields.constFirst().values.size() : 0;
    QScriptValue names = engine->newArray(uint(columns));
    QScriptValue index = engine->newArray(uint(columns));
    QScriptValue nulls = engine->newArray(uint(columns));
    QScriptValue types = engine->newArray(uint(columns));
    QScriptValue typeNames = engine->newArray(uint(columns));
    for (int c = 0; c < columns; ++c) {
        structSqlFieldResult &field = record.fields[c];
        const quint32 at = quint32(c);
        const QString name = context.upperCaseNames ? field.name.toUpper() : field.name;
        const QScriptValue values = ColumnArray(context, field.values).make();
        nulls.setProperty(at, nullsArray(engine, field.nulls));
        field.nulls.clear();
        types.setProperty(at, QScriptValue(engine, field.type));
        typeNames.setProperty(
            at, QScriptValue(engine, QString::fromLatin1(QMetaType::typeName(field.type))));
        names.setProperty(at, QScriptValue(engine, name));
        index.setProperty(at, values);
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
    target.setProperty(QStringLiteral("fields_names"), names);
    target.setProperty(QStringLiteral("fields_index"), index);
    target.setProperty(QStringLiteral("fields_nulls"), nulls);
    target.setProperty(QStringLiteral("fields_types"), types);
    target.setProperty(QStringLiteral("fields_typeN"), typeNames);
}
