#include "opening_guard.h"

#include "interrupt_watch.h"

#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const int StepMs = 50;

bool isLine(int descriptor)
{
    int type = 0;
    socklen_t size = sizeof type;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM;
}

/// The sockets of this process that carry a stream.
std::set<int> lines()
{
    std::set<int> found;
    DIR *folder = ::opendir("/proc/self/fd");
    if (!folder)
        return found;
    while (const dirent *entry = ::readdir(folder)) {
        const int descriptor = std::atoi(entry->d_name);
        if (descriptor > STDERR_FILENO && isLine(descriptor))
            found.insert(descriptor);
    }
    ::closedir(folder);
    return found;
}

} // namespace

OpeningGuard::OpeningGuard()
    : m_before(lines())
{
    if (::pipe2(m_end, O_CLOEXEC) != 0)
        return; // the opening takes as long as it takes
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // signals are for the other threads
    m_thread = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

OpeningGuard::~OpeningGuard()
{
    if (!m_thread.joinable())
        return;
    ::close(m_end[1]);
    m_thread.join();
    ::close(m_end[0]);
}

void OpeningGuard::run()
{
    // The bytes of the signals stay for the event loop.
    struct pollfd news[] = {{m_end[0], POLLIN, 0}, {InterruptWatch::descriptor(), POLLIN, 0}};
    while (::poll(news, 2, -1) < 0)
        continue;
    if (news[0].revents != 0)
        return;
    m_isInterrupted = true;
    do
        shutNewLines();
    while (::poll(news, 1, StepMs) == 0);
}

void OpeningGuard::shutNewLines() const
{
    for (int descriptor : lines()) {
        if (m_before.count(descriptor) == 0)
            ::shutdown(descriptor, SHUT_RDWR);
    }
}
