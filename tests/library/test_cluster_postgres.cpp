/// @file
/// The script library on a PostgreSQL primary with two standbys.

#include "cluster_script.h"
#include "postgres_cluster.h"
#include "tcp_relay.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <memory>

class TestClusterPostgres : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void transfersSurviveTheirNode_data();
    void transfersSurviveTheirNode();
    void commitWithoutAnAnswerIsDoneOnce_data();
    void commitWithoutAnAnswerIsDoneOnce();
    void linesThatAreCutLoseNothing();
    void asynchronousReplicationLosesWhatWasAcknowledged();
    void commitUnderWayIsNotToldAsFailed();
    void commitThatWaitsForStandbysIsNotCancelled();
    void primaryOfThePastIsNotUsed();
    void marksAreMadeByTwoAtOnce();
    void marksThatCannotBeMadeAreAnError();
    void marksCanBeAskedAndCleaned();
    void marksAreAsOldInEveryTimeZone();
    void duplicateOfTheWorkIsAnError();
    void readsGoToReplicas(); // ends nodes
    void noNodeIsAnErrorAtTheDeadline();
    void closedClusterRefuses();
    void exampleLosesNothingWithItsNode();

private:
    bool start(PostgresCluster &cluster, PostgresCluster::Commit commit);
    /// The cluster of the tests that leave all nodes alive, with asynchronous replication and no
    /// tables; null when it does not start. The last test that uses it may end nodes.
    PostgresCluster *shared();
    static QStringList nodes(const PostgresCluster &cluster);
    /// A relay before the first node of the shared cluster, and the tables; false when the test
    /// ended.
    bool startBehind(TcpRelay &relay, ClusterScript &script);
    /// The first node's parameters, through the relay.
    ConnectionParameters through(const TcpRelay &relay) const;

    std::unique_ptr<PostgresCluster> m_shared;
    QString m_reason;
};

namespace
{

constexpr int Workers = 4;

/// `deadline()` lets the time be over of the last transaction that has ten minutes.
const char DeadlineByHand[] = R"js(
    var deadline = null;
    vext.timers(function (task, ms) {
        deadline = ms > 500000 ? task : deadline;
        return setTimeout(task, ms);
    }, clearTimeout);
)js";

/// A connection `direct`, a commit of transfers that waits for its advisory lock 7; how many of
/// them are waiting(), and how many are stored(); how many transactions are underWay().
QString heldCommit(const ConnectionParameters &parameters)
{
    return QString::fromUtf8(R"js(
        var direct = open(%1);
        must(direct, "CREATE OR REPLACE FUNCTION hold() RETURNS trigger LANGUAGE plpgsql AS " +
            "'BEGIN PERFORM pg_advisory_xact_lock(7); RETURN NULL; END'");
        must(direct, "CREATE CONSTRAINT TRIGGER slow AFTER INSERT ON transfers DEFERRABLE INITIALLY DEFERRED " +
            "FOR EACH ROW EXECUTE FUNCTION hold()");
        function waiting() {
            return Number(must(direct, "SELECT count(*) FROM pg_locks WHERE locktype = 'advisory' AND " +
                "NOT granted").fields_index[0][0]);
        }
        function underWay() { // what has changed something holds such a lock
            return Number(must(direct, "SELECT count(*) FROM pg_locks WHERE locktype = 'transactionid'")
                .fields_index[0][0]);
        }
        function stored() {
            return Number(must(direct, "SELECT count(*) FROM transfers").fields_index[0][0]);
        }
    )js")
        .arg(literalOf(parameters));
}

} // namespace

void TestClusterPostgres::initTestCase()
{
    PostgresCluster::available(&m_reason);
}

void TestClusterPostgres::init()
{
    if (!m_reason.isEmpty())
        QSKIP(qPrintable(m_reason));
}

bool TestClusterPostgres::start(PostgresCluster &cluster, PostgresCluster::Commit commit)
{
    if (cluster.start(commit))
        return true;
    QTest::qFail(qPrintable(cluster.error()), __FILE__, __LINE__);
    return false;
}

