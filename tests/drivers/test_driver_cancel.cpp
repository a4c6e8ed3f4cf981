/// @file
/// Cancelling through the layer's drivers: each phase of a statement ends at once, and no statement
/// is ever hit but the one that was meant.

#include "deadline.h"
#include "layer_path.h"
#include "layered_systems.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QThread>
#include <QtTest>

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>

namespace
{

constexpr int PromptMs = 500;
/// A pause of the machine delays one attempt, a promise that is not kept all of them.
constexpr int Attempts = 5;
constexpr int AskAgainMs = 100; // as the plugin does
/// A limit for statements, and when one that has it is over at the latest.
constexpr int LimitMs = 300;
constexpr int TimeOutMs = 1000;

/// Statements of one system.
struct SystemSql {
    const char *system;
    const char *compute; ///< lasts until it is cancelled
    const char *rows;    ///< %1 rows of one column
    const char *count;   ///< counts up to the bound value
    const char *countTo; ///< counts up to %1
};

const SystemSql &sqlOf(const QString &system)
{
    static const SystemSql all[] = {
        {"PostgreSQL", "SELECT pg_sleep(120)", "SELECT g FROM generate_series(1, %1) g",
         "SELECT count(*) FROM generate_series(1, ?)",
         "SELECT count(*) FROM generate_series(1, %1)"},
        {"SQLite file",
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT count(*) FROM n",
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT %1) SELECT i FROM n",
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT ?) "
         "SELECT count(*) FROM n",
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT %1) "
         "SELECT count(*) FROM n"},
        {"MariaDB", "SELECT SLEEP(120)", "SELECT seq FROM seq_1_to_%1",
         "SELECT count(*) FROM seq_1_to_100000000 WHERE seq <= ?",
         "SELECT count(*) FROM seq_1_to_%1"},
        {"Firebird",
         "EXECUTE BLOCK RETURNS (n INTEGER) AS BEGIN n = 0; WHILE (1 = 1) DO n = MOD(n + 1, 9); "
         "SUSPEND; END",
         "EXECUTE BLOCK RETURNS (i INTEGER) AS BEGIN i = 0; WHILE (i < %1) DO BEGIN i = i + 1; "
         "SUSPEND; END END",
         "EXECUTE BLOCK (m INTEGER = ?) RETURNS (i INTEGER) AS BEGIN i = 0; "
         "WHILE (i < m) DO i = i + 1; SUSPEND; END",
         "EXECUTE BLOCK RETURNS (i INTEGER) AS BEGIN i = 0; WHILE (i < %1) DO i = i + 1; "
         "SUSPEND; END"},
        {"ODBC to PostgreSQL", "SELECT pg_sleep(120)", "SELECT g FROM generate_series(1, %1) g",
         "SELECT count(*) FROM generate_series(1, ?)",
         "SELECT count(*) FROM generate_series(1, %1)"},
        {"ODBC to SQLite",
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT count(*) FROM n",
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT %1) SELECT i FROM n",
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT ?) "
         "SELECT count(*) FROM n",
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n LIMIT %1) "
         "SELECT count(*) FROM n"},
    };
    const bool isFirebird = system.startsWith(QLatin1String("Firebird"));
    for (const SystemSql &sql : all) {
        if ((isFirebird ? QStringLiteral("Firebird") : system) == QLatin1String(sql.system))
            return sql;
    }
    qFatal("no statements for %s", qPrintable(system));
}

QString utf8(const char *text)
{
    return QString::fromUtf8(text);
}

bool isCancelled(const QSqlError &error)
{
    return error.type() == QSqlError::StatementError &&
           error.databaseText().startsWith(QLatin1String("cancelled"));
}

/// One connection in a thread of its own, where the test's functions run one after the other.
class Worker : public QThread
{
public:
    Worker(const ConnectionParameters &parameters, QString name)
        : m_parameters(parameters)
        , m_name(std::move(name))
    {
    }
    ~Worker() override { wait(); }

