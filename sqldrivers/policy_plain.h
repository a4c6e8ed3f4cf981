/// @file
/// A database system of which nothing is known but its texts.
#pragma once

#include "policy.h"

/// Placeholders are found and statements prepared by the stock driver; nothing else is added.
class PlainPolicy : public Policy
{
public:
    PlainPolicy(QSqlDriver *stock, SqlDialect dialect)
        : Policy(stock)
        , m_dialect(dialect)
    {
    }

    SqlDialect dialect() const override { return m_dialect; }
    bool attach(const LayerOptions &, const std::shared_ptr<CancelGate> &, QSqlError *) override
    {
        return true;
    }
    std::unique_ptr<BoundStatement> makeStatement(StatementPlan plan) override
    {
        return std::make_unique<DriverStatement>(std::move(plan), stock()->createResult());
    }
    QSqlError classified(const QSqlError &error, Step) override { return error; }

private:
    SqlDialect m_dialect;
};
