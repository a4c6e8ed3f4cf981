/// @file
/// Opening a stock driver, within a time if wanted.
#pragma once

#include "policy.h"

#include <QSqlDriver>
#include <QSqlError>

#include <memory>

/// A stock driver together with the policy that belongs to it, while they are being opened.
struct StockSession {
    std::unique_ptr<QSqlDriver> driver;
    std::unique_ptr<Policy> policy; ///< behind the driver, and so destroyed before it

    /// @param driver_ not open yet; without one there is no policy
    StockSession(const QString &key, std::unique_ptr<QSqlDriver> driver_);
    /// Closes what was opened and not taken out.
    ~StockSession();
    StockSession(const StockSession &) = delete;
    StockSession &operator=(const StockSession &) = delete;

    /// Opens a driver and sets its session up, in the calling thread, which waits for as long as
    /// the client library does. @param error then why it failed
    static bool open(QSqlDriver &driver, Policy &policy, const OpenParameters &parameters,
                     const LayerOptions &layer, const std::shared_ptr<CancelGate> &gate,
                     QSqlError *error);

    /// As open(), but gives up after `layer.connectTimeoutMs`, whatever the client library waits
    /// for: it works in a thread of its own, which is left behind then with all that it uses and
    /// ends when the library lets it. While many are left behind at the same server, the time is
    /// spent on waiting for one of them to end.
    /// @param session with a driver that nobody else knows yet
    /// @return the session, its driver in the calling thread; null when that failed, see `error`
    static std::unique_ptr<StockSession> openInTime(std::unique_ptr<StockSession> session,
                                                    const OpenParameters &parameters,
                                                    const LayerOptions &layer,
                                                    const std::shared_ptr<CancelGate> &gate,
                                                    QSqlError *error);
};
