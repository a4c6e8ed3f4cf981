#include "value_text.h"

#include "script_reading.h"

#include <QDateTime>
#include <QMetaObject>
#include <QRegExp>
#include <QScriptValueIterator>
#include <QStringList>
#include <QVariant>

namespace
{

const int MaxDepth = 4;
const int MaxItems = 100;
const int OneLine = 72; ///< longest text of members that is kept on one line

QString inQuotes(const QString &text)
{
    QString result = text;
    result.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
    result.replace(QLatin1Char('\''), QLatin1String("\\'"));
    result.replace(QLatin1Char('\n'), QLatin1String("\\n"));
    result.replace(QLatin1Char('\r'), QLatin1String("\\r"));
    result.replace(QLatin1Char('\t'), QLatin1String("\\t"));
    result.replace(QChar(0), QLatin1String("\\0"));
    return QLatin1Char('\'') + result + QLatin1Char('\'');
}

QString functionText(const QScriptValue &function)
{
    const QString name = ScriptReading::plainProperty(function, QStringLiteral("name")).toString();
    return name.isEmpty() ? QStringLiteral("[Function]")
                          : QStringLiteral("[Function %1]").arg(name);
}

QString errorText(const QScriptValue &error)
{
    const QScriptValue name = ScriptReading::plainProperty(error, QStringLiteral("name"));
    const QScriptValue text = ScriptReading::plainProperty(error, QStringLiteral("message"));
    const QString kind = name.isString() ? name.toString() : QStringLiteral("Error");
    if (!text.isString() || text.toString().isEmpty())
        return kind;
    return QStringLiteral("%1: %2").arg(kind, text.toString());
}

QString regExpText(const QScriptValue &value)
{
    const auto flag = [&value](const char *property, char letter) {
        const bool set = ScriptReading::plainProperty(value, QLatin1String(property)).toBool();
        return set ? QString(QLatin1Char(letter)) : QString();
    };
    return QStringLiteral("/%1/%2%3%4")
        .arg(value.toRegExp().pattern(), flag("global", 'g'), flag("ignoreCase", 'i'),
             flag("multiline", 'm'));
}

QString dateText(const QDateTime &date)
{
    return date.isValid() ? date.toString(Qt::ISODateWithMs) : QStringLiteral("Invalid Date");
}

QString qobjectText(const QScriptValue &value)
{
    const QObject *object = value.toQObject();
    if (!object)
        return QStringLiteral("[deleted object]");
    const QString className = QString::fromLatin1(object->metaObject()->className());
    if (object->objectName().isEmpty())
        return QStringLiteral("[%1]").arg(className);
    return QStringLiteral("[%1 '%2']").arg(className, object->objectName());
}

QString braced(const QStringList &items, const QString &open, const QString &close)
{
    if (items.isEmpty())
        return open + close;
    const QString joined = items.join(QLatin1String(", "));
    if (joined.size() <= OneLine && !joined.contains(QLatin1Char('\n')))
        return QStringLiteral("%1 %2 %3").arg(open, joined, close);
    QString inner = items.join(QLatin1String(",\n"));
    inner.replace(QLatin1Char('\n'), QLatin1String("\n  "));
    return open + QLatin1String("\n  ") + inner + QLatin1Char('\n') + close;
}

} // namespace

QString ValueText::plain(const QScriptValue &value)
{
    return value.isString() ? value.toString() : quoted(value);
}

QString ValueText::quoted(const QScriptValue &value)
{
    return ValueText().text(value);
}

QString ValueText::text(const QScriptValue &value)
{
    if (--m_valuesLeft < 0)
        return QStringLiteral("...");
    if (value.isString())
        return inQuotes(value.toString());
    if (!value.isObject())
        return value.isValid() ? value.toString() : QStringLiteral("undefined");
    return objectText(value);
}

QString ValueText::objectText(const QScriptValue &value)
{
    if (value.isRegExp()) // first: the engine calls regular expressions functions too
        return regExpText(value);
    if (value.isFunction())
        return functionText(value);
    if (value.isError())
        return errorText(value);
    if (value.isDate())
        return dateText(value.toDateTime());
    if (value.isQObject())
        return qobjectText(value);
    if (value.isVariant())
        return ScriptReading::variantText(value.toVariant());
    return membersText(value);
}

QString ValueText::membersText(const QScriptValue &value)
{
    if (isOpen(value))
        return QStringLiteral("[Circular]");
    if (m_openObjects.size() >= MaxDepth)
        return value.isArray() ? QStringLiteral("[Array]") : QStringLiteral("[Object]");
    m_openObjects.append(value.objectId());
    const QString result =
        value.isArray() ? braced(arrayItems(value), QStringLiteral("["), QStringLiteral("]"))
                        : braced(memberItems(value), QStringLiteral("{"), QStringLiteral("}"));
    m_openObjects.removeLast();
    return result;
}

QStringList ValueText::arrayItems(const QScriptValue &array)
{
    QStringList items;
    const int length = ScriptReading::arrayLength(array);
    for (int i = 0; i < qMin(length, MaxItems); ++i)
        items.append(text(ScriptReading::plainProperty(array, QString::number(i))));
    if (length > MaxItems)
        items.append(QStringLiteral("... %1 more").arg(length - MaxItems));
    return items;
}

QStringList ValueText::memberItems(const QScriptValue &object)
{
    QStringList items;
    QScriptValueIterator member(object);
    while (member.hasNext()) {
        member.next();
        if (member.flags().testFlag(QScriptValue::SkipInEnumeration))
            continue;
        if (items.size() == MaxItems) {
            items.append(QStringLiteral("..."));
            break;
        }
        // The iterator's own value() would run a getter.
        const bool getter = member.flags().testFlag(QScriptValue::PropertyGetter);
        items.append(member.name() + QLatin1String(": ") +
                     (getter ? QStringLiteral("[Getter]") : text(member.value())));
    }
    return items;
}

bool ValueText::isOpen(const QScriptValue &object) const
{
    return m_openObjects.contains(object.objectId());
}
