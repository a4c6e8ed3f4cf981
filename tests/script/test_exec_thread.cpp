/// @file
/// exec_thread(): its arguments, its refusals, the procedure calls that the worker builds, and the
/// transaction commands that follow to the worker's connection.
#include "script_test.h"

namespace
{

const QString usage = QStringLiteral(
    "использовать как db.exec_thread(sql, arg[])  or  db.exec_thread(func, sql, arg[])  or  "
    "db.exec_thread(ctx, func, sql, arg[], args[])");
const QString countText =
    QStringLiteral("количество аргументов не соответствует количеству запросов");
const QString arrayText = QStringLiteral("каждому запросу необходим массив аргументов");

StubReply oneRow(int value)
{
    return StubReply::table({{QStringLiteral("a"), QVariant::Int}}, {{value}});
}

/// The prepared executions of the worker: the text as written, then each value with its type.
QStringList preparedCalls(const StubServer &server)
{
    QStringList texts;
    const QVector<StubCall> calls = server.calls(StubCall::ExecPrepared, QStringLiteral("_thr"));
    for (const StubCall &call : calls) {
        QString text = call.writtenText;
        for (const StubCall::Binding &binding : call.bindings) {
            text += QStringLiteral(" %1:%2").arg(QLatin1String(binding.value.typeName()),
                                                 binding.value.toString());
        }
        texts.append(text);
    }
    return texts;
}

} // namespace

class TestExecThread : public ScriptTest
{
    Q_OBJECT

private Q_SLOTS:
    // refusals
    void lostObjectIsATypeError();
    void closedConnectionAnswersFalseSilently_data();
    void closedConnectionAnswersFalseSilently();
    void closedConnectionIsATypeErrorWhileTracing();
    void wrongNumberOfArgumentsIsATypeError_data();
    void wrongNumberOfArgumentsIsATypeError();
    void statementThatIsNoStringIsATypeError_data();
    void statementThatIsNoStringIsATypeError();
    void listWithoutArgumentArraysIsATypeError_data();
    void listWithoutArgumentArraysIsATypeError();
    void wrongNumberOfArgumentArraysIsATypeError_data();
    void wrongNumberOfArgumentArraysIsATypeError();
    void argumentsThatAreNoArrayAreATypeError_data();
    void argumentsThatAreNoArrayAreATypeError();
    void tooLargeArgumentIsCalledSo_data();
    void tooLargeArgumentIsCalledSo();
    void contextWithoutCallbackIsATypeError_data();
    void contextWithoutCallbackIsATypeError();

    // sorting and binding
    void statementsAreRunWithTheirArguments_data();
    void statementsAreRunWithTheirArguments();
    void extraValuesFollowTheCallbacksOwn_data();
    void extraValuesFollowTheCallbacksOwn();
    void contextAndCallbackAreSortedByType_data();
    void contextAndCallbackAreSortedByType();
    void valuesAreBoundAsPlainInput();
    void thousandValuesAreBound();
    void gettersAreReadOnce();

    // results
    void singleStatementDeliversAnObject();
    void listDeliversArrays();
    void listOfOneDeliversAnObject();
    void failedPreparationIsTheError();
    void failedPreparationIsReportedWhileTracing();
    void errorInTheMiddleGoesOn();
    void transactionWordInAListActsOnTheConnection();
    void wordAtTheBeginningShiftsNoResult();
    void listThatEndsAtItsFirstStatementDeliversAnObject();
    void withoutStatementTheOutcomeIsDelivered();
    void sqliteCannotCallProcedures();

    // the call's text
    void procedureCallFollowsTheSystem_data();
    void procedureCallFollowsTheSystem();

    // commands
    void commandsWithoutTheThreadTouchTheMainConnectionOnly();
    void commandsFollowToTheRunningThread_data();
    void commandsFollowToTheRunningThread();
    void secondTransactionRollsTheFirstBack();
    void commandWithoutATransactionIsTrue_data();
    void commandWithoutATransactionIsTrue();
    void failedCommandOfTheThreadTellsItsOutcome_data();
    void failedCommandOfTheThreadTellsItsOutcome();
    void failedCommandOfTheMainConnectionQueuesNothing_data();
    void failedCommandOfTheMainConnectionQueuesNothing();
    void commandsNeedAnOpenConnectionWithTransactions_data();
    void commandsNeedAnOpenConnectionWithTransactions();
    void openTransactionIsRolledBackAtTheEnd();
    void transactionThatFailedIsNotRolledBack();
    void sqliteFollowsCommitAndRollback();

private:
    void checkTypeError(const QString &call, const QString &message, const QStringList &lines);
};

void TestExecThread::checkTypeError(const QString &call, const QString &message,
                                    const QStringList &lines)
{
    eval("var thrown = null, returned = 'nothing';"
         "try { returned = %1; } catch (e) { thrown = e; }"_qs.arg(call));
    QVERIFY(truth("thrown instanceof TypeError"_qs));
    QCOMPARE(text("thrown.message"_qs), message);
    QCOMPARE(text("returned"_qs), "nothing"_qs);
    QCOMPARE(criticalLines(), lines);
    QCOMPARE(number("db.taskSize()"_qs), 0.0);
    QVERIFY(truth("!db.isRunning"_qs));
}

