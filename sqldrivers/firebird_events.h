/// @file
/// Subscriptions to Firebird's events.
#pragma once

#include "policy.h"

namespace FirebirdEvents
{

/// Subscribes, and waits until the stock driver has handled the first event: Firebird fires each
/// new subscription once from a thread of its own, and QIBASE (5.15) crashes in isc_cancel_events
/// when the subscription ends before that was handled. The connection's thread.
/// @param watch over the line, while the server is asked; null without one
bool subscribe(QSqlDriver *stock, const QString &name, std::unique_ptr<LineWatch> watch);

} // namespace FirebirdEvents
