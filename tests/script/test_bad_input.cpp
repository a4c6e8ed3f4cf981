// What scripts and hosts get wrong. Each time a documented answer or a clear error, and afterwards
// a connection that works; never a crash, a leak or a hang.
#include "frame_host.h"
#include "library_life.h"
#include "message_log.h"
#include "recording_driver.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>
#include <thread>

namespace
{

/// Values of every kind that a script can pass; each is made anew where it is used.
const char *const values[] = {
    "undefined",
    "null",
    "true",
    "0",
    "-1",
    "1.5",
    "NaN",
    "Infinity",
    "-2147483649",
    "4294967296",
    "1e308",
    "''",
    "' '",
    "'x'",
    "'a\\0b'",
    "'\\ud800'",
    "'%1 %2 %99'",
    "hugeText",
    "[]",
    "[undefined, null, NaN]",
    "[[], [[]], {}]",
    "new Array(1000)",
    "cyclicArray()",
    "throwingArray()",
    "{}",
    "{length: 5, 0: 'x'}",
    "cyclicObject()",
    "{get a() { throw new Error('getter') }}",
    "{toString: function() { throw new Error('text') }}",
    "{valueOf: function() { throw new Error('value') }, toString: function() { return {} }}",
    "function() {}",
    "function() { throw new Error('called') }",
    "new Date(0)",
    "new Date(NaN)",
    "/a+/g",
    "new Error('e')",
    "new String('s')",
    "server",
    "scriptEngine",
    "gone",
    "db",
    "VEXT_SQL",
    "db.query",
};

const char *const slotNames[] = {
    "taskSize",
    "add_event",
    "rem_event",
    "isDriverAvailable",
    "transaction",
    "commit",
    "rollback",
    "open",
    "close",
    "query",
    "exec",
    "start_thread",
    "stop_thread",
    "tables",
    "clear",
    "clearSqlResult",
    "hasFeature",
    "counters",
    "setScriptValueThis",
    "disableTraceLog",
    "enableTraceLog",
    "setCodec",
    "query_thread",
    "exec_thread",
    "countersAll",
};

/// Deletes an object as a host may, from a script's hand.
QScriptValue destroy(QScriptContext *context, QScriptEngine *engine)
{
    delete context->argument(0).toQObject();
    return engine->undefinedValue();
}

QScriptValue collect(QScriptContext *, QScriptEngine *engine)
{
    engine->collectGarbage();
    return engine->undefinedValue();
}

} // namespace

class TestBadInput : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void everyCallTakesAnything_data();
    void everyCallTakesAnything();
    void everyPropertyTakesAnything_data();
    void everyPropertyTakesAnything();
    void constructorTakesAnything();
    void globalFunctionsTakeAnything();
    void functionsOfOtherThisObjectsAreTypeErrors_data();
    void functionsOfOtherThisObjectsAreTypeErrors();
    void callsOfTheWrongArgumentCountAreErrors_data();
    void callsOfTheWrongArgumentCountAreErrors();

    void closedConnectionAnswersFalse_data();
    void closedConnectionAnswersFalse();
    void unknownDriverIsAnOpenError_data();
    void unknownDriverIsAnOpenError();
    void missingDatabaseFileIsAnOpenError();
    void syntaxErrorIsFalseWithAText_data();
    void syntaxErrorIsFalseWithAText();
    void emptyStatementIsHarmless_data();
    void emptyStatementIsHarmless();
    void hugeStatementRuns();
    void statementsWithNulCharactersAreHarmless();
    void hugeParametersAreHarmless();

    void queryResultMayBeAnything_data();
    void queryResultMayBeAnything();
    void queryResultMayHaveAThrowingGetter();
    void queryResultMayBeDeleted();
    void queryResultMayBeMadeReadOnly();
    void heldResultMayBeTakenApart();
    void objectPrototypeMayHoldTraps();

    void throwingArgumentGetterReachesTheScript_data();
    void throwingArgumentGetterReachesTheScript();
    void argumentGetterMayCloseTheConnection_data();
    void argumentGetterMayCloseTheConnection();
    void argumentGetterMayDeleteTheConnection_data();
    void argumentGetterMayDeleteTheConnection();

    void thousandConnections();
    void wrapperMayBeCollectedWhileATaskRuns();
    void engineMayDieWithOpenConnections();
    void engineMayDieWhileTasksRun_data();
    void engineMayDieWhileTasksRun();
    void engineMayDieWithUndeliveredResults();
    void engineMayDieInsideACallback();

    void deletedConnectionIsAnErrorToTheScript_data();
    void deletedConnectionIsAnErrorToTheScript();
    void deletedConnectionsPropertiesAreHarmless();
    void deletedConnectionDeliversNothing();
    void connectionMayBeDeletedInItsSignal_data();
    void connectionMayBeDeletedInItsSignal();
    void connectionMayBeDeletedInACallback();
    void connectionMayCloseInItsSignal_data();
    void connectionMayCloseInItsSignal();
    void connectionMayReopenInItsSignal_data();
    void connectionMayReopenInItsSignal();
    void handlersMayThrow_data();
    void handlersMayThrow();
    void signalHandlerMayCollectGarbage();
    void deletingTheEnginesConnectionsInAnyOrder();

private:
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<StubServer> m_stub;
    std::unique_ptr<FrameHost> m_host;
    QString m_expectedComplaints;
    FrameHost &h() { return *m_host; }
    void makeDb();
    void verifyUsable();
};

