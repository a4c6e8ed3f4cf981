/// @file
/// What once went wrong in the plugin: long columns with nulls, connections named like each other's
/// threads, scripts that take the connection away from below its functions, subscriptions renewed
/// inside a handler and results that a driver lost without a word.
#include "script_test.h"

#include <QEventLoop>
#include <QTimer>

#include <functional>

namespace
{

const QString stubName = QStringLiteral("QSTUB");

// --- Cells of a long column ---

using CellAt = std::function<QVariant(int row)>;

QVariant uniqueText(int row)
{
    return QStringLiteral("text number with some length to fill the block %1").arg(row);
}

QVariant nullText()
{
    return QVariant(QVariant::String);
}

/// Nulls before row `change`; behind it each text is another one, with nulls far from the others.
QVariant nullsThenUnique(int change, int row)
{
    if (row < change || (row > 4096 && row % 2 == 0))
        return nullText();
    return uniqueText(row);
}

/// Eight texts before row `change`, then each another one.
QVariant fewThenUnique(int change, int row)
{
    if (row < change)
        return QStringLiteral("one of eight %1").arg(row % 8);
    return row > 2 * change && row % 3 == 0 ? nullText() : uniqueText(row);
}

/// The same behind one null, which moves the row at which sharing texts is given up by one.
QVariant nullFewThenUnique(int change, int row)
{
    return row == 0 ? nullText() : fewThenUnique(change, row);
}

QVariant uniqueThenFew(int change, int row)
{
    if (row % 5 == 1)
        return nullText();
    return row < change ? uniqueText(row) : QVariant(QStringLiteral("few %1").arg(row % 3));
}

/// As many rows of nulls as of texts, in turn.
QVariant runsOfNulls(int length, int row)
{
    return (row / length) % 2 ? nullText() : uniqueText(row);
}

CellAt textCells(const QString &pattern, int change)
{
    using Pattern = QVariant (*)(int, int);
    Pattern found = &runsOfNulls;
    if (pattern == QLatin1String("nulls, unique"))
        found = &nullsThenUnique;
    else if (pattern == QLatin1String("few, unique"))
        found = &fewThenUnique;
    else if (pattern == QLatin1String("null, few, unique"))
        found = &nullFewThenUnique;
    else if (pattern == QLatin1String("unique, few"))
        found = &uniqueThenFew;
    return [found, change](int row) { return found(change, row); };
}

CellAt numberCells(QVariant::Type type, int nullEvery)
{
    return [type, nullEvery](int row) {
        QVariant cell(row % nullEvery == nullEvery / 2 ? QVariant(type) : QVariant(row * 3.0));
        cell.convert(int(type));
        return cell;
    };
}

/// Numbers, texts and times, none after a change of the clock; nulls without a type at the ends,
/// too.
CellAt mixedCells(int rows)
{
    return [rows](int row) {
        if (row % 7 == 0 || row == rows - 1)
            return QVariant();
        if (row % 7 == 1)
            return QVariant(QString::number(row));
        if (row % 7 < 4)
            return QVariant(row * 0.5);
        return QVariant(QDateTime(QDate(1995, 1, 1), QTime(0, 0)).addSecs(qint64(row) * 3660));
    };
}

struct Column {
    QString name;
    QVariant::Type type;
    CellAt cellAt;
};

StubReply reply(const QVector<Column> &columns, int rows)
{
    QVector<StubReply::Column> described;
    for (const Column &column : columns)
        described.append({column.name, column.type});
    return StubReply::generated(described, rows, [columns](int row) {
        QVariantList cells;
        for (const Column &column : columns)
            cells.append(column.cellAt(row));
        return cells;
    });
}

/// Whether a script value is what a cell reads as.
bool isRead(const QScriptValue &value, const QVariant &cell, bool enableNull)
{
    if (cell.isNull() && enableNull)
        return value.isNull();
    if (!cell.isValid())
        return !value.isValid(); // there is no such element
    if (cell.userType() == QMetaType::QDateTime)
        return value.isDate() && value.toDateTime() == cell.toDateTime();
    if (cell.userType() == QMetaType::QString)
        return value.isString() && value.toString() == cell.toString();
    return value.isNumber() && value.toNumber() == cell.toDouble();
}

/// The first cell of a result that is not as it should be; empty when all are right.
QString firstWrongCell(const QScriptValue &result, const QVector<Column> &columns, int rows,
                       bool enableNull)
{
    for (int c = 0; c < columns.size(); ++c) {
        const Column &column = columns.at(c);
        const QScriptValue values = result.property(column.name);
        const QScriptValue nulls =
            result.property(QStringLiteral("fields_nulls")).property(quint32(c));
        quint32 nullCount = 0;
        for (int row = 0; row < rows; ++row) {
            const QVariant cell = column.cellAt(row);
            const QScriptValue value = values.property(quint32(row));
            if (!isRead(value, cell, enableNull))
                return QStringLiteral("%1[%2]: '%3' for '%4'")
                    .arg(column.name, QString::number(row), value.toString(), cell.toString());
            if (cell.isNull() && nulls.property(nullCount++).toInt32() != row)
                return QStringLiteral("%1: null number %2").arg(column.name).arg(nullCount);
        }
        if (values.property(QStringLiteral("length")).toInt32() != rows)
            return column.name + QStringLiteral(": length");
        if (nulls.property(QStringLiteral("length")).toUInt32() != nullCount)
            return column.name + QStringLiteral(": number of nulls");
    }
    return QString();
}

// --- Functions for scripts ---

void runLoop()
{
    constexpr int Rounds = 10; // events which cause events
    int rounds = 0;
    QEventLoop loop;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, &loop, [&] {
        if (++rounds > Rounds)
            loop.quit();
    });
    timer.start(0);
    loop.exec();
}