PostgresCluster *TestClusterPostgres::shared()
{
    if (!m_shared) {
        m_shared = std::make_unique<PostgresCluster>();
        if (!start(*m_shared, PostgresCluster::Commit::Asynchronous))
            m_shared.reset();
    }
    if (m_shared) {
        LibraryScript script;
        script.eval(QStringLiteral("var db = open(%1); must(db, 'DROP TABLE IF EXISTS accounts, "
                                   "transfers, vext_marks, own_marks');")
                        .arg(literalOf(m_shared->parameters(0))));
    }
    return m_shared.get();
}

QStringList TestClusterPostgres::nodes(const PostgresCluster &cluster)
{
    QStringList result;
    for (int i = 0; i < cluster.count(); ++i)
        result << nodeLiteral(cluster.parameters(i));
    return result;
}

bool TestClusterPostgres::startBehind(TcpRelay &relay, ClusterScript &script)
{
    PostgresCluster *servers = shared();
    if (!servers)
        return false;
    if (!relay.start(quint16(servers->port(0)))) {
        QTest::qFail("the relay does not start", __FILE__, __LINE__);
        return false;
    }
    script.prepareTransfers(servers->parameters(0));
    return true;
}

ConnectionParameters TestClusterPostgres::through(const TcpRelay &relay) const
{
    ConnectionParameters result = m_shared->parameters(0);
    result.port = relay.port();
    return result;
}

void TestClusterPostgres::transfersSurviveTheirNode_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("killed") << SIGKILL;
    QTest::newRow("stopped") << SIGSTOP;
    QTest::newRow("ended") << SIGTERM;
}

/// With SIGTERM the server waits for its sessions to end and answers them meanwhile: the cluster
/// has to leave it by itself.
void TestClusterPostgres::transfersSurviveTheirNode()
{
    QFETCH(int, signalNumber);
    PostgresCluster servers;
    if (!start(servers, PostgresCluster::Commit::AnyOne))
        return;
    ClusterScript script;
    script.prepareTransfers(servers.parameters(0));
    script.makeCluster(QStringLiteral("postgresql"), nodes(servers),
                       QStringLiteral(", renewMs: 500"));
    script.eval(QStringLiteral("startTransfers(cluster, %1)").arg(Workers));
    QVERIFY2(script.waitForTransfers(30), qPrintable(script.text(QStringLiteral("failures"))));

    if (signalNumber == SIGTERM) {
        QVERIFY(::kill(pid_t(servers.pid(0)), SIGTERM) == 0);
        // When the library has left it. QTRY_VERIFY would wait three times as long for a failure.
        QVERIFY(script.host().waitFor([&] { return !servers.isRunning(0); }, 60000));
    } else {
        QVERIFY(servers.stopNode(0, signalNumber));
    }
    QVERIFY2(servers.promote() > 0, qPrintable(servers.error()));
    QVERIFY2(script.waitForTransfers(30), qPrintable(script.text(QStringLiteral("failures"))));
    QVERIFY(script.finishTransfers());

    QCOMPARE(script.wrongOn(servers.parameters(servers.primary())), QStringLiteral("[]"));
    QCOMPARE(script.number(QStringLiteral("moves.length")), 1);
    qInfo("%s", qPrintable(script.text(QStringLiteral(
                    "acked.length + ' transfers, ' + infos.retried + ' tried again, ' + "
                    "infos.repeated + ' had committed, longest ' + slowest + ' ms'"))));
    servers.stopNode(0, SIGKILL); // lets go of what still waits for its answer
}

void TestClusterPostgres::commitWithoutAnAnswerIsDoneOnce_data()
{
    QTest::addColumn<bool>("committed");
    QTest::newRow("the server has committed") << true;
    QTest::newRow("the server has not") << false;
}