// --- refusals ---

void TestExecThread::lostObjectIsATypeError()
{
    openStub("STUB"_qs);
    eval("var f = db.exec_thread;"_qs);
    for (const QString &call : {"f('p', [1])"_qs, "f.call({}, 'p', [1])"_qs, "f()"_qs})
        checkTypeError(call, "потерян объект VEXT_SQL\n"_qs + usage, {});
}

void TestExecThread::closedConnectionAnswersFalseSilently_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::newRow("valid") << "'p', [1]"_qs;
    QTest::newRow("none") << ""_qs;
    QTest::newRow("six") << "1, 2, 3, 4, 5, 6"_qs;
    QTest::newRow("list without arguments") << "['p']"_qs;
    QTest::newRow("context alone") << "{}, 'p'"_qs;
}

void TestExecThread::closedConnectionAnswersFalseSilently()
{
    QFETCH(QString, arguments);
    eval("var db = new VEXT_SQL();"_qs);
    QVERIFY(truth("db.exec_thread(%1) === false"_qs.arg(arguments)));
    QCOMPARE(criticalLines(), QStringList());
    QCOMPARE(sent(), QStringList());
}

void TestExecThread::closedConnectionIsATypeErrorWhileTracing()
{
    eval("var db = new VEXT_SQL(); db.databaseName = 'db'; db.port = 5432; db.hostName = 'host';"
         "db.traceLog = true;"_qs);
    for (const QString &arguments : {"'p', [1]"_qs, ""_qs, "['p']"_qs})
        checkTypeError("db.exec_thread(%1)"_qs.arg(arguments),
                       "не открыто соединение с 'db:5432:host'"_qs, {});
}

void TestExecThread::wrongNumberOfArgumentsIsATypeError_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<int>("count");
    QTest::newRow("none") << ""_qs << 0;
    QTest::newRow("six, all valid") << "{}, function() {}, 'p', [1], [2], 5"_qs << 6;
}

void TestExecThread::wrongNumberOfArgumentsIsATypeError()
{
    QFETCH(QString, arguments);
    QFETCH(int, count);
    openStub("STUB"_qs);
    checkTypeError("db.exec_thread(%1)"_qs.arg(arguments), usage,
                   {"vext_sql:360 ~~~~ js_exec_thread \t aCount %1"_qs.arg(count)});
}

void TestExecThread::statementThatIsNoStringIsATypeError_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("type");
    QTest::newRow("whole number") << "['p', 5], [[1], [2]]"_qs
                                  << "2 int"_qs;
    QTest::newRow("boolean") << "[true], [[1]]"_qs
                             << "1 bool"_qs;
    QTest::newRow("array") << "[['p']], [[1]]"_qs
                           << "9 QVariantList"_qs;
    QTest::newRow("object") << "[{}], [[1]]"_qs
                            << "8 QVariantMap"_qs;
    QTest::newRow("undefined") << "[undefined], [[1]]"_qs
                               << "0"_qs;
    QTest::newRow("arguments before the statement") << "function() {}, [1], 'p'"_qs
                                                    << "2 int"_qs;
    QTest::newRow("before the missing argument arrays") << "[5]"_qs
                                                        << "2 int"_qs;
}

void TestExecThread::statementThatIsNoStringIsATypeError()
{
    QFETCH(QString, arguments);
    QFETCH(QString, type);
    openStub("STUB"_qs);
    checkTypeError("db.exec_thread(%1)"_qs.arg(arguments), usage,
                   {"vext_sql:377 ~~~~ js_exec_thread \t type %1"_qs.arg(type)});
}

void TestExecThread::listWithoutArgumentArraysIsATypeError_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::newRow("nothing follows") << "['p']"_qs;
    QTest::newRow("callback follows") << "['p'], function() {}, [[1]]"_qs;
    QTest::newRow("string follows") << "['p'], 'q'"_qs;
    QTest::newRow("object follows") << "['p'], {0: [1]}"_qs;
    QTest::newRow("number follows") << "['p'], 5"_qs;
    QTest::newRow("null follows") << "['p'], null, [[1]]"_qs;
    QTest::newRow("empty list, nothing follows") << "[]"_qs;
}

void TestExecThread::listWithoutArgumentArraysIsATypeError()
{
    QFETCH(QString, arguments);
    openStub("STUB"_qs);
    checkTypeError("db.exec_thread(%1)"_qs.arg(arguments), usage, {});
}

void TestExecThread::wrongNumberOfArgumentArraysIsATypeError_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("names");
    QTest::newRow("too few") << "['s1', 's2'], [[1]]"_qs
                             << "'s1','s2'"_qs;
    QTest::newRow("too many") << "['s1'], [[1], [2]]"_qs
                              << "'s1'"_qs;
    QTest::newRow("none") << "['s1', 's2'], []"_qs
                          << "'s1','s2'"_qs;
    QTest::newRow("named ones do not count") << "['s1', 's2'], named"_qs
                                             << "'s1','s2'"_qs;
    QTest::newRow("count comes before type") << "['s1', 's2'], [5]"_qs
                                             << "'s1','s2'"_qs;
    QTest::newRow("gap") << "['s1', 's2'], [[1], , ]"_qs
                         << "'s1','s2'"_qs;
    QTest::newRow("with percent signs") << "['%1', '%2'], [[1]]"_qs
                                        << "'%1','%2'"_qs;
}

