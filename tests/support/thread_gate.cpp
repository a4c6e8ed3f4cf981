#include "thread_gate.h"

#include <chrono>

namespace
{

// system_clock: the wait on it is the one that thread sanitizers of every age know.
std::chrono::system_clock::time_point after(int ms)
{
    return std::chrono::system_clock::now() + std::chrono::milliseconds(scaledMs(ms));
}

} // namespace

ThreadGate::Passage ThreadGate::pass(const std::function<bool()> &aborted, int ms)
{
    const auto limit = after(ms);
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_arrivals;
    ++m_waiting;
    m_changed.notify_all();
    bool stopped = false;
    m_changed.wait_until(lock, limit, [&] {
        stopped = aborted && aborted();
        return m_open || stopped;
    });
    --m_waiting;
    if (stopped)
        return Passage::Aborted;
    return m_open ? Passage::Released : Passage::TimedOut;
}

bool ThreadGate::waitReached(int ms, int arrivals)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_until(lock, after(ms), [&] { return m_arrivals >= arrivals; });
}

int ThreadGate::arrivals() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_arrivals;
}

int ThreadGate::waiting() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_waiting;
}

void ThreadGate::release()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open = true;
    m_changed.notify_all();
}

void ThreadGate::poke()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_changed.notify_all();
}
