#include "firebird_cancel.h"

#include <QElapsedTimer>

#include <utility>

namespace
{

/// The server waits a second for the connection to take its mark, and then says nothing about it.
constexpr int CertainMs = 900;

} // namespace

FirebirdCancel::FirebirdCancel(const FirebirdClient &client, const FirebirdLine &line,
                               FirebirdAddress address, FirebirdClient::Handle connection,
                               qint64 number)
    : m_client(client)
    , m_line(line)
    , m_address(std::move(address))
    , m_connection(connection)
    , m_text("DELETE FROM MON$STATEMENTS WHERE MON$ATTACHMENT_ID = " + QByteArray::number(number))
{
}

bool FirebirdCancel::open()
{
    // On a dead line the worker's connection is closed next, and then the script's.
    m_line.askServer();
    m_second = m_client.open(m_address);
    return m_second != 0;
}

bool FirebirdCancel::ask()
{
    QElapsedTimer timer;
    timer.start();
    const bool taken = m_client.run(m_second, m_text);
    m_mayComeLate = m_mayComeLate || timer.hasExpired(CertainMs);
    return taken;
}

void FirebirdCancel::close()
{
    if (m_second)
        m_client.close(m_second);
}

void FirebirdCancel::cut()
{
    m_client.cancel(m_connection, FirebirdClient::Abort);
}
