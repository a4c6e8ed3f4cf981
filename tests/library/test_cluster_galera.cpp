/// @file
/// The script library on a Galera cluster of three nodes.

#include "cluster_script.h"
#include "galera_cluster.h"
#include "tcp_relay.h"

#include <QTimer>
#include <QtTest>

#include <csignal>

/// The nodes are started once; a test that ends one starts it again.
class TestClusterGalera : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void linesThatAreCutLoseNothing();
    void whatIsCommittedIsReadOnEveryNode();
    void marksTellEveryIdFromEveryOther();
    void transfersSurviveTheirNode_data();
    void transfersSurviveTheirNode(); // last: the node that was killed stays away

private:
    QStringList nodes() const;
    /// The node that the script's cluster uses now.
    int used(ClusterScript &script) const;

    GaleraCluster m_servers;
    QString m_reason;
};

namespace
{

constexpr int Workers = 4;

} // namespace

void TestClusterGalera::initTestCase()
{
    if (GaleraCluster::available(&m_reason))
        QVERIFY2(m_servers.start(), qPrintable(m_servers.error()));
}

void TestClusterGalera::init()
{
    if (!m_reason.isEmpty())
        QSKIP(qPrintable(m_reason));
    QVERIFY2(m_servers.waitUntilSynced(0), qPrintable(m_servers.error()));
}

/// A node that a failed test has stopped would keep all later ones waiting.
void TestClusterGalera::cleanup()
{
    for (int i = 0; i < m_servers.count(); ++i)
        m_servers.send(i, SIGCONT);
}

QStringList TestClusterGalera::nodes() const
{
    QStringList result;
    for (int i = 0; i < m_servers.count(); ++i)
        result << nodeLiteral(m_servers.parameters(i));
    return result;
}

int TestClusterGalera::used(ClusterScript &script) const
{
    // One that it has just left has no successor before it is needed.
    script.eval(QStringLiteral("cluster.open()"));
    script.waitFor(QStringLiteral("cluster.node() !== ''"), 60000);
    const QString name = script.eval(QStringLiteral("cluster.node()")).toString();
    for (int i = 0; i < m_servers.count(); ++i) {
        if (name == QStringLiteral("127.0.0.1:%1").arg(m_servers.port(i)))
            return i;
    }
    return -1;
}

void TestClusterGalera::transfersSurviveTheirNode_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("stopped") << SIGSTOP;
    QTest::newRow("ended") << SIGTERM;
    QTest::newRow("killed") << SIGKILL;
}

void TestClusterGalera::transfersSurviveTheirNode()
{
    QFETCH(int, signalNumber);
    ClusterScript script;
    script.prepareTransfers(m_servers.parameters(0));
    script.makeCluster(QStringLiteral("galera"), nodes(), QString());
    script.eval(QStringLiteral("startTransfers(cluster, %1)").arg(Workers));
    QVERIFY2(script.waitForTransfers(30), qPrintable(script.text(QStringLiteral("failures"))));

    const int node = used(script);
    QVERIFY(node >= 0);
    QVERIFY(m_servers.send(node, signalNumber));
    QTimer operation;
    connect(&operation, &QTimer::timeout, this, [this, node] { m_servers.restoreQuorum(node); });
    operation.start(5000);
    QVERIFY(script.waitFor(QStringLiteral("moves.length > 0"), 90000));
    QVERIFY2(script.waitForTransfers(30), qPrintable(script.text(QStringLiteral("failures"))));
    QVERIFY(script.finishTransfers());
    qInfo("%s", qPrintable(script.text(QStringLiteral(
                    "acked.length + ' transfers, ' + infos.retried + ' tried again, ' + "
                    "infos.repeated + ' had committed, longest ' + slowest + ' ms'"))));
    const int successor = used(script);
    QVERIFY(successor >= 0);
    QCOMPARE(script.wrongOn(m_servers.parameters(successor)), QStringLiteral("[]"));

    if (signalNumber == SIGSTOP) {
        QVERIFY(m_servers.send(node, SIGCONT));
        QVERIFY2(m_servers.waitUntilSynced(node), qPrintable(m_servers.error()));
    } else {
        QVERIFY(m_servers.waitForEnd(node));
        if (signalNumber != SIGKILL) // the last row: nobody needs it any more
            QVERIFY2(m_servers.startAgain(node), qPrintable(m_servers.error()));
    }
}

