#include "password_question.h"

#include <QByteArray>

#include <cerrno>
#include <cstdio>
#include <termios.h>
#include <unistd.h>

namespace
{

const char Interrupt = '\x03';
const char EndOfInput = '\x04';

/// The terminal without echo, and with Ctrl-C as a character; as it was when this goes.
class SilentTerminal
{
public:
    SilentTerminal()
    {
        m_isTerminal = ::tcgetattr(STDIN_FILENO, &m_before) == 0;
        termios silent = m_before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | ISIG);
        silent.c_cc[VMIN] = 1;
        silent.c_cc[VTIME] = 0;
        if (m_isTerminal)
            ::tcsetattr(STDIN_FILENO, TCSANOW, &silent);
    }

    ~SilentTerminal()
    {
        if (m_isTerminal)
            ::tcsetattr(STDIN_FILENO, TCSANOW, &m_before);
    }

    SilentTerminal(const SilentTerminal &) = delete;
    SilentTerminal &operator=(const SilentTerminal &) = delete;

private:
    termios m_before = {};
    bool m_isTerminal = false;
};

/// Takes the last character off, with all of its bytes.
void removeLast(QByteArray *typed)
{
    while (!typed->isEmpty() && (typed->back() & 0xC0) == 0x80)
        typed->chop(1);
    typed->chop(1);
}

bool readLine(QByteArray *typed)
{
    for (;;) {
        char c = 0;
        const ssize_t count = ::read(STDIN_FILENO, &c, 1);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0 || c == Interrupt || c == EndOfInput)
            return false;
        if (c == '\n' || c == '\r')
            return true;
        if (c == '\b' || c == '\x7f')
            removeLast(typed);
        else
            typed->append(c);
    }
}

} // namespace

bool PasswordQuestion::ask(const QString &question, QString *password)
{
    const SilentTerminal silent;
    std::fputs(question.toUtf8().constData(), stdout);
    std::fflush(stdout);
    QByteArray typed;
    const bool answered = readLine(&typed);
    std::fputc('\n', stdout);
    std::fflush(stdout);
    if (answered)
        *password = QString::fromUtf8(typed);
    return answered;
}
