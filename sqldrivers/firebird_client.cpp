#include "firebird_client.h"

#include "client_library.h"

#include <QElapsedTimer>

namespace
{

// Of the client library's header.
constexpr int StatusLength = 20;
constexpr char InfoAttachmentId = 22;
constexpr std::intptr_t Cancelled = 335544794;
constexpr std::intptr_t NetworkError = 335544721;
constexpr char ParametersVersion = 1;
constexpr char ParameterConnectTimeout = 57;

/// A server that has not answered a new connection by then is not waited for.
constexpr int AnswerSeconds = 3;

} // namespace

void FirebirdClient::resolve()
{
    const ClientLibrary library({"libfbclient.so.2", "libfbclient.so"});
    library.resolve("isc_database_info", m_info);
    library.resolve("fb_cancel_operation", m_cancel);
    library.resolve("isc_attach_database", m_attach);
    library.resolve("isc_detach_database", m_detach);
}

void FirebirdClient::cancel(Handle connection, CancelOption option) const
{
    Status status[StatusLength] = {};
    if (m_cancel)
        m_cancel(status, &connection, option);
}

bool FirebirdClient::answers(Handle connection) const
{
    if (!m_info)
        return true;
    Status status[StatusLength] = {};
    const char item = InfoAttachmentId;
    char answer[64];
    m_info(status, &connection, 1, &item, sizeof answer, answer);
    return status[0] != 1 || status[1] <= 0 || status[1] == Cancelled;
}

bool FirebirdClient::reaches(const QByteArray &address) const
{
    if (!m_attach || !m_detach)
        return true;
    Status status[StatusLength] = {};
    Handle connection = 0;
    const QByteArray nowhere = address + "no such database";
    const char parameters[] = {
        ParametersVersion, ParameterConnectTimeout, 4, AnswerSeconds, 0, 0, 0};
    QElapsedTimer timer;
    timer.start();
    m_attach(status, 0, nowhere.constData(), &connection, sizeof parameters, parameters);
    if (connection)
        m_detach(status, &connection);
    // The end of the time looks like a refusal.
    return !timer.hasExpired(AnswerSeconds * 1000) && (status[0] != 1 || status[1] != NetworkError);
}
