#include "statement_execution.h"

#include "sql_records.h"
#include "sqlite_schema_guard.h"
#include "statement_rules.h"
#include "transaction_watch.h"

#include <QCoreApplication>
#include <QSqlDriver>

#include <optional>

namespace
{

QSqlError refused(const QString &reason)
{
    return QSqlError(QString(), reason, QSqlError::StatementError);
}

/// Why the statement must not be sent.
std::optional<QSqlError> refusal(const structThrSql &task, const TransactionWatch &watch,
                                 const QString &sql)
{
    // ODBC drivers know the system only since they are open.
    const int dbmsType = task.kind.dbmsType != SqlDriverKind::Unknown
                             ? task.kind.dbmsType
                             : int(task.sqlQuery->driver()->dbmsType());
    switch (StatementRules::refusal(sql, dbmsType)) {
    case StatementRules::Refusal::NulCharacter:
        return refused(
            QCoreApplication::translate("VEXT_sqlThr", "текст запроса содержит символ U+0000"));
    case StatementRules::Refusal::CopyStream:
        return refused(QCoreApplication::translate(
            "VEXT_sqlThr", "COPY через STDIN и STDOUT не поддерживается драйвером"));
    case StatementRules::Refusal::None:
        break;
    }
    if (watch.isLost() &&
        StatementRules::transactionStep(sql, dbmsType) == StatementRules::TransactionStep::Commit)
        return StatementExecution::lostTransaction();
    return std::nullopt;
}

} // namespace

bool StatementExecution::run(structThrSql &task, TransactionWatch &watch, const QString &sql,
                             const std::function<bool()> &attempt)
{
    if (task.ownError.isValid()) {
        task.ownText.clear();
        task.ownError = QSqlError();
    }
    if (std::optional<QSqlError> reason = refusal(task, watch, sql)) {
        task.ownError = *reason;
        task.ownText = sql;
        if (task.ownError.type() == QSqlError::TransactionError)
            watch.ended(); // told once
        return false;
    }
    auto *driver = const_cast<QSqlDriver *>(task.sqlQuery->driver());
    return SqliteSchemaGuard::run(driver, sql, attempt, &task.ownError);
}

QSqlError StatementExecution::lostTransaction()
{
    return QSqlError(
        QString(),
        QCoreApplication::translate("VEXT_sqlThr", "транзакция потеряна вместе с соединением"),
        QSqlError::TransactionError);
}
