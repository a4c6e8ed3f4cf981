#include "postgres_sign_of_life.h"

#include <utility>

namespace
{

/// The line is cut long before; this ends the thread.
const char TimeoutSeconds[] = "5";

QVector<const char *> pointers(const QVector<QByteArray> &texts)
{
    QVector<const char *> result;
    for (const QByteArray &text : texts)
        result.append(text.constData());
    result.append(nullptr);
    return result;
}

} // namespace

PostgresSignOfLife::PostgresSignOfLife(const PostgresClient &client, pg_conn *connection,
                                       std::shared_ptr<SocketWatch> line)
    : m_client(client)
    , m_line(std::move(line))
{
    PostgresSetting *all = m_client.settings(connection);
    for (const PostgresSetting *setting = all; setting && setting->name; ++setting) {
        const QByteArray name = setting->name;
        if (!setting->value || name == "connect_timeout")
            continue;
        m_names.append(name);
        m_values.append(setting->value);
    }
    m_client.freeSettings(all);
    m_names.append("connect_timeout");
    m_values.append(TimeoutSeconds);
}

bool PostgresSignOfLife::open()
{
    const int state =
        m_client.ping(pointers(m_names).constData(), pointers(m_values).constData(), 0);
    return state == PostgresClient::Accepts || state == PostgresClient::Rejects;
}
