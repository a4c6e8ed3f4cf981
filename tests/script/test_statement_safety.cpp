/// @file
/// Statements that must not be sent, that fail behind their first result, that meet a changed
/// schema or run on a connection which has changed; and what a commit, a list of tables and the
/// statistics say then.
#include "script_test.h"

namespace
{

const QString stubName = QStringLiteral("QSTUB");
const QVector<StubReply::Column> oneColumn{{QStringLiteral("id"), QVariant::Int}};

StubReply oneRow()
{
    return StubReply::table(oneColumn, {{1}});
}

} // namespace

class TestStatementSafety : public ScriptTest
{
    Q_OBJECT

private Q_SLOTS:
    void columnsFollowAChangedSchema_data();
    void columnsFollowAChangedSchema();
    void patternsAndFullTextAreStillFound();

    void textWithNulIsNotSent_data();
    void textWithNulIsNotSent();
    void copyThroughTheClientIsNotSent_data();
    void copyThroughTheClientIsNotSent();
    void statementBehindARefusedOneKeepsItsText();
    void errorBehindTheFirstResultFailsTheStatement_data();
    void errorBehindTheFirstResultFailsTheStatement();

    void oldErrorDoesNotFailTables();
    void errorOfTablesFailsIt();
    void refusedTransactionCommandTellsWhy_data();
    void refusedTransactionCommandTellsWhy();
    void commitBehindALostSessionIsFalse_data();
    void commitBehindALostSessionIsFalse();
    void commitOfAnEndedThreadIsFalse();
    void closeTakesAnOpenTransactionWithIt();
    void beginThatFailedOpensNoTransaction();
    void commitOfAWholeSessionIsSent();
    void newTransactionBehindALossCommits();

    void openConnectionKeepsItsRulesWhenTheDriverIsChanged();
    void resultKeepsTheRulesOfItsConnection();

    void passwordsAreMaskedInStatisticsAndTraces();
    void reopeningInAHandlerKeepsTheName();
    void refusedRemovalIsTriedAgain_data();
    void refusedRemovalIsTriedAgain();
    void subscriptionOfARolledBackTransactionIsRenewed_data();
    void subscriptionOfARolledBackTransactionIsRenewed();

private:
    /// Runs a statement on `db`, here or on the thread. @return its error, empty on success.
    QString errorOf(bool onThread, const QString &sql);
};

QString TestStatementSafety::errorOf(bool onThread, const QString &sql)
{
    host().engine()->globalObject().setProperty("sql"_qs, QScriptValue(sql));
    if (!onThread)
        return truth("db.query(sql) === false"_qs) ? text("db.lastErrors.databaseText"_qs)
                                                   : QString();
    eval("var done = null; db.query_thread(sql, function (r, e) { done = [r, e]; })"_qs);
    return host().waitForScript("done"_qs) ? text("done[1] || ''"_qs) : "no answer"_qs;
}

// --- A changed schema ---

void TestStatementSafety::columnsFollowAChangedSchema_data()
{
    QTest::addColumn<QString>("change");
    QTest::addColumn<QString>("sql");
    QTest::addColumn<QString>("columns");
    QTest::addColumn<bool>("onThread");
    const auto row = [](const char *name, const char *change, const char *sql,
                        const char *columns) {
        for (const bool onThread : {false, true}) {
            QTest::newRow(
                qPrintable(QString::fromUtf8(name) + (onThread ? " on the thread"_qs : ""_qs)))
                << QString::fromUtf8(change) << QString::fromUtf8(sql) << QString::fromUtf8(columns)
                << onThread;
        }
    };
    const char *more = "ALTER TABLE t ADD COLUMN c DEFAULT 7; ALTER TABLE t ADD COLUMN d DEFAULT 8;"
                       "ALTER TABLE t ADD COLUMN e DEFAULT 9";
    const char *all = "{\"a\":[1],\"b\":[2],\"c\":[7],\"d\":[8],\"e\":[9]}";
    row("one more", "ALTER TABLE t ADD COLUMN c DEFAULT 7", "SELECT * FROM t",
        "{\"a\":[1],\"b\":[2],\"c\":[7]}");
    row("many more", more, "SELECT * FROM t", all);
    row("one less", "ALTER TABLE t DROP COLUMN b", "SELECT * FROM t", "{\"a\":[1]}");
    row("with", more, "WITH q AS (SELECT * FROM t) SELECT * FROM q", all);
    row("delete", more, "DELETE FROM t RETURNING *", all);
    row("update", more, "UPDATE t SET a = 1 RETURNING *", all);
    row("insert", more, "WITH q AS (SELECT 3) INSERT INTO t (a) SELECT * FROM q RETURNING *",
        "{\"a\":[3],\"b\":[null],\"c\":[7],\"d\":[8],\"e\":[9]}");
    row("view", "DROP VIEW v; CREATE VIEW v AS SELECT a, b, a AS c, b AS d, a AS e FROM t",
        "SELECT * FROM v", "{\"a\":[1],\"b\":[2],\"c\":[1],\"d\":[2],\"e\":[1]}");
}