/// Runs an event loop of its own, and handles the deferred deletions that it leaves because they
/// were asked for in an event of the outer one.
QScriptValue nest(QScriptContext *, QScriptEngine *engine)
{
    for (int i = 0; i < 2; ++i) {
        runLoop();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return engine->undefinedValue();
}

/// Deletes an object as a host may.
QScriptValue destroyNow(QScriptContext *context, QScriptEngine *)
{
    delete context->argument(0).toQObject();
    return QScriptValue();
}

/// An object of the host that goes at the end of the test or when destroyNow() is called.
QScriptValue newHostObject(QScriptContext *, QScriptEngine *engine)
{
    return engine->newQObject(new QObject(engine));
}

} // namespace

class TestRegressions : public ScriptTest
{
    Q_OBJECT

private Q_SLOTS:
    // long columns
    void everyTextOfALongColumnIsRight_data();
    void everyTextOfALongColumnIsRight();
    void everyNumberOfALongColumnIsRight_data();
    void everyNumberOfALongColumnIsRight();
    void everyCellOfALongMixedColumnIsRight_data();
    void everyCellOfALongMixedColumnIsRight();
    void columnsDoNotNeedTheScriptsPush_data();
    void columnsDoNotNeedTheScriptsPush();
    void columnsDoWithoutAnyPush();

    // names
    void connectionNamedLikeAThreadKeepsWorking_data();
    void connectionNamedLikeAThreadKeepsWorking();
    void connectionsNamedLikeEveryNameOfAThreadKeepWorking();
    void renamingWhileTheThreadStartsIsSafe();

    // a connection that is deleted below its own functions
    void connectionMayGoInScriptCodeBelowIt_data();
    void connectionMayGoInScriptCodeBelowIt();
    void argumentThatEndsTheConnectionQueuesNothing_data();
    void argumentThatEndsTheConnectionQueuesNothing();
    void resultOfADeletedObjectThrowsNothing_data();
    void resultOfADeletedObjectThrowsNothing();

    // notifications
    void handlerMayRenewItsSubscription_data();
    void handlerMayRenewItsSubscription();

    // results that the driver lost
    void lostResultIsAnError_data();
    void lostResultIsAnError();
    void statementWithoutAResultIsNoLoss_data();
    void statementWithoutAResultIsNoLoss();
    void firebirdIsNotReadForwardOnly();

private:
    void addFunctions();
    /// Asks for the columns with query() and query_thread(), nulls on and off.
    QString wrongCells(const QVector<Column> &columns, int rows);
    QScriptValue ask(const QString &how);
    /// The outcome of script code as text: its value, or the exception.
    QString outcome(const QString &code);
    void verifyUsable();
};

