#include "socket_finder.h"

#include <QDir>
#include <QHash>

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace
{

constexpr int Rounds = 3;

const char Descriptors[] = "/proc/self/fd/";

/// The inode number of a connected socket, 0 for any other descriptor. Other threads open and close
/// descriptors meanwhile, so what is behind one is asked of the system by its path.
quint64 connectedSocket(int descriptor)
{
    struct stat about = {};
    sockaddr_storage peer = {};
    socklen_t size = sizeof peer;
    const QByteArray path = Descriptors + QByteArray::number(descriptor);
    if (::stat(path.constData(), &about) != 0 || !S_ISSOCK(about.st_mode) ||
        ::getpeername(descriptor, reinterpret_cast<sockaddr *>(&peer), &size) != 0)
        return 0;
    return about.st_ino;
}

/// The connected sockets of the process: descriptor and inode number.
QHash<int, quint64> connectedSockets()
{
    QHash<int, quint64> sockets;
    const QStringList names =
        QDir(QLatin1String(Descriptors))
            .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        const int descriptor = name.toInt();
        if (const quint64 inode = connectedSocket(descriptor))
            sockets.insert(descriptor, inode);
    }
    return sockets;
}

/// How many pieces of data a socket has sent; 0 for one that does not count them.
quint64 piecesSent(int descriptor)
{
    tcp_info about = {};
    socklen_t size = sizeof about;
    if (::getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &about, &size) != 0)
        return 0;
    return about.tcpi_data_segs_out;
}

bool countsPieces(int descriptor)
{
    int domain = 0;
    socklen_t size = sizeof domain;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
           (domain == AF_INET || domain == AF_INET6);
}

} // namespace

SocketFinder::SocketFinder()
{
    const QHash<int, quint64> sockets = connectedSockets();
    for (quint64 inode : sockets)
        m_known.insert(inode);
}

int SocketFinder::find(const std::function<void()> &talk) const
{
    QHash<int, quint64> fitting;
    const QHash<int, quint64> sockets = connectedSockets();
    for (auto it = sockets.cbegin(); it != sockets.cend(); ++it) {
        if (!m_known.contains(it.value()))
            fitting.insert(it.key(), it.value());
    }
    for (int round = 0; round < Rounds && (round == 0 || fitting.size() > 1); ++round) {
        QHash<int, quint64> before;
        for (auto it = fitting.cbegin(); it != fitting.cend(); ++it)
            before.insert(it.key(), piecesSent(it.key()));
        talk();
        QHash<int, quint64> left;
        for (auto it = fitting.cbegin(); it != fitting.cend(); ++it) {
            const bool isSame = connectedSocket(it.key()) == it.value();
            const bool hasSent =
                !countsPieces(it.key()) || piecesSent(it.key()) > before.value(it.key());
            if (isSame && hasSent)
                left.insert(it.key(), it.value());
        }
        fitting = left;
    }
    return fitting.size() == 1 ? fitting.cbegin().key() : -1;
}