/// The relay keeps the COMMIT, or its answer, back. The commit waits for a lock of ours, so that
/// the relay can be put in between at the right moment.
void TestClusterPostgres::commitWithoutAnAnswerIsDoneOnce()
{
    QFETCH(bool, committed);
    TcpRelay relay;
    ClusterScript script;
    if (!startBehind(relay, script))
        return;
    script.eval(heldCommit(m_shared->parameters(0)));
    // The watch must find nothing before the line is cut.
    script.makeCluster(QStringLiteral("postgresql"), {nodeLiteral(through(relay))},
                       QStringLiteral(", pingMs: 600000"));
    QVERIFY(!script.outcome(QStringLiteral("cluster.open(function (error) { done(told(error)); })"))
                 .contains(QStringLiteral("lost")));
    script.eval(QStringLiteral("must(direct, 'SELECT pg_advisory_lock(7)');"
                               "ended = null;"
                               "transferOnce(cluster, function () { done(true); });"));
    QVERIFY(script.waitFor(QStringLiteral("waiting() === 1")));
    relay.blackHole();
    if (committed) {
        script.eval(QStringLiteral("must(direct, 'SELECT pg_advisory_unlock(7)')"));
        QVERIFY(script.waitFor(QStringLiteral("stored() === 1")));
    } else {
        script.eval(
            QStringLiteral("must(direct, 'SELECT pg_terminate_backend(pid, 10000) FROM pg_locks "
                           "WHERE locktype = \\'advisory\\' AND NOT granted')"));
        QCOMPARE(script.number(QStringLiteral("stored()")), 0);
        script.eval(QStringLiteral("must(direct, 'SELECT pg_advisory_unlock(7)')"));
    }
    relay.cut();
    relay.heal();
    script.awaitOutcome();
    QCOMPARE(script.number(QStringLiteral("stored()")), 1);
    QCOMPARE(script.number(QStringLiteral("infos.repeated")), committed ? 1 : 0);
    QCOMPARE(script.number(QStringLiteral("infos.retried")), 1);
    QCOMPARE(script.wrongOn(m_shared->parameters(0)), QStringLiteral("[]"));
}

