#include "script_tag.h"

#include <QObject>
#include <QPointer>
#include <QThread>

namespace
{

template <typename Convert>
QVariant converted(const QVariant &value, Convert convert)
{
    if (value.userType() == QMetaType::QVariantList) {
        QVariantList list = value.toList();
        for (QVariant &element : list)
            element = converted(element, convert);
        return list;
    }
    if (value.userType() == QMetaType::QVariantMap) {
        QVariantMap map = value.toMap();
        for (QVariant &element : map)
            element = converted(element, convert);
        return map;
    }
    return convert(value);
}

} // namespace

QVariant ScriptTag::guarded(const QVariant &value)
{
    return converted(value, [](const QVariant &leaf) {
        if (!(QMetaType::typeFlags(leaf.userType()) & QMetaType::PointerToQObject))
            return leaf;
        return QVariant::fromValue(QPointer<QObject>(leaf.value<QObject *>()));
    });
}

QVariant ScriptTag::resolved(const QVariant &value)
{
    return converted(value, [](const QVariant &leaf) {
        if (leaf.userType() != qMetaTypeId<QPointer<QObject>>())
            return leaf;
        // An object of another thread is no business of this engine's script.
        QObject *object = leaf.value<QPointer<QObject>>().data();
        if (!object || object->thread() != QThread::currentThread())
            return QVariant::fromValue<QObject *>(nullptr);
        return QVariant::fromValue(object);
    });
}
