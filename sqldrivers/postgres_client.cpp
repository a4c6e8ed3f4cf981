#include "postgres_client.h"

namespace
{

constexpr int CommandOk = 1;
constexpr int TuplesOk = 2;

} // namespace

bool PostgresClient::resolve()
{
    m_library = ClientLibrary({"libpq.so.5", "libpq.so"});
    return m_library.resolve("PQsocket", socket) && m_library.resolve("PQstatus", status) &&
           m_library.resolve("PQtransactionStatus", transactionStatus) &&
           m_library.resolve("PQparameterStatus", parameterStatus) &&
           m_library.resolve("PQgetCancel", getCancel) &&
           m_library.resolve("PQfreeCancel", freeCancel) && m_library.resolve("PQcancel", cancel) &&
           m_library.resolve("PQexec", exec) && m_library.resolve("PQresultStatus", resultStatus) &&
           m_library.resolve("PQntuples", rowCount) && m_library.resolve("PQclear", clear) &&
           m_library.resolve("PQnfields", columnCount) &&
           m_library.resolve("PQftype", columnType) && m_library.resolve("PQgetvalue", value) &&
           m_library.resolve("PQconninfo", settings) &&
           m_library.resolve("PQconninfoFree", freeSettings) &&
           m_library.resolve("PQpingParams", ping);
}

bool PostgresClient::run(pg_conn *connection, const QByteArray &text) const
{
    pg_result *result = exec(connection, text.constData());
    const int outcome = resultStatus(result);
    clear(result);
    return outcome == CommandOk || outcome == TuplesOk;
}

QByteArray PostgresClient::firstValue(pg_conn *connection, const QByteArray &text) const
{
    pg_result *result = exec(connection, text.constData());
    QByteArray first;
    if (resultStatus(result) == TuplesOk && rowCount(result) > 0)
        first = value(result, 0, 0);
    clear(result);
    return first;
}
