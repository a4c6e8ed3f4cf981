/// @file
/// What the results of the same statement have in common. Engine's thread only.
#pragma once

#include "sql_records.h"

#include <QScriptEngine>
#include <QScriptString>
#include <QStringList>
#include <QVariantList>

#include <vector>

/// The names and types of a result's columns, kept from the last result: a statement that comes
/// again finds its names as handles of the engine and its lists made. Belongs to one engine; the
/// handles are void when that is gone.
class ResultShape
{
public:
    /// Makes this the shape of a record. @param fixed the names of properties that every result has
    void take(QScriptEngine *engine, const structSqlResult &record, bool upperCase,
              const QStringList &fixed);

    /// The names of the columns, as the engine keeps them.
    const std::vector<QScriptString> &handles() const { return m_handles; }
    /// Whether no two properties of a result have the same name.
    bool isUnambiguous() const { return m_isUnambiguous; }
    /// As scripts see them.
    const QStringList &names() const { return m_names; }
    const QVariantList &types() const { return m_types; }
    const QStringList &typeNames() const { return m_typeNames; }
    const std::vector<int> &typeIds() const { return m_typeIds; }
    /// Counts the changes of the names.
    int nameChanges() const { return m_nameChanges; }

private:
    bool hasNames(const structSqlResult &record, bool upperCase) const;
    void takeNames(QScriptEngine *engine, const structSqlResult &record, bool upperCase,
                   const QStringList &fixed);
    void takeTypes(const structSqlResult &record);

    QStringList m_given; ///< names as the driver reports them
    bool m_isUpperCase = false;
    int m_nameChanges = 0;
    bool m_isUnambiguous = false;
    std::vector<QScriptString> m_handles;
    std::vector<int> m_typeIds;
    QStringList m_names;
    QVariantList m_types;
    QStringList m_typeNames;
};
