/// @file
/// Readers of SQLite while another process changes the columns of their table as fast as it can.

#include "database_script.h"
#include "local_databases.h"

#include <QProcess>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

#include <iostream>

namespace
{

/// The other process: adds and drops columns until it is ended.
int changeColumns(const QString &database)
{
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

} // namespace

class TestSchemaRace : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void readersSeeWholeRows_data();
    void readersSeeWholeRows();
};

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
    TestSchemaRace test;
    return QTest::qExec(&test, argc, argv);
}

#include "test_schema_race.moc"
