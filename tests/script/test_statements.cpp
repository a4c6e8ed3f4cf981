/// @file
/// Statements in the engine's thread: query() and exec().
#include "script_test.h"

#include <QScriptValueIterator>

Q_DECLARE_METATYPE(QSqlError::ErrorType)

namespace
{

QStringList writtenTexts(const StubServer &server)
{
    QStringList texts;
    const QVector<StubCall> calls = server.calls(StubCall::Prepare);
    for (const StubCall &call : calls)
        texts.append(call.writtenText);
    return texts;
}

/// What was bound, in order: placeholder, parameter type, value type and value.
QStringList bound(const StubServer &server)
{
    QStringList texts;
    const QVector<StubCall> calls = server.calls(StubCall::Bind);
    for (const StubCall &call : calls) {
        const StubCall::Binding &binding = call.bindings.first();
        texts.append(QStringLiteral("%1 %2 %3 %4")
                         .arg(binding.placeholder, QString::number(int(binding.type)),
                              QLatin1String(binding.value.typeName()), binding.value.toString()));
    }
    return texts;
}

} // namespace

class TestStatements : public ScriptTest
{
    Q_OBJECT

private Q_SLOTS:
    // not open
    void closedConnectionAnswersFalseSilently();
    void closedConnectionIsReportedWhileTracing_data();
    void closedConnectionIsReportedWhileTracing();
    void refusalOfAClosedConnectionKeepsTheLastResult();

    // query
    void queryExecutesTheTextUnprepared();
    void queryTracesTheStatementAsGiven();
    void queryIsSilentWithoutTracing();
    void querySucceededIsCounted();
    void queryFailedIsCountedAndReported();
    void queryFailedWhileTracingNamesTheStatement();
    void lastStateFollowsEachStatement();
    void failureNamesItsTypeInTheLog_data();
    void failureNamesItsTypeInTheLog();
    void connectionErrorClosesTheConnection_data();
    void connectionErrorClosesTheConnection();
    void otherErrorsLeaveTheConnectionOpen_data();
    void otherErrorsLeaveTheConnectionOpen();
    void connectionErrorEndsTheWorkerThread();
    void duplicateKeyClosesSqlite();
    void syntaxErrorLeavesSqliteOpen();
    void execWithOneArgumentIsQuery();
    void sqlFailuresNeverThrow();
    void oddTextsAreAnswered_data();
    void oddTextsAreAnswered();
    void emptyTextFails();

    // timing
    void timingTracesFourStages_data();
    void timingTracesFourStages();
    void noTimingWithoutTheMarkAtTheVeryEnd_data();
    void noTimingWithoutTheMarkAtTheVeryEnd();
    void failedStatementIsTimedToo();

    // affected rows
    void affectedRowsAreThoseOfTheLastStatement();
    void negativeAffectedRowsAreZero();
    void affectedRowsAreZeroAfterClear();
    void affectedRowsAreZeroAfterAFailure();

    // exec
    void execBuildsTheStatement_data();
    void execBuildsTheStatement();
    void execOnOdbcLooksAtTheDriverNotTheSystem();
    void execBindsNumberedPropertiesOnly_data();
    void execBindsNumberedPropertiesOnly();
    void execBindsEachType_data();
    void execBindsEachType();
    void execBindsTheDataOfAValue();
    void execBindsByteArraysAsBinary();
    void execTracesWhatItBinds();
    void execBindsAThousandValues();
    void execUnpreparedIsReportedWhileTracingOnly();
    void execUnpreparedKeepsItsError();
    void execFailedIsReportedAlways();
    void execFailedWhileTracingAddsTheStatement();
    void execLeavesTheStatementCounters();
    void execHasNoTimingMode();
    void execDoesNotTraceItsStatement();
    void execStopsAtAThrowingGetter();
    void execStopsWhereTheDataOfAValueThrows();
    void execBindsHostileValues_data();
    void execBindsHostileValues();
    void execReturnsAResultObject();
    void execOnSqliteCannotCall();
};

// --- not open ---

void TestStatements::closedConnectionAnswersFalseSilently()
{
    eval("var db = new VEXT_SQL();"_qs);
    QVERIFY(truth("db.query('select 1') === false"_qs));
    QVERIFY(truth("db.exec('select 1') === false"_qs));
    QVERIFY(truth("db.exec('f', [1]) === false"_qs));
    QCOMPARE(sent(), QStringList());
    QCOMPARE(criticalLines(), QStringList());
}

