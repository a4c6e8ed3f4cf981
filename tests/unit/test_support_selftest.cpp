/// @file
/// The recording driver and the waits of the tests keep what they promise.
#include "message_log.h"
#include "message_sink.h"
#include "recording_driver.h"
#include "script_host.h"
#include "thread_gate.h"

#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QtTest>

#include <atomic>
#include <functional>

Q_DECLARE_METATYPE(QSqlDriver::DriverFeature)

namespace
{

const QString driverName = QStringLiteral("STUB");
const QString mainConnection = QStringLiteral("selftest");
const QString threadConnection = QStringLiteral("selftest_thr");
constexpr int longMs = 120000; // what must be interrupted, or else the test runs out of time

QSqlDatabase openConnection(const QString &name = mainConnection)
{
    QSqlDatabase db = QSqlDatabase::addDatabase(driverName, name);
    db.setDatabaseName(name);
    db.open();
    return db;
}

/// Opens the thread connection in a thread of its own, runs the work on it and removes it.
class Worker : public QThread
{
public:
    using Work = std::function<void(QSqlDatabase &)>;
    explicit Worker(Work work, const QString &name = threadConnection)
        : m_work(std::move(work))
        , m_name(name)
    {
        start();
    }
    ~Worker() override { wait(); }

protected:
    void run() override
    {
        {
            QSqlDatabase db = openConnection(m_name);
            driver = db.driver();
            m_work(db);
            driver = nullptr;
        }
        QSqlDatabase::removeDatabase(m_name);
    }

public:
    std::atomic<QSqlDriver *> driver{nullptr};

private:
    const Work m_work;
    const QString m_name;
};

QStringList column(QSqlQuery &query, int index = 0)
{
    QStringList values;
    while (query.next())
        values.append(query.value(index).toString());
    return values;
}

const QVector<StubReply::Column> idAndName{{QStringLiteral("id"), QVariant::Int},
                                           {QStringLiteral("name"), QVariant::String}};

} // namespace

class TestSupportSelftest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    // recording driver: statements
    void ruleAddedLastAnswersFirst();
    void ruleAnswersAsOftenAsItWasToldTo();
    void rowsKeepTheirTypesAndNulls();
    void generatedRowsAreMadeOnDemand();
    void readingFailsAtTheScriptedRow();
    void executionFailsWithTheScriptedError();
    void affectedRowsCanBeKnownOnlyAfterTheLastRow();
    void sizeCanBeUnknownToAForwardOnlyReader();
    void lastInsertIdIsAnsweredAndRecorded();
    void preparedTextFollowsTheFeatures_data();
    void preparedTextFollowsTheFeatures();
    void boundValuesAreRecordedWithTheirTypes();
    void preparationFailsWithTheScriptedError();

    // recording driver: connections
    void openRecordsItsParameters();
    void openFailsForTheScriptedConnections();
    void openFailsTheScriptedTime();
    void transactionCommandsFailWhereScripted();
    void tablesAnswerByType();
    void dbmsTypeCanAppearAtOpen();
    void notificationsReachSubscribersInTheirThread();
    void connectionsOpenedAtOnceAreToldApart();
    void connectionThatReplacesAnotherKeepsTheName();
    void realDriverReturnsAfterTheServer();

    // recording driver: threads
    void cancelEndsADelay();
    void cancelEndsAWaitAtAGate();
    void cancelEndsAReadOfRows();
    void cancelCanBeIgnored();
    void cancelNeedsTheFeature();
    void resultsAreRecordedInTheThreadThatEndsThem();

    // waits
    void waitUntilHandlesEventsAndDeletions();
    void waitUntilGivesUpAtItsLimit();
    void quickAttemptIsTheFirstBelowTheLimit();
    void slowAttemptsAreGivenUp();
    void gateHoldsUntilReleased();
    void gateLetsGoWhenAborted();
    void gateLetsGoAtItsLimit();

