/// @file
/// SQLite.
#pragma once

#include "client_library.h"
#include "policy.h"

#include <chrono>

struct sqlite3;

/// Cancels through SQLite's progress handler, which is called in the connection's own thread and
/// looks at the statement that it works on, so that no other is ever hit. A lock wait looks there
/// too. Calls a duplicate key a failed statement, and knows when a transaction is gone.
class SqlitePolicy : public Policy
{
public:
    using Policy::Policy;

    SqlDialect dialect() const override { return SqlDialect::Sqlite; }

    void opened(const OpenParameters &parameters) override;
    bool attach(const LayerOptions &layer, const std::shared_ptr<CancelGate> &gate,
                QSqlError *error) override;
    void detach() override;
    bool canCancel() const override { return m_db != nullptr; }

    std::unique_ptr<BoundStatement> makeStatement(StatementPlan plan) override;
    bool preparesPlainText(const QString &text) const override;
    QSqlError refusal(const QString &text) override;
    QSqlError refusal(Command command) override;
    void finished(const QString &text, bool good) override;
    bool mayKeep(const StatementPlan &plan) const override;
    bool isStale(const QSqlError &error) const override;
    QVector<ColumnRule> columnRules(const QSqlRecord &columns, const LayerOptions &layer) override;
    QSqlError classified(const QSqlError &error, Step step) override;
    void interrupt(CancelGate::Phase phase, bool alone) override;

private:
    static int onProgress(void *policy);
    static int onBusy(void *policy, int attempt);
    bool waitForLock(int attempt);
    void lendWait();
    void takeWaitBack();
    bool inTransaction() const { return m_getAutocommit(m_db) == 0; }
    void pretendTransaction();

    ClientLibrary m_library;
    void (*m_interrupt)(sqlite3 *) = nullptr;
    int (*m_setBusyTimeout)(sqlite3 *, int) = nullptr;
    int (*m_setBusyHandler)(sqlite3 *, int (*)(void *, int), void *) = nullptr;
    int (*m_getAutocommit)(sqlite3 *) = nullptr;
    int (*m_execute)(sqlite3 *, const char *, int (*)(void *, int, char **, char **), void *,
                     char **) = nullptr;
    sqlite3 *m_db = nullptr; ///< the stock driver's, while attached
    std::shared_ptr<CancelGate> m_gate;
    int m_busyTimeoutMs = 0;
    bool m_isWaitLent = false;                            ///< SQLite waits for locks by itself
    std::chrono::steady_clock::time_point m_lockDeadline; ///< of the lock that is waited for
    bool m_wasInTransaction = false;                      ///< after the last statement
    bool m_rolledBack = false; ///< SQLite has ended a transaction that the script has not
};
