/// @file
/// What the layer promises on Firebird alone: exact decimals, events without waiting, losses.

#include "database_script.h"
#include "deadline.h"
#include "layer_path.h"
#include "layered_systems.h"

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QThread>
#include <QtTest>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <vector>

namespace
{

const QString Connection = QStringLiteral("firebird");
const QString Embedded = QStringLiteral("Firebird");
const QString Server = QStringLiteral("Firebird server");
const QString Exact = QStringLiteral("VEXT_EXACT_NUMBERS=1");

} // namespace

class TestDriverFirebird : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { useDriverLayer(); }
    void cleanup();

    void decimalKeepsEveryDigit_data();
    void decimalKeepsEveryDigit();
    void decimalsArriveFromEveryKindOfStatement_data() { bothKinds(); }
    void decimalsArriveFromEveryKindOfStatement();
    void largeIntegerArrivesAsItWasBound_data() { bothKinds(); }
    void largeIntegerArrivesAsItWasBound();
    void threeSubscriptionsAreQuickAndTheirEventsArrive_data() { bothKinds(); }
    void threeSubscriptionsAreQuickAndTheirEventsArrive();
    void killedServerIsSeenAndTheWorkerReopens();
    void errorInALaterRowLeavesTheConnectionAlone_data();
    void errorInALaterRowLeavesTheConnectionAlone();
    void errorThatWaitsBehindUnreadRowsIsNoLoss_data() { bothKinds(); }
    void errorThatWaitsBehindUnreadRowsIsNoLoss();
    void longCommitOfALiveServerIsWaitedFor();

private:
    static void bothKinds();
    QSqlDatabase open(const QString &system, const QString &options);

    LayeredSystems m_systems;
};

void TestDriverFirebird::cleanup()
{
    if (!QSqlDatabase::contains(Connection))
        return;
    QSqlDatabase::database(Connection, false).close();
    QSqlDatabase::removeDatabase(Connection);
}

void TestDriverFirebird::bothKinds()
{
    QTest::addColumn<QString>("system");
    QTest::newRow("engine in this process") << Embedded;
    QTest::newRow("server") << Server;
}

QSqlDatabase TestDriverFirebird::open(const QString &system, const QString &options)
{
    ConnectionParameters parameters = m_systems.get(system).parameters();
    parameters.connectOptions = options;
    QSqlDatabase db = parameters.database(Connection);
    db.open();
    return db;
}

// --- Numbers ---

void TestDriverFirebird::decimalKeepsEveryDigit_data()
{
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("number");
    QTest::addColumn<double>("rounded");
    const auto row = [](const char *type, const char *number, double rounded) {
        QTest::addRow("%s %s", type, number)
            << QString::fromUtf8(type) << QString::fromUtf8(number) << rounded;
    };
    row("NUMERIC(18,4)", "12345678901234.5678", 12345678901234.5678);
    row("NUMERIC(18,4)", "-99999999999999.9999", -99999999999999.9999);
    row("NUMERIC(18,4)", "1.1000", 1.1);
    row("NUMERIC(18,18)", "0.123456789012345678", 0.123456789012345678);
    row("DECIMAL(18,2)", "-1234567890123456.78", -1234567890123456.78);
    row("NUMERIC(18,1)", "-922337203685477580.8", -922337203685477580.8);
    row("NUMERIC(9,3)", "123456.789", 123456.789);
    row("NUMERIC(9,3)", "-0.001", -0.001);
    row("NUMERIC(4,2)", "0.30", 0.3);
}

void TestDriverFirebird::decimalKeepsEveryDigit()
{
    QFETCH(QString, type);
    QFETCH(QString, number);
    QFETCH(double, rounded);
    USE_SYSTEM(m_systems, Embedded);
    const QString sql = QStringLiteral("SELECT CAST('%1' AS %2), CAST(NULL AS %2), 7, 'x' "
                                       "FROM rdb$database")
                            .arg(number, type);
    {
        QSqlQuery query(open(Embedded, Exact));
        QVERIFY2(query.exec(sql) && query.next(), qPrintable(query.lastError().text()));
        QCOMPARE(query.value(0).userType(), int(QMetaType::QString));
        QCOMPARE(query.value(0).toString(), number);
        QVERIFY(query.isNull(1));
        QCOMPARE(query.value(2).toInt(), 7);
        QCOMPARE(query.value(3).toString(), QStringLiteral("x"));
    }
    cleanup();
    QSqlQuery plain(open(Embedded, QString()));
    QVERIFY(plain.exec(sql) && plain.next());
    QVERIFY(plain.value(0).userType() != QMetaType::QString);
    QCOMPARE(plain.value(0).toDouble(), rounded);
}