void TestBadInput::init()
{
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    m_expectedComplaints.clear();
    m_stub = std::make_unique<StubServer>(QStringLiteral("QSTUB"));
    m_stub->setFeatures({QSqlDriver::Transactions, QSqlDriver::QuerySize, QSqlDriver::Unicode,
                         QSqlDriver::PreparedQueries, QSqlDriver::PositionalPlaceholders,
                         QSqlDriver::LastInsertId, QSqlDriver::EventNotifications,
                         QSqlDriver::CancelQuery});
    m_host = std::make_unique<FrameHost>();
    QScriptValue global = h().engine()->globalObject();
    global.setProperty(QStringLiteral("destroy"), h().engine()->newFunction(destroy));
    global.setProperty(QStringLiteral("collect"), h().engine()->newFunction(collect));
    auto *object = new QObject;
    global.setProperty(QStringLiteral("gone"), h().engine()->newQObject(object));
    delete object;
    h().eval("var hugeText = new Array(20001).join('x');"
             "function cyclicArray() { var a = [1]; a.push(a); return a }"
             "function cyclicObject() { var o = {}; o.self = o; return o }"
             "function throwingArray() { var a = new Array(2);"
             "a.__defineGetter__('0', function() { throw new Error('element') }); return a }");
    makeDb();
}

void TestBadInput::makeDb()
{
    h().eval("var db = new VEXT_SQL(); db.driverName = 'QSTUB'");
}

void TestBadInput::cleanup()
{
    if (h().engine())
        h().engine()->evaluate(QStringLiteral("tag = undefined"));
    m_host.reset();
    drainEvents();
    QVERIFY(VEXT_SQL::m_listSqlConns.isEmpty());
    QVERIFY(LibraryLife::workerCount() == 0);
    QVERIFY2(QSqlDatabase::connectionNames().isEmpty(),
             qPrintable(QSqlDatabase::connectionNames().join(QLatin1Char(' '))));
    QVERIFY2(m_stub->liveResults() == 0 && m_stub->liveDrivers() == 0,
             qPrintable(m_stub->record()));
    m_stub.reset();
    const QStringList complaints = m_log->qtComplaints(m_expectedComplaints);
    QVERIFY2(complaints.isEmpty(), qPrintable(complaints.join(QLatin1Char('\n'))));
    m_log.reset();
}

/// Brings the connection back to good parameters and checks that both ways of querying work.
void TestBadInput::verifyUsable()
{
    h().eval("db.close(); db.enableNull = true; db.connectOptions = ''; db.driverName = 'QSTUB';"
             "db.traceLog = false; db.connectionName = ''; var answered = 0");
    QVERIFY(h().holds("db.open() === true"));
    QVERIFY(h().holds("typeof db.query('select 1') === 'object'"));
    QVERIFY(h().holds("db.query_thread(function() { ++answered }, 'select 2') === true"));
    QVERIFY(h().script.waitForScript(QStringLiteral("answered === 1")));
    QVERIFY(h().holds("db.close() === true"));
}

// --- Values of every kind ---

void TestBadInput::everyCallTakesAnything_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("open");
    for (const char *name : slotNames) {
        QTest::newRow(qPrintable(QStringLiteral("closed %1").arg(QLatin1String(name))))
            << QString::fromLatin1(name) << false;
        QTest::newRow(qPrintable(QStringLiteral("open %1").arg(QLatin1String(name))))
            << QString::fromLatin1(name) << true;
    }
}

void TestBadInput::everyCallTakesAnything()
{
    QFETCH(QString, name);
    QFETCH(bool, open);
    m_expectedComplaints = QStringLiteral("QSqlQuery::|driver not loaded|available drivers");
    if (open)
        QVERIFY(h().holds("db.open()"));
    // What is thrown is an error object: the plugin's, the engine's or the getter's own.
    h().eval("var odd = []; function call(f, args) { try { db[f].apply(db, args) }"
             "catch (e) { if (!(e instanceof Error)) odd.push(String(e)) } }");
    const auto call = [&](const QString &arguments) {
        h().eval(QStringLiteral("call('%1', [%2])").arg(name, arguments));
    };
    call(QString());
    for (const char *value : values) {
        const QString v = utf8(value);
        call(v);
        call(QStringLiteral("'x', ") + v);
        call(v + QStringLiteral(", 'x'"));
        call(QStringLiteral("function() {}, ") + v);
        call(QStringLiteral("function() {}, ['x'], ") + v);
        call(QStringLiteral("%1, %1, %1, %1").arg(v));
        if (open && !h().connection()->isOpen())
            h().eval("db.driverName = 'QSTUB'; db.open()");
    }
    QCOMPARE(h().shown("odd.join()"), QString());
    drainEvents();
    h().engine()->clearExceptions();
    verifyUsable();
}

void TestBadInput::everyPropertyTakesAnything_data()
{
    QTest::addColumn<int>("dummy");
    const QMetaObject &meta = VEXT_SQL::staticMetaObject;
    for (int i = 0; i < meta.propertyCount(); ++i)
        QTest::newRow(meta.property(i).name()) << 0;
    for (const char *name :
         {"tag", "queryResult", "query_thread", "query", "constructor", "__proto__", "unknown"})
        QTest::newRow(name) << 0;
}

