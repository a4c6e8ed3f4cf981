// What the main connection is opened with, and the errors that scripts read.
#include "connection_test.h"

namespace
{

const QString setEncoding = QStringLiteral("SET client_encoding = 'UTF8'");
const QString setAppName = QStringLiteral("SELECT set_config('application_name', ?, false)");

} // namespace

class TestConnection : public ConnectionTest
{
    Q_OBJECT

private slots:
    void nameIsDriverAndChosenName_data();
    void nameIsDriverAndChosenName();
    void driverNameSetLaterDoesNotRename();
    void takenNameGetsTheSerialNumber();
    void takenNumberedNameGetsTheNextNumber();
    void nameIsTheWorkersObjectName();
    void renamingWhileOpenIsATypeError();
    void renamingAfterCloseIsAllowed();
    void openRegistersTheChosenName();
    void openTakesAnotherNameWhenItsOwnIsTaken();
    void secondSchemeSkipsTakenNumbers();
    void openWithoutNameTakesTheSecondScheme();

    void driverKindFollowsTheTable_data();
    void driverKindFollowsTheTable();
    void odbcSystemIsWhatTheDriverReports_data();
    void odbcSystemIsWhatTheDriverReports();
    void driverThatKnowsItsSystemOnlyWhenOpenIsUnknown();
    void kindIsDerivedAnewAtEachOpen();
    void parametersReachTheDriver();
    void portNotAboveZeroIsNeverSet_data();
    void portNotAboveZeroIsNeverSet();
    void emptyOptionsAreNotSet();
    void parametersTakeEffectAtTheNextOpen();

    void postgresGetsItsApplicationName();
    void emptyApplicationNameSendsNothing();
    void otherSystemsGetNoApplicationName_data();
    void otherSystemsGetNoApplicationName();
    void postgresBehindOdbcGetsItsApplicationName();
    void applicationNameFailureIsIgnored_data();
    void applicationNameFailureIsIgnored();
    void threadConnectionsApplicationNameEndsInThr();

    void errorRecordHasItsKeys();
    void errorRecordOfEachType_data();
    void errorRecordOfEachType();
    void errorRecordAfterClose();
    void errorRecordAfterConnectionError();
    void errorNumberIsTheNativeCode_data();
    void errorNumberIsTheNativeCode();
    void lastErrorIsTheTextOfTheError();
    void connectionErrorInAStatementClosesAndEmptiesTheError_data();
    void connectionErrorInAStatementClosesAndEmptiesTheError();
    void otherErrorsLeaveTheConnectionOpen();
};

// --- Names ---

void TestConnection::nameIsDriverAndChosenName_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("name");
    const auto row = [](const char *code, const char *name) {
        QTest::newRow(code) << utf8(code) << utf8(name);
    };
    row("", "_sql");
    row("o.driverName = 'QPSQL'; o.connectionName = 'orders'", "QPSQL_orders");
    row("o.driverName = 'QPSQL'; o.connectionName = ''", "QPSQL_sql");
    row("o.connectionName = ''", "_sql");
    row("o.connectionName = 'x'", "_x");
    row("o.driverName = 'QPSQL'; o.connectionName = 'a__b'", "QPSQL_a_b");
    // One pass from left to right, not until none is left.
    row("o.driverName = 'QPSQL'; o.connectionName = 'a___b'", "QPSQL_a__b");
    row("o.driverName = 'QPSQL'; o.connectionName = 'a____b'", "QPSQL_a__b");
    row("o.driverName = 'QPSQL'; o.connectionName = '_a'", "QPSQL_a");
    row("o.connectionName = '_a'", "_a");
    row("o.driverName = 'Q_'; o.connectionName = 'a'", "Q_a");
    row("o.driverName = 'QPSQL'; o.connectionName = '%1 %2'", "QPSQL_%1 %2");
    row("o.driverName = '%2'; o.connectionName = 'b'", "%2_b");
    row("o.connectionName = 'заказы'", "_заказы");
}

