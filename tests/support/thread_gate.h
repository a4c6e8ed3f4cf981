/// @file
/// A gate that holds a thread at a known point until the test lets it go on.
#pragma once

#include "deadline.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

/// Makes the order of two threads a fact instead of a chance: the worker calls pass() where it is
/// to stand still, the test waits with waitReached() and then opens the gate with release().
/// All members may be called from any thread. Shared by the test and what it hands the gate to.
class ThreadGate
{
public:
    /// How a thread came through the gate.
    enum class Passage { Released, Aborted, TimedOut };

    static constexpr int defaultPassMs = 60000;

    static std::shared_ptr<ThreadGate> create() { return std::make_shared<ThreadGate>(); }

    /// Stands still until release(), or until @p aborted answers true (asked on arrival and after
    /// each poke()), or until the limit has passed.
    Passage pass(const std::function<bool()> &aborted = {}, int ms = defaultPassMs);

    /// Blocks until @p arrivals threads in all have arrived; no events are handled meanwhile.
    bool waitReached(int ms = defaultWaitMs, int arrivals = 1);

    /// How many threads have arrived so far, those that have left included.
    int arrivals() const;

    /// How many threads stand at the gate now.
    int waiting() const;

    /// Opens the gate for good: who waits goes on, who comes later does not stop.
    void release();

    /// Lets the waiting threads ask their abort condition again.
    void poke();

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false; // guarded by m_mutex
    int m_arrivals = 0;  // guarded by m_mutex
    int m_waiting = 0;   // guarded by m_mutex
};

using ThreadGatePtr = std::shared_ptr<ThreadGate>;

/// Opens a gate at the end of the scope, so that a test which fails half-way leaves no thread
/// behind a closed gate.
class GateGuard
{
public:
    explicit GateGuard(ThreadGatePtr gate)
        : m_gate(std::move(gate))
    {
    }
    ~GateGuard() { m_gate->release(); }
    GateGuard(const GateGuard &) = delete;
    GateGuard &operator=(const GateGuard &) = delete;

private:
    ThreadGatePtr m_gate;
};
