/// @file
/// Prints one table of ratios: the plugin against the C interfaces, plain Qt and a script's loop.
///
///     vext-bench [--rounds N] [--only TEXT] [--growth] [--verbose]
///
/// Ends with 1 when a figure is over its limit, and with 2 when a workload could not be measured.

#include "comparison.h"
#include "postgres_server.h"
#include "test_data.h"
#include "verdict.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTextStream>

namespace
{

constexpr int Rows = 500000;

/// What each ratio of one database may be at most: what a quiet machine gave, and 15 % more.
struct Limits {
    struct Small {
        double chain;
        double queue;
    };
    double async;
    double sync;
    Small reports; ///< one core
    Small reportsAllCores;
    Small keys; ///< one core
    double insertsFloor;
    double insertsQuery;
};

constexpr Limits SqliteLimits{3.3, 3.1, {1.9, 2.5}, {2.9, 1.6}, {5.1, 4.2}, 2.9, 2.6};
constexpr Limits PostgresLimits{2.4, 2.5, {1.7, 2.2}, {1.3, 1.2}, {1.45, 1.2}, 3.0, 2.7};

class Bench
{
public:
    Bench(int rounds, QString only, bool verbose)
        : m_rounds(rounds)
        , m_only(std::move(only))
        , m_verbose(verbose)
    {
    }

    void readRows(const Target &target, const QString &db, const Limits &limits);
    void smallStatements(const Target &target, const QString &db, const Limits &limits);
    void inserts(const Target &target, const QString &db, const Limits &limits);
    /// The layer of drivers against the stock ones and the C interfaces.
    void layer(const Target &target, const QString &db);
    void growth(const Target &target);
    /// Prints the table. @return what the process ends with
    int print();

private:
    bool measure(Comparison &comparison);
    void add(const QString &measure, double value, double limit = 0,
             const QString &unit = QStringLiteral("x"))
    {
        m_verdict.add(measure, value, limit, unit);
    }
    /// One workload at several sizes, ascending; `limit` is for how much dearer a further unit is
    /// between the two largest than between the two before them.
    void series(const Target &target, const QString &name, const QVector<int> &sizes,
                Workload (*workloadOf)(int size), double limit);

