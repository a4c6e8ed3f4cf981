// The first script that a newcomer runs does what it says.

#include "host_process.h"

#include <QFile>
#include <QRegularExpression>
#include <QtTest>

class TestQuickstart : public QObject
{
    Q_OBJECT

private slots:
    void showsEachStep();
    void scriptOfTheHostGuideRuns();
};

void TestQuickstart::showsEachStep()
{
    const HostOutcome outcome =
        runHost({QStringLiteral(VEXT_SOURCE_DIR "/examples/quickstart.js")});
    QVERIFY2(outcome.endedByItself && outcome.exitCode == 0, outcome.described().constData());
    int from = 0;
    for (const char *part :
         {"rows inserted: 3 - last id: 3\n",
          "id | name   | price | note\n"
          "---+--------+-------+----------\n"
          " 1 | bolt   |  0.25 |\n"
          " 2 | nut    |   0.1 | NULL\n"
          " 3 | washer |  NULL | stainless\n"
          "(3 rows)\n",
          "name:   [ 'bolt', 'nut', 'washer' ]\n", "price: double, NULL in rows [2]\n",
          "result: false\n", "type:   StatementError\n", "no such table: no_such_table\n",
          "open:   true\n", "before:   3\ndeleted:  0\nrestored: 3\n", "tables: [ 'parts' ]\n",
          "views:  [ 'cheap' ]\n", "  Transactions\n", "statements that failed:    1\n",
          "queued: true\nanswer: 42\n"}) {
        const int at = outcome.output.indexOf(QString::fromUtf8(part), from);
        QVERIFY2(at >= 0, part + outcome.described());
        from = at;
    }
    QVERIFY2(outcome.errors.contains(QStringLiteral(" error ")),
             outcome.described().constData());
}

void TestQuickstart::scriptOfTheHostGuideRuns()
{
    QFile guide(QStringLiteral(VEXT_SOURCE_DIR "/docs/hosts.md"));
    QVERIFY(guide.open(QIODevice::ReadOnly));
    const QRegularExpression block(QStringLiteral("```js\n(.*?)```"),
                                   QRegularExpression::DotMatchesEverythingOption);
    const QRegularExpressionMatch match = block.match(QString::fromUtf8(guide.readAll()));
    QVERIFY(match.hasMatch());
    qputenv("TZ", "UTC");
    const HostOutcome outcome = runCode(match.captured(1));
    QVERIFY2(outcome.endedByItself && outcome.exitCode == 0, outcome.described().constData());
    QCOMPARE(outcome.output,
             QStringLiteral("id | note\n---+-----\n 1 |\n 2 | NULL\n(2 rows)\n"
                            "{ list: [ 1, 2 ], when: 1970-01-01T00:00:00.000, host: 'server' }\n"
                            "later\n"));
}

QTEST_GUILESS_MAIN(TestQuickstart)
#include "test_quickstart.moc"
