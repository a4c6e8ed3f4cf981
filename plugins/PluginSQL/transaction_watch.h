/// @file
/// Whether what a commit is to keep is still there.
#pragma once

#include "statement_rules.h"

#include <atomic>

/// Follows the transaction of one connection, however it begins, through the loss of its sessions.
///
/// Belongs to the thread that uses the connection; the engine's thread may also ask and tell while
/// the worker thread does not run.
class TransactionWatch
{
public:
    /// A transaction begins: what was lost before does not concern it.
    void begun();
    /// Committed or rolled back.
    void ended();
    /// A statement was executed without an error.
    void executed(StatementRules::TransactionStep step);
    /// The session broke off. What it had not committed is lost, also where nobody saw it begin.
    void sessionLost();
    /// The session was given up on purpose; a transaction that is known to be open is lost with it.
    void sessionClosed();

    /// Whether a commit cannot keep what it is to keep.
    bool isLost() const { return m_lost; }
    /// Whether a transaction is known to be open.
    bool isOpen() const { return m_open || m_autocommitOff; }

private:
    std::atomic<bool> m_open{false};
    std::atomic<bool> m_autocommitOff{false};
    std::atomic<bool> m_lost{false};
};
