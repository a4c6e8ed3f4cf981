// The connection object as scripts and hosts see it: its tables, its properties, its functions.
#include "frame_host.h"
#include "library_life.h"
#include "message_log.h"
#include "meta_table.h"
#include "recording_driver.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

class TestConnectionObject : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void methodTableIsLiteral();
    void propertyTableIsLiteral();
    void classInfoIsAuthorAndUrlAndNothingElseIsDeclared();
    void signalsHaveNoParameterNames();
    void scriptVisibleParametersAreNamed_data();
    void scriptVisibleParametersAreNamed();
    void workersMethodTableIsLiteral();
    void workersClassInfoIsAuthorAndUrl();

    void freshObjectHasItsDefaults_data();
    void freshObjectHasItsDefaults();
    void writablePropertyKeepsWhatIsWritten_data();
    void writablePropertyKeepsWhatIsWritten();
    void readOnlyPropertyIgnoresWrites_data();
    void readOnlyPropertyIgnoresWrites();
    void timeNotUseIsAtLeastAMinute_data();
    void timeNotUseIsAtLeastAMinute();
    void driversListsWhatQtHas();
    void isValidAndIsOpenFollowTheConnection();
    void isRunningFollowsTheThread();
    void isOpenErrorIsAskedWithoutValidityTest();
    void lastQueryAndAffectedRowsFollowTheStatement();

    void setScriptValueThisInstallsTheFunctions_data();
    void setScriptValueThisInstallsTheFunctions();
    void tagIsAnAccessorOnEveryConnection();
    void setScriptValueThisRefusesOtherValues_data();
    void setScriptValueThisRefusesOtherValues();
    void workerAcceptsOnlyItsOwner();
    void getScriptValueThisIsTheConstructorsWrapper();

    void switchingTraceLogSendsOneMessage();
    void setTraceLogReachesTheWorker();
    void enableTraceLogWithoutArgumentSwitchesOn();
    void isSupportEventBeforeOpenIsSilentWithoutTracing();
    void isSupportEventBeforeOpenAdvisesWhenTracing();
    void isSupportEventAfterOpenDoesNotAdvise();
    void isDriverAvailableNeedsAValidHandle();

    void execWithOneArgumentIsQuery();
    void execWithTwoArgumentsBinds();
    void stopThreadWithoutArgumentWaitsOneSecond();
    void stopThreadWithoutTimeDoesNotWait_data();
    void stopThreadWithoutTimeDoesNotWait();
    void tablesWithoutArgumentListsTypeOne();
    void countersIsReachableWithAndWithoutEngine();
    void clearAndClearSqlResultEmptyTheLastResult_data();
    void clearAndClearSqlResultEmptyTheLastResult();
    void setCodecFindsTheCodec();
    void taskSizeCountsWaitingTasks();
    void startThreadStartsAndStopThreadStops();

    void openedAndClosedAreRelayed();
    void startedAndFinishedAreRelayedInTheEnginesThread();
    void queryFinishIsRelayedUnchanged();
    void eventIsRelayedWithPayloadBeforeSource();

    void transactionCommandsNeedAnOpenConnection();
    void transactionCommandsNeedADriverWithTransactions();
    void transactionCommandsRunOnTheMainConnection();
    void transactionCommandThatFailsIsFalse_data();
    void transactionCommandThatFailsIsFalse();
    void transactionWhileThreadStandsTouchesOnlyTheMainConnection();
    void transactionWhileThreadRunsFollowsOnTheThreadConnection();

    void registryHoldsLiveObjectsInOrder();
    void deletingTheFirstLeavesTheSecondInTheRegistry();
    void workerOutlivesTheDestructorUntilTheEventLoop();
    void objectDiesWithTheEngine();
    void garbageCollectionNeverDeletesTheObject();
    void messagesReachThePostOfTheEngine();
    void messagesReachTheServerWithoutAPost();
    void objectWithoutEngineIsHarmless();
    void throwScriptWithoutContextReturnsFalse();
    void throwScriptRaisesTheKindAskedFor();

private:
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<StubServer> m_stub;
    std::unique_ptr<FrameHost> m_host;
    FrameHost &h() { return *m_host; }
    void openDb() { QVERIFY(h().holds("db.open()")); }
};

void TestConnectionObject::init()
{
    m_log = std::make_unique<MessageLog>();
    m_stub = std::make_unique<StubServer>(QStringLiteral("QSTUB"));
    m_host = std::make_unique<FrameHost>();
    h().eval("var db = new VEXT_SQL(); db.driverName = 'QSTUB';");
}

