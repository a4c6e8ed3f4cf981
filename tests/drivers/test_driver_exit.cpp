/// @file
/// A process may end by exit() while a thread of it still runs statements through the layer.
///
/// What has to end does so in a child: this program with "--child" and how to reach a database.

#include "deadline.h"
#include "layer_path.h"
#include "layered_systems.h"

#include <QCoreApplication>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QtTest>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace
{

const char Argument[] = "--child";
/// What the thread gets done before the end begins, and after it.
constexpr int Rounds = 20;
constexpr int Patience = 30000;
constexpr int Stuck = 3;
constexpr int NotOpen = 4;

// --- The child ---

std::atomic<int> s_rounds{0};

/// Statements of every kind that the layer tells apart, one round after the other.
void runForEver(const ConnectionParameters &parameters, const QString &one)
{
    QSqlDatabase db = parameters.database(QStringLiteral("child"));
    if (!db.open()) {
        std::fprintf(stderr, "%s\n", qPrintable(db.lastError().text()));
        ::_exit(NotOpen);
    }
    const QString where = one.contains(QLatin1String(" FROM "))
                              ? one + QStringLiteral(" WHERE 1 = ?")
                              : one + QStringLiteral(" WHERE '2024-01-02' = ?");
    const QStringList texts{one,
                            where,
                            QStringLiteral("UPDATE no_such_table SET a = ?"),
                            QStringLiteral("SET NAMES 'no such names'"),
                            QStringLiteral("COMMENT no comment"),
                            QStringLiteral("ROLLBACK TO x")};
    for (;; ++s_rounds) {
        for (const QString &text : texts) {
            QSqlQuery query(db);
            query.setForwardOnly(true);
            if (text.contains(QLatin1Char('?'))) {
                query.prepare(text);
                query.addBindValue(text.contains(QLatin1String("2024"))
                                       ? QVariant(QStringLiteral("2024-01-02"))
                                       : QVariant(1));
                query.exec();
            } else {
                query.exec(text);
            }
            while (query.next())
                query.value(0);
        }
    }
}

bool reached(int rounds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(Patience);
    while (s_rounds < rounds && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return s_rounds >= rounds;
}

/// By now all is gone that was made while statements ran, and the thread still runs some.
void endLate()
{
    ::_exit(reached(s_rounds + Rounds) ? 0 : Stuck);
}

int runChild(const QStringList &arguments)
{
    useDriverLayer();
    ConnectionParameters parameters;
    parameters.driverName = arguments.value(2);
    parameters.databaseName = arguments.value(3);
    parameters.userName = arguments.value(4);
    parameters.password = arguments.value(5);
    parameters.hostName = arguments.value(6);
    parameters.port = arguments.value(7).toInt();
    parameters.connectOptions = arguments.value(8);
    // What Qt Sql itself needs for a statement is to outlive the thread.
    QSqlDatabase::connectionNames();
    QSqlQuery();
    std::atexit(endLate);
    std::thread(runForEver, parameters, arguments.value(9)).detach();
    if (!reached(Rounds))
        return Stuck;
    std::exit(0);
}

} // namespace

class TestDriverExit : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { useDriverLayer(); }
    void statementsGoOnWhileTheProcessEnds_data();
    void statementsGoOnWhileTheProcessEnds();

private:
    LayeredSystems m_systems;
};

void TestDriverExit::statementsGoOnWhileTheProcessEnds_data()
{
    QTest::addColumn<QString>("system");
    const QStringList systems = LayeredSystems::names();
    for (const QString &system : systems)
        QTest::newRow(qPrintable(system)) << system;
}

void TestDriverExit::statementsGoOnWhileTheProcessEnds()
{
    QFETCH(QString, system);
    if (system == QLatin1String("Firebird"))
        QSKIP("its client library destroys itself in exit(), and crashes in any call after that");
    USE_SYSTEM(m_systems, system);
    const ConnectionParameters parameters = m_systems.get(system).parameters();
    QProcess child;
    child.setProcessChannelMode(QProcess::MergedChannels);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    // What is freed must not look as if it were still there.
    environment.insert(QStringLiteral("MALLOC_PERTURB_"), QStringLiteral("165"));
    child.setProcessEnvironment(environment);
    child.start(QCoreApplication::applicationFilePath(),
                {QString::fromLatin1(Argument), parameters.driverName, parameters.databaseName,
                 parameters.userName, parameters.password, parameters.hostName,
                 QString::number(parameters.port), parameters.connectOptions,
                 LayeredSystems::selectWithoutTable(system, QStringLiteral("1"))});
    QVERIFY(child.waitForFinished(scaledMs(3 * Patience)));
    const QByteArray output = child.readAll();
    QVERIFY2(child.exitStatus() == QProcess::NormalExit,
             output.isEmpty() ? "the child crashed" : output.constData());
    QVERIFY2(child.exitCode() == 0, QByteArray::number(child.exitCode()) + '\n' + output);
}

int main(int argc, char **argv)
{
    // Never destroyed: the child ends while its thread is at work.
    auto *application = new QCoreApplication(argc, argv);
    if (argc > 1 && qstrcmp(argv[1], Argument) == 0)
        return runChild(application->arguments());
    TestDriverExit test;
    return QTest::qExec(&test, argc, argv);
}

#include "test_driver_exit.moc"
