/// @file
/// Ends what a Firebird server does for another connection.
#pragma once

#include "firebird_client.h"
#include "firebird_line.h"
#include "repeated_cancel.h"

/// Deletes the connection's statements from the server's list of what it does, which cancels them.
/// The list shows everybody their own connections. For one connection, over a second one with the
/// same name and password, so that its own line carries nothing but what its own thread sends.
class FirebirdCancel : public RepeatedCancel::Way
{
public:
    /// @param line of the connection
    /// @param number of the connection, by FirebirdClient::number()
    FirebirdCancel(const FirebirdClient &client, const FirebirdLine &line, FirebirdAddress address,
                   FirebirdClient::Handle connection, qint64 number);

    bool open() override;
    bool ask() override;
    void close() override;
    bool mayComeLate() const override { return m_mayComeLate; }
    void cut() override;

private:
    FirebirdClient m_client;
    FirebirdLine m_line;
    FirebirdAddress m_address;
    FirebirdClient::Handle m_connection; ///< to be cancelled
    QByteArray m_text;
    FirebirdClient::Handle m_second = 0;
    bool m_mayComeLate = false;
};
