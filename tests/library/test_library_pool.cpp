/// @file
/// Pools of the script library.

#include "library_script.h"

#include "postgres_server.h"
#include "tcp_relay.h"

#include <QtTest>

class TestLibraryPool : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void connectionsAreMadeOnDemand();
    void waitersAreServedInTheirOrder();
    void waitingEndsWithATimeOut();
    void closeLetsWorkEnd();
    void closeLetsATransactionBeTriedAgain();
    void closedPoolRefuses();
    void failedStatementLeavesTheConnection();
    void lostConnectionIsReplaced();
    void connectionLostAsItBeginsIsLost();
    void idleConnectionIsLookedAt();
    void preparationIsRunOnEachConnection();
    void preparationMayBeOneStatement();
    void serverThatIsDownFailsEverybody();
    void callbackIsNotCalledBeforeQueryReturns();
    void closeTellsEverybodyWhoAsks();
    void whatCannotBeSentIsAnError_data();
    void whatCannotBeSentIsAnError();
    void wrongSettingsAreTypeErrors_data();
    void wrongSettingsAreTypeErrors();
    void unknownOptionIsATypeError_data();
    void unknownOptionIsATypeError();
    void everyOptionIsTaken();
    void waitingWithoutEndIsPossible();
    void clusterOpensAfterOpenHasReturned();
    void clusterSettingsHoldWhereOptionsSayNothing();
    void clusterPreparesItsConnections();
    void nodesAreNamedByTheirAddress();
    void statementThatWaitedTooLongIsNotRun();
    void exceptionKeepsNobodyElseWaiting();
    void exceptionOfOnMoveKeepsNobodyWaiting();

private:
    LibraryDatabases m_databases;
    QString m_postgres; ///< parameters, empty where it is missing
};

#define NEEDS_POSTGRES()                                                                           \
    do {                                                                                           \
        if (m_postgres.isEmpty())                                                                  \
            QSKIP("the PostgreSQL server is not installed");                                       \
    } while (false)

void TestLibraryPool::initTestCase()
{
    if (TestDatabase *postgres = m_databases.find(QStringLiteral("PostgreSQL")))
        m_postgres = literalOf(postgres->parameters());
}

void TestLibraryPool::connectionsAreMadeOnDemand()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:", size: 3});
        var seen = [pool.stats().opened], left = 7;
        pool.query("SELECT 1", function () {
            pool.query("SELECT 1", function () {
                seen.push(pool.stats().opened);
                for (var i = 0; i < left; i++) {
                    pool.query("SELECT ? AS n", [i], answer);
                }
                seen.push(pool.stats().opened, pool.stats().waiting);
            });
        });
        function answer(error) {
            if (--left === 0) {
                var stats = pool.stats();
                seen.push(stats.opened, stats.idle, stats.queries, stats.mostWaiting);
                pool.close(function () { done(seen); });
            }
        }
    )js"));
    QCOMPARE(outcome, QStringLiteral("[0,1,3,4,3,3,9,4]"));
}

void TestLibraryPool::waitersAreServedInTheirOrder()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:", size: 1});
        var order = [];
        for (var i = 0; i < 20; i++) {
            pool.query("SELECT ? AS n", [i], function (error, result) { order.push(result.n[0]); });
        }
        pool.close(function () { done(order); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19]"));
}

void TestLibraryPool::waitingEndsWithATimeOut()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:", size: 1, waitMs: 50});
        var release, outcomes = [];
        vext.transaction(pool, function (tx, finish) { release = finish; }, function (error) {
            outcomes.push(told(error), pool.stats().timedOut);
            pool.query("SELECT 1", function (later) {
                outcomes.push(told(later));
                pool.close(function () { done(outcomes); });
            });
        });
        pool.query("SELECT 1", function (error) {
            outcomes.push(told(error));
            release();
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"timeout\",\"none\",1,\"none\"]"));
}