    /// Runs the work on an open connection, in the thread.
    void begin(std::function<void(QSqlDatabase &)> work)
    {
        m_work = std::move(work);
        start();
    }
    /// While the work runs; null before and after.
    QSqlDriver *driver() const { return m_driver.load(); }
    /// Asks to cancel as long as the work runs.
    /// @return milliseconds from the first request to the end of the work
    qint64 cancelUntilEnd()
    {
        QElapsedTimer timer;
        timer.start();
        while (!isFinished()) {
            {
                const std::lock_guard<std::mutex> locker(m_mutex);
                if (QSqlDriver *driver = m_isSpared ? nullptr : m_driver.load())
                    driver->cancelQuery();
            }
            wait(AskAgainMs);
        }
        return timer.elapsed();
    }
    /// What the work does from here on is asked to end by no cancelUntilEnd(). For the work.
    void spare()
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_isSpared = true;
    }
    /// One request, unless the connection is gone.
    void cancelOnce()
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        if (QSqlDriver *driver = m_driver)
            driver->cancelQuery();
    }

protected:
    void run() override
    {
        {
            QSqlDatabase db = m_parameters.database(m_name);
            if (db.open()) {
                setDriver(db.driver());
                m_work(db);
                setDriver(nullptr);
            }
        }
        QSqlDatabase::removeDatabase(m_name);
    }

private:
    void setDriver(QSqlDriver *driver)
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_driver = driver;
    }

    ConnectionParameters m_parameters;
    QString m_name;
    std::function<void(QSqlDatabase &)> m_work;
    std::mutex m_mutex;
    bool m_isSpared = false; ///< m_mutex
    std::atomic<QSqlDriver *> m_driver{nullptr};
};

} // namespace

class TestDriverCancel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void driverSaysThatItCanCancel_data() { everySystem(); }
    void driverSaysThatItCanCancel();
    void computationEndsAtOnce_data() { everySystem(); }
    void computationEndsAtOnce();
    void preparedComputationEndsAtOnce_data() { everySystem(); }
    void preparedComputationEndsAtOnce();
    void longFetchEndsAtOnce_data() { everySystem(); }
    void longFetchEndsAtOnce();
    void lockWaitEndsAtOnce_data() { everySystem(); }
    void lockWaitEndsAtOnce();
    void lockWaitOfAPragmaEndsAtOnce_data();
    void lockWaitOfAPragmaEndsAtOnce();
    void cancelOfAnIdleConnectionDoesNothing_data() { everySystem(); }
    void cancelOfAnIdleConnectionDoesNothing();
    void noStatementIsHitByTheCancelOfAnother_data() { everySystem(); }
    void noStatementIsHitByTheCancelOfAnother();
    void requestThatIsStuckHoldsNobodyElseUp();
    void cancelRacesWithOpenAndClose_data() { everySystem(); }
    void cancelRacesWithOpenAndClose();
    void timeLimitEndsAStatementWithATextOfItsOwn_data() { everySystem(); }
    void timeLimitEndsAStatementWithATextOfItsOwn();

private:
    void everySystem();
    ConnectionParameters parameters(const QString &system)
    {
        return m_systems.get(system).parameters();
    }
    using Work = std::function<QSqlError(QSqlDatabase &)>;
    void endsAtOnce(const QString &system, const Work &work);
    void waitForALock(const QString &system, const QString &before);
    void cancelOne(const QString &system, const Work &work, qint64 *ms);
    void timeOutOne(const QSqlDatabase &db, const QString &system, qint64 *ms);

    LayeredSystems m_systems;
};

void TestDriverCancel::initTestCase()
{
    useDriverLayer();
}

void TestDriverCancel::everySystem()
{
    QTest::addColumn<QString>("system");
    for (const QString &system : LayeredSystems::names())
        QTest::newRow(qPrintable(system)) << system;
    QTest::newRow("Firebird server") << QStringLiteral("Firebird server");
}

