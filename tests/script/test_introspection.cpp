// What a connection tells of its database, its driver and itself.
#include "frame_host.h"
#include "message_log.h"
#include "recording_driver.h"

#include <QtTest>

#include <memory>

namespace
{

const QStringList countersKeys = {
    QStringLiteral("connectionName"), QStringLiteral("is_opened"),  QStringLiteral("cnt_open"),
    QStringLiteral("cnt_opened"),     QStringLiteral("cnt_closed"), QStringLiteral("cnt_sql_ok"),
    QStringLiteral("cnt_sql_er"),     QStringLiteral("driver"),     QStringLiteral("database"),
    QStringLiteral("user"),           QStringLiteral("host"),       QStringLiteral("dbObjectName"),
};

const QStringList threadKeys = {
    QStringLiteral("thr_sql_queue"),
    QStringLiteral("thr_sql_finish"),
    QStringLiteral("thr_notUsedMs"),
    QStringLiteral("thr_sql_currMs"),
};

QStringList withEngineKeys(QStringList keys)
{
    keys.prepend(QStringLiteral("postName"));
    keys.insert(keys.indexOf(QStringLiteral("dbObjectName")), QStringLiteral("subscribeEvents"));
    return keys;
}

struct Feature {
    const char *name;
    QSqlDriver::DriverFeature feature;
};

const Feature features[] = {
    {"Transactions", QSqlDriver::Transactions},
    {"QuerySize", QSqlDriver::QuerySize},
    {"BLOB", QSqlDriver::BLOB},
    {"Unicode", QSqlDriver::Unicode},
    {"PreparedQueries", QSqlDriver::PreparedQueries},
    {"NamedPlaceholders", QSqlDriver::NamedPlaceholders},
    {"PositionalPlaceholders", QSqlDriver::PositionalPlaceholders},
    {"LastInsertId", QSqlDriver::LastInsertId},
    {"BatchOperations", QSqlDriver::BatchOperations},
    {"SimpleLocking", QSqlDriver::SimpleLocking},
    {"LowPrecisionNumbers", QSqlDriver::LowPrecisionNumbers},
    {"EventNotifications", QSqlDriver::EventNotifications},
    {"FinishQuery", QSqlDriver::FinishQuery},
    {"MultipleResultSets", QSqlDriver::MultipleResultSets},
    {"CancelQuery", QSqlDriver::CancelQuery},
};

} // namespace

class TestIntrospection : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void tablesResultHasItsPropertiesInOrder();
    void tablesResultHasItsFlags();
    void tableNamesCannotBeDeleted();
    void tableNamesAreSortedWithUpperCaseFirst();
    void tableTypeIsTheLowEightBits_data();
    void tableTypeIsTheLowEightBits();
    void viewsAreListedAlone();
    void tablesOfARealDatabase();
    void noTablesIsAnEmptyList();
    void tablesOnAClosedConnectionIsFalseAndKeepsTheResult();
    void tablesOnAClosedConnectionReportsWhenTracing();
    void tablesPublishesTheResultHidden();
    void tablesDropsThePreviousResult();
    void tablesWithAnErrorIsFalse();
    void tablesIsTrueAgainWhereTheDriverKeepsItsLastError();
    void tablesWithTheSameErrorAgainIsFalseAgain();
    void tablesKeepsTheDriversLastError();
    void tablesOfAConnectionWithoutScriptValueIsHarmless();

    void featuresAreComplete();
    void eachFeatureIsTheDriversAnswer_data();
    void eachFeatureIsTheDriversAnswer();
    void unopenedConnectionHasNoFeature();

    void countersKeysInOrder();
    void countersKeysWithAnEngineInOrder();
    void countersKeysOfARunningThreadInOrder();
    void countersAreFixed();
    void countersOfAFreshConnection();
    void countersFollowTheConnection();
    void countersCountStatementsOfBothThreads();
    void isOpenedIsANumber();
    void hostHasThePortOnlyAboveZero_data();
    void hostHasThePortOnlyAboveZero();
    void postNameIsTheEnginesParent();
    void postNameWithoutParentIsEmpty();
    void namesFollowRenaming();
    void subscribeEventsIsAnArray();
    void threadKeysAreAbsentWhenTheThreadStands();
    void threadFiguresOfARunningTask();
    void threadFiguresOfAnIdleThread();
    void startingTheThreadResetsTheFinished();
    void countersOfAnotherEngineAreItsObjects();
    void countersFollowTheConnectionOfAnotherThread();

