/// @file
/// The results of a statement that comes again and again look like its first one, whatever scripts
/// do to the prototypes, to the functions of the engine and to earlier results.
#include "script_test.h"

#include <QThread>

namespace
{

/// Results of the same names after which they are made in the quick way.
constexpr int Repetitions = 12;

} // namespace

class TestRepeatedResults : public ScriptTest
{
    Q_OBJECT

private slots:
    void everyResultLooksLikeTheFirst_data();
    void everyResultLooksLikeTheFirst();
    void accessorsTakeNothingAndKeepNothingOut_data();
    void accessorsTakeNothingAndKeepNothingOut();
    void valueOnThePrototypeIsNoProperty();
    void changesOfOneResultAreInNoOther();
    void typesAndNullsAreThoseOfEachResult();
    void nullsReadAsTheSettingSaysAtEachDelivery();
    void namesThatChangeAreThoseOfEachResult();
    void constructorsOfTheEngineMayBeReplaced();
    void uncaughtExceptionStaysThroughADelivery();
    void deepRecursionGivesAWholeResult();
    void endOfTheStackIsNoExceptionOfTheResult();
    void nativeCallbackMayRunTheStatementAgain();
    void engineThatGoesAwayTakesNothingAlong();

private:
    /// Opens `db` and defines look(), which tells all that can be seen of a result.
    void open();
    /// Runs a statement again and again; the results are `all`, the last one `r`.
    void repeat(const QString &sql, int times = Repetitions);
};

void TestRepeatedResults::open()
{
    openSqlite();
    eval(QStringLiteral(
        "var has = Object.prototype.hasOwnProperty;"
        "function look(o) { var seen = [], n, d;"
        "  for (n in o) seen.push(n);"
        "  var all = Object.getOwnPropertyNames(o);"
        "  for (n = 0; n < all.length; ++n) { d = Object.getOwnPropertyDescriptor(o, all[n]);"
        "    seen.push([all[n], d.writable, d.enumerable, d.configurable, "
        "JSON.stringify(d.value)]) }"
        "  return JSON.stringify(seen) }"));
}

void TestRepeatedResults::repeat(const QString &sql, int times)
{
    host().engine()->globalObject().setProperty(QStringLiteral("sql"), sql);
    eval(QStringLiteral("var all = [], r = null"));
    eval(QStringLiteral("for (var i = 0; i < %1; ++i)"
                        "  db.query_thread(function(result, error) {"
                        "    if (error) throw error; r = result; all.push(result) }, sql)")
             .arg(times));
    QVERIFY(host().waitForScript(QStringLiteral("all.length === %1").arg(times), 20000));
}

void TestRepeatedResults::everyResultLooksLikeTheFirst_data()
{
    QTest::addColumn<QString>("sql");
    QTest::newRow("one row") << QStringLiteral("SELECT 1 AS id, 'a' AS name, 0.5 AS half");
    QTest::newRow("no row") << QStringLiteral("SELECT 1 AS id, 'a' AS name WHERE 1 = 0");
    QTest::newRow("several rows, nulls")
        << QStringLiteral("SELECT 1 AS id, 'a' AS name UNION ALL SELECT NULL, 'b' UNION ALL SELECT "
                          "3, NULL");
    QTest::newRow("only nulls") << QStringLiteral("SELECT NULL AS a, NULL AS b");
    QTest::newRow("mixed") << QStringLiteral("SELECT 1 AS a UNION ALL SELECT 'x'");
    QTest::newRow("bytes") << QStringLiteral("SELECT x'00ff' AS a, 1 AS b");
    QTest::newRow("wide numbers") << QStringLiteral("SELECT 9007199254740993 AS a, -1 AS b");
    QTest::newRow("same name twice") << QStringLiteral("SELECT 1 AS a, 2 AS b, 3 AS a");
    QTest::newRow("name of a property") << QStringLiteral("SELECT 1 AS a, 2 AS rows, 3 AS fields");
    QTest::newRow("name of the mark") << QStringLiteral("SELECT 1 AS '$ res sql', 2 AS b");
    QTest::newRow("__proto__") << QStringLiteral("SELECT 1 AS __proto__, 2 AS b");
    QTest::newRow("names of Object.prototype")
        << QStringLiteral("SELECT 1 AS constructor, 2 AS toString");
    QTest::newRow("numbers") << QStringLiteral("SELECT 1 AS '0', 2 AS '42', 3 AS '-1'");
    QTest::newRow("empty") << QStringLiteral("SELECT 1 AS ''");
    QTest::newRow("words") << QStringLiteral("SELECT 1 AS 'if', 2 AS 'this', 3 AS 'var'");
    QTest::newRow("quotes") << QString::fromUtf8(
        "SELECT 1 AS 'a\"b', 2 AS 'c\\d', 3 AS '\"];throw 1;//', 4 AS 'line\nline'");
    QTest::newRow("letters") << QString::fromUtf8(
        "SELECT 1 AS 'имя', 2 AS '\xe2\x80\xa8', 3 AS '\xf0\x9f\x90\x98'");
    QStringList wide;
    for (int i = 0; i < 70; ++i)
        wide << QStringLiteral("%1 AS c%1").arg(i);
    QTest::newRow("many columns") << QStringLiteral("SELECT ") + wide.join(QStringLiteral(", "));
    QTest::newRow("as many columns as a row may have")
        << QStringLiteral("SELECT NULL AS first, ") +
               QStringList(wide.mid(0, 28)).join(QStringLiteral(", ")) +
               QStringLiteral(", NULL AS last");
    QTest::newRow("one column more")
        << QStringLiteral("SELECT NULL AS first, ") +
               QStringList(wide.mid(0, 29)).join(QStringLiteral(", ")) +
               QStringLiteral(", NULL AS last");
    QTest::newRow("one row, nulls")
        << QStringLiteral("SELECT NULL AS a, 'b' AS b, NULL AS c, 4 AS d");
    QTest::newRow("one row, empty text") << QStringLiteral("SELECT '' AS a, char(0) AS b, 1 AS c");
    QTest::newRow("no columns") << QStringLiteral("UPDATE t SET a = a + 1");
    QTest::newRow("many rows") << QStringLiteral(
        "WITH RECURSIVE c(x) AS (SELECT 0 UNION ALL SELECT x + 1 FROM c WHERE x < 2000) SELECT x, "
        "'t' || x AS t FROM c");
}