void TestExecThread::wrongNumberOfArgumentArraysIsATypeError()
{
    QFETCH(QString, arguments);
    QFETCH(QString, names);
    openStub("STUB"_qs);
    eval("var named = [[1]]; named.second = [2];"_qs);
    checkTypeError("db.exec_thread("_qs + arguments + ")"_qs,
                   countText + ": db.exec_thread(["_qs + names + "], [[arg1], ...])"_qs, {});
}

void TestExecThread::argumentsThatAreNoArrayAreATypeError_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("type");
    QTest::newRow("empty array") << "['s1', 's2'], [[1], []]"_qs
                                 << "9 QVariantList"_qs;
    QTest::newRow("number") << "['s1', 's2'], [[1], 5]"_qs
                            << "2 int"_qs;
    QTest::newRow("string") << "['s1', 's2'], ['a', [1]]"_qs
                            << "10 QString"_qs;
    QTest::newRow("object") << "['s1', 's2'], [{0: 1}, [1]]"_qs
                            << "8 QVariantMap"_qs;
    QTest::newRow("boolean") << "['s1', 's2'], [[1], true]"_qs
                             << "1 bool"_qs;
    QTest::newRow("undefined") << "['s1', 's2'], [[1], undefined]"_qs
                               << "0"_qs;
}

void TestExecThread::argumentsThatAreNoArrayAreATypeError()
{
    QFETCH(QString, arguments);
    QFETCH(QString, type);
    openStub("STUB"_qs);
    checkTypeError("db.exec_thread(%1)"_qs.arg(arguments),
                   arrayText + ": db.exec_thread(['s1','s2'], [[arg1, ...], ...])"_qs,
                   {"vext_sql:407 ~~~~ js_exec_thread \t type %1"_qs.arg(type)});
}

void TestExecThread::tooLargeArgumentIsCalledSo_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::newRow("too many values") << "'p', [new Array(2000000)]"_qs;
    QTest::newRow("too deep") << "'p', [deep]"_qs;
    QTest::newRow("in a list") << "['p', 'q'], [[1], [deep]]"_qs;
}

/// As exec calls it.
void TestExecThread::tooLargeArgumentIsCalledSo()
{
    QFETCH(QString, arguments);
    openStub("STUB"_qs);
    eval("var deep = 1; for (var i = 0; i < 600; ++i) deep = [deep]"_qs);
    checkTypeError("db.exec_thread(%1)"_qs.arg(arguments), "слишком большой аргумент"_qs, {});
    forgetMessages();
    QVERIFY(truth("db.exec('p', [deep]) === false"_qs));
    QCOMPARE(sent(), QStringList{"-1 exec слишком большой аргумент"_qs});
}

void TestExecThread::contextWithoutCallbackIsATypeError_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::newRow("single statement") << "{}, 'p', [1]"_qs;
    QTest::newRow("list") << "['p'], [[1]], {}"_qs;
    QTest::newRow("without arguments") << "{}, 'p'"_qs;
}

void TestExecThread::contextWithoutCallbackIsATypeError()
{
    QFETCH(QString, arguments);
    openStub("STUB"_qs);
    checkTypeError("db.exec_thread(%1)"_qs.arg(arguments), usage,
                   {"vext_sql:455 ~~~~ js_exec_thread \t funcs and context validate: "
                    "obj.isObject() true : fnc.isObject() false : fnc.isFunction() false"_qs});
}

// --- sorting and binding ---

void TestExecThread::statementsAreRunWithTheirArguments_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QStringList>("calls");
    const auto row = [](const char *name, const QString &arguments, const QStringList &calls) {
        QTest::newRow(name) << arguments << calls;
    };
    row("one statement", "'p', [1, 'a']"_qs, {"EXECUTE PROCEDURE p(?,?) int:1 QString:a"_qs});
    row("no arguments", "'p'"_qs, {"EXECUTE PROCEDURE p"_qs});
    row("empty arguments", "'p', []"_qs, {"EXECUTE PROCEDURE p"_qs});
    row("empty arguments, then others", "'p', [], [2]"_qs, {"EXECUTE PROCEDURE p(?) int:2"_qs});
    row("list", "['p', 'q'], [[1], [2, 3]]"_qs,
        {"EXECUTE PROCEDURE p(?) int:1"_qs, "EXECUTE PROCEDURE q(?,?) int:2 int:3"_qs});
    row("list of one gets the inner array as one value", "['p'], [[1, 2]]"_qs,
        {"EXECUTE PROCEDURE p(?) QVariantList:"_qs});
    row("callback between", "'p', function() {}, [1]"_qs, {"EXECUTE PROCEDURE p(?) int:1"_qs});
    row("second string is ignored", "'p', 'q', [1]"_qs, {"EXECUTE PROCEDURE p(?) int:1"_qs});
    row("numbers are ignored", "5, 'p', true, null, [1]"_qs, {"EXECUTE PROCEDURE p(?) int:1"_qs});
    row("named arguments are skipped", "'p', named"_qs, {"EXECUTE PROCEDURE p(?) int:1"_qs});
    row("gaps are skipped", "'p', [1, , 'a']"_qs, {"EXECUTE PROCEDURE p(?,?) int:1 QString:a"_qs});
    row("percent sign", "'p%1', ['%2']"_qs, {"EXECUTE PROCEDURE p%1(?) QString:%2"_qs});
}

