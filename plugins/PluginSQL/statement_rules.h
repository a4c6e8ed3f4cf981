/// @file
/// What the worker must know of a statement before and after it is sent. Pure text, any thread.
#pragma once

#include <QString>

namespace StatementRules
{

/// Why a text must not reach the driver.
enum class Refusal {
    None,
    NulCharacter, ///< drivers cut the text there and run what is left
    CopyStream    ///< COPY with STDIN or STDOUT: Qt's drivers would wait for ever
};
/// @param dbmsType SqlDriverKind of the database system.
Refusal refusal(const QString &sql, int dbmsType);

/// Whether SQLite may give the statement another number of columns when the schema has changed: a
/// `*` outside of strings, quoted names and comments, in a statement that returns rows.
bool mayChangeColumns(const QString &sql);

/// What a statement does to the transaction of its connection.
enum class TransactionStep {
    None,
    Begin,         ///< BEGIN, START TRANSACTION
    Commit,        ///< COMMIT, END
    Rollback,      ///< ROLLBACK, ABORT; not back to a savepoint
    AutocommitOff, ///< MariaDB: from here on every statement belongs to a transaction
    AutocommitOn
};
TransactionStep transactionStep(const QString &sql, int dbmsType);

} // namespace StatementRules
