/// @file
/// Prints one table of ratios: the plugin against the C interfaces, plain Qt and a script's loop.
///
///     vext-bench [--rounds N] [--only TEXT] [--growth] [--verbose] [--plugin FILE]
///     vext-bench --peers FOLDER [--python PROGRAM] [...]
///
/// With --peers the table is another one: what a user might pick instead, beside the plugin. FOLDER
/// is where npm has put its modules, and NAME.reason there tells why one is missing.
///
/// Ends with 1 when a figure is over its limit, and with 2 when a workload could not be measured.

#include "bench.h"
#include "postgres_server.h"
#include "test_data.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTemporaryDir>
#include <QTextStream>

namespace
{

constexpr int SqliteRows = 1000000; // --growth reads them all
constexpr int PostgresRows = 500000;

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
    target.serverPid = server.pid();
    return target;
}

/// The rows that the command line asks for, on one database.
void measure(Bench &bench, const QCommandLineParser &parser, const Target &target)
{
    if (parser.isSet(QStringLiteral("peers"))) {
        Peers peers(parser.value(QStringLiteral("peers")), parser.value(QStringLiteral("python")));
        const QStringList missing = peers.findThoseOf(target);
        for (const QString &line : missing)
            bench.addNote(line);
        bench.peers(target, peers);
        return;
    }
    bench.standard(target);
    if (parser.isSet(QStringLiteral("growth")) && !target.postgres)
        bench.growth(target);
}

void addOptions(QCommandLineParser &parser)
{
    parser.setApplicationDescription(QStringLiteral("Ratios of the plugin against the floor."));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("rounds"), QStringLiteral("Runs of each way."),
                      QStringLiteral("N"), QStringLiteral("5")});
    parser.addOption({QStringLiteral("only"), QStringLiteral("Workloads whose title has TEXT."),
                      QStringLiteral("TEXT")});
    parser.addOption({QStringLiteral("growth"), QStringLiteral("Also how cost grows with size.")});
    parser.addOption({QStringLiteral("peers"),
                      QStringLiteral("Instead: other libraries, those of node from FOLDER."),
                      QStringLiteral("FOLDER")});
    parser.addOption({QStringLiteral("python"), QStringLiteral("Runs the libraries of Python."),
                      QStringLiteral("PROGRAM"), QStringLiteral("python3")});
    parser.addOption({QStringLiteral("plugin"),
                      QStringLiteral("Measures this library, to compare two builds."),
                      QStringLiteral("FILE")});
    parser.addOption({QStringLiteral("verbose"), QStringLiteral("Also the median times, in ms.")});
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (app.arguments().value(1) == QLatin1String("--way"))
        return runFromArguments(app.arguments());

    QCommandLineParser parser;
    addOptions(parser);
    parser.process(app);
    if (parser.isSet(QStringLiteral("plugin")))
        qputenv(PluginVariable, parser.value(QStringLiteral("plugin")).toLocal8Bit());

    Bench bench(parser.value(QStringLiteral("rounds")).toInt(),
                parser.value(QStringLiteral("only")), parser.isSet(QStringLiteral("verbose")));
    QTemporaryDir folder;
    Target sqlite;
    sqlite.sqliteFile = folder.filePath(QStringLiteral("bench.sqlite"));
    if (!fillTables(sqlite, SqliteRows))
        return Verdict::Incomplete;
    measure(bench, parser, sqlite);

    PostgresServer server;
    QString reason;
    if (!server.available(&reason) || !server.start()) {
        bench.addNote(QStringLiteral("left out: PostgreSQL: ") + reason + server.error());
        return bench.print();
    }
    const Target postgres = postgresTarget(server);
    if (!fillTables(postgres, PostgresRows))
        return Verdict::Incomplete;
    measure(bench, parser, postgres);
    return bench.print();
}