private:
    void cancelWhile(const StubReply &reply, const std::function<void(QSqlQuery &)> &use);

    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<StubServer> m_server;
};

void TestSupportSelftest::init()
{
    m_log = std::make_unique<MessageLog>();
    m_server = std::make_unique<StubServer>(driverName, QSqlDriver::PostgreSQL);
}

void TestSupportSelftest::cleanup()
{
    QSqlDatabase::removeDatabase(mainConnection);
    const QString record = m_server->record();
    QVERIFY2(m_server->liveResults() == 0 && m_server->liveDrivers() == 0 &&
                 m_server->openDrivers() == 0,
             qPrintable(record));
    m_server.reset();
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

void TestSupportSelftest::ruleAddedLastAnswersFirst()
{
    m_server->setDefaultReply(StubReply::affected(1));
    m_server->onPrefix(QStringLiteral("update"), StubReply::affected(2));
    m_server->onExact(QStringLiteral("update t"), StubReply::affected(3));
    m_server->on(StubMatch::where([](const QString &sql) { return sql.size() == 9; }),
                 StubReply::affected(4));
    QSqlQuery query(openConnection());
    const QVector<std::pair<QString, int>> expected{{QStringLiteral("delete from t"), 1},
                                                    {QStringLiteral("update s"), 2},
                                                    {QStringLiteral("update t"), 3},
                                                    {QStringLiteral("update tt"), 4}};
    QStringList texts;
    for (const auto &[text, affected] : expected) {
        QVERIFY2(query.exec(text), qPrintable(text));
        QCOMPARE(query.numRowsAffected(), affected);
        texts.append(text);
    }
    QCOMPARE(m_server->executed(), texts);
    QCOMPARE(m_server->executed(QStringLiteral("_thr")), QStringList());
}

void TestSupportSelftest::ruleAnswersAsOftenAsItWasToldTo()
{
    m_server->on(StubMatch::exact(QStringLiteral("x")), StubReply::affected(5), 2);
    QSqlQuery query(openConnection());
    QList<int> answers;
    for (int i = 0; i < 3; ++i) {
        QVERIFY(query.exec(QStringLiteral("x")));
        answers.append(query.numRowsAffected());
    }
    QCOMPARE(answers, (QList<int>{5, 5, 0}));
    m_server->reset();
    QCOMPARE(m_server->calls().size(), 0);
}

void TestSupportSelftest::rowsKeepTheirTypesAndNulls()
{
    m_server->onExact(QStringLiteral("select"),
                      StubReply::table(idAndName, {{1, QStringLiteral("a")},
                                                   {QVariant(), QVariant(QVariant::String)}}));
    QSqlQuery query(openConnection());
    QVERIFY(query.exec(QStringLiteral("select")));
    QVERIFY(query.isSelect());
    QCOMPARE(query.size(), 2);
    QCOMPARE(query.record().count(), 2);
    QCOMPARE(query.record().field(0).type(), QVariant::Int);
    QCOMPARE(query.record().fieldName(1), QStringLiteral("name"));
    QVERIFY(query.next());
    QCOMPARE(query.value(0), QVariant(1));
    QVERIFY(query.next());
    QVERIFY(!query.value(0).isValid());
    QVERIFY(query.isNull(1) && query.value(1).userType() == QMetaType::QString);
    QVERIFY(!query.next());
    QVERIFY(query.first());
    QCOMPARE(query.value(1).toString(), QStringLiteral("a"));
    QVERIFY(query.last());
    QCOMPARE(query.at(), 1);
}

void TestSupportSelftest::generatedRowsAreMadeOnDemand()
{
    int made = 0;
    const auto source = [&made](int row) {
        ++made;
        return QVariantList{row * 2};
    };
    m_server->onExact(QStringLiteral("many"),
                      StubReply::generated({{QStringLiteral("n"), QVariant::Int}}, 100000, source));
    QSqlQuery query(openConnection());
    query.setForwardOnly(true);
    QVERIFY(query.exec(QStringLiteral("many")));
    QVERIFY(m_server->calls(StubCall::Exec).first().forwardOnly);
    QCOMPARE(made, 0);
    for (int row = 0; row < 1000; ++row) {
        QVERIFY(query.next());
        QCOMPARE(query.value(0).toInt(), row * 2);
    }
    QCOMPARE(made, 1000);
    QCOMPARE(m_server->rowsRead(), qint64(1000));
}

void TestSupportSelftest::readingFailsAtTheScriptedRow()
{
    const QSqlError error = stubError(QSqlError::ConnectionError, QStringLiteral("line cut"));
    m_server->onExact(QStringLiteral("q"),
                      StubReply::table(idAndName, {{1}, {2}, {3}}).failingAtRow(2, error));
    QSqlQuery query(openConnection());
    QVERIFY(query.exec(QStringLiteral("q")));
    QCOMPARE(column(query), (QStringList{QStringLiteral("1"), QStringLiteral("2")}));
    QCOMPARE(query.lastError().type(), QSqlError::ConnectionError);
    QCOMPARE(query.lastError().databaseText(), QStringLiteral("line cut"));
}

void TestSupportSelftest::executionFailsWithTheScriptedError()
{
    m_server->onExact(QStringLiteral("q"), StubReply::failure(stubError(QSqlError::StatementError,
                                                                        QStringLiteral("no table"),
                                                                        QStringLiteral("42P01"))));
    QSqlQuery query(openConnection());
    QVERIFY(!query.exec(QStringLiteral("q")));
    QVERIFY(!query.isActive());
    QCOMPARE(query.lastError().nativeErrorCode(), QStringLiteral("42P01"));
    QCOMPARE(query.lastError().text(), QStringLiteral("no table STUB: failed"));
}

void TestSupportSelftest::affectedRowsCanBeKnownOnlyAfterTheLastRow()
{
    m_server->onExact(
        QStringLiteral("q"),
        StubReply::table(idAndName, {{1}, {2}}).withAffected(2).withAffectedOnlyAfterLastRow());
    QSqlQuery query(openConnection());
    QVERIFY(query.exec(QStringLiteral("q")));
    QVERIFY(query.next() && query.next());
    QCOMPARE(query.numRowsAffected(), -1);
    QVERIFY(!query.next());
    QCOMPARE(query.numRowsAffected(), 2);
    QCOMPARE(m_server->count(StubCall::AskAffected), 2);
}

void TestSupportSelftest::sizeCanBeUnknownToAForwardOnlyReader()
{
    m_server->onExact(QStringLiteral("q"),
                      StubReply::table(idAndName, {{1}, {2}}).withSizeUnknownWhenForwardOnly());
    QSqlQuery query(openConnection());
    QVERIFY(query.exec(QStringLiteral("q")));
    QCOMPARE(query.size(), 2);
    query.setForwardOnly(true);
    QVERIFY(query.exec(QStringLiteral("q")));
    QCOMPARE(query.size(), -1);
}

void TestSupportSelftest::lastInsertIdIsAnsweredAndRecorded()
{
    m_server->setDefaultReply(StubReply::affected(1).withLastInsertId(77));
    QSqlQuery query(openConnection());
    QVERIFY(query.exec(QStringLiteral("insert")));
    QCOMPARE(m_server->count(StubCall::AskLastInsertId), 0);
    QCOMPARE(query.lastInsertId(), QVariant(77));
    QCOMPARE(m_server->texts(StubCall::AskLastInsertId), QStringList{QStringLiteral("insert")});
}

void TestSupportSelftest::preparedTextFollowsTheFeatures_data()
{
    using Features = QVector<QSqlDriver::DriverFeature>;
    QTest::addColumn<Features>("features");
    QTest::addColumn<QString>("written");
    QTest::addColumn<QString>("received");
    QTest::addColumn<QString>("executed");
    const Features positional{QSqlDriver::PreparedQueries, QSqlDriver::PositionalPlaceholders};
    const Features named{QSqlDriver::PreparedQueries, QSqlDriver::NamedPlaceholders};
    const QString withNames = QStringLiteral("p(:a0,:a1)");
    const QString withMarks = QStringLiteral("p(?,?)");
    QTest::newRow("names, positional driver") << positional << withNames << withMarks << withMarks;
    QTest::newRow("marks, positional driver") << positional << withMarks << withMarks << withMarks;
    QTest::newRow("names, naming driver") << named << withNames << withNames << withNames;
    QTest::newRow("marks, naming driver")
        << named << withMarks << QStringLiteral("p(:a,:bb)") << QStringLiteral("p(:a,:bb)");
    QTest::newRow("no preparation")
        << Features{} << withNames << withNames << QStringLiteral("p(1,'x')");
}

void TestSupportSelftest::preparedTextFollowsTheFeatures()
{
    QFETCH(QVector<QSqlDriver::DriverFeature>, features);
    QFETCH(QString, written);
    QFETCH(QString, received);
    QFETCH(QString, executed);
    m_server->setFeatures(features);
    m_server->onExact(executed, StubReply::affected(9));
    QSqlQuery query(openConnection());
    QVERIFY(query.prepare(written));
    if (written.contains(QLatin1Char(':'))) {
        query.bindValue(QStringLiteral(":a0"), 1);
        query.bindValue(QStringLiteral(":a1"), QStringLiteral("x"));
    } else {
        query.addBindValue(1);
        query.addBindValue(QStringLiteral("x"));
    }
    QVERIFY(query.exec());
    QCOMPARE(query.numRowsAffected(), 9);
    QCOMPARE(m_server->texts(StubCall::Prepare), QStringList{received});
    QCOMPARE(m_server->calls(StubCall::Prepare).first().writtenText, written);
    QCOMPARE(m_server->executed(), QStringList{executed});
}

void TestSupportSelftest::boundValuesAreRecordedWithTheirTypes()
{
    QSqlQuery query(openConnection());
    QVERIFY(query.prepare(QStringLiteral("p(:a0,:a1)")));
    query.bindValue(QStringLiteral(":a0"), QByteArray("\0\1", 2), QSql::In | QSql::Binary);
    query.bindValue(QStringLiteral(":a1"), 2.5, QSql::In);
    QVERIFY(query.exec());
    const QVector<StubCall> binds = m_server->calls(StubCall::Bind);
    QCOMPARE(binds.size(), 2);
    QCOMPARE(binds.at(0).bindings.first().placeholder, QStringLiteral(":a0"));
    QVERIFY(binds.at(0).bindings.first().type == (QSql::In | QSql::Binary));
    QVERIFY(binds.at(1).bindings.first().type == QSql::In);
    const StubCall executed = m_server->calls(StubCall::ExecPrepared).first();
    QCOMPARE(executed.bindings.size(), 2);
    QCOMPARE(executed.bindings.at(0).value, QVariant(QByteArray("\0\1", 2)));
    QCOMPARE(executed.bindings.at(1).value, QVariant(2.5));
    QCOMPARE(executed.bindings.at(1).position, 1);
}

void TestSupportSelftest::preparationFailsWithTheScriptedError()
{
    m_server->onExact(QStringLiteral("p(:a0)"),
                      StubReply::prepareFailure(
                          stubError(QSqlError::StatementError, QStringLiteral("no procedure"))));
    QSqlQuery query(openConnection());
    QVERIFY(!query.prepare(QStringLiteral("p(:a0)")));
    QCOMPARE(query.lastError().databaseText(), QStringLiteral("no procedure"));
    QCOMPARE(m_server->executed(), QStringList());
}

void TestSupportSelftest::openRecordsItsParameters()
{
    QSqlDatabase db = QSqlDatabase::addDatabase(driverName, mainConnection);
    db.setHostName(QStringLiteral("h"));
    db.setPort(1234);
    db.setUserName(QStringLiteral("u"));
    db.setPassword(QStringLiteral("p"));
    db.setConnectOptions(QStringLiteral("o=1"));
    QVERIFY(db.open());
    const StubCall call = m_server->calls(StubCall::Open).first();
    QCOMPARE(call.connection, mainConnection);
    QVERIFY(call.mainThread && call.thread == QThread::currentThread());
    QCOMPARE(call.parameters.host, QStringLiteral("h"));
    QCOMPARE(call.parameters.port, 1234);
    QCOMPARE(call.parameters.user, QStringLiteral("u"));
    QCOMPARE(call.parameters.password, QStringLiteral("p"));
    QCOMPARE(call.parameters.options, QStringLiteral("o=1"));
    QCOMPARE(m_server->openDrivers(), 1);
    db.close();
    QCOMPARE(m_server->openDrivers(), 0);
    QCOMPARE(m_server->calls(StubCall::Close).first().connection, mainConnection);
}

void TestSupportSelftest::openFailsForTheScriptedConnections()
{
    m_server->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("refused")),
                   StubWhere::connection(QStringLiteral("_thr")));
    QVERIFY(openConnection().isOpen());
    QSqlError error;
    Worker worker([&](QSqlDatabase &db) { error = db.lastError(); });
    QVERIFY(worker.wait(scaledMs(defaultWaitMs)));
    QCOMPARE(error.type(), QSqlError::ConnectionError);
    QCOMPARE(error.databaseText(), QStringLiteral("refused"));
}