void TestStatementSafety::columnsFollowAChangedSchema()
{
    QFETCH(QString, change);
    QFETCH(QString, sql);
    QFETCH(bool, onThread);
    openSqlite();
    eval("db.query('CREATE TABLE t (a, b)'); db.query('CREATE VIEW v AS SELECT * FROM t');"
         "db.query('INSERT INTO t VALUES (1, 2)');"
         "var other = new VEXT_SQL(); other.driverName = 'QSQLITE';"
         "other.databaseName = db.databaseName; other.open()"_qs);
    QCOMPARE(errorOf(onThread, "SELECT * FROM v"_qs), QString()); // knows the schema now
    for (const QString &one : change.split(QLatin1Char(';')))
        QVERIFY(truth("!!other.query('%1')"_qs.arg(one)));
    QCOMPARE(errorOf(onThread, sql), QString());
    eval("var result = %1, found = {};"
         "result.fields_names.forEach(function (n, i) { found[n] = result.fields_index[i]; })"_qs
             .arg(onThread ? "done[0]"_qs : "db.queryResult"_qs));
    QTEST(json("found"_qs), "columns");
}

/// SQLite prepares these anew for reasons of its own.
void TestStatementSafety::patternsAndFullTextAreStillFound()
{
    openSqlite();
    eval("db.query('CREATE TABLE t (a TEXT, b)'); db.query('CREATE INDEX i ON t (a)');"
         "db.query(\"INSERT INTO t VALUES ('xa', 1), ('ya', 2)\")"_qs);
    QCOMPARE(number("db.query(\"SELECT * FROM t WHERE a LIKE 'x%'\").rows"_qs), 1.0);
    if (!truth("!!db.query('CREATE VIRTUAL TABLE f USING fts4(x)')"_qs))
        QSKIP("SQLite without full text search");
    eval("db.query(\"INSERT INTO f VALUES ('hello world')\"); db.close(); db.open()"_qs);
    QCOMPARE(number("db.query(\"SELECT * FROM f WHERE f MATCH 'hello'\").rows"_qs), 1.0);
    QCOMPARE(number("db.query(\"SELECT * FROM f WHERE f MATCH 'none'\").rows"_qs), 0.0);
}

// --- Statements that are not sent, and errors behind the first result ---

void TestStatementSafety::textWithNulIsNotSent_data()
{
    QTest::addColumn<bool>("onThread");
    QTest::newRow("here") << false;
    QTest::newRow("thread") << true;
}

void TestStatementSafety::textWithNulIsNotSent()
{
    QFETCH(bool, onThread);
    const StubServer &server = openStub(stubName);
    const QString sql = "DELETE FROM t"_qs + QChar() + " WHERE a = 1"_qs;
    QCOMPARE(errorOf(onThread, sql), "текст запроса содержит символ U+0000"_qs);
    QCOMPARE(server.executed(), QStringList());
    QCOMPARE(text("db.lastQuery"_qs), sql);
    QVERIFY(text("db.lastError"_qs).contains("U+0000"_qs));
    eval("var called = null; db.exec_thread(function (r, e) { called = e; }, sql, [1])"_qs);
    QVERIFY(host().waitForScript("called"_qs));
    QVERIFY(truth("db.exec(sql, [1]) === false"_qs));
    QCOMPARE(server.count(StubCall::Prepare), 0);
}