void TestConnectionObject::cleanup()
{
    m_host.reset();
    QVERIFY(VEXT_SQL::m_listSqlConns.isEmpty());
    QVERIFY(LibraryLife::workerCount() == 0);
    QVERIFY2(m_stub->liveResults() == 0 && m_stub->liveDrivers() == 0,
             qPrintable(m_stub->record()));
    m_stub.reset();
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

// --- Tables ---

void TestConnectionObject::methodTableIsLiteral()
{
    const QStringList table = {
        QStringLiteral("0 signal public void started()"),
        QStringLiteral("1 signal public void finished()"),
        QStringLiteral("2 signal public void opened()"),
        QStringLiteral("3 signal public void closed()"),
        QStringLiteral("4 signal public void "
                       "query_finish(QScriptValue,QScriptValue,QScriptValue,QScriptValue)"),
        QStringLiteral("5 signal public void event(QString,QVariant,int)"),
        QStringLiteral("6 slot public int taskSize()"),
        QStringLiteral("7 slot public bool add_event(QString)"),
        QStringLiteral("8 slot public bool rem_event(QString)"),
        QStringLiteral("9 slot public bool isDriverAvailable(QString)"),
        QStringLiteral("10 slot public bool transaction()"),
        QStringLiteral("11 slot public bool commit()"),
        QStringLiteral("12 slot public bool rollback()"),
        QStringLiteral("13 slot public bool open()"),
        QStringLiteral("14 slot public bool close()"),
        QStringLiteral("15 slot public QScriptValue query(QString)"),
        QStringLiteral("16 slot public QScriptValue exec(QString)"),
        QStringLiteral("17 slot public QScriptValue exec(QString,QScriptValue)"),
        QStringLiteral("18 slot public bool start_thread()"),
        QStringLiteral("19 slot public void stop_thread(int)"),
        QStringLiteral("20 slot public clone void stop_thread()"),
        QStringLiteral("21 slot public bool tables(int)"),
        QStringLiteral("22 slot public clone bool tables()"),
        QStringLiteral("23 slot public void clear()"),
        QStringLiteral("24 slot public void clearSqlResult()"),
        QStringLiteral("25 slot public QVariant hasFeature()"),
        QStringLiteral("26 slot public QScriptValue counters(QScriptEngine*)"),
        QStringLiteral("27 slot public clone QScriptValue counters()"),
        QStringLiteral("28 slot public bool setScriptValueThis(QScriptValue)"),
        QStringLiteral("29 slot private void "
                       "s_event(QString,QSqlDriver::NotificationSource,QVariant)"),
        QStringLiteral("30 method public void disableTraceLog()"),
        QStringLiteral("31 method public void enableTraceLog(bool)"),
        QStringLiteral("32 method public clone void enableTraceLog()"),
        QStringLiteral("33 method public void setCodec(QString)"),
    };
    QCOMPARE(ownMethods(VEXT_SQL::staticMetaObject), table);
}

void TestConnectionObject::propertyTableIsLiteral()
{
    const auto line = [](int index, const char *name, const char *type, const char *access) {
        return QStringLiteral("%1 %2 %3 %4 designable scriptable stored")
            .arg(index)
            .arg(QLatin1String(name), QLatin1String(type), QLatin1String(access));
    };
    const QStringList table = {
        line(0, "traceLog", "bool", "rw"),
        line(1, "affectedRows", "int", "r"),
        line(2, "drivers", "QStringList", "r"),
        line(3, "app_name", "QString", "rw"),
        line(4, "driverName", "QString", "rw"),
        line(5, "databaseName", "QString", "rw"),
        line(6, "userName", "QString", "rw"),
        line(7, "password", "QString", "rw"),
        line(8, "hostName", "QString", "rw"),
        line(9, "port", "int", "rw"),
        line(10, "connectOptions", "QString", "rw"),
        line(11, "connectionName", "QString", "rw"),
        line(12, "timeNotUse", "int", "rw"),
        line(13, "enableNull", "bool", "rw"),
        line(14, "isValid", "bool", "r"),
        line(15, "isOpen", "bool", "r"),
        line(16, "isRunning", "bool", "r"),
        line(17, "isOpenError", "bool", "r"),
        line(18, "lastQuery", "QString", "r"),
        line(19, "lastError", "QString", "r"),
        line(20, "lastErrors", "QVariantMap", "r"),
        line(21, "isSupportEvent", "bool", "r"),
        line(22, "events", "QStringList", "r"),
    };
    QCOMPARE(ownProperties(VEXT_SQL::staticMetaObject), table);
}

void TestConnectionObject::classInfoIsAuthorAndUrlAndNothingElseIsDeclared()
{
    const QMetaObject &meta = VEXT_SQL::staticMetaObject;
    QCOMPARE(ownClassInfos(meta), (QStringList{QStringLiteral("Author"), QStringLiteral("URL")}));
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 0);
    QCOMPARE(meta.constructorCount(), 0);
    QCOMPARE(QByteArray(meta.superClass()->className()), QByteArray("Plugin_base"));
}

void TestConnectionObject::signalsHaveNoParameterNames()
{
    const QMetaObject &meta = VEXT_SQL::staticMetaObject;
    const QString none;
    QCOMPARE(
        parameterNames(meta, "query_finish(QScriptValue,QScriptValue,QScriptValue,QScriptValue)"),
        (QStringList{none, none, none, none}));
    QCOMPARE(parameterNames(meta, "event(QString,QVariant,int)"), (QStringList{none, none, none}));
}

void TestConnectionObject::scriptVisibleParametersAreNamed_data()
{
    QTest::addColumn<QString>("names");
    const auto row = [](const char *signature, const char *names) {
        QTest::newRow(signature) << QString::fromLatin1(names);
    };
    row("add_event(QString)", "evnt");
    row("rem_event(QString)", "evnt");
    row("isDriverAvailable(QString)", "name");
    row("query(QString)", "sql");
    row("exec(QString)", "sql");
    row("exec(QString,QScriptValue)", "proc,asql");
    row("stop_thread(int)", "tout_ms");
    row("tables(int)", "ttype");
    row("counters(QScriptEngine*)", "eng");
    row("setScriptValueThis(QScriptValue)", "scriptValue");
    row("enableTraceLog(bool)", "trace");
    row("setCodec(QString)", "codec");
}

void TestConnectionObject::scriptVisibleParametersAreNamed()
{
    QFETCH(QString, names);
    QCOMPARE(
        parameterNames(VEXT_SQL::staticMetaObject, QTest::currentDataTag()).join(QLatin1Char(',')),
        names);
}

