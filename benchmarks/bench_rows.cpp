#include "bench.h"

#include "ready_driver.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace
{

constexpr int Rows = 500000;

/// What the figures of one database may be at most: the goals of large reads and of look-ups by
/// key, and what a quiet machine gave, with 15 % more, of the others.
struct Limits {
    struct Small {
        double chain;
        double queue;
    };
    double async;
    double peakMb;
    double sync;
    Small reports; ///< one core
    Small reportsAllCores;
    Small keys; ///< one core, against the floor on a thread
    double insertsFloor;
    double insertsQuery;
};

constexpr Limits SqliteLimits{1.75, 163, 3.1, {1.9, 2.5}, {2.9, 1.6}, {1.5, 1.6}, 2.9, 2.6};
constexpr Limits PostgresLimits{1.35, 138, 2.5, {1.7, 2.2}, {1.3, 1.2}, {1.6, 1.5}, 3.0, 2.7};

const Limits &limitsOf(const Target &target)
{
    return target.postgres ? PostgresLimits : SqliteLimits;
}

QJsonObject settingsOf(const Target &target)
{
    if (!target.postgres)
        return {{QStringLiteral("driverName"), QStringLiteral("QSQLITE")},
                {QStringLiteral("databaseName"), target.sqliteFile}};
    return {{QStringLiteral("driverName"), QStringLiteral("QPSQL")},
            {QStringLiteral("databaseName"), target.database},
            {QStringLiteral("userName"), target.user},
            {QStringLiteral("password"), target.password},
            {QStringLiteral("hostName"), target.host},
            {QStringLiteral("port"), target.port}};
}

/// The library's own function in the reference host, over the layer of drivers.
QStringList insertRowsCommand(const Target &target, int rows)
{
    const QString folder = QStringLiteral(VEXT_SOURCE_DIR);
    return {QStringLiteral(VEXT_RUN_FILE),
            QStringLiteral("--plugin"),
            pluginFile(),
            folder + QStringLiteral("/benchmarks/insert_rows.js"),
            folder + QStringLiteral("/library/vext.js"),
            QString::fromUtf8(QJsonDocument(settingsOf(target)).toJson(QJsonDocument::Compact)),
            QString::number(rows)};
}

} // namespace

bool Bench::measure(Comparison &comparison)
{
    if (!m_only.isEmpty() && !comparison.title().contains(m_only))
        return false;
    m_progress << comparison.title() << ' ' << Qt::flush;
    for (int i = 0; i < m_rounds; ++i) {
        if (!comparison.runRound()) {
            m_progress << "failed" << Qt::endl;
            m_verdict.setIncomplete();
            return false;
        }
        m_progress << '.' << Qt::flush;
    }
    if (m_verbose)
        m_progress << comparison.times();
    m_progress << Qt::endl;
    return true;
}

void Bench::readRows(const Target &target)
{
    Workload workload;
    workload.rows = Rows;
    Comparison c(target.name() + QStringLiteral(" 500k x 6"), target, workload,
                 {QStringLiteral("floor"), QStringLiteral("query"), QStringLiteral("thread"),
                  QStringLiteral("async"), QStringLiteral("sync"), QStringLiteral("script")},
                 false);
    if (!measure(c))
        return;
    const auto ratio = [&c](const char *way, const char *base) {
        return c.ratio(QLatin1String(way), QLatin1String(base));
    };
    add(c.title() + QStringLiteral(" async / C floor"), ratio("async", "floor"),
        limitsOf(target).async);
    add(c.title() + QStringLiteral(" async / QThread + QSqlQuery"), ratio("async", "thread"), 1.65);
    add(c.title() + QStringLiteral(" async / script row loop"), ratio("async", "script"), 0.2);
    add(c.title() + QStringLiteral(" sync / C floor"), ratio("sync", "floor"),
        limitsOf(target).sync);
    add(c.title() + QStringLiteral(" sync / QSqlQuery"), ratio("sync", "query"));
    add(c.title() + QStringLiteral(" async longest block / total"),
        c.gapMs(QStringLiteral("async")) / c.ms(QStringLiteral("async")), 0.04);
    add(c.title() + QStringLiteral(" async longest block a cell"),
        c.gapMs(QStringLiteral("async")) * 1e6 / (double(Rows) * 6), 10, QStringLiteral("ns"));
    add(c.title() + QStringLiteral(" async peak memory"), c.peakMb(QStringLiteral("async")),
        limitsOf(target).peakMb, QStringLiteral("MB"));
}

void Bench::readOnOneCore(const Target &target)
{
    Workload workload;
    workload.rows = Rows;
    Comparison c(target.name() + QStringLiteral(" 500k x 6, one core"), target, workload,
                 {QStringLiteral("floor"), QStringLiteral("async")}, true);
    if (measure(c))
        add(c.title() + QStringLiteral(" async / C floor"),
            c.ratio(QStringLiteral("async"), QStringLiteral("floor")));
}