void TestStatements::closedConnectionIsReportedWhileTracing_data()
{
    QTest::addColumn<QString>("call");
    QTest::addColumn<QString>("message");
    QTest::newRow("query") << "db.query('select 1')"_qs
                           << "-1 query не открыто соединение с 'base:5432:host'"_qs;
    QTest::newRow("exec with one argument")
        << "db.exec('select 1')"_qs
        << "-1 query не открыто соединение с 'base:5432:host'"_qs;
    QTest::newRow("exec") << "db.exec('f', [1])"_qs
                          << "-1 exec не открыто соединение с 'base:5432:host'"_qs;
    QTest::newRow("query, port not set") << "db.port = -1; db.query('select 1')"_qs
                                         << "-1 query не открыто соединение с 'base:-1:host'"_qs;
}

void TestStatements::closedConnectionIsReportedWhileTracing()
{
    QFETCH(QString, call);
    QFETCH(QString, message);
    eval("var db = new VEXT_SQL(); db.databaseName = 'base'; db.port = 5432;"
         "db.hostName = 'host'; db.traceLog = true;"_qs);
    const QScriptValue answer = eval(call);
    QVERIFY(answer.isBool() && !answer.toBool());
    QCOMPARE(sent(), QStringList{message});
}

void TestStatements::refusalOfAClosedConnectionKeepsTheLastResult()
{
    openStub("STUB"_qs);
    eval("var r = db.query('select 1'); db.close(); db.queryResult = r; db.query('select 1');"_qs);
    QVERIFY(truth("db.queryResult === r"_qs));
}

// --- query ---

void TestStatements::queryExecutesTheTextUnprepared()
{
    openStub("STUB"_qs);
    eval("db.query('  select 1 ')"_qs);
    QCOMPARE(stub().texts(StubCall::Exec), QStringList{"  select 1 "_qs});
    QCOMPARE(stub().count(StubCall::Prepare) + stub().count(StubCall::Bind), 0);
    QVERIFY(stub().calls(StubCall::Exec).first().mainThread);
}

void TestStatements::queryTracesTheStatementAsGiven()
{
    openStub("STUB"_qs);
    eval("db.traceLog = true; db.query(' select %1\\n');"_qs);
    QCOMPARE(sent(), QStringList{"2 query sql=' select %1\n'"_qs});
}

void TestStatements::queryIsSilentWithoutTracing()
{
    openStub("STUB"_qs);
    eval("db.query('select 1')"_qs);
    QCOMPARE(sent(), QStringList());
}

void TestStatements::querySucceededIsCounted()
{
    openStub("STUB"_qs);
    eval("db.query('select 1'); db.query('select 2');"_qs);
    QCOMPARE(json("[db.counters().cnt_sql_ok, db.counters().cnt_sql_er]"_qs), "[2,0]"_qs);
}

void TestStatements::queryFailedIsCountedAndReported()
{
    openStub("STUB"_qs).onExact("bad"_qs, StubReply::failure(statementError(" no table"_qs)));
    QVERIFY(truth("db.query('bad') === false"_qs));
    QCOMPARE(json("[db.counters().cnt_sql_ok, db.counters().cnt_sql_er]"_qs), "[0,1]"_qs);
    QCOMPARE(sent(), QStringList{"-1 query ошибка выполнения: 'no table STUB: failed'"_qs});
    QVERIFY(truth("db.queryResult === undefined"_qs));
}

void TestStatements::queryFailedWhileTracingNamesTheStatement()
{
    openStub("STUB"_qs).onExact("  bad\n"_qs, StubReply::failure(statementError(" no table"_qs)));
    eval("db.traceLog = true; db.query('  bad\\n');"_qs);
    QCOMPARE(sent(), (QStringList{"2 query sql='  bad\n'"_qs,
                                  "-1 query ошибка выполнения: 'bad'\nno table STUB: failed"_qs}));
}

void TestStatements::lastStateFollowsEachStatement()
{
    openStub("STUB"_qs).onExact("bad"_qs, StubReply::failure(statementError("no table"_qs)));
    eval("db.query(' select 1 ');"_qs);
    QCOMPARE(json("[db.lastQuery, db.lastError, db.lastErrors.isValid]"_qs),
             "[\"select 1\",\"\",0]"_qs);
    eval("db.query('bad');"_qs);
    QCOMPARE(json("[db.lastQuery, db.lastError, db.lastErrors.typeStr]"_qs),
             "[\"bad\",\"no table STUB: failed\",\"StatementError\"]"_qs);
    eval("db.query('select 2');"_qs);
    QCOMPARE(json("[db.lastQuery, db.lastError, db.lastErrors.isValid]"_qs),
             "[\"select 2\",\"\",0]"_qs);
}