void TestConnectionObject::workersMethodTableIsLiteral()
{
    const QStringList table = {
        QStringLiteral("0 signal public void opened()"),
        QStringLiteral("1 signal public void closed()"),
        QStringLiteral("2 signal public void cancelQuery()"),
        QStringLiteral("3 signal public void "
                       "query_finish(QScriptValue,QScriptValue,QScriptValue,QScriptValue)"),
        QStringLiteral("4 signal public void "
                       "event(QString,QSqlDriver::NotificationSource,QVariant)"),
        QStringLiteral("5 signal public void s_msg(const char*,int,const char*,QString,int)"),
        QStringLiteral("6 slot public bool setScriptValueThis(QScriptValue)"),
        QStringLiteral("7 method private QScriptValue fetchResult(structThrSql*)"),
        QStringLiteral("8 method private QScriptValue queryFinish(structThrSql*)"),
        QStringLiteral("9 method private QScriptValue fetchResFin(structThrSql*)"),
        QStringLiteral("10 method private void fetchResThr(structThrSql*)"),
        QStringLiteral("11 method private void queryFinThr(structThrSql*)"),
        QStringLiteral("12 method private void completeAsyncTask(structThrSql*)"),
    };
    QCOMPARE(ownMethods(VEXT_sqlThr::staticMetaObject), table);
    QCOMPARE(ownProperties(VEXT_sqlThr::staticMetaObject), QStringList());
}

void TestConnectionObject::workersClassInfoIsAuthorAndUrl()
{
    const QMetaObject &meta = VEXT_sqlThr::staticMetaObject;
    QCOMPARE(ownClassInfos(meta), (QStringList{QStringLiteral("Author"), QStringLiteral("URL")}));
    QCOMPARE(QByteArray(meta.superClass()->className()), QByteArray("QThread"));
}

// --- Properties ---

void TestConnectionObject::freshObjectHasItsDefaults_data()
{
    QTest::addColumn<QString>("shown");
    const auto row = [](const char *expression, const char *shown) {
        QTest::newRow(expression) << QString::fromLatin1(shown);
    };
    row("o.traceLog === false", "true");
    row("o.affectedRows === 0", "true");
    row("o.app_name === ''", "true");
    row("o.driverName === ''", "true");
    row("o.databaseName === ''", "true");
    row("o.userName === ''", "true");
    row("o.password === ''", "true");
    row("o.hostName === ''", "true");
    row("o.port === -1", "true");
    row("o.connectOptions === ''", "true");
    row("o.connectionName", "_sql");
    row("o.timeNotUse === 720000", "true");
    row("o.enableNull === true", "true");
    row("o.isValid === false", "true");
    row("o.isOpen === false", "true");
    row("o.isRunning === false", "true");
    row("o.lastQuery === ''", "true");
    row("o.lastError === ''", "true");
    row("o.isSupportEvent === false", "true");
    row("o.events.length === 0", "true");
    row("typeof o.queryResult", "undefined");
}

void TestConnectionObject::freshObjectHasItsDefaults()
{
    QFETCH(QString, shown);
    h().eval("var o = new VEXT_SQL()");
    QCOMPARE(h().shown(QTest::currentDataTag()), shown);
}

void TestConnectionObject::writablePropertyKeepsWhatIsWritten_data()
{
    QTest::addColumn<QString>("value");
    const auto row = [](const char *name, const char *value) {
        QTest::newRow(name) << QString::fromUtf8(value);
    };
    row("traceLog", "true");
    row("app_name", "'отчёты'");
    row("driverName", "'QOTHER'");
    row("databaseName", "'база данных'");
    row("userName", "'user'");
    row("password", "'p=;\"\\''");
    row("hostName", "'host.example'");
    row("port", "-7");
    row("connectOptions", "'A=1;B=2'");
    row("timeNotUse", "60001");
    row("enableNull", "false");
}

void TestConnectionObject::writablePropertyKeepsWhatIsWritten()
{
    QFETCH(QString, value);
    const QString name = QString::fromLatin1(QTest::currentDataTag());
    QVERIFY(h().eval(QStringLiteral("db.%1 = %2; db.%1 === %2").arg(name, value)).toBool());
    // Nothing is validated or done before the next open.
    QVERIFY(h().holds("!db.isValid && db.counters().cnt_open === 0"));
    QCOMPARE(m_stub->count(StubCall::DriverCreated), 0);
}

void TestConnectionObject::readOnlyPropertyIgnoresWrites_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *name :
         {"affectedRows", "drivers", "isValid", "isOpen", "isRunning", "isOpenError", "lastQuery",
          "lastError", "lastErrors", "isSupportEvent", "events"})
        QTest::newRow(name) << 0;
}

void TestConnectionObject::readOnlyPropertyIgnoresWrites()
{
    const QString name = QString::fromLatin1(QTest::currentDataTag());
    const QString before = h().eval(QStringLiteral("JSON.stringify(db.%1)").arg(name)).toString();
    h().eval(QStringLiteral("try { db.%1 = 'other' } catch (e) {}").arg(name));
    QCOMPARE(h().eval(QStringLiteral("JSON.stringify(db.%1)").arg(name)).toString(), before);
}

void TestConnectionObject::timeNotUseIsAtLeastAMinute_data()
{
    QTest::addColumn<int>("stored");
    QTest::newRow("1000") << 60000;
    QTest::newRow("120000") << 120000;
    QTest::newRow("-5") << 60000;
    QTest::newRow("0") << 60000;
    QTest::newRow("59999") << 60000;
    QTest::newRow("60000") << 60000;
    QTest::newRow("2147483647") << 2147483647;
    QTest::newRow("-2147483648") << 60000;
}

