/// @file
/// The examples that need a server, run as a user runs them.

#include "local_databases.h"
#include "mariadb_server.h"
#include "postgres_server.h"

#include "deadline.h"
#include "driver_layer.h"

#include <QFile>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

namespace
{

constexpr int ExampleTimeoutMs = 60000;

/// The arguments that set a connection's parameters.
QStringList connectionArguments(const ConnectionParameters &parameters, const QString &prefix = {})
{
    const QString pattern = prefix + QStringLiteral("%1=%2");
    QStringList result{pattern.arg(QStringLiteral("databaseName"), parameters.databaseName),
                       pattern.arg(QStringLiteral("userName"), parameters.userName),
                       pattern.arg(QStringLiteral("password"), parameters.password),
                       pattern.arg(QStringLiteral("hostName"), parameters.hostName)};
    if (parameters.port > 0)
        result << pattern.arg(QStringLiteral("port")).arg(parameters.port);
    if (!parameters.connectOptions.isEmpty())
        result << pattern.arg(QStringLiteral("connectOptions"), parameters.connectOptions);
    return result;
}

/// What the reference host is told besides the script.
QStringList hostArguments()
{
    QStringList arguments{QStringLiteral("--plugin"), QString::fromUtf8(VEXT_PLUGIN_FILE)};
    // It uses the layer by itself.
    if (!driverLayerInUse())
        arguments << QStringLiteral("--stock-drivers");
    return arguments;
}

/// One example in the reference host.
class Example
{
public:
    Example(const QString &script, const QStringList &arguments)
    {
        const QString file =
            QStringLiteral("%1/examples/%2").arg(QString::fromUtf8(VEXT_SOURCE_DIR), script);
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start(QString::fromUtf8(VEXT_RUN_FILE),
                        hostArguments() + QStringList{file} + arguments);
    }
    ~Example()
    {
        m_process.kill();
        m_process.waitForFinished();
    }

    /// @return whether it ended by itself; then exitCode() and output() are its own
    bool finish(int ms = ExampleTimeoutMs)
    {
        const bool done = m_process.waitForFinished(scaledMs(ms)) &&
                          m_process.exitStatus() == QProcess::NormalExit;
        read();
        return done;
    }
    int exitCode() const { return m_process.exitCode(); }
    QString output() const { return m_output; }
    QByteArray told() const { return m_output.toUtf8(); }

    bool waitForOutput(const QString &text)
    {
        const Deadline deadline(ExampleTimeoutMs);
        while (!m_output.contains(text) && !deadline.expired()) {
            if (m_process.state() == QProcess::NotRunning)
                break;
            m_process.waitForReadyRead(100);
            read();
        }
        return m_output.contains(text);
    }
    void forget() { m_output.clear(); }

private:
    void read() { m_output += QString::fromUtf8(m_process.readAll()); }

    QProcess m_process;
    QString m_output;
};

} // namespace

class TestExamples : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void jobQueueDoesEveryJobOnce();
    void listenerHearsAgainAfterARestart();
    void importCommitsEveryRow();
    void brokenImportLeavesTheOldRows();
    void importNamesTheLineWithBrokenQuotes();
    void importNamesAMissingFile();
    void importWithAMissingDriverEndsWithCode1();
    void reportJoinsThreeDrivers();
    void quotedValuesAreKept_data();
    void quotedValuesAreKept();

private:
    /// The first value of a statement, outside the example.
    QVariant value(const QString &sql);
    bool notify(const QString &payload);

    PostgresServer m_postgres;
    MariaDbServer m_mariadb;
    QString m_postgresReason;
    QString m_mariadbReason;
    FirebirdDatabase m_firebird;
    QString m_firebirdReason;
};

#define NEEDS(reason)                                                                              \
    do {                                                                                           \
        if (!(reason).isEmpty())                                                                   \
            QSKIP(qPrintable(reason));                                                             \
    } while (false)

void TestExamples::initTestCase()
{
    if (m_postgres.available(&m_postgresReason))
        QVERIFY2(m_postgres.start(), qPrintable(m_postgres.error()));
    if (m_mariadb.available(&m_mariadbReason))
        QVERIFY2(m_mariadb.start(), qPrintable(m_mariadb.error()));
    if (m_firebird.available(&m_firebirdReason))
        QVERIFY2(m_firebird.start(), qPrintable(m_firebird.error()));
}

