/// @file
/// What clusters of the script library tell of a transaction, whatever goes wrong and wherever.

#include "library_script.h"

#include <QFile>
#include <QtTest>

class TestLibraryOutcomes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void whatIsToldIsWhatWasDone_data();
    void whatIsToldIsWhatWasDone();
    void machineThatStandsStillLosesNoNode();
    void statementThatWasNotSentGoesToTheNextNode();
};

namespace
{

QString textOf(const QString &path)
{
    QFile file(QStringLiteral(VEXT_SOURCE_DIR "/") + path);
    if (!file.open(QIODevice::ReadOnly))
        QTest::qFail(qPrintable(file.errorString()), __FILE__, __LINE__);
    return QString::fromUtf8(file.readAll());
}

/// The library, with servers that only the script knows.
void pretendServers(LibraryScript &script)
{
    script.eval(textOf(QStringLiteral("tests/library/pretended.js")));
    script.eval(QStringLiteral("vext = (function (VEXT_SQL) {") +
                textOf(QStringLiteral("library/vext.js")) +
                QStringLiteral("return vext; })(Pretended);"));
}

} // namespace

void TestLibraryOutcomes::whatIsToldIsWhatWasDone_data()
{
    QTest::addColumn<QString>("engine");
    QTest::addColumn<QString>("deadlineMs");
    for (const char *engine : {"postgresql", "galera"}) {
        QTest::addRow("%s", engine) << QString::fromUtf8(engine) << QStringLiteral("600000");
        // No second attempt.
        QTest::addRow("%s, at the deadline", engine)
            << QString::fromUtf8(engine) << QStringLiteral("0");
    }
}

/// Each transaction is done once where it is told as committed, never where it is told as failed,
/// and once at most where it is told as unknown: for each pair of faults, in each statement of two
/// attempts.
void TestLibraryOutcomes::whatIsToldIsWhatWasDone()
{
    QFETCH(QString, engine);
    QFETCH(QString, deadlineMs);
    LibraryScript script;
    script.eval(QStringLiteral("var engine = '%1', deadlineMs = %2;").arg(engine, deadlineMs));
    pretendServers(script);
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var anywhere = ["lost", "conflict", "unready", "refused", "silent"];
        var inCommit = anywhere.concat("done lost", "duplicate", "late", "later", "parted", "done parted");
        var COMMIT = 4; // behind the beginning, the mark and two statements
        var tried = 0, wrong = [], kinds = {};

        function judge(name, calls, error, value, info) {
            if (world.late) {
                world.land();
            }
            var times = world.committed.length, kind = error ? error.kind : info.repeated ? "repeated" : "once";
            tried++;
            kinds[kind] = true;
            // The work comes behind the mark, which has told PostgreSQL that nothing is under way.
            var known = deadlineMs > 0 && engine === "postgresql" && /, refused [23]$/.test(name);
            if (calls !== 1 || known && kind === "unknown" || times > 1 || !error && (times !== 1 || value !== world.committed[0].attempt) ||
                    error && kind !== "unknown" && times !== 0) {
                wrong.push(name + ": " + kind + ", told " + calls + " times, done " + times + " times");
            }
        }

        function attempt(name, faults) {
            var calls = 0, told = null, closed = false;
            useWorld(engine, faults);
            var cluster = vext.cluster({engine: engine, nodes: [{port: 1}, {port: 2}],
                deadlineMs: deadlineMs});
            cluster.transaction(function (tx, finish) {
                tx.query("WORK " + tx.attempt);
                tx.query("WORK " + tx.attempt, function () { finish(null, tx.attempt); });
            }, function (error, value, info) {
                calls++;
                told = [error, value, info];
                cluster.close(function () { closed = true; });
            });
            pump(function () { return closed; });
            judge(name, calls, told && told[0], told && told[1], told ? told[2] : {});
        }

        function faultsAt(step) {
            return step === COMMIT ? inCommit : step > 1 ? anywhere.concat("duplicate") : anywhere;
        }

        attempt("nothing", {});
        for (var first = 0; first <= COMMIT; first++) {
            faultsAt(first).forEach(function (fault) {
                var faults = {};
                faults[first] = fault;
                attempt(fault + " " + first, faults);
                for (var second = 0; second <= COMMIT; second++) {
                    faultsAt(second).forEach(function (other) {
                        var two = {};
                        two[first] = fault;
                        two[first + 1 + second] = other;
                        attempt(fault + " " + first + ", " + other + " " + second, two);
                    });
                }
            });
        }
        done([tried, wrong.slice(0, 20), Object.keys(kinds).sort().join()]);
    )js"));
    const bool again = deadlineMs != QLatin1String("0");
    QCOMPARE(outcome,
             QStringLiteral("[1123,[],\"%1\"]")
                 .arg(again ? QStringLiteral("duplicate,lost,once,repeated,statement,unknown")
                            : QStringLiteral("conflict,duplicate,lost,once,statement,timeout,"
                                             "unknown,unready")));
}

/// The script and all servers together, for longer than an answer may take.
void TestLibraryOutcomes::machineThatStandsStillLosesNoNode()
{
    LibraryScript script;
    pretendServers(script);
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        useWorld("postgresql", {});
        var outcome = null, cluster = vext.cluster({engine: "postgresql", nodes: [{port: 1}, {port: 2}]});
        cluster.transaction(function (tx, finish) {
            world.standsStill = 4000; // at the next question how the node is
            setPretended(function () {
                tx.query("WORK 1", finish);
            }, 10000);
        }, function (error, value, info) {
            outcome = [told(error), info.attempts, world.standsStill];
        });
        pump(function () { return outcome !== null; });
        done(outcome);
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",1,0]"));
}

/// It cannot have been carried out, whatever it is.
void TestLibraryOutcomes::statementThatWasNotSentGoesToTheNextNode()
{
    LibraryScript script;
    pretendServers(script);
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        useWorld("postgresql", {});
        var outcome = null, cluster = vext.cluster({engine: "postgresql", nodes: [{port: 1}, {port: 2}]});
        cluster.open(function () {
            world.down[1] = true;
            world.primary = 2;
            cluster.query("WORK 1", function (error) {
                outcome = [told(error), world.committed.length, cluster.stats().moves];
            });
        });
        pump(function () { return outcome !== null; });
        done(outcome);
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",1,1]"));
}

QTEST_GUILESS_MAIN(TestLibraryOutcomes)
#include "test_library_outcomes.moc"
