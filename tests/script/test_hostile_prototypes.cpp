/// @file
/// Results hold what the database sent, whatever a script has put on the prototypes of objects and
/// arrays, and whatever the columns are called.
#include "script_test.h"

namespace
{

const char *const fixedNames[] = {
    "fields",       "numRowsAffected", "lastInsertId", "executedQuery", "rows",        "length",
    "fields_names", "fields_index",    "fields_nulls", "fields_types",  "fields_typeN"};

} // namespace

class TestHostilePrototypes : public ScriptTest
{
    Q_OBJECT

private slots:
    void columnOfAnyNameIsTheResultsOwn_data();
    void columnOfAnyNameIsTheResultsOwn();
    void columnCalledProtoLeavesThePrototype_data();
    void columnCalledProtoLeavesThePrototype();
    void accessorsOnObjectPrototypeTakeNothing_data();
    void accessorsOnObjectPrototypeTakeNothing();
    void accessorsForFixedNamesTakeNothing_data();
    void accessorsForFixedNamesTakeNothing();
    void accessorsOnArrayPrototypeTakeNothing_data();
    void accessorsOnArrayPrototypeTakeNothing();
    void accessorsTakeNothingOfTables();
    void accessorsTakeNothingOfCounters();
    void accessorsTakeNoQueryResult();
    void namesStandInTheirOrder_data();
    void namesStandInTheirOrder();

private:
    void addWays();
    /// Runs a statement synchronously or on the worker thread; the result is `r`.
    void run(const QString &sql);
};

void TestHostilePrototypes::addWays()
{
    QTest::addColumn<bool>("threaded");
    QTest::newRow("query") << false;
    QTest::newRow("query_thread") << true;
}

void TestHostilePrototypes::run(const QString &sql)
{
    QFETCH(bool, threaded);
    eval(QStringLiteral("var r = null, sql = \"%1\"").arg(sql));
    eval(threaded ? QStringLiteral("db.query_thread(function(result) { r = result }, sql)")
                  : QStringLiteral("r = db.query(sql)"));
    QVERIFY(host().waitForScript(QStringLiteral("r !== null")));
}

void TestHostilePrototypes::columnOfAnyNameIsTheResultsOwn_data()
{
    QTest::addColumn<bool>("threaded");
    QTest::addColumn<QString>("name");
    for (const char *name : {"__proto__", "constructor", "toString", "hasOwnProperty", "prototype",
                             "0", "42", "$ res"})
        for (const bool threaded : {false, true})
            QTest::newRow(qPrintable(QStringLiteral("%1, %2").arg(
                QLatin1String(name), QLatin1String(threaded ? "thread" : "direct"))))
                << threaded << QString::fromLatin1(name);
}

void TestHostilePrototypes::columnOfAnyNameIsTheResultsOwn()
{
    QFETCH(QString, name);
    openSqlite();
    run(QStringLiteral("SELECT 7 AS '%1' UNION ALL SELECT 8").arg(name));
    QCOMPARE(json(QStringLiteral("r['%1']").arg(name)), QStringLiteral("[7,8]"));
    QVERIFY(truth(QStringLiteral("Object.prototype.hasOwnProperty.call(r, '%1')").arg(name)));
    QVERIFY(truth(QStringLiteral("r.fields_names[0] === '%1'").arg(name)));
    QVERIFY(truth(QStringLiteral("r['%1'] === r.fields_index[0]").arg(name)));
}

void TestHostilePrototypes::columnCalledProtoLeavesThePrototype_data()
{
    addWays();
}

void TestHostilePrototypes::columnCalledProtoLeavesThePrototype()
{
    openSqlite();
    run(QStringLiteral("SELECT 1 AS a, 2 AS __proto__, 3 AS b, 4 AS __proto__"));
    QVERIFY(truth(QStringLiteral("Object.getPrototypeOf(r) === Object.prototype")));
    QVERIFY(truth(QStringLiteral("!(r instanceof Array) && r.push === undefined")));
    QCOMPARE(json(QStringLiteral("[r.a, r.b, r.__proto__, r.fields_index]")),
             QStringLiteral("[[1],[3],[4],[[1],[2],[3],[4]]]"));
}

void TestHostilePrototypes::accessorsOnObjectPrototypeTakeNothing_data()
{
    QTest::addColumn<bool>("threaded");
    QTest::addColumn<QString>("trap");
    for (const bool threaded : {false, true}) {
        const auto row = [threaded](const char *name, const char *trap) {
            QTest::newRow(qPrintable(QStringLiteral("%1, %2").arg(
                QLatin1String(name), QLatin1String(threaded ? "thread" : "direct"))))
                << threaded << QString::fromLatin1(trap);
        };
        row("setter", "p.__defineSetter__('id', trap)");
        row("getter", "p.__defineGetter__('id', trap)");
        row("both", "p.__defineSetter__('id', trap); p.__defineGetter__('id', trap)");
        row("hidden", "Object.defineProperty(p, 'id', {get: trap, set: trap})");
        row("setter that throws", "p.__defineSetter__('id', function() { trap(); throw 1 })");
        row("value", "p.id = 'mine'");
        row("constant", "Object.defineProperty(p, 'id', {value: 'mine', writable: false, "
                        "configurable: true})");
    }
}

