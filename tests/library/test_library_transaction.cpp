/// @file
/// Transactions of the script library on one database.

#include "library_script.h"

#include "tcp_relay.h"

#include <QtTest>

class TestLibraryTransaction : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void workIsCommitted_data();
    void workIsCommitted();
    void errorOfFinishRollsBack_data();
    void errorOfFinishRollsBack();
    void failedStatementEndsTheTransaction_data();
    void failedStatementEndsTheTransaction();
    void exceptionRollsBack_data();
    void exceptionRollsBack();
    void errorBehindFinishRollsBack_data();
    void errorBehindFinishRollsBack();
    void emptyStatementIsNotTriedAgain_data();
    void emptyStatementIsNotTriedAgain();
    void transactionsOfOneConnectionTakeTurns_data();
    void transactionsOfOneConnectionTakeTurns();
    void callbacksLeftOverAreTold();
    void endingStatementsAreRefused();
    void callbackOfARefusedStatementIsTold();
    void deadlineEndsWaitingForTheConnection();
    void deadlineEndsWorkThatNeverFinishes();
    void deadlineEndsAStatementThatHangs();

    void deadlockIsTriedAgain_data();
    void deadlockIsTriedAgain();
    void serializationFailureIsTriedAgain();
    void lockedDatabaseIsTriedAgain();
    void retriesEndAtTheDeadline();
    void pausesGrowBetweenTheirBounds_data();
    void pausesGrowBetweenTheirBounds();
    void deadlineIsThirtySecondsWhereNobodySaysSo();
    void commitThatFailsTellsWhy();

    void connectionLostDuringWorkIsReplacedByThePool();
    void lossThatTheScriptTellsOfIsNotThisConnections();
    void connectionLostDuringTheCommitIsUnknown();

private:
    bool fetch(QString *parameters) const;

    LibraryDatabases m_databases;
};

namespace
{

/// `db`, open, with an empty table "t".
const char Prepared[] = R"js(
    var settings = %1, db = open(settings);
    if (settings.driverName === "QIBASE") {
        must(db, "RECREATE TABLE t (id INTEGER NOT NULL PRIMARY KEY, n INTEGER)");
    } else {
        must(db, "DROP TABLE IF EXISTS t");
        must(db, "CREATE TABLE t (id INTEGER PRIMARY KEY, n INTEGER)");
    }
    function ids() {
        return vext.rows(must(db, "SELECT id FROM t ORDER BY id"), true).map(function (row) { return row.id; });
    }
)js";

QString prepared(const QString &parameters, const char *code)
{
    return QString::fromUtf8(Prepared).arg(parameters) + QString::fromUtf8(code);
}

} // namespace

void TestLibraryTransaction::workIsCommitted_data()
{
    m_databases.addRows(LibraryDatabases::Systems::All);
}

void TestLibraryTransaction::workIsCommitted()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        vext.transaction(db, function (tx, finish) {
            tx.query("INSERT INTO t VALUES (?, ?)", [1, 10]);
            tx.query("INSERT INTO t VALUES (?, ?)", [2, 20], function (error, result) {
                tx.query("SELECT sum(n) AS s FROM t", function (failed, sums) {
                    finish(null, vext.one(sums, true).s);
                });
            });
        }, function (error, value, info) {
            done([told(error), Number(value), ids(), info.attempts, info.repeated]);
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",30,[1,2],1,false]"));
}

void TestLibraryTransaction::errorOfFinishRollsBack_data()
{
    m_databases.addRows(LibraryDatabases::Systems::All);
}

void TestLibraryTransaction::errorOfFinishRollsBack()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        vext.transaction(db, function (tx, finish) {
            tx.query("INSERT INTO t VALUES (1, 10)", function () { finish("enough", 5); });
        }, function (error, value, info) {
            done([error, value === undefined, ids(), info.attempts]);
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"enough\",true,[],1]"));
}

void TestLibraryTransaction::failedStatementEndsTheTransaction_data()
{
    m_databases.addRows(LibraryDatabases::Systems::All);
}

void TestLibraryTransaction::failedStatementEndsTheTransaction()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var heard = [];
        vext.transaction(db, function (tx, finish) {
            tx.query("INSERT INTO t VALUES (1, 10)");
            tx.query("INSERT INTO t VALUES (1, 11)", function (error) {
                heard.push(error.kind);
                finish(null); // too late
            });
            tx.query("INSERT INTO t VALUES (2, 20)", function (error) { heard.push(error.message); });
            finish(null, 1);
        }, function (error, value, info) {
            done([error.kind, heard, ids(), info.attempts]);
        });
    )js"));
    QCOMPARE(outcome,
             QStringLiteral(
                 "[\"duplicate\",[\"duplicate\",\"not run: the transaction has failed\"],[],1]"));
}