void TestRegressions::addFunctions()
{
    QScriptValue global = host().engine()->globalObject();
    global.setProperty("nest"_qs, host().engine()->newFunction(&nest));
    global.setProperty("destroyNow"_qs, host().engine()->newFunction(&destroyNow));
    global.setProperty("newHostObject"_qs, host().engine()->newFunction(&newHostObject));
}

QScriptValue TestRegressions::ask(const QString &how)
{
    if (how == QLatin1String("query"))
        return eval("db.query('select')"_qs);
    eval("var r = null; db.query_thread(function(answer) { r = answer; }, 'select')"_qs);
    return host().waitForScript("r !== null"_qs) ? host().global("r"_qs) : QScriptValue();
}

QString TestRegressions::wrongCells(const QVector<Column> &columns, int rows)
{
    stub().setDefaultReply(reply(columns, rows));
    for (const QString &how : {"query"_qs, "query_thread"_qs}) {
        for (const bool enableNull : {true, false}) {
            eval("db.enableNull = %1"_qs.arg(QVariant(enableNull).toString()));
            const QString wrong = firstWrongCell(ask(how), columns, rows, enableNull);
            if (!wrong.isEmpty())
                return "%1, enableNull %2: %3"_qs.arg(how).arg(enableNull).arg(wrong);
        }
    }
    return QString();
}

QString TestRegressions::outcome(const QString &code)
{
    const QString text = host().engine()->evaluate(code).toString();
    host().engine()->clearExceptions();
    return text;
}

void TestRegressions::verifyUsable()
{
    eval("db = new VEXT_SQL(); db.driverName = 'QSTUB'; answered = false"_qs);
    QVERIFY(truth("db.open() && db.query('select 1').a[0] === 1"_qs));
    QVERIFY(truth("db.query_thread(function(r) { answered = r.a[0] === 1 }, 'select 1')"_qs));
    QVERIFY(host().waitForScript("answered"_qs));
}

// --- Long columns ---

void TestRegressions::everyTextOfALongColumnIsRight_data()
{
    QTest::addColumn<QString>("pattern");
    QTest::addColumn<int>("change");
    QTest::addColumn<int>("rows");
    const auto add = [](const char *pattern, int change, int rows) {
        QTest::addRow("%s at %d, %d rows", pattern, change, rows)
            << QString::fromLatin1(pattern) << change << rows;
    };
    // Sharing texts is given up 64 texts behind the nulls, and at 2 * change - 15 or - 16 behind a
    // few: that is around the ends of chunks and blocks.
    for (const int change : {959, 960, 961, 4031, 4032, 4033})
        add("nulls, unique", change, 20000);
    for (const int change : {519, 520, 2055, 2056})
        add("few, unique", change, 20000);
    for (const int change : {520, 2056})
        add("null, few, unique", change, 20000);
    for (const int change : {64, 1024, 4096})
        add("unique, few", change, 20000);
    for (const int length : {1, 100, 1024, 4096})
        add("runs of nulls", length, 20000);
    for (const int rows : {63, 64, 65, 1023, 1024, 1025, 4095, 4096, 4097}) {
        add("nulls, unique", 960, rows);
        add("null, few, unique", 520, rows);
        add("runs of nulls", 1, rows);
    }
}

void TestRegressions::everyTextOfALongColumnIsRight()
{
    QFETCH(QString, pattern);
    QFETCH(int, change);
    QFETCH(int, rows);
    openStub(stubName);
    QCOMPARE(wrongCells({{"t"_qs, QVariant::String, textCells(pattern, change)}}, rows), QString());
}

void TestRegressions::everyNumberOfALongColumnIsRight_data()
{
    QTest::addColumn<int>("nullEvery");
    QTest::addColumn<int>("rows");
    for (const int rows : {1, 1023, 1024, 1025, 4095, 4096, 4097, 20000}) {
        for (const int nullEvery : {2, 1500, 100000})
            QTest::addRow("%d rows, a null in %d", rows, nullEvery) << nullEvery << rows;
    }
}

void TestRegressions::everyNumberOfALongColumnIsRight()
{
    QFETCH(int, nullEvery);
    QFETCH(int, rows);
    openStub(stubName);
    const CellAt untyped = [nullEvery](int row) {
        return row % nullEvery == 0 ? QVariant() : QVariant(row);
    };
    QCOMPARE(wrongCells({{"i"_qs, QVariant::Int, numberCells(QVariant::Int, nullEvery)},
                         {"l"_qs, QVariant::LongLong, numberCells(QVariant::LongLong, nullEvery)},
                         {"d"_qs, QVariant::Double, numberCells(QVariant::Double, nullEvery)},
                         {"u"_qs, QVariant::Int, untyped}},
                        rows),
             QString());
}