void TestStatements::failureNamesItsTypeInTheLog_data()
{
    QTest::addColumn<QString>("call");
    QTest::addColumn<QSqlError::ErrorType>("type");
    QTest::addColumn<QString>("line");
    const QVector<std::pair<QSqlError::ErrorType, QString>> types{
        {QSqlError::ConnectionError, "ConnectionError"_qs},
        {QSqlError::StatementError, "StatementError"_qs},
        {QSqlError::TransactionError, "TransactionError"_qs},
        {QSqlError::UnknownError, "UnknownError"_qs}};
    for (const auto &[type, name] : types) {
        QTest::newRow(qPrintable("query "_qs + name))
            << "db.query('bad')"_qs << type << "~~~~ query \t "_qs + name;
        QTest::newRow(qPrintable("exec "_qs + name))
            << "db.exec('bad', [])"_qs << type << "~~~~ exec \t "_qs + name;
    }
}

void TestStatements::failureNamesItsTypeInTheLog()
{
    QFETCH(QString, call);
    QFETCH(QSqlError::ErrorType, type);
    QFETCH(QString, line);
    openStub("STUB"_qs).setDefaultReply(StubReply::failure(stubError(type, "broken"_qs)));
    QVERIFY(truth(call + " === false"_qs));
    QCOMPARE(criticalLines().size(), 1);
    const QRegularExpression expected("^vext_sql_thread:\\d+ "_qs +
                                      QRegularExpression::escape(line) + "$"_qs);
    QVERIFY2(expected.match(criticalLines().first()).hasMatch(),
             qPrintable(criticalLines().first()));
}

void TestStatements::connectionErrorClosesTheConnection_data()
{
    QTest::addColumn<QString>("call");
    QTest::newRow("query") << "db.query('bad')"_qs;
    QTest::newRow("exec with one argument") << "db.exec('bad')"_qs;
    QTest::newRow("exec") << "db.exec('bad', [1])"_qs;
}

void TestStatements::connectionErrorClosesTheConnection()
{
    QFETCH(QString, call);
    openStub("STUB"_qs).setDefaultReply(
        StubReply::failure(stubError(QSqlError::ConnectionError, "lost"_qs)));
    eval("var closed = 0; db.closed.connect(function() { ++closed; });"_qs);
    QVERIFY(truth(call + " === false"_qs));
    QCOMPARE(json("[db.isOpen, db.isValid, closed, db.counters().cnt_closed]"_qs),
             "[false,false,1,1]"_qs);
    // Closing empties what is known of the last statement, its error too.
    QCOMPARE(json("[db.lastError, db.lastQuery, db.lastErrors.typeStr]"_qs),
             "[\"\",\"\",\"NoError\"]"_qs);
    QCOMPARE(stub().liveDrivers(), 0);
    QVector<StubCall::What> ends;
    for (const StubCall &made : stub().calls()) {
        if (made.what == StubCall::ResultDestroyed || made.what == StubCall::Close)
            ends.append(made.what);
    }
    QCOMPARE(ends, QVector<StubCall::What>({StubCall::ResultDestroyed, StubCall::Close}));
    QVERIFY(truth("db.open()"_qs));
}

void TestStatements::otherErrorsLeaveTheConnectionOpen_data()
{
    QTest::addColumn<QSqlError::ErrorType>("type");
    QTest::newRow("StatementError") << QSqlError::StatementError;
    QTest::newRow("TransactionError") << QSqlError::TransactionError;
    QTest::newRow("UnknownError") << QSqlError::UnknownError;
}

void TestStatements::otherErrorsLeaveTheConnectionOpen()
{
    QFETCH(QSqlError::ErrorType, type);
    openStub("STUB"_qs).setDefaultReply(StubReply::failure(stubError(type, "broken"_qs)));
    QVERIFY(truth("db.query('bad') === false && db.isOpen"_qs));
    QVERIFY(truth("db.exec('bad', []) === false && db.isOpen"_qs));
    QCOMPARE(text("db.lastErrors.databaseText"_qs), "broken"_qs);
}

void TestStatements::connectionErrorEndsTheWorkerThread()
{
    openStub("STUB"_qs).onExact(
        "bad"_qs, StubReply::failure(stubError(QSqlError::ConnectionError, "lost"_qs)));
    QVERIFY(truth("db.start_thread() && db.isRunning"_qs));
    eval("db.query('bad')"_qs);
    QVERIFY(truth("!db.isRunning && !db.isOpen"_qs));
}

void TestStatements::duplicateKeyClosesSqlite()
{
    openSqlite();
    eval(
        "db.query('create table t(id integer primary key)'); db.query('insert into t values(1)');"_qs);
    QVERIFY(truth("db.query('insert into t values(1)') === false"_qs));
    QVERIFY(truth("!db.isOpen"_qs));
    QVERIFY(criticalLines().value(0).endsWith("query \t ConnectionError"_qs));
}

void TestStatements::syntaxErrorLeavesSqliteOpen()
{
    openSqlite();
    QVERIFY(truth("db.query('selekt') === false && db.isOpen"_qs));
    QCOMPARE(text("db.lastErrors.typeStr"_qs), "StatementError"_qs);
}