void TestBadInput::everyPropertyTakesAnything()
{
    m_expectedComplaints = QStringLiteral("driver not loaded|available drivers");
    const QString name = QString::fromLatin1(QTest::currentDataTag());
    for (const char *value : values) {
        if (name == QLatin1String("__proto__") && qstrcmp(value, "db") == 0)
            continue;
        h().eval(QStringLiteral("try { db['%1'] = %2; String(db['%1']) } catch (e) {}")
                     .arg(name, utf8(value)));
        h().eval("try { db.open(); db.query('x'); db.tables(); db.counters(scriptEngine);"
                 "db.lastErrors; db.close() } catch (e) {}");
    }
    h().engine()->clearExceptions();
    if (name == QLatin1String("query") || name == QLatin1String("__proto__"))
        makeDb();
    verifyUsable();
}

void TestBadInput::constructorTakesAnything()
{
    for (const char *value : values) {
        h().eval(QStringLiteral("(function(v) { new VEXT_SQL(v); VEXT_SQL(v, v);"
                                "VEXT_SQL.call(v, v, v, v) })(%1)")
                     .arg(utf8(value)));
    }
    QCOMPARE(VEXT_SQL::m_listSqlConns.size(), 1 + 3 * int(sizeof values / sizeof *values));
    verifyUsable();
}

void TestBadInput::globalFunctionsTakeAnything()
{
    for (const char *value : values) {
        h().eval(QStringLiteral("(function(v) { try { tag = v; String(tag) } catch (e) {}"
                                "try { counters(v, v) } catch (e) {}"
                                "try { counters.call(v) } catch (e) {} })(%1)")
                     .arg(utf8(value)));
        h().engine()->clearExceptions();
        QVERIFY(h().holds("counters().length === 1"));
    }
    QVERIFY(h().holds("tag = 5; tag === 5"));
}

void TestBadInput::functionsOfOtherThisObjectsAreTypeErrors_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *value : {"{}", "null", "undefined", "5", "'x'", "server", "gone", "[]",
                              "function() {}", "scriptEngine"})
        QTest::newRow(value) << 0;
}

void TestBadInput::functionsOfOtherThisObjectsAreTypeErrors()
{
    h().eval("db.open()");
    for (const char *name : {"query_thread", "exec_thread"}) {
        const QString thrown =
            h().script.evalThrows(QStringLiteral("db.%1.call(%2, function() {}, 'x')")
                                      .arg(QLatin1String(name), utf8(QTest::currentDataTag())));
        QVERIFY2(thrown.startsWith(QLatin1String("TypeError: ")), qPrintable(thrown));
    }
    QCOMPARE(m_stub->executed(), QStringList());
    verifyUsable();
}

void TestBadInput::callsOfTheWrongArgumentCountAreErrors_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *call :
         {"db.query()", "db.exec()", "db.add_event()", "db.rem_event()", "db.isDriverAvailable()",
          "db.setCodec()", "db.setScriptValueThis()", "plugin.install()"})
        QTest::newRow(call) << 0;
}

void TestBadInput::callsOfTheWrongArgumentCountAreErrors()
{
    QScriptValue plugin = h().engine()->newQObject(FrameHost::plugin());
    h().engine()->globalObject().setProperty(QStringLiteral("plugin"), plugin);
    h().eval("db.open()");
    const QString thrown = h().script.evalThrows(utf8(QTest::currentDataTag()));
    QVERIFY2(thrown.contains(QLatin1String("Error: ")), qPrintable(thrown));
    QCOMPARE(m_stub->executed(), QStringList());
}

// --- Connections that are not there ---

void TestBadInput::closedConnectionAnswersFalse_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *call :
         {"query('x')", "exec('x')", "exec('x', [])", "tables()", "transaction()", "commit()",
          "rollback()", "close()", "query_thread(function() {}, 'x')",
          "exec_thread(function() {}, 'x', [])"})
        QTest::newRow(call) << 0;
}

void TestBadInput::closedConnectionAnswersFalse()
{
    const QString call =
        QStringLiteral("db.%1 === false").arg(QLatin1String(QTest::currentDataTag()));
    QVERIFY(h().eval(call).toBool()); // never opened
    QVERIFY(h().holds("db.open() && db.close()"));
    QVERIFY(h().eval(call).toBool()); // closed
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no")),
                 StubWhere::nth(1));
    QVERIFY(h().holds("db.open() === false"));
    QVERIFY(h().eval(call).toBool()); // could not be opened
    QVERIFY(h().holds("!db.isRunning && db.taskSize() === 0"));
    verifyUsable();
}

void TestBadInput::unknownDriverIsAnOpenError_data()
{
    QTest::addColumn<QString>("driver");
    QTest::newRow("none") << QString();
    QTest::newRow("unknown") << QStringLiteral("QNOSUCH");
    QTest::newRow("another case") << QStringLiteral("qsqlite");
    QTest::newRow("with NUL") << QStringLiteral("QSQLITE\\0");
    QTest::newRow("huge") << QString(100000, QLatin1Char('Q'));
}

void TestBadInput::unknownDriverIsAnOpenError()
{
    QFETCH(QString, driver);
    m_expectedComplaints = QStringLiteral("driver not loaded|available drivers");
    h().eval(QStringLiteral("db.traceLog = true; db.driverName = '%1'").arg(driver));
    QVERIFY(h().holds("db.open() === false && db.isOpen === false && db.lastError !== ''"));
    QCOMPARE(h().shown("db.lastErrors.typeStr"), QStringLiteral("ConnectionError)"));
    QVERIFY(h().holds("db.start_thread(); db.hasFeature().Transactions === false"));
    QVERIFY(h().holds("db.stop_thread(10000); !db.isRunning"));
    verifyUsable();
}

