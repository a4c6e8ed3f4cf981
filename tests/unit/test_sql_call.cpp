// How the arguments of query_thread and exec_thread become a task, call by call.
#include "deadline.h"
#include "script_variant.h"
#include "vext_sql_call.h"

#include <QElapsedTimer>
#include <QScriptValueIterator>
#include <QtTest>

#include <memory>

using SqlCall::Function;
using SqlCall::Refusal;

namespace
{

const QString QueryUsage =
    QStringLiteral("использовать как db.query_thread(sql)  or  db.query_thread(func, sql)  or  "
                   "db.query_thread(ctx, func, sql)");
const QString ExecUsage =
    QStringLiteral("использовать как db.exec_thread(sql, arg[])  or  db.exec_thread(func, sql, "
                   "arg[])  or  db.exec_thread(ctx, func, sql, arg[], args[])");

QList<QVariantList> lists(const QList<QVariantList> &values)
{
    return values;
}

} // namespace

class TestSqlCall : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void usageNamesTheCallForms();
    void oneStatement();
    void listOfStatements();
    void containersAreLeftToCompletion();
    void orderOfFunctionAndStatementIsFree();
    void callbackGetsItsThisObject();
    void secondFunctionBecomesTheThisObject();
    void regularExpressionIsAFunction();
    void extraArgumentsFollow();
    void extraArgumentsEndAtTheFirstOtherName();
    void onlyTheFirstExtraArrayCounts();
    void emptyStatementListIsQueued_data();
    void emptyStatementListIsQueued();
    void otherValuesAreIgnored();
    void singleObjectIsNotValidated();

    void execBindsItsArray();
    void execBindsEachStatementsArray();
    void execKeepsAOneStatementListWhole();
    void execPassesExtraArguments();
    void execTakesEveryIntegerName();
    void execWithoutArguments();
    void execEmptyArrayLeavesRoomForTheNext();
    void execEmptyListsThenAStatement();
    void execConvertsEveryKindOfValue();

    void refusals_data();
    void refusals();
    void refusalTellsTheElementsType_data();
    void refusalTellsTheElementsType();
    void wrappedStringIsAStatement();
    void stringsWithNulStayWhole();

    void throwingGetterEndsTheSorting_data();
    void throwingGetterEndsTheSorting();
    void nothingRunsBehindAThrowingGetter();
    void nameWithoutAValueIsUndefined();
    void caughtExceptionOfAGetterIsNone();
    void earlierExceptionDoesNotRefuse();
    void getterRunsOnceAValue();

    void hugeSparseArrayIsQuick_data();
    void hugeSparseArrayIsQuick();
    void hostileArgumentIsRefused_data();
    void hostileArgumentIsRefused();
    void cyclesConvertAsTheEngineDoes();
    void valuesAtTheBoundsAreConverted();
    void thousandsOfStatementsAndValues();
    void taskMayOutliveTheEngine();

private:
    static QScriptValue native(Function function, QScriptContext *context, QScriptEngine *engine,
                               void *test);
    static QScriptValue query(QScriptContext *context, QScriptEngine *engine, void *test)
    {
        return native(Function::Query, context, engine, test);
    }
    static QScriptValue exec(QScriptContext *context, QScriptEngine *engine, void *test)
    {
        return native(Function::Exec, context, engine, test);
    }
    QScriptValue run(const char *script);
    bool queues(const char *script);
    QVariantList extra() const;

    std::unique_ptr<QScriptEngine> m_engine;
    std::unique_ptr<structThrSql> m_task;
    Refusal m_refusal;
    int m_calls = 0;
};

void TestSqlCall::init()
{
    m_engine = std::make_unique<QScriptEngine>();
    QScriptValue global = m_engine->globalObject();
    global.setProperty(QStringLiteral("query"), m_engine->newFunction(query, this));
    global.setProperty(QStringLiteral("exec"), m_engine->newFunction(exec, this));
    global.setProperty(QStringLiteral("qobject"), m_engine->newQObject(this));
    global.setProperty(QStringLiteral("variantText"),
                       m_engine->newVariant(QVariant(QStringLiteral("wrapped"))));
    global.setProperty(QStringLiteral("bytes"), m_engine->newVariant(QByteArray("\0\1", 2)));
    global.setProperty(QStringLiteral("variantList"), m_engine->newVariant(QVariantList{1, 2}));
    global.setProperty(QStringLiteral("emptyList"), m_engine->newVariant(QVariantList{}));
    m_refusal = Refusal();
    m_calls = 0;
}