void TestConnection::nameIsDriverAndChosenName()
{
    QFETCH(QString, code);
    QFETCH(QString, name);
    h().eval(QStringLiteral("var o = new VEXT_SQL(); ") + code);
    QCOMPARE(h().shown("o.connectionName"), name);
    QCOMPARE(h().worker("o")->objectName(), name);
}

void TestConnection::driverNameSetLaterDoesNotRename()
{
    QCOMPARE(h().shown("var o = new VEXT_SQL(); o.connectionName = 'x'; o.driverName = 'QPSQL';"
                       "o.connectionName"),
             QStringLiteral("_x"));
}

void TestConnection::takenNameGetsTheSerialNumber()
{
    useDriver("QPSQL", QSqlDriver::PostgreSQL);
    h().eval(
        "db.connectionName = 'x'; db.open();"
        "var second = new VEXT_SQL(); second.driverName = 'QPSQL'; second.connectionName = 'x'");
    QCOMPARE(h().shown("db.connectionName"), QStringLiteral("QPSQL_x"));
    QCOMPARE(h().shown("second.connectionName"),
             QStringLiteral("QPSQL_%1_x").arg(h().worker("second")->m_conNumber));
    QVERIFY(h().holds("second.open() && db.isOpen && second.isOpen"));
    QStringList names = QSqlDatabase::connectionNames();
    names.sort();
    QCOMPARE(names.size(), 2);
    QVERIFY(names.contains(h().shown("second.connectionName")));
}

void TestConnection::takenNumberedNameGetsTheNextNumber()
{
    useDriver("QPSQL", QSqlDriver::PostgreSQL);
    h().eval("db.connectionName = 'x'; db.open(); var second = new VEXT_SQL();"
             "second.driverName = 'QPSQL'");
    const int number = h().worker("second")->m_conNumber;
    const QString taken = QStringLiteral("QPSQL_%1_x").arg(number);
    QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), taken);
    h().eval("second.connectionName = 'x'");
    QCOMPARE(h().shown("second.connectionName"), QStringLiteral("QPSQL_%1_x").arg(number + 1));
    QSqlDatabase::removeDatabase(taken);
}

void TestConnection::nameIsTheWorkersObjectName()
{
    useDriver("QSTUB");
    h().eval("db.connectionName = 'x'");
    QCOMPARE(h().worker()->objectName(), QStringLiteral("QSTUB_x"));
    QCOMPARE(h().shown("db.objectName"), QStringLiteral("sql"));
    h().eval("db.open()");
    QCOMPARE(h().worker()->objectName(), QStringLiteral("QSTUB_x"));
}

void TestConnection::renamingWhileOpenIsATypeError()
{
    useDriver("QSTUB");
    h().eval("db.connectionName = 'x'; db.open()");
    QCOMPARE(h().script.evalThrows(QStringLiteral("db.connectionName = 'y'")),
             QStringLiteral("TypeError: нельзя менять имя соединения если isOpen == true"));
    QCOMPARE(h().shown("db.connectionName"), QStringLiteral("QSTUB_x"));
    QCOMPARE(h().worker()->objectName(), QStringLiteral("QSTUB_x"));
    QVERIFY(h().holds("db.isOpen && (function() { try { db.connectionName = 'z' }"
                      " catch (e) { return e instanceof TypeError } })()"));
}

void TestConnection::renamingAfterCloseIsAllowed()
{
    useDriver("QSTUB");
    QCOMPARE(h().shown("db.connectionName = 'x'; db.open(); db.close(); db.connectionName = 'y';"
                       "db.connectionName"),
             QStringLiteral("QSTUB_y"));
}

void TestConnection::openRegistersTheChosenName()
{
    useDriver("QSTUB");
    h().eval("db.connectionName = 'x'; db.open()");
    QCOMPARE(QSqlDatabase::connectionNames(), (QStringList{QStringLiteral("QSTUB_x")}));
    QCOMPARE(m_stub->calls(StubCall::Open).constFirst().connection, QStringLiteral("QSTUB_x"));
}