void TestLibraryPool::closeLetsWorkEnd()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:", size: 2});
        var ended = 0, told = [];
        for (var i = 0; i < 6; i++) {
            pool.query("WITH RECURSIVE c(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM c WHERE n < 50000) " +
                "SELECT count(*) AS n FROM c", function (error) { told.push(error); });
        }
        pool.close(function () { ended++; });
        pool.close(function () { done([told, ended, pool.stats().open]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[[null,null,null,null,null,null],1,0]"));
    QVERIFY(script.waitFor(QStringLiteral("counters().length === 0")));
}

void TestLibraryPool::closeLetsATransactionBeTriedAgain()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:"}), order = [];
        vext.transaction(pool, function (tx, finish) {
            if (tx.attempt === 1) {
                pool.close(function () { order.push("all"); done(order); });
                vext.transaction(pool, function () {}, function (refused) { order.push(told(refused)); });
                var error = new Error("as a deadlock");
                error.kind = "conflict";
                finish(error);
            } else {
                tx.query("SELECT 1", finish);
            }
        }, function (error, value, info) { order.push(told(error), info.attempts); }, {backoffMs: 100});
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"closed\",\"none\",2,\"all\"]"));
}

void TestLibraryPool::closedPoolRefuses()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:"});
        pool.close();
        pool.query("SELECT 1", function (error) { done(told(error)); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("\"closed\""));
}

void TestLibraryPool::failedStatementLeavesTheConnection()
{
    NEEDS_POSTGRES();
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool(%1);
        pool.query("SELECT nix", function (error) {
            var stats = pool.stats();
            pool.close(function () { done([told(error), error.sql, stats.open, stats.failed, stats.lost]); });
        });
    )js")
                                               .arg(m_postgres));
    QCOMPARE(outcome, QStringLiteral("[\"statement 42703\",\"SELECT nix\",1,1,0]"));
}

void TestLibraryPool::lostConnectionIsReplaced()
{
    NEEDS_POSTGRES();
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var settings = %1;
        settings.size = 1;
        var pool = vext.pool(settings);
        pool.query("SELECT pg_terminate_backend(pg_backend_pid())", function (error) {
            pool.query("SELECT 5 AS n", function (later, result) {
                var stats = pool.stats();
                pool.close(function () { done([error.kind, told(later), result.N, stats.opened, stats.lost]); });
            });
        });
    )js")
                                               .arg(m_postgres));
    QCOMPARE(outcome, QStringLiteral("[\"lost\",\"none\",[5],2,1]"));
}

/// The statement fails without a word from the driver.
void TestLibraryPool::connectionLostAsItBeginsIsLost()
{
    NEEDS_POSTGRES();
    TcpRelay relay;
    // Of the driver of PostgreSQL: it opens all the same. The second connection is the worker's.
    relay.cutAt("SET DATESTYLE", 2);
    QVERIFY(
        relay.start(quint16(m_databases.find(QStringLiteral("PostgreSQL"))->parameters().port)));
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var settings = %1;
        settings.port = %2;
        var pool = vext.pool(settings);
        pool.query("SELECT 5 AS n", function (error) {
            pool.close(function () { done([error.kind, pool.stats().lost]); });
        });
    )js")
                                               .arg(m_postgres)
                                               .arg(relay.port()));
    QCOMPARE(outcome, QStringLiteral("[\"lost\",1]"));
}

void TestLibraryPool::idleConnectionIsLookedAt()
{
    NEEDS_POSTGRES();
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var settings = %1;
        settings.pingAfterMs = -1; // before each use
        var pool = vext.pool(settings), outside = open(%1);
        pool.query("SELECT pg_backend_pid() AS pid", function (error, result) {
            must(outside, "SELECT pg_terminate_backend(" + result.PID[0] + ", 5000)");
            outside.close();
            pool.query("SELECT 5 AS n", function (later, again) {
                pool.close(function () { done([told(later), again && again.N]); });
            });
        });
    )js")
                                               .arg(m_postgres));
    QCOMPARE(outcome, QStringLiteral("[\"none\",[5]]"));
}

void TestLibraryPool::preparationIsRunOnEachConnection()
{
    NEEDS_POSTGRES();
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var settings = %1;
        settings.init = ["SET application_name = 'prepared'", "SET statement_timeout = 4711"];
        var pool = vext.pool(settings), seen = [];
        function look() {
            pool.query("SELECT current_setting('statement_timeout') AS t", function (error, result) {
                seen.push(result.T[0]);
                if (seen.length === 2) {
                    pool.close(function () { done(seen); });
                }
            });
        }
        look();
        look();
    )js")
                                               .arg(m_postgres));
    QCOMPARE(outcome, QStringLiteral("[\"4711ms\",\"4711ms\"]"));
}

