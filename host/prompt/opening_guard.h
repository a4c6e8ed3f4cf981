/// @file
/// Giving up an opening that waits for a server.
#pragma once

#include <atomic>
#include <set>
#include <thread>

/// Ends the opening of a connection when a signal comes. The client libraries wait for a server
/// that has taken the connection and never answers, without a limit, in the thread that asked them;
/// nothing but the end of their line lets them return. So each line that was not there before is
/// shut down, again and again while they try further addresses, until the object goes: the opening
/// fails then as it does when the server ends.
///
/// An InterruptWatch catches the signals. Thread: the one that opens; it has a thread of its own
/// that does the rest.
class OpeningGuard
{
public:
    OpeningGuard();
    ~OpeningGuard();
    OpeningGuard(const OpeningGuard &) = delete;
    OpeningGuard &operator=(const OpeningGuard &) = delete;

    /// Whether a signal has come since the object was made.
    bool isInterrupted() const { return m_isInterrupted; }

private:
    void run();
    void shutNewLines() const;

    std::set<int> m_before; ///< sockets that are nobody's business here; the thread only reads
    int m_end[2] = {-1, -1};
    std::atomic<bool> m_isInterrupted{false};
    std::thread m_thread;
};