void TestConnection::openTakesAnotherNameWhenItsOwnIsTaken()
{
    useDriver("QSTUB");
    h().eval("db.connectionName = 'x'");
    QSqlDatabase::addDatabase(QStringLiteral("QSTUB"), QStringLiteral("QSTUB_x"));
    QVERIFY(h().holds("db.open()"));
    const QString name = QStringLiteral("con_QSTUB_sql_%1").arg(h().worker()->m_conNumber);
    QCOMPARE(h().shown("db.connectionName"), name);
    QCOMPARE(h().worker()->objectName(), name);
    QCOMPARE(h().shown("db.counters().connectionName"), name);
    QVERIFY(QSqlDatabase::contains(name));
    h().eval("db.close()");
    QSqlDatabase::removeDatabase(QStringLiteral("QSTUB_x"));
}

void TestConnection::secondSchemeSkipsTakenNumbers()
{
    useDriver("QSTUB");
    const int number = h().worker()->m_conNumber;
    const QString scheme = QStringLiteral("con_QSTUB_sql_%1");
    const QStringList taken = {h().shown("db.connectionName"), scheme.arg(number),
                               scheme.arg(number + 1)};
    for (const QString &name : taken)
        QSqlDatabase::addDatabase(QStringLiteral("QSTUB"), name);
    QVERIFY(h().holds("db.open()"));
    QCOMPARE(h().shown("db.connectionName"), scheme.arg(number + 2));
    h().eval("db.close()");
    for (const QString &name : taken)
        QSqlDatabase::removeDatabase(name);
}

void TestConnection::openWithoutNameTakesTheSecondScheme()
{
    useDriver("QSTUB");
    h().worker()->connectionName.clear();
    QVERIFY(h().holds("db.open()"));
    QCOMPARE(h().shown("db.connectionName"),
             QStringLiteral("con_QSTUB_sql_%1").arg(h().worker()->m_conNumber));
}

// --- Parameters ---

void TestConnection::driverKindFollowsTheTable_data()
{
    QTest::addColumn<int>("driverType");
    QTest::addColumn<int>("dbmsType");
    QTest::newRow("QMYSQL") << 2 << 2;
    QTest::newRow("QPSQL") << 3 << 3;
    QTest::newRow("QOCI") << 4 << 4;
    QTest::newRow("QTDS") << 5 << 5;
    QTest::newRow("QSQLITE") << 6 << 6;
    QTest::newRow("QSQLITE2") << 6 << 6;
    QTest::newRow("QIBASE") << 7 << 7;
    QTest::newRow("QFIREBIRD") << 7 << 7;
    QTest::newRow("QDB2") << 8 << 8;
    QTest::newRow("QODBC") << 9 << 0;
    QTest::newRow("QMIMER") << 11 << 11;
    QTest::newRow("qpsql") << 3 << 3;
    QTest::newRow("qOdBc") << 9 << 0;
    QTest::newRow("QPSQL7") << 0 << 0;
    QTest::newRow("QMYSQL3") << 0 << 0;
    QTest::newRow("PSQL") << 0 << 0;
    QTest::newRow("QODBC3") << 0 << 0;
    QTest::newRow("Q") << 0 << 0;
    QTest::newRow("QSTUB") << 0 << 0;
}

void TestConnection::driverKindFollowsTheTable()
{
    QFETCH(int, driverType);
    QFETCH(int, dbmsType);
    useDriver(QTest::currentDataTag());
    QVERIFY(h().holds("db.open()"));
    QCOMPARE(int(h().worker()->m_driverType), driverType);
    QCOMPARE(int(h().worker()->m_dbmsType), dbmsType);
}

void TestConnection::odbcSystemIsWhatTheDriverReports_data()
{
    QTest::addColumn<int>("reported");
    QTest::addColumn<int>("dbmsType");
    for (int reported = 0; reported <= 8; ++reported)
        QTest::newRow(qPrintable(QString::number(reported))) << reported << reported;
    QTest::newRow("9") << 9 << 0;
    QTest::newRow("11") << 11 << 0;
}

