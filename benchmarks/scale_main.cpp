/// @file
/// Prints what one process takes with 1 to 200 connections: tasks a second, processor time a task
/// of our side and of the servers apart, memory a connection. On one PostgreSQL server, on
/// PostgreSQL with two standbys, and on Galera.
///
///     vext-scale [--seconds N] [--most N]
///     vext-scale --failover N
///
/// The second prints what a cluster keeps and how long it pauses when its node is killed, N times.
/// Ends with 1 when a measurement failed.

#include "galera_cluster.h"
#include "postgres_cluster.h"
#include "scale_failover.h"
#include "scale_run.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QTextStream>
#include <QVector>

#include <unistd.h>

namespace
{

constexpr int Sizes[] = {1, 2, 5, 10, 20, 50, 100, 200};
constexpr int FewConnections = 50;

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

/// The numbers of a process's line in /proc, from its state on.
QList<QByteArray> statOf(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray line = file.readAll();
    return line.mid(line.lastIndexOf(')') + 2).split(' ');
}

/// Processor time of a process and of its children that have ended, ms.
double cpuMs(qint64 pid)
{
    const QList<QByteArray> stat = statOf(pid);
    double ticks = 0;
    for (int i = 11; i < 15; ++i)
        ticks += stat.value(i).toDouble();
    return ticks * 1000 / double(sysconf(_SC_CLK_TCK));
}

double memoryMb(qint64 pid)
{
    return statOf(pid).value(21).toDouble() * double(sysconf(_SC_PAGESIZE)) / 1048576;
}

/// The servers and the processes that they have started. A server's own list of its children is cut
/// short when it has many.
QVector<qint64> withChildren(const QVector<qint64> &servers)
{
    QVector<qint64> all = servers;
    const QStringList entries =
        QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        const qint64 pid = entry.toLongLong();
        if (pid > 0 && servers.contains(statOf(pid).value(1).toLongLong()))
            all << pid;
    }
    return all;
}

double cpuMs(const QVector<qint64> &servers)
{
    double sum = 0;
    const QVector<qint64> all = withChildren(servers);
    for (qint64 pid : all)
        sum += cpuMs(pid);
    return sum;
}

template <typename Cluster>
QVector<qint64> processesOf(const Cluster &cluster)
{
    QVector<qint64> result;
    for (int i = 0; i < cluster.count(); ++i)
        result << cluster.pid(i);
    return result;
}

/// Measures all sizes on one system and prints a line each. @return whether all went well
bool measure(const QString &name, const QJsonObject &settings, const QVector<qint64> &servers,
             int seconds, int most)
{
    double alone = 0;
    for (int connections : Sizes) {
        if (connections > most)
            break;
        ScaleRun run(
            QStringLiteral("scale.js"),
            {ScaleRun::text(settings), QString::number(connections), QString::number(seconds)});
        if (run.line() != "begin") {
            out() << name << ' ' << connections << " failed: " << run.errors() << Qt::endl;
            return false;
        }
        const double ours = cpuMs(run.pid());
        const double theirs = cpuMs(servers);
        const QByteArray end = run.line();
        const double tasks = end.mid(4).toDouble();
        if (!end.startsWith("end ") || tasks <= 0) {
            out() << name << ' ' << connections << " failed: " << end << run.errors() << Qt::endl;
            return false;
        }
        const double memory = memoryMb(run.pid());
        if (connections == 1)
            alone = memory;
        // What the script's own objects take differs by more than a few connections do.
        const bool few = connections < FewConnections;
        out() << qSetFieldWidth(24) << Qt::left << name << qSetFieldWidth(12) << Qt::right
              << connections << qRound(tasks / seconds)
              << QString::number((cpuMs(run.pid()) - ours) * 1000 / tasks, 'f', 1)
              << QString::number((cpuMs(servers) - theirs) * 1000 / tasks, 'f', 1)
              << (few ? QStringLiteral("-")
                      : QString::number((memory - alone) / (connections - 1), 'f', 2))
              << qSetFieldWidth(0) << Qt::endl;
    }
    return true;
}

template <typename Cluster>
bool failed(Cluster &cluster)
{
    out() << cluster.error() << Qt::endl;
    return false;
}

bool onPostgres(int seconds, int most)
{
    QString reason;
    if (!PostgresCluster::available(&reason)) {
        out() << reason << Qt::endl;
        return true;
    }
    PostgresCluster cluster;
    cluster.setMostConnections(2 * most + 60);
    if (!cluster.start(PostgresCluster::Commit::AnyOne))
        return failed(cluster);
    return measure(QStringLiteral("PostgreSQL"), settingsOf(cluster.parameters(0)),
                   {cluster.pid(0)}, seconds, most) &&
           measure(QStringLiteral("PostgreSQL cluster"),
                   clusterSettings(cluster, QStringLiteral("postgresql")), processesOf(cluster),
                   seconds, most);
}

bool onGalera(int seconds, int most)
{
    QString reason;
    if (!GaleraCluster::available(&reason)) {
        out() << reason << Qt::endl;
        return true;
    }
    GaleraCluster cluster;
    cluster.setMostConnections(2 * most + 60);
    if (!cluster.start())
        return failed(cluster);
    return measure(QStringLiteral("Galera"), clusterSettings(cluster, QStringLiteral("galera")),
                   processesOf(cluster), seconds, most);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOption({QStringLiteral("seconds"), QStringLiteral("how long each size is measured"),
                      QStringLiteral("N"), QStringLiteral("5")});
    parser.addOption({QStringLiteral("most"), QStringLiteral("connections at most"),
                      QStringLiteral("N"), QStringLiteral("200")});
    parser.addOption({QStringLiteral("failover"), QStringLiteral("instead: kill nodes, so often"),
                      QStringLiteral("N")});
    parser.process(application);
    if (parser.isSet(QStringLiteral("failover")))
        return ScaleFailover::measure(qMax(1, parser.value(QStringLiteral("failover")).toInt()))
                   ? 0
                   : 1;
    const int seconds = qMax(1, parser.value(QStringLiteral("seconds")).toInt());
    const int most = qMax(1, parser.value(QStringLiteral("most")).toInt());
    out() << qSetFieldWidth(24) << Qt::left << "system" << qSetFieldWidth(12) << Qt::right
          << "connections"
          << "tasks/s"
          << "our us"
          << "server us"
          << "MB each" << qSetFieldWidth(0) << Qt::endl;
    const bool postgres = onPostgres(seconds, most);
    const bool galera = onGalera(seconds, most);
    return postgres && galera ? 0 : 1;
}