void TestSqlCall::cleanup()
{
    m_task.reset();
    m_engine.reset();
}

/// A native function as the connection object has: it raises what the sorting refuses.
QScriptValue TestSqlCall::native(Function function, QScriptContext *context, QScriptEngine *engine,
                                 void *test)
{
    auto *self = static_cast<TestSqlCall *>(test);
    ++self->m_calls;
    self->m_task.reset(SqlCall::makeTask(function, context, engine, self->m_refusal));
    if (self->m_task)
        return true;
    if (!self->m_refusal.scriptException)
        context->throwError(QScriptContext::TypeError, self->m_refusal.text);
    return false;
}

QScriptValue TestSqlCall::run(const char *script)
{
    m_task.reset();
    m_engine->clearExceptions();
    return m_engine->evaluate(QString::fromUtf8(script));
}

bool TestSqlCall::queues(const char *script)
{
    const int before = m_calls;
    const QScriptValue value = run(script);
    const bool queued = m_calls == before + 1 && m_task && value.isBool() && value.toBool();
    if (!queued)
        qWarning("%s: %s", script, qPrintable(value.toString()));
    return queued;
}

QVariantList TestSqlCall::extra() const
{
    QVariantList values;
    for (const QScriptValue &value : qAsConst(m_task->callArgs))
        values << value.toVariant();
    return values;
}

void TestSqlCall::usageNamesTheCallForms()
{
    QCOMPARE(SqlCall::usageText(Function::Query), QueryUsage);
    QCOMPARE(SqlCall::usageText(Function::Exec), ExecUsage);
}

void TestSqlCall::oneStatement()
{
    QVERIFY(queues("query('select 1')"));
    QCOMPARE(m_task->sqlList, QStringList{QStringLiteral("select 1")});
    QVERIFY(!m_task->isProc);
    QVERIFY(!m_task->func.isValid());
    QVERIFY(!m_task->thisObject.isValid());
    QVERIFY(m_task->callArgs.isEmpty());
    QVERIFY(m_task->procArgs.isEmpty());
    QVERIFY(m_task->argsJs.isEmpty());
    QCOMPARE(m_task->type, taskSql);
    QVERIFY(!m_task->inThread && !m_task->failed && !m_task->ok);
}

void TestSqlCall::listOfStatements()
{
    QVERIFY(queues("query(['select 1', 'select 2', ''])"));
    QCOMPARE(m_task->sqlList,
             (QStringList{QStringLiteral("select 1"), QStringLiteral("select 2"), QString()}));
}

// They are made at completion, so that queued tasks stay small.
void TestSqlCall::containersAreLeftToCompletion()
{
    for (const char *script :
         {"query('a')", "query(['a', 'b'])", "exec('a', [1])", "exec(['a', 'b'], [[1], [2]])"}) {
        QVERIFY(queues(script));
        QVERIFY(m_task->result.isBool() && !m_task->result.toBool());
        QVERIFY(m_task->error.isBool() && !m_task->error.toBool());
    }
}

void TestSqlCall::orderOfFunctionAndStatementIsFree()
{
    for (const char *script : {"query(function() { return 7 }, 'select 1')",
                               "query('select 1', function() { return 7 })",
                               "query(['select 1'], function() { return 7 })"}) {
        QVERIFY(queues(script));
        QCOMPARE(m_task->sqlList, QStringList{QStringLiteral("select 1")});
        QCOMPARE(m_task->func.call().toInt32(), 7);
        QVERIFY(!m_task->thisObject.isValid());
    }
}

void TestSqlCall::callbackGetsItsThisObject()
{
    for (const char *script : {"query({n: 5}, function() { return this.n }, 'select 1')",
                               "query(function() { return this.n }, {n: 5}, 'select 1')",
                               "query('select 1', {n: 5}, function() { return this.n }, {n: 6})"}) {
        QVERIFY(queues(script));
        QCOMPARE(m_task->func.call(m_task->thisObject).toInt32(), 5);
    }
}

void TestSqlCall::secondFunctionBecomesTheThisObject()
{
    QVERIFY(queues("query(function() { return 1 }, function() { return 2 }, 'select 1')"));
    QCOMPARE(m_task->func.call().toInt32(), 1);
    QCOMPARE(m_task->thisObject.call().toInt32(), 2);
}