void TestExecThread::statementsAreRunWithTheirArguments()
{
    QFETCH(QString, arguments);
    QFETCH(QStringList, calls);
    openStub("STUB"_qs);
    recordAnswers();
    eval("var named = [1]; named.second = 2;"_qs);
    QVERIFY(truth("db.exec_thread("_qs + arguments + ") === true"_qs));
    QVERIFY(host().waitForScript("db.counters().cnt_sql_ok === %1"_qs.arg(calls.size())));
    QCOMPARE(preparedCalls(stub()), calls);
    QCOMPARE(stub().count(StubCall::Exec), 0);
}

void TestExecThread::extraValuesFollowTheCallbacksOwn_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("extra");
    QTest::newRow("after the arguments") << "record, 'p', [1], [7, 8]"_qs
                                         << "[7,8]"_qs;
    QTest::newRow("none") << "record, 'p', [1]"_qs
                          << "[]"_qs;
    QTest::newRow("after a list") << "['p', 'q'], [[1], [2]], [7], record"_qs
                                  << "[7]"_qs;
    QTest::newRow("list of one") << "['p'], [[1]], [7], record"_qs
                                 << "[7]"_qs;
    QTest::newRow("third array is ignored") << "record, 'p', [1], [7], [8]"_qs
                                            << "[7]"_qs;
    QTest::newRow("named ones are skipped") << "record, 'p', [1], named"_qs
                                            << "[7,9]"_qs;
}

void TestExecThread::extraValuesFollowTheCallbacksOwn()
{
    QFETCH(QString, arguments);
    QFETCH(QString, extra);
    openStub("STUB"_qs);
    recordAnswers();
    eval("var named = [7, 9]; named.second = 2;"_qs);
    QVERIFY(truth("db.exec_thread(%1)"_qs.arg(arguments)));
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("answers[0].slice(3)"_qs), extra);
}

void TestExecThread::contextAndCallbackAreSortedByType_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("callbackThis");
    QTest::newRow("context first") << "ctx, f, 'p', [1], [2]"_qs
                                   << "ctx"_qs;
    QTest::newRow("context last") << "'p', [1], f, ctx"_qs
                                  << "ctx"_qs;
    QTest::newRow("second function is the context") << "f, g, 'p', [1]"_qs
                                                    << "g"_qs;
    QTest::newRow("no context") << "f, 'p', [1]"_qs
                                << "global"_qs;
    QTest::newRow("list") << "ctx, f, ['p'], [[1]]"_qs
                          << "ctx"_qs;
}

void TestExecThread::contextAndCallbackAreSortedByType()
{
    QFETCH(QString, arguments);
    QFETCH(QString, callbackThis);
    openStub("STUB"_qs);
    eval("var global = this, self, ctx = {}, calls = 0;"
         "function f() { self = this; ++calls; } function g() { ++calls; }"_qs);
    QVERIFY(truth("db.exec_thread(%1)"_qs.arg(arguments)));
    QVERIFY(host().waitForScript("calls > 0"_qs));
    QVERIFY(truth("self === %1 && calls === 1"_qs.arg(callbackThis)));
}

void TestExecThread::valuesAreBoundAsPlainInput()
{
    openStub("STUB"_qs);
    recordAnswers();
    host().engine()->globalObject().setProperty("bytes"_qs,
                                                host().engine()->newVariant(QByteArray("b")));
    eval("db.exec_thread('p', [1.5, 'a\\0b', true, undefined, bytes, [1]], record)"_qs);
    QVERIFY(waitForAnswers(1));
    const QVector<StubCall> calls = stub().calls(StubCall::ExecPrepared, "_thr"_qs);
    QCOMPARE(calls.size(), 1);
    const QVariantList expected{1.5, "a\0b"_qs, true, QVariant(), QByteArray("b"), QVariantList{1}};
    QCOMPARE(calls.first().bindings.size(), expected.size());
    for (int i = 0; i < expected.size(); ++i) {
        const StubCall::Binding &binding = calls.first().bindings.at(i);
        QCOMPARE(binding.value.userType(), expected.at(i).userType());
        QCOMPARE(binding.value, expected.at(i));
        QCOMPARE(binding.type, QSql::ParamType(QSql::In));
    }
}

void TestExecThread::thousandValuesAreBound()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("var many = []; for (var i = 0; i < 1000; ++i) many.push(i);"
         "db.exec_thread('p', many, record)"_qs);
    QVERIFY(waitForAnswers(1));
    const QVector<StubCall> calls = stub().calls(StubCall::ExecPrepared, "_thr"_qs);
    QCOMPARE(calls.size(), 1);
    QCOMPARE(calls.first().bindings.size(), 1000);
    QCOMPARE(calls.first().bindings.at(999).value, QVariant(999));
}