/// Who is told that the commit is unknown, and asks, hears what becomes of it in the end.
void TestClusterPostgres::commitUnderWayIsNotToldAsFailed()
{
    PostgresCluster *cluster = shared();
    if (!cluster)
        return;
    ClusterScript script;
    script.prepareTransfers(cluster->parameters(0));
    script.eval(heldCommit(cluster->parameters(0)));
    script.makeCluster(QStringLiteral("postgresql"), nodes(*cluster), QString());
    script.eval(QString::fromUtf8(DeadlineByHand));
    // The deadline comes in the commit, which goes on when who asks for it waits, or has been
    // answered.
    script.eval(QString::fromUtf8(R"js(
        ended = null;
        function release() {
            var waits = "SELECT count(*) FROM pg_locks WHERE locktype = 'transactionid' AND NOT granted";
            if (ended || Number(must(direct, waits).fields_index[0][0]) > 0) {
                must(direct, "SELECT pg_advisory_unlock(7)");
            } else {
                setTimeout(release, 10);
            }
        }
        must(direct, "SELECT pg_advisory_lock(7)");
        cluster.transaction(function (tx, finish) {
            tx.query("INSERT INTO transfers (n) VALUES (1)", finish);
        }, function (error) {
            cluster.committed(error.id, function (failed, yes) { done([told(error), told(failed), yes]); });
            release();
        }, {deadlineMs: 600000});
    )js"));
    QVERIFY(script.waitFor(QStringLiteral("waiting() === 1")));
    script.eval(QStringLiteral("deadline()"));
    const QString outcome = script.awaitOutcome();
    QVERIFY(script.waitFor(QStringLiteral("underWay() === 0")));
    const bool stored = script.number(QStringLiteral("stored()")) == 1;
    QCOMPARE(outcome, QStringLiteral("[\"unknown\",\"none\",%1]")
                          .arg(stored ? QStringLiteral("true") : QStringLiteral("false")));
}

/// The server would take it for done, and show what no standby has. With drivers that can cancel.
void TestClusterPostgres::commitThatWaitsForStandbysIsNotCancelled()
{
    PostgresCluster servers;
    if (!start(servers, PostgresCluster::Commit::AnyOne))
        return;
    ClusterScript script;
    script.prepareTransfers(servers.parameters(0));
    script.eval(heldCommit(servers.parameters(0)));
    script.makeCluster(QStringLiteral("postgresql"), nodes(servers), QString());
    script.eval(QString::fromUtf8(DeadlineByHand));
    QCOMPARE(script.outcome(QStringLiteral("transferOnce(cluster, function () { done(1); })")),
             QStringLiteral("1"));
    for (int node : {1, 2})
        QVERIFY(servers.stopNode(node, SIGSTOP));
    script.eval(QString::fromUtf8(R"js(
        ended = null;
        cluster.transaction(function (tx, finish) {
            tx.query("INSERT INTO transfers (n) VALUES (2)", finish);
        }, function (error) {
            cluster.committed(error.id, function (failed, yes) { done([told(error), told(failed), yes]); });
        }, {deadlineMs: 600000});
        function held() { // by the standbys
            return Number(must(direct, "SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'SyncRep'")
                .fields_index[0][0]);
        }
        function waits() { // for what is held
            return Number(must(direct, "SELECT count(*) FROM pg_locks WHERE locktype = 'transactionid' " +
                "AND NOT granted").fields_index[0][0]);
        }
    )js"));
    QVERIFY(script.waitFor(QStringLiteral("held() === 1")));
    script.eval(QStringLiteral("deadline()"));
    // Who asks waits with it, until a standby has it.
    QVERIFY(script.waitFor(QStringLiteral("ended !== null || waits() === 1")));
    QVERIFY(script.isTrue(QStringLiteral("ended === null && stored() === 1")));
    QVERIFY(servers.resumeNode(1));
    QCOMPARE(script.awaitOutcome(), QStringLiteral("[\"unknown\",\"none\",true]"));
    QCOMPARE(script.number(QStringLiteral("stored()")), 2);
}

/// It stands still while a standby is promoted, and goes on then: two servers take writes.
void TestClusterPostgres::primaryOfThePastIsNotUsed()
{
    PostgresCluster servers;
    if (!start(servers, PostgresCluster::Commit::AnyOne))
        return;
    ClusterScript script;
    script.prepareTransfers(servers.parameters(0));
    script.makeCluster(QStringLiteral("postgresql"), nodes(servers), QString());
    QCOMPARE(script.outcome(QStringLiteral("transferOnce(cluster, function () { done(1); })")),
             QStringLiteral("1"));
    QVERIFY(servers.stopNode(0, SIGSTOP));
    QVERIFY2(servers.promote() > 0, qPrintable(servers.error()));
    QCOMPARE(script.outcome(QStringLiteral("transferOnce(cluster, function () { done(2); })")),
             QStringLiteral("2"));
    QCOMPARE(script.number(QStringLiteral("moves.length")), 1);
    QVERIFY(servers.resumeNode(0));
    // The new primary's lines are cut: the cluster looks for one, and the old one stands first.
    script.eval(
        QStringLiteral(
            "must(open(%1), \"SELECT pg_terminate_backend(pid, 10000) FROM pg_stat_activity "
            "WHERE pid <> pg_backend_pid() AND backend_type = 'client backend'\")")
            .arg(literalOf(servers.parameters(servers.primary()))));
    QCOMPARE(script.outcome(QStringLiteral("transferOnce(cluster, function () { done(3); })")),
             QStringLiteral("3"));
    QCOMPARE(script.wrongOn(servers.parameters(servers.primary())), QStringLiteral("[]"));
    QCOMPARE(script.number(QStringLiteral("acked.length")), 3);
}

void TestClusterPostgres::marksAreMadeByTwoAtOnce()
{
    PostgresCluster *servers = shared();
    if (!servers)
        return;
    ClusterScript script;
    script.prepareTransfers(servers->parameters(0));
    script.makeCluster(QStringLiteral("postgresql"), nodes(*servers), QString());
    // Another program has made the table and not committed yet: making it once more waits, and
    // fails.
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var direct = open(%1);
        must(direct, "BEGIN");
        must(direct, "CREATE TABLE vext_marks (id VARCHAR(100) PRIMARY KEY, made TIMESTAMPTZ DEFAULT now())");
        function commitWhenItWaits() {
            var waits = Number(must(direct, "SELECT count(*) FROM pg_locks WHERE NOT granted").fields_index[0][0]);
            if (waits > 0) {
                must(direct, "COMMIT");
            } else {
                setTimeout(commitWhenItWaits, 10);
            }
        }
        cluster.transaction(function (tx, finish) {
            tx.query("INSERT INTO transfers (n) VALUES (1)", finish);
        }, function (error, value, info) {
            done([told(error), info.attempts > 1, must(direct, "SELECT n FROM transfers").rows]);
        });
        commitWhenItWaits();
    )js")
                                               .arg(literalOf(servers->parameters(0))));
    QCOMPARE(outcome, QStringLiteral("[\"none\",true,1]"));
}

