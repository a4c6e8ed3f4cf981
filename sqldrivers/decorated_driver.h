/// @file
/// A stock driver with what it lacks.
#pragma once

#include "cancel_gate.h"
#include "layer_options.h"
#include "policy.h"
#include "statement_cache.h"

#include <QSqlDriver>

#include <atomic>
#include <list>
#include <memory>

class DecoratedResult;

/// Takes the place of a stock driver under its own name: owns it, passes everything on to it, and
/// adds cancelling, placeholders everywhere, kept statements, and errors and losses that look alike
/// on all systems. What differs between the systems is in its Policy.
///
/// Used in the thread that made it, like any driver; cancelQuery() in any thread.
class DecoratedDriver : public QSqlDriver
{
    Q_OBJECT
    /// The driver that Qt ships, with the same connection: whoever has to call the client library
    /// through handle() finds the right copy of it where that driver's code is. Null without one.
    /// Another one after each opening with a time limit.
    Q_PROPERTY(QObject *stockDriver READ stock)

public:
    using ResultList = std::list<DecoratedResult *>;

    /// @param key the stock driver's key. Without that driver open() fails and says what to
    /// install.
    explicit DecoratedDriver(const QString &key, QObject *parent = nullptr);
    ~DecoratedDriver() override;

    /// The text to prepare for a script's own text and a number of values: statement heads and
    /// names of procedures are completed for the database system, everything else stays. The
    /// values are then bound by position. Preparing finds the placeholders of such a text itself,
    /// so a text from anywhere else means the same; that the numbers agree is seen on execution.
    Q_INVOKABLE QString boundStatement(const QString &text, int count);

    bool hasFeature(DriverFeature feature) const override;
    bool open(const QString &database, const QString &user, const QString &password,
              const QString &host, int port, const QString &options) override;
    void close() override;
    /// Looks whether the connection is still there.
    bool isOpen() const override;
    QSqlResult *createResult() const override;
    QVariant handle() const override;

    bool beginTransaction() override;
    bool commitTransaction() override;
    bool rollbackTransaction() override;

    QStringList tables(QSql::TableType type) const override;
    QSqlIndex primaryIndex(const QString &table) const override;
    QSqlRecord record(const QString &table) const override;
    QString formatValue(const QSqlField &field, bool trimStrings) const override;
    QString escapeIdentifier(const QString &identifier, IdentifierType type) const override;
    bool isIdentifierEscaped(const QString &identifier, IdentifierType type) const override;
    QString stripDelimiters(const QString &identifier, IdentifierType type) const override;
    QString sqlStatement(StatementType type, const QString &table, const QSqlRecord &record,
                         bool preparedStatement) const override;

    bool subscribeToNotification(const QString &name) override;
    bool unsubscribeFromNotification(const QString &name) override;
    QStringList subscribedToNotifications() const override;

    // --- For the results of this driver ---

    /// Whether open() has succeeded and close() was not called; the line may be lost all the same.
    bool hasSession() const { return QSqlDriver::isOpen(); }
    QSqlDriver *stock() const { return m_stock.get(); }
    Policy *policy() const { return m_policy.get(); }
    /// Shared with the results, which may outlive the driver.
    std::shared_ptr<CancelGate> gate() const { return m_gate; }
    StatementCache &cache() { return m_cache; }
    /// Whether a statement that nobody will use again has to wait for the end of the session.
    bool freesStatementsLater() const { return m_lost && m_policy->freesStatementsLast(); }
    const LayerOptions &options() const { return m_options; }
    /// After how many milliseconds the layer ends a statement; 0 for never.
    int statementLimitMs() const;
    /// Lets the policy ask the server what it needs for a text, which can be cancelled and has its
    /// time like a statement. @return why it was ended, if it was
    CancelGate::Reason askServer(Policy::Need need, const QString &text);
    /// A statement has arrived, which tells a loss itself.
    void statementArrived() { m_mustTellLoss = false; }
    /// Changes with each open and close: what was prepared under another number is gone.
    int session() const { return m_session; }
    /// The result is there from now on, and until it is taken out.
    ResultList::iterator addResult(DecoratedResult *result) const
    {
        return m_results.insert(m_results.end(), result);
    }
    void removeResult(ResultList::iterator place) const { m_results.erase(place); }
    /// Gives a connection up on which a late request to cancel might still arrive, or that an error
    /// has shown to be lost. isOpen() is false from then on, and lastError() tells why.
    void giveUp(const QSqlError &reason);

public Q_SLOTS:
    /// Ends the statement that runs, and the rows that are being read. Any thread; returns at once.
    /// @return whether the connection can cancel
    bool cancelQuery() override;

private:
    QSqlError notLoaded() const;
    bool failOpen(const QSqlError &error);
    bool openStock(const OpenParameters &parameters, QSqlError *error);
    bool command(Policy::Command command, bool (QSqlDriver::*run)());
    void relayNotifications();

    QString m_key;
    std::unique_ptr<QSqlDriver> m_stock;
    std::unique_ptr<Policy> m_policy;
    std::shared_ptr<CancelGate> m_gate;
    StatementCache m_cache;
    mutable ResultList m_results; ///< of this driver, not owned
    LayerOptions m_options;
    QString m_loadError;
    int m_session = 0;
    mutable bool m_lost = false; ///< seen once, true until the connection is opened again
    bool m_mustTellLoss = false; ///< by the next statement, which only an open connection gets
    std::atomic<bool> m_canCancel{false};
};
