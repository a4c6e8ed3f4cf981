#include "mariadb_client.h"

#include "client_library.h"

namespace
{

// Of the client library's header.
constexpr int OptionConnectTimeout = 0;
constexpr int OptionReadTimeout = 11;
constexpr int OptionWriteTimeout = 12;
constexpr int InfoServerStatus = 30;
constexpr unsigned int StatusInTransaction = 1;
constexpr unsigned int StatusNoBackslashEscapes = 1 << 9;
constexpr unsigned int StatusAnsiQuotes = 1 << 15;
constexpr unsigned long FlagEncrypted = 2048;

/// Errors that do not come from a server.
constexpr unsigned int FirstClientError = 2000;
constexpr unsigned int LastClientError = 2999;

/// A request that takes longer is not waited for anyway.
constexpr unsigned int TimeoutSeconds = 5;

const char *orNull(const QByteArray &text)
{
    return text.isEmpty() ? nullptr : text.constData();
}

} // namespace

bool MariaDbClient::resolve()
{
    const ClientLibrary library({"libmariadb.so.3", "libmysqlclient.so.21", "libmysqlclient.so.20",
                                 "libmysqlclient.so.18"});
    library.resolve("mariadb_get_infov", m_getInfo);
    return library.resolve("mysql_errno", m_errorNumber) &&
           library.resolve("mysql_error", m_errorText) &&
           library.resolve("mysql_sqlstate", m_state) &&
           library.resolve("mysql_get_socket", m_socket) &&
           library.resolve("mysql_thread_id", m_session) &&
           library.resolve("mysql_set_character_set", m_setCharacterSet) &&
           library.resolve("mysql_real_query", m_query) &&
           library.resolve("mysql_store_result", m_storeResult) &&
           library.resolve("mysql_fetch_row", m_fetchRow) &&
           library.resolve("mysql_free_result", m_freeResult) &&
           library.resolve("mysql_init", m_make) && library.resolve("mysql_options", m_setOption) &&
           library.resolve("mysql_ssl_set", m_setEncryption) &&
           library.resolve("mysql_real_connect", m_connect) &&
           library.resolve("mysql_close", m_close);
}

QString MariaDbClient::errorText(st_mysql *connection) const
{
    return QString::fromUtf8(m_errorText(connection));
}

QString MariaDbClient::state(st_mysql *connection) const
{
    return QString::fromLatin1(m_state(connection));
}

unsigned int MariaDbClient::status(st_mysql *connection) const
{
    unsigned int status = 0;
    return m_getInfo && m_getInfo(connection, InfoServerStatus, &status) == 0 ? status : 0;
}

bool MariaDbClient::isInTransaction(st_mysql *connection) const
{
    return status(connection) & StatusInTransaction;
}

unsigned int MariaDbClient::quotingStatus(st_mysql *connection) const
{
    return status(connection) & (StatusNoBackslashEscapes | StatusAnsiQuotes);
}

bool MariaDbClient::setCharacterSet(st_mysql *connection, const char *name) const
{
    return m_setCharacterSet(connection, name) == 0;
}

bool MariaDbClient::run(st_mysql *connection, const QByteArray &statement) const
{
    return m_query(connection, statement.constData(),
                   static_cast<unsigned long>(statement.size())) == 0;
}

bool MariaDbClient::ask(st_mysql *connection, const QByteArray &statement, QByteArray *value) const
{
    st_mysql_res *result = run(connection, statement) ? m_storeResult(connection) : nullptr;
    if (!result)
        return false;
    char **row = m_fetchRow(result);
    const bool hasValue = row && row[0];
    if (hasValue)
        *value = row[0];
    m_freeResult(result);
    return hasValue;
}

bool MariaDbClient::reaches(const MariaDbAddress &address) const
{
    unsigned int error = 0;
    if (st_mysql *connection = open(address, &error)) {
        close(connection);
        return true;
    }
    return error != 0 && (error < FirstClientError || error > LastClientError);
}

/// @param error if not null, why it failed
st_mysql *MariaDbClient::open(const MariaDbAddress &address, unsigned int *error) const
{
    st_mysql *connection = m_make(nullptr);
    if (!connection)
        return nullptr;
    for (int option : {OptionConnectTimeout, OptionReadTimeout, OptionWriteTimeout})
        m_setOption(connection, option, &TimeoutSeconds);
    if (address.encrypts)
        m_setEncryption(connection, orNull(address.key), orNull(address.certificate),
                        orNull(address.authority), orNull(address.authorityPath),
                        orNull(address.cipher));
    if (m_connect(connection, orNull(address.host), orNull(address.user), orNull(address.password),
                  nullptr, address.port, orNull(address.socket),
                  address.encrypts ? FlagEncrypted : 0))
        return connection;
    if (error)
        *error = errorNumber(connection);
    m_close(connection);
    return nullptr;
}
