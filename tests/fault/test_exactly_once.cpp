/// @file
/// Every task that was accepted is completed once, whatever happens around it. The order of events
/// is chosen at random; a failing run is repeated by setting VEXT_TEST_SEED to the seed it printed.
#include "thread_fixture.h"

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <memory>
#include <random>

namespace
{

/// The script's books: what was accepted, and how often each was completed.
/// `submit(db, kind, sql)` queues one task: kind 0 with a callback, 1 with a callback that throws,
/// 2 with one that queues another, 3 without one.
const char books[] = R"JS(
var accepted = 0, completed = 0, twice = 0, unknown = 0, disorder = 0;
var open = {};                // numbers accepted and not yet completed
var nextNumber = 1;
var lastOf = {};              // by connection: the last number delivered to a callback
var openOf = {};              // by connection: how many of its tasks are not completed
var silentAccepted = 0, silentCompleted = 0;
var succeeded = [];

function close_(who, number, result, error) {
    if (open[number] !== undefined) {
        delete open[number];
        --openOf[who];
        ++completed;
    } else if (number < nextNumber) {
        ++twice;
    } else {
        ++unknown;
    }
    if (lastOf[who] !== undefined && lastOf[who] > number)
        ++disorder;
    lastOf[who] = number;
    if (error === false && result && result.fields !== undefined)
        succeeded.push(number);
}

function watch(db) {
    db.query_finish.connect(function () { ++silentCompleted; });
}

function submit(db, who, kind, sql) {
    var number = nextNumber++;
    var text = typeof sql == 'function' ? sql(number) : sql;
    var callback = function (result, error) {
        close_(who, number, result, error);
        if (kind == 1)
            throw new Error('of a callback');
        if (kind == 2)
            submit(db, who, 0, sql);
    };
    open[number] = true;
    var ok = kind == 3 ? db.query_thread(text) : db.query_thread(callback, text);
    if (kind == 3 || !ok)
        delete open[number];
    if (ok && kind == 3)
        ++silentAccepted;
    else if (ok)
        ++accepted;
    if (ok && kind != 3)
        openOf[who] = (openOf[who] || 0) + 1;
    return ok;
}

function openCount() {
    var n = 0;
    for (var number in open)
        ++n;
    return n;
}
)JS";

/// Passes a time too short to sleep.
void spin(int us)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.nsecsElapsed() < qint64(us) * 1000)
        continue;
}

QSqlError lostError()
{
    return stubError(QSqlError::ConnectionError, QStringLiteral("lost"));
}

} // namespace

class ExactlyOnce : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { Stress::seed(); }
    void init();
    void cleanup();

    void stubTasksSurviveStopsClosesAndFailures_data();
    void stubTasksSurviveStopsClosesAndFailures();
    void sqliteRowsMatchTheSuccessesDelivered();
    void stopLosesNoTaskThatRacesWithIt();
    void idleEndLosesNoTaskThatRacesWithIt();
    void connectionDeletedInItsCallbackDeliversEachTaskAtMostOnce();
    void connectionsDeletedAtRandomDeliverEachTaskAtMostOnce();
    void engineDestroyedWithRunningThreadsLeavesNothing();
    void statisticsOfAnotherEnginesThreadDisturbNothing();

private:
    int pick(int from, int to) { return std::uniform_int_distribution<int>(from, to)(m_random); }
    bool chance(int percent) { return pick(1, 100) <= percent; }
    QScriptValue call(const QString &code) { return m_script->eval(code); }
    int number(const QString &expression) { return m_script->eval(expression).toInt32(); }
    void makeScript(const QString &driver = QStringLiteral("STUB"));
    void verifyBooks();
    void addStubRules();
    /// Queues a random batch from script code.
    void submitSome(const QString &who);
    /// Does one thing that ends or hinders the thread.
    void disturb(VEXT_SQL *db);
    /// Calls two functions from two timers, as often as said.
    void run(int rounds, const std::function<void()> &queue, const std::function<void()> &disturb);
    QString booksText();

    std::mt19937 m_random;
    bool m_commands = false; // transaction commands among the tasks
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<StubServer> m_server;
    std::unique_ptr<ThreadFixture> m_script;
};