void TestRepeatedResults::everyResultLooksLikeTheFirst()
{
    QFETCH(QString, sql);
    open();
    eval(
        QStringLiteral("db.query_thread(['CREATE TEMP TABLE t (a)', 'INSERT INTO t VALUES (1)'])"));
    repeat(sql);
    QCOMPARE(text(QStringLiteral("look(all[%1])").arg(Repetitions - 1)),
             text(QStringLiteral("look(all[0])")));
    QVERIFY(truth(QStringLiteral("r.fields_names.length === r.fields")));
    QVERIFY(truth(QStringLiteral("Object.getPrototypeOf(r) === Object.prototype")));
    QVERIFY(truth(QStringLiteral("r.fields_types instanceof Array")));
}

void TestRepeatedResults::accessorsTakeNothingAndKeepNothingOut_data()
{
    QTest::addColumn<QString>("trap");
    QTest::addColumn<QString>("name");
    for (const char *name : {"id", "rows", "fields_names", "$ res sql"}) {
        const auto row = [name](const char *kind, const char *trap) {
            QTest::newRow(
                qPrintable(QStringLiteral("%1, %2").arg(QLatin1String(kind), QLatin1String(name))))
                << QString::fromLatin1(trap) << QString::fromLatin1(name);
        };
        row("setter", "p.__defineSetter__('%1', trap)");
        row("getter", "p.__defineGetter__('%1', trap)");
        row("both", "p.__defineSetter__('%1', trap); p.__defineGetter__('%1', trap)");
        row("hidden", "Object.defineProperty(p, '%1', {get: trap, set: trap})");
        row("on the prototype's prototype",
            "var q = {}; q.__defineSetter__('%1', trap); q.__defineGetter__('%1', trap);"
            "try { p.__proto__ = q } catch (e) {}");
    }
}

void TestRepeatedResults::accessorsTakeNothingAndKeepNothingOut()
{
    QFETCH(QString, trap);
    QFETCH(QString, name);
    open();
    const QString sql = QStringLiteral("SELECT 1 AS id, 'a' AS name");
    repeat(sql);
    eval(QStringLiteral("var p = Object.prototype, trapped = 0, first = look(all[0]);"
                        "function trap() { ++trapped }"));
    eval(trap.arg(name));
    repeat(sql, 2);
    QCOMPARE(number(QStringLiteral("trapped")), 0.0);
    eval(QStringLiteral("var shown = r; delete p['%1']; p.__proto__ = null;").arg(name));
    QCOMPARE(text(QStringLiteral("look(shown)")), text(QStringLiteral("first")));
    // And quickly again when the trap is gone.
    repeat(sql, 2);
    QCOMPARE(text(QStringLiteral("look(r)")), text(QStringLiteral("first")));
}

