/// @file
/// Calls a function at a later time.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

/// One thread for all deadlines of the process, started with the first of them. It is never joined:
/// it lives as long as the process, and so does the object.
class DeadlineWatch
{
public:
    using Id = std::uint64_t; ///< 0 is none

    static DeadlineWatch &instance();

    /// Has the action called in the watch's thread after that many milliseconds, once. It has to
    /// return soon. Any thread.
    Id add(int ms, std::function<void()> action);
    /// The same, and again after as many milliseconds for as long as the action answers true.
    Id repeat(int ms, int againMs, std::function<bool()> action);
    /// Forgets a deadline. When this returns the action has run or will never run. Any thread but
    /// the watch's own.
    void remove(Id id);

private:
    using Clock = std::chrono::steady_clock;
    struct Deadline {
        Clock::time_point at;
        std::function<bool()> action;
        std::chrono::milliseconds again;
    };

    DeadlineWatch() = default;
    void run();

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<Id, Deadline> m_deadlines; ///< m_mutex; few at any time
    Id m_lastId = 0;                    ///< m_mutex
    Id m_acting = 0;                    ///< m_mutex; whose action runs now
    bool m_forgotten = false;           ///< m_mutex; that one's
    bool m_started = false;             ///< m_mutex
};