void TestConnectionObject::timeNotUseIsAtLeastAMinute()
{
    QFETCH(int, stored);
    h().eval(QStringLiteral("db.timeNotUse = %1").arg(QLatin1String(QTest::currentDataTag())));
    QCOMPARE(h().eval("db.timeNotUse").toInt32(), stored);
}

void TestConnectionObject::driversListsWhatQtHas()
{
    const QStringList drivers = qscriptvalue_cast<QStringList>(h().eval("db.drivers"));
    QCOMPARE(drivers, QSqlDatabase::drivers());
    QVERIFY(drivers.contains(QStringLiteral("QSTUB")));
}

void TestConnectionObject::isValidAndIsOpenFollowTheConnection()
{
    openDb();
    QVERIFY(h().holds("db.isValid && db.isOpen"));
    QVERIFY(h().holds("db.close()"));
    QVERIFY(h().holds("!db.isValid && !db.isOpen"));
}

void TestConnectionObject::isRunningFollowsTheThread()
{
    QVERIFY(h().holds("db.start_thread() && db.isRunning"));
    h().eval("db.stop_thread(10000)");
    QVERIFY(h().holds("!db.isRunning"));
}

void TestConnectionObject::isOpenErrorIsAskedWithoutValidityTest()
{
    // Qt's driver behind an invalid handle counts as one that failed to open.
    QCOMPARE(h().eval("db.isOpenError").toBool(), QSqlDatabase().isOpenError());
    openDb();
    QVERIFY(h().holds("db.isOpenError === false"));
}

void TestConnectionObject::lastQueryAndAffectedRowsFollowTheStatement()
{
    m_stub->onExact(QStringLiteral("delete"), StubReply::affected(3));
    m_stub->onExact(QStringLiteral("unknown"), StubReply::affected(-1));
    openDb();
    h().eval("db.query('delete')");
    QCOMPARE(h().shown("db.lastQuery + ' ' + db.affectedRows"), QStringLiteral("delete 3"));
    h().eval("db.query('unknown')");
    QCOMPARE(h().shown("db.lastQuery + ' ' + db.affectedRows"), QStringLiteral("unknown 0"));
    h().eval("db.query('delete'); db.clear()");
    QCOMPARE(h().eval("db.affectedRows").toInt32(), 0);
}

// --- The script value ---

void TestConnectionObject::setScriptValueThisInstallsTheFunctions_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *name : {"countersAll", "query_thread", "exec_thread"})
        QTest::newRow(name) << 0;
}

void TestConnectionObject::setScriptValueThisInstallsTheFunctions()
{
    const QString name = QString::fromLatin1(QTest::currentDataTag());
    const QScriptValue object = h().script.global(QStringLiteral("db"));
    QVERIFY(object.property(name).isFunction());
    QCOMPARE(int(object.propertyFlags(name)), 7);
    QCOMPARE(object.property(name).property(QStringLiteral("length")).toInt32(), 0);
    QVERIFY(h().eval(QStringLiteral("var f = db.%1; db.%1 = 5; db.%1 === f").arg(name)).toBool());
    QVERIFY(!h().eval(QStringLiteral("delete db.%1").arg(name)).toBool());
    QVERIFY(h().eval(QStringLiteral("db.%1 === f").arg(name)).toBool());
    QVERIFY(!h().eval(QStringLiteral("var seen = false;"
                                     "for (var p in db) if (p === '%1') seen = true; seen")
                          .arg(name))
                 .toBool());
}

void TestConnectionObject::tagIsAnAccessorOnEveryConnection()
{
    const QScriptValue object = h().script.global(QStringLiteral("db"));
    QCOMPARE(int(object.propertyFlags(QStringLiteral("tag"))), 30);
    QVERIFY(!h().holds("delete db.tag"));
    h().eval("var other = new VEXT_SQL(); db.tag = 'shared'");
    QCOMPARE(h().shown("other.tag"), QStringLiteral("shared"));
    QVERIFY(h().holds("(function() { for (var p in db) if (p === 'tag') return false;"
                      "return true })()"));
    h().eval("db.tag = undefined");
}

void TestConnectionObject::setScriptValueThisRefusesOtherValues_data()
{
    QTest::addColumn<int>("dummy");
    for (const char *value :
         {"undefined", "null", "5", "'db'", "true", "({})", "[]", "(function() {})", "new Date(0)",
          "new VEXT_SQL()", "server", "scriptEngine"})
        QTest::newRow(value) << 0;
}

void TestConnectionObject::setScriptValueThisRefusesOtherValues()
{
    const QScriptValue value =
        h().eval(QStringLiteral("var v = %1; v").arg(QLatin1String(QTest::currentDataTag())));
    VEXT_SQL object(nullptr, h().engine());
    QVERIFY(!object.setScriptValueThis(value));
    QVERIFY(!object.getScriptValueThis(nullptr).isValid());
    QVERIFY(!object.worker->m_scriptValueThis.isValid());
    QVERIFY(!h().eval(QStringLiteral("db.setScriptValueThis(v)")).toBool());
    QVERIFY(h().worker()->m_scriptValueThis.strictlyEquals(h().script.global(utf8("db"))));
}

