#include "result_shape.h"

#include <QMetaType>
#include <QSet>

#include <algorithm>

void ResultShape::take(QScriptEngine *engine, const structSqlResult &record, bool upperCase,
                       const QStringList &fixed)
{
    if (m_nameChanges == 0 || !hasNames(record, upperCase))
        takeNames(engine, record, upperCase, fixed);
    takeTypes(record);
}

bool ResultShape::hasNames(const structSqlResult &record, bool upperCase) const
{
    return upperCase == m_isUpperCase && record.fields.size() == m_given.size() &&
           std::equal(m_given.cbegin(), m_given.cend(), record.fields.cbegin(),
                      [](const QString &name, const auto &field) { return name == field.name; });
}

void ResultShape::takeNames(QScriptEngine *engine, const structSqlResult &record, bool upperCase,
                            const QStringList &fixed)
{
    ++m_nameChanges;
    m_isUpperCase = upperCase;
    m_given.clear();
    m_names.clear();
    m_handles.clear();
    // The first stands for the object's prototype, and usually is no property.
    QSet<QString> taken{QStringLiteral("__proto__")};
    for (const QString &name : fixed)
        taken.insert(name);
    const int before = taken.size();
    for (const structSqlFieldResult &field : record.fields) {
        const QString name = upperCase ? field.name.toUpper() : field.name;
        m_given.append(field.name);
        m_names.append(name);
        m_handles.push_back(engine->toStringHandle(name));
        taken.insert(name);
    }
    m_isUnambiguous = taken.size() == before + m_names.size();
}

void ResultShape::takeTypes(const structSqlResult &record)
{
    if (std::equal(m_typeIds.cbegin(), m_typeIds.cend(), record.fields.cbegin(),
                   record.fields.cend(),
                   [](int type, const auto &field) { return type == field.type; }))
        return;
    m_typeIds.clear();
    m_types.clear();
    m_typeNames.clear();
    for (const structSqlFieldResult &field : record.fields) {
        m_typeIds.push_back(field.type);
        m_types.append(field.type);
        m_typeNames.append(QString::fromLatin1(QMetaType::typeName(field.type)));
    }
}
