/// @file
/// How a statement is sent, or refused before it is sent.
#pragma once

#include <QSqlError>

#include <functional>

class TransactionWatch;
struct structThrSql;

/// In the thread of the task's query; neither the engine nor a script value is touched.
namespace StatementExecution
{

/// Executes `sql` through `attempt`, which may be called several times, or refuses it: then the
/// task keeps the error and the text that stand in place of the query's.
/// @param watch of the connection; a loss that a refused commit has told is over for it.
/// @return whether it worked.
bool run(structThrSql &task, TransactionWatch &watch, const QString &sql,
         const std::function<bool()> &attempt);

/// The error of a commit whose transaction went with its session.
QSqlError lostTransaction();

} // namespace StatementExecution