void TestSupportSelftest::openFailsTheScriptedTime()
{
    m_server->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("refused")),
                   StubWhere::nth(2));
    QSqlDatabase db = openConnection();
    QVERIFY(db.isOpen());
    QVERIFY(!db.open());
    QVERIFY(db.isOpenError());
    QVERIFY(db.open());
    QVERIFY(!db.lastError().isValid());
}

void TestSupportSelftest::transactionCommandsFailWhereScripted()
{
    const QSqlError error = stubError(QSqlError::TransactionError, QStringLiteral("not now"));
    m_server->fail(StubCall::Commit, error);
    QSqlDatabase db = openConnection();
    QVERIFY(db.transaction());
    QVERIFY(!db.commit());
    QCOMPARE(db.lastError().databaseText(), QStringLiteral("not now"));
    QVERIFY(db.rollback());
    m_server->fail(StubCall::Begin, error);
    QVERIFY(!db.transaction());
    QCOMPARE(m_server->count(StubCall::Begin), 2);
    QCOMPARE(m_server->count(StubCall::Rollback, QStringLiteral("selftest")), 1);
}

void TestSupportSelftest::tablesAnswerByType()
{
    m_server->setTables(QSql::Tables, {QStringLiteral("t")});
    m_server->setTables(QSql::Views, {QStringLiteral("v")});
    QSqlDatabase db = openConnection();
    QCOMPARE(db.tables(QSql::Views), QStringList{QStringLiteral("v")});
    QCOMPARE(db.tables(QSql::AllTables), (QStringList{QStringLiteral("t"), QStringLiteral("v")}));
    m_server->fail(StubCall::Tables, stubError(QSqlError::UnknownError, QStringLiteral("hidden")),
                   StubWhere::text(QStringLiteral("4")));
    QCOMPARE(db.tables(QSql::Views), QStringList());
    QCOMPARE(db.lastError().databaseText(), QStringLiteral("hidden"));
    QCOMPARE(db.tables(QSql::Tables), QStringList{QStringLiteral("t")});
    QVERIFY(!db.lastError().isValid());
}

