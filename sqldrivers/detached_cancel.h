/// @file
/// Requests to cancel that take their time.
#pragma once

#include <functional>
#include <memory>

/// Makes the requests of one connection in threads of their own, one at a time. A request that got
/// stuck in the network is left behind: it goes on alone and holds what it needs.
class DetachedCancel
{
public:
    /// Asks the server; may block. Runs in a thread of its own, so it owns all that it touches.
    using Request = std::function<void()>;

    DetachedCancel();

    /// Begins a request, unless one is under way or the last one for this statement is so fresh
    /// that its effect is still awaited. Any thread; returns at once. @return whether it has begun
    bool start(Request request);

    /// Waits until no request is under way, and ends the time of waiting between two. The
    /// connection's thread. @return false after 2 s: the request may reach the server at any time
    bool settle();

private:
    struct State;

    std::shared_ptr<State> m_state; ///< shared with the thread of the request
};
