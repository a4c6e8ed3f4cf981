/// @file
/// Statements that a PostgreSQL server keeps by name.
#pragma once

#include "bound_statement.h"
#include "postgres_client.h"

#include <QByteArray>
#include <QVector>

#include <memory>

/// What the kept statements of one session have in common. It is shared with them, since they may
/// outlive the session; the connection is null then.
struct PostgresSession {
    PostgresClient client;
    pg_conn *connection = nullptr;
    int lastName = 0;    ///< names are never used twice in a session
    int transaction = 0; ///< changes with each statement outside of a transaction
    bool wasIdle = true; ///< the statement that runs, or ran last, began outside of one
    int schema = 0;      ///< changes with every statement that may change tables and settings
    QVector<QByteArray> unused; ///< names that the server is still to forget

    PostgresClient::TransactionStatus transactionStatus() const;
    /// Called before each statement.
    void statementBegins();
    /// As far as can be told while rows are still on their way.
    bool inTransaction() const;
    bool isIdle() const { return transactionStatus() == PostgresClient::Idle; }
    /// Has the server forget a name, at once or when no transaction can be harmed by it.
    void forget(const QByteArray &name);
    void forgetUnused();
};

/// Prepared with PREPARE and run with EXECUTE, both as texts: the stock driver's own prepared
/// statements rewrite the text and are dropped with each result.
///
/// Another session may change a table's columns. What was prepared before is then of the wrong
/// type, at worst in silence, so: within a transaction only what was prepared in that transaction
/// is used, since the locks it holds keep the tables as they are. Outside, values go as texts,
/// which the server reads by the type it knows and refuses where they do not fit; then it is
/// prepared anew. So it is for values that a changed type could give another meaning, see
/// PostgresLasting.
class PostgresStatement : public BoundStatement
{
public:
    PostgresStatement(StatementPlan plan, const QSqlDriver *driver,
                      std::shared_ptr<PostgresSession> session);
    ~PostgresStatement() override;

    /// What may mean an operator of jsonb is told from a placeholder by the number of values alone,
    /// so the server hears of the statement with its first execution.
    bool prepare() override { return true; }
    bool execute(const QVector<BoundValue> &values) override;
    bool isFresh() const override;
    void release() override;
    QString sentText() const override { return plan().withNumbers(); }

private:
    bool tellServer();
    void learnTypes();
    bool areLasting(const QVector<BoundValue> &values);

    const QSqlDriver *m_driver;
    std::shared_ptr<PostgresSession> m_session;
    QByteArray m_name; ///< empty until the server knows the statement
    int m_transaction = 0;
    int m_schema = 0;
    bool m_hasRun = false;
    QVector<unsigned> m_types; ///< of the parameters, by object id; asked for with the second use
};