void TestClusterPostgres::marksThatCannotBeMadeAreAnError()
{
    PostgresCluster *servers = shared();
    if (!servers)
        return;
    ClusterScript script;
    script.makeCluster(QStringLiteral("postgresql"), nodes(*servers),
                       QStringLiteral(", marks: 'nowhere.marks'"));
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        cluster.transaction(function (tx, finish) { finish(); }, function (error, value, info) {
            cluster.committed("any", function (other) { done([told(error), info.attempts, told(other)]); });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"statement 3F000\",2,\"statement 3F000\"]"));
}

void TestClusterPostgres::linesThatAreCutLoseNothing()
{
    TcpRelay relay;
    ClusterScript script;
    if (!startBehind(relay, script))
        return;
    script.makeCluster(QStringLiteral("postgresql"),
                       {nodeLiteral(through(relay)), nodeLiteral(m_shared->parameters(1))},
                       QString());
    script.eval(QStringLiteral("startTransfers(cluster, %1)").arg(Workers));
    for (int cuts = 0; cuts < 12; ++cuts) {
        QVERIFY2(script.waitForTransfers(5 + cuts % 4),
                 qPrintable(script.text(QStringLiteral("failures"))));
        relay.cut();
    }
    QVERIFY(script.finishTransfers());
    QVERIFY(script.number(QStringLiteral("infos.retried")) > 0);
    QCOMPARE(script.wrongOn(m_shared->parameters(0)), QStringLiteral("[]"));
}

/// The same transfers, and nothing but the replication is different: the check can see a loss.
void TestClusterPostgres::asynchronousReplicationLosesWhatWasAcknowledged()
{
    PostgresCluster servers;
    if (!start(servers, PostgresCluster::Commit::Asynchronous))
        return;
    ClusterScript script;
    script.prepareTransfers(servers.parameters(0));
    script.makeCluster(QStringLiteral("postgresql"), nodes(servers), QString());
    script.eval(QStringLiteral("startTransfers(cluster, %1)").arg(Workers));
    QVERIFY(script.waitForTransfers(20));
    QVERIFY(servers.holdBackStandbys());
    QVERIFY(script.waitForTransfers(30));
    QVERIFY(servers.stopNode(0, SIGKILL));
    QVERIFY2(servers.promote() > 0, qPrintable(servers.error()));
    QVERIFY(script.waitForTransfers(20));
    QVERIFY(script.finishTransfers());

    const QString wrong = script.wrongOn(servers.parameters(servers.primary()));
    QVERIFY2(wrong.contains(QStringLiteral("was acknowledged and is lost")), qPrintable(wrong));
    QVERIFY2(!wrong.contains(QStringLiteral("times")), qPrintable(wrong));
    QVERIFY2(!wrong.contains(QStringLiteral("the sum")), qPrintable(wrong));
}

void TestClusterPostgres::marksCanBeAskedAndCleaned()
{
    PostgresCluster *cluster = shared();
    if (!cluster)
        return;
    PostgresCluster &servers = *cluster;
    ClusterScript script;
    script.prepareTransfers(servers.parameters(0));
    script.makeCluster(QStringLiteral("postgresql"), nodes(servers),
                       QStringLiteral(", marks: 'own_marks'"));
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var seen = [];
        function pay(callback) {
            cluster.transaction(function (tx, finish) {
                tx.query("INSERT INTO transfers (n) VALUES (77)", finish);
            }, function (error, value, info) {
                seen.push(told(error), info.repeated);
                callback();
            }, {id: "bill 77"});
        }
        pay(function () {
            pay(function () {
                cluster.committed("bill 77", function (error, yes) {
                    seen.push(yes);
                    cluster.committed("bill 78", function (failed, no) {
                        seen.push(no);
                        cluster.cleanMarks(3600000, function (wrong, none) {
                            seen.push(none);
                            cluster.cleanMarks(0, function (bad, gone) {
                                seen.push(gone);
                                cluster.query("SELECT n FROM transfers", function (e, result) {
                                    seen.push(result.rows);
                                    done(seen);
                                });
                            });
                        });
                    });
                });
            });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",false,\"none\",true,true,false,0,1,1]"));
}

