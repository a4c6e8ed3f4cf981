/// @file
/// What ODBC does differently, by the system behind it.
#pragma once

#include "odbc_cancel.h"
#include "odbc_client.h"
#include "odbc_transaction.h"
#include "policy.h"
#include "socket_finder.h"
#include "socket_watch.h"

#include <atomic>
#include <functional>
#include <memory>

/// One connection through ODBC to PostgreSQL, MariaDB, SQLite or another system, which is known
/// once the connection is open.
///
/// Cancelling: the stock driver makes the handle of a statement and runs it in one call, so nobody
/// else can have it in time. Servers are asked over a second connection to end what the first one
/// runs, and the line of one that does not take the request is cut; SQLite's ODBC driver interrupts
/// the whole connection, whichever handle it is asked with.
class OdbcPolicy : public Policy
{
public:
    explicit OdbcPolicy(QSqlDriver *stock);

    SqlDialect dialect() const override { return m_dialect; }
    /// PostgreSQL's ODBC driver follows standard_conforming_strings without telling.
    SqlDialect dialectOf(const QString &text) const override;
    bool mustAsk(Need need, const QString &text) const override;
    void ask(Need need) override;

    QString stockOptions(const QString &options, const LayerOptions &layer) const override;
    void opening() override { m_finder = std::make_unique<SocketFinder>(); }
    void opened(const OpenParameters &parameters) override;
    bool attach(const LayerOptions &layer, const std::shared_ptr<CancelGate> &gate,
                QSqlError *error) override;
    void detach() override;
    bool resultsHoldSession() const override { return true; } ///< by their statements
    bool canCancel() const override;

    std::unique_ptr<BoundStatement> makeStatement(StatementPlan plan) override;
    /// SQLite's ODBC driver crashes or answers with old columns when another connection has changed
    /// a table; a look at the schema shows it the change.
    void beginPlain(const QString &text) override;
    bool runPlain(StockResult &rows, const QString &text) override;

    QSqlError refusal(const QString &text) override;
    QSqlError refusal(Command command) override;
    void finished(const QString &text, bool good) override;

    QSqlError errorOf(StockResult &rows, Step step) override;
    QSqlError classified(const QSqlError &error, Step step) override;
    bool isLost() const override;
    /// PostgreSQL's ODBC driver rolls an open transaction back before it disconnects.
    std::unique_ptr<LineWatch> watchClosing() const override;
    std::unique_ptr<LineWatch> watchRollback() override;
    std::unique_ptr<LineWatch> watchLastId() override { return watchRollback(); }

    QVector<ColumnRule> columnRules(const QSqlRecord &columns, const LayerOptions &layer) override;

    QString columnName(const QString &name) const override;

    void interrupt(CancelGate::Phase phase, bool alone) override;
    bool settle() override;

    /// Runs what `run` runs on `rows`, and where SQLite finds a lock in its way, runs it again
    /// until that is gone: SQLite's own wait does not notice a request to cancel.
    bool waitForLocks(StockResult &rows, const std::function<bool()> &run);

private:
    void watchSocket();
    void learnCancelStatement();
    bool openImpatient(QSqlError *error);
    QVariant answerTo(const QString &question) const;
    bool runAside(const QString &text);
    void takeLockWait();
    bool isBroken() const;
    OdbcTransaction::Answer olderTransaction();
    OdbcTransaction::Answer sqliteTransaction();
    void pretendTransaction();
    void rollBack();

    OdbcClient m_client;
    OdbcClient::Handle m_connection = nullptr; ///< while the connection is open
    SqlDialect m_dialect = SqlDialect::Odbc;
    bool m_knowsBackslash = false; ///< no statement has ended since
    bool m_backslashEscapes = false;
    OpenParameters m_parameters;
    int m_lockWaitMs = 0;                        ///< SQLite's
    std::unique_ptr<SocketFinder> m_finder;      ///< while the connection is being opened
    std::shared_ptr<SocketWatch> m_socket;       ///< a server's; shared with requests under way
    QByteArray m_cancelText;                     ///< what the second connection runs
    OdbcClient::Handle m_cancelHandle = nullptr; ///< SQLite's
    std::unique_ptr<StockResult> m_aside;        ///< for statements of the layer's own
    std::atomic<bool> m_isInterrupted{false};    ///< since the statement was begun
    OdbcCancel m_cancel;
    OdbcTransaction m_transaction;
    Command m_command = Command::Begin; ///< the last one that was not refused
};
