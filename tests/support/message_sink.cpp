#include "message_sink.h"

#include <QCoreApplication>
#include <QThread>

namespace
{

void nameAs(QObject *object, QLatin1String name)
{
    object->setObjectName(name);
}

} // namespace

MessageSink::MessageSink(QObject *parent)
    : QObject(parent)
{
    registerTypes();
}

void MessageSink::registerTypes()
{
    qRegisterMetaType<const char *>("const char*");
}

void MessageSink::plugin_msg(const char *fl, int ln, const char *fn, const QString &msg, int val)
{
    SinkMessage message;
    message.file = QString::fromUtf8(fl);
    message.line = ln;
    message.function = QString::fromUtf8(fn);
    message.text = msg;
    message.level = val;
    message.mainThread = QCoreApplication::instance()->thread() == QThread::currentThread();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.append(message);
}

QVector<SinkMessage> MessageSink::messages() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}

QVector<SinkMessage> MessageSink::messages(int level) const
{
    QVector<SinkMessage> found;
    const QVector<SinkMessage> all = messages();
    for (const SinkMessage &message : all) {
        if (message.level == level)
            found.append(message);
    }
    return found;
}

QStringList MessageSink::texts() const
{
    QStringList found;
    const QVector<SinkMessage> all = messages();
    for (const SinkMessage &message : all)
        found.append(message.text);
    return found;
}

QVector<SinkMessage> MessageSink::withText(const QString &text) const
{
    QVector<SinkMessage> found;
    const QVector<SinkMessage> all = messages();
    for (const SinkMessage &message : all) {
        if (message.text == text)
            found.append(message);
    }
    return found;
}

bool MessageSink::waitFor(const QString &text, int ms) const
{
    return waitUntil([&] { return contains(text); }, ms);
}

void MessageSink::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.clear();
}

VextServerStub::VextServerStub(QObject *parent)
    : MessageSink(parent)
{
    nameAs(this, QLatin1String("server"));
}

bool VextServerStub::gui() const
{
    ++m_guiReads;
    return m_gui;
}

int VextServerStub::isGuiApp()
{
    ++m_isGuiAppCalls;
    return m_gui ? 1 : 0;
}

bool VextServerStub::loadLib(const QString &name)
{
    m_loadedLibs.append(name);
    return m_loadLibAnswer;
}

void VextServerStub::aTcp(quint16 port)
{
    m_portCalls.append({QStringLiteral("aTcp"), port});
}

void VextServerStub::rTcp(quint16 port)
{
    m_portCalls.append({QStringLiteral("rTcp"), port});
}

void VextServerStub::aUdp(quint16 port)
{
    m_portCalls.append({QStringLiteral("aUdp"), port});
}

void VextServerStub::rUdp(quint16 port)
{
    m_portCalls.append({QStringLiteral("rUdp"), port});
}

VextServerWithoutGui::VextServerWithoutGui(QObject *parent)
    : MessageSink(parent)
{
    nameAs(this, QLatin1String("server"));
}

VextServerMute::VextServerMute(QObject *parent)
    : QObject(parent)
{
    nameAs(this, QLatin1String("server"));
}

VextPostStub::VextPostStub(QObject *parent)
    : MessageSink(parent)
{
    nameAs(this, QLatin1String("post"));
}

void VextPostStub::insertObject(QObject *object, const QString &name)
{
    m_inserted.append({object, name});
}

VextPostMute::VextPostMute(QObject *parent)
    : QObject(parent)
{
    nameAs(this, QLatin1String("post"));
}