void TestLibraryPool::preparationMayBeOneStatement()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:", init: "CREATE TABLE made (n)"});
        pool.query("SELECT count(*) AS n FROM made", function (error, result) {
            pool.close(function () { done([told(error), result && result.n[0]]); });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",0]"));
}

void TestLibraryPool::serverThatIsDownFailsEverybody()
{
    NEEDS_POSTGRES();
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var settings = %1;
        settings.port = 1;
        var pool = vext.pool(settings), kinds = [];
        for (var i = 0; i < 3; i++) {
            pool.query("SELECT 1", function (error) {
                kinds.push(error.kind);
                if (kinds.length === 3) {
                    pool.close(function () { done([kinds, pool.stats().failed]); });
                }
            });
        }
    )js")
                                               .arg(m_postgres));
    QCOMPARE(outcome, QStringLiteral("[[\"lost\",\"lost\",\"lost\"],3]"));
}

void TestLibraryPool::callbackIsNotCalledBeforeQueryReturns()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool({driverName: "QNONE"}), returned = 0, early = [];
        pool.query("SELECT 1", function (error) { early.push(returned === 0); });
        pool.close();
        pool.query("SELECT 1", function (error) { early.push(returned === 0); });
        var open = vext.pool({driverName: "QSQLITE", databaseName: ":memory:"});
        open.query("SELECT ?", [{}], function (error) {
            early.push(returned === 0);
            returned = 0;
            vext.transaction(open, function (tx) {
                tx.query("SELECT ?", [{}], function () { early.push(returned === 0); });
                returned = 1;
            }, function () { done(early); });
        });
        returned = 1;
    )js"));
    QCOMPARE(outcome, QStringLiteral("[false,false,false,false]"));
}

void TestLibraryPool::closeTellsEverybodyWhoAsks()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:"}), heard = [];
        var cluster = vext.cluster({engine: "postgresql", nodes: [{hostName: "127.0.0.1", port: 1}],
            deadlineMs: 200});
        pool.query("SELECT 1", function () { heard.push("query"); }); // all of them wait for it
        pool.close(function () { heard.push("pool 1"); });
        pool.close(function () {
            heard.push("pool 2");
            cluster.open(function () { heard.push("open"); });
            cluster.close(function () { heard.push("cluster 1"); });
            cluster.close(function () {
                heard.push("cluster 2");
                pool.close(function () {
                    cluster.close(function () { done(heard.join()); });
                });
            });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("\"query,pool 1,pool 2,open,cluster 1,cluster 2\""));
}

void TestLibraryPool::whatCannotBeSentIsAnError_data()
{
    QTest::addColumn<QString>("statement");
    QTest::addColumn<QString>("message");
    const auto type =
        QStringLiteral("vext: a value of this type cannot be written into a statement: ");
    QTest::newRow("no text") << QStringLiteral("null")
                             << QStringLiteral("vext: a statement is a text, not null");
    QTest::newRow("an object") << QStringLiteral("'SELECT ?', [{}]")
                               << type + QStringLiteral("object");
    QTest::newRow("one that holds itself")
        << QStringLiteral("'SELECT ?', [self]") << type + QStringLiteral("object");
    QTest::newRow("a list") << QStringLiteral("'SELECT ?', [[1]]")
                            << type + QStringLiteral("object");
    QTest::newRow("a function") << QStringLiteral("'SELECT ?', [open]")
                                << type + QStringLiteral("function");
    QTest::newRow("NaN") << QStringLiteral("'SELECT ?', [NaN]")
                         << QStringLiteral("vext: no SQL number: NaN");
    const auto empty = QStringLiteral("vext: the statement is empty");
    QTest::newRow("no statement") << QStringLiteral("''") << empty;
    QTest::newRow("a comment") << QStringLiteral("'-- nothing'") << empty;
    QTest::newRow("a text for values")
        << QStringLiteral("'SELECT ?', 'a'") << QStringLiteral("vext: values are a list, not a");
    QTest::newRow("a date that is none")
        << QStringLiteral("'SELECT ?', [new Date(NaN)]")
        << QStringLiteral("vext: a date that is none cannot be written into a statement");
    QTest::newRow("U+0000") << QStringLiteral("'SELECT ?', ['a\\u0000']")
                            << QStringLiteral(
                                   "vext: a text with U+0000 cannot be written into a statement");
}

