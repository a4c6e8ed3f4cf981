#include "odbc_cancel.h"

#include "deadline_watch.h"

namespace
{

/// A server that has not taken a request by then is as good as dead.
constexpr int DeadServerMs = 2000;

/// As the stock driver makes it of the parameters.
QByteArray connectionText(const OpenParameters &parameters)
{
    QString text = parameters.database;
    const auto holds = [&text](const char *part) {
        return text.contains(QLatin1String(part), Qt::CaseInsensitive);
    };
    if (holds(".dsn"))
        text.prepend(QLatin1String("FILEDSN="));
    else if (!holds("DRIVER=") && !holds("SERVER="))
        text.prepend(QLatin1String("DSN="));
    if (!parameters.user.isEmpty())
        text += QLatin1String(";UID=") + parameters.user;
    if (!parameters.password.isEmpty())
        text += QLatin1String(";PWD=") + parameters.password;
    return text.toUtf8();
}

} // namespace

void OdbcCancel::begin(const OdbcClient &client, const OpenParameters &parameters,
                       const QByteArray &statement, const std::shared_ptr<SocketWatch> &line)
{
    m_requests.start([client, where = connectionText(parameters), statement, line] {
        DeadlineWatch &watch = DeadlineWatch::instance();
        const DeadlineWatch::Id deadline = watch.add(DeadServerMs, [line] { line->cut(); });
        client.runElsewhere(where, statement);
        watch.remove(deadline);
    });
}
