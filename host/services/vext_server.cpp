#include "vext_server.h"

#include <algorithm>

namespace
{

QVariantList ascending(const QSet<quint16> &ports)
{
    QList<quint16> sorted = ports.values();
    std::sort(sorted.begin(), sorted.end());
    QVariantList list;
    for (quint16 port : sorted)
        list.append(static_cast<int>(port));
    return list;
}

} // namespace

VextServer::VextServer(QObject *application)
    : QObject(application)
{
    setObjectName(QStringLiteral("server"));
}

QVariantList VextServer::tcpPorts() const
{
    return ascending(m_tcpPorts);
}

QVariantList VextServer::udpPorts() const
{
    return ascending(m_udpPorts);
}

void VextServer::plugin_msg(const char *source, int line, const char *operation,
                            const QString &text, int level)
{
    emit message(PluginMessage::from(source, line, operation, text, level));
}

void VextServer::aTcp(quint16 port)
{
    m_tcpPorts.insert(port);
}

void VextServer::rTcp(quint16 port)
{
    m_tcpPorts.remove(port);
}

void VextServer::aUdp(quint16 port)
{
    m_udpPorts.insert(port);
}

void VextServer::rUdp(quint16 port)
{
    m_udpPorts.remove(port);
}