/// Bound or written into the statement: both are alike.
void TestLibraryPool::whatCannotBeSentIsAnError()
{
    QFETCH(QString, statement);
    QFETCH(QString, message);
    LibraryScript script;
    const QString outcome = script.outcome(QStringLiteral(R"js(
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:", size: 1}), self = {};
        self.self = self;
        pool.query(%1, function (error, result) {
            pool.query("SELECT 5 AS n", function (other, five) {
                pool.close(function () { done([told(error), error.message, five.n[0]]); });
            });
        });
    )js")
                                               .arg(statement));
    QCOMPARE(outcome, QStringLiteral("[\"statement\",\"%1\",5]").arg(message));
}

void TestLibraryPool::wrongSettingsAreTypeErrors_data()
{
    QTest::addColumn<QString>("code");
    const char *const codes[] = {"pool({driverName: 'QSQLITE', size: 0})",
                                 "pool({driverName: 'QSQLITE', size: 'four'})",
                                 "pool({driverName: 'QSQLITE', waitMs: NaN})",
                                 "cluster({engine: 'toString', nodes: [{}]})",
                                 "cluster({engine: 'postgresql'})",
                                 "cluster({engine: 'postgresql', nodes: []})",
                                 "cluster({engine: 'postgresql', nodes: [{}], silenceMs: 'long'})",
                                 "cluster({engine: 'postgresql', nodes: [{}], deadlineMs: 'late'})",
                                 "cluster({engine: 'galera', nodes: [{connectOptions: "
                                 "'MYSQL_OPT_RECONNECT=1'}]})",
                                 "cluster({engine: 'galera', connectOptions: "
                                 "'MYSQL_OPT_RECONNECT=1', nodes: [{}]})",
                                 "cluster({engine: 'galera', nodes: [{}]}).cleanMarks()",
                                 "cluster({engine: 'galera', nodes: [{}], size: 0})",
                                 "cluster({engine: 'galera', nodes: [{}]}).committed({}, open)",
                                 "cluster({engine: 'galera', nodes: [{}]}).committed('', open)",
                                 "cluster({engine: 'galera', nodes: [{}]}).committed(null, open)",
                                 "pool()",
                                 "pool('QSQLITE')",
                                 "transaction(new VEXT_SQL(), open, open, 5000)",
                                 "transaction(new VEXT_SQL(), open, open, {id: {}})",
                                 "transaction(new VEXT_SQL(), open, open, "
                                 "{id: new Array(102).join('x')})",
                                 "transaction(new VEXT_SQL(), open, open, {id: ''})",
                                 "transaction(new VEXT_SQL(), open, open, {id: NaN})",
                                 "transaction(new VEXT_SQL(), open, open, {id: 1 / 0})",
                                 "transaction(new VEXT_SQL(), open, open, {id: 'a\\ud800'})",
                                 "transaction(new VEXT_SQL(), open, open, {id: '\\udc00'})",
                                 "pages(new VEXT_SQL(), 'SELECT 1', open)",
                                 "pages(new VEXT_SQL(), {key: 'a'}, open)",
                                 "pages(new VEXT_SQL(), {sql: 'SELECT 1', key: 'a'})",
                                 "pages(new VEXT_SQL(), {sql: 'SELECT 1', key: 'a'}, open, 5)",
                                 "pages(new VEXT_SQL(), {sql: 'SELECT ?', key: 'a', values: 5}, "
                                 "open)",
                                 "pages({}, {sql: 'SELECT 1', key: 'a'}, open)",
                                 "insertRows({}, 't', ['a'], [])",
                                 "insertRows(new VEXT_SQL(), 't', ['a'], [], 5)",
                                 "transaction(undefined, open)",
                                 "transaction({attempt: 1, query: open}, open)",
                                 "transaction(new VEXT_SQL())",
                                 "transaction(new VEXT_SQL(), open, 'done')",
                                 "pool({driverName: 'QSQLITE'}).query('SELECT 1', null, 'hear')",
                                 "pool({driverName: 'QSQLITE'}).close(5)",
                                 "cluster({engine: 'galera', nodes: [{}], onMove: 5})",
                                 "cluster({engine: 'galera', nodes: [{}]}).transaction()",
                                 "cluster({engine: 'galera', nodes: [{}]}).open(5)",
                                 "cluster({engine: 'galera', nodes: [{}]}).committed('a')",
                                 "transaction(new VEXT_SQL(), open, open, {deadlineMs: 'soon'})",
                                 "transaction(new VEXT_SQL(), open, open, {backoffMs: -1})"};
    for (const char *code : codes)
        QTest::newRow(code) << QString::fromUtf8(code);
}

