/// @file
/// The fixtures themselves: nothing that a test starts outlives it.

#include "cluster_ports.h"
#include "guarded_folder.h"
#include "local_databases.h"
#include "mariadb_server.h"
#include "postgres_server.h"
#include "server_process.h"

#include "deadline.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

bool isAlive(qint64 pid)
{
    // A zombie waits for its parent only.
    QFile status(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return false;
    const QByteArray line = status.readAll();
    return !line.mid(line.lastIndexOf(')')).startsWith(") Z");
}

/// This program with an argument that makes it start something and then end in some way.
const char ChildArgument[] = "--child";

/// Starts a sleeping program with a folder and tells both. @return exit code of the child
int runChild(const QByteArray &ending)
{
    auto *folder = new GuardedFolder(QStringLiteral("vext-self"));
    auto *process = new ServerProcess;
    process->setFolder(folder->path());
    if (!process->start(QStringLiteral("/bin/sleep"), {QStringLiteral("600")}))
        return 1;
    std::printf("%lld %s\n", process->pid(), qPrintable(folder->path()));
    std::fflush(stdout);
    if (ending == "crash")
        std::abort();
    if (ending == "kill")
        raise(SIGKILL);
    if (ending == "stop")
        delete process;
    return 0; // "leave" leaves everything behind
}

} // namespace

class TestServerFixtures : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void nothingOutlivesTheTest_data();
    void nothingOutlivesTheTest();
    void programEndsWhenItsGuardIsKilled();
    void programThatEndsByItselfLeavesItsFolder();
    void outputOfTheProgramIsKept();
    void missingProgramIsToldWithItsName();
    void postgresKeepsDataAndPortOverARestart();
    void mariaDbKeepsDataAndPortOverARestart();
    void wrongPasswordIsRefused();
    void portsOfTwoProgramsDiffer();
};

void TestServerFixtures::nothingOutlivesTheTest_data()
{
    QTest::addColumn<QString>("ending");
    for (const char *ending : {"leave", "stop", "crash", "kill"})
        QTest::newRow(ending) << QString::fromUtf8(ending);
}

void TestServerFixtures::nothingOutlivesTheTest()
{
    QFETCH(QString, ending);
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(),
                {QString::fromUtf8(ChildArgument), ending});
    QVERIFY(child.waitForFinished());
    const QList<QByteArray> told = child.readAllStandardOutput().simplified().split(' ');
    QCOMPARE(told.size(), 2);
    const qint64 pid = told.at(0).toLongLong();
    const QString folder = QString::fromUtf8(told.at(1));
    QVERIFY(pid > 0);
    QVERIFY2(waitUntil([&] { return !isAlive(pid) && !QFileInfo::exists(folder); }),
             qPrintable(QStringLiteral("process %1 or folder %2 is left").arg(pid).arg(folder)));
}

void TestServerFixtures::programEndsWhenItsGuardIsKilled()
{
    ServerProcess process;
    QVERIFY(process.start(QStringLiteral("/bin/sleep"), {QStringLiteral("600")}));
    const qint64 pid = process.pid();
    QFile status(QStringLiteral("/proc/%1/stat").arg(pid));
    QVERIFY(status.open(QIODevice::ReadOnly));
    const QByteArray line = status.readAll();
    const qint64 guard = line.mid(line.lastIndexOf(')') + 2).split(' ').value(1).toLongLong();
    QVERIFY(guard > 1);
    QCOMPARE(::kill(pid_t(guard), SIGKILL), 0);
    QVERIFY(waitUntil([&] { return !isAlive(pid); }));
}

void TestServerFixtures::programThatEndsByItselfLeavesItsFolder()
{
    QTemporaryDir folder;
    ServerProcess process;
    process.setFolder(folder.path());
    QVERIFY(process.start(QStringLiteral("/bin/true"), {}));
    QVERIFY(process.waitForEnd(defaultWaitMs));
    QVERIFY(QFileInfo::exists(folder.path()));
}

void TestServerFixtures::outputOfTheProgramIsKept()
{
    QTemporaryDir folder;
    ServerProcess process;
    process.setOutputFile(folder.filePath(QStringLiteral("log")));
    QVERIFY(process.start(QStringLiteral("/bin/echo"), {QStringLiteral("it is late")}));
    QVERIFY(process.waitForEnd(defaultWaitMs));
    QCOMPARE(process.output(), QStringLiteral("it is late\n"));
}

