#include "c_columns.h"

#include <QElapsedTimer>

namespace
{

/// Reads the statements of a workload one after the other.
void readAll(const Workload &workload, const CReader &read)
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
            failFloor(sqlite3_errmsg(db));
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

void insertPrepared(sqlite3 *db, int count)
{
    sqlite3_exec(db, "begin", nullptr, nullptr, nullptr);
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(db, "insert into inserts values(?, ?, ?)", -1, &statement, nullptr) !=
        SQLITE_OK)
        failFloor(sqlite3_errmsg(db));
    for (int i = 0; i < count; ++i) {
        const std::string text = "text " + std::to_string(i);
        sqlite3_bind_int(statement, 1, i);
        sqlite3_bind_text(statement, 2, text.data(), int(text.size()), SQLITE_STATIC);
        sqlite3_bind_double(statement, 3, i * 0.5);
        if (sqlite3_step(statement) != SQLITE_DONE)
            failFloor(sqlite3_errmsg(db));
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
    sqlite3_exec(db, "commit", nullptr, nullptr, nullptr);
}

void copyPostgres(PGconn *db, int count)
{
    PQclear(PQexec(db, "begin"));
    PGresult *copy = PQexec(db, "copy inserts from stdin");
    if (PQresultStatus(copy) != PGRES_COPY_IN)
        failFloor(PQerrorMessage(db));
    PQclear(copy);
    for (int i = 0; i < count; ++i) {
        const QByteArray number = QByteArray::number(i);
        const QByteArray line =
            number + "\ttext " + number + '\t' + QByteArray::number(i * 0.5) + '\n';
        if (PQputCopyData(db, line.constData(), line.size()) != 1)
            failFloor(PQerrorMessage(db));
    }
    if (PQputCopyEnd(db, nullptr) != 1)
        failFloor(PQerrorMessage(db));
    PGresult *end = PQgetResult(db);
    checkPostgres(db, end);
    PQclear(end);
    PQclear(PQgetResult(db));
    PQclear(PQexec(db, "commit"));
}

/// Measures what one of the two does, on a connection that is open before the clock starts.
template <typename Sqlite, typename Postgres>
Measurement measureWrites(const Target &target, Sqlite onSqlite, Postgres onPostgres)
{
    const double startMb = memoryMb();
    QElapsedTimer timer;
    if (target.postgres) {
        const PostgresConnection db = openPostgres(target);
        timer.start();
        onPostgres(db.get());
        return finish(timer, startMb);
    }
    const SqliteConnection db = openSqlite(target);
    timer.start();
    onSqlite(db.get());
    return finish(timer, startMb);
}

Measurement floorInserts(const Target &target, const Workload &workload)
{
    return measureWrites(
        target, [&workload](sqlite3 *db) { insertSqlite(db, workload.count); },
        [&workload](PGconn *db) { insertPostgres(db, workload.count); });
}

} // namespace

Measurement floorPath(const Target &target, const Workload &workload)
{
    if (workload.kind == Workload::Kind::Insert)
        return floorInserts(target, workload);
    const CReader read = makeReader(target);
    const double startMb = memoryMb();
    QElapsedTimer timer;
    timer.start();
    readAll(workload, read);
    return finish(timer, startMb);
}

Measurement floorBulk(const Target &target, const Workload &workload)
{
    return measureWrites(
        target, [&workload](sqlite3 *db) { insertPrepared(db, workload.count); },
        [&workload](PGconn *db) { copyPostgres(db, workload.count); });
}
