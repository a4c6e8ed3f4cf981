/// @file
/// A statement that values can be bound to, prepared on one connection.
#pragma once

#include "statement_plan.h"
#include "stock_result.h"

#include <QVariant>
#include <QVector>

#include <memory>

/// One value for a placeholder, and how the caller wants it bound.
struct BoundValue {
    QVariant value;
    QSql::ParamType type = QSql::In;
};

/// How a planned statement is run on the stock driver. The connection's thread only. It may be
/// executed many times, and kept when the result that used it is gone; it must not outlive the
/// stock driver, and its connection only to be destroyed.
class BoundStatement
{
public:
    BoundStatement(StatementPlan plan, QSqlResult *result)
        : m_plan(std::move(plan))
        , m_result(result)
    {
    }
    virtual ~BoundStatement() = default;
    BoundStatement(const BoundStatement &) = delete;
    BoundStatement &operator=(const BoundStatement &) = delete;

    /// Makes the server know the statement. @return false on an error, which result() has then
    virtual bool prepare() = 0;
    /// Comes before each execute(), when nothing can be cancelled yet.
    virtual void begin() {}
    /// Runs the statement with one value for each of the plan's. @return false as for prepare()
    virtual bool execute(const QVector<BoundValue> &values) = 0;
    /// Takes back what execute() has made: rows, locks. Before the statement is kept.
    virtual void release() { m_result.detach(); }
    /// Whether a kept statement may be used now. Otherwise it is prepared anew.
    virtual bool isFresh() const { return true; }
    /// The text as the server receives it.
    virtual QString sentText() const { return m_plan.withMarks(); }

    const StatementPlan &plan() const { return m_plan; }
    StockResult &result() { return m_result; }

private:
    StatementPlan m_plan;
    StockResult m_result;
};

/// An integer for what a script calls 5 or 9007199254740991, which is a double there: databases do
/// not take a double for a number of rows or of days. Everything else stays.
QVariant withExactNumber(const QVariant &value);

/// A text that every system reads alike: half a pair of surrogates is a question mark, as it
/// becomes in UTF-8. Some would take the next character for the other half, were it a quote.
QString withWholePairs(const QString &text);

/// Why a value cannot be bound on any system: the stock drivers make an empty text of a list.
/// @param number the value's place, from 1. @return an empty text when it can
QString refusalOf(const QVariant &value, int number);

/// Prepared by the stock driver with "?" for every value.
class DriverStatement : public BoundStatement
{
public:
    using BoundStatement::BoundStatement;
    bool prepare() override;
    bool execute(const QVector<BoundValue> &values) override;
};

/// Not prepared: the values are written into the text.
class LiteralStatement : public BoundStatement
{
public:
    /// Writes a value as the database reads it, or gives the reason why it cannot.
    using Literal = QString (*)(const BoundValue &value, QString *refusal);

    LiteralStatement(StatementPlan plan, QSqlResult *result, Literal literal)
        : BoundStatement(std::move(plan), result)
        , m_literal(literal)
    {
    }
    bool prepare() override { return true; }
    bool execute(const QVector<BoundValue> &values) override;
    QString sentText() const override;

private:
    Literal m_literal;
    QString m_sent;
};