void TestStatementSafety::copyThroughTheClientIsNotSent_data()
{
    QTest::addColumn<QString>("driver");
    QTest::addColumn<bool>("onThread");
    for (const char *driver : {"QPSQL", "QODBC"}) {
        QTest::newRow(qPrintable(QString::fromUtf8(driver) + " here"_qs))
            << QString::fromUtf8(driver) << false;
        QTest::newRow(qPrintable(QString::fromUtf8(driver) + " thread"_qs))
            << QString::fromUtf8(driver) << true;
    }
}

void TestStatementSafety::copyThroughTheClientIsNotSent()
{
    QFETCH(QString, driver);
    QFETCH(bool, onThread);
    StubServer &server = makeStub(driver, QSqlDriver::PostgreSQL);
    server.setDbmsTypeKnownOnlyWhenOpen(true);
    openDb(driver);
    QCOMPARE(errorOf(onThread, "COPY t TO STDOUT"_qs),
             "COPY через STDIN и STDOUT не поддерживается драйвером"_qs);
    QCOMPARE(server.executed(), QStringList());
    QCOMPARE(errorOf(onThread, "COPY t TO '/file'"_qs), QString());
    QCOMPARE(server.executed(), QStringList({"COPY t TO '/file'"_qs}));
}

void TestStatementSafety::statementBehindARefusedOneKeepsItsText()
{
    openStub(stubName);
    eval("var done = null; db.query_thread(['a\\0b', 'select 2'],"
         "function (r, e) { done = [r, e]; })"_qs);
    QVERIFY(host().waitForScript("done"_qs));
    QCOMPARE(json("[done[1][0].length > 0, done[1][1]]"_qs), "[true,false]"_qs);
    QCOMPARE(text("db.lastQuery"_qs), "select 2"_qs);
    QCOMPARE(text("db.lastError"_qs), QString());
}

void TestStatementSafety::errorBehindTheFirstResultFailsTheStatement_data()
{
    textWithNulIsNotSent_data();
}

void TestStatementSafety::errorBehindTheFirstResultFailsTheStatement()
{
    QFETCH(bool, onThread);
    StubServer &server = makeStub(stubName);
    server.setFeature(QSqlDriver::MultipleResultSets);
    server.onExact("a; b"_qs, oneRow().withErrorBehind(statementError("b failed"_qs)));
    server.onExact("c; d"_qs,
                   StubReply::affected(1).withErrorBehind(statementError("d failed"_qs)));
    server.onExact("e"_qs, oneRow().withAffected(5));
    openDb(stubName);
    QCOMPARE(errorOf(onThread, "a; b"_qs), "b failed"_qs);
    QVERIFY(text("db.lastError"_qs).contains("b failed"_qs));
    QCOMPARE(errorOf(onThread, "c; d"_qs), "d failed"_qs);
    QCOMPARE(errorOf(onThread, "e"_qs), QString());
    const QString result = onThread ? "done[0]"_qs : "db.queryResult"_qs;
    QCOMPARE(json("[%1.id, %1.numRowsAffected]"_qs.arg(result)), "[[1],5]"_qs);
    QCOMPARE(number("db.counters().cnt_sql_er"_qs), 2.0);
}

// --- Errors of other calls ---

void TestStatementSafety::oldErrorDoesNotFailTables()
{
    StubServer &server = openStub(stubName);
    server.setKeepsErrors(true);
    server.fail(StubCall::Commit, statementError("no transaction"_qs));
    QVERIFY(!truth("db.commit()"_qs));
    QVERIFY(truth("db.tables() && db.lastError === ''"_qs));
    QVERIFY(truth("db.tables() && db.lastError === ''"_qs));
}

void TestStatementSafety::errorOfTablesFailsIt()
{
    StubServer &server = openStub(stubName);
    server.fail(StubCall::Tables, statementError("no list"_qs));
    QVERIFY(truth("db.tables() === false && /no list/.test(db.lastError)"_qs));
    QVERIFY(truth("db.tables() === false && /no list/.test(db.lastError)"_qs));
    server.fail(StubCall::Commit, statementError("no transaction"_qs));
    QVERIFY(truth("db.commit() === false && db.tables() === false"_qs));
    QVERIFY(truth("/no list/.test(db.lastError)"_qs));
}

void TestStatementSafety::refusedTransactionCommandTellsWhy_data()
{
    QTest::addColumn<int>("call");
    QTest::addColumn<QString>("command");
    QTest::newRow("transaction") << int(StubCall::Begin) << "transaction"_qs;
    QTest::newRow("commit") << int(StubCall::Commit) << "commit"_qs;
    QTest::newRow("rollback") << int(StubCall::Rollback) << "rollback"_qs;
}