private:
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<StubServer> m_stub;
    std::unique_ptr<FrameHost> m_host;
    FrameHost &h() { return *m_host; }
    QScriptValue tables() { return h().eval("db.tables(); db.queryResult"); }
};

void TestIntrospection::init()
{
    m_log = std::make_unique<MessageLog>();
    m_stub = std::make_unique<StubServer>(QStringLiteral("QSTUB"));
    m_host = std::make_unique<FrameHost>();
    h().eval("var db = new VEXT_SQL('orders'); db.driverName = 'QSTUB'");
}

void TestIntrospection::cleanup()
{
    m_host.reset();
    QVERIFY(QSqlDatabase::connectionNames().isEmpty());
    QVERIFY2(m_stub->liveResults() == 0 && m_stub->liveDrivers() == 0,
             qPrintable(m_stub->record()));
    m_stub.reset();
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

// --- tables ---

void TestIntrospection::tablesResultHasItsPropertiesInOrder()
{
    m_stub->setTables(QSql::Tables, {QStringLiteral("b"), QStringLiteral("a")});
    QVERIFY(h().holds("db.open() && db.tables() === true"));
    const QScriptValue result = tables();
    QCOMPARE(propertyNames(result),
             (QStringList{QStringLiteral("TABLES"), QStringLiteral("rows"),
                          QStringLiteral("fields"), QStringLiteral("numRowsAffected")}));
    QVERIFY(h().holds("var r = db.queryResult; r.TABLES instanceof Array && r.rows === 2"
                      " && r.fields === 1 && r.numRowsAffected === 0"));
}

void TestIntrospection::tablesResultHasItsFlags()
{
    m_stub->setTables(QSql::Tables, {QStringLiteral("b"), QStringLiteral("a")});
    h().eval("db.open()");
    const QScriptValue result = tables();
    QCOMPARE(int(result.propertyFlags(QStringLiteral("TABLES"))), 7);
    QCOMPARE(int(result.propertyFlags(QStringLiteral("rows"))), 3);
    QCOMPARE(int(result.propertyFlags(QStringLiteral("fields"))), 3);
    QCOMPARE(int(result.propertyFlags(QStringLiteral("numRowsAffected"))), 3);
    const QScriptValue names = result.property(QStringLiteral("TABLES"));
    QCOMPARE(int(names.propertyFlags(QStringLiteral("0"))), 3);
    QCOMPARE(int(names.propertyFlags(QStringLiteral("1"))), 3);
    QCOMPARE(h().shown("var k = []; for (var p in db.queryResult) k.push(p); k.join()"),
             QStringLiteral("rows,fields,numRowsAffected"));
}

void TestIntrospection::tableNamesCannotBeDeleted()
{
    m_stub->setTables(QSql::Tables, {QStringLiteral("a"), QStringLiteral("b")});
    h().eval("db.open(); db.tables(); var r = db.queryResult; delete r.TABLES[0];"
             "delete r.TABLES[1]; r.rows = 9; delete r.fields; r.TABLES = 5");
    QCOMPARE(h().shown("r.TABLES.join() + ' ' + r.rows + ' ' + r.fields"),
             QStringLiteral("a,b 2 1"));
}

void TestIntrospection::tableNamesAreSortedWithUpperCaseFirst()
{
    m_stub->setTables(QSql::Tables,
                      {QStringLiteral("beta"), QStringLiteral("Zeta"), QStringLiteral("alpha"),
                       QStringLiteral("Alpha"), QStringLiteral("яблоко"), QStringLiteral("_x")});
    h().eval("db.open()");
    QCOMPARE(
        qscriptvalue_cast<QStringList>(tables().property(QStringLiteral("TABLES"))),
        (QStringList{QStringLiteral("Alpha"), QStringLiteral("Zeta"), QStringLiteral("_x"),
                     QStringLiteral("alpha"), QStringLiteral("beta"), QStringLiteral("яблоко")}));
}

void TestIntrospection::tableTypeIsTheLowEightBits_data()
{
    QTest::addColumn<int>("asked");
    QTest::newRow("1") << 1;
    QTest::newRow("2") << 2;
    QTest::newRow("4") << 4;
    QTest::newRow("255") << 255;
    QTest::newRow("257") << 1;
    QTest::newRow("-1") << 255;
    QTest::newRow("1028") << 4;
    QTest::newRow("0") << 0;
}

void TestIntrospection::tableTypeIsTheLowEightBits()
{
    QFETCH(int, asked);
    h().eval("db.open()");
    QVERIFY(h().eval(QStringLiteral("db.tables(%1)").arg(QLatin1String(QTest::currentDataTag())))
                .toBool());
    QCOMPARE(m_stub->texts(StubCall::Tables), (QStringList{QString::number(asked)}));
}

void TestIntrospection::viewsAreListedAlone()
{
    m_stub->setTables(QSql::Tables, {QStringLiteral("table")});
    m_stub->setTables(QSql::Views, {QStringLiteral("view2"), QStringLiteral("View1")});
    h().eval("db.open()");
    QCOMPARE(h().shown("db.tables(4); db.queryResult.TABLES.join()"),
             QStringLiteral("View1,view2"));
}

void TestIntrospection::tablesOfARealDatabase()
{
    h().eval("var lite = new VEXT_SQL(); lite.driverName = 'QSQLITE';"
             "lite.databaseName = ':memory:'; lite.open();"
             "lite.query('create table b (x)'); lite.query('create table A (x)');"
             "lite.query('create view v as select 1')");
    QCOMPARE(h().shown("lite.tables(); lite.queryResult.TABLES.join()"), QStringLiteral("A,b"));
    QCOMPARE(h().shown("lite.tables(4); lite.queryResult.TABLES.join()"), QStringLiteral("v"));
    QVERIFY(h().holds("lite.tables(255) && lite.queryResult.rows >= 3"));
}

void TestIntrospection::noTablesIsAnEmptyList()
{
    QVERIFY(h().holds("db.open() && db.tables() && db.queryResult.TABLES.length === 0"
                      " && db.queryResult.rows === 0 && db.queryResult.fields === 1"));
}

void TestIntrospection::tablesOnAClosedConnectionIsFalseAndKeepsTheResult()
{
    h().eval("db.queryResult = {kept: 1}");
    QVERIFY(h().holds("db.tables() === false && db.queryResult.kept === 1"));
    QCOMPARE(h().post()->texts(), QStringList());
}

void TestIntrospection::tablesOnAClosedConnectionReportsWhenTracing()
{
    h().eval("db.databaseName = 'base'; db.hostName = 'host'; db.port = 77; db.traceLog = true");
    h().post()->clear();
    QVERIFY(h().holds("db.tables() === false"));
    QCOMPARE(h().post()->messages().size(), 1);
    const SinkMessage message = h().post()->messages().constFirst();
    QCOMPARE(message.file, QStringLiteral("plugins/PluginSQL/vext_sql_thread"));
    QCOMPARE(message.function, QStringLiteral("tables"));
    QCOMPARE(message.text, QStringLiteral("не открыто соединение с 'base:77:host'"));
    QCOMPARE(message.level, -1);
}

void TestIntrospection::tablesPublishesTheResultHidden()
{
    h().eval("db.open(); db.tables()");
    const QScriptValue db = h().script.global(QStringLiteral("db"));
    QCOMPARE(int(db.propertyFlags(QStringLiteral("queryResult"))), 4);
}

void TestIntrospection::tablesDropsThePreviousResult()
{
    h().eval("db.open(); var held = db.query('x'); db.tables()");
    QVERIFY(
        h().holds("held.rows === undefined && db.queryResult !== held && db.affectedRows === 0"));
}

void TestIntrospection::tablesWithAnErrorIsFalse()
{
    m_stub->fail(StubCall::Tables,
                 stubError(QSqlError::StatementError, QStringLiteral("no rights")));
    QVERIFY(h().holds("db.open() && db.tables() === false"));
    QCOMPARE(h().shown("db.lastErrors.databaseText + ' ' + db.lastErrors.typeStr"),
             QStringLiteral("no rights StatementError"));
    QVERIFY(h().holds("db.queryResult.rows === 0 && db.isOpen"));
}

void TestIntrospection::tablesIsTrueAgainWhereTheDriverKeepsItsLastError()
{
    m_stub->setKeepsErrors(true);
    m_stub->setTables(QSql::Tables, {QStringLiteral("t")});
    m_stub->fail(StubCall::Tables, stubError(QSqlError::StatementError, QStringLiteral("no")),
                 StubWhere::nth(1));
    QVERIFY(h().holds("db.open() && db.tables() === false && db.tables() === true"));
    QCOMPARE(h().shown("db.lastError + db.queryResult.TABLES.join()"), QStringLiteral("t"));
}

void TestIntrospection::tablesWithTheSameErrorAgainIsFalseAgain()
{
    m_stub->setKeepsErrors(true);
    const QSqlError error = stubError(QSqlError::StatementError, QStringLiteral("no"));
    m_stub->fail(StubCall::Begin, error);
    m_stub->fail(StubCall::Tables, error);
    QVERIFY(h().holds("db.open() && !db.transaction() && db.tables() === false"));
    QVERIFY(h().holds("db.tables() === false"));
    QCOMPARE(h().shown("db.lastErrors.databaseText"), QStringLiteral("no"));
}

void TestIntrospection::tablesKeepsTheDriversLastError()
{
    m_stub->setKeepsErrors(true);
    m_stub->fail(StubCall::Begin, stubError(QSqlError::StatementError, QStringLiteral("no")));
    QVERIFY(h().holds("db.open() && !db.transaction() && db.tables() && db.lastError === ''"));
    QCOMPARE(h().worker()->db.lastError().databaseText(), QStringLiteral("no"));
}

void TestIntrospection::tablesOfAConnectionWithoutScriptValueIsHarmless()
{
    VEXT_SQL object(nullptr, h().engine());
    object.setDriverName(QStringLiteral("QSTUB"));
    QVERIFY(object.open());
    QVERIFY(object.tables());
    QVERIFY(object.close());
}

// --- hasFeature ---

void TestIntrospection::featuresAreComplete()
{
    h().eval("db.open()");
    const QVariant answer = h().connection()->hasFeature();
    QCOMPARE(int(answer.type()), int(QVariant::Map));
    QStringList names;
    for (const Feature &feature : features) {
        names.append(QLatin1String(feature.name));
        QCOMPARE(int(answer.toMap().value(names.constLast()).type()), int(QVariant::Bool));
    }
    names.sort();
    QCOMPARE(answer.toMap().keys(), names);
}

void TestIntrospection::eachFeatureIsTheDriversAnswer_data()
{
    QTest::addColumn<int>("feature");
    for (const Feature &feature : features)
        QTest::newRow(feature.name) << int(feature.feature);
}

void TestIntrospection::eachFeatureIsTheDriversAnswer()
{
    QFETCH(int, feature);
    m_stub->setFeatures({QSqlDriver::DriverFeature(feature)});
    h().eval("db.open(); var f = db.hasFeature(), on = [];"
             "for (var p in f) if (f[p] === true) on.push(p)");
    QCOMPARE(h().shown("on.join()"), QLatin1String(QTest::currentDataTag()));
    m_stub->setFeatures({});
    QVERIFY(h().holds("db.hasFeature()[on[0]] === false"));
}

void TestIntrospection::unopenedConnectionHasNoFeature()
{
    QVERIFY(h().holds("var f = db.hasFeature(), n = 0, any = false;"
                      "for (var p in f) { ++n; any = any || f[p] } n === 15 && any === false"));
}

// --- counters ---

void TestIntrospection::countersKeysInOrder()
{
    QCOMPARE(propertyNames(h().eval("db.counters()")), countersKeys);
    QCOMPARE(propertyNames(h().eval("db.counters(null)")), countersKeys);
}

void TestIntrospection::countersKeysWithAnEngineInOrder()
{
    QCOMPARE(propertyNames(h().eval("db.counters(scriptEngine)")), withEngineKeys(countersKeys));
}

void TestIntrospection::countersKeysOfARunningThreadInOrder()
{
    QVERIFY(h().holds("db.start_thread()"));
    QCOMPARE(propertyNames(h().eval("db.counters()")), countersKeys + threadKeys);
    QCOMPARE(propertyNames(h().eval("db.counters(scriptEngine)")),
             withEngineKeys(countersKeys) + threadKeys);
}

void TestIntrospection::countersAreFixed()
{
    QVERIFY(h().holds("db.start_thread()"));
    const QScriptValue counters = h().eval("var c = db.counters(scriptEngine); c");
    const QStringList names = propertyNames(counters);
    for (const QString &name : names)
        QVERIFY2(int(counters.propertyFlags(name)) == 3, qPrintable(name));
    QVERIFY(h().holds("c.cnt_open = 5; delete c.driver; c.cnt_open === 0 && c.driver === 'QSTUB'"));
}

void TestIntrospection::countersOfAFreshConnection()
{
    QCOMPARE(h().shown("JSON.stringify(db.counters(scriptEngine))"),
             QStringLiteral("{\"postName\":\"post\",\"connectionName\":\"_sql\",\"is_opened\":0,"
                            "\"cnt_open\":0,\"cnt_opened\":0,\"cnt_closed\":0,\"cnt_sql_ok\":0,"
                            "\"cnt_sql_er\":0,\"driver\":\"QSTUB\",\"database\":\"\",\"user\":\"\","
                            "\"host\":\"\",\"subscribeEvents\":[],\"dbObjectName\":\"orders\"}"));
}

void TestIntrospection::countersFollowTheConnection()
{
    m_stub->onExact(QStringLiteral("bad"), StubReply::failure(stubError(QSqlError::StatementError,
                                                                        QStringLiteral("bad"))));
    h().eval("db.databaseName = 'base'; db.userName = 'user'; db.hostName = 'host'; db.port = 7;"
             "db.connectionName = 'x'; db.open(); db.query('a'); db.query('b'); db.query('bad')");
    QCOMPARE(h().shown("JSON.stringify(db.counters())"),
             QStringLiteral("{\"connectionName\":\"QSTUB_x\",\"is_opened\":1,\"cnt_open\":1,"
                            "\"cnt_opened\":1,\"cnt_closed\":0,\"cnt_sql_ok\":2,\"cnt_sql_er\":1,"
                            "\"driver\":\"QSTUB\",\"database\":\"base\",\"user\":\"user\","
                            "\"host\":\"host:7\",\"dbObjectName\":\"orders\"}"));
    h().eval("db.close()");
    QVERIFY(h().holds("var c = db.counters(); c.is_opened === 0 && c.cnt_closed === 1"
                      " && c.cnt_sql_ok === 2"));
}

void TestIntrospection::countersCountStatementsOfBothThreads()
{
    m_stub->onExact(QStringLiteral("bad"), StubReply::failure(stubError(QSqlError::StatementError,
                                                                        QStringLiteral("bad"))));
    h().eval("db.open(); db.query('a'); var done = false;"
             "db.query_thread(function() { done = true }, ['b', 'bad', 'c'])");
    QVERIFY(h().script.waitForScript(QStringLiteral("done")));
    QVERIFY(h().holds("var c = db.counters(); c.cnt_sql_ok === 3 && c.cnt_sql_er === 1"));
}

void TestIntrospection::isOpenedIsANumber()
{
    QVERIFY(h().holds("db.counters().is_opened === 0 && db.open()"
                      " && db.counters().is_opened === 1"));
}

void TestIntrospection::hostHasThePortOnlyAboveZero_data()
{
    QTest::addColumn<QString>("host");
    QTest::newRow("-1") << QStringLiteral("host");
    QTest::newRow("0") << QStringLiteral("host");
    QTest::newRow("1") << QStringLiteral("host:1");
    QTest::newRow("65536") << QStringLiteral("host:65536");
}

void TestIntrospection::hostHasThePortOnlyAboveZero()
{
    QFETCH(QString, host);
    h().eval(QStringLiteral("db.hostName = 'host'; db.port = %1")
                 .arg(QLatin1String(QTest::currentDataTag())));
    QCOMPARE(h().shown("db.counters().host"), host);
}

void TestIntrospection::postNameIsTheEnginesParent()
{
    QCOMPARE(h().shown("db.counters(scriptEngine).postName"), QStringLiteral("post"));
    h().post()->setObjectName(QStringLiteral("почта"));
    QCOMPARE(h().shown("db.counters(scriptEngine).postName"), QStringLiteral("почта"));
    QVERIFY(h().holds("!('postName' in db.counters())"
                      " && !('subscribeEvents' in db.counters())"));
}

void TestIntrospection::postNameWithoutParentIsEmpty()
{
    ScriptHostOptions options;
    options.withPost = false;
    FrameHost lonely(options);
    QVERIFY(lonely.holds("new VEXT_SQL().counters(scriptEngine).postName === ''"));
}

void TestIntrospection::namesFollowRenaming()
{
    h().eval("db.objectName = 'renamed'; db.connectionName = 'y'");
    QCOMPARE(h().shown("var c = db.counters(); c.dbObjectName + ' ' + c.connectionName"),
             QStringLiteral("renamed QSTUB_y"));
}

void TestIntrospection::subscribeEventsIsAnArray()
{
    h().eval("db.add_event('a'); db.add_event('b')");
    QVERIFY(h().holds("var e = db.counters(scriptEngine).subscribeEvents;"
                      "e instanceof Array && e.length === 2 && typeof e[0] === 'string'"
                      " && / a$/.test(e[0]) && / b$/.test(e[1])"));
}

void TestIntrospection::threadKeysAreAbsentWhenTheThreadStands()
{
    const QString any = QStringLiteral("var c = db.counters(), n = 0;"
                                       "for (var p in c) if (/^thr_/.test(p)) ++n; n");
    QCOMPARE(h().eval(any).toInt32(), 0);
    QVERIFY(h().holds("db.start_thread()"));
    QCOMPARE(h().eval(any).toInt32(), 4);
    h().eval("db.stop_thread(10000)");
    QCOMPARE(h().eval(any).toInt32(), 0);
}

void TestIntrospection::threadFiguresOfARunningTask()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_stub->onExact(QStringLiteral("slow"), StubReply::affected(0).withGate(gate));
    h().eval("db.open(); var done = 0; db.query_thread(function() { ++done }, 'slow')");
    QVERIFY(gate->waitReached());
    h().eval("db.query_thread(function() { ++done }, 'a');"
             "db.query_thread(function() { ++done }, 'b')");
    QVERIFY(h().holds("var c = db.counters(); c.thr_sql_queue === 2 && c.thr_sql_finish === 1"
                      " && c.thr_notUsedMs === 0"));
    QVERIFY(h().script.waitForScript(QStringLiteral("db.counters().thr_sql_currMs > 0")));
    gate->release();
    QVERIFY(h().script.waitForScript(QStringLiteral("done === 3")));
}