void TestConnectionObject::workerAcceptsOnlyItsOwner()
{
    h().eval("var other = new VEXT_SQL()");
    VEXT_sqlThr *worker = h().worker();
    const QScriptValue owner = h().script.global(QStringLiteral("db"));
    const QScriptValue other = h().script.global(QStringLiteral("other"));
    QVERIFY(!worker->setScriptValueThis(other));
    QVERIFY(!worker->setScriptValueThis(QScriptValue()));
    QVERIFY(!worker->setScriptValueThis(h().engine()->newQObject(worker)));
    QVERIFY(worker->m_scriptValueThis.strictlyEquals(owner));
    QVERIFY(worker->setScriptValueThis(owner));
}

void TestConnectionObject::getScriptValueThisIsTheConstructorsWrapper()
{
    const QScriptValue first = h().connection()->getScriptValueThis(h().engine());
    QVERIFY(first.strictlyEquals(h().script.global(QStringLiteral("db"))));
    QVERIFY(first.strictlyEquals(h().connection()->getScriptValueThis(h().engine())));
}

// --- Tracing and advice ---

void TestConnectionObject::switchingTraceLogSendsOneMessage()
{
    h().eval("db.traceLog = false");
    QCOMPARE(h().post()->messages().size(), 0);
    h().eval("db.traceLog = true; db.traceLog = true; db.enableTraceLog(true)");
    QCOMPARE(h().post()->messages().size(), 1);
    h().eval("db.traceLog = false; db.traceLog = false; db.disableTraceLog()");
    QCOMPARE(h().post()->messages().size(), 2);
    const QStringList texts = {QStringLiteral("трассировка включена"),
                               QStringLiteral("трассировка выключена")};
    QCOMPARE(h().post()->texts(), texts);
    const auto messages = h().post()->messages();
    for (const SinkMessage &message : messages) {
        QCOMPARE(message.file, QStringLiteral("plugins/PluginSQL/vext_sql"));
        QCOMPARE(message.line, 180);
        QCOMPARE(message.function, QStringLiteral("setTraceLog"));
        QCOMPARE(message.level, 1);
    }
}

void TestConnectionObject::setTraceLogReachesTheWorker()
{
    QVERIFY(!h().worker()->traceLog);
    h().eval("db.traceLog = true");
    QVERIFY(h().worker()->traceLog && h().connection()->traceLog());
    h().eval("db.disableTraceLog()");
    QVERIFY(!h().worker()->traceLog && !h().connection()->traceLog());
}

void TestConnectionObject::enableTraceLogWithoutArgumentSwitchesOn()
{
    QVERIFY(h().holds("db.enableTraceLog(); db.traceLog"));
    QVERIFY(h().holds("db.enableTraceLog(false); db.traceLog === false"));
    QVERIFY(h().holds("db.enableTraceLog(true); db.traceLog"));
}

void TestConnectionObject::isSupportEventBeforeOpenIsSilentWithoutTracing()
{
    m_stub->setFeature(QSqlDriver::EventNotifications);
    QVERIFY(h().holds("db.isSupportEvent === false"));
    QCOMPARE(h().post()->messages().size(), 0);
}

void TestConnectionObject::isSupportEventBeforeOpenAdvisesWhenTracing()
{
    h().eval("db.traceLog = true");
    h().post()->clear();
    QVERIFY(h().holds("db.isSupportEvent === false"));
    QCOMPARE(h().post()->messages().size(), 1);
    const SinkMessage message = h().post()->messages().constFirst();
    QCOMPARE(message.file, QStringLiteral("plugins/PluginSQL/vext_sql"));
    QCOMPARE(message.line, 127);
    QCOMPARE(message.function, QStringLiteral("isSupportEvent"));
    QCOMPARE(message.text, QStringLiteral("Проверить isSupportEvent можно только после открытия "
                                          "соединения с БД"));
    QCOMPARE(message.level, 0);
}

void TestConnectionObject::isSupportEventAfterOpenDoesNotAdvise()
{
    m_stub->setFeature(QSqlDriver::EventNotifications);
    h().eval("db.traceLog = true");
    openDb();
    h().post()->clear();
    QVERIFY(h().holds("db.isSupportEvent === true"));
    QCOMPARE(h().post()->messages().size(), 0);
}

void TestConnectionObject::isDriverAvailableNeedsAValidHandle()
{
    QVERIFY(h().holds("(new VEXT_SQL()).isDriverAvailable('QSQLITE') === false"));
    QVERIFY(h().holds("db.isDriverAvailable('QSTUB') === false"));
    openDb();
    QVERIFY(h().holds("db.isDriverAvailable('QSQLITE') === true"));
    QVERIFY(h().holds("db.isDriverAvailable('QSTUB') === true"));
    QVERIFY(h().holds("db.isDriverAvailable('QNONE') === false"));
}

// --- Functions ---

void TestConnectionObject::execWithOneArgumentIsQuery()
{
    m_stub->onExact(QStringLiteral("select 1"),
                    StubReply::table({{QStringLiteral("a"), QVariant::Int}}, {{1}}));
    openDb();
    h().eval("var q = db.query('select 1'), shownQ = JSON.stringify(q);"
             "var e = db.exec('select 1'), shownE = JSON.stringify(e)");
    QVERIFY(h().holds("shownQ === shownE && e.a[0] === 1"));
    QCOMPARE(m_stub->texts(StubCall::Exec),
             (QStringList{QStringLiteral("select 1"), QStringLiteral("select 1")}));
    QCOMPARE(m_stub->count(StubCall::Prepare), 0);
    QCOMPARE(h().eval("db.counters().cnt_sql_ok").toInt32(), 2);
}