void TestLibraryTransaction::exceptionRollsBack_data()
{
    m_databases.addRows(LibraryDatabases::Systems::All);
}

void TestLibraryTransaction::exceptionRollsBack()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        vext.transaction(db, function (tx, finish) {
            tx.query("INSERT INTO t VALUES (1, 10)", function () { throw new Error("inside"); });
        }, function (error) {
            vext.transaction(db, function (tx, finish) { throw "at once"; }, function (other) {
                done([error.message, other, ids()]);
            });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"inside\",\"at once\",[]]"));
}

void TestLibraryTransaction::errorBehindFinishRollsBack_data()
{
    QTest::addColumn<QString>("work");
    QTest::newRow("a callback that throws")
        << QStringLiteral("tx.query('INSERT INTO t VALUES (1, 10)', function () { throw 'no'; });"
                          "finish(null, 5);");
    QTest::newRow("a callback that finishes with an error")
        << QStringLiteral("tx.query('INSERT INTO t VALUES (1, 10)', function () { finish('no'); });"
                          "finish(null, 5);");
    QTest::newRow("work that throws")
        << QStringLiteral("tx.query('INSERT INTO t VALUES (1, 10)'); finish(null, 5); throw 'no';");
    QTest::newRow("a callback that finishes and throws")
        << QStringLiteral("tx.query('INSERT INTO t VALUES (1, 10)', function () {"
                          "    finish(null, 5); throw 'no'; });");
    QTest::newRow("work that finishes twice")
        << QStringLiteral("finish(null, 5); finish('no'); finish(null, 6);");
}

/// Statements may still run behind finish(): what their callbacks find wrong is not committed.
void TestLibraryTransaction::errorBehindFinishRollsBack()
{
    QFETCH(QString, work);
    NEEDS("SQLite file", parameters);
    LibraryScript script;
    const QString code = QStringLiteral("vext.transaction(db, function (tx, finish) { %1 },"
                                        "    function (error, value) {"
                                        "        done([error, value === undefined, ids()]); });")
                             .arg(work);
    QCOMPARE(script.outcome(prepared(parameters, "") + code), QStringLiteral("[\"no\",true,[]]"));
}

void TestLibraryTransaction::emptyStatementIsNotTriedAgain_data()
{
    m_databases.addRows();
}

/// What servers and drivers say to one is easily taken for a loss, after which work is tried again.
void TestLibraryTransaction::emptyStatementIsNotTriedAgain()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var pool = vext.pool(settings), texts = ["", " ;", "-- nothing", "/* nothing */ -- at all\n"], heard = [];
        (function next() {
            if (texts.length === 0) {
                pool.close(function () { done(heard); });
                return;
            }
            var text = texts.shift();
            vext.transaction(pool, function (tx, finish) { tx.query(text, finish); }, function (error, value, info) {
                heard.push(error.message, info.attempts);
                next();
            });
        })();
    )js"));
    const QString one = QStringLiteral("\"vext: the statement is empty\",1");
    QCOMPARE(outcome, QStringLiteral("[%1,%1,%1,%1]").arg(one));
}

void TestLibraryTransaction::transactionsOfOneConnectionTakeTurns_data()
{
    m_databases.addRows();
}

void TestLibraryTransaction::transactionsOfOneConnectionTakeTurns()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var order = [], left = 3;
        function add(id, fails) {
            vext.transaction(db, function (tx, finish) {
                order.push("begin " + id);
                tx.query("INSERT INTO t VALUES (?, 0)", [id], function () {
                    setTimeout(function () { finish(fails ? "no" : null); }, 5);
                });
            }, function () {
                order.push("end " + id);
                if (--left === 0) {
                    done([order, ids()]);
                }
            });
        }
        add(1);
        add(2, true);
        add(3);
    )js"));
    QCOMPARE(outcome,
             QStringLiteral(
                 "[[\"begin 1\",\"end 1\",\"begin 2\",\"end 2\",\"begin 3\",\"end 3\"],[1,3]]"));
}

void TestLibraryTransaction::callbacksLeftOverAreTold()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var db = open({driverName: "QSQLITE", databaseName: ":memory:"}), kept;
        vext.transaction(db, function (tx, finish) { kept = tx; finish(null, 1); }, function () {
            var returned = false;
            kept.query("SELECT 1", function (error) { done([error.message, returned]); });
            returned = true;
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"not run: the transaction has ended\",true]"));
}

