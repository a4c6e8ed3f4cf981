#include "end_watchdog.h"

#include "running_statements.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

const std::chrono::milliseconds Limit(1800);
const std::chrono::milliseconds
    FirstCancel(200); ///< the event loop usually ends the program sooner
const int StepMs = 100;

/// What is sent to the thread; everything else is an exit code.
const unsigned char Calm = 0;
const unsigned char Quit = 255;

/// Written by the constructor before any signal handler is set.
volatile int s_writeEnd = -1;

void send(unsigned char byte)
{
    if (s_writeEnd < 0)
        return;
    const ssize_t written = ::write(s_writeEnd, &byte, 1);
    (void)written; // a full pipe holds enough news already
}

/// Signals are for the other threads.
void blockSignals(sigset_t *before)
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, before);
}

} // namespace

EndWatchdog::EndWatchdog()
{
    if (::pipe2(m_pipe, O_CLOEXEC) != 0)
        return; // without a watchdog the process ends when it can
    ::fcntl(m_pipe[1], F_SETFL, O_NONBLOCK);
    s_writeEnd = m_pipe[1];
    sigset_t before;
    blockSignals(&before);
    m_thread = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

EndWatchdog::~EndWatchdog()
{
    if (!m_thread.joinable())
        return;
    send(Quit);
    m_thread.join();
    s_writeEnd = -1;
    ::close(m_pipe[0]);
    ::close(m_pipe[1]);
}

void EndWatchdog::start(unsigned char exitCode)
{
    send(exitCode);
}

void EndWatchdog::calm()
{
    send(Calm);
}

void EndWatchdog::run()
{
    unsigned char byte = 0;
    while (::read(m_pipe[0], &byte, 1) == 1 && byte != Quit) {
        if (byte == Calm)
            continue;
        count(byte);
    }
}

void EndWatchdog::count(unsigned char exitCode)
{
    const Clock::time_point begin = Clock::now();
    struct pollfd news = {m_pipe[0], POLLIN, 0};
    // Whatever is sent now ends the counting; run() reads it.
    while (::poll(&news, 1, StepMs) <= 0) {
        const auto elapsed = Clock::now() - begin;
        if (elapsed >= Limit)
            ::_exit(exitCode);
        if (elapsed >= FirstCancel)
            RunningStatements::cancel();
    }
}
