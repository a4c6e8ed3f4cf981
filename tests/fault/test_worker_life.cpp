/// @file
/// The life of a connection object while its thread works.
#include "library_life.h"
#include "worker_test.h"

#include "sql_records.h"

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QtTest>

#include <atomic>
#include <memory>
#include <thread>

class WorkerLife : public WorkerTest
{
    Q_OBJECT

private slots:
    void onlyTheOwnerBecomesTheScriptValue();
    void deletionWaitsForALongStatement();
    void deletionCancelsBeforeTheEventLoopComesRound();
    void deletionFreesTheTasksWithoutDelivery();
    void engineMayGoFirst();
    void tasksThatEndAfterTheEngineAreFreed();
    void callbackMayDeleteItsConnection_data();
    void callbackMayDeleteItsConnection();
    void callbackMayQueueCloseAndThrow();
    void callbackMayRunAnEventLoop();
    void renamingWaitsForTheThreadThatStarts();
    void startingThreadWaitsForParametersThatAreBeingSet();
    void workersOfTwoEnginesComeAndGo();
    void errorsOfTheThreadAreReadWhole_data();
    void errorsOfTheThreadAreReadWhole();
};

void WorkerLife::onlyTheOwnerBecomesTheScriptValue()
{
    VEXT_SQL *db = m_script->connection();
    QObject other;
    QScriptEngine *engine = m_script->host.engine();
    VEXT_sqlThr *worker = db->worker;
    QVERIFY(!worker->setScriptValueThis(engine->newQObject(&other)));
    QVERIFY(!worker->setScriptValueThis(engine->newQObject(worker)));
    QVERIFY(!worker->setScriptValueThis(QScriptValue(5)));
    QVERIFY(!worker->setScriptValueThis(QScriptValue()));
    QCOMPARE(worker->m_scriptValueThis.toQObject(), db);
    QVERIFY(worker->setScriptValueThis(m_script->host.global(QStringLiteral("db"))));
}

