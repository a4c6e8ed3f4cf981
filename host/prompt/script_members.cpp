#include "script_members.h"

#include "script_reading.h"

#include <QRegularExpression>
#include <QScriptEngine>
#include <QScriptValueIterator>

namespace
{

const int MaxNames = 2000; ///< an array of a million elements has nothing to offer
const int MaxPrototypes = 20;

/// The object that a primitive value shows its members of.
QScriptValue asObject(QScriptEngine *engine, const QScriptValue &value)
{
    if (value.isObject() || !value.isValid() || value.isNull() || value.isUndefined())
        return value;
    const char *type = value.isString() ? "String" : value.isNumber() ? "Number" : "Boolean";
    return engine->globalObject()
        .property(QLatin1String(type))
        .property(QStringLiteral("prototype"));
}

/// Methods of wrapped objects carry the types of their arguments.
void append(QStringList *names, const QString &name)
{
    static const QRegularExpression identifier(QStringLiteral("^[A-Za-z_$][A-Za-z0-9_$]*$"));
    const QString plain = name.section(QLatin1Char('('), 0, 0);
    if (identifier.match(plain).hasMatch() && !plain.startsWith(QLatin1String("__")))
        names->append(plain);
}

} // namespace

QStringList ScriptMembers::names(QScriptEngine *engine, const QString &path)
{
    const ExceptionGuard guard(engine);
    QScriptValue object = engine->globalObject();
    if (!path.isEmpty()) {
        const QStringList parts = path.split(QLatin1Char('.'));
        for (const QString &part : parts)
            object = asObject(engine, ScriptReading::plainProperty(object, part));
    }
    QStringList names;
    for (int depth = 0; object.isObject() && depth < MaxPrototypes; ++depth) {
        QScriptValueIterator member(object);
        for (int count = 0; member.hasNext() && count < MaxNames; ++count) {
            member.next();
            append(&names, member.name());
        }
        object = object.prototype();
    }
    names.removeDuplicates();
    return names;
}
