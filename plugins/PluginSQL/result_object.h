/// @file
/// How a record becomes the result object that scripts read. Engine's thread only.
#pragma once

#include "sql_records.h"

#include <QHash>
#include <QScriptEngine>
#include <QScriptString>
#include <QScriptValue>

#include <array>

namespace ResultObject
{

/// The names of a result's properties as the engine keeps them: made from texts each time, they
/// would cost more than the properties. Belongs to one engine, made with its first result.
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
    /// The name of a column. Those of the results before are remembered, as far as they are few.
    QScriptString column(QScriptEngine *engine, const QString &name);

private:
    static constexpr int MostColumns = 256;

    std::array<QScriptString, Count> m_names;
    QHash<QString, QScriptString> m_columns;
};

/// With what, and how, the values of a connection are shown.
struct Context {
    QScriptEngine *engine = nullptr;
    Names *names = nullptr; ///< the engine's; outlives the context
    /// The engine's own Array.prototype.push as it was at the install, or invalid.
    QScriptValue push;
    bool enableNull = true; ///< NULL becomes null; otherwise it is converted like its type's zero
    bool upperCaseNames = false;
};

/// Script array of `count` new empty objects.
QScriptValue newObjects(QScriptEngine *engine, int count);

/// Fills `target` with the record's columns and figures, column by column. The values of a column
/// are given up as they are converted; the record is spent afterwards.
void fill(const Context &context, QScriptValue target, structSqlResult &record);

} // namespace ResultObject