void TestDriverFirebird::decimalsArriveFromEveryKindOfStatement()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QSqlQuery query(open(system, Exact));
    query.exec(QStringLiteral("DROP PROCEDURE doubled"));
    query.exec(QStringLiteral("DROP TABLE amounts"));
    QVERIFY(query.exec(QStringLiteral("CREATE TABLE amounts (id INTEGER, a NUMERIC(18,4))")));
    QVERIFY2(query.exec(QStringLiteral("CREATE PROCEDURE doubled (a NUMERIC(18,4)) RETURNS "
                                       "(b NUMERIC(18,4)) AS BEGIN b = a + a; END")),
             qPrintable(query.lastError().text()));
    const auto bound = [&query](const char *sql, const QVariantList &values) {
        bool done = query.prepare(QString::fromUtf8(sql));
        for (const QVariant &value : values)
            query.addBindValue(value);
        done = done && query.exec() && query.next();
        return done ? query.value(0).toString() : query.lastError().text();
    };
    const QString amount = QStringLiteral("12345678901234.5678");
    // Bound as it is, a text for a decimal would go through a double in Qt's driver.
    QCOMPARE(
        bound("INSERT INTO amounts VALUES (?, CAST(? AS VARCHAR(30))) RETURNING a", {1, amount}),
        amount);
    QCOMPARE(bound("SELECT a FROM amounts WHERE id = ?", {1}), amount);
    QCOMPARE(bound("EXECUTE PROCEDURE doubled(CAST(? AS VARCHAR(30)))", {amount}),
             QStringLiteral("24691357802469.1356"));
    QCOMPARE(
        bound("UPDATE amounts SET a = a + ? WHERE id = 1 RETURNING a", {QStringLiteral("0.0001")}),
        QStringLiteral("12345678901234.5679"));
    // Many rows, with NULLs between them, forward and back.
    for (int id = 2; id <= 40; ++id) {
        query.prepare(QStringLiteral("INSERT INTO amounts VALUES (?, ?)"));
        query.addBindValue(id);
        query.addBindValue(id % 3 ? QVariant(QStringLiteral("%1.5").arg(id))
                                  : QVariant(QVariant::String));
        QVERIFY2(query.exec(), qPrintable(query.lastError().text()));
    }
    QVERIFY(query.exec(QStringLiteral("SELECT id, a FROM amounts WHERE id > 1 ORDER BY id")));
    for (int id = 2; id <= 40; ++id) {
        QVERIFY(query.next());
        QCOMPARE(query.isNull(1), id % 3 == 0);
        QCOMPARE(query.value(1).toString(), id % 3 ? QStringLiteral("%1.5000").arg(id) : QString());
    }
    QVERIFY(query.first());
    QCOMPARE(query.value(1).toString(), QStringLiteral("2.5000"));
}

void TestDriverFirebird::largeIntegerArrivesAsItWasBound()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QSqlQuery query(open(system, QString()));
    query.exec(QStringLiteral("DROP TABLE integers"));
    QVERIFY(query.exec(QStringLiteral("CREATE TABLE integers (a BIGINT)")));
    for (double number : {9007199254740991.0, -9007199254740991.0, 4294967297.0, 0.0}) {
        query.exec(QStringLiteral("DELETE FROM integers"));
        query.prepare(QStringLiteral("INSERT INTO integers VALUES (?)"));
        query.addBindValue(number); // as a script's number comes
        QVERIFY2(query.exec(), qPrintable(query.lastError().text()));
        QVERIFY(query.exec(QStringLiteral("SELECT CAST(a AS VARCHAR(30)) FROM integers")));
        QVERIFY(query.next());
        QCOMPARE(query.value(0).toString(), QString::number(qlonglong(number)));
    }
}

// --- Events ---