// The engine lets regular expressions be called.
void TestSqlCall::regularExpressionIsAFunction()
{
    QVERIFY(queues("query({}, /x/, 'select 1')"));
    QVERIFY(m_task->func.isRegExp());
    QVERIFY(m_task->func.isFunction());
}

void TestSqlCall::extraArgumentsFollow()
{
    QVERIFY(queues("query(function() {}, 'select 1', [1, 'a'])"));
    QCOMPARE(extra(), (QVariantList{1, QStringLiteral("a")}));
    QVERIFY(queues("query('select 1', [undefined, null, {}])"));
    QCOMPARE(m_task->callArgs.size(), 3);
    QVERIFY(m_task->callArgs.at(0).isUndefined());
    QVERIFY(m_task->callArgs.at(1).isNull());
    QVERIFY(m_task->callArgs.at(2).isObject());
}

void TestSqlCall::extraArgumentsEndAtTheFirstOtherName()
{
    QVERIFY(queues("var a = [1, , 3]; a.name = 4; a[-7] = 5; query('select 1', a)"));
    QCOMPARE(extra(), (QVariantList{1, 3}));
}

void TestSqlCall::onlyTheFirstExtraArrayCounts()
{
    QVERIFY(queues("query('select 1', [1], [2])"));
    QCOMPARE(extra(), QVariantList{1});
    QVERIFY(queues("query('select 1', [], [2], [3])"));
    QCOMPARE(extra(), QVariantList{2});
}

void TestSqlCall::emptyStatementListIsQueued_data()
{
    QTest::addColumn<QByteArray>("script");
    for (const char *script : {"query(5)", "query(null)", "query(undefined)", "query([])",
                               "query([], [])", "query(function() {})", "query(true, NaN)",
                               "exec(5)", "exec([], [])", "exec(function() {}, 1, 2)"})
        QTest::newRow(script) << QByteArray(script);
}

void TestSqlCall::emptyStatementListIsQueued()
{
    QFETCH(QByteArray, script);
    QVERIFY(queues(script));
    QVERIFY(m_task->sqlList.isEmpty());
    QVERIFY(m_task->procArgs.isEmpty());
    QVERIFY(m_task->callArgs.isEmpty());
}

void TestSqlCall::otherValuesAreIgnored()
{
    QVERIFY(queues("query(1, 'select 1', 'select 2', null, true)"));
    QCOMPARE(m_task->sqlList, QStringList{QStringLiteral("select 1")});
    QVERIFY(!m_task->func.isValid());
    QVERIFY(!m_task->thisObject.isValid());
    QVERIFY(queues("query('select 1', ['select 2'])"));
    QCOMPARE(m_task->sqlList.size(), 1);
    QCOMPARE(extra(), QVariantList{QStringLiteral("select 2")});
}

void TestSqlCall::singleObjectIsNotValidated()
{
    for (const char *script : {"query({})", "exec({})", "query(new Date())", "query(qobject)",
                               "query(new String('select 1'))"}) {
        QVERIFY(queues(script));
        QVERIFY(m_task->sqlList.isEmpty());
        QVERIFY(m_task->thisObject.isObject());
        QVERIFY(!m_task->func.isValid());
    }
}

void TestSqlCall::execBindsItsArray()
{
    QVERIFY(queues("exec('insert into t values(?, ?)', [1, 'a'])"));
    QCOMPARE(m_task->sqlList, QStringList{QStringLiteral("insert into t values(?, ?)")});
    QVERIFY(m_task->isProc);
    QCOMPARE(m_task->procArgs, lists({{1, QStringLiteral("a")}}));
    QCOMPARE(m_task->argsJs.size(), 2);
    QCOMPARE(m_task->argsJs.at(1).toString(), QStringLiteral("a"));
    QVERIFY(m_task->callArgs.isEmpty());
}

void TestSqlCall::execBindsEachStatementsArray()
{
    QVERIFY(queues("exec(['insert into t values(?)', 'delete from t where id = ?'], [[1], [2]])"));
    QCOMPARE(m_task->sqlList.size(), 2);
    QCOMPARE(m_task->procArgs, lists({{1}, {2}}));
    QCOMPARE(m_task->argsJs.size(), 2);
    QVERIFY(m_task->argsJs.at(0).isArray());
    QVERIFY(queues("exec(['a', 'b'], [[1, 'x'], variantList], [9], function() {})"));
    QCOMPARE(m_task->procArgs, lists({{1, QStringLiteral("x")}, {1, 2}}));
    QCOMPARE(extra(), QVariantList{9});
    QVERIFY(m_task->func.isFunction());
}