void TestRegressions::everyCellOfALongMixedColumnIsRight_data()
{
    QTest::addColumn<int>("rows");
    for (const int rows : {2, 127, 128, 129, 4095, 4096, 4097, 20000})
        QTest::addRow("%d rows", rows) << rows;
}

void TestRegressions::everyCellOfALongMixedColumnIsRight()
{
    QFETCH(int, rows);
    openStub(stubName);
    QCOMPARE(wrongCells({{"m"_qs, QVariant::String, mixedCells(rows)}}, rows), QString());
}

void TestRegressions::columnsDoNotNeedTheScriptsPush_data()
{
    QTest::addColumn<bool>("beforeTheConnection");
    QTest::addColumn<QString>("push");
    const QString liar = "function(a) { ++pushed; return this.length + a.length; }"_qs;
    QTest::newRow("overwritten before") << true << liar;
    QTest::newRow("overwritten after") << false << liar;
    QTest::newRow("nothing before") << true << "undefined"_qs;
    QTest::newRow("nothing after") << false << "undefined"_qs;
    QTest::newRow("throwing after") << false << "function() { ++pushed; throw new Error('p'); }"_qs;
}

void TestRegressions::columnsDoNotNeedTheScriptsPush()
{
    QFETCH(bool, beforeTheConnection);
    QFETCH(QString, push);
    const QString overwrite = "var pushed = 0; Array.prototype.push = %1"_qs.arg(push);
    if (beforeTheConnection)
        eval(overwrite);
    openStub(stubName);
    if (!beforeTheConnection)
        eval(overwrite);
    QCOMPARE(wrongCells({{"i"_qs, QVariant::Int, numberCells(QVariant::Int, 7)},
                         {"m"_qs, QVariant::String, mixedCells(5000)},
                         {"t"_qs, QVariant::String, textCells("nulls, unique"_qs, 960)}},
                        5000),
             QString());
    QCOMPARE(number("pushed"_qs), 0.0);
}

/// What is found at the install may be no push at all: elements are set one by one then.
void TestRegressions::columnsDoWithoutAnyPush()
{
    eval("Array.prototype.push = undefined"_qs);
    host().install(pluginObject());
    openStub(stubName);
    QCOMPARE(wrongCells({{"i"_qs, QVariant::Int, numberCells(QVariant::Int, 7)},
                         {"m"_qs, QVariant::String, mixedCells(5000)},
                         {"t"_qs, QVariant::String, textCells("nulls, unique"_qs, 960)}},
                        5000),
             QString());
}

// --- Names ---

void TestRegressions::connectionNamedLikeAThreadKeepsWorking_data()
{
    QTest::addColumn<bool>("threadFirst");
    QTest::newRow("the connection is there first") << false;
    QTest::newRow("the thread is there first") << true;
}

void TestRegressions::connectionNamedLikeAThreadKeepsWorking()
{
    QFETCH(bool, threadFirst);
    const ThreadGatePtr gate = ThreadGate::create();
    const GateGuard guard(gate);
    makeStub(stubName).setDefaultReply(StubReply::affected(1));
    stub().onExact("slow"_qs, StubReply::affected(1).withGate(gate));
    eval("var done = 0, a = new VEXT_SQL(), b = new VEXT_SQL();"
         "[a, b].forEach(function(db) { db.driverName = 'QSTUB'; });"
         "a.connectionName = 'a'; b.connectionName = 'a_thr'; function count() { ++done; }"_qs);
    QCOMPARE(text("a.connectionName + '_thr'"_qs), text("b.connectionName"_qs));
    QVERIFY(truth("a.open()"_qs));
    if (!threadFirst)
        QVERIFY(truth("b.open() && b.connectionName === a.connectionName + '_thr'"_qs));
    eval("a.query_thread(count, 'slow'); a.query_thread(count, 'a behind it');"_qs);
    QVERIFY(gate->waitReached());
    if (threadFirst)
        QVERIFY(truth("b.open()"_qs));

    QVERIFY(truth("b.isOpen && b.query('b while a works') !== false"_qs));
    QVERIFY(truth("b.query_thread(count, 'b in its thread')"_qs));
    gate->release();
    QVERIFY(host().waitForScript("done === 3"_qs));
    QVERIFY(truth("a.query('a') !== false && b.query('b') !== false"_qs));
    // The end of the thread takes its own connection away and no other.
    eval("a.stop_thread(10000)"_qs);
    QVERIFY(truth("!a.isRunning && b.isOpen && b.query('b again') !== false"_qs));
    QVERIFY(truth("a.query_thread(count, 'a again') && b.query_thread(count, 'b')"_qs));
    QVERIFY(host().waitForScript("done === 5"_qs));
    QCOMPARE(stub().openDrivers(), 4);
    QVERIFY(truth("b.close() && !b.isOpen && a.isOpen && a.close()"_qs));
}