void TestExecThread::gettersAreReadOnce()
{
    openStub("STUB"_qs);
    recordAnswers();
    // A second look would bind another value than the one that was checked.
    eval("var reads = 0, o = {}; o.__defineGetter__('k', function() { return ++reads; });"
         "db.exec_thread('p', [o], record); db.exec_thread(['p', 'q'], [[o], [1]], record);"_qs);
    QVERIFY(waitForAnswers(2));
    const QVector<StubCall> calls = stub().calls(StubCall::ExecPrepared, "_thr"_qs);
    QCOMPARE(calls.size(), 3);
    QCOMPARE(calls.at(0).bindings.first().value, QVariant(QVariantMap{{"k"_qs, 1}}));
    QCOMPARE(calls.at(1).bindings.first().value, QVariant(QVariantMap{{"k"_qs, 2}}));
    QCOMPARE(number("reads"_qs), 2.0);
}

// --- results ---

void TestExecThread::singleStatementDeliversAnObject()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("db.exec_thread(record, 'p', [1]); db.exec_thread('p', [1]);"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("[answers[0][0].a, answers[0][1], finished[0][0].a, finished[0][1],"
                  "finished[0][3]]"_qs),
             "[[7],false,[7],false,true]"_qs);
}

void TestExecThread::listDeliversArrays()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("db.exec_thread(record, ['p', 'q'], [[1], [2]])"_qs);
    QVERIFY(waitForAnswers(1));
    eval("var r = answers[0][0], e = answers[0][1];"_qs);
    QVERIFY(truth("r instanceof Array && e instanceof Array"_qs));
    QCOMPARE(json("[r.length, r[0].a, r[1].a, e]"_qs), "[2,[7],[7],[false,false]]"_qs);
}

void TestExecThread::listOfOneDeliversAnObject()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("db.exec_thread(record, ['p'], [[1]])"_qs);
    QVERIFY(waitForAnswers(1));
    QVERIFY(truth("!(answers[0][0] instanceof Array)"_qs));
    QCOMPARE(json("[answers[0][0].a, answers[0][1]]"_qs), "[[7],false]"_qs);
}

void TestExecThread::failedPreparationIsTheError()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::prepareFailure(statementError("no procedure"_qs)));
    recordAnswers();
    eval("db.exec_thread(record, 'p', [1]); db.exec_thread('p', [1]);"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("[answers[0].slice(0, 2), finished[0].slice(0, 3)]"_qs),
             "[[{},\"no procedure\"],[false,{},\"no procedure\"]]"_qs);
    QCOMPARE(json("[db.lastError, db.counters().cnt_sql_ok, db.counters().cnt_sql_er]"_qs),
             "[\"no procedure STUB: failed\",0,2]"_qs);
    QCOMPARE(stub().count(StubCall::ExecPrepared), 0);
    drainEvents();
    QCOMPARE(sent(), QStringList());
}

void TestExecThread::failedPreparationIsReportedWhileTracing()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::prepareFailure(statementError("no procedure"_qs)));
    recordAnswers();
    eval("db.traceLog = true; db.exec_thread(record, 'p', [1, 2]);"_qs);
    QVERIFY(waitForAnswers(1));
    QVERIFY(host().waitFor([&] { return sent().size() >= 2; }));
    QCOMPARE(sent(), (QStringList{"2 run sql='p'"_qs,
                                  "-1 run не смог подготовить процедуру 'p' к выполнению\n"
                                  "EXECUTE PROCEDURE p(?,?)"_qs}));
}

void TestExecThread::errorInTheMiddleGoesOn()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    stub().onPrefix("EXECUTE PROCEDURE bad"_qs, StubReply::failure(statementError("no"_qs)));
    stub().onPrefix("EXECUTE PROCEDURE none"_qs,
                    StubReply::prepareFailure(statementError("unknown"_qs)));
    recordAnswers();
    eval("db.exec_thread(['p', 'bad', 'none', 'q'], [[1], [2], [3], [4]]);"_qs);
    QVERIFY(waitForAnswers(1));
    eval("var r = finished[0][1], e = finished[0][2];"_qs);
    QCOMPARE(json("[finished[0][0], r[0].a, r[1], r[2], r[3].a, e]"_qs),
             "[false,[7],{},{},[7],[false,\"no\",\"unknown\",false]]"_qs);
    QCOMPARE(json("[db.counters().cnt_sql_ok, db.counters().cnt_sql_er]"_qs), "[2,2]"_qs);
}

void TestExecThread::transactionWordInAListActsOnTheConnection()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.exec_thread(record, ['p', 'commit'], [[1], [2]]);"
         "db.exec_thread(record, 'rollback', [1]);"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(preparedCalls(stub()), QStringList{"EXECUTE PROCEDURE p(?) int:1"_qs});
    QCOMPARE(stub().count(StubCall::Commit, "_thr"_qs), 1);
    QCOMPARE(stub().count(StubCall::Rollback, "_thr"_qs), 1);
    QVERIFY(truth("answers[0][0].fields === 0 && answers[1][0] === true"_qs));
}

