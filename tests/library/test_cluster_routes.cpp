/// @file
/// Ways to several PostgreSQL servers without the library: hosts in a row, pgbouncer, postgres_fdw.

#include "cluster_ports.h"
#include "cluster_script.h"
#include "guarded_folder.h"
#include "postgres_cluster.h"
#include "postgres_server.h"

#include <QFile>
#include <QtTest>

#include <csignal>

class TestClusterRoutes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void hostsInARowLeadToTheOneThatTakesWrites();
    void poolerOfSessionsKeepsEverything();
    void poolerOfTransactionsIsTold();
    void shardsAreReachedAndCommitOneByOne();

private:
    QString m_reason;
    PostgresServer m_server;
};

namespace
{

/// pgbouncer before a server, on a port of its own.
class Pooler
{
public:
    bool start(const ConnectionParameters &server, const QString &mode)
    {
        bool missing = false;
        const QString user = ServerSetup::serverUser(QStringLiteral("postgres"), &missing);
        m_port = ClusterPorts::free();
        const QString name = m_folder.filePath(QStringLiteral("pooler.ini"));
        QFile file(name);
        if (!m_folder.isValid() || !file.open(QIODevice::WriteOnly))
            return false;
        file.write(QStringLiteral("[databases]\n"
                                  "%1 = host=%2 port=%3 dbname=%1 user=%4 password='%5'\n"
                                  "[pgbouncer]\nlisten_addr = 127.0.0.1\nlisten_port = %6\n"
                                  "unix_socket_dir =\nauth_type = any\npool_mode = %7\n")
                       .arg(server.databaseName, server.hostName, QString::number(server.port),
                            server.userName, server.password, QString::number(m_port), mode)
                       .toUtf8());
        file.close();
        m_process.setUser(user);
        m_process.setOutputFile(m_folder.filePath(QStringLiteral("log")));
        return ServerSetup::giveFolder(m_folder.path(), user) && m_process.start(program(), {name});
    }

    static QString program() { return ServerSetup::findProgram(QStringLiteral("pgbouncer")); }
    int port() const { return m_port; }
    QString output() { return m_process.output(); }

private:
    GuardedFolder m_folder{QStringLiteral("vext-pooler")};
    ServerProcess m_process;
    int m_port = 0;
};

/// Two connection objects through a pooler: `a` is looked at, `hog()` lets `b` take the server's
/// connection that `a` has used last, `free()` gives it back.
const char PoolerScript[] = R"js(
    function connect(name, parameters) {
        var db = new VEXT_SQL(name), member;
        for (member in parameters) { db[member] = parameters[member]; }
        for (var i = 0; i < 100 && !db.open(); i++) { wait(50); } // it may be starting
        return db;
    }
    function wait(ms) { var end = Date.now() + ms; while (Date.now() < end) {} }
    function cell(db, sql) {
        var result = db.query(sql);
        return result ? result.fields_index[0][0] : "error " + db.lastError;
    }
    function bound(value) {
        var result = a.exec("SELECT CAST(? AS int) + 1", [value]);
        return result ? result.fields_index[0][0] : "error " + a.lastError;
    }
    function hog() { b.query("BEGIN"); b.query("SELECT 1"); }
    function free() { b.query("COMMIT"); }
    function elsewhere(look) { hog(); var answer = look(); free(); return answer; }
    var pid = "SELECT pg_backend_pid()";
)js";

/// Whether the driver takes values in statements, which Qt's own does not from scripts.
const char TakesValues[] = "a.hasFeature().CancelQuery && a.hasFeature().PositionalPlaceholders";

} // namespace

void TestClusterRoutes::initTestCase()
{
    if (!PostgresCluster::available(&m_reason))
        QSKIP(qPrintable(m_reason));
}