void TestRegressions::connectionsNamedLikeEveryNameOfAThreadKeepWorking()
{
    makeStub(stubName).setDefaultReply(StubReply::affected(1));
    eval("var done = 0, all = []; function count() { ++done; }"
         "function open(name) { var db = new VEXT_SQL(); db.driverName = 'QSTUB';"
         "    db.connectionName = name; db.open(); all.push(db); return db; }"
         "var a = open('a'); open('a_thr');"_qs);
    // Each round takes the name that the thread has had, so that it must find another one.
    for (int round = 1; round <= 3; ++round) {
        eval("a.query_thread(count, 'round %1')"_qs.arg(round));
        QVERIFY(host().waitForScript("done === %1"_qs.arg(round)));
        QString used;
        const QVector<StubCall> calls = stub().calls(StubCall::Exec);
        for (const StubCall &call : calls) {
            if (call.text == "round %1"_qs.arg(round))
                used = call.connection;
        }
        QVERIFY2(used.startsWith("QSTUB_a_thr"_qs), qPrintable(used));
        QVERIFY(
            truth("all.every(function(db) { return db.connectionName !== '%1' })"_qs.arg(used)));
        eval("a.stop_thread(10000)"_qs);
        eval("open('%1')"_qs.arg(used.mid(6)));
        QCOMPARE(text("all[all.length - 1].connectionName"_qs), used);
        QVERIFY(
            truth("all.every(function(db) { return db.isOpen && db.query('x') !== false })"_qs));
    }
}

void TestRegressions::renamingWhileTheThreadStartsIsSafe()
{
    makeStub(stubName).setDefaultReply(StubReply::affected(1));
    eval("var db = new VEXT_SQL(), done = 0; db.driverName = 'QSTUB';"
         "for (var round = 0; round < 1500; ++round) {"
         "    db.start_thread();"
         "    for (var i = 0; i < 100; ++i) db.connectionName = 'name number ' + i;"
         "    db.stop_thread(10000);"
         "}"_qs);
    QVERIFY(truth("!db.isRunning && db.connectionName === 'QSTUB_name number 99'"_qs));
    QVERIFY(truth("db.open() && db.query_thread(function() { ++done }, 'x')"_qs));
    QVERIFY(host().waitForScript("done === 1"_qs));
}

// --- A connection that is deleted below its own functions ---

