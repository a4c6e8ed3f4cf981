#include "c_columns.h"

#include <cstdio>
#include <cstdlib>

void failFloor(const char *what)
{
    fprintf(stderr, "floor: %s\n", what);
    std::exit(3);
}

SqliteConnection openSqlite(const Target &target)
{
    sqlite3 *db = nullptr;
    if (sqlite3_open(target.sqliteFile.toUtf8().constData(), &db) != SQLITE_OK)
        failFloor(sqlite3_errmsg(db));
    return SqliteConnection(db);
}

PostgresConnection openPostgres(const Target &target)
{
    const QByteArray port = QByteArray::number(target.port);
    PGconn *db =
        PQsetdbLogin(target.host.toUtf8().constData(), port.constData(), nullptr, nullptr,
                     target.database.toUtf8().constData(), target.user.toUtf8().constData(),
                     target.password.toUtf8().constData());
    if (PQstatus(db) != CONNECTION_OK)
        failFloor(PQerrorMessage(db));
    return PostgresConnection(db);
}

void readSqlite(sqlite3 *db, const QByteArray &sql, Columns &columns)
{
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.constData(), sql.size(), &statement, nullptr) != SQLITE_OK)
        failFloor(sqlite3_errmsg(db));
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
        failFloor(sqlite3_errmsg(db));
    sqlite3_finalize(statement);
}

void checkPostgres(PGconn *db, const PGresult *result)
{
    const ExecStatusType status = PQresultStatus(result);
    if (status != PGRES_TUPLES_OK && status != PGRES_COMMAND_OK)
        failFloor(PQerrorMessage(db));
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

CReader makeReader(const Target &target)
{
    if (target.postgres) {
        const std::shared_ptr<PGconn> db = openPostgres(target);
        return [db](const QByteArray &sql, Columns &c) { readPostgres(db.get(), sql, c); };
    }
    const std::shared_ptr<sqlite3> db = openSqlite(target);
    return [db](const QByteArray &sql, Columns &c) { readSqlite(db.get(), sql, c); };
}
