#include "result_object.h"

#include "column_array.h"

#include <QMetaType>

namespace
{

constexpr int MarkerValue = 1106;

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

/// Gives properties to one object as its own, whatever scripts have put on Object.prototype: a
/// setter there would take the value, and a getter without one would keep it out.
class OwnProperties
{
public:
    OwnProperties(const ResultObject::Context &context, const QScriptValue &object)
        : m_engine(context.engine)
        , m_names(*context.names)
        , m_object(object)
    {
    }

    void setColumn(const QString &name, const QScriptValue &values)
    {
        // Usually the name stands for the object's prototype, and is no property.
        if (name == QLatin1String("__proto__"))
            setWithoutPrototype(m_engine->toStringHandle(name), values, {});
        else
            set(m_names.column(m_engine, name), values);
    }

    void set(ResultObject::Names::Name name, const QScriptValue &value,
             QScriptValue::PropertyFlags flags = QScriptValue::KeepExistingFlags)
    {
        set(m_names.at(name), value, flags);
    }

private:
    void set(const QScriptString &name, const QScriptValue &value,
             QScriptValue::PropertyFlags flags = QScriptValue::KeepExistingFlags)
    {
        if (m_object.propertyFlags(name) &
            (QScriptValue::PropertyGetter | QScriptValue::PropertySetter))
            setWithoutPrototype(name, value, flags);
        else
            m_object.setProperty(name, value, flags);
    }

    void setWithoutPrototype(const QScriptString &name, const QScriptValue &value,
                             QScriptValue::PropertyFlags flags)
    {
        const QScriptValue prototype = m_object.prototype();
        m_object.setPrototype(m_engine->nullValue());
        m_object.setProperty(name, value, flags);
        m_object.setPrototype(prototype);
    }

    QScriptEngine *m_engine;
    ResultObject::Names &m_names;
    QScriptValue m_object;
};

} // namespace

void ResultObject::Names::make(QScriptEngine *engine)
{
    if (m_names.front().isValid())
        return;
    const char *const texts[Count] = {"$ res sql",    "fields",        "numRowsAffected",
                                      "lastInsertId", "executedQuery", "rows",
                                      "length",       "fields_names",  "fields_index",
                                      "fields_nulls", "fields_types",  "fields_typeN"};
    for (size_t i = 0; i < Count; ++i)
        m_names[i] = engine->toStringHandle(QLatin1String(texts[i]));
}

QScriptString ResultObject::Names::column(QScriptEngine *engine, const QString &name)
{
    const auto known = m_columns.constFind(name);
    if (known != m_columns.constEnd())
        return *known;
    const QScriptString handle = engine->toStringHandle(name);
    if (m_columns.size() >= MostColumns)
        m_columns.clear();
    m_columns.insert(name, handle);
    return handle;
}

QScriptValue ResultObject::newObjects(QScriptEngine *engine, int count)
{
    QScriptValue array = engine->newArray(uint(count));
    for (int i = 0; i < count; ++i)
        array.setProperty(quint32(i), engine->newObject());
    return array;
}

void ResultObject::fill(const Context &context, QScriptValue target, structSqlResult &record)
{
    QScriptEngine *engine = context.engine;
    context.names->make(engine);
    OwnProperties own(context, target);
    own.set(Names::Marker, QScriptValue(engine, MarkerValue),
            QScriptValue::ReadOnly | QScriptValue::Undeletable | QScriptValue::SkipInEnumeration);
    const ColumnArray::Context column{engine, context.push, context.enableNull};
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
        const QScriptValue values = ColumnArray(column, field.values).make();
        index.setProperty(quint32(c), values);
        nulls.setProperty(quint32(c), nullsArray(engine, field.nulls));
        field.nulls.clear();
        names.append(name);
        types.append(field.type);
        typeNames.append(QString::fromLatin1(QMetaType::typeName(field.type)));
        own.setColumn(name, values);
    }
    const QScriptValue lastInsertId = record.hasLastInsertId
                                          ? engine->toScriptValue(record.lastInsertId)
                                          : QScriptValue(engine, QScriptValue::NullValue);
    own.set(Names::Fields, QScriptValue(engine, columns));
    own.set(Names::NumRowsAffected, QScriptValue(engine, record.numRowsAffected));
    own.set(Names::LastInsertId, lastInsertId);
    own.set(Names::ExecutedQuery, QScriptValue(engine, record.executedQuery));
    own.set(Names::Rows, QScriptValue(engine, rows));
    own.set(Names::Length, QScriptValue(engine, rows));
    own.set(Names::FieldsNames, engine->toScriptValue(names));
    own.set(Names::FieldsIndex, index);
    own.set(Names::FieldsNulls, nulls);
    own.set(Names::FieldsTypes, engine->toScriptValue(types));
    own.set(Names::FieldsTypeN, engine->toScriptValue(typeNames));
}
