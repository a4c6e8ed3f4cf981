#include "stock_session.h"

#include <QCoreApplication>
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

/// What the thread that opens shares with the one that waits for it.
struct Attempt {
    std::mutex mutex;
    std::condition_variable ended;
    bool isOver = false;                   ///< mutex
    bool isOpen = false;                   ///< mutex
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
    // Without a thread of its own the driver may be used, and at last destroyed, in any.
    session->driver->moveToThread(nullptr);
    auto attempt = std::make_shared<Attempt>();
    attempt->session = std::move(session);
    std::thread([attempt, parameters, layer, gate] {
        QSqlError failure;
        StockSession &session = *attempt->session;
        const bool isOpen =
            open(*session.driver, *session.policy, parameters, layer, gate, &failure);
        const std::lock_guard<std::mutex> locker(attempt->mutex);
        attempt->isOver = true;
        attempt->isOpen = isOpen;
        attempt->error = failure;
        attempt->ended.notify_all();
    }).detach();

    std::unique_lock<std::mutex> locker(attempt->mutex);
    const std::chrono::milliseconds limit(layer.connectTimeoutMs);
    if (!attempt->ended.wait_for(locker, limit, [&] { return attempt->isOver; })) {
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
