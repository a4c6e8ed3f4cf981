#include "workloads.h"

#include <QElapsedTimer>

#include <cstdlib>
#include <libpq-fe.h>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <vector>

namespace
{

/// Typed column vectors, as a C++ program would read into.
struct Column {
    enum class Type { Unknown, Integer, Real, Text };
    Type type = Type::Unknown;
    std::vector<int64_t> integers;
    std::vector<double> reals;
    std::vector<std::string> texts;
    std::vector<bool> nulls;
};
using Columns = std::vector<Column>;

[[noreturn]] void fail(const char *what)
{
    fprintf(stderr, "floor: %s\n", what);
    std::exit(3);
}

void readSqlite(sqlite3 *db, const QByteArray &sql, Columns &columns)
{
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.constData(), sql.size(), &statement, nullptr) != SQLITE_OK)
        fail(sqlite3_errmsg(db));
    const int count = sqlite3_column_count(statement);
    columns.assign(size_t(count), Column());
    int state = SQLITE_ROW;
    while ((state = sqlite3_step(statement)) == SQLITE_ROW) {
        for (int c = 0; c < count; ++c) {
            Column &column = columns[size_t(c)];
            const int type = sqlite3_column_type(statement, c);
            column.nulls.push_back(type == SQLITE_NULL);
            switch (type) {
            case SQLITE_INTEGER:
                column.integers.push_back(sqlite3_column_int64(statement, c));
                break;
            case SQLITE_FLOAT:
                column.reals.push_back(sqlite3_column_double(statement, c));
                break;
            case SQLITE_TEXT:
                column.texts.emplace_back(
                    reinterpret_cast<const char *>(sqlite3_column_text(statement, c)),
                    size_t(sqlite3_column_bytes(statement, c)));
                break;
            default:
                column.integers.push_back(0);
            }
        }
    }
    if (state != SQLITE_DONE)
        fail(sqlite3_errmsg(db));
    sqlite3_finalize(statement);
}

void checkPostgres(PGconn *db, const PGresult *result)
{
    const ExecStatusType status = PQresultStatus(result);
    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK)
        fail(PQerrorMessage(db));
}

void readPostgres(PGconn *db, const QByteArray &sql, Columns &columns)
{
    PGresult *result = PQexec(db, sql.constData());
    checkPostgres(db, result);
    const int rows = PQntuples(result);
    const int count = PQnfields(result);
    columns.assign(size_t(count), Column());
    for (int c = 0; c < count; ++c) {
        const Oid type = PQftype(result, c);
        columns[size_t(c)].type = type == 20 || type == 23 ? Column::Type::Integer
                                  : type == 701            ? Column::Type::Real
                                                           : Column::Type::Text;
    }
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < count; ++c) {
            Column &column = columns[size_t(c)];
            column.nulls.push_back(PQgetisnull(result, r, c));
            const char *text = PQgetvalue(result, r, c);
            if (column.type == Column::Type::Integer)
                column.integers.push_back(strtoll(text, nullptr, 10));
            else if (column.type == Column::Type::Real)
                column.reals.push_back(strtod(text, nullptr));
            else
                column.texts.emplace_back(text, size_t(PQgetlength(result, r, c)));
        }
    }
    PQclear(result);
}

/// Reads the statements of a workload one after the other with `read`.
template <typename Read>
void readAll(const Workload &workload, Read read)
{
    Columns columns;
    if (workload.kind == Workload::Kind::Read) {
        read(workload.readStatement().toUtf8(), columns);
        return;
    }
    for (int i = 0; i < workload.count; ++i)
        read(workload.smallStatement(i).toUtf8(), columns);
}

void insertSqlite(sqlite3 *db, int count)
{
    sqlite3_exec(db, "begin", nullptr, nullptr, nullptr);
    for (int i = 0; i < count; ++i) {
        // The plugin's way for SQLite has no bound values, so neither has its floor.
        const QByteArray sql = "insert into inserts values(" + QByteArray::number(i) + ", 'text " +
                               QByteArray::number(i) + "', " + QByteArray::number(i * 0.5) + ")";
        if (sqlite3_exec(db, sql.constData(), nullptr, nullptr, nullptr) != SQLITE_OK)
            fail(sqlite3_errmsg(db));
    }
    sqlite3_exec(db, "commit", nullptr, nullptr, nullptr);
}

void insertPostgres(PGconn *db, int count)
{
    PQclear(PQexec(db, "begin"));
    PQclear(PQprepare(db, "ins", "insert into inserts values($1, $2, $3)", 3, nullptr));
    for (int i = 0; i < count; ++i) {
        const QByteArray a = QByteArray::number(i);
        const QByteArray b = "text " + a;
        const QByteArray c = QByteArray::number(i * 0.5);
        const char *values[] = {a.constData(), b.constData(), c.constData()};
        PGresult *result = PQexecPrepared(db, "ins", 3, values, nullptr, nullptr, 0);
        checkPostgres(db, result);
        PQclear(result);
    }
    PQclear(PQexec(db, "commit"));
}

Measurement finish(const QElapsedTimer &timer, double startMb)
{
    Measurement m;
    m.ms = double(timer.nsecsElapsed()) / 1e6;
    m.gapMs = m.ms;
    m.startMb = startMb;
    m.peakMb = peakMemoryMb();
    m.endMb = memoryMb();
    return m;
}

} // namespace

Measurement floorSqlite(const Target &target, const Workload &workload)
{
    sqlite3 *db = nullptr;
    if (sqlite3_open(target.sqliteFile.toUtf8().constData(), &db) != SQLITE_OK)
        fail(sqlite3_errmsg(db));
    const double startMb = memoryMb();
    QElapsedTimer timer;
    timer.start();
    if (workload.kind == Workload::Kind::Insert)
        insertSqlite(db, workload.count);
    else
        readAll(workload, [db](const QByteArray &sql, Columns &c) { readSqlite(db, sql, c); });
    const Measurement m = finish(timer, startMb);
    sqlite3_close(db);
    return m;
}

Measurement floorPostgres(const Target &target, const Workload &workload)
{
    const QByteArray port = QByteArray::number(target.port);
    PGconn *db =
        PQsetdbLogin(target.host.toUtf8().constData(), port.constData(), nullptr, nullptr,
                     target.database.toUtf8().constData(), target.user.toUtf8().constData(),
                     target.password.toUtf8().constData());
    if (PQstatus(db) != CONNECTION_OK)
        fail(PQerrorMessage(db));
    const double startMb = memoryMb();
    QElapsedTimer timer;
    timer.start();
    if (workload.kind == Workload::Kind::Insert)
        insertPostgres(db, workload.count);
    else
        readAll(workload, [db](const QByteArray &sql, Columns &c) { readPostgres(db, sql, c); });
    const Measurement m = finish(timer, startMb);
    PQfinish(db);
    return m;
}
