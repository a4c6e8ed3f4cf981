#include "watched_statement.h"

namespace
{

/// A request to end a statement may have come between two of its calls.
constexpr int TimeOutAgainMs = 500;

} // namespace

void WatchedStatement::begin(int limitMs)
{
    m_gate->run(m_statement);
    if (limitMs > 0 && !m_deadline) {
        m_deadline = DeadlineWatch::instance().repeat(
            limitMs, TimeOutAgainMs,
            [gate = m_gate, statement = &m_statement] { return gate->timeOut(*statement); });
    }
}

bool WatchedStatement::end()
{
    if (m_deadline) {
        DeadlineWatch::instance().remove(m_deadline);
        m_deadline = 0;
    }
    return m_gate->end(m_statement);
}