void TestExecThread::wordAtTheBeginningShiftsNoResult()
{
    openStub("STUB"_qs).setDefaultReply(oneRow(7));
    recordAnswers();
    eval("db.exec_thread(record, ['commit', 'p', 'q'], [[1], [2], [3]])"_qs);
    QVERIFY(waitForAnswers(1));
    eval("var r = answers[0][0], e = answers[0][1];"_qs);
    QCOMPARE(json("[r[0], r[1].executedQuery, r[2].executedQuery, e[1], e[2]]"_qs),
             "[{},\"EXECUTE PROCEDURE p(?)\",\"EXECUTE PROCEDURE q(?)\",false,false]"_qs);
    QVERIFY(truth("e[0] === undefined"_qs));
}

void TestExecThread::listThatEndsAtItsFirstStatementDeliversAnObject()
{
    openStub("STUB"_qs).setDefaultReply(
        StubReply::failure(stubError(QSqlError::ConnectionError, "gone"_qs)));
    recordAnswers();
    eval("db.exec_thread(['p', 'q'], [[1], [2]])"_qs);
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("finished[0].slice(0, 3)"_qs), "[false,{},\"gone\"]"_qs);
    QCOMPARE(stub().count(StubCall::ExecPrepared), 1);
}

void TestExecThread::withoutStatementTheOutcomeIsDelivered()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.exec_thread(record); db.exec_thread([], [], record); db.exec_thread('');"_qs);
    QVERIFY(waitForAnswers(3));
    QCOMPARE(json("[answers[0].slice(0, 2), answers[1].slice(0, 2), finished[0].slice(0, 3)]"_qs),
             "[[false,false],[false,false],[false,false,false]]"_qs);
    QVERIFY(host().waitFor([&] { return !sent().isEmpty(); }));
    QCOMPARE(sent(), QStringList{"-1 run пустой запрос"_qs});
}

void TestExecThread::sqliteCannotCallProcedures()
{
    openSqlite();
    recordAnswers();
    eval("db.exec_thread(record, 'select', [1])"_qs);
    QVERIFY(waitForAnswers(1));
    QVERIFY2(text("answers[0][1]"_qs).contains("syntax error"_qs),
             qPrintable(text("answers[0][1]"_qs)));
    QVERIFY(truth("db.isOpen && db.isRunning"_qs));
}

// --- the call's text ---

void TestExecThread::procedureCallFollowsTheSystem_data()
{
    QTest::addColumn<QString>("driver");
    QTest::addColumn<int>("dbms");
    QTest::addColumn<QString>("head");
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("written");
    const auto row = [](const char *name, const QString &driver, int dbms, const QString &head,
                        const QString &arguments, const QString &written) {
        QTest::newRow(name) << driver << dbms << head << arguments << written;
    };
    const QString pg = "QPSQL"_qs;
    const int none = QSqlDriver::UnknownDbms;
    row("other", "STUB"_qs, none, "p_add"_qs, "[1, 2]"_qs, "EXECUTE PROCEDURE p_add(?,?)"_qs);
    row("other, no arguments", "STUB"_qs, none, "p"_qs, "[]"_qs, "EXECUTE PROCEDURE p"_qs);
    row("other, plain statement", "STUB"_qs, none, "select"_qs, "[1]"_qs,
        "EXECUTE PROCEDURE select(?)"_qs);
    row("other driver of a PostgreSQL system", "STUB"_qs, QSqlDriver::PostgreSQL, "f"_qs, "[1]"_qs,
        "EXECUTE PROCEDURE f(?)"_qs);
    row("Firebird", "QIBASE"_qs, QSqlDriver::Interbase, "p"_qs, "[1]"_qs,
        "EXECUTE PROCEDURE p(?)"_qs);
    row("PostgreSQL function", pg, none, "f"_qs, "[1, 2]"_qs, "SELECT f(?,?)"_qs);
    row("PostgreSQL, no arguments", pg, none, "f"_qs, "[]"_qs, "SELECT f"_qs);
    row("PostgreSQL select", pg, none, "select * from t"_qs, "[]"_qs, "select * from t"_qs);
    row("PostgreSQL, leading blank", pg, none, "  select * from t"_qs, "[]"_qs,
        "  select * from t"_qs);
    row("PostgreSQL insert", pg, none, "Insert into t values"_qs, "[1, 2]"_qs,
        "Insert into t values(?,?)"_qs);
    row("PostgreSQL delete", pg, none, "DELETE from t"_qs, "[]"_qs, "DELETE from t"_qs);
    row("PostgreSQL update", pg, none, "update t"_qs, "[]"_qs, "update t"_qs);
    row("PostgreSQL values", pg, none, "values"_qs, "[1]"_qs, "values(?)"_qs);
    row("PostgreSQL, other word", pg, none, "drop_all"_qs, "[]"_qs, "SELECT drop_all"_qs);
    row("PostgreSQL, beyond Latin-1", pg, none, "\\u017Felect 1"_qs, "[]"_qs,
        "SELECT \u017Felect 1"_qs);
    row("ODBC for PostgreSQL", "QODBC"_qs, QSqlDriver::PostgreSQL, "f"_qs, "[1]"_qs,
        "SELECT f(?)"_qs);
    row("ODBC for SQL Server", "QODBC"_qs, QSqlDriver::MSSqlServer, "f"_qs, "[1]"_qs,
        "EXECUTE PROCEDURE f(?)"_qs);
}