void TestClusterGalera::linesThatAreCutLoseNothing()
{
    TcpRelay relay;
    QVERIFY(relay.start(quint16(m_servers.port(1))));
    ConnectionParameters through = m_servers.parameters(1);
    through.port = relay.port();
    ClusterScript script;
    script.prepareTransfers(m_servers.parameters(1));
    script.makeCluster(QStringLiteral("galera"), {nodeLiteral(through)}, QString());
    script.eval(QStringLiteral("startTransfers(cluster, %1)").arg(Workers));
    for (int cuts = 0; cuts < 12; ++cuts) {
        QVERIFY2(script.waitForTransfers(5 + cuts % 4),
                 qPrintable(script.text(QStringLiteral("failures"))));
        relay.cut();
    }
    QVERIFY(script.finishTransfers());
    QVERIFY(script.number(QStringLiteral("infos.retried")) > 0);
    QCOMPARE(script.wrongOn(m_servers.parameters(1)), QStringLiteral("[]"));
}

void TestClusterGalera::whatIsCommittedIsReadOnEveryNode()
{
    ClusterScript script;
    script.prepareTransfers(m_servers.parameters(1));
    script.makeCluster(QStringLiteral("galera"),
                       {nodeLiteral(m_servers.parameters(1)), nodeLiteral(m_servers.parameters(2))},
                       QString());
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var stale = 0, n = 0;
        function orEnd(then) {
            return function (error, value) {
                error ? done(told(error) + " " + error.message) : then(value);
            };
        }
        (function next() {
            if (n === 40) {
                done(stale);
                return;
            }
            n++;
            cluster.transaction(function (tx, finish) {
                tx.query("INSERT INTO transfers (n) VALUES (?)", [n], finish);
            }, orEnd(function () {
                cluster.query("SELECT count(*) AS c FROM transfers", null, orEnd(function (result) {
                    stale += result.c[0] !== n ? 1 : 0;
                    next();
                }), {replica: true});
            }));
        })();
    )js"));
    QCOMPARE(outcome, QStringLiteral("0"));
}

/// The server's usual comparison tells neither case nor spaces at the end apart.
void TestClusterGalera::marksTellEveryIdFromEveryOther()
{
    ClusterScript script;
    script.prepareTransfers(m_servers.parameters(0));
    // What is prepared besides must not take the place of wsrep_sync_wait.
    script.makeCluster(QStringLiteral("galera"), nodes(),
                       QStringLiteral(", marks: 'id_marks', init: 'SET @own = 5'"));
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var ids = ["Bill 7", "bill 7", "bill 7 ", "b\u00efll 7", "\ud83d\ude00", "\ud83d\ude01", 7, "7"], seen = [];
        (function next() {
            if (ids.length === 0) {
                cluster.query("SELECT @own + @@wsrep_sync_wait AS sum", function (error, result) {
                    done([seen, Number(result.sum[0])]);
                });
                return;
            }
            cluster.transaction(function (tx, finish) {
                tx.query("INSERT INTO transfers (n) VALUES (1)", finish);
            }, function (error, value, info) {
                seen.push(error ? told(error) : info.repeated);
                next();
            }, {id: ids.shift()});
        })();
    )js"));
    QCOMPARE(outcome, QStringLiteral("[[false,false,false,false,false,false,false,true],6]"));
}

QTEST_GUILESS_MAIN(TestClusterGalera)
#include "test_cluster_galera.moc"
