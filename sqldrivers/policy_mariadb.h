/// @file
/// What MariaDB and MySQL do differently.
#pragma once

#include "mariadb_client.h"
#include "policy.h"
#include "repeated_cancel.h"
#include "socket_watch.h"

#include <memory>

/// Cancels with KILL QUERY over a second connection; a server that does not answer has its line
/// cut. Sees a lost line at the socket. What the server cannot prepare goes with literals. What a
/// string is depends on the session's mode, so the server is asked for it after each statement that
/// may have changed it: where a placeholder is taken for a part of a string, or the other way
/// round, a value would become a part of the statement.
class MariaDbPolicy : public Policy
{
public:
    using Policy::Policy;

    SqlDialect dialect() const override;
    bool mustAsk(Need need, const QString &text) const override;
    void ask(Need need) override;

    QString stockOptions(const QString &options, const LayerOptions &layer) const override;
    void opened(const OpenParameters &parameters) override;
    bool attach(const LayerOptions &layer, const std::shared_ptr<CancelGate> &gate,
                QSqlError *error) override;
    void detach() override;
    bool freesStatementsLast() const override { return true; }
    bool canCancel() const override { return m_connection != nullptr; }
    bool hasServerTimeout() const override { return m_hasServerTimeout; }

    std::unique_ptr<BoundStatement> makeStatement(StatementPlan plan) override;
    void finished(const QString &text, bool good) override;
    bool mayKeep(const StatementPlan &plan) const override;
    QSqlError complete(bool good) override;
    bool endsKept(const QString &text) const override;
    bool isStale(const QSqlError &error) const override;

    QSqlError classified(const QSqlError &error, Step step) override;
    bool isLost() const override;
    std::unique_ptr<LineWatch> watchRollback() override;

    QVector<ColumnRule> columnRules(const QSqlRecord &columns, const LayerOptions &layer) override;

    void interrupt(CancelGate::Phase phase, bool alone) override;
    bool settle() override;

private:
    MariaDbClient m_client;
    st_mysql *m_connection = nullptr; ///< the stock driver's
    MariaDbAddress m_address;
    QByteArray m_killText;
    std::shared_ptr<SocketWatch> m_socket;    ///< shared with a request
    std::unique_ptr<RepeatedCancel> m_cancel; ///< while there is a session
    bool m_hasServerTimeout = false;
    SqlDialect m_dialect = SqlDialect::MariaDb; ///< by the session's mode
    bool m_knowsDialect = false;                ///< no statement may have changed it since
    unsigned int m_quotingStatus = 0;           ///< when the mode was asked for
};
