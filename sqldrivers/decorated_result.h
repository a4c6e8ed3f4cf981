/// @file
/// A statement on a decorated driver, and its rows.
#pragma once

#include "bound_statement.h"
#include "cancel_gate.h"
#include "policy.h"
#include "watched_statement.h"

#include <QSqlResult>

#include <list>
#include <memory>

class DecoratedDriver;

/// Stands between a QSqlQuery and the stock driver's result: finds the placeholders itself, takes
/// kept statements and gives them back, tells the gate what can be cancelled, and reports errors as
/// the connection's policy sees them. The connection's thread. It may outlive its driver.
class DecoratedResult final : public QSqlResult
{
public:
    explicit DecoratedResult(const DecoratedDriver *driver);
    ~DecoratedResult() override;

    /// The connection is about to be closed, and waits for what this result still has there. The
    /// result then has no rows, and is prepared again when it is executed the next time.
    void endSession();

    /// The error to report for the stock driver's: what was cancelled or took too long says so,
    /// everything else is as the policy classifies it. A lost connection is given up.
    static QSqlError explained(DecoratedDriver &driver, const QSqlError &error,
                               CancelGate::Reason reason, Policy::Step step);

    /// Why a connection is given up on which a request to cancel got stuck.
    static QSqlError unanswered();

    QVariant handle() const override;

protected:
    bool reset(const QString &text) override;
    bool savePrepare(const QString &text) override;
    bool prepare(const QString &text) override { return savePrepare(text); }
    bool exec() override;
    void bindValue(int index, const QVariant &value, QSql::ParamType type) override;
    void bindValue(const QString &name, const QVariant &value, QSql::ParamType type) override;

    bool fetch(int row) override;
    bool fetchNext() override;
    bool fetchPrevious() override;
    bool fetchFirst() override;
    bool fetchLast() override;
    bool nextResult() override;
    QVariant data(int column) override;
    bool isNull(int column) override;
    int size() override;
    int numRowsAffected() override;
    QVariant lastInsertId() const override;
    QSqlRecord record() const override;
    void detachFromResultSet() override;

private:
    DecoratedDriver *owner() const;
    StockResult &plainResult(DecoratedDriver &driver);
    void giveUpPlain();
    std::unique_ptr<LineWatch> watchLine() const;

    bool askFirst(DecoratedDriver &driver, Policy::Need need);
    bool admits(DecoratedDriver &driver);
    bool obtain(DecoratedDriver &driver);
    bool prepareAnew(DecoratedDriver &driver);
    bool runBound(DecoratedDriver &driver);
    bool runPlain(DecoratedDriver &driver);
    bool executeBound(DecoratedDriver &driver, const QVector<BoundValue> &values);
    QVector<BoundValue> boundForRun() const;
    void applySettings(StockResult &rows, const DecoratedDriver &driver);
    void readBack();
    void rememberNames(const StatementPlan &plan);

    bool refuse(const QSqlError &error);
    bool conclude(DecoratedDriver &driver, bool good, Policy::Step step);
    bool moved(bool onRow);
    bool rowsAreAlive() const;
    bool stopAtCancel();
    void fail(const QSqlError &error);
    void tellPolicy(DecoratedDriver &driver, bool good);
    void beginStatement(DecoratedDriver &driver);
    void endStatement();
    void finish();
    void readColumns();

    std::list<DecoratedResult *>::iterator m_place; ///< in the driver's list, while it is there
    WatchedStatement m_run;                         ///< the statement that runs
    std::unique_ptr<BoundStatement> m_bound; ///< the prepared statement, ours while it is used
    std::unique_ptr<StockResult> m_plain;    ///< for texts that are sent as they are
    StockResult *m_rows = nullptr;           ///< of the last execution, one of the two
    QString m_text;
    int m_session = 0;         ///< the driver's, when m_bound was obtained
    int m_plainSession = 0;    ///< the driver's, when m_plain was made
    bool m_isPrepared = false; ///< exec() runs m_bound, else m_text
    bool m_wasKept = false;    ///< m_bound had been prepared earlier
    bool m_worthKeeping = false;
    bool m_adjusts = false;      ///< values are changed, or it is not known yet
    bool m_knowsColumns = false; ///< m_rereads and m_rules are those of m_rows
    bool m_rereads = false;
    QVector<ColumnRule> m_rules; ///< of the columns of m_rows; empty for none
};