void TestLibraryPool::wrongSettingsAreTypeErrors()
{
    QFETCH(QString, code);
    LibraryScript script;
    QCOMPARE(
        script.outcome(
            QStringLiteral("try { vext.%1; done('nothing thrown'); } catch (error) { "
                           "done(error instanceof TypeError && /^vext: /.test(error.message)); }")
                .arg(code)),
        QStringLiteral("true"));
}

void TestLibraryPool::unknownOptionIsATypeError_data()
{
    QTest::addColumn<QString>("call");
    QTest::addColumn<QString>("message");
    const auto row = [](const char *call, const char *message) {
        QTest::newRow(call) << QString::fromUtf8(call) << QString::fromUtf8(message);
    };
    row("pool({driverName: 'QSQLITE', waitMS: 1})",
        "vext: pool() has no option \"waitMS\", only driverName, databaseName, userName, password, "
        "hostName, port, connectOptions, app_name, enableNull, timeNotUse, size, waitMs, "
        "pingAfterMs, "
        "init, name");
    row("pool({driverName: 'QSQLITE', hostname: ''})", "vext: pool() has no option \"hostname\"");
    row("pool({driverName: 'QSQLITE', 'size,waitMs': 1})",
        "vext: pool() has no option \"size,waitMs\"");
    row("pool({driverName: 'QSQLITE', toString: 1})", "vext: pool() has no option \"toString\"");
    row("pool({driverName: 'QSQLITE', hasOwnProperty: 1})",
        "vext: pool() has no option \"hasOwnProperty\"");
    row("pool((function () { var bare = Object.create(null); bare.waitMS = 1; return bare; })())",
        "vext: pool() has no option \"waitMS\"");
    row("transaction(db, open, open, {deadline: 5})",
        "vext: transaction() has no option \"deadline\", only deadlineMs, backoffMs, backoffMaxMs, "
        "isolation, id");
    row("transaction(db, open, open, {chunk: 5})", "vext: transaction() has no option \"chunk\"");
    row("insertRows(db, 't', ['a'], [], open, {chunks: 5})",
        "vext: insertRows() has no option \"chunks\", only deadlineMs, backoffMs, backoffMaxMs, "
        "isolation, id, chunk, onProgress");
    row("pages(db, {sql: 'SELECT 1', keys: 'a'}, open)",
        "vext: pages() has no option \"keys\", only sql, values, key, size");
    row("cluster({engine: 'galera', nodes: [{}], table: 'm'})",
        "vext: cluster() has no option \"table\", only driverName, databaseName, userName, "
        "password, "
        "hostName, port, connectOptions, app_name, enableNull, timeNotUse, engine, nodes, size, "
        "init, "
        "marks, pingMs, silenceMs, renewMs, onMove, isolation, deadlineMs, backoffMs, "
        "backoffMaxMs");
    row("cluster({engine: 'galera', nodes: [{}], id: 'all'})",
        "vext: cluster() has no option \"id\"");
    row("cluster({engine: 'galera', nodes: [{host: 'a'}]})",
        "vext: a node of cluster() has no option \"host\", only driverName, databaseName, "
        "userName, "
        "password, hostName, port, connectOptions, app_name, enableNull, timeNotUse, name");
    row("cluster({engine: 'galera', nodes: [{}]}).query('SELECT 1', open, {replicas: true})",
        "vext: query() of a cluster has no option \"replicas\", only deadlineMs, backoffMs, "
        "backoffMaxMs, replica");
    row("cluster({engine: 'galera', nodes: [{}]}).query('SELECT 1', [], open, {replicas: true})",
        "vext: query() of a cluster has no option \"replicas\"");
    row("cluster({engine: 'galera', nodes: [{}]}).transaction(open, open, {replica: true})",
        "vext: transaction() has no option \"replica\"");
    row("transaction(vext.cluster({engine: 'galera', nodes: [{}]}), open, open, {marks: 'm'})",
        "vext: transaction() has no option \"marks\"");
}

