/// @file
/// Which socket belongs to a connection that somebody else has opened.
#pragma once

#include <QSet>

#include <functional>

/// Finds the socket of a connection whose client library does not tell it: it is new since the
/// connection was about to be opened, and sends when the connection does. Other threads may open
/// sockets meanwhile, so a socket is only named when no other one fits. Linux; any thread.
class SocketFinder
{
public:
    /// Remembers the sockets that the process has now.
    SocketFinder();

    /// @param talk has the connection send something and wait for the answer; called a few times
    /// @return the descriptor, still owned by the client library; -1 when it cannot be told
    int find(const std::function<void()> &talk) const;

private:
    QSet<quint64> m_known; ///< inode numbers, which no two sockets share
};