void TestSqlCall::execKeepsAOneStatementListWhole()
{
    QVERIFY(queues("exec(['s1'], [[1, 2]], [3])"));
    QCOMPARE(m_task->procArgs, lists({{QVariant(QVariantList{1, 2})}}));
    QCOMPARE(extra(), QVariantList{3});
}

void TestSqlCall::execPassesExtraArguments()
{
    QVERIFY(queues("exec(function() { return 7 }, 's1', [1], [7, 8])"));
    QCOMPARE(m_task->func.call().toInt32(), 7);
    QCOMPARE(m_task->procArgs, lists({{1}}));
    QCOMPARE(extra(), (QVariantList{7, 8}));
    QVERIFY(queues("exec({n: 3}, function() { return this.n }, 's1', [1], [7])"));
    QCOMPARE(m_task->func.call(m_task->thisObject).toInt32(), 3);
    QCOMPARE(extra(), QVariantList{7});
}

void TestSqlCall::execTakesEveryIntegerName()
{
    QVERIFY(queues("var a = [1, , 3]; a.name = 4; a[-7] = 5; a['1.5'] = 6; a['0x1'] = 7;"
                   "exec('s1', a, a)"));
    QCOMPARE(m_task->procArgs, lists({{1, 3, 5}}));
    QCOMPARE(extra(), (QVariantList{1, 3, 5}));
}

void TestSqlCall::execWithoutArguments()
{
    QVERIFY(queues("exec('s1')"));
    QCOMPARE(m_task->procArgs, lists({{}}));
    QVERIFY(m_task->argsJs.isEmpty());
}

void TestSqlCall::execEmptyArrayLeavesRoomForTheNext()
{
    QVERIFY(queues("exec('s1', [], [1], [2])"));
    QCOMPARE(m_task->procArgs, lists({{1}}));
    QCOMPARE(extra(), QVariantList{2});
}

void TestSqlCall::execEmptyListsThenAStatement()
{
    QVERIFY(queues("exec([], [], 's1', [1])"));
    QCOMPARE(m_task->sqlList, QStringList{QStringLiteral("s1")});
    QCOMPARE(m_task->procArgs, lists({{1}}));
    QVERIFY(queues("exec([], [], ['s1', 's2'], [[1], [2]], [3])"));
    QCOMPARE(m_task->procArgs, lists({{1}, {2}}));
    QCOMPARE(extra(), QVariantList{3});
}

void TestSqlCall::execConvertsEveryKindOfValue()
{
    QVERIFY(queues("exec('s', [1, 1.5, NaN, 'x', true, null, undefined, new Date(86400000), /x/, "
                   "bytes, variantText, qobject, [1, [2]], {a: 1, b: 'c'}])"));
    const QVariantList values = m_task->procArgs.first();
    QCOMPARE(m_task->argsJs.size(), values.size());
    for (int i = 0; i < values.size(); ++i) {
        const QVariant expected = m_task->argsJs.at(i).toVariant();
        QCOMPARE(values.at(i).userType(), expected.userType());
        QCOMPARE(values.at(i).isNull(), expected.isNull());
        if (i != 2) // not a number equals nothing
            QCOMPARE(values.at(i), expected);
    }
    QCOMPARE(values.at(0).userType(), int(QMetaType::Int));
    QVERIFY(qIsNaN(values.at(2).toDouble()));
    QVERIFY(!values.at(5).isValid());
    QVERIFY(!values.at(6).isValid());
    QCOMPARE(values.at(7).userType(), int(QMetaType::QDateTime));
    QCOMPARE(values.at(9), QVariant(QByteArray("\0\1", 2)));
    QCOMPARE(values.at(12), QVariant(QVariantList{1, QVariantList{2}}));
    QCOMPARE(values.at(13), QVariant(QVariantMap{{QStringLiteral("a"), 1},
                                                 {QStringLiteral("b"), QStringLiteral("c")}}));
}

