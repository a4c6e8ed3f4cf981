/// @file
/// How ODBC runs a planned statement.
#pragma once

#include "bound_statement.h"

class OdbcPolicy;

/// Prepared by the stock driver, with integers for what a script calls 5.
class OdbcStatement : public DriverStatement
{
public:
    using DriverStatement::DriverStatement;
    bool execute(const QVector<BoundValue> &values) override;
};

/// The values are written into the text: the stock driver logs a warning for each failure of a
/// prepared statement, also where a lock is tried again and again.
class OdbcSqliteStatement : public LiteralStatement
{
public:
    /// @param policy outlives the statement
    OdbcSqliteStatement(StatementPlan plan, OdbcPolicy *policy);

    void begin() override;
    bool execute(const QVector<BoundValue> &values) override;

private:
    OdbcPolicy *m_policy;
};