void TestLibraryTransaction::endingStatementsAreRefused()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var db = open({driverName: "QSQLITE", databaseName: ":memory:"});
        var texts = ["commit", " ROLLBACK TO a", "Begin", "start  transaction", "end", "\nabort;",
            "/* now */ commit", "-- all\n;rollback", "/*a*//*b **/ /***/ end", "/*! commit */",
            "/*M!100100 rollback */"], heard = [];
        (function next() {
            if (texts.length === 0) {
                done(heard);
                return;
            }
            var text = texts.shift();
            vext.transaction(db, function (tx, finish) { tx.query(text); finish(); }, function (error) {
                heard.push(/begins and ends it itself/.test(error && error.message));
                next();
            });
        })();
    )js"));
    QCOMPARE(outcome, QStringLiteral("[true,true,true,true,true,true,true,true,true,true,true]"));
}

void TestLibraryTransaction::callbackOfARefusedStatementIsTold()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var db = open({driverName: "QSQLITE", databaseName: ":memory:"}), heard = [], returned = false;
        function hear(error) { heard.push(told(error), returned); }
        vext.transaction(db, function (tx, finish) {
            tx.query("COMMIT", hear);
            returned = true;
        }, function (error) {
            setTimeout(function () { done([told(error), heard]); }, 0);
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"statement\",[\"statement\",true]]"));
}

void TestLibraryTransaction::deadlineEndsWaitingForTheConnection()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var db = open({driverName: "QSQLITE", databaseName: ":memory:"}), order = [];
        vext.transaction(db, function (tx, finish) {
            // Inside, where it can never have its turn.
            vext.transaction(db, function () { order.push("work"); }, function (error) {
                order.push(told(error));
                vext.transaction(db, function (other, end) { end(null, "next"); }, function (failed, value) {
                    done([order, told(failed), value]);
                });
                finish(null, "outer");
            }, {deadlineMs: 30});
        }, function (error, value) { order.push(value); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[[\"timeout\",\"outer\"],\"none\",\"next\"]"));
}

void TestLibraryTransaction::deadlineEndsWorkThatNeverFinishes()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var db = open({driverName: "QSQLITE", databaseName: ":memory:"});
        vext.transaction(db, function () {}, function (error) { done(told(error)); }, {deadlineMs: 50});
    )js"));
    QCOMPARE(outcome, QStringLiteral("\"timeout\""));
}

void TestLibraryTransaction::deadlineEndsAStatementThatHangs()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool(%1), outside = open(%1), released = false;
        must(outside, "SELECT pg_advisory_lock(11)");
        vext.transaction(pool, function (tx, finish) {
            tx.query("SELECT pg_advisory_lock(11)", finish);
        }, function (error) {
            pool.query("SELECT 1", function (later) {
                var early = !released;
                must(outside, "SELECT pg_advisory_unlock(11)"); // the worker of the first one comes back
                pool.close(function () { done([told(error), early, told(later)]); });
            });
        }, {deadlineMs: 100});
        setTimeout(function () {
            released = true;
            must(outside, "SELECT pg_advisory_unlock_all()");
        }, 30000);
    )js")
                                               .arg(parameters));
    QCOMPARE(outcome, QStringLiteral("[\"timeout\",true,\"none\"]"));
}

void TestLibraryTransaction::deadlockIsTriedAgain_data()
{
    m_databases.addRows();
}

/// Two transactions change two rows in opposite order, and wait for one another in between.
void TestLibraryTransaction::deadlockIsTriedAgain()
{
    FETCH_PARAMETERS();
    if (parameters.contains(QLatin1String("QSQLITE")))
        QSKIP("SQLite's transactions have one lock, taken at the beginning");
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        must(db, "INSERT INTO t VALUES (1, 0), (2, 0)");
        settings.size = 2;
        var pool = vext.pool(settings), waiting = [], attempts = 0, left = 2, errors = [];
        function change(first, second) {
            vext.transaction(pool, function (tx, finish) {
                tx.query("UPDATE t SET n = n + 1 WHERE id = ?", [first], function () {
                    function go() {
                        // What is queued behind the deadlock must not be run in autocommit.
                        tx.query("UPDATE t SET n = n + 1 WHERE id = ?", [second]);
                        tx.query("UPDATE t SET n = n + 100 WHERE id = ?", [second]);
                        finish();
                    }
                    if (tx.attempt > 1) {
                        go();
                        return;
                    }
                    waiting.push(go);
                    if (waiting.length === 2) {
                        waiting.forEach(function (start) { start(); });
                    }
                });
            }, function (error, value, info) {
                errors.push(told(error));
                attempts += info.attempts;
                if (--left === 0) {
                    pool.close(function () {
                        // The second attempt may meet the other one again.
                        done([errors, attempts > 2, vext.rows(must(db, "SELECT n FROM t ORDER BY id"), true)]);
                    });
                }
            });
        }
        change(1, 2);
        change(2, 1);
    )js"));
    QCOMPARE(outcome, QStringLiteral("[[\"none\",\"none\"],true,[{\"n\":102},{\"n\":102}]]"));
}

