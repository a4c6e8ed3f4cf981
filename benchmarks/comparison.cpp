#include "comparison.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTextStream>

#include <algorithm>

namespace
{

double medianOf(QVector<double> values)
{
    if (values.isEmpty())
        return 0;
    std::sort(values.begin(), values.end());
    const int middle = values.size() / 2;
    return values.size() % 2 ? values.at(middle) : (values.at(middle - 1) + values.at(middle)) / 2;
}

} // namespace

Measurement runWay(const QString &way, const Target &target, const Workload &workload)
{
    const QString layer = QStringLiteral("layer ");
    if (way.startsWith(layer)) {
        QCoreApplication::addLibraryPath(QStringLiteral(VEXT_LAYER_PATH));
        return runWay(way.mid(layer.size()), target, workload);
    }
    const QString bound = QStringLiteral("bound ");
    if (way.startsWith(bound)) {
        Workload withValues = workload;
        withValues.bound = true;
        return runWay(way.mid(bound.size()), target, withValues);
    }
    if (way == QLatin1String("floor"))
        return target.postgres ? floorPostgres(target, workload) : floorSqlite(target, workload);
    if (way == QLatin1String("query"))
        return qtQuery(target, workload);
    if (way == QLatin1String("thread"))
        return qtThread(target, workload);
    if (way == QLatin1String("script"))
        return scriptLoop(target, workload);
    if (way == QLatin1String("sync"))
        return pluginSync(target, workload);
    return pluginAsync(target, workload);
}

QStringList wayArguments(const QString &way, const Target &target, const Workload &workload,
                         bool pinned)
{
    return {QStringLiteral("--way"),
            way,
            QString::number(target.postgres),
            target.sqliteFile,
            target.host,
            QString::number(target.port),
            target.database,
            target.user,
            target.password,
            QString::number(int(workload.kind)),
            QString::number(workload.rows),
            QString::number(workload.columns),
            QString::number(workload.count),
            QString::number(workload.pointQuery),
            QString::number(pinned)};
}

int runFromArguments(const QStringList &a)
{
    Target target;
    Workload workload;
    const QString way = a.value(2);
    target.postgres = a.value(3).toInt();
    target.sqliteFile = a.value(4);
    target.host = a.value(5);
    target.port = a.value(6).toInt();
    target.database = a.value(7);
    target.user = a.value(8);
    target.password = a.value(9);
    workload.kind = Workload::Kind(a.value(10).toInt());
    workload.rows = a.value(11).toInt();
    workload.columns = a.value(12).toInt();
    workload.count = a.value(13).toInt();
    workload.pointQuery = a.value(14).toInt();
    if (a.value(15).toInt())
        pinToOneCore();
    const Measurement m = runWay(way, target, workload);
    QTextStream(stdout) << "measured " << m.ms << ' ' << m.gapMs << ' ' << m.peakMb << ' '
                        << m.startMb << ' ' << m.endMb << Qt::endl;
    return 0;
}

Comparison::Comparison(QString title, Target target, Workload workload, QStringList ways,
                       bool pinned)
    : m_title(std::move(title))
    , m_target(std::move(target))
    , m_workload(workload)
    , m_ways(std::move(ways))
    , m_pinned(pinned)
{
}

bool Comparison::runRound()
{
    for (const QString &way : qAsConst(m_ways)) {
        QProcess process;
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(QCoreApplication::applicationFilePath(),
                      wayArguments(way, m_target, m_workload, m_pinned));
        process.waitForFinished(-1);
        const QStringList words = QString::fromUtf8(process.readAllStandardOutput())
                                      .section(QStringLiteral("measured "), -1)
                                      .split(QLatin1Char(' '));
        if (process.exitCode() != 0 || process.exitStatus() != QProcess::NormalExit ||
            words.size() < 5)
            return false;
        Measurement m;
        m.ms = words.at(0).toDouble();
        m.gapMs = words.at(1).toDouble();
        m.peakMb = words.at(2).toDouble();
        m.startMb = words.at(3).toDouble();
        m.endMb = words.at(4).toDouble();
        m_runs[way].append(m);
    }
    return true;
}

double Comparison::median(const QString &way, double (*figure)(const Measurement &)) const
{
    QVector<double> values;
    for (const Measurement &m : m_runs.value(way))
        values << figure(m);
    return medianOf(values);
}

double Comparison::ms(const QString &way) const
{
    return median(way, [](const Measurement &m) { return m.ms; });
}

double Comparison::gapMs(const QString &way) const
{
    return median(way, [](const Measurement &m) { return m.gapMs; });
}

double Comparison::peakMb(const QString &way) const
{
    return median(way, [](const Measurement &m) { return m.peakMb; });
}

double Comparison::grownMb(const QString &way) const
{
    return median(way, [](const Measurement &m) { return m.endMb - m.startMb; });
}

double Comparison::ratio(const QString &way, const QString &base) const
{
    const QVector<Measurement> runs = m_runs.value(way);
    const QVector<Measurement> bases = m_runs.value(base);
    QVector<double> ratios;
    for (int i = 0; i < std::min(runs.size(), bases.size()); ++i)
        ratios << runs.at(i).ms / bases.at(i).ms;
    return medianOf(ratios);
}

QString Comparison::times() const
{
    QString text;
    for (const QString &way : m_ways)
        text +=
            QStringLiteral("  %1 %2 (gap %3)")
                .arg(way, QString::number(ms(way), 'f', 1), QString::number(gapMs(way), 'f', 1));
    return text;
}
