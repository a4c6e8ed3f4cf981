#include "result_object.h"

#include "column_array.h"
#include "own_properties.h"
#include "streamed_results.h"

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

/// Usually the name of a column stands for a property; "__proto__" stands for the prototype.
void setColumn(OwnProperties &own, const QString &name, const QScriptString &handle,
               const QScriptValue &values)
{
    if (name == QLatin1String("__proto__"))
        own.setWithoutPrototype(handle, values, {});
    else
        own.set(handle, values);
}

/// Makes the arrays of all columns and of their nulls; of the nulls none where no column has any.
void takeColumns(const ResultObject::Context &context, structSqlResult &record,
                 ResultFiller::Values &taken)
{
    QScriptEngine *engine = context.engine;
    taken.rows = record.fields.isEmpty() ? 0 : record.fields.constFirst().values.size();
    if (ShortColumns::fit(record, context.enableNull)) {
        ShortColumns &columns = context.names->shortColumns();
        taken.index = columns.values(engine, record, context.enableNull);
        taken.nulls = columns.nulls(engine, record);
        return;
    }
    ColumnArray::Scratch scratch;
    const ColumnArray::Context column{engine, context.push, context.enableNull, &scratch};
    const int count = record.fields.size();
    taken.index = engine->newArray(uint(count));
    taken.nulls = engine->newArray(uint(count));
    for (int c = 0; c < count; ++c) {
        structSqlFieldResult &field = record.fields[c];
        taken.index.setProperty(quint32(c), ColumnArray().make(column, field.values));
        taken.nulls.setProperty(quint32(c), nullsArray(engine, field.nulls));
        field.nulls.clear();
    }
}

/// The same of columns that are converted already.
void takeColumns(QScriptEngine *engine, const ResultColumns &columns, int count,
                 ResultFiller::Values &taken)
{
    taken.rows = columns.rows();
    taken.index = engine->newArray(uint(count));
    taken.nulls = engine->newArray(uint(count));
    for (int c = 0; c < count; ++c) {
        taken.index.setProperty(quint32(c), columns.values(c, engine));
        taken.nulls.setProperty(quint32(c), columns.nulls(c, engine));
    }
}

/// A result of one row at most that comes again, with one call into the engine. @return false where
/// it is made column by column.
bool fillFromRow(const ResultObject::Context &context, const QScriptValue &target,
                 const structSqlResult &record)
{
    ResultObject::Names &names = *context.names;
    if (!ShortColumns::fitRow(record, context.enableNull))
        return false;
    const ResultShape &shape = names.shapeOf(context.engine, record, context.upperCaseNames);
    return names.filler().fillsRows(shape) &&
           names.filler().fillRow(
               target, shape, names.shortColumns().row(context.engine, record, context.enableNull));
}

/// Marks a result, read-only and hidden. A getter on Object.prototype must not keep it out either.
void mark(const ResultObject::Context &context, const QScriptValue &target)
{
    const QScriptString &name = context.names->at(ResultObject::Names::Marker);
    OwnProperties(context.engine, target)
        .set(name, QScriptValue(context.engine, MarkerValue),
             QScriptValue::ReadOnly | QScriptValue::Undeletable | QScriptValue::SkipInEnumeration);
}

const char *const FixedNames[ResultObject::Names::Count] = {
    "$ res sql",     "fields",       "numRowsAffected", "lastInsertId",
    "executedQuery", "rows",         "length",          "fields_names",
    "fields_index",  "fields_nulls", "fields_types",    "fields_typeN"};

} // namespace

void ResultObject::Names::make(QScriptEngine *engine)
{
    if (m_names.front().isValid())
        return;
    for (size_t i = 0; i < Count; ++i)
        m_names[i] = engine->toStringHandle(QLatin1String(FixedNames[i]));
}

const ResultShape &ResultObject::Names::shapeOf(QScriptEngine *engine,
                                                const structSqlResult &record, bool upperCase)
{
    static const QStringList fixed = [] {
        QStringList names;
        for (const char *name : FixedNames)
            names.append(QLatin1String(name));
        return names;
    }();
    m_shape.take(engine, record, upperCase, fixed);
    return m_shape;
}

QScriptValue ResultObject::newObjects(QScriptEngine *engine, int count)
{
    QScriptValue array = engine->newArray(uint(count));
    for (int i = 0; i < count; ++i)
        array.setProperty(quint32(i), engine->newObject());
    return array;
}

void ResultObject::fill(const Context &context, QScriptValue target, structSqlResult &record,
                        const ResultColumns *streamed)
{
    QScriptEngine *engine = context.engine;
    context.names->make(engine);
    mark(context, target);
    if (!streamed) {
        if (fillFromRow(context, target, record))
            return;
        record.spreadOnlyRow();
    }
    const int count = record.fields.size();
    ResultFiller::Values values;
    values.fields = count;
    values.numRowsAffected = record.numRowsAffected;
    values.lastInsertId = record.hasLastInsertId ? engine->toScriptValue(record.lastInsertId)
                                                 : QScriptValue(engine, QScriptValue::NullValue);
    values.executedQuery = QScriptValue(engine, record.executedQuery);
    if (streamed)
        takeColumns(engine, *streamed, count, values);
    else
        takeColumns(context, record, values);
    // Behind all conversions: code of the host may take part in them and let other results be
    // filled.
    const ResultShape &shape = context.names->shapeOf(engine, record, context.upperCaseNames);
    if (context.names->filler().fill(context.function, target, shape, values))
        return;
    OwnProperties own(engine, target);
    for (int c = 0; c < count; ++c)
        setColumn(own, shape.names().at(c), shape.handles()[size_t(c)],
                  values.index.property(quint32(c)));
    const auto set = [&own, &context](Names::Name name, const QScriptValue &value) {
        own.set(context.names->at(name), value);
    };
    set(Names::Fields, QScriptValue(engine, count));
    set(Names::NumRowsAffected, QScriptValue(engine, values.numRowsAffected));
    set(Names::LastInsertId, values.lastInsertId);
    set(Names::ExecutedQuery, values.executedQuery);
    set(Names::Rows, QScriptValue(engine, values.rows));
    set(Names::Length, QScriptValue(engine, values.rows));
    set(Names::FieldsNames, engine->toScriptValue(shape.names()));
    set(Names::FieldsIndex, values.index);
    set(Names::FieldsNulls, values.nulls.isValid()
                                ? values.nulls
                                : context.names->shortColumns().noNulls(engine, count));
    set(Names::FieldsTypes, engine->toScriptValue(shape.types()));
    set(Names::FieldsTypeN, engine->toScriptValue(shape.typeNames()));
}
