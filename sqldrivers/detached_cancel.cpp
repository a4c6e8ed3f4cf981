#include "detached_cancel.h"

#include <QDeadlineTimer>
#include <QMutex>
#include <QMutexLocker>
#include <QWaitCondition>

#include <thread>

namespace
{

/// Those who cancel ask again and again; the server is to hear it once in this time.
constexpr int RepeatMs = 500;
constexpr int SettleMs = 2000;

} // namespace

struct DetachedCancel::State {
    QMutex mutex;
    QWaitCondition ended;
    bool isBusy = false;  ///< mutex
    QDeadlineTimer pause; ///< mutex; no request before its end
};

DetachedCancel::DetachedCancel()
    : m_state(std::make_shared<State>())
{
}

bool DetachedCancel::start(Request request)
{
    {
        QMutexLocker locker(&m_state->mutex);
        if (m_state->isBusy || !m_state->pause.hasExpired())
            return false;
        m_state->isBusy = true;
        m_state->pause.setRemainingTime(RepeatMs);
    }
    std::thread([state = m_state, request = std::move(request)]() mutable {
        request();
        request = nullptr;
        QMutexLocker locker(&state->mutex);
        state->isBusy = false;
        state->ended.wakeAll();
    }).detach();
    return true;
}

bool DetachedCancel::settle()
{
    QMutexLocker locker(&m_state->mutex);
    const QDeadlineTimer deadline(SettleMs);
    while (m_state->isBusy && m_state->ended.wait(&m_state->mutex, deadline)) {
    }
    m_state->pause.setRemainingTime(0);
    return !m_state->isBusy;
}
