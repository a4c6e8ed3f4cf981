/// @file
/// Lets one thread end the statement of another, and never a different one.
#pragma once

#include <QMutex>
#include <QVector>

#include <atomic>

/// Knows which statements of one connection can be cancelled now, and hands a request on to the
/// database. Statements run in the connection's thread; cancel() may come from any thread, at any
/// moment: the gate's mutex keeps a statement from ending while a request for it is being made.
class CancelGate
{
public:
    enum class Reason { None, Asked, TimedOut };

    /// Running: inside a call that prepares or executes. Streaming: rows are still to come.
    enum class Phase { Idle, Running, Streaming };

    /// How a request reaches the database.
    class Interrupter
    {
    public:
        virtual ~Interrupter() = default;
        /// Asks the database to end what the connection does. Any thread, with the gate locked, so
        /// it returns at once and calls nothing that could come back to the gate.
        /// @param phase Running when the connection is inside a call that prepares or executes
        /// @param alone whether one statement is all that the connection has under way
        virtual void interrupt(Phase phase, bool alone) = 0;
        /// The connection's thread, after a statement that was interrupted: waits until no request
        /// can reach the database any more. @return false when that took too long, and the
        /// connection has to be given up lest a later statement is hit
        virtual bool settle() = 0;
    };

    /// What the gate knows of one statement; lives as long as the result that runs it.
    class Statement
    {
    public:
        /// Why the statement is to end. Any thread; looked at before each row.
        Reason reason() const { return m_reason.load(std::memory_order_acquire); }
        bool isCancelled() const { return reason() != Reason::None; }
        /// The connection's thread.
        Phase phase() const { return m_phase; }

    private:
        friend class CancelGate;
        std::atomic<Reason> m_reason{Reason::None};
        Phase m_phase = Phase::Idle; ///< written under the gate's mutex by the connection's thread
    };

    CancelGate() = default;
    CancelGate(const CancelGate &) = delete;
    CancelGate &operator=(const CancelGate &) = delete;

    /// The way to the database, or null while there is none: before the connection is closed.
    void setInterrupter(Interrupter *interrupter);

    /// The statement is about to be prepared or executed: cancellable from here on, and no longer
    /// cancelled by what came before.
    void run(Statement &statement);
    /// The statement was executed and has rows to give. @return false when it was cancelled
    /// meanwhile; it is still running then, as far as the gate goes
    bool stream(Statement &statement);
    /// A row of the statement is about to be fetched; see currentIsCancelled().
    void fetching(Statement &statement)
    {
        if (statement.m_phase != Phase::Idle)
            m_current.store(&statement, std::memory_order_relaxed);
    }
    /// The statement is over. Returns when no request made for it can reach the database any more.
    /// @return false when the connection has to be given up
    bool end(Statement &statement);

    /// Whether the statement that the connection works on now is to end: for what a database calls
    /// back meanwhile. The connection's thread.
    bool currentIsCancelled() const
    {
        const Statement *current = m_current.load(std::memory_order_relaxed);
        return current && current->isCancelled();
    }

    /// Ends every statement that is running or streaming. With none it does nothing.
    /// @return whether there was one
    bool cancel();
    /// Ends one statement whose time is over, unless it has ended. A request may come before the
    /// statement has reached the database and end nothing. @return whether to ask again later
    bool timeOut(Statement &statement);

private:
    void request();

    QMutex m_mutex;
    QVector<Statement *> m_active;               ///< m_mutex
    Interrupter *m_interrupter = nullptr;        ///< m_mutex
    bool m_requested = false;                    ///< m_mutex; a request since the last settling
    std::atomic<Statement *> m_current{nullptr}; ///< written by the connection's thread alone
};
