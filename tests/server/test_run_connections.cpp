// vext-run with a real server: addresses, passwords, and connections that are lost.

#include "host_process.h"
#include "postgres_server.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

#define VERIFY_OUTCOME(condition, outcome) QVERIFY2(condition, (outcome).described().constData())

class TestRunConnections : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void passwordComesFromAPasswordFile();
    void passwordComesFromTheEnvironment();
    void bytesAreBoundAndReadBack_data();
    void bytesAreBoundAndReadBack();
    void aCommitThatWaitsForStandbysEndsWithTheSignal_data();
    void aCommitThatWaitsForStandbysEndsWithTheSignal();
    void aLostListenerEndsWithCode1();
    void aListenerThatWasReopenedIsFine();

private:
    /// The address of the server, without the password.
    QString address() const;
    HostOutcome runWith(const QString &variable, const QString &value);
    bool startListener(HostProcess *host, const QString &code);

    PostgresServer m_server;
};

void TestRunConnections::initTestCase()
{
    QString reason;
    if (!m_server.available(&reason))
        QSKIP(qPrintable(reason));
    QVERIFY(m_server.start());
}

void TestRunConnections::init()
{
    if (!m_server.isRunning())
        QVERIFY(m_server.startAgain());
}

QString TestRunConnections::address() const
{
    const ConnectionParameters server = m_server.parameters();
    return QStringLiteral("postgresql://%1@%2:%3/%4")
        .arg(server.userName, server.hostName, QString::number(server.port), server.databaseName);
}

HostOutcome TestRunConnections::runWith(const QString &variable, const QString &value)
{
    HostProcess host;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(variable, value);
    host.process().setProcessEnvironment(environment);
    host.start({QStringLiteral("--open"), address(), QStringLiteral("--csv"), QStringLiteral("-p"),
                QStringLiteral("db.query('select 7 as n')")});
    return host.finish();
}

void TestRunConnections::passwordComesFromAPasswordFile()
{
    const QTemporaryDir folder;
    QFile file(folder.filePath(QStringLiteral("pgpass")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("*:*:*:*:" + m_server.parameters().password.toUtf8() + "\n");
    file.close();
    QVERIFY(file.setPermissions(QFile::ReadOwner | QFile::WriteOwner));
    const HostOutcome outcome = runWith(QStringLiteral("PGPASSFILE"), file.fileName());
    VERIFY_OUTCOME(outcome.output == QLatin1String("N\r\n7\r\n"), outcome);
}

void TestRunConnections::passwordComesFromTheEnvironment()
{
    for (const char *name : {"PGPASSWORD", "VEXT_PASSWORD"}) {
        const HostOutcome outcome = runWith(QLatin1String(name), m_server.parameters().password);
        VERIFY_OUTCOME(outcome.output == QLatin1String("N\r\n7\r\n"), outcome);
    }
    const HostOutcome refused =
        runWith(QStringLiteral("VEXT_PASSWORD"), QStringLiteral("not-the-password"));
    VERIFY_OUTCOME(refused.exitCode == 2, refused);
    VERIFY_OUTCOME(!refused.errors.contains(QLatin1String("not-the-password")), refused);
}

void TestRunConnections::bytesAreBoundAndReadBack_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("insert");
    const QStringList stock{QStringLiteral("--stock-drivers")};
    const QString head = QStringLiteral("INSERT INTO blobs VALUES");
    QTest::newRow("placeholders") << QStringList() << head + QStringLiteral(" (?, ?)");
    QTest::newRow("head") << QStringList() << head;
    QTest::newRow("head, Qt's own driver") << stock << head;
}

void TestRunConnections::bytesAreBoundAndReadBack()
{
    QFETCH(QStringList, options);
    QFETCH(QString, insert);
    const QString script =
        QStringLiteral("var db = new VEXT_SQL('bytes');\n") +
        m_server.parameters().script(QStringLiteral("db")) +
        QStringLiteral(
            "\nif (!db.open()) throw db.lastError;\n"
            "db.query('DROP TABLE IF EXISTS blobs');\n"
            "db.query('CREATE TABLE blobs (id INTEGER, b BYTEA)');\n"
            "var v = bytes('00ff27005c80', 'hex');\n"
            "print(!!db.exec('%1', [1, v]));\n"
            "db.exec_thread(function (result, error) {\n"
            "  print(error || !!result);\n"
            "  var r = db.query(\"SELECT b, encode(b, 'hex') FROM blobs ORDER BY id\");\n"
            "  print(r.fields_index[0][0].toHex(), r.fields_index[0][1].toHex());\n"
            "  print(r.fields_index[1]);\n"
            "}, '%1', [2, v.slice(1)]);")
            .arg(insert);
    const HostOutcome outcome = runHost(options + QStringList{QStringLiteral("-e"), script});
    QCOMPARE(outcome.output, QStringLiteral("true\ntrue\n00ff27005c80 ff27005c80\n"
                                            "[ '00ff27005c80', 'ff27005c80' ]\n"));
    VERIFY_OUTCOME(outcome.exitCode == 0, outcome);
}

void TestRunConnections::aCommitThatWaitsForStandbysEndsWithTheSignal_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::newRow("which the layer cancels") << QStringList();
    QTest::newRow("which nobody cancels") << QStringList{QStringLiteral("--stock-drivers")};
}