void TestServerFixtures::missingProgramIsToldWithItsName()
{
    ServerProcess process;
    process.start(QStringLiteral("/no/such/program"), {});
    QVERIFY(process.waitForEnd(defaultWaitMs));
    QVERIFY2(process.output().contains(QStringLiteral("/no/such/program")),
             qPrintable(process.output()));
}

namespace
{

/// Stores a row, restarts, and reads it through the same parameters.
void checkRestart(TestDatabase &database, const std::function<bool()> &restart)
{
    QString reason;
    if (!database.available(&reason))
        QSKIP(qPrintable(reason));
    QVERIFY2(database.start(), qPrintable(database.error()));
    {
        QSqlDatabase db = database.parameters().database(QStringLiteral("self"));
        QVERIFY2(db.open(), qPrintable(db.lastError().text()));
        QSqlQuery query(db);
        QVERIFY(query.exec(QStringLiteral("CREATE TABLE kept AS SELECT 7 AS id")));
    }
    QVERIFY2(restart(), qPrintable(database.error()));
    {
        QSqlDatabase db = QSqlDatabase::database(QStringLiteral("self"), false);
        db.close();
        QVERIFY2(db.open(), qPrintable(db.lastError().text()));
        QSqlQuery query(db);
        QVERIFY(query.exec(QStringLiteral("SELECT id FROM kept")) && query.next());
        QCOMPARE(query.value(0).toInt(), 7);
    }
    QSqlDatabase::removeDatabase(QStringLiteral("self"));
}

} // namespace

void TestServerFixtures::postgresKeepsDataAndPortOverARestart()
{
    PostgresServer server;
    checkRestart(server, [&] {
        return server.shutDown(PostgresServer::Shutdown::Fast) && server.startAgain() &&
               server.shutDown(PostgresServer::Shutdown::Kill) && server.startAgain();
    });
}

void TestServerFixtures::mariaDbKeepsDataAndPortOverARestart()
{
    MariaDbServer server;
    checkRestart(server, [&] { return server.kill() && server.startAgain(); });
}

/// Both would go on with the same port, and none listens on it yet.
void TestServerFixtures::portsOfTwoProgramsDiffer()
{
    QVERIFY(ClusterPorts::free() > 0);
    int told[2];
    int end[2];
    QVERIFY(::pipe(told) == 0 && ::pipe(end) == 0);
    const pid_t other = ::fork();
    if (other == 0) {
        const int port = ClusterPorts::free();
        char byte = 0;
        ::close(end[1]);
        const bool heard = ::write(told[1], &port, sizeof port) == ssize_t(sizeof port) &&
                           ::read(end[0], &byte, 1) == 0; // until the test ends it
        ::_exit(heard ? 0 : 1);
    }
    int theirs = 0;
    QVERIFY(other > 0 && ::read(told[0], &theirs, sizeof theirs) == ssize_t(sizeof theirs));
    const int ours = ClusterPorts::free();
    for (int fd : {told[0], told[1], end[0], end[1]})
        ::close(fd);
    ::waitpid(other, nullptr, 0);
    QVERIFY(theirs > 0);
    QVERIFY2(ours != theirs, qPrintable(QString::number(ours)));
}

void TestServerFixtures::wrongPasswordIsRefused()
{
    PostgresServer server;
    QString reason;
    if (!server.available(&reason))
        QSKIP(qPrintable(reason));
    QVERIFY2(server.start(), qPrintable(server.error()));
    ConnectionParameters wrong = server.parameters();
    wrong.password = QStringLiteral("guessed");
    {
        QSqlDatabase db = wrong.database(QStringLiteral("self"));
        QVERIFY(!db.open());
        QVERIFY(db.lastError().text().contains(QStringLiteral("password authentication failed")));
    }
    QSqlDatabase::removeDatabase(QStringLiteral("self"));
}

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    if (argc == 3 && std::strcmp(argv[1], ChildArgument) == 0)
        return runChild(argv[2]);
    TestServerFixtures test;
    return QTest::qExec(&test, argc, argv);
}
#include "test_server_fixtures.moc"