void TestLibraryTransaction::serializationFailureIsTriedAgain()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        must(db, "INSERT INTO t VALUES (1, 5)");
        var seen = [];
        vext.transaction(vext.pool(settings), function (tx, finish) {
            tx.query("SELECT n FROM t", function (error, result) {
                seen.push(result.N[0]);
                if (tx.attempt === 1) {
                    must(db, "UPDATE t SET n = 6");
                }
                tx.query("UPDATE t SET n = ?", [result.N[0] * 10], finish);
            });
        }, function (error, value, info) {
            done([told(error), seen, info.attempts, must(db, "SELECT n FROM t").N]);
        }, {isolation: "REPEATABLE READ"});
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",[5,6],2,[60]]"));
}

void TestLibraryTransaction::lockedDatabaseIsTriedAgain()
{
    NEEDS("SQLite file", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        settings.connectOptions = "QSQLITE_BUSY_TIMEOUT=1";
        must(db, "BEGIN IMMEDIATE");
        var locked = true;
        vext.timers(function (task, ms) {
            if (locked && ms >= 20 && ms <= 1000) { // the pause behind an attempt
                locked = false;
                must(db, "COMMIT");
            }
            return setTimeout(task, ms);
        }, clearTimeout);
        var pool = vext.pool(settings);
        vext.transaction(pool, function (tx, finish) {
            tx.query("INSERT INTO t VALUES (1, 1)", finish);
        }, function (error, value, info) {
            pool.close(function () { done([told(error), info.attempts > 1, ids()]); });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",true,[1]]"));
}

void TestLibraryTransaction::retriesEndAtTheDeadline()
{
    NEEDS("SQLite file", parameters);
    // One pause fits before the deadline, and a second one does not. On a clock that goes on with
    // the pauses only: how long an attempt takes does not count.
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        settings.connectOptions = "QSQLITE_BUSY_TIMEOUT=1";
        must(db, "BEGIN IMMEDIATE");
        var clock = 1000, own = Date;
        Date = function () { return { getTime: function () { return clock; } }; };
        vext.timers(function (task, ms) {
            if (ms !== 120000) {
                return setTimeout(task, ms);
            }
            return setTimeout(function () {
                clock += ms;
                task();
            }, 0);
        }, clearTimeout);
        var pool = vext.pool(settings);
        vext.transaction(pool, function (tx, finish) { finish(); }, function (error, value, info) {
            Date = own;
            must(db, "COMMIT");
            pool.close(function () { done([error.kind, info.attempts, info.milliseconds]); });
        }, {deadlineMs: 200000, backoffMs: 120000, backoffMaxMs: 120000});
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"conflict\",2,120000]"));
}

void TestLibraryTransaction::pausesGrowBetweenTheirBounds_data()
{
    QTest::addColumn<QString>("options");
    QTest::addColumn<QString>("random");
    QTest::addColumn<QString>("pauses"); // before the attempts from the second one on
    QTest::newRow("shortest") << "{}"
                              << "0"
                              << "20,20,20,20,20,20,20,20";
    QTest::newRow("longest") << "{}"
                             << "1"
                             << "40,80,160,320,640,1000,1000,1000";
    QTest::newRow("in between") << "{}"
                                << "0.5"
                                << "30,50,90,170,330,510,510,510";
    QTest::newRow("own bounds") << "{backoffMs: 5, backoffMaxMs: 30}"
                                << "1"
                                << "10,20,30,30,30,30,30,30";
}

/// The clock of the test runs through all pauses at once.
void TestLibraryTransaction::pausesGrowBetweenTheirBounds()
{
    QFETCH(QString, options);
    QFETCH(QString, random);
    QFETCH(QString, pauses);
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pauses = [], inWork = false, own = Math.random, set = setTimeout;
        Math.random = function () { return %2; };
        vext.timers(function (task, ms) {
            pauses.push(ms);
            return set(task, ms > 5000 ? ms : 0);
        }, clearTimeout);
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:"});
        vext.transaction(pool, function (tx, finish) {
            var error = new Error("as a deadlock");
            error.kind = tx.attempt < 9 ? "conflict" : "statement";
            finish(error);
        }, function (error, value, info) {
            Math.random = own;
            vext.timers(set, clearTimeout);
            // What is longer is the deadline's and the waiting for a connection.
            var seen = pauses.filter(function (ms) { return ms <= 1000; }).join();
            pool.close(function () { done([info.attempts, seen]); });
        }, %1);
    )js")
                                               .arg(options, random));
    QCOMPARE(outcome, QStringLiteral("[9,\"%1\"]").arg(pauses));
}

