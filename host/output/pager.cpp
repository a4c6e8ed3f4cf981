#include "pager.h"

#include "screen.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

const char DefaultPager[] = "less -S";

/// Ctrl-C is the pager's while it runs, and its end is no reason to end.
class QuietSignals
{
public:
    QuietSignals()
    {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGINT, &ignore, &m_interrupt);
        sigaction(SIGPIPE, &ignore, &m_pipe);
    }

    ~QuietSignals()
    {
        sigaction(SIGINT, &m_interrupt, nullptr);
        sigaction(SIGPIPE, &m_pipe, nullptr);
    }

    QuietSignals(const QuietSignals &) = delete;
    QuietSignals &operator=(const QuietSignals &) = delete;

private:
    struct sigaction m_interrupt = {};
    struct sigaction m_pipe = {};
};

} // namespace

Pager::Pager()
{
    m_room = Screen::rows() - 1;
    if (m_room > 1)
        m_command =
            qEnvironmentVariableIsSet("PAGER") ? qgetenv("PAGER") : QByteArray(DefaultPager);
}

Pager::~Pager()
{
    finish();
}

bool Pager::write(const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    if (m_pipe >= 0)
        return send(bytes);
    if (m_command.isEmpty()) {
        m_held += bytes;
        finish();
        return !std::ferror(stdout);
    }
    m_held += bytes;
    m_lines += bytes.count('\n');
    if (m_lines < m_room)
        return true;
    if (!start()) {
        m_command.clear();
        return true;
    }
    const QByteArray held = m_held;
    m_held.clear();
    return send(held);
}

/// The shell reads the command, as everybody's PAGER expects.
bool Pager::start()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return false;
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_adddup2(&files, ends[0], STDIN_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGPIPE); // the host ignores it
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    char shell[] = "sh";
    char option[] = "-c";
    char *const arguments[] = {shell, option, m_command.data(), nullptr};
    const int error = ::posix_spawn(&m_process, "/bin/sh", &files, &attributes, arguments, environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    ::close(ends[0]);
    m_pipe = ends[1];
    if (error == 0)
        return true;
    ::close(m_pipe);
    m_pipe = -1;
    return false;
}

bool Pager::send(const QByteArray &bytes)
{
    const QuietSignals quiet;
    const char *rest = bytes.constData();
    qint64 size = bytes.size();
    while (size > 0) {
        const ssize_t written = ::write(m_pipe, rest, static_cast<size_t>(size));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        rest += written;
        size -= written;
    }
    return true;
}

void Pager::finish()
{
    if (m_pipe >= 0) {
        const QuietSignals quiet;
        ::close(m_pipe);
        m_pipe = -1;
        while (::waitpid(m_process, nullptr, 0) < 0 && errno == EINTR) {
        }
        return;
    }
    std::fwrite(m_held.constData(), 1, static_cast<size_t>(m_held.size()), stdout);
    std::fflush(stdout);
    m_held.clear();
}