void TestClusterRoutes::hostsInARowLeadToTheOneThatTakesWrites()
{
    PostgresCluster servers;
    QVERIFY2(servers.start(PostgresCluster::Commit::Asynchronous), qPrintable(servers.error()));
    // The primary is the last of the row.
    ConnectionParameters row = servers.parameters(0);
    row.hostName = QStringLiteral("127.0.0.1,127.0.0.1,127.0.0.1");
    row.port = -1;
    row.connectOptions =
        QStringLiteral("port=%1,%2,%3;target_session_attrs=read-write;connect_timeout=3")
            .arg(QString::number(servers.port(2)), QString::number(servers.port(1)),
                 QString::number(servers.port(0)));
    DatabaseScript script;
    QVERIFY(script.open(QStringLiteral("db"), row));
    script.eval(QStringLiteral("function port() { var r = db.query('SHOW port');"
                               " return r ? Number(r.fields_index[0][0]) : db.lastError; }"));
    QCOMPARE(script.eval(QStringLiteral("port()")).toInt32(), servers.port(0));
    QVERIFY(servers.stopNode(0, SIGKILL));
    QVERIFY2(servers.promote() > 0, qPrintable(servers.error()));
    QVERIFY(!script.isTrue(QStringLiteral("db.query('SELECT 1')")));
    QVERIFY(script.isTrue(QStringLiteral("db.close(); db.open()")));
    QCOMPARE(script.eval(QStringLiteral("port()")).toInt32(), servers.port(servers.primary()));
    QVERIFY(script.isTrue(QStringLiteral("db.query('CREATE TABLE t (a int)')")));
}

#define START_POOLER(pooler, mode)                                                                 \
    do {                                                                                           \
        if (Pooler::program().isEmpty())                                                           \
            QSKIP("pgbouncer is not installed");                                                   \
        if (!m_server.isRunning())                                                                 \
            QVERIFY2(m_server.start(), qPrintable(m_server.error()));                              \
        QVERIFY2((pooler).start(m_server.parameters(), QStringLiteral(mode)),                      \
                 qPrintable((pooler).output()));                                                   \
    } while (false)

void TestClusterRoutes::poolerOfSessionsKeepsEverything()
{
    Pooler pooler;
    START_POOLER(pooler, "session");
    ConnectionParameters through = m_server.parameters();
    through.port = pooler.port();
    DatabaseScript script;
    script.eval(QLatin1String(PoolerScript));
    script.eval(QStringLiteral("var a = connect('a', %1), b = connect('b', %1), direct ="
                               " connect('d', %2);")
                    .arg(literalOf(through), literalOf(m_server.parameters())));
    QVERIFY2(script.isTrue(QStringLiteral("a.isOpen && b.isOpen && direct.isOpen")),
             qPrintable(script.text(QStringLiteral("a.lastError + direct.lastError")) +
                        pooler.output()));
    QVERIFY(script.isTrue(QStringLiteral("cell(a, pid) === elsewhere(function () {"
                                         " return cell(a, pid); })")));
    for (int i = 0; i < 6 && script.isTrue(QLatin1String(TakesValues)); ++i)
        QCOMPARE(script.text(
                     QStringLiteral("elsewhere(function () { return String(bound(%1)); })").arg(i)),
                 script.text(QStringLiteral("'%1'").arg(i + 1)));
    script.eval(QStringLiteral("a.query(\"SET work_mem = '7MB'\")"));
    QVERIFY(script.isTrue(QStringLiteral("elsewhere(function () {"
                                         " return cell(a, 'SHOW work_mem'); }) === '7MB'")));
    script.eval(QStringLiteral("var heard = 0; a.event.connect(function () { heard++; });"
                               "a.add_event('news'); direct.query('NOTIFY news')"));
    QVERIFY(script.waitFor(QStringLiteral("heard === 1")));
}

void TestClusterRoutes::poolerOfTransactionsIsTold()
{
    Pooler pooler;
    START_POOLER(pooler, "transaction");
    ConnectionParameters through = m_server.parameters();
    through.port = pooler.port();
    DatabaseScript script;
    script.eval(QLatin1String(PoolerScript));
    script.eval(
        QStringLiteral("var a = connect('a', %1), b = connect('b', %1);").arg(literalOf(through)));
    QVERIFY(script.isTrue(QStringLiteral("a.isOpen && b.isOpen")));
    // What the page tells to ask.
    QVERIFY(script.isTrue(QStringLiteral("cell(a, pid) !== elsewhere(function () {"
                                         " return cell(a, pid); })")));
    // A setting stays behind, for whoever comes next.
    script.eval(QStringLiteral("a.query(\"SET work_mem = '7MB'\")"));
    QVERIFY(script.isTrue(QStringLiteral("elsewhere(function () {"
                                         " return cell(a, 'SHOW work_mem'); }) !== '7MB'")));
    QVERIFY(script.isTrue(QStringLiteral("cell(b, 'SHOW work_mem') === '7MB'")));
    // What is prepared stays in the server's connection, as bound values' statements do.
    script.eval(QStringLiteral("a.query('PREPARE mine AS SELECT 1')"));
    QVERIFY2(script.isTrue(QStringLiteral("var told = elsewhere(function () {"
                                          " return cell(a, 'EXECUTE mine'); });"
                                          "told.indexOf('26000') >= 0")),
             qPrintable(script.text(QStringLiteral("told"))));
    QVERIFY2(script.isTrue(QStringLiteral("told = cell(b, 'PREPARE mine AS SELECT 1');"
                                          "told.indexOf('42P05') >= 0")),
             qPrintable(script.text(QStringLiteral("told"))));
    // A notification comes to whoever has the connection then.
    script.eval(QStringLiteral("var heard = 0; a.event.connect(function () { heard++; });"
                               "a.add_event('news'); var direct = connect('d', %1);"
                               "direct.query('NOTIFY news'); direct.query('NOTIFY news')")
                    .arg(literalOf(m_server.parameters())));
    QVERIFY(script.isTrue(QStringLiteral("cell(a, 'SELECT 1') === 1")));
    QCOMPARE(script.eval(QStringLiteral("heard")).toInt32(), 0);
}

