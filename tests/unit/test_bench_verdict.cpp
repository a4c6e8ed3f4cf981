// A benchmark that misses a limit must not end like one that reached it.

#include "verdict.h"

#include <QtTest>

#include <limits>

class TestBenchVerdict : public QObject
{
    Q_OBJECT

private slots:
    void exitCodeTellsTheVerdict_data();
    void exitCodeTellsTheVerdict();
    void figureWithoutLimitIsOnlyTold();
    void failedWorkloadIsNeverGood();
    void nothingMeasuredIsNotGood();
    void noteStandsBelowTheFiguresAndChangesNoVerdict();
    void startingUpIsInNoFurtherUnit();
    void risingCostShows();
};

void TestBenchVerdict::exitCodeTellsTheVerdict_data()
{
    QTest::addColumn<double>("value");
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("words");
    const auto within = QStringLiteral("every measure within its limit");
    const auto over = QStringLiteral("1 measures over their limit");
    QTest::newRow("below") << 1.9 << int(Verdict::Good) << within;
    QTest::newRow("at the limit") << 2.0 << int(Verdict::Good) << within;
    QTest::newRow("above") << 2.01 << int(Verdict::Missed) << over;
    QTest::newRow("infinite, where the floor took no time")
        << std::numeric_limits<double>::infinity() << int(Verdict::Missed) << over;
    QTest::newRow("not a number, where neither took any")
        << std::numeric_limits<double>::quiet_NaN() << int(Verdict::Missed) << over;
}

void TestBenchVerdict::exitCodeTellsTheVerdict()
{
    QFETCH(double, value);
    QFETCH(int, code);
    QFETCH(QString, words);
    Verdict verdict;
    verdict.add(QStringLiteral("before"), 1, 2);
    verdict.add(QStringLiteral("reads"), value, 2);
    verdict.add(QStringLiteral("behind"), 1, 2);
    QCOMPARE(int(verdict.exitCode()), code);
    QVERIFY2(verdict.text().endsWith(words + QLatin1Char('\n')), qPrintable(verdict.text()));
    QCOMPARE(verdict.text().contains(QStringLiteral("  over\n")), code != Verdict::Good);
}

void TestBenchVerdict::figureWithoutLimitIsOnlyTold()
{
    Verdict verdict;
    verdict.add(QStringLiteral("reads"), 1000);
    QCOMPARE(int(verdict.exitCode()), int(Verdict::Good));
    QVERIFY(verdict.text().contains(QStringLiteral("1000.00x")));
}

void TestBenchVerdict::failedWorkloadIsNeverGood()
{
    Verdict verdict;
    verdict.add(QStringLiteral("reads"), 1, 2);
    verdict.setIncomplete();
    QCOMPARE(int(verdict.exitCode()), int(Verdict::Incomplete));
    QVERIFY(verdict.text().contains(QStringLiteral("a workload failed")));
    QVERIFY(!verdict.text().contains(QStringLiteral("every measure")));
}

void TestBenchVerdict::nothingMeasuredIsNotGood()
{
    const Verdict verdict;
    QCOMPARE(int(verdict.exitCode()), int(Verdict::Incomplete));
    QVERIFY(verdict.text().contains(QStringLiteral("nothing was measured")));
}

void TestBenchVerdict::noteStandsBelowTheFiguresAndChangesNoVerdict()
{
    Verdict verdict;
    verdict.addNote(QStringLiteral("left out: other: no network"));
    verdict.add(QStringLiteral("reads"), 1, 2);
    QCOMPARE(int(verdict.exitCode()), int(Verdict::Good));
    QVERIFY(verdict.text().endsWith(
        QStringLiteral("\nleft out: other: no network\nevery measure within its limit\n")));
}

void TestBenchVerdict::startingUpIsInNoFurtherUnit()
{
    // 30 for starting up, 2 a unit.
    const QVector<double> further = costsOfAFurtherUnit({1, 10, 100}, {32, 50, 230});
    QCOMPARE(further, (QVector<double>{2, 2}));
}

void TestBenchVerdict::risingCostShows()
{
    const QVector<double> further = costsOfAFurtherUnit({1, 10, 100}, {32, 50, 320});
    QCOMPARE(further, (QVector<double>{2, 3}));
}

QTEST_GUILESS_MAIN(TestBenchVerdict)
#include "test_bench_verdict.moc"