void TestClusterPostgres::marksAreAsOldInEveryTimeZone()
{
    PostgresCluster *cluster = shared();
    if (!cluster)
        return;
    PostgresCluster &servers = *cluster;
    ClusterScript script;
    script.makeCluster(QStringLiteral("postgresql"), nodes(servers),
                       QStringLiteral(", init: \"SET timezone = 'UTC'\""));
    script.eval(QStringLiteral("var east = cluster;"));
    script.makeCluster(QStringLiteral("postgresql"), nodes(servers),
                       QStringLiteral(", init: \"SET timezone = 'Asia/Tokyo'\""));
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var seen = [];
        // Nobody has made the table yet.
        cluster.committed("new", function (error, no) {
            seen.push(told(error), no);
            cluster.cleanMarks(0, function (failed, none) {
                seen.push(told(failed), none);
                east.transaction(function (tx, finish) { finish(); }, function () {
                    cluster.cleanMarks(3600000, function (wrong, young) {
                        seen.push(told(wrong), young);
                        cluster.committed("new", function (bad, yes) { done(seen.concat(yes)); });
                    });
                }, {id: "new"});
            });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",false,\"none\",0,\"none\",0,true]"));
}

/// Only the mark's own tells that an earlier attempt has committed.
void TestClusterPostgres::duplicateOfTheWorkIsAnError()
{
    PostgresCluster *cluster = shared();
    if (!cluster)
        return;
    PostgresCluster &servers = *cluster;
    ClusterScript script;
    script.prepareTransfers(servers.parameters(0));
    script.makeCluster(QStringLiteral("postgresql"), nodes(servers), QString());
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        cluster.transaction(function (tx, finish) {
            tx.query("INSERT INTO transfers (n) VALUES (1)");
            tx.query("INSERT INTO accounts VALUES (0, 5)", finish);
        }, function (error, value, info) {
            cluster.committed("twice", function (failed, yes) {
                cluster.query("SELECT n FROM transfers", function (e, result) {
                    done([told(error), info.repeated, yes, result.rows]);
                });
            });
        }, {id: "twice"});
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"duplicate 23505\",false,false,0]"));
}

