#include "firebird_line.h"

#include <atomic>
#include <thread>

struct FirebirdLine::Watch::State {
    FirebirdLine line;
    std::atomic<bool> isAnswered{false};
    std::atomic<bool> isOver{false};
    std::atomic<bool> isCut{false};

    explicit State(const FirebirdLine &watched)
        : line(watched)
    {
    }
    void cutUnlessAnswered();
};

void FirebirdLine::Watch::State::cutUnlessAnswered()
{
    if (isAnswered || isOver)
        return;
    isCut = true;
    line.m_client.cancel(line.m_connection, FirebirdClient::Abort);
}

FirebirdLine::Watch::Watch(const FirebirdLine &line, int askAfterMs)
{
    if (!line.isRemote())
        return;
    m_state = std::make_shared<State>(line);
    // The question may get stuck, too, so it has a thread of its own, which is left behind then.
    const auto ask = [state = m_state] {
        std::thread([state] {
            if (state->line.m_client.reaches(state->line.m_address))
                state->isAnswered = true;
        }).detach();
    };
    if (askAfterMs > 0)
        m_question = DeadlineWatch::instance().add(askAfterMs, ask);
    else
        ask();
    m_end = DeadlineWatch::instance().add(askAfterMs + DeadServerMs,
                                          [state = m_state] { state->cutUnlessAnswered(); });
}

FirebirdLine::Watch::~Watch()
{
    if (!m_state)
        return;
    m_state->isOver = true;
    DeadlineWatch::instance().remove(m_end);
    if (m_question)
        DeadlineWatch::instance().remove(m_question);
}

bool FirebirdLine::Watch::hasCut() const
{
    return m_state && m_state->isCut;
}
