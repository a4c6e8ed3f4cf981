/// @file
/// Requests to cancel that are made over a second connection.
#pragma once

#include "detached_cancel.h"

#include <QMutex>

#include <memory>

/// Asks a server, over a connection of its own, to end what another connection runs, and asks again
/// until that is over: a request that comes before its statement has reached the server ends
/// nothing. A server that does not take a request in time is as good as dead, and the line on which
/// the statement waits for it is cut.
class RepeatedCancel
{
public:
    /// How the server of one system is asked, for one statement. It may be stuck in the network
    /// long after the statement, so it owns all that it touches. In a thread of its own except for
    /// cut().
    class Way
    {
    public:
        virtual ~Way() = default;
        /// Opens the second connection; may block. @return whether it is open
        virtual bool open() = 0;
        /// Asks once; may block. @return whether the server has taken the request
        virtual bool ask() = 0;
        /// Ends the second connection, if it is open.
        virtual void close() = 0;
        /// Whether a request may still reach its connection although ask() has returned. Looked at
        /// when no request is under way any more.
        virtual bool mayComeLate() const { return false; }
        /// Ends the line of the statement; returns at once. In another thread, while a call of the
        /// others may be stuck.
        virtual void cut() = 0;
    };

    /// Begins to ask, unless that goes on already. Any thread; returns at once.
    void begin(std::shared_ptr<Way> way);

    /// The statement is over: waits until no request can reach its connection any more. The
    /// connection's thread. @return false when the connection has to be given up
    bool settle();

private:
    struct Request;

    QMutex m_mutex;
    std::shared_ptr<Request> m_request; ///< m_mutex; of the statement that runs
    DetachedCancel m_threads;
};
