/// @file
/// Readers of SQLite while another process changes the columns of their table as fast as it can.

#include "database_script.h"
#include "local_databases.h"
#ifdef VEXT_WITH_LAYER
#include "layer_path.h"
#endif

#include <QLibrary>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlQuery>
#include <QSqlResult>
#include <QtTest>

#include <cstdlib>
#include <iostream>
#include <thread>

namespace
{

/// Ends this process when the test that started it is gone, however that went: its end of the pipe
/// closes then.
void endWithTheTest()
{
    std::thread([] {
        while (std::cin.get() != std::char_traits<char>::eof()) {
        }
        std::_Exit(0);
    }).detach();
}

/// The other process: adds and drops columns until it is ended.
int changeColumns(const QString &database)
{
    endWithTheTest();
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"));
    db.setDatabaseName(database);
    if (!db.open())
        return 1;
    QSqlQuery query(db);
    std::cout << "ready" << std::endl;
    for (int n = 0;; n = (n + 1) % 12) {
        const bool add = n < 6;
        const int column = add ? n : 11 - n;
        query.exec(add ? QStringLiteral("ALTER TABLE t ADD COLUMN c%1 DEFAULT 7").arg(column)
                       : QStringLiteral("ALTER TABLE t DROP COLUMN c%1").arg(column));
    }
}

/// A table that one connection of a script reads while another one changes it.
class ReadAndWritten
{
public:
    /// @param columns of the table t
    bool open(const char *columns)
    {
        return database.start() && script.open(reader, database.parameters()) &&
               script.open(writer, database.parameters()) &&
               write(QStringLiteral("CREATE TABLE t (%1)").arg(QLatin1String(columns)));
    }
    bool write(const QString &sql) { return script.mustRun(Way::Here, writer, sql); }

    const QString reader = QStringLiteral("db");
    const QString writer = QStringLiteral("other");
    SqliteDatabase database;
    DatabaseScript script;
};

} // namespace

class TestSchemaRace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void addedColumnsAreRead_data();
    void addedColumnsAreRead();
    void otherStatementsOfTheConnectionAreLeftAlone();
    void finishedStatementOfTheSameTextIsNoHindrance();
    void guardedChangeWaitsForTheLock_data();
    void guardedChangeWaitsForTheLock();
#ifdef VEXT_WITH_LAYER
    void boundValuesAreTracedOnce();
    void boundPatternIsFound();
#endif
    void readersSeeWholeRows_data();
    void readersSeeWholeRows();
};

void TestSchemaRace::addedColumnsAreRead_data()
{
    QTest::addColumn<bool>("onThread");
    QTest::newRow("here") << false;
    QTest::newRow("thread") << true;
}

/// Many columns at once: what does not fit the driver's room for the row crashes then.
void TestSchemaRace::addedColumnsAreRead()
{
    QFETCH(bool, onThread);
    ReadAndWritten table;
    QVERIFY2(table.open("a, b"), qPrintable(table.database.error()));
    DatabaseScript &script = table.script;
    QVERIFY(table.write(QStringLiteral("INSERT INTO t VALUES (1, 2)")));
    const Way way = onThread ? Way::Thread : Way::Here;
    for (int columns = 2; columns <= 200; columns += 33) {
        script.rows(way, table.reader, QStringLiteral("SELECT * FROM t"));
        QCOMPARE(script.eval(QStringLiteral("answer.result.fields")).toInt32(), columns);
        QVERIFY(script.isTrue(
            QStringLiteral("answer.result.fields_nulls.join('') === '' && answer.result.rows")));
        for (int n = 0; n < 33; ++n) {
            QVERIFY(table.write(
                QStringLiteral("ALTER TABLE t ADD COLUMN c%1 DEFAULT 7").arg(columns + n)));
        }
    }
}

