// The quick conversion of local times against QDateTime's own, across changes of the clock.

#include "local_clock.h"

#include <QRandomGenerator>
#include <QtTest>

#include <ctime>

class TestLocalClock : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();
    void everyTimeIsWhereQtHasIt_data();
    void everyTimeIsWhereQtHasIt();
    void timesOfOrdinaryDaysAreKnown_data();
    void timesOfOrdinaryDaysAreKnown();
    void daysWhoseClockChangesAreLeftToQt();
    void invalidAndFarTimesAreLeftToQt();
    void timesThatAreNotLocal();
    void newClockFollowsTheZone();

private:
    void setZone(const char *zone);
};

void TestLocalClock::setZone(const char *zone)
{
    if (zone)
        qputenv("TZ", zone);
    else
        qunsetenv("TZ");
    tzset();
}

void TestLocalClock::cleanup()
{
    setZone(nullptr);
}

void TestLocalClock::everyTimeIsWhereQtHasIt_data()
{
    QTest::addColumn<QByteArray>("zone");
    QTest::newRow("unset") << QByteArray();
    // Half and quarter hours, changes at midnight, a day left out, two clocks a year of half an
    // hour, summer time that is interrupted, changes of the standard time, rules without a file.
    for (const char *zone : {"UTC",
                             "Europe/Berlin",
                             "Europe/London",
                             "Europe/Moscow",
                             "America/New_York",
                             "America/Sao_Paulo",
                             "America/St_Johns",
                             "America/Caracas",
                             "Asia/Kathmandu",
                             "Asia/Tehran",
                             "Asia/Pyongyang",
                             "Asia/Gaza",
                             "Africa/Casablanca",
                             "Africa/Monrovia",
                             "Australia/Lord_Howe",
                             "Antarctica/Troll",
                             "Pacific/Apia",
                             "Pacific/Kwajalein",
                             "Pacific/Chatham",
                             "CET-1CEST,M3.5.0,M10.5.0/3",
                             "nonsense"})
        QTest::newRow(zone) << QByteArray(zone);
}

void TestLocalClock::everyTimeIsWhereQtHasIt()
{
    QFETCH(QByteArray, zone);
    setZone(zone.isEmpty() ? nullptr : zone.constData());
    LocalClock clock;
    const auto check = [&clock](const QDateTime &time) {
        double ms = 0;
        const bool known = clock.toEpochMs(time, &ms);
        if (known && ms != double(time.toMSecsSinceEpoch()))
            QTest::qFail(qPrintable(time.toString(Qt::ISODateWithMs)), __FILE__, __LINE__);
        const QDateTime midnight(time.date(), QTime(0, 0));
        if (clock.toEpochMs(time.date(), &ms) && ms != double(midnight.toMSecsSinceEpoch()))
            QTest::qFail(qPrintable(time.date().toString(Qt::ISODate)), __FILE__, __LINE__);
    };
    // Around each change of the offset from 1960 to 2045, by the quarter of an hour...
    const qint64 end = QDateTime(QDate(2045, 1, 1), QTime(), Qt::UTC).toSecsSinceEpoch();
    int before = QDateTime::fromSecsSinceEpoch(-315360000).offsetFromUtc();
    for (qint64 t = -315360000; t < end && !QTest::currentTestFailed(); t += 21600) {
        const int offset = QDateTime::fromSecsSinceEpoch(t).offsetFromUtc();
        if (offset == before)
            continue;
        before = offset;
        const QDateTime utc = QDateTime::fromSecsSinceEpoch(t, Qt::UTC);
        for (int quarter = -200; quarter < 200; ++quarter) {
            const QDateTime shifted = utc.addSecs(quarter * 900);
            check(QDateTime(shifted.date(), shifted.time())); // as a text names it
            check(shifted.toLocalTime());                     // as an instant is shown
        }
    }
    // ...and anywhere from the year 1 to 3100.
    QRandomGenerator random(20);
    for (int i = 0; i < 20000 && !QTest::currentTestFailed(); ++i) {
        const QDate date(1 + int(random.bounded(3100)), 1 + int(random.bounded(12)),
                         1 + int(random.bounded(28)));
        check(QDateTime(date, QTime::fromMSecsSinceStartOfDay(int(random.bounded(86400000)))));
    }
}