void TestConnection::odbcSystemIsWhatTheDriverReports()
{
    QFETCH(int, reported);
    QFETCH(int, dbmsType);
    useDriver("QODBC", QSqlDriver::DbmsType(reported));
    QVERIFY(h().holds("db.open()"));
    QCOMPARE(int(h().worker()->m_driverType), 9);
    QCOMPARE(int(h().worker()->m_dbmsType), dbmsType);
}

void TestConnection::driverThatKnowsItsSystemOnlyWhenOpenIsUnknown()
{
    useDriver("QODBC", QSqlDriver::PostgreSQL);
    m_stub->setDbmsTypeKnownOnlyWhenOpen(true);
    QVERIFY(h().holds("db.app_name = 'a'; db.open()"));
    QCOMPARE(int(h().worker()->m_dbmsType), 0);
    QCOMPARE(m_stub->executed(), QStringList());
}

void TestConnection::kindIsDerivedAnewAtEachOpen()
{
    const StubServer odbc(QStringLiteral("QODBC"), QSqlDriver::MSSqlServer);
    {
        const StubServer plain(QStringLiteral("QSTUB"));
        useDriver("QPSQL");
        QVERIFY(h().holds("db.driverName = 'QODBC'; db.open() && db.close()"));
        QCOMPARE(int(h().worker()->m_driverType), 9);
        QCOMPARE(int(h().worker()->m_dbmsType), 1);
        QVERIFY(h().holds("db.driverName = 'QSTUB'; db.open() && db.close()"));
        QCOMPARE(int(h().worker()->m_driverType), 0);
        QCOMPARE(int(h().worker()->m_dbmsType), 0);
    }
}

void TestConnection::parametersReachTheDriver()
{
    useDriver("QSTUB");
    QVERIFY(h().holds("db.databaseName = 'база'; db.userName = 'u'; db.password = 'p';"
                      "db.hostName = 'h'; db.port = 1234; db.connectOptions = 'A=1'; db.open()"));
    const StubCall::OpenParameters p = m_stub->calls(StubCall::Open).constFirst().parameters;
    QCOMPARE(p.database, QStringLiteral("база"));
    QCOMPARE(p.user, QStringLiteral("u"));
    QCOMPARE(p.password, QStringLiteral("p"));
    QCOMPARE(p.host, QStringLiteral("h"));
    QCOMPARE(p.port, 1234);
    QCOMPARE(p.options, QStringLiteral("A=1"));
}

void TestConnection::portNotAboveZeroIsNeverSet_data()
{
    QTest::addColumn<int>("port");
    QTest::newRow("0") << 0;
    QTest::newRow("-1") << -1;
    QTest::newRow("-1234") << -1234;
    QTest::newRow("-2147483648") << std::numeric_limits<int>::min();
}

void TestConnection::portNotAboveZeroIsNeverSet()
{
    QFETCH(int, port);
    useDriver("QSTUB");
    h().eval(QStringLiteral("db.hostName = 'h'; db.port = %1; db.traceLog = true").arg(port));
    QVERIFY(h().holds("db.open()"));
    QCOMPARE(m_stub->calls(StubCall::Open).constFirst().parameters.port, -1);
    QVERIFY(h().holds("db.close()"));
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no")));
    QVERIFY(h().holds("db.open() === false"));
    QVERIFY(h().post()->contains(QStringLiteral("hostName      = 'h'")));
}

void TestConnection::emptyOptionsAreNotSet()
{
    useDriver("QSTUB");
    QVERIFY(h().holds("db.open()"));
    QCOMPARE(m_stub->calls(StubCall::Open).constFirst().parameters.options, QString());
}

