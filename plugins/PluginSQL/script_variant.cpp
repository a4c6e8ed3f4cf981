#include "script_variant.h"

#include "script_guard.h"

#include <QScriptValueIterator>
#include <QSet>
#include <QVariant>

namespace
{

/// Converts nested script values, counting them.
class Converter
{
public:
    explicit Converter(QScriptEngine *engine)
        : m_watch(engine)
    {
    }

    bool threw() const { return m_watch.threw(); }
    bool convert(const QScriptValue &value, QVariant &variant);

private:
    bool convertList(const QScriptValue &array, QVariantList &list);
    bool convertMap(const QScriptValue &object, QVariantMap &map);
    bool convertProperty(const QScriptValue &value, QVariant &variant);

    ThrowWatch m_watch;
    QSet<qint64> m_parents; ///< ids of the objects that are being converted
    int m_left = ScriptVariant::MaxConvertedValues;
};

bool Converter::convert(const QScriptValue &value, QVariant &variant)
{
    if (ScriptVariant::isLeaf(value)) {
        variant = value.toVariant();
        return true;
    }
    const qint64 id = value.objectId();
    // An object within itself converts to nothing, as toVariant has it.
    const bool isWithinItself = m_parents.contains(id);
    if (!isWithinItself && m_parents.size() >= ScriptVariant::MaxConvertedDepth)
        return false;
    bool ok = true;
    QVariantList list;
    QVariantMap map;
    if (!isWithinItself) {
        m_parents.insert(id);
        ok = value.isArray() ? convertList(value, list) : convertMap(value, map);
        m_parents.remove(id);
    }
    variant = value.isArray() ? QVariant(list) : QVariant(map);
    return ok;
}

bool Converter::convertList(const QScriptValue &array, QVariantList &list)
{
    const quint32 length = array.property(QStringLiteral("length")).toUInt32();
    if (length > quint32(m_left))
        return false;
    list.reserve(int(length));
    for (quint32 i = 0; i < length; ++i) {
        list.append(QVariant());
        if (!convertProperty(array.property(i), list.last()))
            return false;
    }
    return true;
}

bool Converter::convertMap(const QScriptValue &object, QVariantMap &map)
{
    QScriptValueIterator property(object);
    while (property.hasNext()) {
        property.next();
        if (!convertProperty(property.value(), map[property.name()]))
            return false;
    }
    return true;
}

bool Converter::convertProperty(const QScriptValue &value, QVariant &variant)
{
    if (threw() || --m_left < 0)
        return false;
    return convert(value, variant);
}

} // namespace

bool ScriptVariant::isLeaf(const QScriptValue &value)
{
    return !value.isObject() || value.isVariant() || value.isQObject() || value.isDate() ||
           value.isRegExp();
}

bool ScriptVariant::convert(const QScriptValue &value, QScriptEngine *engine, QVariant &variant)
{
    Converter converter(engine);
    return converter.convert(value, variant) && !converter.threw();
}