void TestExamples::cleanup()
{
    if (m_postgresReason.isEmpty() && !m_postgres.isRunning())
        QVERIFY2(m_postgres.startAgain(), qPrintable(m_postgres.error()));
}

QVariant TestExamples::value(const QString &sql)
{
    QVariant result;
    {
        QSqlDatabase db = m_postgres.parameters().database(QStringLiteral("outside"));
        if (db.open()) {
            QSqlQuery query(db);
            if (query.exec(sql) && query.next())
                result = query.value(0);
            else
                qWarning("%s", qPrintable(query.lastError().text()));
        }
    }
    QSqlDatabase::removeDatabase(QStringLiteral("outside"));
    return result;
}

bool TestExamples::notify(const QString &payload)
{
    return value(QStringLiteral("SELECT pg_notify('news', '%1')").arg(payload)).isValid();
}

void TestExamples::jobQueueDoesEveryJobOnce()
{
    NEEDS(m_postgresReason);
    Example example(QStringLiteral("job_queue.js"), connectionArguments(m_postgres.parameters())
                                                        << QStringLiteral("jobs=40")
                                                        << QStringLiteral("workers=3"));
    QVERIFY2(example.finish(), example.told());
    QVERIFY2(example.exitCode() == 0, example.told());
    QVERIFY2(example.output().contains(QStringLiteral("jobs done: 40")), example.told());
    QCOMPARE(
        value(QStringLiteral("SELECT count(*) FROM jobs WHERE outcome = reverse(task)")).toInt(),
        40);
}

void TestExamples::listenerHearsAgainAfterARestart()
{
    NEEDS(m_postgresReason);
    Example example(QStringLiteral("listen_reconnect.js"),
                    connectionArguments(m_postgres.parameters())
                        << QStringLiteral("channel=news") << QStringLiteral("every=50"));
    QVERIFY2(example.waitForOutput(QStringLiteral("looked for what was missed")), example.told());
    QVERIFY(notify(QStringLiteral("before")));
    QVERIFY2(example.waitForOutput(QStringLiteral("heard on news: before")), example.told());

    for (const auto how : {PostgresServer::Shutdown::Immediate, PostgresServer::Shutdown::Kill}) {
        example.forget();
        QVERIFY(m_postgres.shutDown(how));
        QVERIFY2(example.waitForOutput(QStringLiteral("connection lost")), example.told());
        QVERIFY2(m_postgres.startAgain(), qPrintable(m_postgres.error()));
        QVERIFY2(example.waitForOutput(QStringLiteral("looked for what was missed")),
                 example.told());
        QVERIFY2(example.output().contains(QStringLiteral("listening again")), example.told());
        QVERIFY(notify(QStringLiteral("after")));
        QVERIFY2(example.waitForOutput(QStringLiteral("heard on news: after")), example.told());
    }
    QVERIFY(notify(QStringLiteral("stop")));
    QVERIFY2(example.finish(), example.told());
    QVERIFY2(example.exitCode() == 0, example.told());
}

void TestExamples::importCommitsEveryRow()
{
    NEEDS(m_postgresReason);
    Example example(QStringLiteral("csv_import.js"), connectionArguments(m_postgres.parameters())
                                                         << QStringLiteral("rows=1001"));
    QVERIFY2(example.finish(), example.told());
    QVERIFY2(example.exitCode() == 0, example.told());
    QVERIFY2(example.output().contains(QStringLiteral("committed: 1001 prices, 100 without")),
             example.told());
    QCOMPARE(
        value(QStringLiteral("SELECT name || price FROM prices WHERE article = 1001")).toString(),
        QStringLiteral("Bolt \"M1001\", zinc10.01"));
}

void TestExamples::brokenImportLeavesTheOldRows()
{
    NEEDS(m_postgresReason);
    const QStringList arguments = connectionArguments(m_postgres.parameters());
    Example good(QStringLiteral("csv_import.js"),
                 arguments + QStringList{QStringLiteral("rows=7")});
    QVERIFY2(good.finish(), good.told());
    QCOMPARE(good.exitCode(), 0);

    Example broken(QStringLiteral("csv_import.js"),
                   arguments +
                       QStringList{QStringLiteral("rows=600"), QStringLiteral("broken=301")});
    QVERIFY2(broken.finish(), broken.told());
    QCOMPARE(broken.exitCode(), 1);
    QVERIFY2(broken.output().contains(QStringLiteral("nothing imported, line 302: ")),
             broken.told());
    QCOMPARE(value(QStringLiteral("SELECT count(*) FROM prices")).toInt(), 7);
}

