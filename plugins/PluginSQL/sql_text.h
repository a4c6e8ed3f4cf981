/// @file
/// What the plugin reads in and adds to the text of a statement. Pure text, any thread.
#pragma once

#include <QSqlError>
#include <QString>

namespace SqlText
{

/// Which character decides first whether a text may be a plain statement. The two callers differ
/// on purpose: a leading blank makes any text a procedure call in `exec`.
enum class FirstCharacter { AsGiven, Trimmed };

/// DELETE, INSERT, SELECT, UPDATE or VALUES, told by the first character and the trimmed text.
bool isPlainStatement(const QString &text, FirstCharacter first);

/// Statement of the synchronous exec: ":a0,:a1" placeholders, and a blank behind the prefix even
/// where the prefix is empty. `driverType` is the kind of Qt driver.
QString execStatement(const QString &text, int count, int driverType);

/// Statement of the worker: "?" placeholders. `dbmsType` is the database system.
QString procedureStatement(const QString &text, int count, int dbmsType);

/// The words that act on the worker's transaction without reaching the server. Only the leading
/// characters count, so that "commitment" commits and a leading blank defeats the test.
enum class TransactionWord { None, Commit, Rollback };
TransactionWord transactionWord(const QString &statement);

/// Whether a statement asks for its stages to be timed: it ends in an SQL comment marker.
bool asksForTiming(const QString &statement);

} // namespace SqlText

/// Name of an error type for diagnostics.
QString type2str(QSqlError::ErrorType type);
