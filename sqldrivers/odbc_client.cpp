#include "odbc_client.h"

#include "client_library.h"

#include <QStringList>

#include <cstdint>

namespace
{

// Of ODBC's headers.
constexpr short Environment = 1;
constexpr short Connection = 2;
constexpr short Statement = 3;
constexpr short LengthByNull = -3;
constexpr unsigned short InfoSystemName = 17;
constexpr unsigned short NoPrompt = 0;
constexpr int AttributeVersion = 200;
constexpr int AttributeLoginTimeout = 103;
constexpr int AttributeDead = 1209;
constexpr std::intptr_t Version3 = 3;

/// A request that takes longer is not waited for anyway.
constexpr std::intptr_t LoginSeconds = 5;

bool succeeded(short result)
{
    return result == 0 || result == 1;
}

void *asPointer(std::intptr_t value)
{
    return reinterpret_cast<void *>(value);
}

unsigned char *text(const QByteArray &bytes)
{
    return reinterpret_cast<unsigned char *>(const_cast<char *>(bytes.constData()));
}

} // namespace

OdbcClient::OdbcClient()
{
    const ClientLibrary library({"libodbc.so.2", "libodbc.so.1", "libodbc.so"});
    m_isComplete =
        library.resolve("SQLAllocHandle", m_allocate) && library.resolve("SQLFreeHandle", m_free) &&
        library.resolve("SQLCancel", m_cancel) && library.resolve("SQLGetDiagRec", m_diagnostics) &&
        library.resolve("SQLGetInfo", m_info) &&
        library.resolve("SQLGetConnectAttr", m_attribute) &&
        library.resolve("SQLSetEnvAttr", m_setEnvironment) &&
        library.resolve("SQLSetConnectAttr", m_setConnection) &&
        library.resolve("SQLDriverConnect", m_connect) &&
        library.resolve("SQLExecDirect", m_execute) &&
        library.resolve("SQLDisconnect", m_disconnect);
}

QString OdbcClient::systemName(Handle connection) const
{
    char name[128] = {};
    short length = 0;
    if (!m_isComplete || !connection ||
        !succeeded(m_info(connection, InfoSystemName, name, sizeof name, &length)))
        return QString();
    return QString::fromLatin1(name);
}

int OdbcClient::sourceSetting(const QString &source, const QString &setting, int otherwise) const
{
    const QStringList parts = source.split(QLatin1Char(';'));
    for (const QString &part : parts) {
        if (part.section(QLatin1Char('='), 0, 0).trimmed().compare(setting, Qt::CaseInsensitive) ==
            0)
            return part.section(QLatin1Char('='), 1).trimmed().toInt();
    }
    using Profile = int(const char *, const char *, const char *, char *, int, const char *);
    Profile *profile = nullptr;
    const ClientLibrary library({"libodbcinst.so.2", "libodbcinst.so.1", "libodbcinst.so"});
    if (!library.resolve("SQLGetPrivateProfileString", profile))
        return otherwise;
    char text[32] = {};
    profile(parts.constFirst().toUtf8().constData(), setting.toLatin1().constData(), "", text,
            sizeof text, "odbc.ini");
    bool isNumber = false;
    const int number = QString::fromLatin1(text).toInt(&isNumber);
    return isNumber ? number : otherwise;
}

QString OdbcClient::stateOf(short kind, Handle handle) const
{
    unsigned char state[6] = {};
    unsigned char message[1] = {};
    int native = 0;
    short length = 0;
    if (!m_isComplete || !handle ||
        !succeeded(
            m_diagnostics(kind, handle, 1, state, &native, message, sizeof message, &length)))
        return QString();
    const QString text = QString::fromLatin1(reinterpret_cast<const char *>(state));
    const bool isGeneral = text == QLatin1String("HY000") || text == QLatin1String("S1000") ||
                           text == QLatin1String("00000");
    return isGeneral ? QString() : text;
}

QString OdbcClient::statementState(Handle statement) const
{
    return stateOf(Statement, statement);
}

QString OdbcClient::connectionState(Handle connection) const
{
    return stateOf(Connection, connection);
}

bool OdbcClient::isDead(Handle connection) const
{
    int dead = 0;
    return m_isComplete && connection &&
           succeeded(m_attribute(connection, AttributeDead, &dead, sizeof dead, nullptr)) &&
           dead == 1;
}

OdbcClient::Handle OdbcClient::makeStatement(Handle connection) const
{
    Handle statement = nullptr;
    if (!m_isComplete || !connection || !succeeded(m_allocate(Statement, connection, &statement)))
        return nullptr;
    return statement;
}

void OdbcClient::freeStatement(Handle statement) const
{
    if (statement)
        m_free(Statement, statement);
}

void OdbcClient::cancel(Handle statement) const
{
    if (statement)
        m_cancel(statement);
}

void OdbcClient::runElsewhere(const QByteArray &connectionText, const QByteArray &statement) const
{
    Handle environment = nullptr;
    Handle connection = nullptr;
    if (!succeeded(m_allocate(Environment, nullptr, &environment)))
        return;
    m_setEnvironment(environment, AttributeVersion, asPointer(Version3), 0);
    if (succeeded(m_allocate(Connection, environment, &connection))) {
        m_setConnection(connection, AttributeLoginTimeout, asPointer(LoginSeconds), 0);
        if (succeeded(m_connect(connection, nullptr, text(connectionText), LengthByNull, nullptr, 0,
                                nullptr, NoPrompt))) {
            if (Handle handle = makeStatement(connection)) {
                m_execute(handle, text(statement), LengthByNull);
                freeStatement(handle);
            }
            m_disconnect(connection);
        }
        m_free(Connection, connection);
    }
    m_free(Environment, environment);
}