void TestConnection::parametersTakeEffectAtTheNextOpen()
{
    useDriver("QSTUB");
    QVERIFY(h().holds("db.hostName = 'one'; db.open()"));
    QVERIFY(h().holds("db.hostName = 'two'; db.isOpen"));
    QCOMPARE(m_stub->count(StubCall::Open), 1);
    QVERIFY(h().holds("db.close() && db.open()"));
    const auto opens = m_stub->calls(StubCall::Open);
    QCOMPARE(opens.at(0).parameters.host, QStringLiteral("one"));
    QCOMPARE(opens.at(1).parameters.host, QStringLiteral("two"));
}

// --- Application name ---

void TestConnection::postgresGetsItsApplicationName()
{
    useDriver("QPSQL", QSqlDriver::PostgreSQL);
    QVERIFY(h().holds("db.app_name = \"отчёт '1'\"; db.open()"));
    QStringList seen;
    const auto calls = m_stub->calls();
    for (const StubCall &call : calls) {
        if (call.what == StubCall::Exec)
            seen.append(QStringLiteral("exec ") + call.text);
        if (call.what == StubCall::Prepare)
            seen.append(QStringLiteral("prepare ") + call.writtenText);
        if (call.what == StubCall::ExecPrepared) {
            QCOMPARE(call.bindings.size(), 1);
            QCOMPARE(call.bindings.constFirst().value.toString(), QStringLiteral("отчёт '1'"));
            QCOMPARE(int(call.bindings.constFirst().type), int(QSql::In));
            seen.append(QStringLiteral("run ") + call.writtenText);
        }
    }
    QCOMPARE(seen, (QStringList{QStringLiteral("exec ") + setEncoding,
                                QStringLiteral("prepare ") + setAppName,
                                QStringLiteral("run ") + setAppName}));
    QVERIFY(h().holds("db.counters().cnt_sql_ok === 0 && db.lastQuery === ''"));
}

void TestConnection::emptyApplicationNameSendsNothing()
{
    useDriver("QPSQL", QSqlDriver::PostgreSQL);
    QVERIFY(h().holds("db.open()"));
    QCOMPARE(m_stub->executed(), QStringList());
    QCOMPARE(m_stub->count(StubCall::Prepare), 0);
}

void TestConnection::otherSystemsGetNoApplicationName_data()
{
    QTest::addColumn<int>("dbms");
    QTest::newRow("QMYSQL") << int(QSqlDriver::MySqlServer);
    QTest::newRow("QSQLITE") << int(QSqlDriver::SQLite);
    QTest::newRow("QIBASE") << int(QSqlDriver::Interbase);
    QTest::newRow("QODBC") << int(QSqlDriver::MSSqlServer);
    QTest::newRow("QMIMER") << int(QSqlDriver::UnknownDbms);
    QTest::newRow("QSTUB") << int(QSqlDriver::PostgreSQL);
}

void TestConnection::otherSystemsGetNoApplicationName()
{
    QFETCH(int, dbms);
    useDriver(QTest::currentDataTag(), QSqlDriver::DbmsType(dbms));
    QVERIFY(h().holds("db.app_name = 'a'; db.open()"));
    QCOMPARE(m_stub->executed(), QStringList());
    QCOMPARE(m_stub->count(StubCall::Prepare), 0);
}

void TestConnection::postgresBehindOdbcGetsItsApplicationName()
{
    useDriver("QODBC", QSqlDriver::PostgreSQL);
    QVERIFY(h().holds("db.app_name = 'a'; db.open()"));
    QCOMPARE(m_stub->texts(StubCall::Exec), (QStringList{setEncoding}));
    QCOMPARE(m_stub->count(StubCall::ExecPrepared), 1);
}

void TestConnection::applicationNameFailureIsIgnored_data()
{
    QTest::addColumn<QString>("statement");
    QTest::addColumn<bool>("atPrepare");
    QTest::addColumn<int>("prepared");
    QTest::addColumn<int>("run");
    QTest::newRow("encoding") << setEncoding << false << 0 << 0;
    QTest::newRow("prepare") << setAppName << true << 1 << 0;
    QTest::newRow("execute") << setAppName << false << 1 << 1;
}