void TestDriverFirebird::threeSubscriptionsAreQuickAndTheirEventsArrive()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    DatabaseScript script;
    script.eval(QStringLiteral("var heard = []; function hear(name) { heard.push(name); }"));
    QVERIFY(script.open(QStringLiteral("db"), m_systems.get(system).parameters()));
    script.eval(QStringLiteral("db.event.connect(hear)"));
    qint64 quickestMs = std::numeric_limits<qint64>::max();
    for (const char *name : {"one", "two", "three"}) {
        QElapsedTimer timer;
        timer.start();
        QVERIFY(script.isTrue(QStringLiteral("db.add_event('%1')").arg(QString::fromUtf8(name))));
        quickestMs = std::min(quickestMs, timer.elapsed());
    }
    // Whoever waits in vain for a driver's first event waits for 200 ms each time.
    QVERIFY2(quickestMs < 200, qPrintable(QString::number(quickestMs)));
    QVERIFY(script.isTrue(QStringLiteral("heard.length === 0")));
    for (const char *name : {"three", "one", "two"})
        QVERIFY(script.mustRun(Way::Thread, QStringLiteral("db"),
                               QStringLiteral("EXECUTE BLOCK AS BEGIN POST_EVENT '%1'; END")
                                   .arg(QString::fromUtf8(name))));
    QVERIFY2(script.waitFor(QStringLiteral("heard.length === 3"), 5000),
             qPrintable(script.text(QStringLiteral("heard"))));
    QVERIFY(script.isTrue(QStringLiteral("heard.sort().join() === 'one,three,two'")));
}

// --- Losses ---

void TestDriverFirebird::killedServerIsSeenAndTheWorkerReopens()
{
    USE_SYSTEM(m_systems, Server);
    const QString one = QStringLiteral("SELECT 1 FROM rdb$database");
    DatabaseScript script;
    QVERIFY(script.open(QStringLiteral("db"), m_systems.get(Server).parameters()));
    QVERIFY(script.mustRun(Way::Thread, QStringLiteral("db"), one));
    QVERIFY(script.isTrue(QStringLiteral("db.isOpen")));
    QVERIFY(m_systems.firebirdServer().kill());

    QVERIFY(script.waitFor(QStringLiteral("!db.isOpen")));
    QVERIFY(!script.ask(Way::Thread, QStringLiteral("db"), one));
    QVERIFY(!script.isTrue(QStringLiteral("db.open()")));
    QCOMPARE(script.eval(QStringLiteral("db.lastErrors.type")).toInt32(), 1);

    QVERIFY2(m_systems.firebirdServer().startAgain(),
             qPrintable(m_systems.firebirdServer().error()));
    QVERIFY(script.isTrue(QStringLiteral("db.open()")));
    QVERIFY(script.mustRun(Way::Here, QStringLiteral("db"), one));
    if (!script.ask(Way::Thread, QStringLiteral("db"), one))
        QVERIFY(script.mustRun(Way::Thread, QStringLiteral("db"), one));
}

// --- Errors between rows: a server sends them ahead, like the rows ---

namespace
{

/// Fails with a division by zero behind that many rows.
QString failingBehind(int rows)
{
    return QStringLiteral("EXECUTE BLOCK RETURNS (i INTEGER) AS BEGIN i = 0; WHILE (i < %1) DO "
                          "BEGIN i = i + 1; SUSPEND; END i = 1 / (i - i); SUSPEND; END")
        .arg(rows);
}

/// Reads to the end. @return the number of rows
int rest(QSqlQuery &query)
{
    int rows = 0;
    while (query.next())
        ++rows;
    return rows;
}

} // namespace

void TestDriverFirebird::errorInALaterRowLeavesTheConnectionAlone_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<int>("rows");
    for (const QString &system : {Embedded, Server}) {
        // The client asks for 1,000 at a time, and for the next ones before it has read the last.
        for (int rows : {0, 1, 77, 999, 1000, 1500, 5000})
            QTest::addRow("%s, behind %d rows", qPrintable(system), rows) << system << rows;
    }
}

void TestDriverFirebird::errorInALaterRowLeavesTheConnectionAlone()
{
    QFETCH(QString, system);
    QFETCH(int, rows);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = open(system, QString());
    QSqlQuery query(db);
    query.setForwardOnly(true);
    for (int round = 0; round < 3; ++round) {
        QVERIFY2(query.exec(failingBehind(rows)), qPrintable(query.lastError().text()));
        QCOMPARE(rest(query), rows);
        QCOMPARE(query.lastError().type(), QSqlError::StatementError);
        QCOMPARE(query.lastError().nativeErrorCode(), QStringLiteral("22012"));
        QVERIFY(db.isOpen());
        QVERIFY2(query.exec(QStringLiteral("SELECT 7 FROM rdb$database")) && query.next(),
                 qPrintable(query.lastError().text()));
        QCOMPARE(query.value(0).toInt(), 7);
    }
}

