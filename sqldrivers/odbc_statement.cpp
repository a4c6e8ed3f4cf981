#include "odbc_statement.h"

#include "policy_odbc.h"
#include "sqlite_literal.h"

#include <utility>

bool OdbcStatement::execute(const QVector<BoundValue> &values)
{
    QVector<BoundValue> exact = values;
    for (BoundValue &bound : exact)
        bound.value = withExactNumber(bound.value);
    return DriverStatement::execute(exact);
}

OdbcSqliteStatement::OdbcSqliteStatement(StatementPlan plan, OdbcPolicy *policy)
    : LiteralStatement(std::move(plan), policy->stock()->createResult(), &SqliteLiteral::inText)
    , m_policy(policy)
{
}

void OdbcSqliteStatement::begin()
{
    m_policy->beginPlain(plan().withMarks());
}

bool OdbcSqliteStatement::execute(const QVector<BoundValue> &values)
{
    return m_policy->waitForLocks(result(), [&] { return LiteralStatement::execute(values); });
}
