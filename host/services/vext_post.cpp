#include "vext_post.h"

VextPost::VextPost(QObject *parent)
    : QObject(parent)
{
    setObjectName(QStringLiteral("post"));
    // Without it a message of a worker thread cannot be queued and is lost.
    qRegisterMetaType<const char *>("const char*");
}

QList<QObject *> VextPost::objects() const
{
    QList<QObject *> alive;
    for (const QPointer<QObject> &object : m_objects) {
        if (object)
            alive.append(object);
    }
    return alive;
}

void VextPost::insertObject(QObject *object, const QString &name)
{
    Q_UNUSED(name)
    if (!object)
        return;
    m_objects.removeAll(QPointer<QObject>()); // those that are gone by now
    m_objects.append(object);
    emit objectInserted(object);
}

QString VextPost::nameOf(const QObject *object) const
{
    // A message may come from a part of the object.
    while (object && !m_objects.contains(QPointer<QObject>(const_cast<QObject *>(object))))
        object = object->parent();
    return object ? object->objectName() : QString();
}

void VextPost::plugin_msg(const char *source, int line, const char *operation, const QString &text,
                          int level)
{
    PluginMessage received = PluginMessage::from(source, line, operation, text, level);
    received.connection = nameOf(sender());
    emit message(received);
}
