#include "terminal_session.h"

#include <QDeadlineTimer>
#include <QRegularExpression>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

const int LimitMs = 30000;
const int PieceSize = 65536;

QByteArray withoutControlSequences(const QByteArray &raw)
{
    static const QRegularExpression sequence(QStringLiteral("\x1b\\[[0-9;?]*[A-Za-z]"));
    QString text = QString::fromUtf8(raw);
    // A line that is cleared may have been read already: it stays, as a line of its own.
    text.replace(QLatin1String("\r\x1b[K"), QLatin1String("\n"));
    text.remove(sequence);
    text.remove(QLatin1Char('\r'));
    return text.toUtf8();
}

} // namespace

TerminalSession::TerminalSession(const QString &dataFolder)
    : TerminalSession(dataFolder, Settings())
{
}

TerminalSession::TerminalSession(const QString &dataFolder, const Settings &settings)
{
    const QByteArray folder = dataFolder.toLocal8Bit();
    winsize size = {};
    size.ws_col = static_cast<unsigned short>(settings.columns);
    size.ws_row = static_cast<unsigned short>(settings.rows);
    m_process = ::forkpty(&m_terminal, nullptr, nullptr, &size);
    if (m_process != 0)
        return;
    ::setenv("XDG_DATA_HOME", folder.constData(), 1);
    ::setenv("TERM", "xterm", 1);
    ::setenv("INPUTRC", "/dev/null", 1);
    if (settings.pager.isNull())
        ::unsetenv("PAGER");
    else
        ::setenv("PAGER", settings.pager.constData(), 1);
    const char *option = settings.option.isNull() ? nullptr : settings.option.constData();
    ::execl(VEXT_RUN_FILE, VEXT_RUN_FILE, option, static_cast<char *>(nullptr));
    ::_exit(127);
}

TerminalSession::~TerminalSession()
{
    if (m_process > 0) {
        ::kill(m_process, SIGKILL);
        ::waitpid(m_process, nullptr, 0);
    }
    if (m_terminal >= 0)
        ::close(m_terminal);
}

void TerminalSession::type(const QByteArray &keys)
{
    const ssize_t written = ::write(m_terminal, keys.constData(), static_cast<size_t>(keys.size()));
    Q_ASSERT(written == keys.size());
    Q_UNUSED(written)
}

bool TerminalSession::typeMuch(const QByteArray &keys)
{
    const QDeadlineTimer deadline(8 * LimitMs);
    int typed = 0;
    char shown[PieceSize];
    const int flags = ::fcntl(m_terminal, F_GETFL);
    ::fcntl(m_terminal, F_SETFL, flags | O_NONBLOCK); // each side may wait for the other one
    while (typed < keys.size() && !deadline.hasExpired()) {
        pollfd waiting = {m_terminal, POLLIN | POLLOUT, 0};
        ::poll(&waiting, 1, 100);
        if (waiting.revents & POLLHUP)
            break; // the other end is closed
        if ((waiting.revents & POLLIN) && ::read(m_terminal, shown, sizeof shown) <= 0)
            break;
        if (!(waiting.revents & POLLOUT))
            continue;
        const int size = qMin(PieceSize, keys.size() - typed);
        const ssize_t count = ::write(m_terminal, keys.constData() + typed, size_t(size));
        typed += count > 0 ? static_cast<int>(count) : 0;
    }
    ::fcntl(m_terminal, F_SETFL, flags);
    return typed == keys.size();
}

bool TerminalSession::readMore(int milliseconds)
{
    if (m_terminal < 0)
        return ::usleep(static_cast<useconds_t>(milliseconds) * 1000) == 0;
    pollfd waiting = {m_terminal, POLLIN, 0};
    if (::poll(&waiting, 1, milliseconds) <= 0)
        return true;
    char chunk[4096];
    const ssize_t count = ::read(m_terminal, chunk, sizeof chunk);
    if (count <= 0)
        return false; // the other end is closed
    m_raw.append(chunk, static_cast<int>(count));
    m_screen = withoutControlSequences(m_raw);
    return true;
}

bool TerminalSession::waitFor(const QByteArray &text)
{
    const QDeadlineTimer deadline(LimitMs);
    for (;;) {
        const int found = m_screen.indexOf(text, m_seen);
        if (found >= 0) {
            m_seen = found + text.size();
            return true;
        }
        if (deadline.hasExpired() || !readMore(100))
            return false;
    }
}

bool TerminalSession::enter(const QByteArray &line, const QByteArray &answer)
{
    type(line + '\r');
    return waitFor(line) && waitFor(answer) && waitFor("vext> ");
}

void TerminalSession::hangUp()
{
    ::close(m_terminal);
    m_terminal = -1;
}

int TerminalSession::finish()
{
    const QDeadlineTimer deadline(LimitMs);
    while (!deadline.hasExpired()) {
        const bool open = readMore(20);
        int status = 0;
        if (::waitpid(m_process, &status, open ? WNOHANG : 0) != m_process)
            continue;
        m_process = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return -1;
}