void TestStatements::execWithOneArgumentIsQuery()
{
    openStub("STUB"_qs).onExact("select 1"_qs, StubReply::table({{"a"_qs, QVariant::Int}}, {{7}}));
    eval("db.traceLog = true; var r = db.exec('select 1');"_qs);
    QCOMPARE(json("[r.a[0], r.length, db.counters().cnt_sql_ok]"_qs), "[7,1,1]"_qs);
    QCOMPARE(sent(), QStringList{"2 query sql='select 1'"_qs});
    QCOMPARE(stub().texts(StubCall::Exec), QStringList{"select 1"_qs});
    QCOMPARE(stub().count(StubCall::Prepare), 0);
}

void TestStatements::sqlFailuresNeverThrow()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::prepareFailure(stubError(QSqlError::UnknownError, "x"_qs)));
    // eval() itself fails the test at an exception.
    QCOMPARE(json("[db.query('a'), db.exec('a'), db.exec('a', []), db.exec('a', [1])]"_qs),
             "[false,false,false,false]"_qs);
}

void TestStatements::oddTextsAreAnswered_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<QString>("received");
    QTest::newRow("blanks") << "'   '"_qs
                            << "   "_qs;
    QTest::newRow("number") << "5"_qs
                            << "5"_qs;
    QTest::newRow("percent signs") << "'%1 %2 %L1'"_qs
                                   << "%1 %2 %L1"_qs;
    QTest::newRow("quotes and Cyrillic") << "'\"привет\\''"_qs
                                         << "\"привет'"_qs;
}

void TestStatements::oddTextsAreAnswered()
{
    QFETCH(QString, argument);
    QFETCH(QString, received);
    openStub("STUB"_qs);
    eval("db.traceLog = true; var r = db.query(%1);"_qs.arg(argument));
    QCOMPARE(stub().texts(StubCall::Exec), QStringList{received});
    QCOMPARE(sent(), QStringList{"2 query sql='"_qs + received + "'"_qs});
    QVERIFY(truth("r.fields === 0"_qs));
}

void TestStatements::emptyTextFails()
{
    expectComplaints("^QSqlQuery::exec: empty query$"_qs);
    openStub("STUB"_qs);
    QVERIFY(truth("db.query('') === false && db.isOpen"_qs));
    QCOMPARE(sent(), QStringList{"-1 query ошибка выполнения: ''"_qs});
    QVERIFY(criticalLines().value(0).endsWith("query \t NoError"_qs));
    QCOMPARE(number("db.counters().cnt_sql_er"_qs), 1.0);
}

// --- timing ---

void TestStatements::timingTracesFourStages_data()
{
    QTest::addColumn<QString>("statement");
    QTest::addColumn<bool>("tracing");
    QTest::newRow("blank before") << "select 1 --"_qs << false;
    QTest::newRow("no blank") << "select 1--"_qs << false;
    QTest::newRow("nothing else") << "--"_qs << false;
    QTest::newRow("tracing") << "select 1 --"_qs << true;
}

void TestStatements::timingTracesFourStages()
{
    QFETCH(QString, statement);
    QFETCH(bool, tracing);
    openStub("STUB"_qs);
    eval("db.traceLog = %1; db.query('%2');"_qs.arg(tracing ? "true"_qs : "false"_qs, statement));
    QStringList messages = sent();
    if (tracing)
        QCOMPARE(messages.takeFirst(), "2 query sql='%1'"_qs.arg(statement));
    QCOMPARE(messages.size(), 4);
    const QStringList stages{"create struct"_qs, "create finish"_qs, "query start"_qs,
                             "query finish"_qs};
    double before = 0;
    for (int i = 0; i < stages.size(); ++i) {
        const QRegularExpression pattern("^0 query (\\d+\\.\\d{3}) ms "_qs + stages.at(i) + "$"_qs);
        const QRegularExpressionMatch match = pattern.match(messages.at(i));
        QVERIFY2(match.hasMatch(), qPrintable(messages.at(i)));
        const double ms = match.captured(1).toDouble();
        QVERIFY2(ms >= before, qPrintable(messages.join(QLatin1Char('\n'))));
        before = ms;
    }
}

void TestStatements::noTimingWithoutTheMarkAtTheVeryEnd_data()
{
    QTest::addColumn<QString>("statement");
    QTest::newRow("none") << "select 1"_qs;
    QTest::newRow("one hyphen") << "select 1 -"_qs;
    QTest::newRow("blank behind") << "select 1 -- "_qs;
    QTest::newRow("line break behind") << "select 1 --\\n"_qs;
    QTest::newRow("in front") << "-- select 1"_qs;
}

void TestStatements::noTimingWithoutTheMarkAtTheVeryEnd()
{
    QFETCH(QString, statement);
    openStub("STUB"_qs);
    eval("db.query('%1');"_qs.arg(statement));
    QCOMPARE(sent(), QStringList());
}