void Bench::smallStatements(const Target &target)
{
    const auto run = [&](Workload::Kind kind, bool point, bool pinned, double limit) {
        const bool chained = kind == Workload::Kind::Chain;
        Workload workload;
        workload.kind = kind;
        workload.pointQuery = point;
        workload.count = chained ? 5000 : 20000;
        const QString title =
            QStringLiteral("%1 %2 %3, %4")
                .arg(target.name(),
                     chained ? QStringLiteral("5k chained") : QStringLiteral("20k queued"),
                     point ? QStringLiteral("key look-ups") : QStringLiteral("reports"),
                     pinned ? QStringLiteral("one core") : QStringLiteral("all cores"));
        Comparison c(title, target, workload,
                     {QStringLiteral("floor"), QStringLiteral("floor thread"),
                      QStringLiteral("query"), QStringLiteral("async")},
                     pinned);
        if (!measure(c))
            return;
        // A floor without a thread blocks its program, so it is only told where there is another.
        add(c.title() + QStringLiteral(" / C floor"),
            c.ratio(QStringLiteral("async"), QStringLiteral("floor")), point ? 0 : limit);
        if (point) {
            add(c.title() + QStringLiteral(" / C on a thread"),
                c.ratio(QStringLiteral("async"), QStringLiteral("floor thread")), limit);
            // What nothing over Qt's driver can go below, and it hands nothing over yet.
            add(c.title() + QStringLiteral(" QSqlQuery / C on a thread"),
                c.ratio(QStringLiteral("query"), QStringLiteral("floor thread")));
        }
    };
    run(Workload::Kind::Chain, false, true, limitsOf(target).reports.chain);
    run(Workload::Kind::Queue, false, true, limitsOf(target).reports.queue);
    run(Workload::Kind::Chain, false, false, limitsOf(target).reportsAllCores.chain);
    run(Workload::Kind::Queue, false, false, limitsOf(target).reportsAllCores.queue);
    run(Workload::Kind::Chain, true, true, limitsOf(target).keys.chain);
    run(Workload::Kind::Queue, true, true, limitsOf(target).keys.queue);
}

void Bench::inserts(const Target &target)
{
    Workload workload;
    workload.kind = Workload::Kind::Insert;
    workload.count = 20000;
    Comparison c(target.name() + QStringLiteral(" 20k inserts"), target, workload,
                 {QStringLiteral("floor"), QStringLiteral("query"), QStringLiteral("async")},
                 false);
    if (!measure(c))
        return;
    add(c.title() + QStringLiteral(" / C floor"),
        c.ratio(QStringLiteral("async"), QStringLiteral("floor")), limitsOf(target).insertsFloor);
    add(c.title() + QStringLiteral(" / QSqlQuery"),
        c.ratio(QStringLiteral("async"), QStringLiteral("query")), limitsOf(target).insertsQuery);
}

void Bench::insertRows(const Target &target)
{
    Workload workload;
    workload.kind = Workload::Kind::Insert;
    workload.count = 100000;
    Comparison c(target.name() + QStringLiteral(" 100k rows, vext.insertRows / ") +
                     (target.postgres ? QStringLiteral("COPY") : QStringLiteral("prepared C")),
                 target, workload, {QStringLiteral("floor bulk")}, false);
    const QString insertRows = QStringLiteral("insertRows");
    c.addProgram(insertRows, insertRowsCommand(target, workload.count));
    if (measure(c))
        add(c.title(), c.ratio(insertRows, QStringLiteral("floor bulk")), 3);
}

void Bench::timestamps(const Target &target)
{
    for (const QString &zone : {QStringLiteral("zoned "), QStringLiteral("zoneless ")}) {
        const auto way = [&zone](const char *name) { return zone + QLatin1String(name); };
        Workload workload;
        workload.rows = ReadyDriver::Rows;
        const QString title =
            target.name() + QStringLiteral(" 200k timestamps, TZ ") +
            (zone == QLatin1String("zoned ") ? QStringLiteral("set") : QStringLiteral("unset"));
        Comparison c(title, target, workload,
                     {way("timestamps query"), way("doubles query"), way("ready timestamps query"),
                      way("ready timestamps sync"), way("ready doubles query"),
                      way("ready doubles sync")},
                     false);
        if (!measure(c))
            continue;
        add(title + QStringLiteral(", driver alone / doubles"),
            c.ratio(way("timestamps query"), way("doubles query")));
        add(title + QStringLiteral(", without driver / doubles"),
            c.ratioOfRest(way("ready timestamps sync"), way("ready timestamps query"),
                          way("ready doubles sync"), way("ready doubles query")),
            3);
    }
}