void TestBadInput::missingDatabaseFileIsAnOpenError()
{
    const QTemporaryDir folder;
    h().eval(QStringLiteral("db.driverName = 'QSQLITE'; db.databaseName = '%1/none/file.db'")
                 .arg(folder.path()));
    QVERIFY(h().holds("db.open() === false && db.lastErrors.typeStr === 'ConnectionError)'"
                      " && db.lastError !== '' && !db.isOpen"));
    h().eval(QStringLiteral("db.databaseName = '%1/file.db';"
                            "db.connectOptions = 'QSQLITE_OPEN_READONLY'")
                 .arg(folder.path()));
    QVERIFY(h().holds("db.open() === false"));
    h().eval("db.connectOptions = ''");
    QVERIFY(h().holds("db.open() === true && db.close()"));
}

// --- Statements ---

void TestBadInput::syntaxErrorIsFalseWithAText_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *sql : {"selec 1", "select", "select * from nowhere", "'", ")", "\\0", "--x",
                            "commit", "select ?", "select :a", "select 1; select 2", "%1"})
        QTest::newRow(sql) << 0;
}

void TestBadInput::syntaxErrorIsFalseWithAText()
{
    m_expectedComplaints = QStringLiteral("QSqlQuery::");
    const QString sql = utf8(QTest::currentDataTag());
    h().eval("db.driverName = 'QSQLITE'; db.databaseName = ':memory:'; db.open()");
    QString quoted = sql;
    quoted.replace(QLatin1Char('\''), QLatin1String("\\'"));
    h().eval(QStringLiteral("var r = db.query('%1'), error = db.lastError").arg(quoted));
    const bool harmless = sql == QLatin1String("--x") || sql == QLatin1String("\\0") ||
                          sql == QLatin1String("select ?") || sql == QLatin1String("select :a");
    if (!harmless) {
        QVERIFY(h().holds("r === false"));
        QVERIFY(!h().post()->messages(-1).isEmpty());
        QVERIFY(h().post()->messages(-1).constLast().text.startsWith(
            QStringLiteral("ошибка выполнения: '")));
    }
    h().eval(QStringLiteral("r = db.exec('%1', [1, 2])").arg(quoted));
    QVERIFY(h().holds("r === false || typeof r === 'object'"));
    QVERIFY(h().holds("db.isOpen || db.open()"));
    QVERIFY(h().holds("db.query('select 5 as a').a[0] === 5"));
}

void TestBadInput::emptyStatementIsHarmless_data()
{
    QTest::addColumn<QString>("driver");
    QTest::newRow("QSTUB") << QStringLiteral("QSTUB");
    QTest::newRow("QSQLITE") << QStringLiteral("QSQLITE");
}

void TestBadInput::emptyStatementIsHarmless()
{
    QFETCH(QString, driver);
    m_expectedComplaints = QStringLiteral("QSqlQuery::");
    h().eval(QStringLiteral("db.driverName = '%1'; db.databaseName = ':memory:'; db.open()")
                 .arg(driver));
    h().eval("db.query(''); db.open(); db.exec(''); db.open(); db.exec('', []); db.open();"
             "db.query('   '); db.open(); var done = 0;"
             "db.query_thread(function() { ++done }, ' ')");
    QVERIFY(h().script.waitForScript(QStringLiteral("done === 1")));
    QVERIFY(h().holds("(db.isOpen || db.open()) && db.query('select 1') !== false"));
}

void TestBadInput::hugeStatementRuns()
{
    h().eval("db.driverName = 'QSQLITE'; db.databaseName = ':memory:'; db.open();"
             "var text = new Array(900001).join('x')");
    QVERIFY(h().holds("db.query(\"select '\" + text + \"' as a\").a[0] === text"));
    QVERIFY(h().holds("db.lastQuery.length > 900000"));
    h().eval("var got; db.query_thread(function(r) { got = r.a[0] },"
             "\"select '\" + text + \"' as a\")");
    QVERIFY(h().script.waitForScript(QStringLiteral("got")));
    QVERIFY(h().holds("got === text"));
}

void TestBadInput::statementsWithNulCharactersAreHarmless()
{
    m_expectedComplaints = QStringLiteral("QSqlQuery::");
    h().eval("db.driverName = 'QSQLITE'; db.databaseName = ':memory:'; db.open();"
             "db.query(\"select 'a\\0b' as a\"); db.open(); db.exec(\"select 'a\\0b'\", ['\\0']);"
             "db.open(); db.add_event('\\0'); db.rem_event('\\0'); db.setCodec('\\0');"
             "db.connectOptions = '\\0'; db.app_name = '\\0'; db.hostName = '\\0'; db.close();"
             "db.connectionName = 'a\\0b'");
    QVERIFY(h().holds("db.open() && db.query('select 5 as a').a[0] === 5"));
    QCOMPARE(h().eval("db.connectionName").toString().size(), 11);
}

