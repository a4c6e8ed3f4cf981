#include "cancel_gate.h"

#include <QMutexLocker>

void CancelGate::setInterrupter(Interrupter *interrupter)
{
    QMutexLocker locker(&m_mutex);
    m_interrupter = interrupter;
    m_requested = false;
}

void CancelGate::run(Statement &statement)
{
    QMutexLocker locker(&m_mutex);
    if (statement.m_phase == Phase::Idle)
        m_active.append(&statement);
    statement.m_phase = Phase::Running;
    statement.m_reason.store(Reason::None, std::memory_order_release);
    m_current.store(&statement, std::memory_order_relaxed);
}

bool CancelGate::stream(Statement &statement)
{
    QMutexLocker locker(&m_mutex);
    if (statement.isCancelled())
        return false;
    if (statement.m_phase == Phase::Running)
        statement.m_phase = Phase::Streaming;
    return true;
}

bool CancelGate::end(Statement &statement)
{
    Interrupter *interrupter = nullptr;
    {
        QMutexLocker locker(&m_mutex);
        if (statement.m_phase == Phase::Idle)
            return true;
        statement.m_phase = Phase::Idle;
        m_active.removeOne(&statement);
        if (m_current.load(std::memory_order_relaxed) == &statement)
            m_current.store(nullptr, std::memory_order_relaxed);
        if (m_requested)
            interrupter = m_interrupter;
        m_requested = false;
    }
    // Nobody makes a new request now, as far as this statement goes, so the wait needs no lock.
    return !interrupter || interrupter->settle();
}

bool CancelGate::cancel()
{
    QMutexLocker locker(&m_mutex);
    if (m_active.isEmpty())
        return false;
    // The mark comes first: the error that the request causes must find it.
    for (Statement *statement : qAsConst(m_active)) {
        if (!statement->isCancelled())
            statement->m_reason.store(Reason::Asked, std::memory_order_release);
    }
    request();
    return true;
}

bool CancelGate::timeOut(Statement &statement)
{
    QMutexLocker locker(&m_mutex);
    if (!m_active.contains(&statement) || statement.reason() == Reason::Asked)
        return false;
    statement.m_reason.store(Reason::TimedOut, std::memory_order_release);
    request();
    return true;
}

/// With the mutex held.
void CancelGate::request()
{
    if (!m_interrupter)
        return;
    Phase phase = Phase::Streaming;
    for (const Statement *statement : qAsConst(m_active)) {
        if (statement->m_phase == Phase::Running)
            phase = Phase::Running;
    }
    m_requested = true;
    m_interrupter->interrupt(phase, m_active.size() == 1);
}