void TestRegressions::connectionMayGoInScriptCodeBelowIt_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("end");
    QTest::addColumn<QString>("expected");
    const QString nothing = "^false$"_qs;
    const QString answered = "^\\[object Object\\]$"_qs;
    const auto add = [](const char *place, const QString &code, const QString &expected) {
        QTest::addRow("deleteLater, %s", place)
            << code << "db.deleteLater(); nest()"_qs << expected;
        QTest::addRow("by the host, %s", place) << code << "destroyNow(db); nest()"_qs << expected;
    };
    const QString getter =
        "db.__defineGetter__('queryResult', function() { end(); return {} }); db.%1"_qs;
    add("queryResult read by query", getter.arg("query('select 1')"_qs), nothing);
    add("queryResult read by exec", getter.arg("exec('select 1', [1])"_qs), nothing);
    add("queryResult read by tables", getter.arg("tables(1)"_qs), "^(true|false)$"_qs);
    add("queryResult read by close", getter.arg("close()"_qs), "^(true|false)$"_qs);
    add("queryResult read by clear", getter.arg("clear()"_qs), "^undefined$"_qs);
    add("queryResult written by query",
        "db.__defineSetter__('queryResult', function() { end(); }); db.query('select 1')"_qs,
        answered);
    add("argument of exec", "db.exec('select 1', [{get a() { end(); return 1 }}])"_qs, nothing);
    add("argument of exec_thread", "db.exec_thread('select 1', [{get a() { end(); return 1 }}])"_qs,
        nothing);
    const QString handler = "db.%1.connect(function() { end(); }); %2"_qs;
    add("query_finish of query", handler.arg("query_finish"_qs, "db.query('select 1')"_qs),
        answered);
    add("query_finish of exec", handler.arg("query_finish"_qs, "db.exec('select 1', [1])"_qs),
        answered);
    add("query_finish of a task",
        handler.arg("query_finish"_qs,
                    "db.query_thread('select 1'); db.query_thread('select 1')"_qs),
        "^true$"_qs);
    add("opened", handler.arg("opened"_qs, "db.close(); db.open()"_qs), "^(true|false)$"_qs);
    add("closed", handler.arg("closed"_qs, "db.close()"_qs), "^(true|false)$"_qs);
    add("event", handler.arg("event"_qs, "db.add_event('news'); 'subscribed'"_qs),
        "^subscribed$"_qs);
    add("callback",
        "db.query_thread(function() { end(); }, 'select 1');"
        "db.query_thread(function() { end(); }, 'select 1')"_qs,
        "^true$"_qs);
    add("text of what a callback returns",
        "db.query_thread(function() { return {toString: function() { end(); return 'x' }} },"
        "                'select 1 --')"_qs,
        "^true$"_qs);
}

void TestRegressions::connectionMayGoInScriptCodeBelowIt()
{
    QFETCH(QString, code);
    QFETCH(QString, end);
    QFETCH(QString, expected);
    addFunctions();
    expectComplaints("property 'queryResult' has a getter but no setter"_qs);
    makeStub(stubName).setDefaultReply(StubReply::table({{"a"_qs, QVariant::Int}}, {{1}}));
    stub().setFeature(QSqlDriver::EventNotifications);
    openDb(stubName);
    eval("var ended = 0, answered; function end() { if (ended++ === 0) { %1; } }"_qs.arg(end));
    const QString answer = outcome(code);
    QVERIFY2(QRegularExpression(expected).match(answer).hasMatch() ||
                 answer.contains("deleted QObject"_qs),
             qPrintable(answer));
    stub().notify("news"_qs, QSqlDriver::OtherSource);
    QVERIFY(host().waitForScript("ended > 0"_qs));

    const QRegularExpression clear(
        "^(false|.*deleted QObject.*|TypeError: потерян объект VEXT_SQL[^$]*)$"_qs);
    for (const QString &call :
         {"query('x')"_qs, "exec('x', [1])"_qs, "open()"_qs, "close()"_qs, "query_thread('x')"_qs,
          "exec_thread('x', [1])"_qs, "tables(1)"_qs, "transaction()"_qs}) {
        const QString later = outcome("db."_qs + call);
        QVERIFY2(clear.match(later).hasMatch(), qPrintable(call + ": "_qs + later));
    }
    drainEvents();
    host().engine()->clearExceptions();
    QCOMPARE(stub().liveDrivers(), 0);
    QVERIFY(truth("counters().length === 0"_qs));
    verifyUsable();
}

void TestRegressions::argumentThatEndsTheConnectionQueuesNothing_data()
{
    QTest::addColumn<QString>("end");
    QTest::addColumn<QString>("call");
    for (const char *call :
         {"exec_thread('x', [trap])", "exec_thread(callback, 'x', [trap])",
          "exec_thread(['x', 'y'], [[trap], [2]])", "exec_thread(callback, 'x', list)",
          "query_thread(list)", "query_thread(callback, list)"}) {
        QTest::addRow("close in %s", call) << "db.close()"_qs << QString::fromLatin1(call);
        QTest::addRow("deletion in %s", call) << "destroyNow(db)"_qs << QString::fromLatin1(call);
        QTest::addRow("deleteLater in %s", call)
            << "db.deleteLater(); nest()"_qs << QString::fromLatin1(call);
    }
}