void ExactlyOnce::init()
{
    m_random.seed(Stress::seed());
    m_commands = false;
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    m_server = std::make_unique<StubServer>(QStringLiteral("STUB"));
}

void ExactlyOnce::cleanup()
{
    m_script.reset();
    drainEvents();
    QVERIFY2(m_server->liveResults() == 0, qPrintable(m_server->record()));
    QVERIFY2(m_server->liveDrivers() == 0, qPrintable(m_server->record()));
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    m_server.reset();
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

void ExactlyOnce::makeScript(const QString &driver)
{
    m_script = std::make_unique<ThreadFixture>(driver);
    m_script->eval(QString::fromLatin1(books));
}

QString ExactlyOnce::booksText()
{
    return QStringLiteral("seed %1: %2")
        .arg(Stress::seed())
        .arg(m_script->json(QStringLiteral(
            "{accepted: accepted, completed: completed, twice: twice, unknown: unknown, "
            "disorder: disorder, silentAccepted: silentAccepted, "
            "silentCompleted: silentCompleted, open: open}")));
}

void ExactlyOnce::verifyBooks()
{
    m_script->host.waitForScript(
        QStringLiteral("openCount() == 0 && silentAccepted == silentCompleted"), 20000);
    drainEvents();
    const QString text = booksText();
    QVERIFY2(number(QStringLiteral("openCount()")) == 0, qPrintable(text));
    QVERIFY2(number(QStringLiteral("accepted - completed")) == 0, qPrintable(text));
    QVERIFY2(number(QStringLiteral("silentAccepted - silentCompleted")) == 0, qPrintable(text));
    QVERIFY2(number(QStringLiteral("twice")) == 0, qPrintable(text));
    QVERIFY2(number(QStringLiteral("unknown")) == 0, qPrintable(text));
    QVERIFY2(number(QStringLiteral("disorder")) == 0, qPrintable(text));
    QVERIFY2(number(QStringLiteral("accepted")) > 0, qPrintable(text));
}

void ExactlyOnce::run(int rounds, const std::function<void()> &queue,
                      const std::function<void()> &disturb)
{
    int done = 0;
    QTimer queueing;
    connect(&queueing, &QTimer::timeout, this, [&] {
        if (done < rounds)
            queue();
        ++done;
        queueing.setInterval(pick(0, 2));
    });
    QTimer disturbing;
    connect(&disturbing, &QTimer::timeout, this, [&] {
        disturb();
        disturbing.setInterval(pick(0, 5));
    });
    queueing.start(0);
    disturbing.start(1);
    QVERIFY2(waitUntil([&] { return done >= rounds; }, 100 * rounds + 60000),
             qPrintable(QStringLiteral("round %1").arg(done)));
}

// --- The stub driver ---

void ExactlyOnce::addStubRules()
{
    m_server->onExact(QStringLiteral("slow"), StubReply::affected(1).withDelay(2));
    m_server->onExact(
        QStringLiteral("bad"),
        StubReply::failure(stubError(QSqlError::StatementError, QStringLiteral("bad statement"))));
    m_server->onExact(QStringLiteral("lost"), StubReply::failure(lostError()));
    m_server->onExact(QStringLiteral("rows"),
                      StubReply::generated({{QStringLiteral("id"), QVariant::Int}}, 50,
                                           [](int row) { return QVariantList{row}; }));
}

void ExactlyOnce::submitSome(const QString &who)
{
    static const QStringList statements{QStringLiteral("'fast'"),
                                        QStringLiteral("'fast'"),
                                        QStringLiteral("'slow'"),
                                        QStringLiteral("'rows'"),
                                        QStringLiteral("'bad'"),
                                        QStringLiteral("['fast','bad']"),
                                        QStringLiteral("['rows','slow','rows']"),
                                        QStringLiteral("''"),
                                        QStringLiteral("['commit']")};
    for (int i = pick(1, 5); i > 0; --i) {
        const bool lost = chance(3);
        m_script->host.engine()->clearExceptions();
        call(QStringLiteral("submit(%1, '%1', %2, %3)")
                 .arg(who)
                 .arg(pick(0, m_commands ? 2 : 3))
                 .arg(lost ? QStringLiteral("'lost'")
                           : statements.at(pick(0, statements.size() - 1))));
    }
}

void ExactlyOnce::disturb(VEXT_SQL *db)
{
    m_script->host.engine()->clearExceptions();
    if (!db->isOpen() && chance(70)) {
        db->open();
        return;
    }
    switch (pick(0, 11)) {
    case 0:
    case 1:
        db->stop_thread(0);
        break;
    case 2:
        db->stop_thread(pick(1, 3));
        break;
    case 3:
        db->stop_thread(60000);
        break;
    case 4:
        db->close();
        break;
    case 5:
        db->close();
        db->open();
        break;
    case 6:
        db->start_thread();
        break;
    case 7:
        m_server->fail(StubCall::Open, lostError(),
                       StubWhere::connection(QStringLiteral("_thr")).andNth(1));
        break;
    case 8:
        m_server->fail(StubCall::Open, lostError(), StubWhere::nth(1));
        break;
    case 9:
        if (m_commands)
            db->transaction();
        break;
    case 10:
        if (m_commands && chance(50))
            db->commit();
        else if (m_commands)
            db->rollback();
        break;
    default:
        db->counters();
        db->taskSize();
        break;
    }
}

void ExactlyOnce::stubTasksSurviveStopsClosesAndFailures_data()
{
    QTest::addColumn<bool>("canCancel");
    QTest::addColumn<bool>("commands");
    QTest::newRow("driver cancels") << true << false;
    QTest::newRow("driver does not cancel") << false << false;
    QTest::newRow("with transaction commands") << true << true;
}

void ExactlyOnce::stubTasksSurviveStopsClosesAndFailures()
{
    QFETCH(bool, canCancel);
    QFETCH(bool, commands);
    m_server->setFeature(QSqlDriver::CancelQuery, canCancel);
    // Whether a command becomes a task depends on the thread, so these runs have no other tasks
    // without a callback.
    m_commands = commands;
    addStubRules();
    makeScript();
    VEXT_SQL *db = m_script->connection();
    if (!commands)
        call(QStringLiteral("watch(db)"));
    int round = 0;
    run(
        Stress::rounds(2000),
        [&] {
            submitSome(QStringLiteral("db"));
            if (++round % 100 == 0)
                m_server->clearRecord();
        },
        [&] { disturb(db); });
    m_script->host.engine()->clearExceptions();
    verifyBooks();
}

// --- SQLite ---

void ExactlyOnce::sqliteRowsMatchTheSuccessesDelivered()
{
    if (!QSqlDatabase::isDriverAvailable(QStringLiteral("QSQLITE")))
        QSKIP("the driver QSQLITE is not installed");
    QTemporaryDir folder;
    makeScript(QStringLiteral("QSQLITE"));
    VEXT_SQL *db =
        m_script->connection(QStringLiteral("db"), folder.filePath(QStringLiteral("stress.db")));
    QVERIFY(db->isOpen());
    call(QStringLiteral("db.query('create table t (id integer)'); watch(db);"
                        "function insert(number) { return 'insert into t values (' + number + ')'; "
                        "}"));
    run(
        Stress::rounds(2000),
        [&] {
            m_script->host.engine()->clearExceptions();
            for (int i = pick(1, 3); i > 0; --i)
                call(QStringLiteral("submit(db, 'db', %1, insert)").arg(pick(0, 2)));
        },
        [&] {
            m_script->host.engine()->clearExceptions();
            if (!db->isOpen())
                db->open();
            switch (pick(0, 5)) {
            case 0:
                db->stop_thread(0);
                break;
            case 1:
                db->stop_thread(pick(1, 3));
                break;
            case 2:
                db->stop_thread(60000);
                break;
            case 3:
                db->close();
                break;
            case 4:
                db->close();
                db->open();
                break;
            default:
                db->start_thread();
                break;
            }
        });
    db->open();
    m_script->host.engine()->clearExceptions();
    verifyBooks();
    db->stop_thread(60000);
    call(QStringLiteral("var rows = db.query('select id from t order by id').id;"
                        "succeeded.sort(function(a, b) { return a - b; })"));
    QVERIFY2(call(QStringLiteral("rows.join() == succeeded.join()")).toBool(),
             qPrintable(QStringLiteral("seed %1: %2 rows, %3 successes")
                            .arg(Stress::seed())
                            .arg(number(QStringLiteral("rows.length")))
                            .arg(number(QStringLiteral("succeeded.length")))));
    QVERIFY(number(QStringLiteral("rows.length")) > 0);
}

// --- Single tasks at the moment of the end ---

/// One task comes while the thread leaves, and nothing after it: were it to lie in the queue until
/// the next call, it would lie there for ever.
void ExactlyOnce::stopLosesNoTaskThatRacesWithIt()
{
    constexpr int longestPauseUs = 300; // leaving takes less
    makeScript();
    VEXT_SQL *db = m_script->connection();
    for (int round = 0, rounds = Stress::rounds(2000); round < rounds; ++round) {
        QVERIFY(call(QStringLiteral("submit(db, 'db', 0, 'one')")).toBool());
        QVERIFY(m_script->host.waitForScript(QStringLiteral("openCount() == 0")));
        db->stop_thread(0);
        spin(pick(0, longestPauseUs));
        QVERIFY(call(QStringLiteral("submit(db, 'db', 0, 'late')")).toBool());
        QVERIFY2(m_script->host.waitForScript(QStringLiteral("openCount() == 0")),
                 qPrintable(QStringLiteral("round %1, %2").arg(round).arg(booksText())));
        if (round % 100 == 0)
            m_server->clearRecord();
    }
    verifyBooks();
}

/// Every connection ends at its first time-out. The next task comes around that moment, when the
/// one before is done; so a task that was left lying would be noticed.
void ExactlyOnce::idleEndLosesNoTaskThatRacesWithIt()
{
    constexpr int connections = 40;
    constexpr int timeOutMs = 333;
    constexpr int spreadUs = 2500; // how far around it
    makeScript();
    struct Racer {
        QString name;
        int left;
        std::unique_ptr<QTimer> timer;
    };
    std::vector<Racer> racers;
    const int tasks = Stress::rounds(20);
    int ended = 0;
    int finished = 0;
    for (int i = 0; i < connections; ++i) {
        const QString name = QStringLiteral("db%1").arg(i);
        VEXT_SQL *db = m_script->connection(name);
        db->worker->m_timeNotUse = 1;
        connect(db, &VEXT_SQL::finished, this, [&ended] { ++ended; });
        racers.push_back({name, tasks, std::make_unique<QTimer>()});
    }
    for (Racer &racer : racers) {
        racer.timer->setTimerType(Qt::PreciseTimer);
        racer.timer->setSingleShot(true);
        connect(racer.timer.get(), &QTimer::timeout, this, [&, raced = &racer] {
            const bool done =
                call(QStringLiteral("openOf['%1'] || 0").arg(raced->name)).toInt32() == 0;
            if (done && raced->left == 0) {
                ++finished;
                return;
            }
            if (done) {
                --raced->left;
                spin(pick(0, spreadUs));
                call(QStringLiteral("submit(%1, '%1', 0, 'one')").arg(raced->name));
            }
            raced->timer->start(timeOutMs - 1);
        });
        racer.timer->start(pick(0, timeOutMs));
    }
    QVERIFY2(waitUntil([&] { return finished == connections; }, 30000), qPrintable(booksText()));
    verifyBooks();
    QVERIFY2(number(QStringLiteral("accepted")) == connections * tasks, qPrintable(booksText()));
    QVERIFY2(ended >= connections, qPrintable(QStringLiteral("only %1 threads ended").arg(ended)));
}

// --- Deletion ---

void ExactlyOnce::connectionDeletedInItsCallbackDeliversEachTaskAtMostOnce()
{
    m_server->setFeature(QSqlDriver::CancelQuery);
    addStubRules();
    makeScript();
    const QStringList ways{QStringLiteral("destroy(db)"),
                           QStringLiteral("db.deleteLater()"),
                           QStringLiteral("db.close(); destroy(db)"),
                           QStringLiteral("db.stop_thread(0); destroy(db)"),
                           QStringLiteral("destroy(db); handleEvents()"),
                           QStringLiteral("db.deleteLater(); handleEvents()")};
    for (int round = 0, rounds = Stress::rounds(400); round < rounds; ++round) {
        const QPointer<VEXT_SQL> db = m_script->connection();
        const int tasks = pick(1, 15);
        const int deletingTask = pick(0, tasks - 1);
        const QString way = ways.at(pick(0, ways.size() - 1));
        m_script->eval(QStringLiteral("delivered = []; outcomes = {}"));
        for (int i = 0; i < tasks; ++i) {
            const QString sql = chance(30) ? QStringLiteral("slow") : QStringLiteral("fast");
            if (i == deletingTask)
                call(QStringLiteral("db.query_thread(function() { delivered.push(%1); %2 }, '%3')")
                         .arg(QString::number(i), way, sql));
            else
                call(QStringLiteral("db.query_thread(function() { delivered.push(%1) }, '%2')")
                         .arg(i)
                         .arg(sql));
        }
        QVERIFY2(waitUntil([&] { return !db && m_server->liveDrivers() == 0; }),
                 qPrintable(QStringLiteral("seed %1, round %2").arg(Stress::seed()).arg(round)));
        // In order, each once, up to the one that deleted; after deleteLater() a few more may come.
        const QStringList delivered = m_script->delivered();
        const QString what = QStringLiteral("seed %1, round %2, task %3 did %4: %5")
                                 .arg(Stress::seed())
                                 .arg(round)
                                 .arg(deletingTask)
                                 .arg(way, delivered.join(QLatin1Char(' ')));
        QVERIFY2(delivered.size() > deletingTask, qPrintable(what));
        QVERIFY2(way.contains(QLatin1String("deleteLater")) || delivered.size() == deletingTask + 1,
                 qPrintable(what));
        for (int i = 0; i < delivered.size(); ++i)
            QVERIFY2(delivered.at(i).toInt() == i, qPrintable(what));
        m_server->clearRecord();
    }
}

void ExactlyOnce::connectionsDeletedAtRandomDeliverEachTaskAtMostOnce()
{
    m_server->setFeature(QSqlDriver::CancelQuery);
    addStubRules();
    makeScript();
    QVector<QPointer<VEXT_SQL>> live;
    int made = 0;
    run(
        Stress::rounds(2000),
        [&] {
            if (live.size() < 5) {
                const QString name = QStringLiteral("c%1").arg(made++);
                live.append(m_script->connection(name));
            }
            m_script->host.engine()->clearExceptions();
            submitSome(live.at(pick(0, live.size() - 1))->objectName());
        },
        [&] {
            if (live.isEmpty())
                return;
            const int index = pick(0, live.size() - 1);
            if (chance(40)) {
                const QPointer<VEXT_SQL> going = live.takeAt(index);
                if (chance(50))
                    delete going.data();
                else
                    going->deleteLater();
            } else if (live.at(index)->isOpen()) {
                live.at(index)->stop_thread(pick(-1, 2));
            }
            if (chance(5))
                m_server->clearRecord();
        });
    m_script->host.engine()->clearExceptions();
    for (const QPointer<VEXT_SQL> &db : qAsConst(live))
        delete db.data();
    QVERIFY(waitUntil([&] { return m_server->liveDrivers() == 0; }));
    drainEvents();
    const QString text = booksText();
    QVERIFY2(number(QStringLiteral("twice")) == 0, qPrintable(text));
    QVERIFY2(number(QStringLiteral("unknown")) == 0, qPrintable(text));
    QVERIFY2(number(QStringLiteral("disorder")) == 0, qPrintable(text));
    QVERIFY2(number(QStringLiteral("completed")) > 0, qPrintable(text));
    QVERIFY2(number(QStringLiteral("completed + openCount() - accepted")) == 0, qPrintable(text));
}

void ExactlyOnce::engineDestroyedWithRunningThreadsLeavesNothing()
{
    m_server->setFeature(QSqlDriver::CancelQuery);
    addStubRules();
    m_server->onExact(QStringLiteral("long"), StubReply::affected(1).withDelay(60000));
    for (int round = 0, rounds = Stress::rounds(100); round < rounds; ++round) {
        makeScript();
        for (int c = 0; c < 4; ++c) {
            const QString name = QStringLiteral("c%1").arg(c);
            m_script->connection(name);
            submitSome(name);
            m_script->host.engine()->clearExceptions();
            if (chance(50))
                call(QStringLiteral("submit(%1, '%1', 0, 'long')").arg(name));
            submitSome(name);
            m_script->host.engine()->clearExceptions();
        }
        if (chance(50))
            drainEvents();
        m_script->host.destroyEngine();
        QVERIFY2(waitUntil([&] { return m_server->liveDrivers() == 0; }),
                 qPrintable(QStringLiteral("seed %1, round %2\n%3")
                                .arg(Stress::seed())
                                .arg(round)
                                .arg(m_server->record())));
        QCOMPARE(m_server->liveResults(), 0);
        m_script.reset();
        m_server->clearRecord();
    }
}

// --- Several engines ---

/// Each engine runs in a thread of its own and asks for the statistics of all connections.
void ExactlyOnce::statisticsOfAnotherEnginesThreadDisturbNothing()
{
    class Engine : public QThread
    {
    public:
        explicit Engine(int rounds)
            : m_rounds(rounds)
        {
        }
        bool complete = false;

    protected:
        void run() override
        {
            ScriptHostOptions options;
            options.withServer = false; // it would be a child of the application
            ThreadFixture script(QStringLiteral("STUB"), options);
            script.connection();
            bool held = true;
            for (int i = 1; i <= m_rounds && held; ++i) {
                held = script.queue(QStringLiteral("one"), QStringLiteral("t%1").arg(i));
                script.eval(QStringLiteral("db.countersAll(); db.userName = 'u%1'").arg(i));
                if (i % 10 == 0)
                    script.eval(QStringLiteral("db.stop_thread(1000); db.close(); db.open()"));
                held = held && script.waitDelivered(i);
            }
            complete = held && script.delivered().size() == m_rounds;
            script.host.destroyEngine();
            drainEvents();
        }

    private:
        const int m_rounds;
    };
    const int rounds = Stress::rounds(300);
    Engine first(rounds);
    Engine second(rounds);
    first.start();
    second.start();
    QVERIFY(waitUntil([&] { return first.isFinished() && second.isFinished(); }, 60000));
    first.wait();
    second.wait();
    QVERIFY(first.complete);
    QVERIFY(second.complete);
}

QTEST_GUILESS_MAIN(ExactlyOnce)
#include "test_exactly_once.moc"
