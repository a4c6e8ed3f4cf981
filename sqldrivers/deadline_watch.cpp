#include "deadline_watch.h"

#include <algorithm>
#include <utility>

DeadlineWatch &DeadlineWatch::instance()
{
    static auto *watch = new DeadlineWatch; // its thread may outlast the end of main()
    return *watch;
}

DeadlineWatch::Id DeadlineWatch::add(int ms, std::function<void()> action)
{
    return repeat(ms, 0, [action = std::move(action)] {
        action();
        return false;
    });
}

DeadlineWatch::Id DeadlineWatch::repeat(int ms, int againMs, std::function<bool()> action)
{
    const std::lock_guard<std::mutex> locker(m_mutex);
    if (!m_started) {
        m_started = true;
        std::thread([this] { run(); }).detach();
    }
    const Id id = ++m_lastId;
    m_deadlines[id] = {Clock::now() + std::chrono::milliseconds(ms), std::move(action),
                       std::chrono::milliseconds(againMs)};
    m_changed.notify_all();
    return id;
}

void DeadlineWatch::remove(Id id)
{
    std::unique_lock<std::mutex> locker(m_mutex);
    m_deadlines.erase(id);
    m_forgotten = m_forgotten || m_acting == id;
    m_changed.wait(locker, [this, id] { return m_acting != id; });
}

void DeadlineWatch::run()
{
    std::unique_lock<std::mutex> locker(m_mutex);
    for (;;) {
        const auto next = std::min_element(
            m_deadlines.begin(), m_deadlines.end(),
            [](const auto &one, const auto &other) { return one.second.at < other.second.at; });
        if (next == m_deadlines.end()) {
            m_changed.wait(locker);
            continue;
        }
        if (Clock::now() < next->second.at) {
            const Clock::time_point until = next->second.at;
            m_changed.wait_until(locker, until);
            continue;
        }
        m_acting = next->first;
        Deadline due = std::move(next->second);
        m_deadlines.erase(next);
        locker.unlock();
        const bool goesOn = due.action();
        locker.lock();
        if (goesOn && !m_forgotten) {
            due.at = Clock::now() + due.again;
            m_deadlines[m_acting] = std::move(due);
        }
        m_acting = 0;
        m_forgotten = false;
        m_changed.notify_all();
    }
}