void TestRegressions::argumentThatEndsTheConnectionQueuesNothing()
{
    QFETCH(QString, end);
    QFETCH(QString, call);
    addFunctions();
    makeStub(stubName).setDefaultReply(StubReply::table({{"a"_qs, QVariant::Int}}, {{1}}));
    openDb(stubName);
    stub().clearRecord();
    // A getter in an element's properties, and one that is an element itself.
    eval("var ended = 0, called = 0, answered; function callback() { ++called; }"
         "function end() { if (ended++ === 0) { %1; } return 'x'; }"
         "var trap = {get a() { return end(); }}, list = new Array(1);"
         "list.__defineGetter__('0', end);"_qs.arg(end));
    const bool isRead = !call.contains("callback, 'x', list"_qs);
    const QString answer = outcome("String(db.%1)"_qs.arg(call));
    if (isRead) {
        QCOMPARE(answer, "false"_qs);
        QCOMPARE(number("ended"_qs), 1.0);
    } else {
        // The engine does not read getters that stand at an index of such a list.
        eval("if (!ended) end()"_qs);
    }
    drainEvents();
    if (isRead) {
        QVERIFY2(stub().executed().isEmpty(), qPrintable(stub().record()));
        QCOMPARE(number("called"_qs), 0.0);
    }
    QCOMPARE(stub().liveDrivers(), 0);
    verifyUsable();
}

void TestRegressions::resultOfADeletedObjectThrowsNothing_data()
{
    QTest::addColumn<QString>("expected");
    QTest::newRow("db.clear()") << "undefined"_qs;
    QTest::newRow("db.clearSqlResult()") << "undefined"_qs;
    QTest::newRow("db.query('x').a[0]") << "1"_qs;
    QTest::newRow("db.exec('x').a[0]") << "1"_qs;
    QTest::newRow("db.exec('x', [1]).a[0]") << "1"_qs;
    QTest::newRow("db.tables(1)") << "true"_qs;
    QTest::newRow("db.close()") << "true"_qs;
}

void TestRegressions::resultOfADeletedObjectThrowsNothing()
{
    QFETCH(QString, expected);
    addFunctions();
    makeStub(stubName).setDefaultReply(StubReply::table({{"a"_qs, QVariant::Int}}, {{1}}));
    openDb(stubName);
    eval(
        "var gone = newHostObject(), after = 0, answered; db.queryResult = gone; destroyNow(gone)"_qs);
    const QString code = QString::fromLatin1(QTest::currentDataTag());
    // What is pending when the call returns would end the script before its next step.
    QCOMPARE(text("var answer = %1; after = 1; String(answer)"_qs.arg(code)), expected);
    QVERIFY(truth("after === 1 && db.queryResult !== gone"_qs));
    verifyUsable();
}

// --- Notifications ---

void TestRegressions::handlerMayRenewItsSubscription_data()
{
    QTest::addColumn<QString>("handler");
    QTest::addColumn<int>("subscribed");
    const QString remove = "db.rem_event('a');"_qs;
    const QString add = "if (!db.add_event('a')) throw new Error('not added');"_qs;
    QTest::newRow("removed") << remove << 0;
    QTest::newRow("removed and added") << remove + add << 1;
    QTest::newRow("removed twice and added") << remove + remove + add << 1;
    QTest::newRow("renewed twice") << remove + add + remove + add << 1;
    QTest::newRow("renewed and removed") << remove + add + remove << 0;
    QTest::newRow("removed, opened again and added")
        << remove + "db.close(); db.open();"_qs + add << 1;
    QTest::newRow("removed and added in another order of closing")
        << remove + "db.close();"_qs + add + "db.open();"_qs << 1;
}

void TestRegressions::handlerMayRenewItsSubscription()
{
    QFETCH(QString, handler);
    QFETCH(int, subscribed);
    makeStub(stubName).setFeature(QSqlDriver::EventNotifications);
    openDb(stubName);
    eval("var heard = 0, payloads = []; db.add_event('a'); db.add_event('b');"
         "db.event.connect(function(name, payload) { payloads.push(name + payload);"
         "    if (++heard === 1) { %1 } });"_qs.arg(handler));
    QCOMPARE(stub().notify("a"_qs, QSqlDriver::OtherSource, 1), 1);
    QCOMPARE(number("heard"_qs), 1.0);
    drainEvents();
    QCOMPARE(stub().notify("a"_qs, QSqlDriver::OtherSource, 2), subscribed);
    QCOMPARE(stub().notify("b"_qs, QSqlDriver::OtherSource, 3), 1);
    QCOMPARE(text("payloads.join()"_qs), subscribed ? "a1,a2,b3"_qs : "a1,b3"_qs);
    QCOMPARE(truth("db.events.indexOf('a') >= 0"_qs), subscribed == 1);
}