void TestBadInput::hugeParametersAreHarmless()
{
    h().eval("['app_name', 'databaseName', 'userName', 'password', 'hostName', 'connectOptions',"
             "'connectionName', 'objectName'].forEach(function(p) { db[p] = hugeText });"
             "db.traceLog = true; db.add_event(hugeText)");
    QVERIFY(h().holds("db.open() && db.open() && db.query(hugeText) !== false"));
    QVERIFY(
        h().holds("db.counters(scriptEngine).database === hugeText && db.events[0] === hugeText"));
    QVERIFY(h().holds("db.close() && new VEXT_SQL(hugeText).objectName === hugeText"));
}

// --- The published result ---

void TestBadInput::queryResultMayBeAnything_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *value : values)
        QTest::newRow(value) << 0;
}

void TestBadInput::queryResultMayBeAnything()
{
    m_stub->onExact(QStringLiteral("select 1"),
                    StubReply::table({{QStringLiteral("a"), QVariant::Int}}, {{1}}));
    for (const char *call : {"db.clear()", "db.clearSqlResult()", "db.query('select 1')",
                             "db.exec('select 1', [])", "db.tables()", "db.close()"}) {
        h().eval(QStringLiteral("db.open(); db.queryResult = %1; %2")
                     .arg(utf8(QTest::currentDataTag()), QLatin1String(call)));
    }
    QVERIFY(h().holds("db.open() && db.query('select 1').a[0] === 1"
                      " && db.queryResult.a[0] === 1"));
    verifyUsable();
}

void TestBadInput::queryResultMayHaveAThrowingGetter()
{
    m_stub->onExact(QStringLiteral("select 1"),
                    StubReply::table({{QStringLiteral("a"), QVariant::Int}}, {{1}}));
    h().eval("db.open(); db.__defineGetter__('queryResult', function() { throw new Error('no') });"
             "var seen = 0; db.__defineSetter__('queryResult', function() { ++seen;"
             " throw new Error('no') });"
             "try { db.clear() } catch (e) {} try { var r = db.query('select 1') } catch (e) {}"
             "try { db.tables() } catch (e) {}");
    QVERIFY(h().holds("db.isOpen"));
    h().eval("try { db.close() } catch (e) {}");
    QVERIFY(h().holds("!db.isOpen"));
    // A fresh object of the same script works as ever.
    makeDb();
    verifyUsable();
}

void TestBadInput::queryResultMayBeDeleted()
{
    h().eval("db.open(); db.query('x'); delete db.queryResult; db.query('y');"
             "delete db.queryResult; db.clear(); db.close()");
    verifyUsable();
}

void TestBadInput::queryResultMayBeMadeReadOnly()
{
    h().eval("db.open(); Object.defineProperty(db, 'queryResult', {value: {kept: 1},"
             "writable: false, enumerable: true, configurable: false});"
             "db.query('x'); db.clear(); db.tables(); db.close()");
    verifyUsable();
}

void TestBadInput::heldResultMayBeTakenApart()
{
    m_stub->onExact(QStringLiteral("select 1"),
                    StubReply::table({{QStringLiteral("a"), QVariant::Int},
                                      {QStringLiteral("b"), QVariant::String}},
                                     {{1, QStringLiteral("x")}}));
    h().eval("db.open(); var r = db.query('select 1');"
             "for (var p in r) { try { delete r[p]; r[p] = {get x() { throw 1 }} } catch (e) {} }"
             "try { r.__defineGetter__('rows', function() { throw new Error('no') }) } catch (e) {}"
             "try { r.__proto__ = db } catch (e) {} r.self = r;"
             "db.query('select 1'); db.clear(); collect()");
    verifyUsable();
}

void TestBadInput::objectPrototypeMayHoldTraps()
{
    m_stub->onExact(QStringLiteral("select 1"),
                    StubReply::table({{QStringLiteral("a"), QVariant::Int}}, {{1}}));
    h().eval("var trapped = 0; ['a', 'rows', 'queryResult', 'length', '0', 'fields', 'name']"
             ".forEach(function(p) { Object.prototype.__defineSetter__(p, function() { ++trapped;"
             " throw new Error('trap') }) }); db.open()");
    h().eval("try { db.query('select 1') } catch (e) {} try { db.tables() } catch (e) {}"
             "try { db.counters(scriptEngine) } catch (e) {}"
             "try { db.exec('x', [1]) } catch (e) {}"
             "['a', 'rows', 'queryResult', 'length', '0', 'fields', 'name'].forEach("
             "function(p) { delete Object.prototype[p] })");
    h().engine()->clearExceptions();
    verifyUsable();
}

// --- Arguments that run code ---

void TestBadInput::throwingArgumentGetterReachesTheScript_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *call :
         {"db.exec('p', a)", "db.exec('p', [1, o])", "db.exec_thread(function() {}, 'p', a)"})
        QTest::newRow(call) << 0;
}

void TestBadInput::throwingArgumentGetterReachesTheScript()
{
    h().eval("db.open(); var a = throwingArray(), o = {get x() { throw new Error('element') }}");
    QCOMPARE(h().script.evalThrows(utf8(QTest::currentDataTag())),
             QStringLiteral("Error: element"));
    QCOMPARE(m_stub->executed(), QStringList());
    verifyUsable();
}

void TestBadInput::argumentGetterMayCloseTheConnection_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *call : {"db.exec('p', a)", "db.exec_thread(function() {}, 'p', a)",
                             "db.query_thread(function() {}, a)", "db.query_thread(a, 'x')",
                             "db.query(o)", "db.exec(o, a)"})
        QTest::newRow(call) << 0;
}