void TestConnection::applicationNameFailureIsIgnored()
{
    QFETCH(QString, statement);
    QFETCH(bool, atPrepare);
    QFETCH(int, prepared);
    QFETCH(int, run);
    useDriver("QPSQL", QSqlDriver::PostgreSQL);
    const QSqlError error = stubError(QSqlError::StatementError, QStringLiteral("refused"));
    m_stub->onExact(statement,
                    atPrepare ? StubReply::prepareFailure(error) : StubReply::failure(error));
    QVERIFY(h().holds("db.app_name = 'a'; db.open() && db.isOpen"));
    QCOMPARE(m_stub->count(StubCall::Prepare), prepared);
    QCOMPARE(m_stub->count(StubCall::ExecPrepared), run);
    QVERIFY(h().holds("db.lastErrors.isValid === 0 && db.query('select 1') !== false"));
}

void TestConnection::threadConnectionsApplicationNameEndsInThr()
{
    useDriver("QPSQL", QSqlDriver::PostgreSQL);
    QVERIFY(h().holds("db.app_name = 'report'; db.open(); var done = false;"
                      "db.query_thread(function() { done = true }, 'select 1')"));
    QVERIFY(h().script.waitForScript(QStringLiteral("done")));
    const auto calls = m_stub->calls(StubCall::ExecPrepared, QStringLiteral("_thr"));
    QCOMPARE(calls.size(), 1);
    QCOMPARE(calls.constFirst().bindings.constFirst().value.toString(),
             QStringLiteral("report thr"));
}

// --- Errors ---

void TestConnection::errorRecordHasItsKeys()
{
    h().eval("var db = new VEXT_SQL()");
    QCOMPARE(h().shown("var k = []; for (var p in db.lastErrors) k.push(p); k.sort().join()"),
             QStringLiteral("databaseText,driverText,isValid,number,text,type,typeStr"));
    QVERIFY(
        h().holds("var e = db.lastErrors; e.driverText === '' && e.databaseText === ''"
                  " && e.type === 0 && e.typeStr === 'NoError' && e.text.replace(/ /g, '') === ''"
                  " && e.isValid === 0 && typeof e.number === 'number'"));
    const QVariantMap record = h().connection()->lastErrors();
    QCOMPARE(int(record.value(QStringLiteral("type")).type()), int(QVariant::Int));
    QCOMPARE(int(record.value(QStringLiteral("isValid")).type()), int(QVariant::Int));
    QCOMPARE(int(record.value(QStringLiteral("number")).type()), int(QVariant::Int));
}

void TestConnection::errorRecordOfEachType_data()
{
    QTest::addColumn<int>("type");
    QTest::newRow("StatementError") << 2;
    QTest::newRow("TransactionError") << 3;
    QTest::newRow("UnknownError") << 4;
    QTest::newRow("UnknownError (5)") << 5;
    QTest::newRow("UnknownError (77)") << 77;
    QTest::newRow("UnknownError (-1)") << -1;
}

void TestConnection::errorRecordOfEachType()
{
    QFETCH(int, type);
    useDriver("QSTUB");
    const QSqlError error = stubError(QSqlError::ErrorType(type), QStringLiteral("текст базы"),
                                      QStringLiteral("42"), QStringLiteral("текст драйвера"));
    m_stub->onExact(QStringLiteral("bad"), StubReply::failure(error));
    QVERIFY(h().holds("db.open(); db.query('bad') === false"));
    const QVariantMap record = h().connection()->lastErrors();
    const QVariantMap wanted = {
        {QStringLiteral("driverText"), QStringLiteral("текст драйвера")},
        {QStringLiteral("databaseText"), QStringLiteral("текст базы")},
        {QStringLiteral("type"), type},
        {QStringLiteral("typeStr"), QLatin1String(QTest::currentDataTag())},
        {QStringLiteral("number"), 42},
        {QStringLiteral("text"), error.text()},
        {QStringLiteral("isValid"), 1},
    };
    QCOMPARE(record, wanted);
}