void TestSqlCall::refusals_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("line");
    QTest::addColumn<QString>("log");
    const auto row = [](const char *script, const QString &text, int line, const char *log) {
        QTest::newRow(script) << QByteArray(script) << text << line << QString::fromUtf8(log);
    };
    const char *noCallback = "funcs and context validate: obj.isObject() true : fnc.isObject() "
                             "false : fnc.isFunction() false";

    row("query()", QueryUsage, 230, "aCount 0");
    row("query('select 1', 1, 2, 3, 4, 5)", QueryUsage, 230, "aCount 6");
    row("query('select 1', function() {}, {}, [1], [2], [3])", QueryUsage, 230, "aCount 6");
    row("query(['select 1', 5])", QueryUsage, 247, "type 2 int");
    row("query(function() {}, ['select 1', 5])", QueryUsage, 247, "type 2 int");
    row("query({}, 'select 1')", QueryUsage, 312, noCallback);
    row("query('select 1', {})", QueryUsage, 312, noCallback);
    row("query({}, 5)", QueryUsage, 312, noCallback);
    row("query('select 1', new Date(), [1])", QueryUsage, 312, noCallback);
    row("query('select 1', qobject)", QueryUsage, 312, noCallback);

    row("exec()", ExecUsage, 360, "aCount 0");
    row("exec('s1', [1], [2], [3], [4], [5])", ExecUsage, 360, "aCount 6");
    row("exec(['s1', null], [[1], [2]])", ExecUsage, 377, "type 0");
    row("exec(['s1', ['s2']], [[1], [2]])", ExecUsage, 377, "type 9 QVariantList");
    row("exec(['s1', 's2'])", ExecUsage, 0, "");
    row("exec(['s1', 's2'], 5)", ExecUsage, 0, "");
    row("exec(['s1', 's2'], {0: [1], 1: [2], length: 2})", ExecUsage, 0, "");
    row("exec(['s1', 's2'], function() {}, [[1], [2]])", ExecUsage, 0, "");
    row("exec(['s1', 's2'], variantList)", ExecUsage, 0, "");
    row("exec([])", ExecUsage, 0, "");
    row("exec({}, 's1', [1])", ExecUsage, 455, noCallback);
    row("exec({}, ['s1'], [[1]])", ExecUsage, 455, noCallback);

    const QString count =
        QStringLiteral("количество аргументов не соответствует количеству запросов: "
                       "db.exec_thread(['%1'], [[arg1], ...])");
    const QString s1s2 = QStringLiteral("s1','s2");
    row("exec(['s1', 's2'], [[1]])", count.arg(s1s2), 0, "");
    row("exec(['s1', 's2'], [])", count.arg(s1s2), 0, "");
    row("exec(['s1', 's2'], [[1], , [2], [3]])", count.arg(s1s2), 0, "");
    row("exec(['s1'], [[1], [2]])", count.arg(QStringLiteral("s1")), 0, "");
    row("exec([], [[1]])", count.arg(QString()), 0, "");

    const QString arrays = QStringLiteral("каждому запросу необходим массив аргументов: "
                                          "db.exec_thread(['%1'], [[arg1, ...], ...])");
    row("exec(['s1', 's2'], [[1], []])", arrays.arg(s1s2), 407, "type 9 QVariantList");
    row("exec(['s1', 's2'], [[1], 5])", arrays.arg(s1s2), 407, "type 2 int");
    row("exec(['s1', 's2'], ['x', [1]])", arrays.arg(s1s2), 407, "type 10 QString");
    row("exec(['s1'], [{}])", arrays.arg(QStringLiteral("s1")), 407, "type 8 QVariantMap");
    row("exec(['s1'], [null])", arrays.arg(QStringLiteral("s1")), 407, "type 0");
    row("exec(['s1'], [emptyList])", arrays.arg(QStringLiteral("s1")), 407, "type 9 QVariantList");
    row("exec(['s%1', '%2'], [[1], []])", arrays.arg(QStringLiteral("s%1','%2")), 407,
        "type 9 QVariantList");
}

void TestSqlCall::refusals()
{
    QFETCH(QByteArray, script);
    const QScriptValue error = run(script);
    QCOMPARE(m_calls, 1);
    QVERIFY(!m_task);
    QVERIFY(!m_refusal.scriptException);
    QTEST(m_refusal.text, "text");
    QTEST(m_refusal.logLine, "line");
    QTEST(m_refusal.logText, "log");
    QCOMPARE(error.toString(), QStringLiteral("TypeError: ") + m_refusal.text);
}

