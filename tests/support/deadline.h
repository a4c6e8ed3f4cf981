/// @file
/// Waits of the tests. Every wait has a limit in milliseconds and ends as soon as what it waits
/// for has come; no test sleeps for a fixed time.
#pragma once

#include <QDeadlineTimer>

#include <functional>

/// Limit of a wait that is expected to be short.
constexpr int defaultWaitMs = 10000;

/// A limit as it really applies: @p ms multiplied by the environment variable
/// VEXT_TEST_TIME_FACTOR (a whole number, 1 when unset), for runs under sanitizers and valgrind.
int scaledMs(int ms);

/// A point in time after which waiting is given up.
class Deadline
{
public:
    /// @param ms limit from now, scaled by scaledMs().
    explicit Deadline(int ms)
        : m_timer(scaledMs(ms))
    {
    }

    bool expired() const { return m_timer.hasExpired(); }
    qint64 remainingMs() const { return m_timer.remainingTime(); }

private:
    QDeadlineTimer m_timer;
};

/// Runs the calling thread's events until @p reached answers true.
/// Objects given to deleteLater() are deleted meanwhile. @p reached is asked in the calling thread,
/// at least every few milliseconds, and once more when the limit has passed.
/// @return whether it answered true within the limit.
bool waitUntil(const std::function<bool()> &reached, int ms = defaultWaitMs);

/// Makes an attempt again until one of them takes less than @p ms, which is not scaled. For what is
/// promised not to wait: a machine that stands still delays one attempt or the other, a wait that
/// should not be there delays each of them.
/// @return milliseconds that the last attempt took: the quick one, or that of the last failure.
qint64 quickAttemptMs(int ms, const std::function<void()> &attempt, int attempts = 5);

/// Handles all events that are waiting in the calling thread, deleteLater() included, and those
/// which they cause, without waiting for new ones.
void drainEvents();
