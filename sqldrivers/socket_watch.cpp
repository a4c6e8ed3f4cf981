#include "socket_watch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

SocketWatch::SocketWatch(int socket)
    : m_descriptor(socket < 0 ? -1 : ::fcntl(socket, F_DUPFD_CLOEXEC, 0))
{
}

SocketWatch::~SocketWatch()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

bool SocketWatch::isCut() const
{
    if (m_descriptor < 0)
        return false;
    pollfd look = {m_descriptor, POLLRDHUP, 0};
    return ::poll(&look, 1, 0) > 0 && (look.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

void SocketWatch::cut() const
{
    if (m_descriptor >= 0)
        ::shutdown(m_descriptor, SHUT_RDWR);
}