    int m_rounds;
    QString m_only;
    bool m_verbose;
    Verdict m_verdict;
    QTextStream m_progress{stderr};
};

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

void Bench::readRows(const Target &target, const QString &db, const Limits &limits)
{
    Workload workload;
    workload.rows = Rows;
    Comparison c(db + QStringLiteral(" 500k x 6"), target, workload,
                 {QStringLiteral("floor"), QStringLiteral("query"), QStringLiteral("thread"),
                  QStringLiteral("async"), QStringLiteral("sync"), QStringLiteral("script")},
                 false);
    if (!measure(c))
        return;
    const auto ratio = [&c](const char *way, const char *base) {
        return c.ratio(QLatin1String(way), QLatin1String(base));
    };
    add(c.title() + QStringLiteral(" async / C floor"), ratio("async", "floor"), limits.async);
    add(c.title() + QStringLiteral(" async / QThread + QSqlQuery"), ratio("async", "thread"), 1.65);
    add(c.title() + QStringLiteral(" async / script row loop"), ratio("async", "script"), 0.2);
    add(c.title() + QStringLiteral(" sync / C floor"), ratio("sync", "floor"), limits.sync);
    add(c.title() + QStringLiteral(" sync / QSqlQuery"), ratio("sync", "query"));
    add(c.title() + QStringLiteral(" async longest block / total"),
        c.gapMs(QStringLiteral("async")) / c.ms(QStringLiteral("async")), 0.35);
    add(c.title() + QStringLiteral(" async longest block a cell"),
        c.gapMs(QStringLiteral("async")) * 1e6 / (double(Rows) * 6), 65, QStringLiteral("ns"));
    add(c.title() + QStringLiteral(" async peak memory"), c.peakMb(QStringLiteral("async")), 185,
        QStringLiteral("MB"));
}

void Bench::smallStatements(const Target &target, const QString &db, const Limits &limits)
{
    const auto run = [&](Workload::Kind kind, bool point, bool pinned, double limit) {
        const bool chained = kind == Workload::Kind::Chain;
        Workload workload;
        workload.kind = kind;
        workload.pointQuery = point;
        workload.count = chained ? 5000 : 20000;
        const QString title =
            QStringLiteral("%1 %2 %3, %4")
                .arg(db, chained ? QStringLiteral("5k chained") : QStringLiteral("20k queued"),
                     point ? QStringLiteral("key look-ups") : QStringLiteral("reports"),
                     pinned ? QStringLiteral("one core") : QStringLiteral("all cores"));
        Comparison c(title, target, workload,
                     {QStringLiteral("floor"), QStringLiteral("query"), QStringLiteral("async")},
                     pinned);
        if (measure(c)) {
            add(c.title() + QStringLiteral(" / C floor"),
                c.ratio(QStringLiteral("async"), QStringLiteral("floor")), limit);
        }
    };
    run(Workload::Kind::Chain, false, true, limits.reports.chain);
    run(Workload::Kind::Queue, false, true, limits.reports.queue);
    run(Workload::Kind::Chain, false, false, limits.reportsAllCores.chain);
    run(Workload::Kind::Queue, false, false, limits.reportsAllCores.queue);
    run(Workload::Kind::Chain, true, true, limits.keys.chain);
    run(Workload::Kind::Queue, true, true, limits.keys.queue);
}

void Bench::inserts(const Target &target, const QString &db, const Limits &limits)
{
    Workload workload;
    workload.kind = Workload::Kind::Insert;
    workload.count = 20000;
    Comparison c(db + QStringLiteral(" 20k inserts"), target, workload,
                 {QStringLiteral("floor"), QStringLiteral("query"), QStringLiteral("async")},
                 false);
    if (!measure(c))
        return;
    add(c.title() + QStringLiteral(" / C floor"),
        c.ratio(QStringLiteral("async"), QStringLiteral("floor")), limits.insertsFloor);
    add(c.title() + QStringLiteral(" / QSqlQuery"),
        c.ratio(QStringLiteral("async"), QStringLiteral("query")), limits.insertsQuery);
}

void Bench::layer(const Target &target, const QString &db)
{
    const auto run = [&](const QString &title, const Workload &workload, const QString &way,
                         const QString &base, double limit) {
        Comparison c(db + title, target, workload, {base, way}, false);
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

int Bench::print()
{
    QTextStream(stdout) << m_verdict.text();
    return m_verdict.exitCode();
}

Target postgresTarget(const PostgresServer &server)
{
    const ConnectionParameters p = server.parameters();
    Target target;
    target.postgres = true;
    target.host = p.hostName;
    target.port = p.port;
    target.database = p.databaseName;
    target.user = p.userName;
    target.password = p.password;
    return target;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (app.arguments().value(1) == QLatin1String("--way"))
        return runFromArguments(app.arguments());

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Ratios of the plugin against the floor."));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("rounds"), QStringLiteral("Runs of each way."),
                      QStringLiteral("N"), QStringLiteral("5")});
    parser.addOption({QStringLiteral("only"), QStringLiteral("Workloads whose title has TEXT."),
                      QStringLiteral("TEXT")});
    parser.addOption({QStringLiteral("growth"), QStringLiteral("Also how cost grows with size.")});
    parser.addOption({QStringLiteral("verbose"), QStringLiteral("Also the median times, in ms.")});
    parser.process(app);

    Bench bench(parser.value(QStringLiteral("rounds")).toInt(),
                parser.value(QStringLiteral("only")), parser.isSet(QStringLiteral("verbose")));
    QTemporaryDir folder;
    Target sqlite;
    sqlite.sqliteFile = folder.filePath(QStringLiteral("bench.sqlite"));
    if (!fillTables(sqlite, 1000000))
        return Verdict::Incomplete;
    bench.readRows(sqlite, QStringLiteral("SQLite"), SqliteLimits);
    bench.smallStatements(sqlite, QStringLiteral("SQLite"), SqliteLimits);
    bench.inserts(sqlite, QStringLiteral("SQLite"), SqliteLimits);
    bench.layer(sqlite, QStringLiteral("SQLite"));
    if (parser.isSet(QStringLiteral("growth")))
        bench.growth(sqlite);

    PostgresServer server;
    QString reason;
    if (!server.available(&reason) || !server.start()) {
        QTextStream(stderr) << "PostgreSQL left out: " << reason << server.error() << Qt::endl;
        return bench.print();
    }
    const Target postgres = postgresTarget(server);
    if (!fillTables(postgres, Rows))
        return Verdict::Incomplete;
    bench.readRows(postgres, QStringLiteral("PostgreSQL"), PostgresLimits);
    bench.smallStatements(postgres, QStringLiteral("PostgreSQL"), PostgresLimits);
    bench.inserts(postgres, QStringLiteral("PostgreSQL"), PostgresLimits);
    bench.layer(postgres, QStringLiteral("PostgreSQL"));
    return bench.print();
}