void TestStatements::failedStatementIsTimedToo()
{
    openStub("STUB"_qs).setDefaultReply(StubReply::failure(statementError("no"_qs)));
    eval("db.query('bad--')"_qs);
    QCOMPARE(sent().size(), 5);
    QVERIFY(sent().at(3).endsWith(" ms query finish"_qs));
    QCOMPARE(sent().at(4), "-1 query ошибка выполнения: 'no STUB: failed'"_qs);
}

// --- affected rows ---

void TestStatements::affectedRowsAreThoseOfTheLastStatement()
{
    openSqlite();
    eval("db.query('create table t(id)'); db.query('insert into t values(1),(2),(3)');"_qs);
    QCOMPARE(number("db.affectedRows"_qs), 3.0);
    eval("var r = db.query('update t set id = 5 where id = 1');"_qs);
    QCOMPARE(json("[db.affectedRows, r.numRowsAffected]"_qs), "[1,1]"_qs);
}

void TestStatements::negativeAffectedRowsAreZero()
{
    openStub("STUB"_qs).onExact("five"_qs, StubReply::affected(5));
    stub().onExact("unknown"_qs, StubReply::affected(-1));
    QCOMPARE(json("[db.query('five').numRowsAffected, db.affectedRows]"_qs), "[5,5]"_qs);
    QCOMPARE(json("[db.query('unknown').numRowsAffected, db.affectedRows]"_qs), "[0,0]"_qs);
}

void TestStatements::affectedRowsAreZeroAfterClear()
{
    openStub("STUB"_qs).setDefaultReply(StubReply::affected(5));
    for (const QString &call : {"clear"_qs, "clearSqlResult"_qs}) {
        eval("db.query('five'); db.%1();"_qs.arg(call));
        QCOMPARE(number("db.affectedRows"_qs), 0.0);
    }
}

void TestStatements::affectedRowsAreZeroAfterAFailure()
{
    openStub("STUB"_qs).setDefaultReply(StubReply::affected(5));
    stub().onExact("bad"_qs, StubReply::failure(statementError("no"_qs)));
    stub().onPrefix("EXECUTE PROCEDURE bad"_qs, StubReply::failure(statementError("no"_qs)));
    eval("db.query('five'); db.query('bad');"_qs);
    QCOMPARE(number("db.affectedRows"_qs), 0.0);
    eval("db.query('five'); db.exec('bad', []);"_qs);
    QCOMPARE(number("db.affectedRows"_qs), 0.0);
}

// --- exec ---

void TestStatements::execBuildsTheStatement_data()
{
    QTest::addColumn<QString>("driver");
    QTest::addColumn<QString>("head");
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("prepared");
    const auto row = [](const char *name, const QString &driver, const QString &head,
                        const QString &arguments, const QString &prepared) {
        QTest::newRow(name) << driver << head << arguments << prepared;
    };
    const QString pg = "QPSQL"_qs;
    row("other: no argument", "STUB"_qs, "p"_qs, "[]"_qs, "EXECUTE PROCEDURE p"_qs);
    row("other: two arguments", "STUB"_qs, "p"_qs, "[1,2]"_qs, "EXECUTE PROCEDURE p(:a0,:a1)"_qs);
    row("other: plain statement", "STUB"_qs, "insert into t values"_qs, "[1]"_qs,
        "EXECUTE PROCEDURE insert into t values(:a0)"_qs);
    row("Firebird", "QIBASE"_qs, "p"_qs, "[1]"_qs, "EXECUTE PROCEDURE p(:a0)"_qs);
    row("MySQL", "QMYSQL"_qs, "select f"_qs, "[1]"_qs, "EXECUTE PROCEDURE select f(:a0)"_qs);
    row("function", pg, "f"_qs, "[1]"_qs, "SELECT f(:a0)"_qs);
    row("function without arguments", pg, "f"_qs, "[]"_qs, "SELECT f"_qs);
    row("plain statement", pg, "select * from t"_qs, "[]"_qs, " select * from t"_qs);
    row("leading blank", pg, " select * from t"_qs, "[]"_qs, "SELECT  select * from t"_qs);
    row("leading tab", pg, "\\tselect 1"_qs, "[]"_qs, "SELECT \tselect 1"_qs);
    row("insert", pg, "INSERT INTO t VALUES"_qs, "[1,2]"_qs, " INSERT INTO t VALUES(:a0,:a1)"_qs);
    row("delete", pg, "dElEtE from t"_qs, "[]"_qs, " dElEtE from t"_qs);
    row("update", pg, "Update t"_qs, "[]"_qs, " Update t"_qs);
    row("values", pg, "values"_qs, "[1]"_qs, " values(:a0)"_qs);
    row("keyword as a beginning", pg, "selection"_qs, "[]"_qs, " selection"_qs);
    row("same letter, no keyword", pg, "drop_all"_qs, "[]"_qs, "SELECT drop_all"_qs);
    row("keyword of another letter", pg, "s delete"_qs, "[]"_qs, "SELECT s delete"_qs);
    row("beyond Latin-1", pg, "\\u017Felect 1"_qs, "[]"_qs, "SELECT \u017Felect 1"_qs);
    row("dotted capital I", pg, "\\u0130nsert"_qs, "[]"_qs, "SELECT \u0130nsert"_qs);
    row("Cyrillic", pg, "функция"_qs, "[1]"_qs, "SELECT функция(:a0)"_qs);
    row("empty text", pg, ""_qs, "[1]"_qs, "SELECT (:a0)"_qs);
    row("driver name in lower case", "qpsql"_qs, "f"_qs, "[1]"_qs, "SELECT f(:a0)"_qs);
    row("no array", pg, "f"_qs, "undefined"_qs, "SELECT f"_qs);
}

