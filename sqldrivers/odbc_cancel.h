/// @file
/// Requests to a server behind ODBC that are made over a second connection.
#pragma once

#include "detached_cancel.h"
#include "odbc_client.h"
#include "policy.h"
#include "socket_watch.h"

#include <memory>

/// One request at a time to the server of a connection, in a thread of its own. A server that does
/// not take it in time is as good as dead, and the line of the connection is cut.
class OdbcCancel
{
public:
    /// Begins to run a statement on a second connection, unless one is under way. Any thread;
    /// returns at once.
    /// @param parameters of the connection
    /// @param line of the connection
    void begin(const OdbcClient &client, const OpenParameters &parameters,
               const QByteArray &statement, const std::shared_ptr<SocketWatch> &line);
    /// Waits until no request can reach the connection any more. Its thread.
    /// @return false when that took too long
    bool settle() { return m_requests.settle(); }

private:
    DetachedCancel m_requests;
};