void TestIntrospection::threadFiguresOfAnIdleThread()
{
    h().eval("db.open(); var done = false; db.query_thread(function() { done = true }, 'a')");
    QVERIFY(h().script.waitForScript(QStringLiteral("done")));
    QVERIFY(h().holds("var c = db.counters(); c.thr_sql_queue === 0 && c.thr_sql_finish === 1"
                      " && c.thr_sql_currMs === 0"));
    QVERIFY(h().script.waitForScript(QStringLiteral("db.counters().thr_notUsedMs > 0")));
}

void TestIntrospection::startingTheThreadResetsTheFinished()
{
    h().eval("db.open(); var done = 0; db.query_thread(function() { ++done }, 'a');"
             "db.query_thread(function() { ++done }, 'b')");
    QVERIFY(h().script.waitForScript(QStringLiteral("done === 2")));
    QVERIFY(h().holds("db.counters().thr_sql_finish === 2"));
    QVERIFY(h().holds("db.stop_thread(10000); db.start_thread()"));
    QVERIFY(h().holds("db.counters().thr_sql_finish === 0"));
}

void TestIntrospection::countersOfAnotherEngineAreItsObjects()
{
    QScriptEngine other;
    const QScriptValue counters = h().connection()->counters(&other);
    QCOMPARE(counters.engine(), &other);
    QCOMPARE(counters.property(QStringLiteral("postName")).toString(), QStringLiteral("post"));
}