void TestLibraryPool::unknownOptionIsATypeError()
{
    QFETCH(QString, call);
    QFETCH(QString, message);
    LibraryScript script;
    const QString text =
        script.host().evalThrows(QStringLiteral("var db = new VEXT_SQL(); vext.") + call);
    // With the whole message: what is taken, all of it.
    if (message.contains(QStringLiteral(", only ")))
        QCOMPARE(text, QStringLiteral("TypeError: ") + message);
    else
        QVERIFY2(text.startsWith(QStringLiteral("TypeError: ") + message + QLatin1Char(',')),
                 qPrintable(text));
}

void TestLibraryPool::everyOptionIsTaken()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:", userName: "", password: "",
            hostName: "", port: -1, connectOptions: "", app_name: "", enableNull: true, timeNotUse: 0,
            size: 1, waitMs: 30000, pingAfterMs: 30000, init: [], name: "all"}), cluster;
        var retry = {deadlineMs: 30000, backoffMs: 20, backoffMaxMs: 1000, isolation: "", id: "one"};
        vext.transaction(pool, function (tx, finish) {
            tx.query("CREATE TABLE t (a)", finish);
        }, function (error) {
            retry.chunk = 10;
            retry.onProgress = function () {};
            vext.insertRows(pool, "t", ["a"], [[1]], function (other) {
                vext.pages(pool, {sql: "SELECT a FROM t", values: [], key: "a", size: 10}, function () {},
                    function (failed, seen) {
                        pool.close(function () { done([told(error), told(other), told(failed), seen.rows]); });
                    });
            }, retry);
        }, retry);
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",\"none\",\"none\",1]"));
}

void TestLibraryPool::clusterOpensAfterOpenHasReturned()
{
    NEEDS_POSTGRES();
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var cluster = vext.cluster({engine: "postgresql", nodes: [%1]}), returned = false;
        cluster.open(function () {
            cluster.open(function (error, name) {
                var late = returned;
                cluster.close(function () {
                    cluster.open(function (closed) { done([late, told(error), told(closed)]); });
                });
            });
            returned = true;
        });
    )js")
                                               .arg(m_postgres));
    QCOMPARE(outcome, QStringLiteral("[true,\"none\",\"closed\"]"));
}

void TestLibraryPool::clusterSettingsHoldWhereOptionsSayNothing()
{
    LibraryScript script;
    // Their deadline of its own would be 30 s.
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var cluster = vext.cluster({engine: "postgresql", nodes: [{hostName: "127.0.0.1", port: 1}],
            deadlineMs: 200});
        cluster.transaction(function () {}, function (error, value, info) {
            cluster.query("SELECT 1", function (other) {
                done([error.kind, info.milliseconds < 25000, other.kind, Date.now() - began < 25000]);
            }, {backoffMs: 1});
        }, {isolation: "SERIALIZABLE"});
        var began = Date.now();
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"lost\",true,\"lost\",true]"));
}

void TestLibraryPool::clusterPreparesItsConnections()
{
    NEEDS_POSTGRES();
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var cluster = vext.cluster({engine: "postgresql", nodes: [%1],
            init: "SET statement_timeout = 4711"});
        cluster.query("SELECT current_setting('statement_timeout') AS t", function (error, result) {
            cluster.close(function () { done([told(error), result && result.T[0]]); });
        });
    )js")
                                               .arg(m_postgres));
    QCOMPARE(outcome, QStringLiteral("[\"none\",\"4711ms\"]"));
}

void TestLibraryPool::nodesAreNamedByTheirAddress()
{
    LibraryScript script;
    QCOMPARE(script.text(QStringLiteral(
                 "vext.cluster({engine: 'postgresql', hostName: 'a', port: 5433, nodes: "
                 "[{}, {hostName: 'b'}, {port: 1}, {name: 'own'}]}).nodes.join() + ' ' +"
                 "vext.cluster({engine: 'galera', nodes: [{}, {hostName: 'c'}]}).nodes.join()")),
             QStringLiteral("string:a:5433,b:5433,a:1,own localhost,c"));
}

