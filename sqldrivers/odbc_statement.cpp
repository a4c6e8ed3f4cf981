#include "odbc_statement.h"

#include "policy_odbc.h"
#include "sqlite_literal.h"

#include <QCoreApplication>

#include <utility>

bool OdbcStatement::execute(const QVector<BoundValue> &values)
{
    QVector<BoundValue> exact = values;
    for (BoundValue &bound : exact) {
        if (bound.value.userType() == QMetaType::QString &&
            bound.value.toString().contains(QChar(QChar::Null))) {
            result().fail(QSqlError(
                QString(),
                QCoreApplication::translate("OdbcStatement", "a text over ODBC cannot hold U+0000"),
                QSqlError::StatementError));
            return false;
        }
        bound.value = withExactNumber(bound.value);
    }
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