void TestSupportSelftest::dbmsTypeCanAppearAtOpen()
{
    m_server->setDbmsTypeKnownOnlyWhenOpen(true);
    QSqlDatabase db = QSqlDatabase::addDatabase(driverName, mainConnection);
    QCOMPARE(db.driver()->dbmsType(), QSqlDriver::UnknownDbms);
    QVERIFY(db.open());
    QCOMPARE(db.driver()->dbmsType(), QSqlDriver::PostgreSQL);
}

void TestSupportSelftest::notificationsReachSubscribersInTheirThread()
{
    const QString name = QStringLiteral("news");
    QSqlDatabase db = openConnection();
    QStringList seen;
    connect(
        db.driver(),
        QOverload<const QString &, QSqlDriver::NotificationSource, const QVariant &>::of(
            &QSqlDriver::notification),
        this,
        [&](const QString &what, QSqlDriver::NotificationSource, const QVariant &payload) {
            seen.append(what + payload.toString());
        },
        Qt::DirectConnection);
    QCOMPARE(m_server->notify(name, QSqlDriver::OtherSource, 1), 0);
    QVERIFY(db.driver()->subscribeToNotification(name));
    QCOMPARE(db.driver()->subscribedToNotifications(), QStringList{name});
    QCOMPARE(m_server->notify(name, QSqlDriver::OtherSource, 2), 1);
    QCOMPARE(seen, QStringList{QStringLiteral("news2")});
    {
        int reached = 0;
        QScopedPointer<QThread> other(
            QThread::create([&] { reached = m_server->notify(name, QSqlDriver::SelfSource, 3); }));
        other->start();
        QVERIFY(waitUntil([&] { return seen.size() == 2; }));
        QVERIFY(other->wait());
        QCOMPARE(reached, 1);
    }
    m_server->fail(StubCall::Subscribe, stubError(QSqlError::StatementError, QStringLiteral("no")));
    QVERIFY(!db.driver()->subscribeToNotification(QStringLiteral("more")));
    QVERIFY(db.driver()->unsubscribeFromNotification(name));
    QCOMPARE(m_server->notify(name, QSqlDriver::OtherSource), 0);
}