void TestLibraryTransaction::deadlineIsThirtySecondsWhereNobodySaysSo()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        watchTimers();
        var pool = vext.pool({driverName: "QSQLITE", databaseName: ":memory:", waitMs: 0});
        vext.transaction(pool, function (tx, finish) { finish(); }, function (error, value, info) {
            pool.close(function () {
                done([told(error), longest <= 30000 && longest + info.milliseconds >= 30000]);
            });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",true]"));
}

void TestLibraryTransaction::commitThatFailsTellsWhy()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        must(db, "ALTER TABLE t ADD UNIQUE (n) DEFERRABLE INITIALLY DEFERRED");
        vext.transaction(db, function (tx, finish) {
            tx.query("INSERT INTO t VALUES (1, 1), (2, 1)", finish);
        }, function (error, value, info) {
            done([told(error), /duplicate key/.test(error.message), error.sql, info.attempts, ids()]);
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"duplicate 23505\",true,\"commit\",1,[]]"));
}

void TestLibraryTransaction::connectionLostDuringWorkIsReplacedByThePool()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var pool = vext.pool(settings);
        vext.transaction(pool, function (tx, finish) {
            tx.query("INSERT INTO t VALUES (1, 1)");
            if (tx.attempt === 1) {
                tx.query("SELECT pg_terminate_backend(pg_backend_pid())");
            }
            tx.query("INSERT INTO t VALUES (2, 1)", finish);
        }, function (error, value, info) {
            pool.close(function () { done([told(error), info.attempts, ids()]); });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",2,[1,2]]"));
}

/// As work does that asks another database and passes its error on.
void TestLibraryTransaction::lossThatTheScriptTellsOfIsNotThisConnections()
{
    NEEDS("SQLite file", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var pool = vext.pool(settings), other = vext.pool({driverName: "QNONE"});
        vext.transaction(pool, function (tx, finish) {
            tx.query("INSERT INTO t VALUES (1, 1)", function () { other.query("SELECT 1", finish); });
        }, function (error, value, info) {
            var stats = pool.stats();
            pool.close(function () { done([told(error), info.attempts, stats.open, stats.lost, ids()]); });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"lost\",1,1,0,[]]"));
}

/// The relay keeps the commit's answer back and then cuts the line.
void TestLibraryTransaction::connectionLostDuringTheCommitIsUnknown()
{
    TestDatabase *database = m_databases.find(QStringLiteral("PostgreSQL"));
    if (!database)
        QSKIP("not installed: PostgreSQL");
    TcpRelay relay;
    QVERIFY(relay.start(quint16(database->parameters().port)));
    ConnectionParameters through = database->parameters();
    through.port = relay.port();
    LibraryScript script;
    script.eval(prepared(literalOf(database->parameters()), R"js(
        must(db, "CREATE OR REPLACE FUNCTION pause() RETURNS trigger LANGUAGE plpgsql AS " +
            "'BEGIN PERFORM pg_advisory_xact_lock(12); RETURN NULL; END'");
        must(db, "CREATE CONSTRAINT TRIGGER slow AFTER INSERT ON t DEFERRABLE INITIALLY DEFERRED " +
            "FOR EACH ROW EXECUTE FUNCTION pause()");
        must(db, "SELECT pg_advisory_lock(12)"); // until the line is cut
        var committing = false;
    )js"));
    script.eval(QString::fromUtf8(R"js(
        ended = null;
        var pool = vext.pool(%1);
        vext.transaction(pool, function (tx, finish) {
            tx.query("INSERT INTO t VALUES (1, 1)", function (error) {
                finish(error);
                committing = true;
            });
        }, function (error, value, info) {
            pool.close(function () { done([error.kind, info.attempts]); });
        });
    )js")
                    .arg(literalOf(through)));
    QVERIFY(script.waitFor(QStringLiteral("committing")));
    relay.cut();
    QCOMPARE(script.awaitOutcome(), QStringLiteral("[\"unknown\",1]"));
    script.eval(QStringLiteral("must(db, 'SELECT pg_advisory_unlock(12)')"));
}

QTEST_GUILESS_MAIN(TestLibraryTransaction)
#include "test_library_transaction.moc"
