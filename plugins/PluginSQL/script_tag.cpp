#include "script_tag.h"

#include "vext_sql.h"

#include <QThread>

#include <algorithm>

namespace
{

bool isObject(const QVariant &value)
{
    return QMetaType::typeFlags(value.userType()) & QMetaType::PointerToQObject;
}

bool isOfOtherEngine(const QObject *object, const QScriptEngine *engine)
{
    const auto *connection = qobject_cast<const VEXT_SQL *>(object);
    return connection && !connection->isOf(engine);
}

} // namespace

ScriptTag::ScriptTag(const QVariant &value)
{
    findObjects(value);
}

void ScriptTag::findObjects(const QVariant &value)
{
    if (value.userType() == QMetaType::QVariantList) {
        const QVariantList list = value.toList();
        std::for_each(list.begin(), list.end(), [this](const QVariant &v) { findObjects(v); });
    } else if (value.userType() == QMetaType::QVariantMap) {
        const QVariantMap map = value.toMap();
        std::for_each(map.begin(), map.end(), [this](const QVariant &v) { findObjects(v); });
    } else if (isObject(value)) {
        QObject *object = value.value<QObject *>();
        if (object)
            m_objects.append({object, object->thread()});
    }
}

QVariant ScriptTag::resolved(const QVariant &value, const QScriptEngine *engine) const
{
    if (value.userType() == QMetaType::QVariantList) {
        QVariantList list = value.toList();
        for (QVariant &element : list)
            element = resolved(element, engine);
        return list;
    }
    if (value.userType() == QMetaType::QVariantMap) {
        QVariantMap map = value.toMap();
        for (QVariant &element : map)
            element = resolved(element, engine);
        return map;
    }
    if (!isObject(value))
        return value;
    // Only compared: the object may be gone.
    const void *address = *static_cast<void *const *>(value.constData());
    for (const Held &held : m_objects) {
        if (held.thread == QThread::currentThread() && held.object &&
            held.object.data() == address && !isOfOtherEngine(held.object.data(), engine))
            return QVariant::fromValue(held.object.data());
    }
    return QVariant::fromValue<QObject *>(nullptr);
}
