/// @file
/// Whether a PostgreSQL server answers.
#pragma once

#include "postgres_client.h"
#include "repeated_cancel.h"
#include "socket_watch.h"

#include <QByteArray>
#include <QVector>

#include <memory>

/// Asks the server of a connection for a sign of life over a second one, which nobody logs in on:
/// the first connection, and what it runs, does not notice. When none comes in time the line is
/// cut.
class PostgresSignOfLife : public RepeatedCancel::Way
{
public:
    /// The connection's thread, while it runs nothing.
    PostgresSignOfLife(const PostgresClient &client, pg_conn *connection,
                       std::shared_ptr<SocketWatch> line);

    bool open() override;
    bool ask() override { return true; }
    void close() override {}
    void cut() override { m_line->cut(); }

private:
    PostgresClient m_client;
    QVector<QByteArray> m_names;
    QVector<QByteArray> m_values; ///< of the settings, as many
    std::shared_ptr<SocketWatch> m_line;
};