void TestStatementSafety::refusedTransactionCommandTellsWhy()
{
    QFETCH(int, call);
    QFETCH(QString, command);
    StubServer &server = openStub(stubName);
    server.fail(StubCall::What(call), statementError("not now"_qs));
    QVERIFY(truth("db.%1() === false && /not now/.test(db.lastError)"_qs.arg(command)));
    if (command == "transaction"_qs)
        return;
    QVERIFY(truth("db.query('select 1') && db.lastError === ''"_qs));
    eval("var done = null; db.query_thread('%1', function (r) { done = [r]; })"_qs.arg(command));
    QVERIFY(host().waitForScript("done"_qs));
    QVERIFY(truth("done[0] === false && /not now/.test(db.lastError)"_qs));
}

void TestStatementSafety::commitBehindALostSessionIsFalse_data()
{
    QTest::addColumn<QString>("begin");
    QTest::addColumn<QString>("commit");
    for (const char *begin : {"BEGIN", "START TRANSACTION", "SET autocommit=0", "INSERT first"}) {
        for (const char *commit : {"commit", " COMMIT", "/* all */ commit"}) {
            QTest::newRow(
                qPrintable("%1, %2"_qs.arg(QString::fromUtf8(begin), QString::fromUtf8(commit))))
                << QString::fromUtf8(begin) << QString::fromUtf8(commit);
        }
    }
}

void TestStatementSafety::commitBehindALostSessionIsFalse()
{
    QFETCH(QString, begin);
    QFETCH(QString, commit);
    StubServer &server = openStub(stubName);
    server.onExact("lost"_qs, StubReply::failure(stubError(QSqlError::ConnectionError, "gone"_qs)));
    for (const bool onThread : {true, false}) {
        QCOMPARE(errorOf(onThread, begin), QString());
        // A connection that is closed has no error any more.
        QCOMPARE(errorOf(onThread, "lost"_qs), onThread ? "gone"_qs : QString());
        QVERIFY(host().waitForScript("!db.isRunning"_qs));
        QVERIFY(truth("db.isOpen === %1 && db.open()"_qs.arg(onThread ? "true"_qs : "false"_qs)));
        QCOMPARE(errorOf(onThread, "INSERT second"_qs), QString());
        if (onThread) {
            eval(
                "var done = null; db.query_thread('%1', function (r, e) { done = [r, e]; })"_qs.arg(
                    commit));
            QVERIFY(host().waitForScript("done"_qs));
            QVERIFY2(truth("done[0] === false || /потеряна/.test(done[1])"_qs),
                     qPrintable(json("done"_qs)));
            QVERIFY(truth("/потеряна/.test(db.lastError)"_qs));
        } else if (commit == "commit"_qs) {
            QVERIFY(truth("db.commit() === false && /потеряна/.test(db.lastError)"_qs));
        } else {
            QVERIFY(
                truth("db.query('%1') === false && /потеряна/.test(db.lastError)"_qs.arg(commit)));
        }
        // Told once; the next commit is another one's.
        QVERIFY(truth("db.commit() === true"_qs));
        QCOMPARE(errorOf(true, "commit"_qs), QString());
        QVERIFY(truth("done[0] === true"_qs));
    }
}

void TestStatementSafety::commitOfAnEndedThreadIsFalse()
{
    StubServer &server = openStub(stubName);
    server.onExact("lost"_qs, StubReply::failure(stubError(QSqlError::ConnectionError, "gone"_qs)));
    eval("db.start_thread(); db.transaction()"_qs);
    QCOMPARE(errorOf(true, "INSERT first"_qs), QString());
    QCOMPARE(errorOf(true, "lost"_qs), "gone"_qs);
    QVERIFY(host().waitForScript("!db.isRunning"_qs));
    QVERIFY(truth("db.commit() === false && /потеряна/.test(db.lastError)"_qs));
    QVERIFY(truth("db.transaction() && db.commit() && db.lastError !== null"_qs));
}