void TestConnection::errorRecordAfterClose()
{
    useDriver("QSTUB");
    QVERIFY(h().holds("db.open() && db.close(); var e = db.lastErrors;"
                      "e.type === 0 && e.typeStr === 'NoError' && e.isValid === 0"));
}

void TestConnection::errorRecordAfterConnectionError()
{
    useDriver("QSTUB");
    m_stub->fail(StubCall::Open,
                 stubError(QSqlError::ConnectionError, QStringLiteral("no"), QStringLiteral("7")));
    QVERIFY(h().holds("db.open() === false"));
    QVERIFY(h().holds("var e = db.lastErrors; e.typeStr === 'ConnectionError)' && e.type === 1"
                      " && e.number === 7 && e.isValid === 1"));
}

void TestConnection::errorNumberIsTheNativeCode_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<int>("number");
    QTest::newRow("42") << QStringLiteral("42") << 42;
    QTest::newRow("-803") << QStringLiteral("-803") << -803;
    QTest::newRow("42P01") << QStringLiteral("42P01") << 0;
    QTest::newRow("none") << QString() << -1;
    QTest::newRow("too large") << QStringLiteral("99999999999") << 0;
}

void TestConnection::errorNumberIsTheNativeCode()
{
    QFETCH(QString, code);
    QFETCH(int, number);
    useDriver("QSTUB");
    m_stub->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("no"), code));
    h().eval("db.open()");
    QCOMPARE(h().eval("db.lastErrors.number").toInt32(), number);
}

void TestConnection::lastErrorIsTheTextOfTheError()
{
    useDriver("QSTUB");
    const QSqlError error = stubError(QSqlError::StatementError, QStringLiteral("текст базы"));
    m_stub->onExact(QStringLiteral("bad"), StubReply::failure(error));
    h().eval("db.open(); db.query('bad')");
    QCOMPARE(h().shown("db.lastError"), error.text());
    h().eval("db.query('good')");
    QCOMPARE(h().shown("db.lastError"), QString());
}

void TestConnection::connectionErrorInAStatementClosesAndEmptiesTheError_data()
{
    QTest::addColumn<QString>("call");
    QTest::newRow("query") << QStringLiteral("db.query('lost')");
    QTest::newRow("exec of one argument") << QStringLiteral("db.exec('lost')");
    QTest::newRow("exec of two arguments") << QStringLiteral("db.exec('lost', [])");
}

void TestConnection::connectionErrorInAStatementClosesAndEmptiesTheError()
{
    QFETCH(QString, call);
    useDriver("QSTUB");
    const StubReply lost =
        StubReply::failure(stubError(QSqlError::ConnectionError, QStringLiteral("lost")));
    m_stub->on(StubMatch::where([](const QString &sql) { return sql.endsWith(utf8("lost")); }),
               lost);
    h().eval("var closed = 0; db.closed.connect(function() { ++closed }); db.open()");
    QVERIFY(h().eval(call + QStringLiteral(" === false")).toBool());
    QVERIFY(h().holds("!db.isOpen && closed === 1 && db.lastError === ''"
                      " && db.lastErrors.typeStr === 'NoError'"));
    QVERIFY(h().post()->contains(QStringLiteral("ошибка выполнения: 'lost STUB: failed'")));
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    QVERIFY(h().holds("db.open() && db.query('x') !== false"));
}

void TestConnection::otherErrorsLeaveTheConnectionOpen()
{
    useDriver("QSTUB");
    m_stub->onExact(QStringLiteral("bad"), StubReply::failure(stubError(QSqlError::StatementError,
                                                                        QStringLiteral("bad"))));
    QVERIFY(h().holds("db.open(); db.query('bad') === false && db.isOpen && db.lastError !== ''"));
}

QTEST_GUILESS_MAIN(TestConnection)
#include "test_connection.moc"