void TestClusterRoutes::shardsAreReachedAndCommitOneByOne()
{
    if (!m_server.isRunning())
        QVERIFY2(m_server.start(), qPrintable(m_server.error()));
    const ConnectionParameters hub = m_server.parameters();
    DatabaseScript script;
    QVERIFY(script.open(QStringLiteral("db"), hub));
    if (script.isTrue(QStringLiteral("db.query(\"SELECT count(*) AS n FROM pg_available_extensions"
                                     " WHERE name = 'postgres_fdw'\").fields_index[0][0] == 0")))
        QSKIP("the extension postgres_fdw is not installed");
    // The user of the tests may make neither databases nor extensions: its superuser does.
    script.eval(QStringLiteral("function must(sql) { if (!db.query(sql)) throw new Error(sql + ': '"
                               " + db.lastError); }"));
    if (!script.isTrue(QStringLiteral("db.query('CREATE EXTENSION postgres_fdw')")))
        QSKIP("the user of the tests may not make extensions");
    for (int shard = 1; shard <= 2; ++shard) {
        script.eval(QStringLiteral("must('CREATE DATABASE shard%1');"
                                   "must(\"CREATE SERVER s%1 FOREIGN DATA WRAPPER postgres_fdw"
                                   " OPTIONS (host '%2', port '%3', dbname 'shard%1')\");"
                                   "must(\"CREATE USER MAPPING FOR %4 SERVER s%1"
                                   " OPTIONS (user '%4', password '%5')\");")
                        .arg(QString::number(shard), hub.hostName, QString::number(hub.port),
                             hub.userName, hub.password));
        ConnectionParameters own = hub;
        own.databaseName = QStringLiteral("shard%1").arg(shard);
        QVERIFY(script.open(QStringLiteral("own%1").arg(shard), own));
        // A key that is looked at with the commit.
        QVERIFY(script.isTrue(QStringLiteral("own%1.query('CREATE TABLE orders%1 (customer int,"
                                             " note text UNIQUE DEFERRABLE INITIALLY DEFERRED)')")
                                  .arg(shard)));
    }
    script.eval(QStringLiteral(
        "must('CREATE TABLE orders (customer int, note text) PARTITION BY LIST (customer)');"
        "must('CREATE FOREIGN TABLE orders1 PARTITION OF orders FOR VALUES IN (1) SERVER s1');"
        "must('CREATE FOREIGN TABLE orders2 PARTITION OF orders FOR VALUES IN (2) SERVER s2');"
        "must(\"INSERT INTO orders VALUES (1, 'a'), (2, 'b')\");"
        "function count(shard) { return Number((shard === 1 ? own1 : own2).query('SELECT count(*)"
        " AS n FROM orders' + shard).fields_index[0][0]); }"));
    QCOMPARE(script.text(QStringLiteral("count(1) + ' ' + count(2)")),
             script.text(QStringLiteral("'1 1'")));
    // The second shard refuses at its commit: the first one has committed by then.
    script.eval(QStringLiteral("must('BEGIN'); must(\"INSERT INTO orders VALUES (1, 'c')\");"
                               "must(\"INSERT INTO orders VALUES (2, 'b')\");"));
    QVERIFY(!script.isTrue(QStringLiteral("db.query('COMMIT')")));
    QCOMPARE(script.text(QStringLiteral("count(1) + ' ' + count(2)")),
             script.text(QStringLiteral("'2 1'")));
}

QTEST_GUILESS_MAIN(TestClusterRoutes)
#include "test_cluster_routes.moc"