void TestBadInput::argumentGetterMayCloseTheConnection()
{
    h().eval("db.open(); var a = new Array(2);"
             "a.__defineGetter__('0', function() { db.close(); return 'x' });"
             "var o = {toString: function() { db.close(); return 'x' }}");
    h().eval(QStringLiteral("try { %1 } catch (e) {}").arg(utf8(QTest::currentDataTag())));
    verifyUsable();
}

void TestBadInput::argumentGetterMayDeleteTheConnection_data()
{
    // Not where Qt turns the argument into text: it would call the slot of the deleted object.
    QTest::addColumn<int>("dummy");
    for (const char *call :
         {"db.exec('p', a)", "db.exec('p', [a])", "db.exec('p', [b])",
          "db.exec_thread(function() {}, 'p', a)", "db.exec_thread(function() {}, 'p', [b])",
          "db.exec_thread(function() {}, ['p', 'q'], [[1], a])",
          "db.exec_thread(function() {}, 'p', [1], a)", "db.query_thread(function() {}, a)",
          "db.query_thread(a, 'x')"})
        QTest::newRow(call) << 0;
}

void TestBadInput::argumentGetterMayDeleteTheConnection()
{
    h().eval("db.open(); var a = new Array(2), held = db, sprung = 0;"
             "function spring() { ++sprung; destroy(held); return 'x' }"
             "a.__defineGetter__('0', spring); var b = {}; b.__defineGetter__('c', spring)");
    h().eval(QStringLiteral("try { %1 } catch (e) {}").arg(utf8(QTest::currentDataTag())));
    QVERIFY2(h().holds("sprung > 0"), "the trap was not touched");
    drainEvents();
    h().engine()->clearExceptions();
    makeDb();
    verifyUsable();
}

// --- Numbers and lives ---

void TestBadInput::thousandConnections()
{
    h().eval("var all = []; for (var i = 0; i < 1000; ++i) { var c = new VEXT_SQL('c' + i);"
             "c.driverName = 'QSTUB'; c.connectionName = 'same'; if (i % 10 === 0) c.open();"
             "all.push(c) }");
    QCOMPARE(VEXT_SQL::m_listSqlConns.size(), 1001);
    QCOMPARE(m_stub->openDrivers(), 100);
    QVERIFY(h().holds("counters().length === 1001"));
    QStringList names = QSqlDatabase::connectionNames();
    QCOMPARE(names.removeDuplicates(), 0);
    QCOMPARE(names.size(), 100);
    h().eval("all = c = null; collect()");
    QCOMPARE(VEXT_SQL::m_listSqlConns.size(), 1001);
    h().script.destroyEngine();
    QCOMPARE(m_stub->liveDrivers(), 0);
}

void TestBadInput::wrapperMayBeCollectedWhileATaskRuns()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_stub->onExact(QStringLiteral("slow"), StubReply::affected(0).withGate(gate));
    h().eval("var done = 0; (function() { var d = new VEXT_SQL('lost'); d.driverName = 'QSTUB';"
             "d.open(); d.query_thread(function() { ++done; collect() }, 'slow') })();"
             "db = null; collect()");
    QVERIFY(gate->waitReached());
    for (int i = 0; i < 3; ++i)
        h().script.collectGarbage();
    gate->release();
    QVERIFY(h().script.waitForScript(QStringLiteral("done === 1")));
    QCOMPARE(VEXT_SQL::m_listSqlConns.size(), 2);
    QVERIFY(VEXT_SQL::m_listSqlConns.constLast()->isOpen());
}

void TestBadInput::engineMayDieWithOpenConnections()
{
    h().eval("db.add_event('e'); db.open(); db.query('x'); db.transaction(); db.start_thread();"
             "var other = new VEXT_SQL(); other.driverName = 'QSTUB'; other.open()");
    h().script.destroyEngine();
    QCOMPARE(m_stub->liveDrivers(), 0);
    QVERIFY(QSqlDatabase::connectionNames().isEmpty());
}

void TestBadInput::engineMayDieWhileTasksRun_data()
{
    QTest::addColumn<bool>("canCancel");
    QTest::newRow("driver that cancels") << true;
    QTest::newRow("driver that does not") << false;
}

void TestBadInput::engineMayDieWhileTasksRun()
{
    QFETCH(bool, canCancel);
    m_stub->setFeature(QSqlDriver::CancelQuery, canCancel);
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_stub->onExact(QStringLiteral("slow"), StubReply::affected(0).withGate(gate));
    h().eval("db.open(); var done = 0; for (var i = 0; i < 5; ++i)"
             "db.query_thread(function() { ++done }, 'slow', {})");
    QVERIFY(gate->waitReached());
    QElapsedTimer timer;
    timer.start();
    // Without cancelling the statement lasts as long as it lasts, and the worker with it.
    std::thread statement;
    if (!canCancel) {
        statement = std::thread([gate, worker = h().connection()->worker] {
            const Deadline limit(defaultWaitMs);
            while (worker->m_thrStop.loadAcquire() != 1 && !limit.expired())
                QThread::msleep(1);
            gate->release();
        });
    }
    h().script.destroyEngine();
    if (statement.joinable())
        statement.join();
    QVERIFY2(timer.elapsed() < scaledMs(5000), qPrintable(QString::number(timer.elapsed())));
    QVERIFY(LibraryLife::workerCount() == 0);
    QCOMPARE(m_stub->liveDrivers(), 0);
    QVERIFY(m_stub->executed().size() <= 2);
}

