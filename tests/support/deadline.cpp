#include "deadline.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

namespace
{

constexpr int tickMs = 2;      // how often a condition is asked while no event comes
constexpr int drainRounds = 8; // events which cause events, bounded for those that never cease

int timeFactor()
{
    const int factor = qEnvironmentVariableIntValue("VEXT_TEST_TIME_FACTOR");
    return factor > 0 ? factor : 1;
}

void deleteDeferred()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

} // namespace

int scaledMs(int ms)
{
    static const int factor = timeFactor();
    return ms * factor;
}

bool waitUntil(const std::function<bool()> &reached, int ms)
{
    const Deadline limit(ms);
    QEventLoop loop;
    QTimer tick;
    tick.start(tickMs); // wakes the loop below when no other event does
    for (;;) {
        if (reached())
            return true;
        if (limit.expired())
            return false;
        loop.processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
        deleteDeferred();
    }
}

qint64 quickAttemptMs(int ms, const std::function<void()> &attempt, int attempts)
{
    QElapsedTimer timer;
    qint64 taken = 0;
    do {
        timer.start();
        attempt();
        taken = timer.elapsed();
    } while (taken >= ms && --attempts > 0);
    return taken;
}

void drainEvents()
{
    QEventLoop loop;
    for (int round = 0; round < drainRounds; ++round) {
        QCoreApplication::sendPostedEvents();
        loop.processEvents(QEventLoop::AllEvents);
        deleteDeferred();
    }
}
