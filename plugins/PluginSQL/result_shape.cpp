#include "result_shape.h"

#include <QMetaType>
#include <QSet>

#include <algorithm>

namespace
{

QString nameOf(int type)
{
    return QString::fromLatin1(QMetaType::typeName(type));
}

} // namespace

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
    const int count = record.fields.size();
    if (int(m_typeIds.size()) != count) {
        m_typeIds.assign(size_t(count), QMetaType::UnknownType);
        m_types.clear();
        m_typeNames.clear();
        for (int c = 0; c < count; ++c) {
            m_types.append(int(QMetaType::UnknownType));
            m_typeNames.append(nameOf(QMetaType::UnknownType));
        }
    }
    for (int c = 0; c < count; ++c) {
        const int type = record.fields.at(c).type;
        if (type == m_typeIds[size_t(c)])
            continue;
        m_typeIds[size_t(c)] = type;
        m_types[c] = type;
        m_typeNames[c] = nameOf(type);
    }
}
