/// @file
/// The script library with many rows: insertRows and pages.

#include "library_script.h"

#include <QtTest>

class TestLibraryBulk : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void rowsArriveAsTheyWere_data();
    void rowsArriveAsTheyWere();
    void rowsMayComeFromAFunction_data();
    void rowsMayComeFromAFunction();
    void progressIsTold();
    void failureLeavesNothingBehind_data();
    void failureLeavesNothingBehind();
    void rowOfAnotherLengthIsAnError();
    void tooLongTextIsNotCut();
    void rowsMayBePartOfATransaction();
    void quotedNamesAndArraysAreStored();

    void pagesGoThroughTheWholeTable_data();
    void pagesGoThroughTheWholeTable();
    void pagesGoBySeveralColumns_data();
    void pagesGoBySeveralColumns();
    void pagesEndWhenTheyAreTold_data();
    void pagesEndWhenTheyAreTold();
    void pagesWaitForTheReader_data();
    void pagesWaitForTheReader();
    void keyThatIsNullIsAnError();
    void keyThatIsTooLargeIsAnError();
    void pagesComeFromACursor();
    void cursorNeedsPostgres();

private:
    LibraryDatabases m_databases;
};

#define FETCH_PARAMETERS()                                                                         \
    QFETCH(QString, parameters);                                                                   \
    QFETCH(QString, skip);                                                                         \
    if (!skip.isEmpty())                                                                           \
    QSKIP(qPrintable(skip))

#define SYSTEMS(name)                                                                              \
    void TestLibraryBulk::name##_data()                                                            \
    {                                                                                              \
        m_databases.addRows();                                                                     \
    }

namespace
{

/// `db`, open, with an empty table "t".
QString prepared(const QString &parameters, const char *code)
{
    return QString::fromUtf8(R"js(
        var settings = %1, db = open(settings);
        must(db, "DROP TABLE IF EXISTS t");
        must(db, "CREATE TABLE t (id INTEGER PRIMARY KEY, note " +
            (settings.driverName === "QMYSQL" ? "VARCHAR(200) CHARACTER SET utf8mb4" : "TEXT") +
            ", price DOUBLE PRECISION, good BOOLEAN)");
        function count() {
            return Number(must(db, "SELECT count(*) AS n FROM t").fields_index[0][0]);
        }
    )js")
               .arg(parameters) +
           QString::fromUtf8(code);
}

/// `db` with `n` rows in "t", their ids from 1.
QString filledWith(const QString &parameters, int n, const char *code)
{
    return prepared(parameters, "") +
           QStringLiteral(
               "vext.insertRows(db, 't', ['id', 'note'], function (n) {"
               "    return n < %1 ? [n + 1, 'n' + n % 7] : null;"
               "}, function (error) { if (error) { done(error.message); return; } %2 });")
               .arg(n)
               .arg(QString::fromUtf8(code));
}

} // namespace

void TestLibraryBulk::initTestCase()
{
    QString error;
    QVERIFY2(m_databases.start(&error), qPrintable(error));
}

SYSTEMS(rowsArriveAsTheyWere)
void TestLibraryBulk::rowsArriveAsTheyWere()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var texts = ["plain", "it's", "\\", "\"", "\\\"'", "{a,b}", "NULL", "null", "", " ", "\n\t\r\b\f\u0001",
            "\u0416\u0443\u043a", "[1]", ",", "\\n", "\\u0041", "/", "$1 ? :a", null, undefined];
        var numbers = [0, -1, 1.5, 1e300, -1e-300, 1 / 3, null], rows = [];
        for (var i = 0; i < 2000; i++) {
            rows.push([i, texts[i % texts.length], numbers[i % numbers.length], [true, false, null][i % 3]]);
        }
        vext.insertRows(db, "t", ["id", "note", "price", "good"], rows, function (error, stored) {
            var wrong = [], back = must(db, "SELECT id, note, price, good FROM t ORDER BY id").fields_index;
            for (i = 0; i < rows.length; i++) {
                var good = back[3][i] === null ? null : Boolean(back[3][i]);
                var row = [back[0][i], back[1][i], back[2][i], good];
                if (JSON.stringify(row) !== JSON.stringify(rows[i])) {
                    wrong.push(row);
                }
            }
            done([told(error), stored, wrong.slice(0, 5)]);
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",2000,[]]"));
}

SYSTEMS(rowsMayComeFromAFunction)
void TestLibraryBulk::rowsMayComeFromAFunction()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var asked = 0;
        vext.insertRows(db, "t", ["id", "note"], function (n) {
            asked++;
            return n < 12345 ? [n, "row " + n] : null;
        }, function (error, stored) {
            done([told(error), stored, asked, count()]);
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",12345,12346,12345]"));
}