/// Needs no server: the file is read first.
void TestExamples::importNamesTheLineWithBrokenQuotes()
{
    const QTemporaryDir folder;
    const QString name = folder.filePath(QStringLiteral("prices.csv"));
    QFile file(name);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("article,name,price\n1,\"Bolt, zinc\",0.10\n2,\"Bolt,0.20\n");
    file.close();
    Example import(QStringLiteral("csv_import.js"), {QStringLiteral("file=") + name});
    QVERIFY2(import.finish(), import.told().constData());
    QVERIFY2(import.exitCode() == 1, import.told().constData());
    QVERIFY2(
        import.output().contains(QStringLiteral("nothing imported, %1:3: broken quotes").arg(name)),
        import.told().constData());
}

/// Needs no server: a file that is not there is told with its name.
void TestExamples::importNamesAMissingFile()
{
    Example import(QStringLiteral("csv_import.js"), {QStringLiteral("file=/no/such.csv")});
    QVERIFY2(import.finish(), import.told().constData());
    QVERIFY2(import.exitCode() == 1, import.told().constData());
    QVERIFY2(import.output().contains(QStringLiteral("'/no/such.csv': No such file or directory")),
             import.told().constData());
}

/// Needs no server.
void TestExamples::importWithAMissingDriverEndsWithCode1()
{
    Example import(QStringLiteral("csv_import.js"), {QStringLiteral("driverName=QPSQLX")});
    QVERIFY2(import.finish(), import.told().constData());
    QVERIFY2(import.exitCode() == 1, import.told().constData());
    QVERIFY2(import.output().contains(QStringLiteral("cannot open the database")),
             import.told().constData());
}

void TestExamples::reportJoinsThreeDrivers()
{
    NEEDS(m_postgresReason);
    NEEDS(m_mariadbReason);
    Example example(QStringLiteral("three_drivers_report.js"),
                    connectionArguments(m_postgres.parameters(), QStringLiteral("pg.")) +
                        connectionArguments(m_mariadb.parameters(), QStringLiteral("my.")));
    QVERIFY2(example.finish(), example.told());
    QVERIFY2(example.exitCode() == 0, example.told());
    for (const char *line :
         {"part    ordered   in stock  note", "bolt    15.5      12        -",
          "nut     7         100       -", "washer  -         3         stainless only"})
        QVERIFY2(example.output().contains(QString::fromUtf8(line)), example.told());
}

void TestExamples::quotedValuesAreKept_data()
{
    QTest::addColumn<QString>("driver");
    QTest::newRow("SQLite") << QStringLiteral("QSQLITE");
    QTest::newRow("MariaDB") << QStringLiteral("QMYSQL");
    QTest::newRow("PostgreSQL") << QStringLiteral("QPSQL");
    QTest::newRow("Firebird") << QStringLiteral("QIBASE");
}

void TestExamples::quotedValuesAreKept()
{
    QFETCH(QString, driver);
    QStringList arguments{QStringLiteral("driverName=") + driver};
    if (driver == QLatin1String("QMYSQL")) {
        NEEDS(m_mariadbReason);
        arguments += connectionArguments(m_mariadb.parameters());
    } else if (driver == QLatin1String("QPSQL")) {
        NEEDS(m_postgresReason);
        arguments += connectionArguments(m_postgres.parameters());
    } else if (driver == QLatin1String("QIBASE")) {
        NEEDS(m_firebirdReason);
        arguments += connectionArguments(m_firebird.parameters());
    }
    Example example(QStringLiteral("quoted_values.js"), arguments);
    QVERIFY2(example.finish(), example.told());
    if (!driverLayerInUse()) {
        QVERIFY2(example.exitCode() == 1, example.told());
        QVERIFY2(example.output().contains(QStringLiteral("without --stock-drivers")),
                 example.told());
        return;
    }
    QVERIFY2(example.exitCode() == 0, example.told());
    for (const char *line :
         {"9 of 9 texts kept and found", "placeholders for 2, but 1 were given", "rows: 9",
          "from the worker: it's"})
        QVERIFY2(example.output().contains(QString::fromUtf8(line)), example.told());
}

QTEST_GUILESS_MAIN(TestExamples)
#include "test_examples.moc"