void TestStatements::execBuildsTheStatement()
{
    QFETCH(QString, driver);
    QFETCH(QString, head);
    QFETCH(QString, arguments);
    QFETCH(QString, prepared);
    openStub(driver, QSqlDriver::UnknownDbms);
    eval("var r = db.exec('%1', %2);"_qs.arg(head, arguments));
    QCOMPARE(writtenTexts(stub()), QStringList{prepared});
    QVERIFY(truth("r !== false && r.fields === 0"_qs));
}

void TestStatements::execOnOdbcLooksAtTheDriverNotTheSystem()
{
    openStub("QODBC"_qs, QSqlDriver::PostgreSQL);
    eval("db.exec('f', [1])"_qs);
    QCOMPARE(writtenTexts(stub()), QStringList{"EXECUTE PROCEDURE f(:a0)"_qs});
}

void TestStatements::execBindsNumberedPropertiesOnly_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QStringList>("values");
    const auto row = [](const char *name, const QString &arguments, const QStringList &values) {
        QTest::newRow(name) << arguments << values;
    };
    row("array with named properties",
        "(function() { var a = [1, 'x']; a.extra = 5; a.more = 'y';"
        "return a; })()"_qs,
        {":a0 1 int 1"_qs, ":a1 1 QString x"_qs});
    row("sparse array", "(function() { var a = []; a[7] = 'x'; a[2] = 'y'; return a; })()"_qs,
        {":a0 1 QString y"_qs, ":a1 1 QString x"_qs});
    row("object with numbered names", "({b: 1, 3: 'x', c: 2, 10: 'y'})"_qs,
        {":a0 1 QString x"_qs, ":a1 1 QString y"_qs});
    row("negative number as a name",
        "(function() { var a = ['x']; a['-1'] = 'y'; return a; })()"_qs,
        {":a0 1 QString x"_qs, ":a1 1 QString y"_qs});
    row("fraction and exponent are no integers",
        "(function() { var a = ['x']; a['1.5'] = 'y'; a['1e1'] = 'z'; return a; })()"_qs,
        {":a0 1 QString x"_qs});
    row("empty array", "[]"_qs, {});
    row("null", "null"_qs, {});
    row("number", "5"_qs, {});
    row("boolean", "true"_qs, {});
}

void TestStatements::execBindsNumberedPropertiesOnly()
{
    QFETCH(QString, arguments);
    QFETCH(QStringList, values);
    openStub("STUB"_qs);
    eval("db.exec('p', %1)"_qs.arg(arguments));
    QCOMPARE(bound(stub()), values);
    QCOMPARE(stub().count(StubCall::ExecPrepared), 1);
}

void TestStatements::execBindsEachType_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<QVariant>("value");
    QTest::newRow("number") << "1.5"_qs << QVariant(1.5);
    QTest::newRow("whole number") << "7"_qs << QVariant(7);
    QTest::newRow("string") << "'a'"_qs << QVariant("a"_qs);
    QTest::newRow("empty string") << "''"_qs << QVariant(""_qs);
    QTest::newRow("string with NUL") << "'a\\0b'"_qs << QVariant("a\0b"_qs);
    QTest::newRow("boolean") << "true"_qs << QVariant(true);
    QTest::newRow("undefined") << "undefined"_qs << QVariant();
    QTest::newRow("date") << "new Date(0)"_qs << QVariant(QDateTime::fromMSecsSinceEpoch(0));
    QTest::newRow("array") << "[1, 'a']"_qs << QVariant(QVariantList{1.0, "a"_qs});
    QTest::newRow("object") << "({k: 1})"_qs << QVariant(QVariantMap{{"k"_qs, 1.0}});
}