void Bench::layer(const Target &target)
{
    const auto run = [&](const QString &title, const Workload &workload, const QString &way,
                         const QString &base, double limit) {
        Comparison c(target.name() + title, target, workload, {base, way}, false);
        if (measure(c))
            add(c.title(), c.ratio(way, base), limit);
    };
    const QString floor = QStringLiteral("floor");
    const QString boundLayer = QStringLiteral("layer bound query");
    Workload reading;
    reading.rows = Rows;
    run(QStringLiteral(" layer 500k x 6 / stock driver"), reading, QStringLiteral("layer query"),
        QStringLiteral("query"), 1.06);
    Workload lookUps;
    lookUps.kind = Workload::Kind::Chain;
    lookUps.pointQuery = true;
    lookUps.count = 20000;
    run(QStringLiteral(" layer 20k bound look-ups / unprepared C"), lookUps, boundLayer, floor, 1);
    Workload inserting;
    inserting.kind = Workload::Kind::Insert;
    inserting.count = 20000;
    const QString plugin = QStringLiteral("layer bound async");
    if (target.postgres) {
        run(QStringLiteral(" layer 20k bound inserts / prepared C"), inserting, boundLayer, floor,
            1.5);
        run(QStringLiteral(" 20k bound exec_thread, layer / prepared C"), inserting, plugin, floor,
            1.9);
    } else {
        run(QStringLiteral(" layer 20k bound inserts / stock driver"), inserting, boundLayer,
            QStringLiteral("bound query"), 0.85);
        run(QStringLiteral(" 20k bound exec_thread, layer / texts"), inserting, plugin,
            QStringLiteral("layer async"), 1);
    }
}

void Bench::series(const Target &target, const QString &name, const QVector<int> &sizes,
                   Workload (*workloadOf)(int size), double limit)
{
    QVector<double> times;
    for (const int size : sizes) {
        Comparison c(QStringLiteral("growth %1 %2").arg(name).arg(size), target, workloadOf(size),
                     {QStringLiteral("async")}, false);
        if (!measure(c))
            return;
        times << c.ms(QStringLiteral("async"));
        add(c.title() + QStringLiteral(" memory kept"), c.grownMb(QStringLiteral("async")), 0,
            QStringLiteral("MB"));
    }
    const QVector<double> further = costsOfAFurtherUnit(sizes, times);
    const int last = sizes.size() - 1;
    add(QStringLiteral("growth %1, one more: %2 to %3 / %4 to %2")
            .arg(name)
            .arg(sizes.at(last - 1))
            .arg(sizes.at(last))
            .arg(sizes.at(last - 2)),
        further.at(last - 1) / further.at(last - 2), limit);
}

void Bench::standard(const Target &target)
{
    readRows(target);
    readOnOneCore(target);
    smallStatements(target);
    inserts(target);
    insertRows(target);
    // SQLite has none: they are texts there.
    if (target.postgres)
        timestamps(target);
    layer(target);
}

void Bench::growth(const Target &target)
{
    series(
        target, QStringLiteral("rows"), {1000, 10000, 100000, 1000000},
        [](int size) {
            Workload w;
            w.rows = size;
            return w;
        },
        1.3);
    series(
        target, QStringLiteral("columns"), {1, 10, 50, 200},
        [](int size) {
            Workload w;
            w.rows = 10000;
            w.columns = size;
            return w;
        },
        1.3);
    series(
        target, QStringLiteral("queue"), {100, 1000, 10000, 100000},
        [](int size) {
            Workload w;
            w.kind = Workload::Kind::Queue;
            w.count = size;
            return w;
        },
        1.3);
    series(
        target, QStringLiteral("connections"), {1, 10, 100, 500},
        [](int size) {
            Workload w;
            w.kind = Workload::Kind::Connections;
            w.count = size;
            return w;
        },
        2.5); // hundreds of threads that start at once: chance has a large part in it
}

void Bench::peers(const Target &target, const Peers &peers)
{
    const auto run = [&](const QString &title, const Workload &workload, const QString &floor,
                         const QStringList &ours, bool pinned) {
        Comparison c(target.name() + title, target, workload, QStringList(floor) + ours, pinned);
        peers.addTo(c, target, workload);
        if (!measure(c))
            return;
        for (const QString &way : c.ways()) {
            if (way == floor)
                continue;
            add(c.title() + QStringLiteral(", ") + Peers::shownAs(way) +
                    QStringLiteral(" / C floor"),
                c.ratio(way, floor));
        }
        if (workload.kind != Workload::Kind::Read)
            return;
        for (const QString &way : c.ways()) {
            const QString shown = c.title() + QStringLiteral(", ") + Peers::shownAs(way);
            if (way != floor)
                add(shown + QStringLiteral(" longest block / total"), c.gapMs(way) / c.ms(way));
            add(shown + QStringLiteral(" peak memory"), c.peakMb(way), 0, QStringLiteral("MB"));
        }
    };
    const QStringList async{QStringLiteral("async")};
    Workload reading;
    reading.rows = Rows;
    run(QStringLiteral(" 500k x 6"), reading, QStringLiteral("floor"),
        async + QStringList(QStringLiteral("sync")), false);
    Workload lookUps;
    lookUps.pointQuery = true;
    lookUps.kind = Workload::Kind::Chain;
    lookUps.count = 5000;
    run(QStringLiteral(" 5k chained key look-ups, one core"), lookUps,
        QStringLiteral("floor thread"), async, true);
    lookUps.kind = Workload::Kind::Queue;
    lookUps.count = 20000;
    run(QStringLiteral(" 20k queued key look-ups, one core"), lookUps,
        QStringLiteral("floor thread"), async, true);
}

int Bench::print()
{
    QTextStream(stdout) << m_verdict.text();
    return m_verdict.exitCode();
}