void TestExecThread::procedureCallFollowsTheSystem()
{
    QFETCH(QString, driver);
    QFETCH(int, dbms);
    QFETCH(QString, head);
    QFETCH(QString, arguments);
    QFETCH(QString, written);
    openStub(driver, QSqlDriver::DbmsType(dbms));
    recordAnswers();
    eval("db.exec_thread(record, '%1', %2)"_qs.arg(head, arguments));
    QVERIFY(waitForAnswers(1));
    QStringList texts;
    const QVector<StubCall> calls = stub().calls(StubCall::Prepare, "_thr"_qs);
    for (const StubCall &call : calls)
        texts.append(call.writtenText);
    QCOMPARE(texts, QStringList{written});
}

// --- commands ---

void TestExecThread::commandsWithoutTheThreadTouchTheMainConnectionOnly()
{
    openStub("STUB"_qs);
    recordAnswers();
    QCOMPARE(json("[db.transaction(), db.commit(), db.transaction(), db.rollback()]"_qs),
             "[true,true,true,true]"_qs);
    QCOMPARE(stub().count(StubCall::Begin), 2);
    QVERIFY(truth("!db.isRunning"_qs));
    eval("db.query_thread('s1', record)"_qs);
    QVERIFY(waitForAnswers(1));
    QVERIFY(truth("finished.length === 0"_qs));
    QCOMPARE(stub().count(StubCall::Begin, "_thr"_qs), 0);
}

void TestExecThread::commandsFollowToTheRunningThread_data()
{
    QTest::addColumn<QString>("end");
    QTest::addColumn<int>("commits");
    QTest::newRow("commit") << "commit"_qs << 1;
    QTest::newRow("rollback") << "rollback"_qs << 0;
}

void TestExecThread::commandsFollowToTheRunningThread()
{
    QFETCH(QString, end);
    QFETCH(int, commits);
    openStub("STUB"_qs);
    recordAnswers();
    QVERIFY(truth("db.start_thread() && db.transaction()"_qs));
    eval("db.query_thread('s1', record);"_qs);
    QVERIFY(truth("db.%1() === true"_qs.arg(end)));
    QVERIFY(waitForAnswers(3));
    QCOMPARE(stub().count(StubCall::Begin, "_thr"_qs), 1);
    QCOMPARE(stub().count(StubCall::Commit, "_thr"_qs), commits);
    QCOMPARE(stub().count(StubCall::Rollback, "_thr"_qs), 1 - commits);
    QStringList order;
    const QVector<StubCall> calls = stub().calls();
    for (const StubCall &call : calls) {
        if (!call.connection.endsWith("_thr"_qs))
            continue;
        if (call.what == StubCall::Begin || call.what == StubCall::Exec ||
            call.what == StubCall::Commit || call.what == StubCall::Rollback)
            order.append(call.what == StubCall::Exec ? "exec"_qs : "command"_qs);
    }
    QCOMPARE(order, (QStringList{"command"_qs, "exec"_qs, "command"_qs}));
    QCOMPARE(json("finished.map(function(f) { return [f[0], f[1], f[3]]; })"_qs),
             "[[true,false,true],[true,false,true]]"_qs);
    QVERIFY(truth("typeof finished[0][2] === 'number'"_qs));
}

void TestExecThread::secondTransactionRollsTheFirstBack()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.start_thread(); db.transaction(); db.transaction(); db.commit();"_qs);
    QVERIFY(waitForAnswers(3));
    QCOMPARE(stub().count(StubCall::Begin, "_thr"_qs), 2);
    QCOMPARE(stub().count(StubCall::Rollback, "_thr"_qs), 1);
    QCOMPARE(stub().count(StubCall::Commit, "_thr"_qs), 1);
    // Only the worker does so: the main connection's driver was asked to begin twice.
    QCOMPARE(stub().count(StubCall::Rollback), 1);
}

void TestExecThread::commandWithoutATransactionIsTrue_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("commit") << "commit"_qs;
    QTest::newRow("rollback") << "rollback"_qs;
}

void TestExecThread::commandWithoutATransactionIsTrue()
{
    QFETCH(QString, command);
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.start_thread(); db.%1();"_qs.arg(command));
    QVERIFY(waitForAnswers(1));
    QCOMPARE(json("[finished[0][0], finished[0][3]]"_qs), "[true,true]"_qs);
    QCOMPARE(
        stub().count(StubCall::Commit, "_thr"_qs) + stub().count(StubCall::Rollback, "_thr"_qs), 0);
}

