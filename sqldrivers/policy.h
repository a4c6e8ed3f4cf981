/// @file
/// What the database systems do differently.
#pragma once

#include "bound_statement.h"
#include "cancel_gate.h"
#include "column_rule.h"
#include "layer_options.h"
#include "sql_scanner.h"

#include <QSqlDriver>
#include <QSqlError>
#include <QSqlRecord>
#include <QString>

#include <memory>

/// What the stock driver was opened with.
struct OpenParameters {
    QString database;
    QString user;
    QString password;
    QString host;
    int port = -1;
    QString options;
};

/// Sees to it that calls to a server come back, for as long as it lives, where the client library
/// would wait without an end.
class LineWatch
{
public:
    virtual ~LineWatch() = default;
};

/// One connection's view of its database system. DecoratedDriver and DecoratedResult know the order
/// of things, a policy what each step means for its system. Owned by the driver; used in the
/// connection's thread except for interrupt(), see CancelGate::Interrupter.
class Policy : public CancelGate::Interrupter
{
public:
    /// Where an error came from.
    enum class Step { Open, Transaction, Prepare, Execute, Fetch };

    /// @param stock the stock driver, not open yet; outlives the policy
    explicit Policy(QSqlDriver *stock)
        : m_stock(stock)
    {
    }

    QSqlDriver *stock() const { return m_stock; }
    /// The rules by which a text is read, as far as ask() has learned them.
    virtual SqlDialect dialect() const = 0;
    /// The rules for one text, where they depend on it.
    virtual SqlDialect dialectOf(const QString &text) const
    {
        Q_UNUSED(text)
        return dialect();
    }

    /// What a text may need of the session. Rules: how its strings are read, before its
    /// placeholders are looked for. Settings: what the stock driver relies on, before it is sent.
    /// Transaction: whether the one around it is still there, when it is over.
    enum class Need { Rules, Settings, Transaction };
    /// Whether the server has to be asked, or told something, for a text.
    virtual bool mustAsk(Need need, const QString &text) const
    {
        Q_UNUSED(need)
        Q_UNUSED(text)
        return false;
    }
    /// Asks the server where mustAsk() says so. It may be cancelled like a statement, and leaves
    /// things as they were then.
    virtual void ask(Need need) { Q_UNUSED(need) }

    // --- Opening and closing ---

    /// The connect options for the stock driver: the user's, and in front of them what this layer
    /// wants unless the user says otherwise (character set, time-outs).
    virtual QString stockOptions(const QString &options, const LayerOptions &layer) const
    {
        Q_UNUSED(layer)
        return options;
    }
    /// The stock driver is about to be opened.
    virtual void opening() {}
    /// The stock driver was opened with these; comes before attach().
    virtual void opened(const OpenParameters &parameters) { Q_UNUSED(parameters) }
    /// The stock driver is open: finds the client library's functions, sets the session up.
    /// @return false when the connection cannot be used; `error` says why, and it is closed
    virtual bool attach(const LayerOptions &layer, const std::shared_ptr<CancelGate> &gate,
                        QSqlError *error) = 0;
    /// The stock driver is about to be closed. Nothing of its connection may be used afterwards.
    virtual void detach() {}
    /// Whether the stock driver cannot end its session while results of it exist: they are given up
    /// before detach().
    virtual bool resultsHoldSession() const { return false; }
    /// Whether prepared statements may be freed when the stock driver is closed already: the server
    /// has dropped them by then, so that nothing is sent for them, on a lost line least of all.
    virtual bool freesStatementsLast() const { return false; }
    /// Whether cancelling works on this connection.
    virtual bool canCancel() const { return false; }
    /// Whether the server itself ends statements after VEXT_STATEMENT_TIMEOUT. Where it does not,
    /// the layer cancels them then, and otherwise a little later.
    virtual bool hasServerTimeout() const { return false; }

    // --- Statements ---

