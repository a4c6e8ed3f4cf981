/// @file
/// The line to a Firebird server, which may be dead.
#pragma once

#include "deadline_watch.h"
#include "firebird_client.h"
#include "policy.h"

#include <chrono>
#include <memory>
#include <utility>

/// Firebird's client library waits for an answer without an end, also when the server is dead. A
/// live one, though, may take long to undo a change.
/// So the two are told apart by a new connection to the same server: when that is not answered
/// either, the line is cut, and what waited for it fails.
class FirebirdLine
{
public:
    /// How long a server may take to answer a new connection.
    static constexpr int DeadServerMs = 2000;

    /// @param server what stands before a database's name, "host/port:"; empty for the engine in
    /// this process, which cannot be silent
    /// @param address of the connection
    FirebirdLine(const FirebirdClient &client, FirebirdClient::Handle connection, QByteArray server,
                 FirebirdAddress address)
        : m_client(client)
        , m_connection(connection)
        , m_server(std::move(server))
        , m_address(std::move(address))
    {
    }

    bool isRemote() const { return !m_server.isEmpty(); }

    /// Asks the server for a sign of life now, for all who watch a line to it soon: they need not
    /// wait as long for the answer. Any thread; returns at once.
    void askServer() const;

    /// Watches over calls for as long as it lives. Any thread.
    class Watch : public LineWatch
    {
    public:
        /// @param askAfterMs how long it may take before the server is asked for a sign of life
        Watch(const FirebirdLine &line, int askAfterMs);
        ~Watch() override;
        Watch(const Watch &) = delete;
        Watch &operator=(const Watch &) = delete;

    private:
        struct State;
        std::shared_ptr<State> m_state; ///< shared with the deadlines; null for an engine
        DeadlineWatch::Id m_question = 0;
    };

private:
    FirebirdClient m_client;
    FirebirdClient::Handle m_connection;
    QByteArray m_server;
    FirebirdAddress m_address;
    std::chrono::steady_clock::time_point m_since = std::chrono::steady_clock::now();
};