void TestDriverCancel::driverSaysThatItCanCancel()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    {
        QSqlDatabase db = parameters(system).database(QStringLiteral("can"));
        QVERIFY2(db.open(), qPrintable(db.lastError().text()));
        QVERIFY(db.driver()->hasFeature(QSqlDriver::CancelQuery));
        db.close();
    }
    QSqlDatabase::removeDatabase(QStringLiteral("can"));
}

void TestDriverCancel::endsAtOnce(const QString &system, const Work &work)
{
    qint64 ms = scaledMs(PromptMs);
    for (int i = 0; i < Attempts && ms >= scaledMs(PromptMs); ++i) {
        cancelOne(system, work, &ms);
        if (QTest::currentTestFailed())
            return;
    }
    QVERIFY2(ms < scaledMs(PromptMs), qPrintable(QString::number(ms)));
}

/// Runs the work in another thread, cancels it, and looks at the connection afterwards.
/// @param ms gets how long that took; where the connection was given up, as it is when a request
/// may come late on a machine that stands still, longer than anything may
void TestDriverCancel::cancelOne(const QString &system, const Work &work, qint64 *ms)
{
    Worker worker(parameters(system), QStringLiteral("cancelled"));
    std::atomic<bool> begun{false};
    QSqlError error;
    bool isOpen = false;
    bool nextWorks = false;
    QString nextText; ///< whether the connection was kept, and the error of the next statement
    worker.begin([&](QSqlDatabase &db) {
        begun = true;
        error = work(db);
        worker.spare();
        isOpen = db.isOpen();
        if (!isOpen)
            db.open();
        QSqlQuery next(db);
        nextWorks = next.exec(LayeredSystems::selectWithoutTable(system, QStringLiteral("1"))) &&
                    next.next();
        nextText = QStringLiteral("%1: %2").arg(isOpen).arg(next.lastError().text());
    });
    QTRY_VERIFY(begun);
    QTest::qWait(150); // the statement is under way; were it not, the request would be repeated
    QVERIFY(!worker.isFinished());
    *ms = worker.cancelUntilEnd();
    QVERIFY2(isCancelled(error), qPrintable(error.text()));
    if (!isOpen)
        *ms = std::numeric_limits<int>::max();
    QVERIFY2(nextWorks, qPrintable(nextText));
}

void TestDriverCancel::computationEndsAtOnce()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    endsAtOnce(system, [&](QSqlDatabase &db) {
        QSqlQuery query(db);
        // Some systems compute when the first row is asked for.
        if (query.exec(utf8(sqlOf(system).compute)))
            query.next();
        return query.lastError();
    });
}

void TestDriverCancel::preparedComputationEndsAtOnce()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    endsAtOnce(system, [&](QSqlDatabase &db) {
        QSqlQuery query(db);
        query.prepare(utf8(sqlOf(system).count));
        query.addBindValue(1000000000);
        if (query.exec())
            query.next();
        return query.lastError();
    });
}

void TestDriverCancel::longFetchEndsAtOnce()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    endsAtOnce(system, [&](QSqlDatabase &db) {
        QSqlQuery query(db);
        query.setForwardOnly(true);
        if (!query.exec(utf8(sqlOf(system).rows).arg(1000000000)))
            return query.lastError();
        while (query.next()) {
        }
        return query.lastError();
    });
}

void TestDriverCancel::lockWaitEndsAtOnce()
{
    QFETCH(QString, system);
    waitForALock(system, QString());
}

void TestDriverCancel::lockWaitOfAPragmaEndsAtOnce_data()
{
    QTest::addColumn<QString>("system");
    for (const char *system : {"SQLite file", "ODBC to SQLite"})
        QTest::newRow(system) << system;
}

void TestDriverCancel::lockWaitOfAPragmaEndsAtOnce()
{
    QFETCH(QString, system);
    waitForALock(system, QStringLiteral("PRAGMA busy_timeout = 120000"));
}