void TestSupportSelftest::connectionsOpenedAtOnceAreToldApart()
{
    constexpr int count = 8;
    QSqlDatabase db = openConnection();
    const ThreadGatePtr gate = ThreadGate::create();
    {
        std::vector<std::unique_ptr<Worker>> workers;
        const GateGuard guard(gate);
        for (int i = 0; i < count; ++i) {
            workers.push_back(std::make_unique<Worker>(
                [&](QSqlDatabase &own) {
                    gate->pass();
                    QSqlQuery(own).exec(own.connectionName());
                },
                QStringLiteral("at_once_%1").arg(i)));
        }
        QVERIFY(gate->waitReached(defaultWaitMs, count));
    }
    const QVector<StubCall> opens = m_server->calls(StubCall::Open);
    QCOMPARE(opens.size(), count + 1);
    for (const StubCall &call : opens)
        QCOMPARE(call.connection, call.parameters.database);
    const QVector<StubCall> statements = m_server->calls(StubCall::Exec);
    QCOMPARE(statements.size(), count);
    for (const StubCall &call : statements) {
        QCOMPARE(call.connection, call.text);
        QVERIFY(!call.mainThread);
    }
}

void TestSupportSelftest::connectionThatReplacesAnotherKeepsTheName()
{
    openConnection();
    openConnection();
    QCOMPARE(m_log->matching(QStringLiteral("duplicate connection name")).size(), 1);
    const QVector<StubCall> opens = m_server->calls(StubCall::Open);
    QCOMPARE(opens.size(), 2);
    QCOMPARE(opens.at(1).connection, mainConnection);
    QCOMPARE(opens.at(1).driver, 2);
    m_log->clear();
}