void TestStatements::execBindsEachType()
{
    QFETCH(QString, argument);
    QFETCH(QVariant, value);
    openStub("STUB"_qs);
    eval("db.exec('p', [%1])"_qs.arg(argument));
    const QVector<StubCall> calls = stub().calls(StubCall::Bind);
    QCOMPARE(calls.size(), 1);
    QCOMPARE(calls.first().bindings.first().value.userType(), value.userType());
    QCOMPARE(calls.first().bindings.first().value, value);
}

void TestStatements::execBindsTheDataOfAValue()
{
    openStub("STUB"_qs);
    QScriptValue carrier = host().engine()->newObject();
    carrier.setData(QScriptValue(host().engine(), 42));
    QScriptValue bytes = host().engine()->newObject();
    bytes.setData(host().engine()->newVariant(QByteArray("bin")));
    host().engine()->globalObject().setProperty("carrier"_qs, carrier);
    host().engine()->globalObject().setProperty("bytes"_qs, bytes);
    eval("db.exec('p', [carrier, bytes])"_qs);
    const int binary = int(QSql::In | QSql::Binary);
    QCOMPARE(bound(stub()),
             (QStringList{":a0 1 int 42"_qs, ":a1 %1 QByteArray bin"_qs.arg(binary)}));
}

void TestStatements::execBindsByteArraysAsBinary()
{
    openStub("STUB"_qs);
    host().engine()->globalObject().setProperty("bytes"_qs,
                                                host().engine()->newVariant(QByteArray("a\0b", 3)));
    eval("db.exec('p', ['a', bytes])"_qs);
    const QVector<StubCall> calls = stub().calls(StubCall::Bind);
    QCOMPARE(calls.size(), 2);
    QCOMPARE(calls.at(0).bindings.first().type, QSql::ParamType(QSql::In));
    QCOMPARE(calls.at(1).bindings.first().type, QSql::In | QSql::Binary);
    QCOMPARE(calls.at(1).bindings.first().value, QVariant(QByteArray("a\0b", 3)));
}

void TestStatements::execTracesWhatItBinds()
{
    openStub("STUB"_qs);
    eval("db.traceLog = true; db.exec('p', [1, 'secret', true]);"_qs);
    QCOMPARE(sent(), (QStringList{"2 exec sql bind 1 value:  type=int"_qs,
                                  "2 exec sql bind 2 value:  type=QString"_qs,
                                  "2 exec sql bind 3 value:  type=bool"_qs}));
}

void TestStatements::execBindsAThousandValues()
{
    openStub("STUB"_qs);
    eval("var many = []; for (var i = 0; i < 1000; ++i) many.push('v' + i);"
         "var r = db.exec('p', many);"_qs);
    const QStringList values = bound(stub());
    QCOMPARE(values.size(), 1000);
    QCOMPARE(values.at(0), ":a0 1 QString v0"_qs);
    QCOMPARE(values.at(999), ":a999 1 QString v999"_qs);
    QVERIFY(truth("r !== false"_qs));
}

void TestStatements::execUnpreparedIsReportedWhileTracingOnly()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::prepareFailure(statementError("no procedure"_qs)));
    QVERIFY(truth("db.exec('p', [1]) === false"_qs));
    QCOMPARE(sent(), QStringList());
    eval("db.traceLog = true; db.exec('p', [1]);"_qs);
    QCOMPARE(sent(), QStringList{"-1 exec не смог подготовить процедуру 'p' к выполнению\n"
                                 "no procedure STUB: failed"_qs});
    QCOMPARE(stub().count(StubCall::ExecPrepared) + stub().count(StubCall::Bind), 0);
    QCOMPARE(criticalLines(), QStringList());
}

void TestStatements::execUnpreparedKeepsItsError()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::prepareFailure(statementError("no procedure"_qs)));
    eval("db.exec('p', [1])"_qs);
    QCOMPARE(json("[db.lastError, db.lastQuery, db.isOpen]"_qs),
             "[\"no procedure STUB: failed\",\"EXECUTE PROCEDURE p(:a0)\",true]"_qs);
    QVERIFY(truth("db.queryResult === undefined"_qs));
}

void TestStatements::execFailedIsReportedAlways()
{
    openStub("STUB"_qs).setDefaultReply(StubReply::failure(statementError(" no rights"_qs)));
    QVERIFY(truth("db.exec('p', [1]) === false"_qs));
    QCOMPARE(sent(), QStringList{"-1 exec ошибка выполнения: ' no rights STUB: failed'"_qs});
    QCOMPARE(text("db.lastErrors.databaseText"_qs), " no rights"_qs);
}

void TestStatements::execFailedWhileTracingAddsTheStatement()
{
    openStub("QPSQL"_qs).setDefaultReply(StubReply::failure(statementError("no rights"_qs)));
    eval("db.traceLog = true; db.exec('f', []);"_qs);
    QCOMPARE(sent(),
             QStringList{"-1 exec ошибка выполнения: 'no rights STUB: failed'\nSELECT f"_qs});
}

