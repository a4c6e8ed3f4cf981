/// @file
/// What runs on a connection of the recording driver now.
#pragma once

#include "thread_gate.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

/// One open connection as its driver and its results share it: what runs on it now, and whether
/// that is to be cancelled. Any thread.
class StubSession
{
public:
    enum class Pause { Over, Cancelled, TimedOut };

    explicit StubSession(int number)
        : m_number(number)
    {
    }

    int number() const { return m_number; }

    /// A statement begins: earlier cancel requests are not for it.
    void begin()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_cancelled = false;
        ++m_running;
    }

    /// The statement has ended and its rows are read or given up.
    void end()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (--m_running == 0)
            m_cancelled = false;
    }

    /// @return whether there was anything to cancel.
    bool cancel()
    {
        ThreadGatePtr gate;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_running == 0)
                return false;
            m_cancelled = true;
            gate = m_gate;
            m_changed.notify_all();
        }
        if (gate)
            gate->poke();
        return true;
    }

    bool isCancelled() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_cancelled;
    }

    /// Waits as the test has asked for, unless cancelled.
    Pause pause(int delayMs, const ThreadGatePtr &gate)
    {
        if (delayMs > 0)
            sleep(delayMs);
        if (gate && !isCancelled() && !standAt(gate))
            return Pause::TimedOut;
        return isCancelled() ? Pause::Cancelled : Pause::Over;
    }

private:
    void sleep(int ms)
    {
        const auto until = std::chrono::system_clock::now() + std::chrono::milliseconds(ms);
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_until(lock, until, [this] { return m_cancelled; });
    }

    bool standAt(const ThreadGatePtr &gate)
    {
        setGate(gate);
        const ThreadGate::Passage passage = gate->pass([this] { return isCancelled(); });
        setGate({});
        return passage != ThreadGate::Passage::TimedOut;
    }

    void setGate(const ThreadGatePtr &gate)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_gate = gate;
    }

    const int m_number;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_running = 0;        // statements with something left to cancel; guarded by m_mutex
    bool m_cancelled = false; // guarded by m_mutex
    ThreadGatePtr m_gate;     // guarded by m_mutex
};

using StubSessionPtr = std::shared_ptr<StubSession>;