void TestConnectionObject::execWithTwoArgumentsBinds()
{
    m_stub->setFeature(QSqlDriver::NamedPlaceholders);
    openDb();
    QVERIFY(h().holds("typeof db.exec('p', [1, 'x']) === 'object'"));
    const auto calls = m_stub->calls(StubCall::ExecPrepared);
    QCOMPARE(calls.size(), 1);
    QCOMPARE(calls.constFirst().writtenText, QStringLiteral("EXECUTE PROCEDURE p(:a0,:a1)"));
    QCOMPARE(h().eval("db.counters().cnt_sql_ok").toInt32(), 0);
}

void TestConnectionObject::stopThreadWithoutArgumentWaitsOneSecond()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_stub->onExact(QStringLiteral("slow"), StubReply::affected(0).withGate(gate));
    openDb();
    h().eval("db.query_thread(function() {}, 'slow')");
    QVERIFY(gate->waitReached());
    QElapsedTimer timer;
    timer.start();
    h().eval("db.stop_thread()");
    const qint64 waited = timer.elapsed();
    QVERIFY2(waited >= 950 && waited < 3000, qPrintable(QString::number(waited)));
    QVERIFY(h().holds("db.isRunning"));
    gate->release();
    QVERIFY(h().script.waitForScript(QStringLiteral("!db.isRunning")));
}

void TestConnectionObject::stopThreadWithoutTimeDoesNotWait_data()
{
    QTest::addColumn<int>("ms");
    QTest::newRow("0") << 0;
    QTest::newRow("-5") << -5;
}

void TestConnectionObject::stopThreadWithoutTimeDoesNotWait()
{
    QFETCH(int, ms);
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_stub->onExact(QStringLiteral("slow"), StubReply::affected(0).withGate(gate));
    h().eval("db.traceLog = true");
    openDb();
    h().eval("db.query_thread(function() {}, 'slow')");
    QVERIFY(gate->waitReached());
    const qint64 taken = quickAttemptMs(500, [&] {
        h().post()->clear();
        h().eval(QStringLiteral("db.stop_thread(%1)").arg(ms));
    });
    QVERIFY2(taken < 500, qPrintable(QString::number(taken)));
    QVERIFY(h().holds("db.isRunning"));
    const QString text = QStringLiteral("SQL поток не остановился за %1 мс; запрос мог не "
                                        "поддержать отмену")
                             .arg(ms);
    const auto found = h().post()->withText(text);
    QVERIFY2(found.size() == 1, qPrintable(h().post()->texts().join(QLatin1Char('\n'))));
    QCOMPARE(found.constFirst().level, 0);
    QCOMPARE(found.constFirst().function, QStringLiteral("stop_thread"));
    QCOMPARE(found.constFirst().file, QStringLiteral("plugins/PluginSQL/vext_sql_thread"));
    gate->release();
    QVERIFY(h().script.waitForScript(QStringLiteral("!db.isRunning")));
}

void TestConnectionObject::tablesWithoutArgumentListsTypeOne()
{
    openDb();
    QVERIFY(h().holds("db.tables()"));
    QVERIFY(h().holds("db.tables(4)"));
    QCOMPARE(m_stub->texts(StubCall::Tables),
             (QStringList{QStringLiteral("1"), QStringLiteral("4")}));
}

void TestConnectionObject::countersIsReachableWithAndWithoutEngine()
{
    QVERIFY(h().holds("!('postName' in db.counters())"));
    QVERIFY(h().holds("db.counters(scriptEngine).postName === 'post'"));
}

void TestConnectionObject::clearAndClearSqlResultEmptyTheLastResult_data()
{
    QTest::addColumn<int>("dummy");
    QTest::newRow("clear") << 0;
    QTest::newRow("clearSqlResult") << 0;
}

void TestConnectionObject::clearAndClearSqlResultEmptyTheLastResult()
{
    m_stub->onExact(QStringLiteral("select 1"),
                    StubReply::table({{QStringLiteral("a"), QVariant::Int}}, {{1}}));
    openDb();
    h().eval("var held = db.query('select 1')");
    QVERIFY(h().holds("held === db.queryResult && held.rows === 1"));
    h().eval(QStringLiteral("db.%1()").arg(QLatin1String(QTest::currentDataTag())));
    QVERIFY(h().holds("held.rows === undefined && held.a === undefined"));
    QVERIFY(h().holds("typeof db.queryResult === 'undefined'"));
}

void TestConnectionObject::setCodecFindsTheCodec()
{
    h().eval("db.setCodec('KOI8-R')");
    QVERIFY(h().worker()->m_codec);
    h().eval("db.setCodec('no such codec')");
    QVERIFY(!h().worker()->m_codec);
}

void TestConnectionObject::taskSizeCountsWaitingTasks()
{
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    m_stub->onExact(QStringLiteral("slow"), StubReply::affected(0).withGate(gate));
    openDb();
    QCOMPARE(h().eval("db.taskSize()").toInt32(), 0);
    h().eval("var done = 0; db.query_thread(function() { ++done }, 'slow')");
    QVERIFY(gate->waitReached());
    h().eval("db.query_thread(function() { ++done }, 'a');"
             "db.query_thread(function() { ++done }, 'b')");
    QCOMPARE(h().eval("db.taskSize()").toInt32(), 2);
    gate->release();
    QVERIFY(h().script.waitForScript(QStringLiteral("done === 3")));
    QCOMPARE(h().eval("db.taskSize()").toInt32(), 0);
}

