#include "interrupt_watch.h"

#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace
{

const int Signals[] = {SIGINT, SIGTERM, SIGHUP};

const int SignalBase = 128; ///< the shell's way to tell a signal from an exit code

int s_readEnd = -1;

/// Written by the constructor before the handler is set, read by the handler.
volatile int s_writeEnd = -1;
volatile sig_atomic_t s_interruptEnds = 1;
void (*volatile s_hook)() = nullptr;

void setAction(int number, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(number, &action, nullptr);
}

/// Does only what is allowed in a signal handler.
void onSignal(int number)
{
    const int savedErrno = errno;
    for (int caught : Signals)
        setAction(caught, SIG_DFL);
    if (number != SIGINT || s_interruptEnds)
        EndWatchdog::start(static_cast<unsigned char>(SignalBase + number));
    if (s_hook)
        s_hook();
    const unsigned char byte = static_cast<unsigned char>(number);
    const ssize_t written = ::write(s_writeEnd, &byte, 1);
    (void)written; // a full pipe holds enough news already
    errno = savedErrno;
}

} // namespace

InterruptWatch::InterruptWatch(QObject *parent)
    : QObject(parent)
{
    if (::pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return; // the signals keep their default effect
    s_writeEnd = m_pipe[1];
    s_readEnd = m_pipe[0];
    m_notifier.reset(new QSocketNotifier(m_pipe[0], QSocketNotifier::Read));
    connect(m_notifier.data(), &QSocketNotifier::activated, this, &InterruptWatch::read);
    arm();
}

InterruptWatch::~InterruptWatch()
{
    if (!m_notifier)
        return;
    for (int number : Signals)
        setAction(number, SIG_DFL);
    s_writeEnd = -1;
    s_readEnd = -1;
    s_interruptEnds = 1;
    m_notifier.reset();
    ::close(m_pipe[0]);
    ::close(m_pipe[1]);
}

void InterruptWatch::arm()
{
    if (!m_notifier)
        return;
    EndWatchdog::calm();
    for (int number : Signals)
        setAction(number, onSignal);
}

int InterruptWatch::descriptor()
{
    return s_readEnd;
}

void InterruptWatch::setHook(void (*hook)())
{
    s_hook = hook;
}

void InterruptWatch::setInterruptEnds(bool on)
{
    s_interruptEnds = on ? 1 : 0;
}

void InterruptWatch::read()
{
    unsigned char byte = 0;
    while (::read(m_pipe[0], &byte, 1) == 1)
        emit interrupted(byte);
}