void TestStatementSafety::closeTakesAnOpenTransactionWithIt()
{
    openStub(stubName);
    QVERIFY(truth("db.query('BEGIN') && db.close() && db.open()"_qs));
    QVERIFY(truth("db.commit() === false && /потеряна/.test(db.lastError)"_qs));
    QVERIFY(truth("db.query('BEGIN') && db.query(' COMMIT') && db.close() && db.open()"_qs));
    QVERIFY(truth("db.commit() === true"_qs));
}

void TestStatementSafety::beginThatFailedOpensNoTransaction()
{
    openStub(stubName).onExact("BEGIN"_qs, StubReply::failure(statementError("no"_qs)));
    QVERIFY(truth("db.query('BEGIN') === false && db.close() && db.open()"_qs));
    QVERIFY(truth("db.commit() === true"_qs));
}

void TestStatementSafety::commitOfAWholeSessionIsSent()
{
    StubServer &server = openStub(stubName);
    for (const bool onThread : {true, false}) {
        for (const char *sql : {"BEGIN", "INSERT", " COMMIT"})
            QCOMPARE(errorOf(onThread, QString::fromUtf8(sql)), QString());
    }
    QCOMPARE(server.executed().count(" COMMIT"_qs), 2);
}

void TestStatementSafety::newTransactionBehindALossCommits()
{
    StubServer &server = openStub(stubName);
    server.onExact("lost"_qs, StubReply::failure(stubError(QSqlError::ConnectionError, "gone"_qs)));
    QCOMPARE(errorOf(true, "lost"_qs), "gone"_qs);
    QVERIFY(host().waitForScript("!db.isRunning"_qs));
    QCOMPARE(errorOf(true, "BEGIN"_qs), QString());
    QCOMPARE(errorOf(true, "INSERT"_qs), QString());
    QCOMPARE(errorOf(true, "commit"_qs), QString());
    QVERIFY(truth("done[0] === true"_qs));
}

// --- The kind of the connection ---

void TestStatementSafety::openConnectionKeepsItsRulesWhenTheDriverIsChanged()
{
    StubServer &postgres = makeStub("QPSQL"_qs, QSqlDriver::PostgreSQL);
    StubServer &other = makeStub(stubName);
    for (StubServer *server : {&postgres, &other})
        server->onExact("select 1"_qs, oneRow());
    openDb("QPSQL"_qs);
    eval("db.driverName = '%1'"_qs.arg(stubName));
    QCOMPARE(errorOf(true, "select 1"_qs), QString()); // the thread's is the other driver
    QCOMPARE(text("done[0].fields_names"_qs), "id"_qs);
    QCOMPARE(other.executed(), QStringList({"select 1"_qs}));
    QCOMPARE(text("db.query('select 1').fields_names"_qs), "ID"_qs);
    eval("db.exec('f', [1])"_qs);
    QCOMPARE(postgres.calls(StubCall::Prepare).constLast().writtenText, "SELECT f(:a0)"_qs);
    QVERIFY(postgres.calls(StubCall::Exec).constLast().forwardOnly);
}

void TestStatementSafety::resultKeepsTheRulesOfItsConnection()
{
    StubServer &postgres = makeStub("QPSQL"_qs, QSqlDriver::PostgreSQL);
    postgres.onExact("select 1"_qs, oneRow());
    makeStub(stubName);
    openDb("QPSQL"_qs);
    eval("var done = null; db.query_thread('select 1', function (r) { done = r; })"_qs);
    QVERIFY(postgres.waitForCall(StubCall::ResultDestroyed, "select 1"_qs));
    // Nothing is delivered until events are handled.
    eval("db.close(); db.driverName = '%1'; db.open()"_qs.arg(stubName));
    QVERIFY(truth("done === null"_qs));
    QVERIFY(host().waitForScript("done"_qs));
    QCOMPARE(text("done.fields_names"_qs), "ID"_qs);
}

// --- Secrets, names, subscriptions ---