void TestClusterPostgres::readsGoToReplicas()
{
    PostgresCluster *cluster = shared();
    if (!cluster)
        return;
    PostgresCluster &servers = *cluster;
    ClusterScript script;
    script.makeCluster(QStringLiteral("postgresql"), nodes(servers), QString());
    script.eval(QString::fromUtf8(R"js(
        function ask(replica, callback) {
            cluster.query("SELECT pg_is_in_recovery() AS replica, inet_server_port() AS port",
                function (error, result) {
                    callback(error ? told(error) : [result.REPLICA[0], result.PORT[0]]);
                }, {replica: replica});
        }
        function askThree(callback) {
            ask(true, function (first) {
                ask(true, function (second) {
                    ask(false, function (third) { callback([first, second, third]); });
                });
            });
        }
    )js"));
    const QString together = script.outcome(QString::fromUtf8(R"js(
        askThree(function (all) {
            done([all[0][0], all[1][0], all[2][0], all[0][1] !== all[1][1]]);
        });
    )js"));
    QCOMPARE(together, QStringLiteral("[true,true,false,true]"));
    for (int node : {1, 2})
        QVERIFY(servers.stopNode(node, SIGKILL));
    const QString alone = script.outcome(QString::fromUtf8(R"js(
        askThree(function (all) { done([all[0][0], all[1][0], all[2][0]]); });
    )js"));
    QCOMPARE(alone, QStringLiteral("[false,false,false]"));
}

void TestClusterPostgres::noNodeIsAnErrorAtTheDeadline()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var cluster = vext.cluster({engine: "postgresql", deadlineMs: 300,
            nodes: [{hostName: "127.0.0.1", port: 1}, {hostName: "127.0.0.1", port: 2}]});
        cluster.transaction(function (tx, finish) { finish(); }, function (error, value, info) {
            cluster.query("SELECT 1", function (other) {
                cluster.close(function () { done([error.kind, info.attempts, other.kind]); });
            });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"lost\",0,\"lost\"]"));
}

void TestClusterPostgres::closedClusterRefuses()
{
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var cluster = vext.cluster({engine: "postgresql", nodes: [{hostName: "127.0.0.1", port: 1}]});
        cluster.close(function () {
            cluster.transaction(function () {}, function (error) {
                cluster.query("SELECT 1", function (other) { done([error.kind, other.kind]); });
            });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"closed\",\"closed\"]"));
}

/// examples/cluster_failover.js in the reference host.
void TestClusterPostgres::exampleLosesNothingWithItsNode()
{
    PostgresCluster servers;
    if (!start(servers, PostgresCluster::Commit::AnyOne))
        return;
    // The first transfers wait for a lock of ours until their node is gone, however long that
    // takes.
    LibraryScript script;
    script.eval(QString::fromUtf8(R"js(
        var db = open(%1);
        must(db, "CREATE TABLE vext_marks (id VARCHAR(100) NOT NULL PRIMARY KEY, made TIMESTAMPTZ NOT NULL " +
            "DEFAULT now())");
        must(db, "CREATE FUNCTION hold() RETURNS trigger LANGUAGE plpgsql AS 'BEGIN " +
            "IF EXISTS (SELECT 1 FROM vext_marks) THEN PERFORM pg_advisory_xact_lock(7); END IF; " +
            "RETURN NEW; END'"); // the first mark is that of the accounts
        must(db, "CREATE TRIGGER slow BEFORE INSERT ON vext_marks FOR EACH ROW EXECUTE FUNCTION hold()");
        must(db, "SELECT pg_advisory_lock(7)");
        var waits = "SELECT 1 FROM pg_locks WHERE locktype = 'advisory' AND NOT granted";
    )js")
                    .arg(literalOf(servers.parameters(0))));
    // The library under the name by which the example includes it.
    QTemporaryDir folder;
    const QString source = QStringLiteral(VEXT_SOURCE_DIR);
    const QString example = folder.filePath(QStringLiteral("cluster_failover.js"));
    QVERIFY(QFile::copy(source + QStringLiteral("/library/vext.js"),
                        folder.filePath(QStringLiteral("vext"))));
    QVERIFY(QFile::copy(source + QStringLiteral("/examples/cluster_failover.js"), example));

    QStringList addresses;
    for (int i = 0; i < servers.count(); ++i)
        addresses << QStringLiteral("127.0.0.1:%1").arg(servers.port(i));
    QProcess host;
    host.setProcessChannelMode(QProcess::MergedChannels);
    host.start(QStringLiteral(VEXT_RUN_FILE),
               {QStringLiteral("--plugin"), QStringLiteral(VEXT_PLUGIN_FILE), example,
                QStringLiteral("nodes=") + addresses.join(QLatin1Char(',')),
                QStringLiteral("databaseName=postgres"), QStringLiteral("userName=vext"),
                QStringLiteral("seconds=%1").arg(scaledMs(3000) / 1000)});
    const bool begun = script.waitFor(QStringLiteral("must(db, waits).rows > 0"), 60000);
    QVERIFY2(begun, host.readAll().constData());
    QVERIFY(servers.stopNode(0, SIGKILL));
    QVERIFY2(servers.promote() > 0, qPrintable(servers.error()));
    QVERIFY(host.waitForFinished(scaledMs(60000)));
    const QString told = QString::fromUtf8(host.readAll());
    QVERIFY2(host.exitStatus() == QProcess::NormalExit && host.exitCode() == 0, qPrintable(told));
    QVERIFY2(told.contains(QStringLiteral("moved from 127.0.0.1:")), qPrintable(told));
    QVERIFY2(told.contains(QStringLiteral("total 10000: right")), qPrintable(told));
}

QTEST_GUILESS_MAIN(TestClusterPostgres)
#include "test_cluster_postgres.moc"