void TestSqlCall::refusalTellsTheElementsType_data()
{
    QTest::addColumn<QByteArray>("element");
    QTest::addColumn<QString>("log");
    const auto row = [](const char *element, const char *log) {
        QTest::newRow(element) << QByteArray(element) << QString::fromLatin1(log);
    };
    row("5", "type 2 int");
    row("5.5", "type 6 double");
    row("NaN", "type 6 double");
    row("true", "type 1 bool");
    row("null", "type 0");
    row("undefined", "type 0");
    row("", "type 0"); // a hole
    row("[]", "type 9 QVariantList");
    row("['select 2']", "type 9 QVariantList");
    row("{}", "type 8 QVariantMap");
    row("new String('select 2')", "type 8 QVariantMap");
    row("function() {}", "type 8 QVariantMap");
    row("new Date(0)", "type 16 QDateTime");
    row("/x/", "type 27 QRegExp");
    row("bytes", "type 12 QByteArray");
    row("qobject", "type 39 QObject*");
}

void TestSqlCall::refusalTellsTheElementsType()
{
    QFETCH(QByteArray, element);
    for (const char *function : {"query", "exec"}) {
        run(function + QByteArray("(['select 1', ") + element + ", 'select 3'])");
        QVERIFY(!m_task);
        QTEST(m_refusal.logText, "log");
    }
}

void TestSqlCall::wrappedStringIsAStatement()
{
    QVERIFY(queues("query(['select 1', variantText])"));
    QCOMPARE(m_task->sqlList.last(), QStringLiteral("wrapped"));
}

void TestSqlCall::stringsWithNulStayWhole()
{
    QVERIFY(queues("exec('a\\0b', ['c\\0d', '\\0'], ['e\\0'])"));
    const QChar nul(0);
    const QString statement = QLatin1Char('a') + QString(nul) + QLatin1Char('b');
    QCOMPARE(m_task->sqlList, QStringList{statement});
    QCOMPARE(m_task->procArgs.first().first().toString().size(), 3);
    QCOMPARE(m_task->procArgs.first().last().toString(), QString(nul));
    QCOMPARE(extra().first().toString().size(), 2);
    QVERIFY(queues("query(['a\\0b'])"));
    QCOMPARE(m_task->sqlList, QStringList{statement});
}

// Arrays ignore getters at their indexes; names beyond them and objects inside do not.
void TestSqlCall::throwingGetterEndsTheSorting_data()
{
    QTest::addColumn<QByteArray>("script");
    for (const char *script :
         {"exec('s', bad('-5', []))", "exec('s', [1], bad('-5', []))", "exec('s', [bad('x', {})])",
          "exec('s', [[[bad('x', {})]]])", "exec(['s'], bad('-1', []))",
          "exec(['a', 'b'], [[1], [bad('x', {})]])", "exec('s', [bad('x', function() {})])",
          "query(bad('0', new Array(1)))", "exec(bad('0', new Array(1)), [[1]])"})
        QTest::newRow(script) << QByteArray(script);
}

void TestSqlCall::throwingGetterEndsTheSorting()
{
    QFETCH(QByteArray, script);
    run("function bad(name, holder) {"
        "  holder.__defineGetter__(name, function() { throw new Error('from the getter') });"
        "  return holder;"
        "}");

    const QScriptValue error = run(script);

    QCOMPARE(m_calls, 1);
    QVERIFY(!m_task);
    QVERIFY(m_refusal.scriptException);
    QCOMPARE(m_refusal.logLine, 0);
    QVERIFY(m_refusal.text.isEmpty());
    QCOMPARE(error.toString(), QStringLiteral("Error: from the getter"));
}

void TestSqlCall::nothingRunsBehindAThrowingGetter()
{
    run("var later = 0, o = {};"
        "o.__defineGetter__('a', function() { throw 5 });"
        "o.__defineGetter__('b', function() { ++later });"
        "exec('s', [o, o])");
    QVERIFY(m_refusal.scriptException);
    QCOMPARE(m_engine->globalObject().property(QStringLiteral("later")).toInt32(), 0);
}