void TestRepeatedResults::valueOnThePrototypeIsNoProperty()
{
    open();
    repeat(QStringLiteral("SELECT 1 AS id"));
    eval(QStringLiteral("Object.prototype.id = 'mine'; Object.prototype.rows = 'mine'; "
                        "Object.prototype[0] = 'mine'; Array.prototype[0] = 'mine'"));
    repeat(QStringLiteral("SELECT 1 AS id"), 1);
    eval(QStringLiteral("delete Object.prototype.id; delete Object.prototype.rows; "
                        "delete Object.prototype[0]; delete Array.prototype[0]"));
    QCOMPARE(json(QStringLiteral("[r.id, r.rows, r.fields_index, r.fields_nulls]")),
             QStringLiteral("[[1],1,[[1]],[[]]]"));
}

void TestRepeatedResults::changesOfOneResultAreInNoOther()
{
    open();
    const QString sql = QStringLiteral("SELECT 1 AS id, 'a' AS name");
    repeat(sql);
    eval(
        QStringLiteral("var first = look(all[0]);"
                       "r.fields_names[0] = 'x'; r.fields_types.push(9); r.fields_typeN.length = 0;"
                       "r.fields_nulls[0].push(7); r.fields_index[1] = 5; r.id[0] = 8;"
                       "delete r.rows; r.fields_nulls.extra = 1"));
    repeat(sql, 3);
    QCOMPARE(text(QStringLiteral("look(r)")), text(QStringLiteral("first")));
    QVERIFY(truth(QStringLiteral("all[0].fields_names !== all[1].fields_names && "
                                 "all[0].fields_types !== all[1].fields_types && "
                                 "all[0].fields_nulls[0] !== all[0].fields_nulls[1] && "
                                 "all[0].fields_nulls[0] !== all[1].fields_nulls[0]")));
    QVERIFY(truth(QStringLiteral("r.id === r.fields_index[0]")));
}

void TestRepeatedResults::typesAndNullsAreThoseOfEachResult()
{
    open();
    repeat(QStringLiteral("SELECT 1 AS id, 'a' AS name"));
    repeat(QStringLiteral("SELECT 'text' AS id, NULL AS name"), 1);
    QCOMPARE(json(QStringLiteral("[r.id, r.name, r.fields_nulls, r.fields_typeN[0]]")),
             QStringLiteral("[[\"text\"],[null],[[],[0]],\"QString\"]"));
    repeat(QStringLiteral("SELECT 0.5 AS id, 'b' AS name UNION ALL SELECT NULL, 'c'"), 1);
    QCOMPARE(json(QStringLiteral("[r.id, r.name, r.fields_nulls, r.fields_typeN]")),
             QStringLiteral("[[0.5,null],[\"b\",\"c\"],[[1],[]],[\"double\",\"QString\"]]"));
    repeat(QStringLiteral("SELECT 1 AS id, 'a' AS name"), 1);
    QCOMPARE(json(QStringLiteral("[r.id, r.fields_nulls, r.fields_typeN]")),
             QStringLiteral("[[1],[[],[]],[\"qlonglong\",\"QString\"]]"));
}

void TestRepeatedResults::nullsReadAsTheSettingSaysAtEachDelivery()
{
    open();
    const QString sql = QStringLiteral(
        "SELECT 1 AS i, 'a' AS t, 0.5 AS d, 9 AS n UNION ALL SELECT NULL, NULL, NULL, NULL");
    repeat(sql);
    QCOMPARE(json(QStringLiteral("r.fields_index")),
             QStringLiteral("[[1,null],[\"a\",null],[0.5,null],[9,null]]"));
    eval(QStringLiteral("db.enableNull = false"));
    repeat(sql);
    const QString quick = text(QStringLiteral("look(r)"));
    QCOMPARE(quick, text(QStringLiteral("look(all[0])")));
    QVERIFY(truth(QStringLiteral("r.i[1] !== null && r.t[1] !== null")));
    QCOMPARE(json(QStringLiteral("r.fields_nulls")), QStringLiteral("[[1],[1],[1],[1]]"));
    const QString row = QStringLiteral("SELECT NULL AS i, 'a' AS t");
    repeat(row);
    QCOMPARE(text(QStringLiteral("look(r)")), text(QStringLiteral("look(all[0])")));
    QVERIFY(truth(QStringLiteral("r.i[0] !== null && r.t[0] === 'a'")));
    eval(QStringLiteral("db.enableNull = true"));
    repeat(row, 1);
    QCOMPARE(json(QStringLiteral("[r.i, r.t, r.fields_nulls]")),
             QStringLiteral("[[null],[\"a\"],[[0],[]]]"));
}

