/// @file
/// What a C++ program does without Qt: statements through the C interfaces, into typed column
/// vectors.
#pragma once

#include "workloads.h"

#include <QByteArray>

#include <cstdint>
#include <functional>
#include <libpq-fe.h>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <vector>

/// One column of a result.
struct Column {
    enum class Type { Unknown, Integer, Real, Text };
    Type type = Type::Unknown;
    std::vector<int64_t> integers;
    std::vector<double> reals;
    std::vector<std::string> texts;
    std::vector<bool> nulls;
};
using Columns = std::vector<Column>;

/// Ends the process: a floor that fails is no floor.
[[noreturn]] void failFloor(const char *what);

struct CloseSqlite {
    void operator()(sqlite3 *db) const { sqlite3_close(db); }
};
struct ClosePostgres {
    void operator()(PGconn *db) const { PQfinish(db); }
};
using SqliteConnection = std::unique_ptr<sqlite3, CloseSqlite>;
using PostgresConnection = std::unique_ptr<PGconn, ClosePostgres>;

SqliteConnection openSqlite(const Target &target);
PostgresConnection openPostgres(const Target &target);

/// Ends the process when the result is an error.
void checkPostgres(PGconn *db, const PGresult *result);

/// Prepares, steps and finalizes a statement.
void readSqlite(sqlite3 *db, const QByteArray &sql, Columns &columns);
/// Sends a statement with PQexec.
void readPostgres(PGconn *db, const QByteArray &sql, Columns &columns);

/// Reads one statement on a connection that it holds.
using CReader = std::function<void(const QByteArray &sql, Columns &columns)>;
CReader makeReader(const Target &target);
