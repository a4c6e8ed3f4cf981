/// @file
/// PostgreSQL.
#pragma once

#include "deadline_watch.h"
#include "detached_cancel.h"
#include "policy.h"
#include "postgres_statement.h"
#include "repeated_cancel.h"
#include "socket_watch.h"

#include <QMutex>

/// Cancels with libpq's own request, in a thread of its own; a server that does not answer has its
/// line cut. Keeps statements by name on the server. Sees a lost line at the socket.
class PostgresPolicy : public Policy
{
public:
    using Policy::Policy;
    ~PostgresPolicy() override;

    SqlDialect dialect() const override;
    bool mustAsk(Need need, const QString &text) const override;
    /// Qt's driver (5.15) reads dates in ISO style and texts in UTF-8, whatever the session says. A
    /// function may have changed that, or a reset to what the server starts with.
    void ask(Need need) override;

    QString stockOptions(const QString &options, const LayerOptions &layer) const override;
    bool attach(const LayerOptions &layer, const std::shared_ptr<CancelGate> &gate,
                QSqlError *error) override;
    void detach() override;
    bool canCancel() const override { return m_cancelHandle != nullptr; }
    bool hasServerTimeout() const override { return true; }

    std::unique_ptr<BoundStatement> makeStatement(StatementPlan plan) override;
    QSqlError refusal(const QString &text) override;
    QSqlError refusal(Command command) override;
    void finished(const QString &text, bool good) override;
    bool mayKeep(const StatementPlan &plan) const override;
    bool isStale(const QSqlError &error) const override;

    QSqlError classified(const QSqlError &error, Step step) override;
    bool isLost() const override;
    std::unique_ptr<LineWatch> watchRollback() override;

    bool rereads(StockResult &rows) override;
    QVariant reread(StockResult &rows, int column, const QVariant &value) override;

    bool subscribe(const QString &name, QObject *outer) override;
    bool unsubscribe(const QString &name) override;

    void interrupt(CancelGate::Phase phase, bool alone) override;
    bool settle() override;

private:
    struct Request;

    bool isBroken() const;
    std::unique_ptr<LineWatch> watchSubscribing();
    const pg_result *resultOf(StockResult &rows) const;
    void setStatementTimeout();
    bool hasSetting(const char *name, const char *beginning) const;

    std::shared_ptr<PostgresSession> m_session;
    std::shared_ptr<pg_cancel> m_cancelHandle; ///< shared with requests under way
    std::shared_ptr<SocketWatch> m_socket;     ///< shared with the deadline of a request
    DetachedCancel m_requests;
    QMutex m_mutex;
    std::shared_ptr<Request> m_request;      ///< m_mutex; of the statement that runs
    std::unique_ptr<RepeatedCancel> m_signs; ///< questions whether the server lives
    int m_statementTimeoutMs = 0;
    bool m_hasReset = false; ///< the statement time-out, too
};
