/// @file
/// The database life of a worker thread: its session and the transaction in it.
#pragma once

#include "connection_names.h"
#include "sql_driver_kind.h"
#include "sql_records.h"

#include <QSqlDatabase>
#include <QSqlError>

#include <optional>

class QSqlDriver;
class TransactionWatch;

/// A connection that is made, opened, used, closed and removed by one thread, step by step as the
/// thread's owner says. It knows no queue, no lock and no engine.
///
/// Lives on the stack of that thread.
class ThreadSession
{
public:
    /// How a transaction command ended.
    struct Outcome {
        bool ok = true;
        QSqlError error; ///< what to tell where it is not
    };

    /// Removes what somebody has left behind under the name.
    /// @param watch outlives the session and follows its transactions.
    ThreadSession(ClaimedName name, TransactionWatch &watch);
    Q_DISABLE_COPY(ThreadSession)

    /// Registers the connection, which is not opened yet.
    void create(const QString &driverName);
    QSqlDatabase &database() { return m_db; }
    void setKind(const SqlDriverKind::ConnectionKind &kind) { m_kind = kind; }
    const SqlDriverKind::ConnectionKind &kind() const { return m_kind; }

    bool isOpen() const { return m_db.isOpen(); }
    /// Opens the session, or a new one in place of one that was lost. @return whether it is open;
    /// the database knows the error.
    bool open();
    /// Whether the server still has to be told the application's name: once a session.
    bool takeNameDue();

    /// Runs a task that is one transaction command; any other runs nothing.
    std::optional<Outcome> run(taskSqlType command);
    /// Runs the word if the statement is one that acts on the transaction without being sent.
    std::optional<Outcome> runWord(const QString &sql);

    /// A statement was executed without an error.
    void executed(const QString &sql);
    /// A statement found the session broken.
    void markLost() { m_lost = true; }

    // The end, in this order.

    /// Rolls back what is open. @return the last error of the database.
    QSqlError rollBackRest();
    void close();
    /// Takes the registration away and gives the name back.
    void remove();

private:
    Outcome begin();
    Outcome commit(bool onlyOwn);
    Outcome rollBack(bool onlyOwn);

    ClaimedName m_name;
    QSqlDatabase m_db;
    SqlDriverKind::ConnectionKind m_kind;
    TransactionWatch &m_watch;
    bool m_inTransaction = false;
    bool m_opened = false; ///< at least once: close() has something to free
    bool m_lost = false;
    bool m_nameTold = false;
};