void TestExecThread::failedCommandOfTheThreadTellsItsOutcome_data()
{
    QTest::addColumn<QString>("commands");
    QTest::addColumn<QString>("outcomes");
    QTest::newRow("transaction") << "db.transaction()"_qs
                                 << "[false]"_qs;
    QTest::newRow("commit") << "db.transaction(); db.commit()"_qs
                            << "[true,false]"_qs;
    QTest::newRow("rollback") << "db.transaction(); db.rollback()"_qs
                              << "[true,false]"_qs;
    QTest::newRow("commit ends the transaction all the same")
        << "db.transaction(); db.commit(); db.commit()"_qs
        << "[true,false,true]"_qs;
}

void TestExecThread::failedCommandOfTheThreadTellsItsOutcome()
{
    QFETCH(QString, commands);
    QFETCH(QString, outcomes);
    openStub("STUB"_qs);
    const QSqlError error = stubError(QSqlError::TransactionError, "no"_qs);
    const bool beginFails = outcomes == "[false]"_qs;
    if (beginFails)
        stub().fail(StubCall::Begin, error, StubWhere::connection("_thr"_qs));
    stub().fail(StubCall::Commit, error, StubWhere::connection("_thr"_qs));
    stub().fail(StubCall::Rollback, error, StubWhere::connection("_thr"_qs));
    recordAnswers();
    eval("db.start_thread(); %1;"_qs.arg(commands));
    QVERIFY(waitForAnswers(outcomes.count(QLatin1Char(',')) + 1));
    QCOMPARE(json("finished.map(function(f) { return f[0]; })"_qs), outcomes);
    QVERIFY(truth("finished.every(function(f) { return f[3] === true; })"_qs));
}

void TestExecThread::failedCommandOfTheMainConnectionQueuesNothing_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("transaction") << "transaction"_qs;
    QTest::newRow("commit") << "commit"_qs;
    QTest::newRow("rollback") << "rollback"_qs;
}

void TestExecThread::failedCommandOfTheMainConnectionQueuesNothing()
{
    QFETCH(QString, command);
    openStub("STUB"_qs);
    const QSqlError error = stubError(QSqlError::TransactionError, "no"_qs);
    for (const StubCall::What what : {StubCall::Begin, StubCall::Commit, StubCall::Rollback})
        stub().fail(what, error);
    recordAnswers();
    QVERIFY(truth("db.start_thread() && db.%1() === false"_qs.arg(command)));
    eval("db.query_thread('s1', record)"_qs);
    QVERIFY(waitForAnswers(1));
    QVERIFY(truth("finished.length === 0"_qs));
}

void TestExecThread::commandsNeedAnOpenConnectionWithTransactions_data()
{
    QTest::addColumn<QString>("command");
    QTest::newRow("transaction") << "transaction"_qs;
    QTest::newRow("commit") << "commit"_qs;
    QTest::newRow("rollback") << "rollback"_qs;
}

void TestExecThread::commandsNeedAnOpenConnectionWithTransactions()
{
    QFETCH(QString, command);
    QVERIFY(truth("new VEXT_SQL().%1() === false"_qs.arg(command)));
    openStub("STUB"_qs).setFeature(QSqlDriver::Transactions, false);
    QVERIFY(truth("db.%1() === false"_qs.arg(command)));
    stub().setFeature(QSqlDriver::Transactions, true);
    QVERIFY(truth("db.%1() === true"_qs.arg(command)));
    eval("db.close();"_qs);
    QVERIFY(truth("db.%1() === false"_qs.arg(command)));
}

void TestExecThread::openTransactionIsRolledBackAtTheEnd()
{
    openStub("STUB"_qs);
    recordAnswers();
    eval("db.start_thread(); db.transaction(); db.query_thread('s1', record);"_qs);
    QVERIFY(waitForAnswers(2));
    eval("db.stop_thread(60000);"_qs);
    QCOMPARE(stub().count(StubCall::Rollback, "_thr"_qs), 1);
    QCOMPARE(stub().count(StubCall::Close, "_thr"_qs), 1);
}

void TestExecThread::transactionThatFailedIsNotRolledBack()
{
    openStub("STUB"_qs);
    stub().fail(StubCall::Begin, stubError(QSqlError::TransactionError, "no"_qs),
                StubWhere::connection("_thr"_qs));
    recordAnswers();
    eval("db.start_thread(); db.transaction(); db.transaction();"_qs);
    QVERIFY(waitForAnswers(2));
    eval("db.stop_thread(60000);"_qs);
    QCOMPARE(stub().count(StubCall::Rollback, "_thr"_qs), 0);
}

void TestExecThread::sqliteFollowsCommitAndRollback()
{
    openSqlite();
    eval("db.query('create table t(id)');"_qs);
    recordAnswers();
    // A transaction on both connections of one file: only the worker's writes.
    eval("db.start_thread(); db.transaction();"
         "db.query_thread('insert into t values(1)', record); db.commit();"
         "db.transaction(); db.query_thread('insert into t values(2)', record); db.rollback();"
         "db.query_thread('select * from t', record);"_qs);
    QVERIFY(waitForAnswers(7));
    QCOMPARE(json("answers[2][0].id"_qs), "[1]"_qs);
}

QTEST_GUILESS_MAIN(TestExecThread)
#include "test_exec_thread.moc"
