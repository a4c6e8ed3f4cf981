/// @file
/// How a record becomes the result object that scripts read. Engine's thread only.
#pragma once

#include "result_filler.h"
#include "result_shape.h"
#include "short_columns.h"
#include "sql_records.h"

#include <QScriptEngine>
#include <QScriptString>
#include <QScriptValue>

#include <array>

class ResultColumns;

namespace ResultObject
{

/// What is kept of the results before, because making it anew would cost more than the result: the
/// names of a result's properties as the engine keeps them, and the last columns. Belongs to one
/// engine, made with its first result.
class Names
{
public:
    enum Name {
        Marker,
        Fields,
        NumRowsAffected,
        LastInsertId,
        ExecutedQuery,
        Rows,
        Length,
        FieldsNames,
        FieldsIndex,
        FieldsNulls,
        FieldsTypes,
        FieldsTypeN,
        Count
    };

    void make(QScriptEngine *engine);
    const QScriptString &at(Name name) const { return m_names[name]; }
    /// The shape of a record, valid until the next call.
    const ResultShape &shapeOf(QScriptEngine *engine, const structSqlResult &record,
                               bool upperCase);
    ShortColumns &shortColumns() { return m_shortColumns; }
    ResultFiller &filler() { return m_filler; }

private:
    std::array<QScriptString, Count> m_names;
    ResultShape m_shape;
    ShortColumns m_shortColumns;
    ResultFiller m_filler;
};

/// With what, and how, the values of a connection are shown.
struct Context {
    QScriptEngine *engine = nullptr;
    Names *names = nullptr; ///< the engine's; outlives the context
    /// The engine's own Array.prototype.push as it was at the install, or invalid.
    QScriptValue push;
    /// The same of Function, which makes functions of their texts.
    QScriptValue function;
    bool enableNull = true; ///< NULL becomes null; otherwise it is converted like its type's zero
    bool upperCaseNames = false;
};

/// Script array of `count` new empty objects.
QScriptValue newObjects(QScriptEngine *engine, int count);

/// Fills `target` with the record's columns and figures, column by column. The values of a column
/// are given up as they are converted; the record is spent afterwards.
/// @param streamed the columns of a record whose rows came in slices; otherwise null.
void fill(const Context &context, QScriptValue target, structSqlResult &record,
          const ResultColumns *streamed = nullptr);

} // namespace ResultObject