// The engine lists a getter at an index among an array's names, and never runs it.
void TestSqlCall::nameWithoutAValueIsUndefined()
{
    QVERIFY(queues("var a = [1]; a.__defineGetter__(1, function() { return 2 }); exec('s', a, a)"));
    QCOMPARE(m_task->argsJs.size(), 2);
    QVERIFY(m_task->argsJs.last().isUndefined());
    QVERIFY(m_task->callArgs.last().isUndefined());
    QCOMPARE(m_task->procArgs, lists({{1, QVariant()}}));
}

void TestSqlCall::caughtExceptionOfAGetterIsNone()
{
    QVERIFY(queues("var o = {};"
                   "o.__defineGetter__('x', function() { try { throw 1 } catch (e) { return 5 } });"
                   "exec('s', [o])"));
    QCOMPARE(m_task->procArgs.first().first().toMap().value(QStringLiteral("x")).toInt(), 5);
}

void TestSqlCall::earlierExceptionDoesNotRefuse()
{
    QScriptValue call = m_engine->evaluate(QStringLiteral(
        "(function() { return exec(['a', 'b'], [[1], [{x: 1}]], [2]) && query(['a'], [1]) })"));
    m_engine->evaluate(QStringLiteral("throw 5"));
    QVERIFY(m_engine->hasUncaughtException());

    QVERIFY(call.call().toBool());
    QCOMPARE(m_calls, 2);
    QVERIFY(queues("try { throw 6 } catch (e) { exec('s', [1]) }"));
    run("try { throw 7 } finally { exec('s', [[1]]) }");
    QVERIFY(m_task);
}

// One conversion a value: what was checked is what the worker gets.
void TestSqlCall::getterRunsOnceAValue()
{
    QVERIFY(queues("var n = 0, o = {}; o.__defineGetter__('x', function() { return ++n });"
                   "exec(['a', 'b'], [[o], [1]])"));
    QCOMPARE(m_engine->globalObject().property(QStringLiteral("n")).toInt32(), 1);
    QCOMPARE(m_task->procArgs.first().first().toMap().first(), QVariant(1));
}

void TestSqlCall::hugeSparseArrayIsQuick_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<bool>("queued");
    QTest::addColumn<QVariantList>("callArgs");
    const char *sparse = "var a = ['x']; a[4294967294] = 'y'; a.length == 4294967295 || fail; ";
    const auto row = [sparse](const char *call, bool queued, const QVariantList &callArgs = {}) {
        QTest::newRow(call) << sparse + QByteArray(call) << queued << callArgs;
    };
    const QVariantList both{QStringLiteral("x"), QStringLiteral("y")};
    row("query(a)", false);
    row("query(['s', a])", false);
    row("query(['s', {x: a}])", false);
    row("query('s', a)", true, both);
    row("exec(a, [[1], [2]])", false);
    row("exec('s', [1], a)", true, both);
    row("exec('s', a)", true);
    row("exec(['s', 't'], a)", false);
    row("exec('s', [1], [a])", true, QVariantList{QVariant()});
    row("exec('s', new Array(4294967295), [1])", true);
}

void TestSqlCall::hugeSparseArrayIsQuick()
{
    QFETCH(QByteArray, script);
    QFETCH(bool, queued);
    QFETCH(QVariantList, callArgs);
    QElapsedTimer timer;
    timer.start();

    run(script);

    QVERIFY2(timer.elapsed() < scaledMs(5000), "walked the gaps");
    QCOMPARE(m_calls, 1);
    QCOMPARE(bool(m_task), queued);
    if (!queued)
        return;
    QCOMPARE(m_task->callArgs.size(), callArgs.size());
    if (!callArgs.isEmpty() && callArgs.first().isValid())
        QCOMPARE(extra(), callArgs);
}

// None of these may hang, run out of memory or of stack.
void TestSqlCall::hostileArgumentIsRefused_data()
{
    QTest::addColumn<QByteArray>("script");
    const auto row = [](const char *name, const char *script) {
        QTest::newRow(name) << QByteArray(script);
    };
    row("sparse inside", "var a = []; a.length = 4294967295; exec('s', [a])");
    row("more than fits", "var a = []; a.length = 2000000000; exec('s', [a])");
    row("sparse in a list", "var a = []; a[4294967294] = 1; exec(['s', 't'], [[1], [a]])");
    row("sparse in an object", "var a = []; a[4294967294] = 1; exec('s', [{x: a}])");
    row("deep", "var a = []; for (var i = 0; i < 300000; ++i) a = [a]; exec('s', [a])");
    row("deep objects", "var a = {}; for (var i = 0; i < 300000; ++i) a = {a: a}; exec('s', [a])");
    row("deep functions", "var a = {}; for (var i = 0; i < 100000; ++i) {"
                          "var f = function() {}; f.a = a; a = f } exec('s', [a])");
    row("named in many ways", "var a = [1, 2]; for (var i = 0; i < 60; ++i) a = [a, a];"
                              "exec('s', [a])");
    row("names each other", "var all = []; for (var i = 0; i < 30; ++i) all.push({});"
                            "for (i in all) for (var j in all) all[i]['p' + j] = all[j];"
                            "exec('s', [all[0]])");
    row("endless getter", "function next() { var o = {}; o.__defineGetter__('x', next); return o }"
                          "exec('s', [next()])");
}