void TestSupportSelftest::realDriverReturnsAfterTheServer()
{
    const QString name = QStringLiteral("real");
    const QString real = QStringLiteral("QSQLITE");
    {
        StubServer hiding(real);
        QSqlDatabase::addDatabase(real, name).open();
        QCOMPARE(hiding.count(StubCall::Open), 1);
        QSqlDatabase::removeDatabase(name);
    }
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(real, name);
        db.setDatabaseName(QStringLiteral(":memory:"));
        QVERIFY(db.open());
        QSqlQuery query(QStringLiteral("select 40 + 2"), db);
        QCOMPARE(column(query), QStringList{QStringLiteral("42")});
    }
    QSqlDatabase::removeDatabase(name);
}

/// Runs a statement in another thread, cancels it from here as soon as it stands, and expects the
/// cancellation error.
void TestSupportSelftest::cancelWhile(const StubReply &reply,
                                      const std::function<void(QSqlQuery &)> &use)
{
    m_server->setFeature(QSqlDriver::CancelQuery);
    m_server->onExact(QStringLiteral("long"), reply);
    QSqlError error;
    QElapsedTimer timer;
    timer.start();
    {
        Worker worker([&](QSqlDatabase &db) {
            QSqlQuery query(db);
            use(query);
            error = query.lastError();
        });
        QVERIFY(m_server->waitForCall(StubCall::Exec, QStringLiteral("long")));
        const Deadline limit(defaultWaitMs);
        while (!worker.driver.load()->cancelQuery() && !limit.expired())
            QThread::yieldCurrentThread(); // between the record and the start of the wait
        QVERIFY(worker.wait(scaledMs(defaultWaitMs)));
    }
    QVERIFY(timer.elapsed() < longMs);
    QCOMPARE(error.nativeErrorCode(), QStringLiteral("57014"));
    QVERIFY(m_server->calls(StubCall::Cancel).last().mainThread);
    QCOMPARE(m_server->calls(StubCall::Cancel).last().connection, threadConnection);
}