void TestDriverCancel::waitForALock(const QString &system, const QString &before)
{
    USE_SYSTEM(m_systems, system);
    {
        QSqlDatabase holder = parameters(system).database(QStringLiteral("holder"));
        QVERIFY2(holder.open(), qPrintable(holder.lastError().text()));
        QSqlQuery query(holder);
        query.exec(QStringLiteral("DROP TABLE locked"));
        QVERIFY(
            query.exec(QStringLiteral("CREATE TABLE locked (id INTEGER PRIMARY KEY, n INTEGER)")));
        QVERIFY(query.exec(QStringLiteral("INSERT INTO locked VALUES (1, 0)")));
        QVERIFY(holder.transaction());
        QVERIFY(query.exec(QStringLiteral("UPDATE locked SET n = 1 WHERE id = 1")));
        endsAtOnce(system, [&](QSqlDatabase &db) {
            QSqlQuery waiting(db);
            if (!before.isEmpty() && !waiting.exec(before))
                return waiting.lastError();
            waiting.exec(QStringLiteral("UPDATE locked SET n = 2 WHERE id = 1"));
            return waiting.lastError();
        });
        QVERIFY(holder.commit());
        holder.close();
    }
    QSqlDatabase::removeDatabase(QStringLiteral("holder"));
}

void TestDriverCancel::cancelOfAnIdleConnectionDoesNothing()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    {
        QSqlDatabase db = parameters(system).database(QStringLiteral("idle"));
        QVERIFY2(db.open(), qPrintable(db.lastError().text()));
        const QString sql = LayeredSystems::selectWithoutTable(system, QStringLiteral("1"));
        for (int i = 0; i < 20; ++i) {
            db.driver()->cancelQuery();
            QSqlQuery query(db);
            QVERIFY2(query.exec(sql), qPrintable(query.lastError().text()));
            QVERIFY(query.next());
            QVERIFY(!query.next());
            QVERIFY(!query.lastError().isValid());
            db.driver()->cancelQuery();
        }
        db.close();
    }
    QSqlDatabase::removeDatabase(QStringLiteral("idle"));
}

namespace
{

/// The longest statements that are common on a system: of those that give rows, and of those that
/// count.
struct Lengths {
    int rows;
    int count;
};

constexpr int Longest = 200000;

Lengths commonOn(const QString &system, QRandomGenerator &random)
{
    // SQLite's ODBC driver copies all rows of a result, several times.
    if (system == QLatin1String("ODBC to SQLite"))
        return {80, 80};
    // A request opens a connection first: half of the time it is to find the statement still
    // running. What is quickly over meets it at its calls.
    if (system == QLatin1String("Firebird server"))
        return {3000, random.bounded(2) == 0 ? Longest : 3000};
    return {3000, 3000};
}

/// Of what is asked to end one statement in ten is long. Of the others one in a hundred is: all
/// their rows are read, and a request that comes too late finds one that is common.
constexpr int OwnLong = 10;
constexpr int OtherLong = 100;

/// Runs one statement of a random kind and length, one in @p oneLongIn a long one. @return its
/// error
QSqlError runAny(QSqlDatabase &db, const QString &system, QRandomGenerator &random, int oneLongIn)
{
    const SystemSql &sql = sqlOf(system);
    const Lengths common = commonOn(system, random);
    const int kind = random.bounded(4);
    const bool counts = kind < 2;
    int most = counts ? common.count : common.rows;
    if (random.bounded(oneLongIn) == 0)
        most = system == QLatin1String("ODBC to SQLite") ? 5000 : Longest;
    const int length = 1 + random.bounded(most);
    QSqlQuery query(db);
    query.setForwardOnly(random.bounded(2) == 0);
    switch (kind) {
    case 0:
        query.prepare(utf8(sql.count));
        query.addBindValue(length);
        query.exec();
        break;
    case 1:
        query.exec(utf8(sql.countTo).arg(length));
        break;
    default:
        query.exec(utf8(sql.rows).arg(length));
    }
    // Some leave rows behind.
    int rows = 0;
    const int wanted = random.bounded(2) == 0 ? length + 1 : random.bounded(length + 1);
    while (!query.lastError().isValid() && rows < wanted && query.next())
        ++rows;
    return query.lastError();
}

} // namespace