/// A primary with synchronous names and no standby answers no commit.
void TestRunConnections::aCommitThatWaitsForStandbysEndsWithTheSignal()
{
    QFETCH(QStringList, options);
    const QString open = QStringLiteral("var db = new VEXT_SQL('sync');\n") +
                         m_server.parameters().script(QStringLiteral("db")) +
                         QStringLiteral("\nif (!db.open()) throw db.lastError;\n");
    const auto set = [&open](const char *value) {
        return runCode(open + QStringLiteral("db.query(\"ALTER SYSTEM SET synchronous_standby_names"
                                             " = '%1'\"); db.query('SELECT pg_reload_conf()');")
                                  .arg(QLatin1String(value)));
    };
    QCOMPARE(set("nobody").exitCode, 0);
    HostProcess host;
    QVERIFY(host.start(
        options +
        QStringList{QStringLiteral("-e"),
                    open + QStringLiteral(
                               "db.query('SELECT pg_sleep(1)'); db.query('SET synchronous_commit = "
                               "on');\n" // the checkpointer tells all
                               "print('on'); db.transaction();\n"
                               "db.query('CREATE TABLE IF NOT EXISTS waits (a int)');"
                               "db.commit(); for (;;);")}));
    QVERIFY(host.waitForOutput(QStringLiteral("on\n")));
    QVERIFY(host.staysAlive(500));
    QVERIFY(host.send(SIGTERM));
    QElapsedTimer clock;
    clock.start();
    const HostOutcome outcome = host.finish();
    const qint64 elapsed = clock.elapsed();
    QCOMPARE(set("").exitCode, 0);
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 128 + SIGTERM, outcome);
    // Two seconds; a loaded machine gives the process its share of time late.
    QVERIFY2(elapsed <
                 10000 * qEnvironmentVariable("VEXT_TEST_TIME_FACTOR", QStringLiteral("1")).toInt(),
             qPrintable(QString::number(elapsed)));
}

bool TestRunConnections::startListener(HostProcess *host, const QString &code)
{
    const QString script = QStringLiteral("var db = new VEXT_SQL('news');\n") +
                           m_server.parameters().script(QStringLiteral("db")) +
                           QStringLiteral("\nif (!db.open()) throw db.lastError;\n"
                                          "db.add_event('news'); print('listening');\n") +
                           code;
    return host->start({QStringLiteral("-e"), script}) &&
           host->waitForOutput(QStringLiteral("listening\n"));
}

void TestRunConnections::aLostListenerEndsWithCode1()
{
    HostProcess host;
    QVERIFY(startListener(&host, QString()));
    QVERIFY(host.staysAlive(200));
    QVERIFY(m_server.shutDown(PostgresServer::Shutdown::Immediate));
    const HostOutcome outcome = host.finish();
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 1, outcome);
    VERIFY_OUTCOME(outcome.errors.contains(QLatin1String(" error [news] connection lost: ")),
                   outcome);
}

void TestRunConnections::aListenerThatWasReopenedIsFine()
{
    HostProcess host;
    QVERIFY(startListener(
        &host, QStringLiteral("setInterval(function () { if (db.isOpen) return;\n"
                              "  db.close(); if (db.open()) { print('again');"
                              " db.rem_event('news'); db.close(); quit(0); } }, 100);")));
    QVERIFY(m_server.shutDown(PostgresServer::Shutdown::Immediate));
    QVERIFY(m_server.startAgain());
    QVERIFY2(host.waitForOutput(QStringLiteral("again\n")), host.finish().described().constData());
    const HostOutcome outcome = host.finish();
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 0, outcome);
}

QTEST_GUILESS_MAIN(TestRunConnections)
#include "test_run_connections.moc"