void TestStatements::execLeavesTheStatementCounters()
{
    openStub("STUB"_qs).onPrefix("EXECUTE PROCEDURE bad"_qs,
                                 StubReply::failure(statementError("no"_qs)));
    stub().onPrefix("EXECUTE PROCEDURE none"_qs,
                    StubReply::prepareFailure(statementError("no"_qs)));
    eval("db.exec('good', []); db.exec('bad', []); db.exec('none', []);"_qs);
    QCOMPARE(json("[db.counters().cnt_sql_ok, db.counters().cnt_sql_er]"_qs), "[0,0]"_qs);
}

void TestStatements::execHasNoTimingMode()
{
    openStub("STUB"_qs);
    eval("db.exec('p --', [])"_qs);
    QCOMPARE(sent(), QStringList());
}

void TestStatements::execDoesNotTraceItsStatement()
{
    openStub("STUB"_qs);
    eval("db.traceLog = true; db.exec('p', [])"_qs);
    QCOMPARE(sent(), QStringList());
}

void TestStatements::execStopsWhereTheDataOfAValueThrows()
{
    openStub("STUB"_qs);
    eval("var o = {}; o.__defineGetter__('__qt_data__', function() { throw new Error('no data'); "
         "});"_qs);
    const QString exception = host().evalThrows("db.exec('p', [1, o])"_qs);
    QVERIFY2(exception.contains("no data"_qs), qPrintable(exception));
    QCOMPARE(sent(), QStringList());
    QCOMPARE(stub().count(StubCall::Prepare), 0);
}

void TestStatements::execStopsAtAThrowingGetter()
{
    openStub("STUB"_qs);
    eval("var args = {}; args.__defineGetter__('x1', function() { return 1; });"
         "args.__defineGetter__('0', function() { throw new RangeError('no value'); });"_qs);
    const QString exception = host().evalThrows("db.exec('p', args)"_qs);
    QVERIFY2(exception.contains("no value"_qs), qPrintable(exception));
    const QString within = host().evalThrows(
        "db.exec('p', [{get inner() { throw new RangeError('no inner value'); }}])"_qs);
    QVERIFY2(within.contains("no inner value"_qs), qPrintable(within));
    QCOMPARE(sent(), QStringList()); // no other fault is told
    QCOMPARE(stub().executed(), QStringList());
    QVERIFY(truth("db.query('select 1') !== false"_qs));
}

void TestStatements::execBindsHostileValues_data()
{
    QTest::addColumn<QString>("value");
    QTest::newRow("object of the host") << "post"_qs;
    QTest::newRow("the connection itself") << "db"_qs;
    QTest::newRow("function") << "(function() {})"_qs;
    QTest::newRow("regular expression") << "/a/g"_qs;
    QTest::newRow("not a number") << "NaN"_qs;
    QTest::newRow("infinity") << "-Infinity"_qs;
    QTest::newRow("invalid date") << "new Date(NaN)"_qs;
    QTest::newRow("global object") << "({g: this.nothing})"_qs;
    QTest::newRow("array within itself") << "(function() { var a = []; a[0] = a; return a; })()"_qs;
    QTest::newRow("object within itself") << "(function() { var o = {}; o.o = o; return o; })()"_qs;
    QTest::newRow("deep array")
        << "(function() { var a = []; for (var i = 0; i < 100000; ++i) a = [a]; return a; })()"_qs;
}

void TestStatements::execBindsHostileValues()
{
    QFETCH(QString, value);
    openStub("STUB"_qs);
    eval(
        "var value = %1, r; try { r = db.exec('p', [value]); } catch (e) { r = e; }"_qs.arg(value));
    QVERIFY(truth("r === false || r.fields === 0 || r instanceof Error"_qs));
    QVERIFY(truth("db.query('select 1').fields === 0"_qs));
    eval("value = undefined;"_qs);
}

void TestStatements::execReturnsAResultObject()
{
    openStub("QPSQL"_qs)
        .onPrefix("SELECT f"_qs, StubReply::table({{"sum"_qs, QVariant::Int}}, {{3}}));
    eval("var r = db.exec('f', [1, 2])"_qs);
    QCOMPARE(json("[r.SUM, r.length, r === db.queryResult]"_qs), "[[3],1,true]"_qs);
}

void TestStatements::execOnSqliteCannotCall()
{
    openSqlite();
    QVERIFY(truth("db.exec('select', [1]) === false && db.isOpen"_qs));
    QVERIFY(text("db.lastError"_qs).contains("syntax error"_qs));
}

QTEST_GUILESS_MAIN(TestStatements)
#include "test_statements.moc"