void TestSupportSelftest::cancelEndsADelay()
{
    cancelWhile(StubReply::affected(0).withDelay(longMs),
                [](QSqlQuery &query) { QVERIFY(!query.exec(QStringLiteral("long"))); });
}

void TestSupportSelftest::cancelEndsAWaitAtAGate()
{
    cancelWhile(StubReply::affected(0).withGate(ThreadGate::create()),
                [](QSqlQuery &query) { QVERIFY(!query.exec(QStringLiteral("long"))); });
}

void TestSupportSelftest::cancelEndsAReadOfRows()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const StubReply reply = StubReply::table(idAndName, {{1}, {2}}).withGateAtRow(1, gate);
    cancelWhile(reply, [](QSqlQuery &query) {
        QVERIFY(query.exec(QStringLiteral("long")));
        while (query.next())
            QCOMPARE(query.at(), 0);
    });
}

void TestSupportSelftest::cancelCanBeIgnored()
{
    const ThreadGatePtr gate = ThreadGate::create();
    m_server->setFeature(QSqlDriver::CancelQuery);
    m_server->setCancelIgnored(true);
    m_server->setDefaultReply(StubReply::affected(1).withGate(gate));
    bool done = false;
    Worker worker([&](QSqlDatabase &db) { done = QSqlQuery(db).exec(QStringLiteral("x")); });
    const GateGuard guard(gate);
    QVERIFY(gate->waitReached());
    QVERIFY(worker.driver.load()->cancelQuery());
    QCOMPARE(gate->waiting(), 1);
    gate->release();
    QVERIFY(worker.wait(scaledMs(defaultWaitMs)));
    QVERIFY(done);
}

void TestSupportSelftest::cancelNeedsTheFeature()
{
    QSqlDatabase db = openConnection();
    QVERIFY(!db.driver()->cancelQuery());
    QCOMPARE(m_server->count(StubCall::Cancel), 1);
}

