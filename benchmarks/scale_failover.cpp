#include "scale_failover.h"

#include "galera_cluster.h"
#include "postgres_cluster.h"
#include "scale_run.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QTextStream>
#include <QThread>

#include <csignal>
#include <functional>

namespace
{

constexpr int HeldBackMs = 300; ///< how long the standbys get nothing before the kill

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

bool failed(const QString &name, const QString &reason)
{
    out() << name << " failed: " << reason << Qt::endl;
    return false;
}

/// Runs the script; `kill` gets the node in use as it is named, and tells how many milliseconds the
/// next one took. @return what the script tells at its end, empty after a failure that is printed
QJsonObject run(const QString &name, const QJsonObject &settings, const QString &mode,
                const std::function<qint64(const QString &)> &kill = {})
{
    ScaleRun script(QStringLiteral("failover.js"),
                    {QStringLiteral(VEXT_SOURCE_DIR "/tests/library/transfers.js"),
                     ScaleRun::text(settings), mode});
    qint64 promoted = -1;
    QByteArray line = script.line();
    if (line.startsWith("begin ")) {
        promoted = kill(QString::fromUtf8(line.mid(6)));
        line = script.line();
    }
    if (!line.startsWith("end ")) {
        failed(name, QString::fromUtf8(line + script.errors()));
        return {};
    }
    QJsonObject outcome = QJsonDocument::fromJson(line.mid(4)).object();
    outcome.insert(QStringLiteral("promoted"), promoted);
    return outcome;
}

int number(const QJsonObject &outcome, const char *name)
{
    return outcome.value(QLatin1String(name)).toInt();
}

void printKill(const QString &name, const QJsonObject &outcome)
{
    const int promoted = number(outcome, "promoted");
    out() << name << ": " << number(outcome, "acked") << " acknowledged, "
          << number(outcome, "lost") << " lost, " << number(outcome, "wrong") << " wrong, "
          << number(outcome, "again") << " tried again, " << number(outcome, "committed")
          << " of them had committed, longest " << number(outcome, "pause") << " ms";
    if (promoted >= 0)
        out() << ", promotion " << promoted << " ms";
    out() << Qt::endl;
}

bool killPostgres(const QString &name, PostgresCluster::Commit commit, bool holdBack)
{
    PostgresCluster cluster;
    if (!cluster.start(commit))
        return failed(name, cluster.error());
    const auto kill = [&](const QString &) -> qint64 {
        if (holdBack) {
            cluster.holdBackStandbys();
            QThread::msleep(HeldBackMs);
        }
        QElapsedTimer timer;
        cluster.stopNode(cluster.primary(), SIGKILL);
        timer.start();
        return cluster.promote() < 0 ? -1 : timer.elapsed();
    };
    const QJsonObject outcome = run(name, clusterSettings(cluster, QStringLiteral("postgresql")),
                                    QStringLiteral("kill"), kill);
    if (!outcome.isEmpty())
        printKill(name, outcome);
    return !outcome.isEmpty();
}

bool killGalera(int rounds, int suspectSeconds)
{
    const QString name = QStringLiteral("Galera, evs.suspect_timeout PT%1S").arg(suspectSeconds);
    GaleraCluster cluster;
    cluster.setSuspectTimeout(suspectSeconds);
    if (!cluster.start())
        return failed(name, cluster.error());
    for (int round = 0; round < rounds; ++round) {
        int killed = -1;
        const auto kill = [&](const QString &node) -> qint64 {
            for (int i = 0; i < cluster.count(); ++i) {
                if (node.endsWith(QStringLiteral(":%1").arg(cluster.port(i))))
                    killed = i;
            }
            cluster.send(killed, SIGKILL);
            return -1;
        };
        const QJsonObject outcome = run(name, clusterSettings(cluster, QStringLiteral("galera")),
                                        QStringLiteral("kill"), kill);
        if (outcome.isEmpty())
            return false;
        printKill(name, outcome);
        if (!cluster.waitForEnd(killed) || !cluster.startAgain(killed))
            return failed(name, cluster.error());
    }
    return true;
}

bool readBehindWrites(const QString &name, const QJsonObject &settings)
{
    const QJsonObject outcome = run(name, settings, QStringLiteral("reads"));
    if (outcome.isEmpty())
        return false;
    out() << name << ": " << number(outcome, "reads") << " reads, " << number(outcome, "stale")
          << " stale, " << number(outcome, "us") << " us each" << Qt::endl;
    return true;
}

bool readPostgres(const QString &name, PostgresCluster::Commit commit)
{
    PostgresCluster cluster;
    return cluster.start(commit)
               ? readBehindWrites(name, clusterSettings(cluster, QStringLiteral("postgresql")))
               : failed(name, cluster.error());
}

bool readGalera()
{
    GaleraCluster cluster;
    if (!cluster.start())
        return failed(QStringLiteral("Galera"), cluster.error());
    QJsonObject settings = clusterSettings(cluster, QStringLiteral("galera"));
    const bool synced = readBehindWrites(QStringLiteral("Galera, wsrep_sync_wait 1"), settings);
    settings.insert(QStringLiteral("init"), QStringLiteral("SET SESSION wsrep_sync_wait = 0"));
    return readBehindWrites(QStringLiteral("Galera, wsrep_sync_wait 0"), settings) && synced;
}

bool onPostgres(int rounds)
{
    QString reason;
    if (!PostgresCluster::available(&reason)) {
        out() << reason << Qt::endl;
        return true;
    }
    bool done = true;
    for (int round = 0; round < rounds && done; ++round)
        done = killPostgres(QStringLiteral("PostgreSQL, ANY 1"), PostgresCluster::Commit::AnyOne,
                            false);
    return done &&
           killPostgres(QStringLiteral("PostgreSQL, asynchronous, standbys held back"),
                        PostgresCluster::Commit::Asynchronous, true) &&
           readPostgres(QStringLiteral("PostgreSQL, remote_apply on all"),
                        PostgresCluster::Commit::AppliedOnAll) &&
           readPostgres(QStringLiteral("PostgreSQL, asynchronous"),
                        PostgresCluster::Commit::Asynchronous);
}

bool onGalera(int rounds)
{
    QString reason;
    if (!GaleraCluster::available(&reason)) {
        out() << reason << Qt::endl;
        return true;
    }
    return killGalera(rounds, 1) && killGalera(rounds, 2) && readGalera();
}

} // namespace

bool ScaleFailover::measure(int rounds)
{
    const bool postgres = onPostgres(rounds);
    const bool galera = onGalera(rounds);
    return postgres && galera;
}