void TestStatementSafety::passwordsAreMaskedInStatisticsAndTraces()
{
    makeStub("QODBC"_qs);
    openDb("QODBC"_qs, "Driver=x;Uid=u;Pwd=secret;Port=1"_qs);
    QCOMPARE(text("db.counters().database"_qs), "Driver=x;Uid=u;Pwd=****;Port=1"_qs);
    QCOMPARE(text("db.databaseName"_qs), "Driver=x;Uid=u;Pwd=secret;Port=1"_qs);
    eval("db.traceLog = true"_qs);
    for (const bool onThread : {false, true})
        QCOMPARE(errorOf(onThread, "ALTER USER u IDENTIFIED BY 'secret'"_qs), QString());
    stub().setDefaultReply(StubReply::failure(statementError("near PASSWORD 'secret'"_qs)));
    for (const bool onThread : {false, true})
        QVERIFY(!errorOf(onThread, "ALTER USER u PASSWORD 'secret'"_qs).isEmpty());
    QVERIFY(sent().join(QLatin1Char('\n')).contains("IDENTIFIED BY '****'"_qs));
    QVERIFY2(!sent().join(QLatin1Char('\n')).contains("secret"_qs),
             qPrintable(sent().join(QLatin1Char('\n'))));
}

void TestStatementSafety::reopeningInAHandlerKeepsTheName()
{
    StubServer &server = makeStub(stubName);
    server.setFeature(QSqlDriver::EventNotifications);
    openDb(stubName);
    eval("db.add_event('a'); var name = db.connectionName, seen = null;"
         "db.event.connect(function () { db.close(); db.open(); seen = db.connectionName; })"_qs);
    for (int n = 0; n < 2; ++n) {
        QCOMPARE(server.notify("a"_qs, QSqlDriver::OtherSource), 1);
        QVERIFY(truth("seen === name && db.isOpen && db.counters().connectionName === name"_qs));
        drainEvents();
        QVERIFY(truth("db.isOpen && db.connectionName === name"_qs));
        QCOMPARE(server.openDrivers(), 1);
    }
    QVERIFY(truth("db.close() && db.open() && db.connectionName === name"_qs));
}

void TestStatementSafety::refusedRemovalIsTriedAgain_data()
{
    QTest::addColumn<QString>("next");
    QTest::newRow("behind the transaction") << "db.rollback()"_qs;
    QTest::newRow("behind a statement that works") << "!!db.query('select 1')"_qs;
}

void TestStatementSafety::refusedRemovalIsTriedAgain()
{
    QFETCH(QString, next);
    StubServer &server = makeStub("QPSQL"_qs, QSqlDriver::PostgreSQL);
    server.setFeature(QSqlDriver::EventNotifications);
    openDb("QPSQL"_qs);
    eval("var heard = 0; db.event.connect(function () { ++heard; }); db.add_event('a')"_qs);
    server.effect(StubCall::Unsubscribe, StubEffect::failure(statementError("aborted"_qs)),
                  StubWhere::nth(1));
    QVERIFY(truth("db.rem_event('a') === true && db.events.length === 0"_qs));
    QCOMPARE(server.notify("a"_qs, QSqlDriver::OtherSource), 1); // the server goes on
    QCOMPARE(number("heard"_qs), 0.0);
    QVERIFY(truth(next));
    QCOMPARE(server.notify("a"_qs, QSqlDriver::OtherSource), 0);
    QVERIFY(truth("db.add_event('a') === true"_qs));
    QCOMPARE(server.notify("a"_qs, QSqlDriver::OtherSource), 1);
    QCOMPARE(number("heard"_qs), 1.0);
}

void TestStatementSafety::subscriptionOfARolledBackTransactionIsRenewed_data()
{
    QTest::addColumn<QString>("begin");
    QTest::addColumn<QString>("end");
    QTest::newRow("calls") << "db.transaction()"_qs << "db.rollback()"_qs;
    QTest::newRow("statements") << "db.query('BEGIN')"_qs << "db.query('ROLLBACK')"_qs;
}

void TestStatementSafety::subscriptionOfARolledBackTransactionIsRenewed()
{
    QFETCH(QString, begin);
    QFETCH(QString, end);
    StubServer &server = makeStub("QPSQL"_qs, QSqlDriver::PostgreSQL);
    server.setFeature(QSqlDriver::EventNotifications);
    openDb("QPSQL"_qs);
    eval("db.add_event('before'); %1; db.add_event('a'); %2"_qs.arg(begin, end));
    QCOMPARE(server.texts(StubCall::Subscribe), QStringList({"before"_qs, "a"_qs, "a"_qs}));
    QVERIFY(truth("db.events.join() === 'before,a'"_qs));
}

QTEST_GUILESS_MAIN(TestStatementSafety)
#include "test_statement_safety.moc"