void TestBadInput::engineMayDieWithUndeliveredResults()
{
    h().eval("db.open(); for (var i = 0; i < 50; ++i) db.query_thread(function() {}, 'x', [i])");
    // All are executed, none is delivered: no event is handled meanwhile.
    const Deadline deadline(defaultWaitMs);
    while (m_stub->count(StubCall::Exec, QStringLiteral("_thr")) < 50 && !deadline.expired())
        QThread::yieldCurrentThread();
    QVERIFY(!deadline.expired());
    h().script.destroyEngine();
    QVERIFY(LibraryLife::workerCount() == 0);
}

void TestBadInput::engineMayDieInsideACallback()
{
    // The host's part of a callback asks for the end of the script.
    bool asked = false;
    QScriptEngine *engine = h().engine();
    connect(h().connection(), &VEXT_SQL::query_finish, this, [&] {
        asked = true;
        engine->deleteLater();
    });
    h().eval("db.open(); db.query_thread('x'); db.query_thread('y')");
    QVERIFY(waitUntil([&] { return asked && !h().engine(); }));
    drainEvents();
    QVERIFY(VEXT_SQL::m_listSqlConns.isEmpty());
}

// --- Deleted by the host ---

void TestBadInput::deletedConnectionIsAnErrorToTheScript_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *name : slotNames)
        QTest::newRow(name) << 0;
}

void TestBadInput::deletedConnectionIsAnErrorToTheScript()
{
    const QString name = QString::fromLatin1(QTest::currentDataTag());
    h().eval("db.open(); db.query('x'); destroy(db)");
    for (const char *arguments : {"", "'x'", "'x', [1]", "function() {}, 'x'"}) {
        const QString call = QStringLiteral("db.%1(%2)").arg(name, QLatin1String(arguments));
        const QScriptValue result = h().engine()->evaluate(call);
        QVERIFY2(h().engine()->hasUncaughtException() && result.isError(),
                 qPrintable(call + QStringLiteral(" gave ") + result.toString()));
        h().engine()->clearExceptions();
    }
    drainEvents();
    QCOMPARE(h().shown("typeof db"), QStringLiteral("object"));
}

void TestBadInput::deletedConnectionsPropertiesAreHarmless()
{
    h().eval("db.open(); var r = db.query('x'); destroy(db)");
    drainEvents();
    const QMetaObject &meta = VEXT_SQL::staticMetaObject;
    for (int i = 0; i < meta.propertyCount(); ++i) {
        const QString name = QString::fromLatin1(meta.property(i).name());
        h().eval(QStringLiteral("try { String(db.%1) } catch (e) {}"
                                "try { db.%1 = 5 } catch (e) {}")
                     .arg(name));
    }
    h().engine()->clearExceptions();
    h().eval("try { String(db) } catch (e) {} try { for (var p in db); } catch (e) {}"
             "try { db.queryResult } catch (e) {} try { tag = db; String(tag) } catch (e) {}");
    h().engine()->clearExceptions();
    QVERIFY(h().holds("counters().length === 0"));
    QVERIFY(h().holds("r.rows === 0 || r.rows === undefined"));
}

void TestBadInput::deletedConnectionDeliversNothing()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_stub->onExact(QStringLiteral("slow"), StubReply::affected(0).withGate(gate));
    h().eval("db.open(); var done = 0; db.query_thread(function() { ++done }, 'slow');"
             "db.query_thread(function() { ++done }, 'next')");
    QVERIFY(gate->waitReached());
    h().eval("destroy(db)");
    drainEvents();
    QVERIFY(LibraryLife::workerCount() == 0);
    QVERIFY(h().holds("done === 0"));
    makeDb();
    verifyUsable();
}

void TestBadInput::connectionMayBeDeletedInItsSignal_data()
{
    QTest::addColumn<QString>("code");
    QTest::newRow("opened") << QStringLiteral("db.open()");
    QTest::newRow("closed") << QStringLiteral("db.open(); db.close()");
    QTest::newRow("query_finish") << QStringLiteral(
        "db.open(); var r = db.query('select 1'); r && r.rows");
    QTest::newRow("query_finish of exec") << QStringLiteral("db.open(); db.exec('select 1', [1])");
    QTest::newRow("query_finish of a task")
        << QStringLiteral("db.open(); db.query_thread('select 1'); db.query_thread('select 2')");
    QTest::newRow("started") << QStringLiteral("db.start_thread()");
    QTest::newRow("finished") << QStringLiteral("db.start_thread(); db.stop_thread(10000)");
}

void TestBadInput::connectionMayBeDeletedInItsSignal()
{
    QFETCH(QString, code);
    m_stub->onExact(QStringLiteral("select 1"),
                    StubReply::table({{QStringLiteral("a"), QVariant::Int}}, {{1}}));
    const QString signal =
        QString::fromLatin1(QTest::currentDataTag()).section(QLatin1Char(' '), 0, 0);
    h().eval(QStringLiteral("var gone = false; db.%1.connect(function() {"
                            "if (!gone) { gone = true; destroy(db) } })")
                 .arg(signal));
    h().eval(QStringLiteral("try { %1 } catch (e) {}").arg(code));
    QVERIFY(h().script.waitForScript(QStringLiteral("gone")));
    drainEvents();
    QVERIFY(LibraryLife::workerCount() == 0);
    QVERIFY(QSqlDatabase::connectionNames().isEmpty());
    makeDb();
    verifyUsable();
}