void TestLocalClock::timesOfOrdinaryDaysAreKnown_data()
{
    QTest::addColumn<QByteArray>("zone");
    QTest::newRow("set") << QByteArray("Europe/Berlin");
    QTest::newRow("unset") << QByteArray();
}

/// Otherwise all the tests above would hold for a clock that knows nothing.
void TestLocalClock::timesOfOrdinaryDaysAreKnown()
{
    QFETCH(QByteArray, zone);
    setZone(zone.isEmpty() ? nullptr : zone.constData());
    LocalClock clock;
    int known = 0;
    int all = 0;
    double ms = 0;
    for (QDate date(1971, 1, 1); date.year() < 2037; date = date.addDays(1), ++all)
        known += clock.toEpochMs(QDateTime(date, QTime(12, 0)), &ms) && clock.toEpochMs(date, &ms);
    QVERIFY2(known > all * 95 / 100, qPrintable(QString::number(known)));
}

void TestLocalClock::daysWhoseClockChangesAreLeftToQt()
{
    setZone("Europe/Berlin");
    LocalClock clock;
    double ms = 0;
    for (const QDate &date : {QDate(2021, 3, 28), QDate(2021, 10, 31)}) {
        for (int hour = 0; hour < 24; ++hour)
            QVERIFY(!clock.toEpochMs(QDateTime(date, QTime(hour, 30)), &ms));
        QVERIFY(!clock.toEpochMs(date, &ms));
    }
    QVERIFY(clock.toEpochMs(QDateTime(QDate(2021, 4, 10), QTime(2, 30)), &ms));
    QCOMPARE(ms, 1618014600000.0);
}

void TestLocalClock::invalidAndFarTimesAreLeftToQt()
{
    LocalClock clock;
    double ms = 0;
    QVERIFY(!clock.toEpochMs(QDateTime(), &ms));
    QVERIFY(!clock.toEpochMs(QDate(), &ms));
    for (const int year : {-4000, -1, 1, 1899, 1969, 2038, 9999, 200000})
        QVERIFY2(!clock.toEpochMs(QDateTime(QDate(year, 6, 1), QTime(1, 0)), &ms),
                 qPrintable(QString::number(year)));
    QVERIFY(clock.toEpochMs(QDateTime(QDate(2037, 6, 1), QTime(1, 0)), &ms));
}

void TestLocalClock::timesThatAreNotLocal()
{
    setZone("Europe/Berlin");
    LocalClock clock;
    double ms = 0;
    const QDate change(2021, 3, 28);
    QVERIFY(clock.toEpochMs(QDateTime(change, QTime(2, 30), Qt::UTC), &ms));
    QCOMPARE(ms, 1616898600000.0);
    QVERIFY(!clock.toEpochMs(QDateTime(change, QTime(2, 30), Qt::OffsetFromUTC, 3600), &ms));
}

void TestLocalClock::newClockFollowsTheZone()
{
    const QDateTime time(QDate(2021, 6, 10), QTime(12, 0));
    setZone("Europe/Berlin");
    double first = 0;
    QVERIFY(LocalClock().toEpochMs(time, &first));
    qputenv("TZ", "Asia/Kathmandu"); // without a word to the C library
    double second = 0;
    QVERIFY(LocalClock().toEpochMs(time, &second));
    QCOMPARE(first - second, double((5 * 60 + 45 - 120) * 60000));
}

QTEST_GUILESS_MAIN(TestLocalClock)
#include "test_local_clock.moc"