void TestConnectionObject::startThreadStartsAndStopThreadStops()
{
    QVERIFY(h().holds("db.start_thread() === true"));
    QVERIFY(h().holds("db.start_thread() === true"));
    QVERIFY(h().holds("db.stop_thread(10000) === undefined"));
    QVERIFY(h().holds("!db.isRunning"));
    h().eval("db.stop_thread()");
    QVERIFY(h().holds("!db.isRunning"));
}

// --- Relays ---

void TestConnectionObject::openedAndClosedAreRelayed()
{
    h().eval("var seen = []; db.opened.connect(function() { seen.push('opened ' + db.isOpen) });"
             "db.closed.connect(function() { seen.push('closed ' + db.isOpen) });"
             "db.open(); db.close()");
    QCOMPARE(h().shown("seen.join()"), QStringLiteral("opened true,closed false"));
}

void TestConnectionObject::startedAndFinishedAreRelayedInTheEnginesThread()
{
    const QThread *startedIn = nullptr;
    const QThread *finishedIn = nullptr;
    connect(
        h().connection(), &VEXT_SQL::started, this, [&] { startedIn = QThread::currentThread(); },
        Qt::DirectConnection);
    connect(
        h().connection(), &VEXT_SQL::finished, this, [&] { finishedIn = QThread::currentThread(); },
        Qt::DirectConnection);
    QVERIFY(h().holds("db.start_thread()"));
    QVERIFY(waitUntil([&] { return startedIn != nullptr; }));
    h().eval("db.stop_thread(10000)");
    QVERIFY(waitUntil([&] { return finishedIn != nullptr; }));
    QCOMPARE(startedIn, QThread::currentThread());
    QCOMPARE(finishedIn, QThread::currentThread());
    disconnect(h().connection(), nullptr, this, nullptr);
}

void TestConnectionObject::queryFinishIsRelayedUnchanged()
{
    m_stub->onExact(QStringLiteral("select 1"),
                    StubReply::table({{QStringLiteral("a"), QVariant::Int}}, {{1}}));
    openDb();
    h().eval("var args; db.query_finish.connect(function(a, b, c, d) { args = [a, b, c, d] });"
             "var result = db.query('select 1')");
    QVERIFY(h().holds("args[0] === result && args[1] === false && typeof args[2] === 'number'"
                      " && args[3] === true"));
    h().eval("args = undefined; db.query_thread('select 1')");
    QVERIFY(h().script.waitForScript(QStringLiteral("args")));
    QVERIFY(h().holds("args[0].a[0] === 1 && args[1] === false && args[3] === true"));
}

void TestConnectionObject::eventIsRelayedWithPayloadBeforeSource()
{
    m_stub->setFeature(QSqlDriver::EventNotifications);
    openDb();
    h().eval("var args; db.event.connect(function() { args = Array.prototype.slice.call(arguments)"
             " }); db.add_event('news')");
    QCOMPARE(
        m_stub->notify(QStringLiteral("news"), QSqlDriver::OtherSource, QStringLiteral("payload")),
        1);
    QCOMPARE(h().shown("JSON.stringify(args)"), QStringLiteral("[\"news\",\"payload\",2]"));
}

// --- Transactions ---

void TestConnectionObject::transactionCommandsNeedAnOpenConnection()
{
    QVERIFY(h().holds("db.transaction() === false && db.commit() === false"
                      " && db.rollback() === false"));
    QVERIFY(h().holds("db.open(); db.close(); db.transaction() === false"));
}

void TestConnectionObject::transactionCommandsNeedADriverWithTransactions()
{
    m_stub->setFeature(QSqlDriver::Transactions, false);
    openDb();
    QVERIFY(h().holds("db.transaction() === false && db.commit() === false"
                      " && db.rollback() === false"));
    QCOMPARE(m_stub->count(StubCall::Begin) + m_stub->count(StubCall::Commit) +
                 m_stub->count(StubCall::Rollback),
             0);
}

void TestConnectionObject::transactionCommandsRunOnTheMainConnection()
{
    openDb();
    QVERIFY(h().holds("db.transaction() && db.commit() && db.transaction() && db.rollback()"));
    QVector<StubCall::What> seen;
    const auto calls = m_stub->calls();
    for (const StubCall &call : calls) {
        if (call.what == StubCall::Begin || call.what == StubCall::Commit ||
            call.what == StubCall::Rollback) {
            seen.append(call.what);
            QVERIFY(call.mainThread);
            QCOMPARE(call.connection, QStringLiteral("_sql"));
        }
    }
    QCOMPARE(seen, (QVector<StubCall::What>{StubCall::Begin, StubCall::Commit, StubCall::Begin,
                                            StubCall::Rollback}));
}

void TestConnectionObject::transactionCommandThatFailsIsFalse_data()
{
    QTest::addColumn<int>("what");
    QTest::newRow("transaction") << int(StubCall::Begin);
    QTest::newRow("commit") << int(StubCall::Commit);
    QTest::newRow("rollback") << int(StubCall::Rollback);
}

void TestConnectionObject::transactionCommandThatFailsIsFalse()
{
    QFETCH(int, what);
    m_stub->fail(StubCall::What(what),
                 stubError(QSqlError::TransactionError, QStringLiteral("refused")));
    openDb();
    QVERIFY(h().holds("db.start_thread()"));
    QVERIFY(
        !h().eval(QStringLiteral("db.%1()").arg(QLatin1String(QTest::currentDataTag()))).toBool());
    // What failed on the main connection is not asked of the other one.
    QCOMPARE(h().eval("db.taskSize()").toInt32(), 0);
    h().eval("var done = false; db.query_thread(function() { done = true }, 'select 1')");
    QVERIFY(h().script.waitForScript(QStringLiteral("done")));
    QCOMPARE(m_stub->count(StubCall::What(what), QStringLiteral("_thr")), 0);
}

