#include "comparison.h"

#include "ready_driver.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTextStream>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

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

/// Takes the words off that stand in front of a way, and does what they say.
QString withoutSettings(QString way, Target &target, Workload &workload)
{
    const auto takeWord = [&way](const char *word) {
        if (!way.startsWith(QLatin1String(word)))
            return false;
        way.remove(0, int(strlen(word)));
        return true;
    };
    for (bool again = true; again;) {
        again = true;
        if (takeWord("layer "))
            QCoreApplication::addLibraryPath(QStringLiteral(VEXT_LAYER_PATH));
        else if (takeWord("bound "))
            workload.bound = true;
        else if (takeWord("ready timestamps "))
            target = ReadyDriver::target(QStringLiteral("timestamps"));
        else if (takeWord("ready doubles "))
            target = ReadyDriver::target(QStringLiteral("doubles"));
        else if (takeWord("timestamps "))
            workload.column =
                target.postgres
                    ? QStringLiteral("timestamp '1995-01-01' + id * interval '61 minutes' as t")
                    : QStringLiteral("datetime(788918400 + id * 3660, 'unixepoch') as t");
        else if (takeWord("doubles "))
            workload.column = QStringLiteral("weight");
        else if (takeWord("zoned "))
            qputenv("TZ", "Europe/Berlin");
        else if (takeWord("zoneless "))
            qunsetenv("TZ");
        else
            again = false;
    }
    return way;
}

} // namespace

Measurement runWay(const QString &way, const Target &target, const Workload &workload)
{
    using Way = Measurement (*)(const Target &, const Workload &);
    static const QMap<QString, Way> known = {
        {QStringLiteral("floor"), floorPath},      {QStringLiteral("floor thread"), floorThread},
        {QStringLiteral("floor bulk"), floorBulk}, {QStringLiteral("query"), qtQuery},
        {QStringLiteral("thread"), qtThread},      {QStringLiteral("script"), scriptLoop},
        {QStringLiteral("sync"), pluginSync},      {QStringLiteral("async"), pluginAsync}};
    Target changedTarget = target;
    Workload changed = workload;
    const Way run = known.value(withoutSettings(way, changedTarget, changed));
    if (!run)
        qFatal("no such way: %s", qPrintable(way));
    return run(changedTarget, changed);
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

void Comparison::addProgram(const QString &way, const QStringList &command)
{
    m_ways << way;
    m_programs.insert(way, command);
}

QStringList Comparison::commandOf(const QString &way) const
{
    if (!m_programs.contains(way))
        return QStringList(QCoreApplication::applicationFilePath()) +
               wayArguments(way, m_target, m_workload, m_pinned);
    const QStringList command = m_programs.value(way);
    if (!m_pinned)
        return command;
    return QStringList{QStringLiteral("taskset"), QStringLiteral("-c"),
                       QString::number(theOneCore())} +
           command;
}

bool Comparison::runRound()
{
    const QVector<qint64> servers = m_pinned ? m_target.serverProcesses() : QVector<qint64>();
    for (const qint64 pid : servers) {
        // One that has ended since is not missed.
        if (!pinToOneCore(pid) && errno != ESRCH)
            return false;
    }
    const bool ok = runWays();
    for (const qint64 pid : servers)
        unpin(pid);
    return ok;
}

bool Comparison::runWays()
{
    for (const QString &way : qAsConst(m_ways)) {
        QStringList command = commandOf(way);
        QProcess process;
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        const QString program = command.takeFirst();
        process.start(program, command);
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

double Comparison::leastMs(const QString &way) const
{
    double least = std::numeric_limits<double>::infinity();
    for (const Measurement &m : m_runs.value(way))
        least = std::min(least, m.ms);
    return least;
}

double Comparison::ratioOfRest(const QString &way, const QString &part, const QString &base,
                               const QString &basePart) const
{
    const double rest = leastMs(way) - leastMs(part);
    const double baseRest = leastMs(base) - leastMs(basePart);
    return rest > 0 && baseRest > 0 ? rest / baseRest : std::numeric_limits<double>::quiet_NaN();
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