void TestRepeatedResults::namesThatChangeAreThoseOfEachResult()
{
    open();
    for (int i = 0; i < 3; ++i) {
        repeat(QStringLiteral("SELECT 1 AS a, 2 AS b"));
        QCOMPARE(json(QStringLiteral("[r.a, r.b, r.fields_names]")),
                 QStringLiteral("[[1],[2],[\"a\",\"b\"]]"));
        repeat(QStringLiteral("SELECT 3 AS b, 4 AS a"));
        QCOMPARE(json(QStringLiteral("[r.a, r.b, r.fields_names]")),
                 QStringLiteral("[[4],[3],[\"b\",\"a\"]]"));
        repeat(QStringLiteral("SELECT 5 AS a"), 1);
        QVERIFY(truth(QStringLiteral("r.fields === 1 && r.b === undefined")));
    }
}

void TestRepeatedResults::constructorsOfTheEngineMayBeReplaced()
{
    open();
    eval(QStringLiteral("var spied = 0; function spy() { ++spied; throw 'spied' }"
                        "Function.prototype.call = Function.prototype.apply = spy;"
                        "Function = Array = spy; Boolean.prototype.valueOf = spy; undefined = 0;"));
    repeat(QStringLiteral("SELECT 1 AS id"));
    QCOMPARE(number(QStringLiteral("spied")), 0.0);
    QCOMPARE(text(QStringLiteral("look(r)")), text(QStringLiteral("look(all[0])")));
}

/// What a callback throws belongs to the host until it looks.
void TestRepeatedResults::uncaughtExceptionStaysThroughADelivery()
{
    open();
    repeat(QStringLiteral("SELECT 1 AS id"));
    eval(QStringLiteral("db.query_thread(function() { throw 'mine' }, sql);"
                        "db.query_thread(sql)"));
    const QObject *db = host().engine()->globalObject().property(QStringLiteral("db")).toQObject();
    const QObject *worker = db->findChild<QThread *>();
    QVERIFY(worker);
    QSignalSpy finished(
        worker, SIGNAL(query_finish(QScriptValue, QScriptValue, QScriptValue, QScriptValue)));
    QTRY_COMPARE_WITH_TIMEOUT(finished.size(), 1, 20000);
    QVERIFY(host().engine()->hasUncaughtException());
    QCOMPARE(host().engine()->uncaughtException().toString(), QStringLiteral("mine"));
    host().engine()->clearExceptions();
}

void TestRepeatedResults::deepRecursionGivesAWholeResult()
{
    open();
    repeat(QStringLiteral("SELECT 1 AS id"));
    // Synchronous results are made where the script stands, down to where its stack ends.
    eval(QStringLiteral(
        "var whole = 0, parts = 0;"
        "function down() { var q = db.query(sql);"
        "  if (q && q.id) { q.id[0] === 1 && q.rows === 1 && q.fields_typeN[0] === 'qlonglong'"
        "    && q.fields_nulls[0].length === 0 ? ++whole : ++parts }"
        "  down() }"
        "try { down() } catch (e) { var ended = String(e) }"));
    QVERIFY(truth(QStringLiteral("ended.indexOf('RangeError') === 0")));
    QCOMPARE(number(QStringLiteral("parts")), 0.0);
    QVERIFY(number(QStringLiteral("whole")) > 10);
}

/// A function that could not be called for want of stack is nothing that the script has done.
void TestRepeatedResults::endOfTheStackIsNoExceptionOfTheResult()
{
    open();
    repeat(QStringLiteral("SELECT 1 AS id"));
    eval(QStringLiteral("var leaked = 0, made = 0;"
                        "function down() { db.queryResult = null;"
                        "  try { db.query(sql); ++made } catch (e) { if (db.queryResult) ++leaked }"
                        "  down() }"
                        "try { down() } catch (e) {}"));
    QCOMPARE(number(QStringLiteral("leaked")), 0.0);
    QVERIFY(number(QStringLiteral("made")) > 10);
}

/// The callback is db.query itself, to which the result reads as the statement: no script runs
/// then.
void TestRepeatedResults::nativeCallbackMayRunTheStatementAgain()
{
    open();
    for (int before = 0; before < Repetitions; ++before) {
        eval(QStringLiteral("var sql = 'SELECT 1 AS c%1', done = false;"
                            "Object.prototype.toString = function () { return sql };"
                            "for (var i = 0; i < %1; ++i) db.query(sql);"
                            "db.query_thread(db.query, sql);"
                            "db.query_thread(function () { done = true }, 'SELECT 2')")
                 .arg(before));
        QVERIFY(host().waitForScript(QStringLiteral("done")));
        QVERIFY(truth(QStringLiteral("db.queryResult.executedQuery === sql")));
    }
}

void TestRepeatedResults::engineThatGoesAwayTakesNothingAlong()
{
    open();
    repeat(QStringLiteral("SELECT 1 AS id"));
    eval(QStringLiteral("for (var i = 0; i < 100; ++i) db.query_thread(function() {}, sql)"));
    destroyHost();
}

QTEST_GUILESS_MAIN(TestRepeatedResults)

#include "test_repeated_results.moc"
