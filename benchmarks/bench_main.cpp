/// @file
/// Prints one table of ratios: the plugin against the C interfaces, plain Qt and a script's loop.
///
///     vext-bench [--rounds N] [--only TEXT] [--growth] [--verbose]

#include "comparison.h"
#include "postgres_server.h"
#include "test_data.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTextStream>

namespace
{

constexpr int Rows = 500000;

struct Line {
    QString measure;
    double value;
    double limit; ///< 0: nothing to reach, just told
    QString unit;
};

class Bench
{
public:
    Bench(int rounds, QString only, bool verbose)
        : m_rounds(rounds)
        , m_only(std::move(only))
        , m_verbose(verbose)
    {
    }

    void readRows(const Target &target, const QString &db, double async, double sync);
    void smallStatements(const Target &target, const QString &db, double chain, double queue);
    void inserts(const Target &target, const QString &db);
    void growth(const Target &target);
    int print();

private:
    bool measure(Comparison &comparison);
    void add(const QString &measure, double value, double limit = 0,
             const QString &unit = QStringLiteral("x"));

    int m_rounds;
    QString m_only;
    bool m_verbose;
    QVector<Line> m_lines;
    bool m_failed = false;
    QTextStream m_out{stdout};
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
            m_failed = true;
            return false;
        }
        m_progress << '.' << Qt::flush;
    }
    if (m_verbose)
        m_progress << comparison.times();
    m_progress << Qt::endl;
    return true;
}

void Bench::add(const QString &measure, double value, double limit, const QString &unit)
{
    m_lines.append({measure, value, limit, unit});
}

void Bench::readRows(const Target &target, const QString &db, double async, double sync)
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
    add(c.title() + QStringLiteral(" async / C floor"), ratio("async", "floor"), async);
    add(c.title() + QStringLiteral(" async / QThread + QSqlQuery"), ratio("async", "thread"), 1.65);
    add(c.title() + QStringLiteral(" async / script row loop"), ratio("async", "script"), 0.2);
    add(c.title() + QStringLiteral(" sync / C floor"), ratio("sync", "floor"), sync);
    add(c.title() + QStringLiteral(" sync / QSqlQuery"), ratio("sync", "query"));
    add(c.title() + QStringLiteral(" async longest block / total"),
        c.gapMs(QStringLiteral("async")) / c.ms(QStringLiteral("async")), 0.35);
    add(c.title() + QStringLiteral(" async longest block a cell"),
        c.gapMs(QStringLiteral("async")) * 1e6 / (double(Rows) * 6), 65, QStringLiteral("ns"));
    add(c.title() + QStringLiteral(" async peak memory"), c.peakMb(QStringLiteral("async")), 185,
        QStringLiteral("MB"));
}

void Bench::smallStatements(const Target &target, const QString &db, double chain, double queue)
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
    run(Workload::Kind::Chain, false, true, chain);
    run(Workload::Kind::Queue, false, true, queue);
    run(Workload::Kind::Chain, false, false, 0);
    run(Workload::Kind::Queue, false, false, 0);
    run(Workload::Kind::Chain, true, true, 0);
    run(Workload::Kind::Queue, true, true, 0);
}

void Bench::inserts(const Target &target, const QString &db)
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
        c.ratio(QStringLiteral("async"), QStringLiteral("floor")));
    add(c.title() + QStringLiteral(" / QSqlQuery"),
        c.ratio(QStringLiteral("async"), QStringLiteral("query")));
}

/// Time and memory per unit, as a multiple of those at the smallest size.
void Bench::growth(const Target &target)
{
    const auto series = [&](const QString &name, const QVector<int> &sizes, auto makeWorkload) {
        double first = 0;
        for (const int size : sizes) {
            Comparison c(QStringLiteral("growth %1 %2").arg(name).arg(size), target,
                         makeWorkload(size), {QStringLiteral("async")}, false);
            if (!measure(c))
                return;
            const double perUnit = c.ms(QStringLiteral("async")) / size;
            if (first == 0)
                first = perUnit;
            add(c.title() + QStringLiteral(" time a unit / first"), perUnit / first);
            add(c.title() + QStringLiteral(" memory kept"), c.grownMb(QStringLiteral("async")), 0,
                QStringLiteral("MB"));
        }
    };
    series(QStringLiteral("rows"), {1000, 10000, 100000, 1000000}, [](int size) {
        Workload w;
        w.rows = size;
        return w;
    });
    series(QStringLiteral("columns"), {1, 10, 50, 200}, [](int size) {
        Workload w;
        w.rows = 10000;
        w.columns = size;
        return w;
    });
    series(QStringLiteral("queue"), {100, 1000, 10000, 100000}, [](int size) {
        Workload w;
        w.kind = Workload::Kind::Queue;
        w.count = size;
        return w;
    });
    series(QStringLiteral("connections"), {1, 10, 100, 500}, [](int size) {
        Workload w;
        w.kind = Workload::Kind::Connections;
        w.count = size;
        return w;
    });
}

int Bench::print()
{
    int missed = 0;
    m_out << QStringLiteral("%1 %2 %3")
                 .arg(QStringLiteral("measure"), -58)
                 .arg(QStringLiteral("value"), 12)
                 .arg(QStringLiteral("at most"), 12)
          << Qt::endl;
    for (const Line &line : qAsConst(m_lines)) {
        const bool over = line.limit > 0 && line.value > line.limit;
        missed += over;
        m_out << QStringLiteral("%1 %2 %3%4")
                     .arg(line.measure, -58)
                     .arg(QString::number(line.value, 'f', 2) + line.unit, 12)
                     .arg(line.limit > 0 ? QString::number(line.limit) + line.unit : QString(), 12)
                     .arg(over ? QStringLiteral("  over") : QString())
              << Qt::endl;
    }
    if (m_failed)
        return 1;
    m_out << (missed ? QStringLiteral("%1 measures over their limit").arg(missed)
                     : QStringLiteral("every measure within its limit"))
          << Qt::endl;
    return 0;
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
        return 1;
    bench.readRows(sqlite, QStringLiteral("SQLite"), 3.3, 3.1);
    bench.smallStatements(sqlite, QStringLiteral("SQLite"), 1.9, 2.5);
    bench.inserts(sqlite, QStringLiteral("SQLite"));
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
        return 1;
    bench.readRows(postgres, QStringLiteral("PostgreSQL"), 2.4, 2.5);
    bench.smallStatements(postgres, QStringLiteral("PostgreSQL"), 1.7, 2.2);
    bench.inserts(postgres, QStringLiteral("PostgreSQL"));
    return bench.print();
}
