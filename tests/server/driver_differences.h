/// @file
/// What differs from driver to driver, in one table: how a statement is written, and what a script
/// receives. The drivers page tells the same to users.
#pragma once

#include <QSqlError>
#include <QString>

#include <vector>

/// What a driver does with the statements that every driver runs.
struct DriverTraits {
    const char *database;
    const char *createItem;       ///< %1 the table: id of its own, a unique number, b text
    const char *selectOne;        ///< behind "SELECT 1", what the dialect wants there
    const char *lastInsertId;     ///< described, after the first row of a new table
    const char *mixedCaseColumn;  ///< name of the column written as MixedCase
    const char *affectedBySelect; ///< for one row
    bool ownThreadConnection;     ///< the thread connection sees the same database
    bool returningHasRows = true; ///< INSERT ... RETURNING delivers its row
};

/// One value as a driver hands it over.
struct TypeCase {
    const char *database;
    const char *what;
    const char *sql;
    const char *script; ///< as the script function `describe` tells it
    const char *type;   ///< in "fields_typeN"
};

/// One failing statement.
struct ErrorCase {
    const char *database;
    const char *what;
    const char *sql;       ///< %1 the table with one row (1, 'x')
    int type;              ///< in lastErrors: 1 connection, 2 statement, 3 transaction, 4 unknown
    int number;            ///< in lastErrors: the native code where it is a number, else 0
    const char *text;      ///< part of lastError
    bool staysOpen = true; ///< the main connection, after a synchronous statement
    /// As number, with the layer of drivers, where every one of them is a statement's error.
    int layeredNumber = number;
};

/// What a driver does with a value or a statement that its users would not expect, and what they
/// may write instead.
struct OddityCase {
    const char *database;
    const char *what;
    /// Script code with `db`, `run(sql, ...)` for statements that must succeed, `seen(outcome)` for
    /// what a statement gave: rows as the script function `rows` tells them, or "error: TEXT".
    const char *code;
    const char *seen;           ///< the value of the code's last expression
    const char *layered = seen; ///< as seen, with the layer of drivers
};

const std::vector<DriverTraits> &driverTraits();
const std::vector<TypeCase> &typeCases();
const std::vector<ErrorCase> &errorCases();
const std::vector<OddityCase> &oddityCases();