    /// How a planned statement is run: made, not yet prepared.
    virtual std::unique_ptr<BoundStatement> makeStatement(StatementPlan plan) = 0;
    /// Whether a text that was given without values goes the way of makeStatement() too, to be
    /// kept. Otherwise it reaches the stock driver as it is.
    virtual bool preparesPlainText(const QString &text) const
    {
        Q_UNUSED(text)
        return false;
    }
    /// Called before any statement, with its text as given. @return an error that keeps it from
    /// being run, or none
    virtual QSqlError refusal(const QString &text)
    {
        Q_UNUSED(text)
        return QSqlError();
    }
    /// Whether an executed statement has rows to give.
    virtual bool hasRows(const StockResult &rows) const { return rows.isSelect(); }
    /// Called before a text is run as it is, when nothing can be cancelled yet. A prepared
    /// statement has BoundStatement::begin() for that.
    virtual void beginPlain(const QString &text) { Q_UNUSED(text) }
    /// Runs a text as it is.
    virtual bool runPlain(StockResult &rows, const QString &text) { return rows.reset(text); }
    /// Called when a statement is over, and cannot be cancelled any more. Not for one that has rows
    /// to give. @return an error that makes a statement that worked fail after all, or none
    virtual QSqlError complete(bool good)
    {
        Q_UNUSED(good)
        return QSqlError();
    }
    /// Whether one stock result may run plain texts one after the other.
    virtual bool reusesResults() const { return true; }
    /// Called after each statement, and after transaction commands with an empty text.
    virtual void finished(const QString &text, bool good)
    {
        Q_UNUSED(text)
        Q_UNUSED(good)
    }
    /// Whether a statement that worked may be kept for its next use.
    virtual bool mayKeep(const StatementPlan &plan) const
    {
        Q_UNUSED(plan)
        return false;
    }
    /// Whether all that is kept must be given up, now that this statement has worked (DROP, USE).
    virtual bool endsKept(const QString &text) const
    {
        Q_UNUSED(text)
        return false;
    }
    /// Whether a kept statement's error may come from its age, so that it is worth another try,
    /// prepared anew.
    virtual bool isStale(const QSqlError &error) const
    {
        Q_UNUSED(error)
        return false;
    }

    // --- Transactions ---

    enum class Command { Begin, Commit, Rollback };
    /// Whether a command may be cancelled like a statement.
    virtual bool cancelsCommands() const { return true; }
    /// Called before a command of the driver. @return an error that refuses it, or none
    virtual QSqlError refusal(Command command)
    {
        Q_UNUSED(command)
        return QSqlError();
    }

    // --- Errors and loss ---

    /// The error of a stock result, also one that the stock driver does not report; invalid when
    /// there is none. `step` tells what was done with the result.
    virtual QSqlError errorOf(StockResult &rows, Step step)
    {
        Q_UNUSED(step)
        return rows.lastError();
    }
    /// The stock driver's error as the layer reports it: its type, its native code. What was
    /// cancelled does not come here.
    virtual QSqlError classified(const QSqlError &error, Step step) = 0;
    /// A quick look at whether the connection is gone.
    virtual bool isLost() const { return false; }

    /// To be held while the stock driver talks to the server without being asked for a statement:
    /// where results are given up, and for commands. Null where that needs no watch.
    virtual std::unique_ptr<LineWatch> watchLine() const { return nullptr; }
    /// The same for a rollback, which nobody cancels when a worker ends with an open transaction.
    virtual std::unique_ptr<LineWatch> watchRollback() { return watchLine(); }
    /// The same for the last id, which some stock drivers ask the server for.
    virtual std::unique_ptr<LineWatch> watchLastId() { return nullptr; }
    /// The same while the session is ended, when nothing can be cancelled any more.
    virtual std::unique_ptr<LineWatch> watchClosing() const { return watchLine(); }

    // --- Values ---

    /// Whether columnRules() is asked for the results of this connection.
    virtual bool adjustsValues(const LayerOptions &layer) const { return layer.exactNumbers; }
    /// The rules of a result's columns, one each, or none at all.
    virtual QVector<ColumnRule> columnRules(const QSqlRecord &columns, const LayerOptions &layer);
    /// Whether a result, which was just executed, has columns whose values reread() is asked for.
    virtual bool rereads(StockResult &rows)
    {
        Q_UNUSED(rows)
        return false;
    }
    /// The right value of a cell of the current row, where the stock driver may have misread it.
    virtual QVariant reread(StockResult &rows, int column, const QVariant &value)
    {
        Q_UNUSED(rows)
        Q_UNUSED(column)
        return value;
    }

    /// The right name of a result's column, where the stock driver misreads it.
    virtual QString columnName(const QString &name) const { return name; }

    // --- Notifications ---

    /// Subscribes to the stock driver's notifications. `outer` is the driver that the caller knows.
    virtual bool subscribe(const QString &name, QObject *outer)
    {
        Q_UNUSED(outer)
        return m_stock->subscribeToNotification(name);
    }
    /// Ends a subscription. Each of them is ended before the connection is closed, too, when nobody
    /// cancels what a silent line holds up.
    virtual bool unsubscribe(const QString &name)
    {
        return m_stock->unsubscribeFromNotification(name);
    }

    void interrupt(CancelGate::Phase phase, bool alone) override
    {
        Q_UNUSED(phase)
        Q_UNUSED(alone)
    }
    bool settle() override { return true; }

protected:
    /// The stock driver's native connection of type `Native` ("PGconn *"), null without one.
    template <typename Native>
    Native nativeHandle() const
    {
        const QVariant handle = m_stock->handle();
        return handle.isValid() ? *static_cast<const Native *>(handle.constData()) : Native();
    }

    /// What is said to every statement and commit behind a transaction that the database has given
    /// up by itself, until the script rolls it back.
    static QSqlError transactionGone(QSqlError::ErrorType type);

private:
    QSqlDriver *m_stock;
};

/// The policy for a driver's key.
std::unique_ptr<Policy> makePolicy(const QString &key, QSqlDriver *stock);
