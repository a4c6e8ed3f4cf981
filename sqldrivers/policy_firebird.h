/// @file
/// What Firebird does differently.
#pragma once

#include "firebird_client.h"
#include "firebird_line.h"
#include "policy.h"
#include "repeated_cancel.h"
#include "socket_finder.h"
#include "socket_watch.h"

#include <QElapsedTimer>

#include <memory>

/// One connection to Firebird, over the network or embedded.
///
/// Cancelling: the connection is marked, and what runs there ends at its next look at the mark. The
/// engine in this process does so for the client library, a server over a second connection. A mark
/// that nothing has noticed would end the next statement, so settle() takes it away. The stock
/// driver commits by itself behind a statement outside of a transaction, and loses a transaction
/// whose commit was ended by such a mark, locks and all: so a statement without rows gets a
/// transaction of this policy's own, which is committed when nothing can be cancelled any more. The
/// stock driver keeps the status vector to itself: states are told from code and text. The line to
/// a server that is dead is cut. A lost line is seen at its socket; otherwise the server is asked.
class FirebirdPolicy : public Policy
{
public:
    explicit FirebirdPolicy(QSqlDriver *stock);

    SqlDialect dialect() const override { return SqlDialect::Firebird; }

    QString stockOptions(const QString &options, const LayerOptions &layer) const override;
    void opening() override { m_finder = std::make_unique<SocketFinder>(); }
    void opened(const OpenParameters &parameters) override;
    bool attach(const LayerOptions &layer, const std::shared_ptr<CancelGate> &gate,
                QSqlError *error) override;
    void detach() override;
    bool resultsHoldSession() const override { return true; } ///< by their transactions
    bool canCancel() const override { return m_client.canCancel() && (!m_cancel || m_number != 0); }

    std::unique_ptr<BoundStatement> makeStatement(StatementPlan plan) override;
    QSqlError refusal(const QString &text) override;
    void beginPlain(const QString &text) override;
    bool runPlain(StockResult &rows, const QString &text) override;
    QSqlError complete(bool good) override;
    bool reusesResults() const override { return false; }
    void finished(const QString &text, bool good) override;
    bool hasRows(const StockResult &rows) const override;

    bool cancelsCommands() const override { return false; }
    QSqlError refusal(Command command) override;

    /// To be called for a prepared statement before it is executed.
    void prepared(StockResult &rows);

    /// Begins a transaction for one statement without rows, unless there is one.
    /// @return whether there was none
    bool beginOwn();

    QSqlError classified(const QSqlError &error, Step step) override;
    bool isLost() const override;
    std::unique_ptr<LineWatch> watchLine() const override;

    bool adjustsValues(const LayerOptions &layer) const override;
    QVector<ColumnRule> columnRules(const QSqlRecord &columns, const LayerOptions &layer) override;

    QString columnName(const QString &name) const override;

    bool subscribe(const QString &name, QObject *outer) override;
    bool unsubscribe(const QString &name) override;

    void interrupt(CancelGate::Phase phase, bool alone) override;
    bool settle() override;

private:
    bool answers() const;

    FirebirdClient m_client;
    FirebirdClient::Handle m_connection = 0;
    QByteArray m_address; ///< of the server, empty for the engine in this process
    std::unique_ptr<FirebirdLine> m_line;
    std::unique_ptr<SocketFinder> m_finder;   ///< while the connection is being opened
    std::unique_ptr<SocketWatch> m_socket;    ///< null for the engine in this process
    FirebirdAddress m_second;                 ///< of a connection that cancels
    qint64 m_number = 0;                      ///< of this connection, 0 for the engine
    std::unique_ptr<RepeatedCancel> m_cancel; ///< null for the engine in this process
    bool m_isUtf8 = false;
    bool m_wantsExactNumbers = false;
    Command m_command = Command::Rollback; ///< the last one that was begun
    bool m_inTransaction = false;          ///< the user's
    bool m_ownTransaction = false;
    mutable QElapsedTimer m_lastLook; ///< when the connection was last seen to answer
};