void TestLibraryBulk::progressIsTold()
{
    LibraryScript script;
    TestDatabase *sqlite = m_databases.find(QStringLiteral("SQLite file"));
    const QString outcome = script.outcome(prepared(literalOf(sqlite->parameters()), R"js(
        var rows = [], seen = [];
        for (var i = 0; i < 25; i++) {
            rows.push([i, "x"]);
        }
        vext.insertRows(db, "t", ["id", "note"], rows, function (error, stored) {
            done([told(error), stored, seen]);
        }, {chunk: 10, onProgress: function (sofar, total) { seen.push(sofar + "/" + total); }});
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",25,[\"10/25\",\"20/25\",\"25/25\"]]"));
}

SYSTEMS(failureLeavesNothingBehind)
void TestLibraryBulk::failureLeavesNothingBehind()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var rows = [];
        for (var i = 0; i < 50; i++) {
            rows.push([i === 45 ? 3 : i, "x"]);
        }
        vext.insertRows(db, "t", ["id", "note"], rows, function (error, stored) {
            done([error.kind, stored === undefined, count()]);
        }, {chunk: 10});
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"duplicate\",true,0]"));
}

void TestLibraryBulk::rowOfAnotherLengthIsAnError()
{
    LibraryScript script;
    TestDatabase *sqlite = m_databases.find(QStringLiteral("SQLite file"));
    const QString outcome = script.outcome(prepared(literalOf(sqlite->parameters()), R"js(
        vext.insertRows(db, "t", ["id", "note"], [[1, "a"], [2]], function (error) {
            done([error.message, count()]);
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"vext: a row has 1 values, not 2\",0]"));
}

void TestLibraryBulk::tooLongTextIsNotCut()
{
    TestDatabase *postgres = m_databases.find(QStringLiteral("PostgreSQL"));
    if (!postgres)
        QSKIP("not installed: PostgreSQL");
    LibraryScript script;
    const QString outcome = script.outcome(prepared(literalOf(postgres->parameters()), R"js(
        must(db, "DROP TABLE IF EXISTS narrow");
        must(db, "CREATE TABLE narrow (a varchar(3), b char(3), c numeric(4, 1))");
        vext.insertRows(db, "narrow", ["a"], [["long"]], function (error) {
            vext.insertRows(db, "narrow", ["a", "b", "c"], [["abc", "xyz", 1.25]], function (other) {
                var row = vext.one(must(db, "SELECT a, b, c::text FROM narrow"), true);
                done([told(error), told(other), row]);
            });
        });
    )js"));
    QCOMPARE(outcome,
             QStringLiteral(
                 "[\"statement 22001\",\"none\",{\"a\":\"abc\",\"b\":\"xyz\",\"c\":\"1.3\"}]"));
}

void TestLibraryBulk::rowsMayBePartOfATransaction()
{
    LibraryScript script;
    TestDatabase *sqlite = m_databases.find(QStringLiteral("SQLite file"));
    const QString outcome = script.outcome(prepared(literalOf(sqlite->parameters()), R"js(
        vext.transaction(db, function (tx, finish) {
            vext.insertRows(tx, "t", ["id"], [[1], [2]], function (error, stored) {
                tx.query("SELECT count(*) AS n FROM t", function (failed, result) {
                    finish("rolled back after " + stored + " and " + result.n[0]);
                });
            });
        }, function (error) { done([error, count()]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"rolled back after 2 and 2\",0]"));
}

void TestLibraryBulk::quotedNamesAndArraysAreStored()
{
    TestDatabase *postgres = m_databases.find(QStringLiteral("PostgreSQL"));
    if (!postgres)
        QSKIP("not installed: PostgreSQL");
    LibraryScript script;
    const QString outcome = script.outcome(prepared(literalOf(postgres->parameters()), R"js(
        must(db, "DROP TABLE IF EXISTS \"Odd Name\"");
        must(db, "CREATE TABLE \"Odd Name\" (\"Id\" int, list int[], at timestamptz, bits bit(3))");
        vext.insertRows(db, "\"Odd Name\"", ["\"Id\"", "AT", "bits"], [[1, new Date(0), "101"]], function (error) {
            vext.insertRows(db, "\"Odd Name\"", ["\"Id\"", "list"], [[2, "{1,2}"]], function (other) {
                var rows = must(db, "SELECT \"Id\", list, extract(epoch FROM at)::int, bits FROM \"Odd Name\" " +
                    "ORDER BY 1").fields_index;
                done([told(error), told(other), rows]);
            });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral(
                          "[\"none\",\"none\",[[1,2],[null,\"{1,2}\"],[0,null],[\"101\",null]]]"));
}

SYSTEMS(pagesGoThroughTheWholeTable)
void TestLibraryBulk::pagesGoThroughTheWholeTable()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 2500, R"js(
        var sizes = [], next = 1, right = true;
        vext.pages(db, {sql: "SELECT id, note FROM t WHERE id > ?", values: [0], key: "id", size: 1000},
            function (page) {
                sizes.push(page.rows);
                vext.each(page, function (row) { right = right && row.id === next++; }, true);
            }, function (error, seen) { done([told(error), sizes, right, seen]); });
    )js"));
    QCOMPARE(outcome,
             QStringLiteral(
                 "[\"none\",[1000,1000,500],true,{\"rows\":2500,\"pages\":3,\"stopped\":false}]"));
}

SYSTEMS(pagesGoBySeveralColumns)
void TestLibraryBulk::pagesGoBySeveralColumns()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 100, R"js(
        var keys = [], expected = [];
        for (var i = 0; i < 100; i++) {
            expected.push("n" + i % 7 + ":" + (1000 + i + 1));
        }
        var pool = vext.pool(settings);
        vext.pages(pool, {sql: "SELECT note, id FROM t", key: ["note", "id"], size: 9}, function (page) {
            vext.each(page, function (row) { keys.push(row.note + ":" + (1000 + row.id)); }, true);
        }, function (error, seen) {
            pool.close(function () {
                done([told(error), keys.join() === expected.sort().join(), seen.rows]);
            });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",true,100]"));
}

SYSTEMS(pagesEndWhenTheyAreTold)
void TestLibraryBulk::pagesEndWhenTheyAreTold()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 100, R"js(
        var seenPages = 0;
        vext.pages(db, {sql: "SELECT id FROM t", key: "id", size: 10}, function () {
            return ++seenPages < 3;
        }, function (error, seen) { done([told(error), seenPages, seen]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",3,{\"rows\":30,\"pages\":3,\"stopped\":true}]"));
}

SYSTEMS(pagesWaitForTheReader)
void TestLibraryBulk::pagesWaitForTheReader()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 30, R"js(
        var inside = 0, most = 0;
        vext.pages(db, {sql: "SELECT id FROM t", key: "id", size: 10}, function (page, next) {
            most = Math.max(most, ++inside);
            setTimeout(function () {
                inside--;
                next();
                next(); // heard once
            }, 5);
        }, function (error, seen) { done([told(error), most, seen.pages]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",1,3]"));
}

void TestLibraryBulk::keyThatIsNullIsAnError()
{
    LibraryScript script;
    TestDatabase *sqlite = m_databases.find(QStringLiteral("SQLite file"));
    const QString outcome = script.outcome(filledWith(literalOf(sqlite->parameters()), 3, R"js(
        vext.pages(db, {sql: "SELECT id, price FROM t", key: "price", size: 1}, function () {},
            function (error) { done(error.message); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("\"vext: the key price is NULL\""));
}

void TestLibraryBulk::keyThatIsTooLargeIsAnError()
{
    LibraryScript script;
    TestDatabase *sqlite = m_databases.find(QStringLiteral("SQLite file"));
    const QString outcome = script.outcome(filledWith(literalOf(sqlite->parameters()), 3, R"js(
        vext.pages(db, {sql: "SELECT id + 9007199254740993 AS k FROM t", key: "k", size: 1}, function () {},
            function (error) { done(/more digits/.test(error.message)); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("true"));
}

void TestLibraryBulk::pagesComeFromACursor()
{
    TestDatabase *postgres = m_databases.find(QStringLiteral("PostgreSQL"));
    if (!postgres)
        QSKIP("not installed: PostgreSQL");
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(literalOf(postgres->parameters()), 2500, R"js(
        var sizes = [];
        vext.pages(db, {sql: "SELECT note FROM t WHERE note <> ?", values: ["it's"], size: 1000}, function (page) {
            sizes.push(page.rows);
        }, function (error, seen) {
            vext.pages(db, {sql: "SELECT note FROM t", size: 10}, function () { return false; },
                function (other, stopped) { done([told(error), sizes, seen, told(other), stopped]); });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral(
                          "[\"none\",[1000,1000,500],{\"rows\":2500,\"pages\":3,\"stopped\":false},"
                          "\"none\",{\"rows\":10,\"pages\":1,\"stopped\":true}]"));
}

void TestLibraryBulk::cursorNeedsPostgres()
{
    LibraryScript script;
    TestDatabase *sqlite = m_databases.find(QStringLiteral("SQLite file"));
    const QString outcome = script.outcome(filledWith(literalOf(sqlite->parameters()), 3, R"js(
        vext.pages(db, {sql: "SELECT note FROM t"}, function () {}, function (error) {
            done(/pages need a key/.test(error.message));
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("true"));
}

QTEST_GUILESS_MAIN(TestLibraryBulk)
#include "test_library_bulk.moc"