namespace
{

constexpr int FewestRounds = 200;

/// Where a request opens a connection, or the engine works in this very process, a round lasts
/// long: half a minute is enough for a system. What makes the program slower makes fewer of them.
int roundsOn(const QString &system)
{
    int rounds = 2000;
    if (system == QLatin1String("SQLite file"))
        rounds = 3000;
    else if (system == QLatin1String("Firebird") || system == QLatin1String("ODBC to PostgreSQL"))
        rounds = 1000;
    else if (system == QLatin1String("Firebird server"))
        rounds = 500;
    return std::max(rounds / scaledMs(1), FewestRounds);
}

} // namespace

/// Requests come only while odd statements run, and every request has returned before an even one
/// begins: an even statement that fails was hit by a request that was not its own.
void TestDriverCancel::noStatementIsHitByTheCancelOfAnother()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    bool given = false;
    const int seedGiven = qEnvironmentVariableIntValue("VEXT_TEST_SEED", &given);
    const quint32 seed = given ? quint32(seedGiven) : QRandomGenerator::global()->generate();
    qDebug("seed %u", seed);
    const int rounds = roundsOn(system);
    std::mutex window;
    bool isOpen = false; // window
    int hit = 0;
    int wrong = 0;
    int givenUp = 0;
    QString wrongText;
    Worker worker(parameters(system), QStringLiteral("racing"));
    worker.begin([&](QSqlDatabase &db) {
        QRandomGenerator random(seed);
        const auto setWindow = [&](bool open) {
            const std::lock_guard<std::mutex> locker(window);
            isOpen = open;
        };
        for (int round = 0; round < rounds && wrong == 0; ++round) {
            setWindow(true);
            const QSqlError own = runAny(db, system, random, OwnLong);
            setWindow(false);
            hit += isCancelled(own) ? 1 : 0;
            if (own.isValid() && !isCancelled(own) && db.isOpen()) {
                ++wrong;
                wrongText = QStringLiteral("odd: ") + own.text();
            }
            // A request that may come late costs the connection, which says so.
            if (!db.isOpen() && db.open())
                ++givenUp;
            const QSqlError other = runAny(db, system, random, OtherLong);
            if (other.isValid()) {
                ++wrong;
                wrongText = other.text();
            }
        }
    });
    QRandomGenerator random(seed + 1);
    while (!worker.isFinished()) {
        {
            const std::lock_guard<std::mutex> locker(window);
            if (isOpen)
                worker.cancelOnce();
        }
        QThread::usleep(random.bounded(2000u));
    }
    worker.wait(); // what it has counted is ours from here on
    QVERIFY2(wrong == 0, qPrintable(QStringLiteral("%1 (seed %2)").arg(wrongText).arg(seed)));
    QVERIFY2(hit > 0, "no statement was cancelled at all");
    QVERIFY2(givenUp <= hit / 10, qPrintable(QString::number(givenUp)));
    qDebug("%d of %d cancelled, %d hit wrongly, %d connections given up", hit, rounds, wrong,
           givenUp);
}

