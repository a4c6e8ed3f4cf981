/// @file
/// A statement while it runs, with its time limit.
#pragma once

#include "cancel_gate.h"
#include "deadline_watch.h"

#include <memory>

/// What the gate knows of one statement, and the limit after which the layer has it ended. The
/// connection's thread.
class WatchedStatement
{
public:
    explicit WatchedStatement(std::shared_ptr<CancelGate> gate)
        : m_gate(std::move(gate))
    {
    }
    ~WatchedStatement() { end(); }
    WatchedStatement(const WatchedStatement &) = delete;
    WatchedStatement &operator=(const WatchedStatement &) = delete;

    /// The statement can be cancelled from here on, and is ended after that many milliseconds; 0
    /// for no limit. One that is under way already keeps the limit that it has: its further results
    /// belong to it.
    void begin(int limitMs);
    /// The statement is over; nothing happens when it was already.
    /// @return false when the connection has to be given up, see CancelGate::end()
    bool end();

    /// See CancelGate.
    bool stream() { return m_gate->stream(m_statement); }
    void fetching() { m_gate->fetching(m_statement); }

    bool isUnderWay() const { return m_statement.phase() != CancelGate::Phase::Idle; }
    /// Why it was ended, until it begins again.
    CancelGate::Reason reason() const { return m_statement.reason(); }
    bool isCancelled() const { return m_statement.isCancelled(); }

private:
    std::shared_ptr<CancelGate> m_gate; ///< not the driver's alone: results may outlive it
    CancelGate::Statement m_statement;
    DeadlineWatch::Id m_deadline = 0;
};