/// Opens and closes a connection in an engine of its own, and waits behind each for the test.
class OtherEngine : public QThread
{
public:
    ~OtherEngine() override { wait(); }

    const ThreadGatePtr opened = ThreadGate::create();
    const ThreadGatePtr closed = ThreadGate::create();

protected:
    void run() override
    {
        QScriptEngine engine;
        VEXT_SQLWrapper::registerWrapper(&engine);
        engine.evaluate(QStringLiteral("var db = new VEXT_SQL('theirs');"
                                       "db.driverName = 'QSTUB'; db.open()"));
        opened->pass();
        engine.evaluate(QStringLiteral("db.close()"));
        closed->pass();
        delete engine.globalObject().property(QStringLiteral("db")).toQObject();
    }
};

void TestIntrospection::countersFollowTheConnectionOfAnotherThread()
{
    OtherEngine other;
    const GateGuard guards[] = {GateGuard(other.opened), GateGuard(other.closed)};
    other.start();
    QVERIFY(other.opened->waitReached());
    const QString theirs = QStringLiteral("var c = counters()[1]; c.dbObjectName + c.is_opened");
    QCOMPARE(h().eval(theirs).toString(), QStringLiteral("theirs1"));
    other.opened->release();
    QVERIFY(other.closed->waitReached());
    QCOMPARE(h().eval(theirs).toString(), QStringLiteral("theirs0"));
    other.closed->release();
    QVERIFY(other.wait(static_cast<unsigned long>(scaledMs(defaultWaitMs))));
}

QTEST_GUILESS_MAIN(TestIntrospection)
#include "test_introspection.moc"
