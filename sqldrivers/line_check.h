/// @file
/// Calls that wait for a server without being a statement that anybody cancels.
#pragma once

#include "deadline_watch.h"
#include "policy.h"
#include "socket_watch.h"

#include <functional>
#include <memory>
#include <utility>

/// Has the server asked for a sign of life when the call takes long; a server that does not answer
/// has its line cut by whoever asks. The connection's thread; the question comes in another one.
class LineCheck : public LineWatch
{
public:
    /// @param requests what makes the question; waited for at the end
    /// @param ask begins to ask; returns at once
    LineCheck(CancelGate::Interrupter &requests, std::function<void()> ask)
        : m_requests(requests)
        , m_question(DeadlineWatch::instance().add(AskAfterMs, std::move(ask)))
    {
    }
    ~LineCheck() override
    {
        DeadlineWatch::instance().remove(m_question);
        m_requests.settle();
    }
    LineCheck(const LineCheck &) = delete;
    LineCheck &operator=(const LineCheck &) = delete;

private:
    static constexpr int AskAfterMs = 200;

    CancelGate::Interrupter &m_requests;
    DeadlineWatch::Id m_question;
};

/// Cuts a line on which nothing has come back in time.
class LineCut : public LineWatch
{
public:
    LineCut(const std::shared_ptr<SocketWatch> &socket, int ms)
        : m_deadline(DeadlineWatch::instance().add(ms, [socket] { socket->cut(); }))
    {
    }
    ~LineCut() override { DeadlineWatch::instance().remove(m_deadline); }
    LineCut(const LineCut &) = delete;
    LineCut &operator=(const LineCut &) = delete;

private:
    DeadlineWatch::Id m_deadline;
};