/// The end of a cancelled statement waits for a request that got stuck. Another statement is still
/// half read meanwhile, so whoever cancels has something to ask for, and must not wait as well.
void TestDriverCancel::requestThatIsStuckHoldsNobodyElseUp()
{
    const QString system = QStringLiteral("PostgreSQL");
    USE_SYSTEM(m_systems, system);
    std::atomic<int> backend{0};
    std::atomic<bool> isOver{false};
    Worker worker(parameters(system), QStringLiteral("stuck"));
    worker.begin([&](QSqlDatabase &db) {
        QSqlQuery half(db);
        half.exec(QStringLiteral("SELECT pg_backend_pid() FROM generate_series(1, 9)"));
        half.next();
        backend = half.value(0).toInt();
        QSqlQuery(db).exec(QStringLiteral("SELECT pg_sleep(1)"));
        isOver = true;
    });
    {
        QSqlDatabase observer = parameters(system).database(QStringLiteral("observer"));
        QVERIFY2(observer.open(), qPrintable(observer.lastError().text()));
        const auto isIn = [&](const char *state) {
            QSqlQuery query(observer);
            return query.exec(QStringLiteral("SELECT 1 FROM pg_stat_activity WHERE pid = %1 AND "
                                             "query LIKE '%pg_sleep%' AND state = '%2'")
                                  .arg(backend.load())
                                  .arg(QLatin1String(state))) &&
                   query.next();
        };
        QVERIFY(waitUntil([&] { return isIn("active"); }));
        // Its server takes requests and answers none; sessions go on.
        const auto postmaster = pid_t(m_systems.postgres().pid());
        QVERIFY(::kill(postmaster, SIGSTOP) == 0);
        const auto goOn = qScopeGuard([postmaster] { ::kill(postmaster, SIGCONT); });
        worker.cancelOnce();
        QVERIFY(waitUntil([&] { return isIn("idle"); }));
        for (int i = 0; i < 20; ++i) {
            worker.cancelOnce();
            QTest::qWait(20);
        }
        QVERIFY(!isOver);
        QVERIFY(waitUntil([&] { return isOver.load(); }));
        observer.close();
    }
    QSqlDatabase::removeDatabase(QStringLiteral("observer"));
    QVERIFY(worker.wait());
}

void TestDriverCancel::cancelRacesWithOpenAndClose()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    int failed = 0;
    Worker worker(parameters(system), QStringLiteral("reopening"));
    worker.begin([&](QSqlDatabase &db) {
        QRandomGenerator random(7);
        for (int round = 0; round < 30; ++round) {
            for (int i = 0; i < 5; ++i)
                runAny(db, system, random, OwnLong);
            db.close();
            failed += db.open() ? 0 : 1;
        }
    });
    while (!worker.isFinished()) {
        worker.cancelOnce();
        QThread::usleep(300);
    }
    worker.wait(); // as above
    QCOMPARE(failed, 0);
}

void TestDriverCancel::timeLimitEndsAStatementWithATextOfItsOwn()
{
    QFETCH(QString, system);
    USE_SYSTEM(m_systems, system);
    ConnectionParameters limited = parameters(system);
    if (!limited.connectOptions.isEmpty())
        limited.connectOptions += QLatin1Char(';');
    limited.connectOptions += QStringLiteral("VEXT_STATEMENT_TIMEOUT=%1").arg(LimitMs);
    {
        QSqlDatabase db = limited.database(QStringLiteral("limited"));
        QVERIFY2(db.open(), qPrintable(db.lastError().text()));
        qint64 ms = scaledMs(TimeOutMs);
        for (int i = 0; i < Attempts && ms >= scaledMs(TimeOutMs); ++i) {
            timeOutOne(db, system, &ms);
            if (QTest::currentTestFailed())
                return;
        }
        QVERIFY2(ms < scaledMs(TimeOutMs), qPrintable(QString::number(ms)));
        db.close();
    }
    QSqlDatabase::removeDatabase(QStringLiteral("limited"));
}

void TestDriverCancel::timeOutOne(const QSqlDatabase &db, const QString &system, qint64 *ms)
{
    QSqlQuery query(db);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!query.exec(utf8(sqlOf(system).compute)) || !query.next());
    *ms = timer.elapsed();
    QVERIFY2(*ms >= LimitMs - 10, qPrintable(QString::number(*ms)));
    QCOMPARE(query.lastError().type(), QSqlError::StatementError);
    QVERIFY2(!isCancelled(query.lastError()), qPrintable(query.lastError().text()));
    QVERIFY(db.isOpen());
    QVERIFY(query.exec(LayeredSystems::selectWithoutTable(system, QStringLiteral("1"))));
}

QTEST_GUILESS_MAIN(TestDriverCancel)

#include "test_driver_cancel.moc"