void TestSupportSelftest::resultsAreRecordedInTheThreadThatEndsThem()
{
    QSqlQuery *moved = nullptr;
    const ThreadGatePtr gate = ThreadGate::create();
    {
        Worker worker([&](QSqlDatabase &db) {
            QSqlQuery own(QStringLiteral("own"), db);
            own.finish();
            moved = new QSqlQuery(QStringLiteral("moved"), db);
            gate->pass();
        });
        const GateGuard guard(gate);
        QVERIFY(gate->waitReached());
        QCOMPARE(m_server->liveResults(), 2);
        delete moved;
        QCOMPARE(m_server->liveResults(), 1);
    }
    QCOMPARE(m_server->texts(StubCall::ResultDetached), QStringList{QStringLiteral("own")});
    const QVector<StubCall> ended = m_server->calls(StubCall::ResultDestroyed);
    QCOMPARE(ended.size(), 2);
    QCOMPARE(ended.at(0).text, QStringLiteral("moved"));
    QVERIFY(ended.at(0).mainThread);
    QVERIFY(!ended.at(1).mainThread);
}

void TestSupportSelftest::waitUntilHandlesEventsAndDeletions()
{
    QPointer<QObject> object(new QObject);
    object->deleteLater();
    QVERIFY(waitUntil([&] { return object.isNull(); }));
    int ticks = 0;
    QTimer timer;
    connect(&timer, &QTimer::timeout, this, [&] { ++ticks; });
    timer.start(1);
    QVERIFY(waitUntil([&] { return ticks == 3; }));
}

void TestSupportSelftest::waitUntilGivesUpAtItsLimit()
{
    QElapsedTimer timer;
    timer.start();
    QVERIFY(!waitUntil([] { return false; }, 30));
    QVERIFY(timer.elapsed() >= scaledMs(30));
}

void TestSupportSelftest::quickAttemptIsTheFirstBelowTheLimit()
{
    int made = 0;
    const qint64 taken = quickAttemptMs(1000, [&] {
        if (++made < 3)
            QThread::msleep(1000);
    });
    QVERIFY2(made >= 3 && taken < 1000, qPrintable(QString::number(taken)));
}

void TestSupportSelftest::slowAttemptsAreGivenUp()
{
    int made = 0;
    const auto slow = [&] {
        ++made;
        QThread::msleep(2);
    };
    QVERIFY(quickAttemptMs(1, slow, 4) >= 1);
    QCOMPARE(made, 4);
}

void TestSupportSelftest::gateHoldsUntilReleased()
{
    ThreadGate gate;
    std::atomic<int> passed{0};
    QScopedPointer<QThread> other(
        QThread::create([&] { passed = gate.pass() == ThreadGate::Passage::Released ? 1 : 2; }));
    other->start();
    QVERIFY(gate.waitReached());
    QCOMPARE(gate.waiting(), 1);
    QCOMPARE(passed.load(), 0);
    gate.release();
    QVERIFY(other->wait(scaledMs(defaultWaitMs)));
    QCOMPARE(passed.load(), 1);
    QVERIFY(gate.pass() == ThreadGate::Passage::Released);
    QCOMPARE(gate.arrivals(), 2);
}

void TestSupportSelftest::gateLetsGoWhenAborted()
{
    ThreadGate gate;
    std::atomic<bool> abort{false};
    std::atomic<bool> aborted{false};
    QScopedPointer<QThread> other(QThread::create([&] {
        aborted = gate.pass([&] { return abort.load(); }) == ThreadGate::Passage::Aborted;
    }));
    other->start();
    QVERIFY(gate.waitReached());
    abort = true;
    gate.poke();
    QVERIFY(other->wait(scaledMs(defaultWaitMs)));
    QVERIFY(aborted.load());
}

void TestSupportSelftest::gateLetsGoAtItsLimit()
{
    ThreadGate gate;
    QVERIFY(gate.pass({}, 10) == ThreadGate::Passage::TimedOut);
    QVERIFY(!gate.waitReached(10, 2));
}

QTEST_GUILESS_MAIN(TestSupportSelftest)

#include "test_support_selftest.moc"