// --- Results that the driver lost ---

void TestRegressions::lostResultIsAnError_data()
{
    QTest::addColumn<bool>("connectionAnswers");
    QTest::addColumn<QString>("databaseText");
    QTest::newRow("the connection is gone") << false << "Server has gone away"_qs;
    QTest::newRow("the connection answers again") << true << "the result was lost"_qs;
}

void TestRegressions::lostResultIsAnError()
{
    QFETCH(bool, connectionAnswers);
    QFETCH(QString, databaseText);
    makeStub("QMYSQL"_qs, QSqlDriver::MySqlServer).setDefaultReply(StubReply::affected(0));
    stub().onExact("select all"_qs, StubReply::affected(-1));
    if (!connectionAnswers)
        stub().onExact("DO 0"_qs, StubReply::failure(statementError(databaseText)));
    openDb("QMYSQL"_qs);
    recordAnswers();

    QVERIFY(truth("db.query('select all') === false"_qs));
    QVERIFY2(text("db.lastError"_qs).contains(databaseText), qPrintable(text("db.lastError"_qs)));
    QVERIFY(truth("db.exec('select all') === false"_qs));
    QVERIFY(truth("finished.length === 0"_qs));
    QCOMPARE(number("db.counters().cnt_sql_ok"_qs), 0.0);
    eval("db.query_thread(record, 'select all'); db.query_thread('select all')"_qs);
    QVERIFY(waitForAnswers(2));
    QCOMPARE(json("answers[0][1]"_qs), "\"%1\""_qs.arg(databaseText));
    QCOMPARE(json("[finished[0][0], finished[0][2]]"_qs), "[false,\"%1\"]"_qs.arg(databaseText));
    QCOMPARE(stub().executed().count("DO 0"_qs), 4);
    QVERIFY(truth("db.query('update t') !== false"_qs));
}

void TestRegressions::statementWithoutAResultIsNoLoss_data()
{
    QTest::addColumn<QString>("driver");
    QTest::addColumn<int>("affected");
    QTest::newRow("nothing changed") << "QMYSQL"_qs << 0;
    QTest::newRow("rows changed") << "QMYSQL"_qs << 3;
    QTest::newRow("another driver that does not count") << "QPSQL"_qs << -1;
}

void TestRegressions::statementWithoutAResultIsNoLoss()
{
    QFETCH(QString, driver);
    QFETCH(int, affected);
    makeStub(driver).setDefaultReply(StubReply::affected(affected));
    stub().onExact("DO 0"_qs, StubReply::failure(statementError("asked"_qs)));
    openDb(driver);
    recordAnswers();
    QVERIFY(truth("db.query('update t').numRowsAffected === %1"_qs.arg(qMax(0, affected))));
    QVERIFY(truth("db.exec('update t set a = :a0', [1]) !== false && db.lastError === ''"_qs));
    eval("db.query_thread(record, 'update t')"_qs);
    QVERIFY(waitForAnswers(3));
    QCOMPARE(json("answers[0][1]"_qs), "false"_qs);
    QVERIFY2(!stub().executed().contains("DO 0"_qs), qPrintable(stub().record()));
}

void TestRegressions::firebirdIsNotReadForwardOnly()
{
    openStub("QIBASE"_qs, QSqlDriver::Interbase)
        .setDefaultReply(StubReply::table({{"a"_qs, QVariant::Int}}, {{1}}));
    recordAnswers();
    eval("db.query('EXECUTE PROCEDURE p(2)'); db.exec('p', [2]);"
         "db.query_thread(record, 'EXECUTE PROCEDURE p(2)')"_qs);
    QVERIFY(waitForAnswers(3));
    int executed = 0;
    for (const StubCall::What what : {StubCall::Exec, StubCall::ExecPrepared}) {
        const QVector<StubCall> calls = stub().calls(what);
        for (const StubCall &call : calls) {
            QVERIFY2(!call.forwardOnly, qPrintable(call.toString()));
            ++executed;
        }
    }
    QCOMPARE(executed, 3);
}

QTEST_GUILESS_MAIN(TestRegressions)
#include "test_regressions.moc"