/// Statements that are prepared or half read stay so, whatever is done about `*`.
void TestSchemaRace::otherStatementsOfTheConnectionAreLeftAlone()
{
    SqliteDatabase database;
    QVERIFY2(database.start(), qPrintable(database.error()));
    DatabaseScript script;
    QVERIFY(script.open(QStringLiteral("db"), database.parameters()));
    QVERIFY(script.mustRun(Way::Here, QStringLiteral("db"), QStringLiteral("CREATE TABLE t (a)")));
    const QString name = script.eval(QStringLiteral("db.connectionName")).toString();
    QSqlQuery kept(QSqlDatabase::database(name, false));
    kept.setForwardOnly(true);
    QVERIFY(kept.prepare(QStringLiteral("SELECT 1 UNION ALL SELECT 2")));
    QVERIFY(kept.exec() && kept.next());
    QCOMPARE(script.rows(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT * FROM t")),
             QString());
    QVERIFY(kept.next());
    QCOMPARE(kept.value(0).toInt(), 2);
    QVERIFY(kept.exec() && kept.next());
    const QVariant handle = kept.result()->handle();
    if (qstrcmp(handle.typeName(), "sqlite3_stmt*") != 0)
        return; // the driver does not show its statements
    using Status = int (*)(void *, int, int);
    const auto status = reinterpret_cast<Status>(
        QLibrary::resolve(QStringLiteral("sqlite3"), 0, "sqlite3_stmt_status"));
    QVERIFY(status);
    constexpr int Reprepared = 5;
    QCOMPARE(status(*static_cast<void *const *>(handle.constData()), Reprepared, 0), 0);
}

/// The host keeps one that has run, and prepares it again when it likes.
void TestSchemaRace::finishedStatementOfTheSameTextIsNoHindrance()
{
    const QString sql = QStringLiteral("SELECT * FROM t");
    SqliteDatabase database;
    QVERIFY2(database.start(), qPrintable(database.error()));
    DatabaseScript script;
    QVERIFY(script.open(QStringLiteral("db"), database.parameters()));
    QVERIFY(script.mustRun(Way::Here, QStringLiteral("db"), QStringLiteral("CREATE TABLE t (a)")));
    const QString name = script.eval(QStringLiteral("db.connectionName")).toString();
    QSqlQuery kept(QSqlDatabase::database(name, false));
    QVERIFY(kept.prepare(sql) && kept.exec() && !kept.next());
    QVERIFY(script.mustRun(Way::Here, QStringLiteral("db"), sql));
}

void TestSchemaRace::guardedChangeWaitsForTheLock_data()
{
    QTest::addColumn<QString>("sql");
    QTest::newRow("returning") << QStringLiteral("UPDATE t SET a = a + 1 RETURNING *");
    QTest::newRow("with") << QStringLiteral("WITH q AS (SELECT * FROM t) "
                                            "INSERT INTO t SELECT * FROM q");
}

/// What reads the schema before it would be told at once that the database is locked.
void TestSchemaRace::guardedChangeWaitsForTheLock()
{
    QFETCH(QString, sql);
    constexpr int heldMs = 300; // in which a statement that does not wait has failed
    SqliteDatabase database;
    QVERIFY2(database.start(), qPrintable(database.error()));
    ConnectionParameters parameters = database.parameters();
    parameters.connectOptions = QStringLiteral("QSQLITE_BUSY_TIMEOUT=60000");
    DatabaseScript script;
    const QString name = QStringLiteral("db");
    QVERIFY(script.open(name, parameters));
    QVERIFY(script.mustRun(Way::Here, name, QStringLiteral("CREATE TABLE t (a)")));
    QVERIFY(script.mustRun(Way::Thread, name, QStringLiteral("INSERT INTO t VALUES (1)")));
    QVERIFY(script.mustRun(Way::Here, name, QStringLiteral("BEGIN IMMEDIATE")));
    script.eval(QStringLiteral("var done = null; db.query_thread(function(result, error) {"
                               "done = {error: error} }, '%1')")
                    .arg(sql));
    QTest::qWait(heldMs);
    QVERIFY(script.isTrue(QStringLiteral("done === null")));
    QVERIFY(script.mustRun(Way::Here, name, QStringLiteral("COMMIT")));
    QVERIFY(script.waitFor(QStringLiteral("done")));
    QCOMPARE(script.text(QStringLiteral("done.error")), QStringLiteral("boolean:false"));
}

#ifdef VEXT_WITH_LAYER
/// However often the statement is sent until it fits the schema.
void TestSchemaRace::boundValuesAreTracedOnce()
{
    ReadAndWritten table;
    QVERIFY2(table.open("a"), qPrintable(table.database.error()));
    DatabaseScript &script = table.script;
    script.rows(Way::Here, table.reader, QStringLiteral("SELECT * FROM t"));
    QVERIFY(table.write(QStringLiteral("ALTER TABLE t ADD COLUMN b")));
    script.eval(QStringLiteral("db.traceLog = true"));
    QVERIFY(script.isTrue(
        QStringLiteral("db.exec('SELECT * FROM t WHERE a = ?', [1]).fields === 2")));
    QCOMPARE(script.host().post()->texts().filter(QStringLiteral("sql bind")).size(), 1);
}

/// SQLite prepares the statement again before it begins, to use an index for the pattern.
void TestSchemaRace::boundPatternIsFound()
{
    SqliteDatabase database;
    QVERIFY2(database.start(), qPrintable(database.error()));
    DatabaseScript script;
    const QString name = QStringLiteral("db");
    QVERIFY(script.open(name, database.parameters()));
    for (const char *sql : {"CREATE TABLE t (a TEXT COLLATE NOCASE)", "CREATE INDEX i ON t (a)",
                            "INSERT INTO t VALUES ('xa'), ('ya')"})
        QVERIFY(script.mustRun(Way::Here, name, QString::fromUtf8(sql)));
    QVERIFY(script.isTrue(
        QStringLiteral("db.exec('SELECT * FROM t WHERE a LIKE ?', ['x%']).rows === 1")));
}
#endif

void TestSchemaRace::readersSeeWholeRows_data()
{
    QTest::addColumn<bool>("onThread");
    QTest::addColumn<QString>("sql");
    for (const bool onThread : {false, true}) {
        for (const char *sql : {"SELECT * FROM t", "WITH q AS (SELECT * FROM t) SELECT * FROM q",
                                "UPDATE t SET b = b + 1 RETURNING *"}) {
            QTest::newRow(qPrintable(QString::fromUtf8(sql) +
                                     QString::fromUtf8(onThread ? ", thread" : ", here")))
                << onThread << QString::fromUtf8(sql);
        }
    }
}

void TestSchemaRace::readersSeeWholeRows()
{
    QFETCH(bool, onThread);
    QFETCH(QString, sql);
    SqliteDatabase database;
    QString reason;
    if (!database.available(&reason))
        QSKIP(qPrintable(reason));
    QVERIFY2(database.start(), qPrintable(database.error()));
    DatabaseScript script;
    QVERIFY(script.open(QStringLiteral("db"), database.parameters()));
    for (const char *setUp : {"PRAGMA journal_mode = WAL", "CREATE TABLE t (a, b)",
                              "INSERT INTO t VALUES (1, 1), (1, 1)"})
        QVERIFY(script.mustRun(Way::Here, QStringLiteral("db"), QString::fromUtf8(setUp)));

    QProcess writer;
    writer.start(QCoreApplication::applicationFilePath(),
                 {QStringLiteral("change-columns"), database.parameters().databaseName});
    QVERIFY(writer.waitForReadyRead(scaledMs(defaultWaitMs)));
    script.eval(QStringLiteral(
        "function whole(r) { return r.rows === 2 && r.fields_names.every(function (name, i) {"
        "  return r.fields_index[i].length === 2 && r.fields_nulls[i].length === 0 &&"
        "         (name.length < 2 || r.fields_index[i][0] === '7' || r.fields_index[i][0] === 7);"
        "}); }"
        "var widths = {}, wrong = 0;"));
    constexpr int Rounds = 200;
    int done = 0;
    const auto sawChanges = [&script] {
        return script.isTrue(QStringLiteral("Object.keys(widths).length > 1"));
    };
    const Deadline deadline(3 * defaultWaitMs);
    for (int n = 0; n < Rounds || (!sawChanges() && !deadline.expired()); ++n) {
        script.eval(QStringLiteral("if (!db.isOpen) db.open()"));
        if (!script.ask(onThread ? Way::Thread : Way::Here, QStringLiteral("db"), sql))
            continue; // the writer holds the lock
        ++done;
        script.eval(QStringLiteral("widths[answer.result.fields] = 1;"
                                   "if (!whole(answer.result)) ++wrong"));
    }
    const bool alive = writer.state() == QProcess::Running;
    writer.kill();
    QVERIFY(writer.waitForFinished(scaledMs(defaultWaitMs)));
    QVERIFY(alive);
    QVERIFY2(done > 0, qPrintable(QString::number(done)));
    QCOMPARE(script.eval(QStringLiteral("wrong")).toInt32(), 0);
    QVERIFY(sawChanges());
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() == 3 && arguments.at(1) == QStringLiteral("change-columns"))
        return changeColumns(arguments.at(2));
#ifdef VEXT_WITH_LAYER
    useDriverLayer();
#endif
    TestSchemaRace test;
    return QTest::qExec(&test, argc, argv);
}

#include "test_schema_race.moc"