void TestBadInput::connectionMayBeDeletedInACallback()
{
    h().eval("db.open(); var calls = 0; var callback = function() { ++calls; destroy(db) };"
             "for (var i = 0; i < 10; ++i) db.query_thread(callback, 'x')");
    QVERIFY(h().script.waitForScript(QStringLiteral("calls > 0")));
    drainEvents();
    QVERIFY(h().holds("calls === 1"));
    QVERIFY(LibraryLife::workerCount() == 0);
}

void TestBadInput::connectionMayCloseInItsSignal_data()
{
    QTest::addColumn<QString>("code");
    QTest::newRow("opened") << QStringLiteral("db.open()");
    QTest::newRow("closed") << QStringLiteral("db.open(); db.close()");
    QTest::newRow("query_finish") << QStringLiteral("db.open(); db.query('x')");
    QTest::newRow("query_finish of a task") << QStringLiteral(
        "db.open(); db.query_thread('x'); db.query_thread('y'); db.query_thread('z')");
    QTest::newRow("started") << QStringLiteral("db.open(); db.start_thread()");
}

void TestBadInput::connectionMayCloseInItsSignal()
{
    QFETCH(QString, code);
    const QString signal =
        QString::fromLatin1(QTest::currentDataTag()).section(QLatin1Char(' '), 0, 0);
    h().eval(QStringLiteral("var closes = 0; var handler = function() { ++closes; db.close() };"
                            "db.%1.connect(handler); %2")
                 .arg(signal, code));
    QVERIFY(h().script.waitForScript(QStringLiteral("closes > 0 && !db.isOpen && !db.isRunning")));
    drainEvents();
    QVERIFY(QSqlDatabase::connectionNames().isEmpty());
    h().eval(QStringLiteral("db.%1.disconnect(handler)").arg(signal));
    verifyUsable();
}

void TestBadInput::connectionMayReopenInItsSignal_data()
{
    QTest::addColumn<QString>("code");
    QTest::newRow("opened") << QStringLiteral("db.open()");
    QTest::newRow("closed") << QStringLiteral("db.open(); db.close()");
    QTest::newRow("query_finish") << QStringLiteral("db.open(); db.query('x')");
    QTest::newRow("query_finish of a task")
        << QStringLiteral("db.open(); db.query_thread('x'); db.query_thread('y')");
}

void TestBadInput::connectionMayReopenInItsSignal()
{
    QFETCH(QString, code);
    const QString signal =
        QString::fromLatin1(QTest::currentDataTag()).section(QLatin1Char(' '), 0, 0);
    h().eval(QStringLiteral("var rounds = 0; var handler = function() { if (++rounds > 1) return;"
                            "db.close(); db.open() }; db.%1.connect(handler); %2")
                 .arg(signal, code));
    QVERIFY(h().script.waitForScript(QStringLiteral("rounds > 0 && db.isOpen")));
    QVERIFY(h().holds("db.query('again') !== false"));
    h().eval(QStringLiteral("db.%1.disconnect(handler)").arg(signal));
    verifyUsable();
}

void TestBadInput::handlersMayThrow_data()
{
    connectionMayReopenInItsSignal_data();
}

void TestBadInput::handlersMayThrow()
{
    QFETCH(QString, code);
    const QString signal =
        QString::fromLatin1(QTest::currentDataTag()).section(QLatin1Char(' '), 0, 0);
    h().eval(QStringLiteral("var calls = 0; var handler = function() { ++calls;"
                            "throw new Error('handler') }; db.%1.connect(handler)")
                 .arg(signal));
    h().engine()->evaluate(code);
    QVERIFY(waitUntil([&] {
        h().engine()->clearExceptions();
        return h().engine()->evaluate(QStringLiteral("calls")).toInt32() > 0;
    }));
    h().engine()->clearExceptions();
    h().eval(QStringLiteral("db.%1.disconnect(handler)").arg(signal));
    drainEvents();
    h().engine()->clearExceptions();
    verifyUsable();
}

void TestBadInput::signalHandlerMayCollectGarbage()
{
    m_stub->onExact(
        QStringLiteral("select 1"),
        StubReply::table({{QStringLiteral("a"), QVariant::String}}, {{QStringLiteral("kept")}}));
    h().eval("var got = []; db.query_finish.connect(function(r) { collect(); got.push(r.a[0]) });"
             "db.opened.connect(collect); db.closed.connect(collect); db.open();"
             "db.query('select 1'); db.query_thread('select 1')");
    QVERIFY(h().script.waitForScript(QStringLiteral("got.length === 2")));
    QCOMPARE(h().shown("got.join()"), QStringLiteral("kept,kept"));
}

void TestBadInput::deletingTheEnginesConnectionsInAnyOrder()
{
    h().eval(
        "var a = new VEXT_SQL('a'), b = new VEXT_SQL('b'), c = new VEXT_SQL('c');"
        "[a, b, c].forEach(function(o) { o.driverName = 'QSTUB'; o.open(); o.start_thread() })");
    delete h().connection("b");
    delete h().connection("a");
    QVERIFY(h().holds("c.query('x') !== false && counters().length === 2"));
    drainEvents();
    QCOMPARE(m_stub->openDrivers(), 1);
}

QTEST_GUILESS_MAIN(TestBadInput)
#include "test_bad_input.moc"