void TestHostilePrototypes::accessorsOnObjectPrototypeTakeNothing()
{
    QFETCH(QString, trap);
    openSqlite();
    eval(QStringLiteral("var p = Object.prototype, trapped = 0; function trap() { ++trapped }"));
    eval(trap);
    run(QStringLiteral("SELECT 1 AS id, 'a' AS name UNION ALL SELECT 2, null"));
    QCOMPARE(number(QStringLiteral("trapped")), 0.0);
    QCOMPARE(json(QStringLiteral("[r.id, r.name, r.rows]")),
             QStringLiteral("[[1,2],[\"a\",null],2]"));
    QVERIFY(truth(QStringLiteral("Object.getPrototypeOf(r) === p")));
    // As free as any other property of a result.
    QVERIFY(truth(QStringLiteral("r.id = 5, r.id === 5 && delete r.id")));
}

void TestHostilePrototypes::accessorsForFixedNamesTakeNothing_data()
{
    addWays();
}

void TestHostilePrototypes::accessorsForFixedNamesTakeNothing()
{
    openSqlite();
    eval(QStringLiteral("var p = Object.prototype, trapped = 0; function trap() { ++trapped }"));
    for (size_t i = 0; i < std::size(fixedNames); ++i) {
        // Getters alone, setters alone and both.
        if (i % 3 != 0)
            eval(
                QStringLiteral("p.__defineGetter__('%1', trap)").arg(QLatin1String(fixedNames[i])));
        if (i % 3 != 1)
            eval(
                QStringLiteral("p.__defineSetter__('%1', trap)").arg(QLatin1String(fixedNames[i])));
    }
    eval(QStringLiteral("p.__defineGetter__('$ res sql', trap)"));
    run(QStringLiteral("SELECT 1 AS id UNION ALL SELECT 2"));
    QCOMPARE(number(QStringLiteral("trapped")), 0.0);
    for (const char *name : fixedNames)
        QVERIFY2(truth(QStringLiteral("p.hasOwnProperty.call(r, '%1')").arg(QLatin1String(name))),
                 name);
    QCOMPARE(json(QStringLiteral("[r.fields, r.rows, r.fields_names, r.fields_index, "
                                 "r.fields_nulls, r['$ res sql']]")),
             QStringLiteral("[1,2,[\"id\"],[[1,2]],[[]],1106]"));
}

void TestHostilePrototypes::accessorsOnArrayPrototypeTakeNothing_data()
{
    addWays();
}

/// Short and long columns, nulls, texts that come again and texts that do not, and mixed values.
void TestHostilePrototypes::accessorsOnArrayPrototypeTakeNothing()
{
    openSqlite();
    eval(QStringLiteral(
        "var trapped = 0; function trap() { ++trapped; return 'trap' }"
        "var at = [0, 1, 2, 1023, 1024, 1025, 11999, 'length', 'push'];"
        "for (var i = 0; i < at.length; ++i) { var p = i % 2 ? Array.prototype : Object.prototype;"
        "if (at[i] === 'length') continue;"
        "p.__defineSetter__(at[i], trap); if (i % 3) p.__defineGetter__(at[i], trap) }"));
    run(QStringLiteral("WITH RECURSIVE c(x) AS (SELECT 0 UNION ALL SELECT x + 1 FROM c WHERE x < "
                       "11999) SELECT x AS n, 't' || x AS t, 't' || (x % 3) AS few, "
                       "CASE WHEN x % 2 THEN x END AS holes, CASE x % 3 WHEN 0 THEN x WHEN 1 THEN "
                       "'s' ELSE x + 0.5 END AS mixed FROM c"));
    QCOMPARE(number(QStringLiteral("trapped")), 0.0);
    QCOMPARE(number(QStringLiteral("r.rows")), 12000.0);
    QCOMPARE(
        text(QStringLiteral(
            "(function() { var has = Object.prototype.hasOwnProperty, i;"
            "for (i = 0; i < 12000; ++i) {"
            " if (!has.call(r.n, i) || r.n[i] !== i) return 'n ' + i;"
            " if (!has.call(r.t, i) || r.t[i] !== 't' + i) return 't ' + i;"
            " if (!has.call(r.few, i) || r.few[i] !== 't' + i % 3) return 'few ' + i;"
            " if (!has.call(r.holes, i) || r.holes[i] !== (i % 2 ? i : null))"
            "  return 'holes ' + i;"
            " if (!has.call(r.mixed, i) || r.mixed[i] !== (i % 3 === 0 ? i : i % 3 === 1 ? 's' "
            ": i + 0.5)) return 'mixed ' + i }"
            "return 'as sent' })()")),
        QStringLiteral("as sent"));
    QCOMPARE(json(QStringLiteral("r.fields_nulls[3].length")), QStringLiteral("6000"));
    QCOMPARE(json(QStringLiteral("r.fields_names")),
             QStringLiteral("[\"n\",\"t\",\"few\",\"holes\",\"mixed\"]"));
}

