#include "firebird_line.h"

#include <QHash>
#include <QMutex>
#include <QMutexLocker>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace
{

/// One question to a server for a sign of life, for all who want to know at the time. It may get
/// stuck, so it has a thread of its own, which is left behind then.
struct Question {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point asked = Clock::now();
    std::atomic<bool> isAnswered{false};
    std::atomic<bool> isOver{false};

    int ageMs() const
    {
        return int(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - asked).count());
    }
    /// Whether its answer is still awaited, and says something about the server of now.
    bool isOpen() const { return !isOver && ageMs() < 2 * FirebirdLine::DeadServerMs; }
};

/// The last question to each server.
struct Questions {
    QMutex mutex;
    QHash<QByteArray, std::shared_ptr<Question>> last; ///< mutex
};

/// The question that is under way, or a new one: a dead server is asked once in a while, however
/// many connections wait for it.
/// @param since when the connection was made: an earlier question says nothing about its server
std::shared_ptr<Question> ask(const FirebirdClient &client, const QByteArray &server,
                              const FirebirdAddress &address, Question::Clock::time_point since)
{
    static auto *questions = new Questions; // threads may outlast the end of main()
    QMutexLocker locker(&questions->mutex);
    std::shared_ptr<Question> &last = questions->last[server];
    if (last && last->isOpen() && last->asked >= since)
        return last;
    last = std::make_shared<Question>();
    std::thread([question = last, client, address] {
        question->isAnswered = client.reaches(address);
        question->isOver = true;
    }).detach();
    return last;
}

} // namespace

struct FirebirdLine::Watch::State {
    FirebirdLine line;
    QMutex mutex;
    std::shared_ptr<Question> question; ///< mutex; null until it is asked
    DeadlineWatch::Id end = 0;          ///< mutex; when the question has waited long enough
    std::atomic<bool> isOver{false};

    explicit State(const FirebirdLine &watched)
        : line(watched)
    {
    }
    static void askServer(const std::shared_ptr<State> &state);
    void cutUnlessAnswered();
};

void FirebirdLine::Watch::State::askServer(const std::shared_ptr<State> &state)
{
    const QMutexLocker locker(&state->mutex);
    state->question =
        ask(state->line.m_client, state->line.m_server, state->line.m_address, state->line.m_since);
    // Others may have waited for the answer for a while.
    const int patience = std::max(0, DeadServerMs - state->question->ageMs());
    state->end = DeadlineWatch::instance().add(patience, [state] { state->cutUnlessAnswered(); });
}

void FirebirdLine::Watch::State::cutUnlessAnswered()
{
    if (isOver)
        return;
    {
        const QMutexLocker locker(&mutex);
        if (question && question->isAnswered)
            return;
    }
    line.m_client.cancel(line.m_connection, FirebirdClient::Abort);
}

void FirebirdLine::askServer() const
{
    ask(m_client, m_server, m_address, m_since);
}

FirebirdLine::Watch::Watch(const FirebirdLine &line, int askAfterMs)
{
    if (!line.isRemote())
        return;
    m_state = std::make_shared<State>(line);
    m_question =
        DeadlineWatch::instance().add(askAfterMs, [state = m_state] { State::askServer(state); });
}

FirebirdLine::Watch::~Watch()
{
    if (!m_state)
        return;
    m_state->isOver = true;
    DeadlineWatch::instance().remove(m_question);
    DeadlineWatch::Id end = 0;
    {
        const QMutexLocker locker(&m_state->mutex);
        end = m_state->end;
    }
    if (end)
        DeadlineWatch::instance().remove(end);
}