void TestSqlCall::hostileArgumentIsRefused()
{
    QFETCH(QByteArray, script);
    QElapsedTimer timer;
    timer.start();

    const QScriptValue error = run(script);

    QCOMPARE(m_calls, 1);
    QVERIFY(!m_task);
    QCOMPARE(m_refusal.text, SqlCall::tooLargeText());
    QVERIFY(error.isError());
    QVERIFY2(timer.elapsed() < 60000, "far too slow");
}

void TestSqlCall::cyclesConvertAsTheEngineDoes()
{
    QVERIFY(queues("var a = [1], o = {n: 2, a: a}; a.push(a, o); o.o = o; exec('s', [a, o])"));
    for (int i = 0; i < 2; ++i)
        QCOMPARE(m_task->procArgs.first().at(i), m_task->argsJs.at(i).toVariant());
    const QVariantList list = m_task->procArgs.first().first().toList();
    QCOMPARE(list.at(1), QVariant(QVariantList{}));
    QCOMPARE(list.at(2).toMap().value(QStringLiteral("a")), QVariant(QVariantList{}));
    QVERIFY(queues("var l = [[1]]; l.push(l); exec(['a', 'b'], l)"));
    QCOMPARE(m_task->procArgs.last(), (QVariantList{QVariantList{1}, QVariantList{}}));
}

void TestSqlCall::valuesAtTheBoundsAreConverted()
{
    QVariant variant;
    const auto nested = [this](int depth) {
        return m_engine->evaluate(
            QStringLiteral("var a = 1; for (var i = 0; i < %1; ++i) a = [a]; a").arg(depth));
    };
    QVERIFY(
        ScriptVariant::convert(nested(ScriptVariant::MaxConvertedDepth), m_engine.get(), variant));
    QVERIFY(!ScriptVariant::convert(nested(ScriptVariant::MaxConvertedDepth + 1), m_engine.get(),
                                    variant));

    const auto counted = [this](int values) {
        return m_engine->evaluate(
            QStringLiteral("var a = []; for (var i = 0; i < %1; ++i) a.push(0); a").arg(values));
    };
    QVERIFY(ScriptVariant::convert(counted(ScriptVariant::MaxConvertedValues), m_engine.get(),
                                   variant));
    QCOMPARE(variant.toList().size(), ScriptVariant::MaxConvertedValues);
    QVERIFY(!ScriptVariant::convert(counted(ScriptVariant::MaxConvertedValues + 1), m_engine.get(),
                                    variant));
}

void TestSqlCall::thousandsOfStatementsAndValues()
{
    QVERIFY(queues("var s = []; for (var i = 0; i < 10000; ++i) s.push('select ' + i); query(s)"));
    QCOMPARE(m_task->sqlList.size(), 10000);
    QCOMPARE(m_task->sqlList.last(), QStringLiteral("select 9999"));
    QVERIFY(queues("var v = []; for (var i = 0; i < 20000; ++i) v.push(i); exec('s', v)"));
    QCOMPARE(m_task->procArgs.first().size(), 20000);
    QCOMPARE(m_task->procArgs.first().last(), QVariant(19999));
}

void TestSqlCall::taskMayOutliveTheEngine()
{
    QVERIFY(queues("exec({}, function() {}, 's', [[1]], [{}])"));
    m_engine.reset();
    QVERIFY(!m_task->func.isFunction());
    QCOMPARE(m_task->procArgs, lists({{QVariant(QVariantList{1})}}));
    m_task.reset();
}

QTEST_GUILESS_MAIN(TestSqlCall)
#include "test_sql_call.moc"
