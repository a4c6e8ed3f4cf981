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
constexpr char ParameterUser = 28;
constexpr char ParameterPassword = 29;
constexpr char ParameterConnectTimeout = 57;

/// A server that has not answered a new connection by then is not waited for.
constexpr char AnswerSeconds = 3;
constexpr unsigned short Dialect = 3;

/// A parameter of a connection: its kind, its length in a byte, its value.
QByteArray parameter(char kind, const QByteArray &value)
{
    constexpr int LongestParameter = 255; // as the stock driver has it
    const QByteArray kept = value.left(LongestParameter);
    return QByteArray(1, kind) + char(kept.size()) + kept;
}

QByteArray waitingForAnAnswer()
{
    return QByteArray(1, ParametersVersion) +
           parameter(ParameterConnectTimeout, QByteArray(1, AnswerSeconds) + QByteArray(3, 0));
}

} // namespace

void FirebirdClient::resolve()
{
    const ClientLibrary library({"libfbclient.so.2", "libfbclient.so"});
    library.resolve("isc_database_info", m_info);
    library.resolve("fb_cancel_operation", m_cancel);
    library.resolve("isc_attach_database", m_attach);
    library.resolve("isc_detach_database", m_detach);
    library.resolve("isc_dsql_execute_immediate", m_execute);
    library.resolve("isc_commit_transaction", m_commit);
}

void FirebirdClient::cancel(Handle connection, CancelOption option) const
{
    Status status[StatusLength] = {};
    if (m_cancel)
        m_cancel(status, &connection, option);
}

bool FirebirdClient::answers(Handle connection) const
{
    // Rows that the server has sent ahead are received by the first question, and where they end
    // with an error, the library (3.0) loses the answer itself and calls it invalid.
    QByteArray answer;
    return ask(connection, &answer) || ask(connection, &answer);
}

qint64 FirebirdClient::number(Handle connection) const
{
    QByteArray answer;
    if (!m_info || !ask(connection, &answer) || answer.at(0) != InfoAttachmentId)
        return 0;
    // The length in two bytes and the number in as many, the lowest first.
    constexpr int Start = 3;
    const int length = answer.at(1);
    qint64 number = 0;
    for (int i = length - 1; i >= 0; --i)
        number = number << 8 | quint8(answer.at(Start + i));
    return number;
}

/// @return whether there was an answer
bool FirebirdClient::ask(Handle connection, QByteArray *answer) const
{
    constexpr short AnswerLength = 64;
    *answer = QByteArray(AnswerLength, 0);
    if (!m_info)
        return true;
    Status status[StatusLength] = {};
    const char item = InfoAttachmentId;
    m_info(status, &connection, 1, &item, AnswerLength, answer->data());
    return status[0] != 1 || status[1] <= 0 || status[1] == Cancelled;
}

FirebirdClient::Handle FirebirdClient::open(const FirebirdAddress &address) const
{
    Status status[StatusLength] = {};
    return m_attach && m_detach ? attach(address, status) : 0;
}

FirebirdClient::Handle FirebirdClient::attach(const FirebirdAddress &address, Status *status) const
{
    QByteArray parameters = waitingForAnAnswer();
    if (!address.user.isEmpty())
        parameters += parameter(ParameterUser, address.user);
    if (!address.password.isEmpty())
        parameters += parameter(ParameterPassword, address.password);
    Handle connection = 0;
    m_attach(status, 0, address.database.constData(), &connection, short(parameters.size()),
             parameters.constData());
    return connection;
}

void FirebirdClient::close(Handle connection) const
{
    Status status[StatusLength] = {};
    m_detach(status, &connection);
}

bool FirebirdClient::run(Handle connection, const QByteArray &statement) const
{
    if (!m_execute || !m_commit)
        return false;
    Status status[StatusLength] = {};
    Transaction transaction = 0;
    const auto runs = [&](const QByteArray &text) {
        m_execute(status, &connection, &transaction, 0, text.constData(), Dialect, nullptr);
        return status[0] != 1 || status[1] <= 0;
    };
    if (!runs("SET TRANSACTION"))
        return false;
    const bool good = runs(statement);
    m_commit(status, &transaction);
    return good;
}

bool FirebirdClient::reaches(const FirebirdAddress &address) const
{
    if (!m_attach || !m_detach)
        return true;
    Status status[StatusLength] = {};
    QElapsedTimer timer;
    timer.start();
    const Handle connection = attach(address, status);
    if (connection)
        close(connection);
    // The end of the time looks like a refusal.
    return connection || (!timer.hasExpired(AnswerSeconds * 1000) &&
                          (status[0] != 1 || status[1] != NetworkError));
}