void WorkerLife::deletionWaitsForALongStatement()
{
    VEXT_SQL *db = m_script->connection();
    constexpr int longMs = 1800; // longer than the first wait, and not to be cancelled
    m_server->onExact(QStringLiteral("long"), StubReply::affected(0).withDelay(longMs));
    QElapsedTimer timer;
    timer.start();
    m_script->queue(QStringLiteral("long"));
    m_script->queue(QStringLiteral("never"));
    QVERIFY(m_server->waitForCall(StubCall::Exec, QStringLiteral("long")));
    delete db;
    QVERIFY(waitUntil([&] { return m_server->liveDrivers() == 0; }));
    QVERIFY2(timer.elapsed() >= longMs, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(m_server->executed(thr), QStringList(QStringLiteral("long")));
    drainEvents();
    QCOMPARE(m_script->delivered(), QStringList());
}

void WorkerLife::deletionCancelsBeforeTheEventLoopComesRound()
{
    m_server->setFeature(QSqlDriver::CancelQuery);
    VEXT_SQL *db = m_script->connection();
    occupyWorker();
    delete db;
    QVERIFY2(m_server->waitForCall(StubCall::Cancel), qPrintable(m_server->record()));
}

void WorkerLife::deletionFreesTheTasksWithoutDelivery()
{
    VEXT_SQL *db = m_script->connection();
    const ThreadGatePtr gate = hold();
    // A value that only the tasks hold; it goes with the last of them.
    QPointer<QObject> token = new QObject;
    m_script->host.engine()->globalObject().setProperty(
        QStringLiteral("token"),
        m_script->host.engine()->newQObject(token, QScriptEngine::ScriptOwnership));
    m_script->eval(QStringLiteral("for (var i = 0; i < 5; ++i) db.query_thread(deliver('t' + i), "
                                  "'held', [token]); token = null"));
    QVERIFY(gate->waitReached());
    m_script->host.collectGarbage();
    QVERIFY(token);
    db->stop_thread(0);
    gate->release();
    // Not a single event is handled before the object goes: the completions are still posted.
    db->worker->wait();
    delete db;
    QVERIFY(waitUntil([&] { return m_server->liveDrivers() == 0; }));
    QVERIFY2(waitUntil([&] {
                 m_script->host.collectGarbage();
                 return !token;
             }),
             "a task of the deleted connection is still there");
    for (const QString &tag : m_script->delivered())
        QVERIFY2(scriptInt(QStringLiteral("outcomes[%1].count").arg(quoted(tag))) == 1,
                 qPrintable(tag));
}

void WorkerLife::engineMayGoFirst()
{
    m_script->connection(QStringLiteral("db"));
    m_script->connection(QStringLiteral("idle"))->start_thread();
    m_server->setFeature(QSqlDriver::CancelQuery);
    const ThreadGatePtr gate = hold();
    m_script->queue(heldSql);
    m_script->queue(QStringLiteral("never"));
    QVERIFY(gate->waitReached());
    m_script->host.destroyEngine();
    QVERIFY2(waitUntil([&] { return m_server->liveDrivers() == 0; }),
             qPrintable(m_server->record()));
    QCOMPARE(m_server->executed(thr), QStringList(heldSql));
}

void WorkerLife::tasksThatEndAfterTheEngineAreFreed()
{
    QObject holder;
    auto *db = new VEXT_SQL(&holder, m_script->host.engine());
    db->setDriverName(QStringLiteral("STUB"));
    QVERIFY(db->open());
    const ThreadGatePtr gate = hold();
    for (int i = 0; i < 3; ++i) {
        auto *task = new structThrSql;
        task->sqlList = QStringList(heldSql);
        task->func = m_script->eval(QStringLiteral("deliver('late')"));
        QVERIFY(db->appendSqlTask(task));
    }
    QVERIFY(gate->waitReached());
    m_script->host.destroyEngine();
    gate->release();
    QVERIFY(waitUntil([&] { return m_server->executed(thr).size() == 3; }));
    QVERIFY(waitUntil([&] { return db->taskSize() == 0; }));
    drainEvents();
    db->stop_thread(10000);
    QVERIFY(db->close());
}

void WorkerLife::callbackMayDeleteItsConnection_data()
{
    QTest::addColumn<QString>("deletion");
    QTest::newRow("on the spot") << QStringLiteral("destroy(db)");
    QTest::newRow("later") << QStringLiteral("db.deleteLater()");
    QTest::newRow("with a close before") << QStringLiteral("db.close(); destroy(db)");
    QTest::newRow("with its worker") << QStringLiteral("destroy(db); handleEvents()");
    QTest::newRow("later, with events") << QStringLiteral("db.deleteLater(); handleEvents()");
}

void WorkerLife::callbackMayDeleteItsConnection()
{
    QFETCH(QString, deletion);
    QPointer<VEXT_SQL> db = m_script->connection();
    m_script->eval(QStringLiteral("db.query_thread(deliver('one'), 'one');"
                                  "db.query_thread(function() { delivered.push('two'); %1; }, "
                                  "'two'); for (var i = 0; i < 20; ++i) "
                                  "db.query_thread(deliver('later' + i), 'later')")
                       .arg(deletion));
    QVERIFY(waitUntil([&] { return !db; }));
    QVERIFY(waitUntil([&] { return m_server->liveDrivers() == 0; }));
    drainEvents();
    const QStringList delivered = m_script->delivered();
    QCOMPARE(delivered.mid(0, 2), QStringList({QStringLiteral("one"), QStringLiteral("two")}));
    // Until deleteLater() takes effect some more may come, each once and in order.
    const bool later = deletion.contains(QLatin1String("deleteLater"));
    QVERIFY2(later || delivered.size() == 2, qPrintable(delivered.join(QLatin1Char(' '))));
    for (int i = 2; i < delivered.size(); ++i)
        QCOMPARE(delivered.at(i), QStringLiteral("later%1").arg(i - 2));
}

void WorkerLife::callbackMayQueueCloseAndThrow()
{
    VEXT_SQL *db = m_script->connection();
    m_script->eval(QStringLiteral(
        "db.query_thread(function() { delivered.push('one'); db.query_thread(deliver('inner'), "
        "'inner'); throw new Error('of the callback'); }, 'one');"
        "db.query_thread(deliver('two'), 'two');"));
    QVERIFY(m_script->waitDelivered(3));
    QCOMPARE(m_script->delivered(),
             QStringList({QStringLiteral("one"), QStringLiteral("two"), QStringLiteral("inner")}));
    m_script->host.engine()->clearExceptions();
    m_script->eval(QStringLiteral(
        "db.query_thread(function() { delivered.push('closing'); db.close(); db.open(); "
        "db.query_thread(deliver('reopened'), 'reopened'); }, 'closing');"
        "for (var i = 0; i < 3; ++i) db.query_thread(deliver('rest' + i), 'rest')"));
    QVERIFY(m_script->waitDelivered(8));
    QCOMPARE(
        m_script->delivered().mid(3),
        QStringList({QStringLiteral("closing"), QStringLiteral("rest0"), QStringLiteral("rest1"),
                     QStringLiteral("rest2"), QStringLiteral("reopened")}));
    QCOMPARE(m_script->json(QStringLiteral("outcomes.reopened.error")), QStringLiteral("false"));
    QVERIFY(db->isRunning());
}

void WorkerLife::callbackMayRunAnEventLoop()
{
    m_script->connection();
    QScriptEngine *engine = m_script->host.engine();
    engine->globalObject().setProperty(
        QStringLiteral("runEvents"),
        engine->newFunction([](QScriptContext *context, QScriptEngine *) {
            QScriptValue list = context->argument(0);
            const int count = context->argument(1).toInt32();
            return QScriptValue(waitUntil(
                [&] { return list.property(QStringLiteral("length")).toInt32() >= count; }));
        }));
    m_script->eval(QStringLiteral(
        "var nested = false; db.query_thread(function() { delivered.push('outer'); "
        "nested = runEvents(delivered, 4); delivered.push('outer ends'); }, 'outer');"
        "for (var i = 0; i < 3; ++i) db.query_thread(deliver('inner' + i), 'inner')"));
    QVERIFY(m_script->waitDelivered(5));
    QCOMPARE(m_script->delivered(), QStringList({QStringLiteral("outer"), QStringLiteral("inner0"),
                                                 QStringLiteral("inner1"), QStringLiteral("inner2"),
                                                 QStringLiteral("outer ends")}));
    QVERIFY(m_script->eval(QStringLiteral("nested")).toBool());
}

/// Qt reads the object's name in the new thread before that enters run().
void WorkerLife::renamingWaitsForTheThreadThatStarts()
{
    constexpr int heldMs = 200; // in which a renaming that does not wait is over
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    VEXT_SQL *db = m_script->closedConnection();
    connect(
        db->worker, &QThread::started, db->worker, [gate] { gate->pass(); }, Qt::DirectConnection);
    QVERIFY(db->start_thread());
    QVERIFY(gate->waitReached());
    std::atomic<bool> released{false};
    std::thread other([&] {
        QThread::msleep(heldMs);
        released = true;
        gate->release();
    });
    db->worker->setConnectionName(QStringLiteral("renamed"));
    const bool waited = released;
    other.join();
    QVERIFY(waited);
}

void WorkerLife::startingThreadWaitsForParametersThatAreBeingSet()
{
    constexpr int heldMs = 200; // in which a thread that does not wait has made its driver
    VEXT_SQL *db = m_script->closedConnection();
    {
        QMutexLocker locker(&db->worker->m_mutexParams);
        QVERIFY(db->start_thread());
        QVERIFY(!m_server->waitForCall(StubCall::DriverCreated, {}, heldMs));
    }
    QVERIFY(m_server->waitForCall(StubCall::DriverCreated));
}

void WorkerLife::workersOfTwoEnginesComeAndGo()
{
    class Engine : public QThread
    {
    public:
        ~Engine() override { wait(); }

    protected:
        void run() override
        {
            QScriptEngine engine;
            VEXT_SQLWrapper::registerWrapper(&engine);
            for (int i = 0; i < 300; ++i) {
                delete engine.evaluate(QStringLiteral("new VEXT_SQL()")).toQObject();
                QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            }
        }
    };
    const int workers = LibraryLife::workerCount();
    {
        Engine first;
        Engine second;
        first.start();
        second.start();
    }
    QCOMPARE(LibraryLife::workerCount(), workers);
}

void WorkerLife::errorsOfTheThreadAreReadWhole_data()
{
    QTest::addColumn<bool>("withStatement");
    QTest::newRow("error") << false;
    QTest::newRow("statement and error") << true;
}

/// The thread tells one error after the other while the script reads what was the last.
void WorkerLife::errorsOfTheThreadAreReadWhole()
{
    QFETCH(bool, withStatement);
    VEXT_sqlThr *worker = m_script->connection()->worker;
    const auto error = [](const QString &text) {
        return stubError(QSqlError::StatementError, text, text, text);
    };
    const QSqlError errors[] = {error(QStringLiteral("one")), error(QStringLiteral("another"))};
    std::atomic<bool> done{false};
    std::thread thread([&] {
        for (int i = 0; !done; ++i) {
            if (withStatement)
                worker->setLastStatement(QString(), errors[i % 2]);
            else
                worker->setLastError(errors[i % 2]);
        }
    });
    int torn = 0;
    for (int i = 0, count = Stress::rounds(200000); i < count; ++i) {
        const QVariantMap last = worker->lastErrors();
        if (last.value(QStringLiteral("driverText")) != last.value(QStringLiteral("databaseText")))
            ++torn;
    }
    done = true;
    thread.join();
    QCOMPARE(torn, 0);
}

QTEST_GUILESS_MAIN(WorkerLife)
#include "test_worker_life.moc"
