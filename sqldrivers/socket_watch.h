/// @file
/// A look at a socket that belongs to somebody else.
#pragma once

/// Watches a connection's socket through a descriptor of its own, so that it never looks at, or
/// cuts, a socket that was opened later under the same number. Any thread.
class SocketWatch
{
public:
    /// @param socket a connected socket, which stays its owner's
    explicit SocketWatch(int socket);
    ~SocketWatch();
    SocketWatch(const SocketWatch &) = delete;
    SocketWatch &operator=(const SocketWatch &) = delete;

    /// Whether the other side has closed the connection, or an error has ended it. A line that is
    /// merely silent does not show.
    bool isCut() const;
    /// Ends the connection for whoever waits for bytes on it, in any thread.
    void cut() const;

private:
    int m_descriptor; ///< -1 without a socket
};