void TestDriverFirebird::errorThatWaitsBehindUnreadRowsIsNoLoss()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    QSqlDatabase db = open(system, QString());
    const QVector<int> rows{300, 999, 1500};
    std::vector<QSqlQuery> halfRead;
    for (int count : rows) {
        QSqlQuery query(db);
        query.setForwardOnly(true);
        QVERIFY2(query.exec(failingBehind(count)), qPrintable(query.lastError().text()));
        QVERIFY(query.next());
        halfRead.push_back(query);
    }
    constexpr int PastTheNextLookMs = 300;
    QElapsedTimer timer;
    timer.start();
    while (!timer.hasExpired(PastTheNextLookMs))
        QVERIFY(db.isOpen());
    for (int i = 0; i < rows.size(); ++i) {
        QSqlQuery &query = halfRead[std::size_t(i)];
        QCOMPARE(rest(query), rows.at(i) - 1);
        QCOMPARE(query.lastError().nativeErrorCode(), QStringLiteral("22012"));
    }
    QVERIFY(db.isOpen());
}

/// A server is asked meanwhile whether it lives; those who have tried wrong passwords get its
/// answers late.
void TestDriverFirebird::longCommitOfALiveServerIsWaitedFor()
{
    constexpr int Guesses = 40;
    constexpr int CommitMs = 4000;
    USE_SYSTEM(m_systems, Server);
    QSqlDatabase db = open(Server, QString());
    const auto run = [&db](const QString &sql) {
        QSqlQuery query(db);
        return query.exec(sql) ? QString() : query.lastError().text();
    };
    run(QStringLiteral("DROP TRIGGER linger"));
    run(QStringLiteral("DROP TABLE lingering"));
    QCOMPARE(run(QStringLiteral("CREATE TABLE lingering (ms INTEGER)")), QString());
    QCOMPARE(run(QStringLiteral("INSERT INTO lingering VALUES (0)")), QString());
    QCOMPARE(run(QStringLiteral(
                 "CREATE TRIGGER linger ON TRANSACTION COMMIT AS DECLARE ms INTEGER; "
                 "DECLARE begun TIMESTAMP; BEGIN SELECT MAX(ms) FROM lingering INTO ms; "
                 "begun = CAST('NOW' AS TIMESTAMP); WHILE (DATEDIFF(MILLISECOND FROM begun TO "
                 "CAST('NOW' AS TIMESTAMP)) < ms) DO BEGIN END END")),
             QString());
    QVERIFY(db.transaction());
    QCOMPARE(run(QStringLiteral("UPDATE lingering SET ms = %1").arg(CommitMs)), QString());
    std::atomic<bool> isOver{false};
    const std::unique_ptr<QThread> guessing(QThread::create([this, &isOver] {
        ConnectionParameters parameters = m_systems.get(Server).parameters();
        parameters.userName.clear();
        parameters.password.clear();
        for (int i = 0; i < Guesses && !isOver; ++i) {
            parameters.database(QStringLiteral("guess")).open();
            QSqlDatabase::removeDatabase(QStringLiteral("guess"));
        }
    }));
    guessing->start();
    QElapsedTimer timer;
    timer.start();
    const bool committed = db.commit();
    const qint64 elapsedMs = timer.elapsed();
    const QString error = db.lastError().text();
    isOver = true;
    guessing->wait();
    QVERIFY2(committed, qPrintable(QStringLiteral("after %1 ms: %2").arg(elapsedMs).arg(error)));
    QVERIFY(elapsedMs >= CommitMs);
    QVERIFY(db.isOpen());
    db.transaction();
    run(QStringLiteral("UPDATE lingering SET ms = 0"));
    db.commit();
    QCOMPARE(run(QStringLiteral("DROP TRIGGER linger")), QString());
}

QTEST_GUILESS_MAIN(TestDriverFirebird)

#include "test_driver_firebird.moc"