void TestConnectionObject::transactionWhileThreadStandsTouchesOnlyTheMainConnection()
{
    openDb();
    QVERIFY(h().holds("db.transaction() && db.commit()"));
    QVERIFY(h().holds("!db.isRunning"));
    QCOMPARE(m_stub->count(StubCall::Begin), 1);
    QCOMPARE(m_stub->count(StubCall::Begin, QStringLiteral("_thr")), 0);
}

void TestConnectionObject::transactionWhileThreadRunsFollowsOnTheThreadConnection()
{
    openDb();
    QVERIFY(h().holds("db.start_thread() && db.transaction()"));
    QVERIFY(waitUntil([&] { return m_stub->count(StubCall::Begin, QStringLiteral("_thr")) == 1; }));
    QVERIFY(h().holds("db.commit()"));
    QVERIFY(
        waitUntil([&] { return m_stub->count(StubCall::Commit, QStringLiteral("_thr")) == 1; }));
    QVERIFY(h().holds("db.transaction() && db.rollback()"));
    QVERIFY(
        waitUntil([&] { return m_stub->count(StubCall::Rollback, QStringLiteral("_thr")) == 1; }));
}

// --- Life ---

void TestConnectionObject::registryHoldsLiveObjectsInOrder()
{
    h().eval("var second = new VEXT_SQL(), third = new VEXT_SQL()");
    QCOMPARE(
        VEXT_SQL::m_listSqlConns,
        (QList<VEXT_SQL *>{h().connection(), h().connection("second"), h().connection("third")}));
}

void TestConnectionObject::deletingTheFirstLeavesTheSecondInTheRegistry()
{
    h().eval("var second = new VEXT_SQL()");
    delete h().connection();
    QCOMPARE(VEXT_SQL::m_listSqlConns, (QList<VEXT_SQL *>{h().connection("second")}));
    QCOMPARE(h().eval("second.countersAll()").property(QStringLiteral("length")).toInt32(), 1);
}

void TestConnectionObject::workerOutlivesTheDestructorUntilTheEventLoop()
{
    openDb();
    const QPointer<VEXT_sqlThr> worker(h().worker());
    delete h().connection();
    QVERIFY(worker);
    QCOMPARE(m_stub->openDrivers(), 1);
    drainEvents();
    QVERIFY(!worker);
    QCOMPARE(m_stub->openDrivers(), 0);
    QVERIFY(QSqlDatabase::connectionNames().isEmpty());
}

void TestConnectionObject::objectDiesWithTheEngine()
{
    openDb();
    const QPointer<VEXT_SQL> object(h().connection());
    QCOMPARE(object->parent(), h().engine());
    h().script.destroyEngine();
    QVERIFY(!object);
    QVERIFY(QSqlDatabase::connectionNames().isEmpty());
}

void TestConnectionObject::garbageCollectionNeverDeletesTheObject()
{
    openDb();
    const QPointer<VEXT_SQL> object(h().connection());
    h().eval("db = null");
    for (int i = 0; i < 3; ++i)
        h().script.collectGarbage();
    QVERIFY(object);
    QVERIFY(object->isOpen());
}

void TestConnectionObject::messagesReachThePostOfTheEngine()
{
    h().eval("db.traceLog = true");
    QCOMPARE(h().post()->messages().size(), 1);
    QCOMPARE(h().script.server()->messages().size(), 0);
}

void TestConnectionObject::messagesReachTheServerWithoutAPost()
{
    m_host.reset();
    ScriptHostOptions options;
    options.withPost = false;
    m_host = std::make_unique<FrameHost>(options);
    h().eval("var db = new VEXT_SQL(); db.traceLog = true; db.query('x')");
    const QStringList texts = {QStringLiteral("трассировка включена"),
                               QStringLiteral("не открыто соединение с ':-1:'")};
    QCOMPARE(h().script.server()->texts(), texts);
}

void TestConnectionObject::objectWithoutEngineIsHarmless()
{
    {
        VEXT_SQL object(nullptr, nullptr);
        object.setDriverName(QStringLiteral("QSTUB"));
        QVERIFY(object.open());
        QVERIFY(!object.query(QStringLiteral("select 1")).toBool());
        object.clear();
        QVERIFY(object.tables());
        QVERIFY(!object.counters().isValid());
        object.setConnectionName(QStringLiteral("other"));
        QVERIFY(object.close());
    }
    drainEvents();
}

void TestConnectionObject::throwScriptWithoutContextReturnsFalse()
{
    QVERIFY(!VEXT_SQL::throwScript(nullptr, QStringLiteral("text"), QScriptContext::TypeError));
    QVERIFY(!h().engine()->hasUncaughtException());
}

QScriptValue raise(QScriptContext *context, QScriptEngine *engine)
{
    return QScriptValue(engine, VEXT_SQL::throwScript(context, QStringLiteral("нельзя"),
                                                      QScriptContext::RangeError));
}

void TestConnectionObject::throwScriptRaisesTheKindAskedFor()
{
    h().engine()->globalObject().setProperty(QStringLiteral("raise"),
                                             h().engine()->newFunction(raise));
    QCOMPARE(h().script.evalThrows(QStringLiteral("raise()")),
             QStringLiteral("RangeError: нельзя"));
}

QTEST_GUILESS_MAIN(TestConnectionObject)
#include "test_connection_object.moc"
