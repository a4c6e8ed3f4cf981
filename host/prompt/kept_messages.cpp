#include "kept_messages.h"

#include "script_host.h"

namespace
{

const int ErrorLevel = -1;

} // namespace

KeptMessages::KeptMessages(ScriptHost *host)
    : m_host(host)
{
    host->setMessageFilter([this](const PluginMessage &message) {
        if (!m_holds || message.level != ErrorLevel)
            return true;
        m_kept.append(message);
        return false;
    });
}

KeptMessages::~KeptMessages()
{
    m_host->setMessageFilter(ScriptHost::MessageFilter());
}

void KeptMessages::hold()
{
    m_holds = true;
}

void KeptMessages::drop()
{
    m_holds = false;
    m_kept.clear();
}

void KeptMessages::release(const QString &error)
{
    m_holds = false;
    const QVector<PluginMessage> kept = m_kept;
    m_kept.clear();
    for (const PluginMessage &message : kept) {
        if (error.isEmpty() || !message.text.contains(error.trimmed()))
            m_host->reporter()->tellMessage(message);
    }
}
