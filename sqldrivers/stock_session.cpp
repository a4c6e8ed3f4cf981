#include "stock_session.h"

#include <QCoreApplication>
#include <QHash>
#include <QThread>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace
{

QString tr(const char *text)
{
    return QCoreApplication::translate("StockSession", text);
}

QSqlError late(int ms)
{
    return QSqlError(tr("Connection timed out"),
                     tr("the server did not answer within %1 ms").arg(ms),
                     QSqlError::ConnectionError);
}

/// The threads that were left behind with servers that do not answer. Those who try again and again
/// must not make more and more of them.
class LeftBehind
{
public:
    using Clock = std::chrono::steady_clock;
    static constexpr int Most = 8; ///< at one server

    static LeftBehind &instance()
    {
        static auto *all = new LeftBehind; // the threads may outlast the end of main()
        return *all;
    }

    /// Waits until few enough are left at a server. @return whether that was in time
    bool waitForFew(const QString &server, Clock::time_point deadline)
    {
        std::unique_lock<std::mutex> locker(m_mutex);
        return m_fewer.wait_until(locker, deadline, [&] { return m_count.value(server) < Most; });
    }
    void add(const QString &server)
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        ++m_count[server];
    }
    void remove(const QString &server)
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        if (--m_count[server] == 0)
            m_count.remove(server);
        m_fewer.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_fewer;
    QHash<QString, int> m_count; ///< m_mutex; by server
};

QString serverOf(const QSqlDriver &driver, const OpenParameters &parameters)
{
    return QStringLiteral("%1\n%2\n%3\n%4")
        .arg(QString::fromLatin1(driver.metaObject()->className()), parameters.host)
        .arg(parameters.port)
        .arg(parameters.database);
}

/// What the thread that opens shares with the one that waits for it.
struct Attempt {
    std::mutex mutex;
    std::condition_variable ended;
    bool isOver = false;                   ///< mutex
    bool isOpen = false;                   ///< mutex
    bool isLeft = false;                   ///< mutex; nobody waits for it any more
    QSqlError error;                       ///< mutex
    std::unique_ptr<StockSession> session; ///< the opening thread's until it is over
};

} // namespace

StockSession::StockSession(const QString &key, std::unique_ptr<QSqlDriver> driver_)
    : driver(std::move(driver_))
{
    if (driver)
        policy = makePolicy(key, driver.get());
}

StockSession::~StockSession()
{
    if (!driver || !driver->isOpen())
        return;
    policy->detach();
    driver->close();
}

bool StockSession::open(QSqlDriver &driver, Policy &policy, const OpenParameters &parameters,
                        const LayerOptions &layer, const std::shared_ptr<CancelGate> &gate,
                        QSqlError *error)
{
    policy.opening();
    if (!driver.open(parameters.database, parameters.user, parameters.password, parameters.host,
                     parameters.port, parameters.options)) {
        *error = policy.classified(driver.lastError(), Policy::Step::Open);
        return false;
    }
    policy.opened(parameters);
    if (policy.attach(layer, gate, error)) {
        if (driver.isOpen())
            return true;
        // QPSQL says yes although the line went before its last words with the server.
        *error = QSqlError(tr("the connection was lost while it was opened"), QString(),
                           QSqlError::ConnectionError);
    }
    policy.detach();
    *error = policy.classified(*error, Policy::Step::Open);
    driver.close();
    return false;
}

std::unique_ptr<StockSession> StockSession::openInTime(std::unique_ptr<StockSession> session,
                                                       const OpenParameters &parameters,
                                                       const LayerOptions &layer,
                                                       const std::shared_ptr<CancelGate> &gate,
                                                       QSqlError *error)
{
    const auto deadline =
        LeftBehind::Clock::now() + std::chrono::milliseconds(layer.connectTimeoutMs);
    const QString server = serverOf(*session->driver, parameters);
    if (!LeftBehind::instance().waitForFew(server, deadline)) {
        *error = late(layer.connectTimeoutMs);
        return nullptr;
    }
    // Without a thread of its own the driver may be used, and at last destroyed, in any.
    session->driver->moveToThread(nullptr);
    auto attempt = std::make_shared<Attempt>();
    attempt->session = std::move(session);
    std::thread([attempt, parameters, layer, gate, server] {
        QSqlError failure;
        StockSession &session = *attempt->session;
        const bool isOpen =
            open(*session.driver, *session.policy, parameters, layer, gate, &failure);
        std::unique_lock<std::mutex> locker(attempt->mutex);
        attempt->isOver = true;
        attempt->isOpen = isOpen;
        attempt->error = failure;
        attempt->ended.notify_all();
        if (!attempt->isLeft)
            return;
        locker.unlock();
        attempt->session.reset();
        LeftBehind::instance().remove(server);
    }).detach();

    std::unique_lock<std::mutex> locker(attempt->mutex);
    if (!attempt->ended.wait_until(locker, deadline, [&] { return attempt->isOver; })) {
        attempt->isLeft = true;
        LeftBehind::instance().add(server);
        *error = late(layer.connectTimeoutMs);
        return nullptr;
    }
    if (!attempt->isOpen) {
        *error = attempt->error;
        return nullptr;
    }
    attempt->session->driver->moveToThread(QThread::currentThread());
    return std::move(attempt->session);
}