void TestLibraryPool::statementThatWaitedTooLongIsNotRun()
{
    NEEDS_POSTGRES();
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var outside = open(%1), release, error;
        must(outside, "DROP TABLE IF EXISTS late");
        must(outside, "CREATE TABLE late (n int)");
        var cluster = vext.cluster({engine: "postgresql", nodes: [%1], size: 1});
        cluster.transaction(function (tx, finish) {
            cluster.query("INSERT INTO late VALUES (1)", function (timeout) {
                error = timeout;
                finish();
            }, {deadlineMs: 50});
        }, function () {
            cluster.query("INSERT INTO late VALUES (2)", function () {
                cluster.close(function () {
                    done([told(error), vext.rows(must(outside, "SELECT n FROM late"), true)]);
                });
            });
        });
    )js")
                                               .arg(m_postgres));
    QCOMPARE(outcome, QStringLiteral("[\"timeout\",[{\"n\":2}]]"));
}

void TestLibraryPool::waitingWithoutEndIsPossible()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        watchTimers();
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:", size: 1, waitMs: Infinity});
        vext.transaction(pool, function (tx, finish) { setTimeout(finish, 50); }, null, {deadlineMs: Infinity});
        pool.query("SELECT 1", function (error) {
            // What is more is over at once in many a host.
            pool.close(function () { done([told(error), longest]); });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",2147483647]"));
}

namespace
{

/// `hang(callback)` runs a statement that does not end; `endHanging(count)` ends the sessions of so
/// many, when all of them run: one that is left would keep the program for minutes.
const char Hanging[] = R"js(
    var outside = open(%1);
    function hang(callback) {
        cluster.query("DO $$ BEGIN PERFORM pg_sleep(300); END $$", callback, {deadlineMs: 60000});
    }
    function endHanging(count) {
        var those = " FROM pg_stat_activity WHERE state = 'active' AND query LIKE '%pg_sleep(300)%' " +
            "AND pid <> pg_backend_pid()";
        if (Number(must(outside, "SELECT count(*)" + those).fields_index[0][0]) === count) {
            must(outside, "SELECT pg_terminate_backend(pid)" + those);
        } else {
            setTimeout(function () { endHanging(count); }, 10);
        }
    }
)js";

QString withPostgres(const char *code, const QString &parameters)
{
    QString text = QString::fromUtf8(Hanging) + QString::fromUtf8(code);
    return text.replace(QStringLiteral("%1"), parameters);
}

} // namespace

void TestLibraryPool::exceptionKeepsNobodyElseWaiting()
{
    NEEDS_POSTGRES();
    LibraryScript script;
    const QString outcome = script.outcome(withPostgres(R"js(
        var heard = 0, cluster = vext.cluster({engine: "postgresql", nodes: [%1]});
        function hear() {
            if (++heard === 3) {
                cluster.close(function () { done(heard); });
                return;
            }
            throw new Error("of a callback");
        }
        cluster.open(hear);
        cluster.open(function () {
            hang(hear);
            hang(hear);
            endHanging(2);
        });
    )js",
                                                        m_postgres));
    QCOMPARE(outcome, QStringLiteral("3"));
}

void TestLibraryPool::exceptionOfOnMoveKeepsNobodyWaiting()
{
    NEEDS_POSTGRES();
    LibraryScript script;
    const QString outcome = script.outcome(withPostgres(R"js(
        var nodes = [%1, %1], moves = 0, lost = null;
        nodes[0].name = "first";
        nodes[1].name = "second";
        var cluster = vext.cluster({engine: "postgresql", nodes: nodes, onMove: function () {
            moves++;
            throw new Error("of onMove");
        }});
        hang(function (error) {
            lost = error;
            cluster.query("SELECT 5 AS n", function (failed, result) {
                cluster.close(function () { done([lost.kind, told(failed), result.N[0], moves]); });
            });
        });
        endHanging(1);
    )js",
                                                        m_postgres));
    QCOMPARE(outcome, QStringLiteral("[\"lost\",\"none\",5,1]"));
}

QTEST_GUILESS_MAIN(TestLibraryPool)
#include "test_library_pool.moc"
