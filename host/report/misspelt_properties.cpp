#include "misspelt_properties.h"

#include <QMetaObject>
#include <QMetaProperty>
#include <QScriptValueIterator>
#include <QStringList>
#include <QVector>

namespace
{

const int ShortestAbbreviation = 3;

/// How many letters have to be added, left out or replaced.
int distance(const QString &left, const QString &right)
{
    QVector<int> row(right.size() + 1);
    for (int i = 0; i <= right.size(); ++i)
        row[i] = i;
    for (int i = 0; i < left.size(); ++i) {
        int diagonal = row[0];
        row[0] = i + 1;
        for (int k = 0; k < right.size(); ++k) {
            const int replaced = diagonal + (left.at(i) == right.at(k) ? 0 : 1);
            diagonal = row[k + 1];
            row[k + 1] = qMin(replaced, qMin(row[k], diagonal) + 1);
        }
    }
    return row.last();
}

QString plain(const QString &name)
{
    return name.toLower().remove(QLatin1Char('_'));
}

bool resembles(const QString &name, const QString &property)
{
    const QString left = plain(name);
    const QString right = plain(property);
    const bool isBegin = left.size() >= ShortestAbbreviation && right.startsWith(left);
    return isBegin || distance(left, right) <= left.size() / 3;
}

QStringList writableProperties(const QMetaObject *type)
{
    QStringList names;
    for (int i = 0; i < type->propertyCount(); ++i) {
        if (type->property(i).isWritable())
            names.append(QString::fromLatin1(type->property(i).name()));
    }
    return names;
}

QString nearest(const QString &name, const QStringList &properties)
{
    QString best;
    for (const QString &property : properties) {
        const bool isNearer = best.isEmpty() || distance(plain(name), plain(property)) <
                                                    distance(plain(name), plain(best));
        if (resembles(name, property) && isNearer)
            best = property;
    }
    return best;
}

} // namespace

QList<MisspeltProperties::Misspelt> MisspeltProperties::find(const QScriptValue &connection)
{
    QList<Misspelt> list;
    const QObject *object = connection.toQObject();
    if (!object)
        return list;
    const QStringList properties = writableProperties(object->metaObject());
    QScriptValueIterator member(connection);
    while (member.hasNext()) {
        member.next();
        const bool isOwn = !member.flags().testFlag(QScriptValue::QObjectMember) &&
                           !member.flags().testFlag(QScriptValue::SkipInEnumeration);
        const QString meant = isOwn ? nearest(member.name(), properties) : QString();
        if (!meant.isEmpty())
            list.append({member.name(), meant});
    }
    return list;
}