void TestHostilePrototypes::accessorsTakeNothingOfTables()
{
    openSqlite();
    eval(QStringLiteral(
        "db.query('create table a(x)'); db.query('create table b(x)'); var trapped = 0;"
        "function trap() { ++trapped; return 'trap' }"
        "['TABLES', 'fields'].forEach(function(name) {"
        " Object.prototype.__defineGetter__(name, trap) });"
        "Object.prototype.__defineSetter__('rows', trap);"
        "Array.prototype.__defineGetter__('0', trap); Array.prototype.__defineSetter__('1', trap);"
        "var ok = db.tables(), r = db.queryResult"));
    QCOMPARE(json(QStringLiteral("[ok, r.TABLES, r.rows, r.fields, r.numRowsAffected]")),
             QStringLiteral("[true,[\"a\",\"b\"],2,1,0]"));
    QCOMPARE(
        text(QStringLiteral("(function() { var names = []; for (var n in r)"
                            " if (r.propertyIsEnumerable(n)) names.push(n); return names })()")),
        QStringLiteral("rows,fields,numRowsAffected"));
    QVERIFY(truth(QStringLiteral(
        "delete r.TABLES[0], r.rows = 1, r.fields = 2, r.TABLES[0] === 'a' && r.rows === 2 &&"
        "r.fields === 1 && !(delete r.TABLES) && !(delete r.rows) &&"
        "Object.getPrototypeOf(r) === Object.prototype && r.TABLES instanceof Array")));
    QCOMPARE(number(QStringLiteral("trapped")), 0.0);
}

void TestHostilePrototypes::accessorsTakeNothingOfCounters()
{
    openSqlite();
    eval(QStringLiteral(
        "db.add_event('e0'); db.add_event('e1'); var trapped = 0;"
        "function trap() { ++trapped; return 'trap' }"
        "['cnt_open', 'driver', 'subscribeEvents'].forEach(function(name) {"
        " Object.prototype.__defineGetter__(name, trap) });"
        "Object.prototype.__defineSetter__('cnt_opened', trap);"
        "Array.prototype.__defineGetter__('0', trap); Array.prototype.__defineSetter__('1', trap);"
        "var c = db.counters(scriptEngine)"));
    QCOMPARE(json(QStringLiteral("[c.cnt_open, c.cnt_opened, c.driver]")),
             QStringLiteral("[1,1,\"QSQLITE\"]"));
    QVERIFY(truth(QStringLiteral("c.subscribeEvents.length === 2 && / e0$/.test("
                                 "c.subscribeEvents[0]) && / e1$/.test(c.subscribeEvents[1])")));
    QVERIFY(truth(QStringLiteral("c.cnt_open = 5, c.cnt_open === 1 && !(delete c.cnt_open) &&"
                                 "Object.getPrototypeOf(c) === Object.prototype")));
    QCOMPARE(number(QStringLiteral("trapped")), 0.0);
}

void TestHostilePrototypes::accessorsTakeNoQueryResult()
{
    openSqlite();
    eval(QStringLiteral("var set = 0; Object.prototype.__defineGetter__('queryResult', function() {"
                        " return 'trap' })"));
    eval(QStringLiteral("var r = db.query('SELECT 7 AS a')"));
    QVERIFY(truth(QStringLiteral("db.queryResult === r && r.a[0] === 7")));
    QVERIFY(truth(QStringLiteral("db.tables() && db.queryResult.fields === 1")));
    QVERIFY(truth(QStringLiteral("db.clear(), db.queryResult === 'trap'")));
    eval(QStringLiteral("Object.prototype.__defineSetter__('queryResult', function() { ++set })"));
    QVERIFY(truth(QStringLiteral("db.exec('SELECT 8 AS a') === db.queryResult && set === 0")));
}

void TestHostilePrototypes::namesStandInTheirOrder_data()
{
    addWays();
}

/// A name that comes again keeps its first place and its last value.
void TestHostilePrototypes::namesStandInTheirOrder()
{
    openSqlite();
    run(QStringLiteral("SELECT 1 AS a, 2 AS rows, 3 AS b, 4 AS a"));
    QCOMPARE(
        text(QStringLiteral(
            "(function() { var names = []; for (var n in r) names.push(n); return names })()")),
        QStringLiteral("a,rows,b,fields,numRowsAffected,lastInsertId,executedQuery,length,"
                       "fields_names,fields_index,fields_nulls,fields_types,fields_typeN"));
    QCOMPARE(json(QStringLiteral("[r.a, r.rows]")), QStringLiteral("[[4],1]"));
}

QTEST_GUILESS_MAIN(TestHostilePrototypes)

#include "test_hostile_prototypes.moc"
