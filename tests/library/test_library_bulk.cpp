/// @file
/// The script library with many rows: insertRows and pages.

#include "library_script.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

class TestLibraryBulk : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void rowsArriveAsTheyWere_data();
    void rowsArriveAsTheyWere();
    void rowsMayComeFromAFunction_data();
    void rowsMayComeFromAFunction();
    void charactersBeyondTheBasicPlaneAreStored_data();
    void charactersBeyondTheBasicPlaneAreStored();
    void progressIsTold();
    void longRowsGoInStatementsThatTheServerTakes_data();
    void longRowsGoInStatementsThatTheServerTakes();
    void failureLeavesNothingBehind_data();
    void failureLeavesNothingBehind();
    void whatCannotBeStoredIsAnError_data();
    void whatCannotBeStoredIsAnError();
    void wrongArgumentsAreTypeErrors_data();
    void wrongArgumentsAreTypeErrors();
    void exceptionReachesDoneInATransaction_data();
    void exceptionReachesDoneInATransaction();
    void exceptionOfDoneEndsTheTransaction();
    void tooLongTextIsNotCut();
    void rowsMayBePartOfATransaction();
    void noRowsAreStoredAtOnce_data();
    void noRowsAreStoredAtOnce();
    void doneIsNotCalledBeforeInsertRowsReturns_data();
    void doneIsNotCalledBeforeInsertRowsReturns();
    void quotedNamesAndArraysAreStored();
    void numbersAreExact_data();
    void numbersAreExact();
    void textWithZeroIsNotCut_data();
    void textWithZeroIsNotCut();
    void valuesOfEveryKindAreStored_data();
    void valuesOfEveryKindAreStored();
    void statementIsWrittenWhileOneRuns();

    void pagesGoThroughTheWholeTable_data();
    void pagesGoThroughTheWholeTable();
    void pagesGoBySeveralColumns_data();
    void pagesGoBySeveralColumns();
    void pagesEndWhenTheyAreTold_data();
    void pagesEndWhenTheyAreTold();
    void pagesWaitForTheReader_data();
    void pagesWaitForTheReader();
    void onPageThatThrowsEndsThePages_data();
    void onPageThatThrowsEndsThePages();
    void pagesTakeAnySizeAndComments_data();
    void pagesTakeAnySizeAndComments();
    void mistakesHaveAKind();
    void keyMayBeQuoted_data();
    void keyMayBeQuoted();
    void keyThatNamesTwoColumnsIsAnError();
    void orderInTheKeyIsAnError();
    void keyThatIsNullIsAnError();
    void keyThatIsTooLargeIsAnError();
    void keyThatComesTwiceIsAnError_data();
    void keyThatComesTwiceIsAnError();
    void keyThatComesTwiceBetweenPagesIsAnError_data();
    void keyThatComesTwiceBetweenPagesIsAnError();
    void keyFinerThanAScriptValueIsAnError();
    void pageHasNoTraceOfTheNextOne_data();
    void pageHasNoTraceOfTheNextOne();
    void cursorLeavesAStatementWithoutValuesAlone();
    void pagesComeFromACursor();
    void transactionMayHaveSeveralCursors();
    void cursorThatIsLostIsAnError();
    void cursorNeedsPostgres();

private:
    LibraryDatabases m_databases;
};

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

SYSTEMS(rowsArriveAsTheyWere)
void TestLibraryBulk::rowsArriveAsTheyWere()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var texts = ["plain", "it's", "\\", "\"", "\\\"'", "{a,b}", "NULL", "null", "", " ", "\n\t\r\b\f\u0001",
            "\u0416\u0443\u043a", "[1]", ",", "\\n", "\\u0041", "/", "$1 ? :a", "Null", "{}", "{",
            "\"\"", "\",\"", "''", "\\'", " lead", "trail ", "\r\n", "\u00a0", "5", "1e3", "true", null, undefined];
        var numbers = [0, -1, 1.5, 1e300, -1e-300, 1 / 3, null], rows = [], wrong = [];
        for (var i = 0; i < 2000; i++) {
            rows.push([i, texts[i % texts.length], numbers[i % numbers.length], [true, false, null][i % 3]]);
        }
        function compare(stored) {
            var back = must(db, "SELECT id, note, price, good FROM t ORDER BY id").fields_index;
            for (i = 0; i < rows.length; i++) {
                var good = back[3][i] === null ? null : Boolean(back[3][i]);
                var row = [back[0][i], back[1][i], back[2][i], good];
                if (JSON.stringify(row) !== JSON.stringify(rows[i])) {
                    wrong.push([stored, row]);
                }
            }
        }
        // In few statements; and in statements of rows whose columns hold one kind of value only.
        vext.insertRows(db, "t", ["id", "note", "price", "good"], rows, function (error, stored) {
            compare("many");
            must(db, "DELETE FROM t");
            rows = rows.slice(0, 120);
            vext.insertRows(db, "t", ["id", "note", "price", "good"], rows, function (other, single) {
                compare("single");
                done([told(error), stored, told(other), single, wrong.slice(0, 5)]);
            }, {chunk: 1});
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",2000,\"none\",120,[]]"));
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

SYSTEMS(charactersBeyondTheBasicPlaneAreStored)
void TestLibraryBulk::charactersBeyondTheBasicPlaneAreStored()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    // Read as digits: Qt's connection to MariaDB cannot carry them.
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var rows = [[1, "\ud83d\ude00"], [2, "\"\ud83d\ude00'\\"], [3, null]];
        vext.insertRows(db, "t", ["id", "note"], rows, function (error) {
            var digits = settings.driverName === "QPSQL" ? "encode(convert_to(note, 'UTF8'), 'hex')" : "lower(hex(note))";
            done([told(error), must(db, "SELECT " + digits + " FROM t WHERE id < 3 ORDER BY id").fields_index[0]]);
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",[\"f09f9880\",\"22f09f9880275c\"]]"));
}

void TestLibraryBulk::progressIsTold()
{
    LibraryScript script;
    NEEDS("SQLite file", parameters);
    const QString outcome = script.outcome(prepared(parameters, R"js(
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

/// 24 MB of text: MariaDB takes no statement of more than 16 MB. The first statement knows nothing
/// about the rows yet.
SYSTEMS(longRowsGoInStatementsThatTheServerTakes)
void TestLibraryBulk::longRowsGoInStatementsThatTheServerTakes()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        must(db, "DROP TABLE IF EXISTS long_texts");
        must(db, "CREATE TABLE long_texts (id INTEGER, note " +
            (settings.driverName === "QMYSQL" ? "MEDIUMTEXT" : "TEXT") + ")");
        var text = new Array(200001).join("x"), steps = [], asked = 0, next = 0, ends = 0;
        vext.insertRows(db, "long_texts", ["id", "note"], function (n) {
            asked += n === next++ ? 1 : 0; // each row once
            ends += n === 120 ? 1 : 0;
            return n < 120 ? [n, text] : null;
        }, function (error, stored) {
            var last = 0, most = 0;
            steps.forEach(function (step) {
                most = Math.max(most, step - last);
                last = step;
            });
            var sum = must(db, "SELECT count(*), sum(length(note)), max(id) FROM long_texts").fields_index;
            must(db, "DROP TABLE long_texts");
            done([told(error), stored, asked, ends, most <= 20, Number(sum[0][0]), Number(sum[1][0]), Number(sum[2][0])]);
        }, {onProgress: function (stored) { steps.push(stored); }});
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",120,121,1,true,120,24000000,119]"));
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

void TestLibraryBulk::whatCannotBeStoredIsAnError_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("message");
    const auto row = [](const char *name, const char *arguments, const char *message) {
        QTest::newRow(name) << QString::fromUtf8(arguments)
                            << QStringLiteral("\"vext: ") + QString::fromUtf8(message) +
                                   QLatin1Char('"');
    };
    row("too few values", "[[1, 'a'], [2]]", "a row has 1 values, not 2");
    row("too many values", "[[1, 'a'], [2, 'b', 3]]", "a row has 3 values, not 2");
    row("no row", "[[1, 'a'], null]", "a row has null values, not 2");
    row("a text for a row", "['ab']", "a row is a list, not ab");
    row("an object that holds itself", "[[1, 'a'], [2, self]]",
        "a value of this type cannot be written into a statement: object");
    row("a list for a value", "[[1, [2]]]",
        "a value of this type cannot be written into a statement: object");
    row("a function for a value", "[[1, self.toString]]",
        "a value of this type cannot be written into a statement: function");
    row("digits that are none", "[[1, {toHex: function () { return \"'\"; }}]]",
        "toHex() gave no hexadecimal digits");
    row("a date that is none", "[[1, new Date(NaN)]]",
        "a date that is none cannot be written into a statement");
    row("rows that throw",
        "function (n) { if (n === 30) { throw new Error('vext: no more'); } "
        "return [n, 'x']; }",
        "no more");
    row("progress that throws",
        "[[1, 'a'], [2, 'b']], function () { throw new Error('vext: enough'); }", "enough");
    row("chunks of nothing", "[[1, 'a']], null, 0", "chunk is a number from 1 on, not 0");
    row("chunks of no number", "[[1, 'a']], null, 'many'", "chunk is a number from 1 on, not many");
}

void TestLibraryBulk::whatCannotBeStoredIsAnError()
{
    QFETCH(QString, arguments);
    QFETCH(QString, message);
    LibraryScript script;
    NEEDS("SQLite file", parameters);
    const QString code = QStringLiteral(R"js(
        var self = {}, counted = "";
        self.self = self;
        function insert(rows, progress, chunk) {
            vext.insertRows(db, "t", ["id", "note"], rows, function (error) {
                done(error.message + (count() ? " but stored" : ""));
            }, {chunk: chunk === undefined ? 10 : chunk, onProgress: progress || function () {}});
        }
        insert(%1);
    )js")
                             .arg(arguments);
    QCOMPARE(script.outcome(prepared(parameters, "") + code), message);
}

void TestLibraryBulk::wrongArgumentsAreTypeErrors_data()
{
    QTest::addColumn<QString>("call");
    QTest::newRow("no columns") << QStringLiteral("insertRows(db, 't', [], [[]])");
    QTest::newRow("columns in a text") << QStringLiteral("insertRows(db, 't', 'id', [[1]])");
    QTest::newRow("no rows") << QStringLiteral("insertRows(db, 't', ['id'], null)");
    QTest::newRow("pages of 0") << QStringLiteral("pages(db, {sql: 'SELECT id FROM t', key: 'id', "
                                                  "size: 0}, function () {})");
}

void TestLibraryBulk::wrongArgumentsAreTypeErrors()
{
    QFETCH(QString, call);
    LibraryScript script;
    NEEDS("SQLite file", parameters);
    const QString code =
        QStringLiteral("try { vext.%1; done('nothing thrown'); } catch (error) { "
                       "done(error instanceof TypeError && /^vext: /.test(error.message)); }");
    QCOMPARE(script.outcome(prepared(parameters, "") + code.arg(call)), QStringLiteral("true"));
}

void TestLibraryBulk::exceptionReachesDoneInATransaction_data()
{
    QTest::addColumn<QString>("rows");
    QTest::addColumn<QString>("progress");
    const QString throws = QStringLiteral("function () { throw new Error('thrown'); }");
    QTest::newRow("rows") << throws << QStringLiteral("null");
    QTest::newRow("progress") << QStringLiteral("[[1]]") << throws;
}

void TestLibraryBulk::exceptionReachesDoneInATransaction()
{
    QFETCH(QString, rows);
    QFETCH(QString, progress);
    LibraryScript script;
    NEEDS("SQLite file", parameters);
    const QString code = QStringLiteral(R"js(
        vext.transaction(db, function (tx, finish) {
            vext.insertRows(tx, "t", ["id"], %1, function (error) { finish(null, error.message); },
                {onProgress: %2 || undefined});
        }, function (error, value) { done([told(error), value]); });
    )js")
                             .arg(rows, progress);
    QCOMPARE(script.outcome(prepared(parameters, "") + code),
             QStringLiteral("[\"none\",\"thrown\"]"));
}

void TestLibraryBulk::exceptionOfDoneEndsTheTransaction()
{
    LibraryScript script;
    NEEDS("SQLite file", parameters);
    const QString outcome = script.outcome(prepared(parameters, R"js(
        vext.transaction(db, function (tx, finish) {
            vext.insertRows(tx, "t", ["id"], [[1]], function () { throw new Error("thrown"); });
        }, function (error) { done([error.message, count()]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"thrown\",0]"));
}

void TestLibraryBulk::tooLongTextIsNotCut()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
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
    NEEDS("SQLite file", parameters);
    const QString outcome = script.outcome(prepared(parameters, R"js(
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

SYSTEMS(noRowsAreStoredAtOnce)
void TestLibraryBulk::noRowsAreStoredAtOnce()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var steps = 0;
        function step() { steps++; }
        vext.insertRows(db, "t", ["id"], [], function (error, stored, info) {
            vext.insertRows(db, "t", ["id"], function () { return null; }, function (other, none) {
                done([told(error), stored, info.attempts, told(other), none, steps, count()]);
            }, {onProgress: step});
        }, {onProgress: step});
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",0,1,\"none\",0,0,0]"));
}

SYSTEMS(doneIsNotCalledBeforeInsertRowsReturns)
void TestLibraryBulk::doneIsNotCalledBeforeInsertRowsReturns()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var returned = 0, early = [];
        vext.transaction(db, function (tx, finish) {
            vext.insertRows(tx, "t", ["id"], [], function () {
                early.push(returned === 0);
                vext.insertRows(tx, "t", ["id"], [[{}]], function () {
                    early.push(returned === 1);
                    finish();
                });
                returned++;
            });
            returned++;
        }, function () { done(early); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[false,false]"));
}

void TestLibraryBulk::quotedNamesAndArraysAreStored()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        must(db, "DROP TABLE IF EXISTS \"Odd Name\"");
        must(db, "CREATE TABLE \"Odd Name\" (\"Id\" int, list int[], at timestamptz, bits bit(3))");
        vext.insertRows(db, "\"Odd Name\"", ["\"Id\"", "AT", "bits"], [[1, new Date(0), "101"]], function (error) {
            vext.insertRows(db, "\"Odd Name\"", ["\"Id\"", "list"], [[2, "{1,2}"]], function (other) {
                var rows = must(db, "SELECT \"Id\", list, extract(epoch FROM at)::int, bits FROM \"Odd Name\" " +
                    "ORDER BY 1").fields_index;
                vext.pages(db, {sql: "SELECT \"Id\" FROM \"Odd Name\"", key: "\"Id\"", size: 1}, function () {},
                    function (failed, seen) { done([told(error), told(other), rows, told(failed), seen.rows]); });
            });
        });
    )js"));
    QCOMPARE(
        outcome,
        QStringLiteral(
            "[\"none\",\"none\",[[1,2],[null,\"{1,2}\"],[0,null],[\"101\",null]],\"none\",2]"));
}

SYSTEMS(numbersAreExact)
void TestLibraryBulk::numbersAreExact()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var numbers = [9007199254740991, -9007199254740991, 1e21, 2.2250738585072014e-308, 1.7976931348623157e308,
            0.1, 1 / 3, -1e-7, 123456789.125, 4294967296, -0], rows = [], wrong = [];
        for (var i = 0; i < 500; i++) {
            rows.push([i - 250, numbers[i] || (i - 250) * Math.pow(10, i % 40 - 20) / 7]);
        }
        vext.insertRows(db, "t", ["id", "price"], rows, function (error, stored) {
            var back = must(db, "SELECT id, price FROM t ORDER BY id").fields_index;
            for (i = 0; i < rows.length; i++) {
                if (back[0][i] !== rows[i][0] || back[1][i] !== rows[i][1]) {
                    wrong.push([rows[i], back[0][i], back[1][i]]);
                }
            }
            done([told(error), stored, wrong.slice(0, 5)]);
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",500,[]]"));
}

SYSTEMS(textWithZeroIsNotCut)
void TestLibraryBulk::textWithZeroIsNotCut()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var refused = [];
        function stored() {
            return must(db, "SELECT note FROM t ORDER BY id").fields_index[0];
        }
        vext.insertRows(db, "t", ["id", "note"], [[1, "a\\u0000b"]], function (error) {
            (function next(texts) {
                if (texts.length === 0) {
                    done([told(error), refused.join(), stored()]);
                    return;
                }
                vext.insertRows(db, "t", ["id", "note"], [[2, texts[0]], [3, null]], function (other) {
                    refused.push(/U\+0000 cannot be/.test(other && other.message));
                    must(db, "DELETE FROM t WHERE id > 1");
                    next(texts.slice(1));
                });
            })(["a\u0000b", "\u0000", "\u0000,"]);
        });
    )js"));
    const bool stores = parameters.contains(QLatin1String("QMYSQL"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",\"%1\",[\"a\\\\u0000b\"]]")
                          .arg(stores ? QStringLiteral("false,false,false")
                                      : QStringLiteral("true,true,true")));
}

void TestLibraryBulk::valuesOfEveryKindAreStored_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("values");
    QTest::addColumn<QString>("shown");
    QTest::addColumn<QString>("expected");
    const QString postgres = QStringLiteral("PostgreSQL");
    const QString sqlite = QStringLiteral("SQLite file");
    const QString text = QStringLiteral("v::text");
    QTest::newRow("NaN and infinities")
        << postgres << QStringLiteral("float8") << QStringLiteral("[1, NaN, Infinity, -Infinity]")
        << text << QStringLiteral("1,NaN,Infinity,-Infinity");
    QTest::newRow("NaN behind numbers of its own statement")
        << postgres << QStringLiteral("numeric") << QStringLiteral("[1, 2.5, NaN, null]") << text
        << QStringLiteral("1,2.5,NaN,");
    QTest::newRow("bytes, PostgreSQL")
        << postgres << QStringLiteral("bytea") << QStringLiteral("[bytes, null]")
        << QStringLiteral("encode(v, 'hex')") << QStringLiteral("00275cff,");
    QTest::newRow("bytes, SQLite")
        << sqlite << QStringLiteral("BLOB") << QStringLiteral("[bytes, 'text']")
        << QStringLiteral("hex(v) || typeof(v)") << QStringLiteral("00275CFFblob,74657874text");
    QTest::newRow("times") << postgres << QStringLiteral("timestamp")
                           << QStringLiteral("[new Date(0), null, '2024-02-29 12:00']") << text
                           << QStringLiteral("1970-01-01 00:00:00,,2024-02-29 12:00:00");
    QTest::newRow("booleans, PostgreSQL")
        << postgres << QStringLiteral("boolean") << QStringLiteral("[true, false, null]") << text
        << QStringLiteral("true,false,");
    QTest::newRow("booleans, SQLite")
        << sqlite << QStringLiteral("") << QStringLiteral("[true, false]")
        << QStringLiteral("v || typeof(v)") << QStringLiteral("1integer,0integer");
    QTest::newRow("numbers as texts, SQLite")
        << sqlite << QStringLiteral("") << QStringLiteral("[7, '7', 7.5, '007']")
        << QStringLiteral("v || typeof(v)") << QStringLiteral("7integer,7text,7.5real,007text");
    QTest::newRow("numbers for texts, PostgreSQL")
        << postgres << QStringLiteral("text") << QStringLiteral("[7, '7', '007', 'NULL', '{}']")
        << text << QStringLiteral("7,7,007,NULL,{}");
    QTest::newRow("JSON") << postgres << QStringLiteral("jsonb")
                          << QStringLiteral("['{\"a\": [1, \"\\\\\\\\\"]}', null]") << text
                          << QStringLiteral("{\"a\": [1, \"\\\\\"]},");
    // Arrays of boxes are the only ones that part their elements with a semicolon.
    QTest::newRow("boxes") << postgres << QStringLiteral("box")
                           << QStringLiteral("['(1,1),(0,0)', null, '(3,3),(2,2)']") << text
                           << QStringLiteral("(1,1),(0,0),,(3,3),(2,2)");
    QTest::newRow("composites") << postgres << QStringLiteral("pair")
                                << QStringLiteral("['(1,\"it\\'s\")', null]") << text
                                << QStringLiteral("(1,it's),");
}

void TestLibraryBulk::valuesOfEveryKindAreStored()
{
    QFETCH(QString, system);
    QFETCH(QString, type);
    QFETCH(QString, values);
    QFETCH(QString, shown);
    QFETCH(QString, expected);
    TestDatabase *database = m_databases.find(system);
    if (!database)
        QSKIP(qPrintable(QStringLiteral("not installed: %1").arg(system)));
    LibraryScript script;
    // Once in one statement, and once in statements of one row.
    const QString code = QStringLiteral(R"js(
        var bytes = {toHex: function () { return "00275cff"; }}; // the host's, as far as the library looks
        must(db, "DROP TABLE IF EXISTS kinds");
        if ("%1" === "pair") {
            must(db, "DROP TYPE IF EXISTS pair");
            must(db, "CREATE TYPE pair AS (x int, y text)");
        }
        must(db, "CREATE TABLE kinds (n integer, v %1)");
        var values = %2, rows = [];
        for (var i = 0; i < values.length; i++) {
            rows.push([i, values[i]]);
        }
        function shown() {
            return must(db, "SELECT %3 AS v FROM kinds ORDER BY n").fields_index[0].join();
        }
        vext.insertRows(db, "kinds", ["n", "v"], rows, function (error) {
            var whole = told(error) + " " + shown();
            must(db, "DELETE FROM kinds");
            vext.insertRows(db, "kinds", ["n", "v"], rows, function (other) {
                done([whole, told(other) + " " + shown()]);
            }, {chunk: 1});
        });
    )js")
                             .arg(type, values, shown);
    const QString outcome = script.outcome(prepared(literalOf(database->parameters()), "") + code);
    const QJsonArray answers = QJsonDocument::fromJson(outcome.toUtf8()).array();
    QCOMPARE(answers.at(0).toString(outcome), QStringLiteral("none ") + expected);
    QCOMPARE(answers.at(1).toString(), QStringLiteral("none ") + expected);
}

void TestLibraryBulk::statementIsWrittenWhileOneRuns()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    // The rows of the third statement are asked for while the second one waits for a lock, which
    // is given back then.
    const QString outcome = script.outcome(prepared(parameters, R"js(
        var other = open(settings), running = 0, tries = 0;
        must(db, "DROP TABLE IF EXISTS watched");
        must(db, "CREATE TABLE watched (n int)");
        must(db, "CREATE OR REPLACE FUNCTION wait_for_lock() RETURNS trigger LANGUAGE plpgsql AS " +
            "'BEGIN IF EXISTS (SELECT FROM watched) THEN PERFORM pg_advisory_xact_lock(471); END IF; " +
            "RETURN NULL; END'");
        must(db, "CREATE TRIGGER wait BEFORE INSERT ON watched FOR EACH STATEMENT " +
            "EXECUTE FUNCTION wait_for_lock()");
        must(other, "SELECT pg_advisory_lock(471)");
        vext.insertRows(db, "watched", ["n"], function (n) {
            if (n === 20) {
                while (running === 0 && tries++ < 1000) {
                    running = Number(must(other, "SELECT count(*) AS n, pg_sleep(0.02) FROM pg_stat_activity " +
                        "WHERE wait_event = 'advisory' AND pid <> pg_backend_pid()").fields_index[0][0]);
                }
                must(other, "SELECT pg_advisory_unlock(471)");
            }
            return n < 25 ? [n] : null;
        }, function (error, stored) {
            done([told(error), stored, running]);
        }, {chunk: 10});
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",25,1]"));
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

void TestLibraryBulk::onPageThatThrowsEndsThePages_data()
{
    QTest::addColumn<QString>("onPage");
    QTest::newRow("at once") << QStringLiteral("function () { seen++; throw 'enough'; }");
    QTest::newRow("behind next()")
        << QStringLiteral("function (page, next) { seen++; next(); throw 'enough'; }");
}

void TestLibraryBulk::onPageThatThrowsEndsThePages()
{
    QFETCH(QString, onPage);
    LibraryScript script;
    NEEDS("SQLite file", parameters);
    const QByteArray code = QStringLiteral(R"js(
        var seen = 0, ends = 0;
        vext.pages(db, {sql: "SELECT id FROM t", key: "id", size: 1}, %1, function (error) {
            ends++;
            // Behind the page that is under way.
            db.query_thread(function () { done([error, seen, ends]); }, "SELECT 1");
        });
    )js")
                                .arg(onPage)
                                .toUtf8();
    QCOMPARE(script.outcome(filledWith(parameters, 5, code.constData())),
             QStringLiteral("[\"enough\",1,1]"));
}

SYSTEMS(pagesTakeAnySizeAndComments)
void TestLibraryBulk::pagesTakeAnySizeAndComments()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 5, R"js(
        vext.pages(db, {sql: "SELECT id FROM t -- all", key: "id", size: Infinity}, function () {},
            function (failed, seen) { done([failed && failed.message, seen && seen.rows]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[null,5]"));
}

/// As what the database refuses.
void TestLibraryBulk::mistakesHaveAKind()
{
    NEEDS("SQLite file", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 5, R"js(
        var heard = [], left = 5;
        function hear(failed) {
            heard.push(told(failed) + (failed.code === "" && failed.sql === "" ? "" : "?"));
            if (--left === 0) { done(heard.join()); }
        }
        vext.insertRows(db, "t", ["id"], [[1, 2]], hear);
        vext.insertRows(db, "t", ["id"], [[NaN]], hear);
        vext.pages(db, {sql: "SELECT 5 - id AS k, NULL AS n FROM t", key: "n"}, function () {}, hear);
        vext.pages(db, {sql: "SELECT 1 AS k FROM t", key: "k"}, function () {}, hear);
        vext.pages(db, {sql: "SELECT id FROM t"}, function () {}, hear);
    )js"));
    QCOMPARE(outcome, QStringLiteral("\"statement,statement,statement,statement,statement\""));
}

SYSTEMS(keyMayBeQuoted)
void TestLibraryBulk::keyMayBeQuoted()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 5, R"js(
        var key = {QMYSQL: "`Order`", QSQLITE: "[Order]"}[settings.driverName] || '"Order"';
        vext.pages(db, {sql: "SELECT id AS " + key + " FROM t", key: key, size: 2}, function () {},
            function (failed, seen) { done([failed && failed.message, seen && seen.rows]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[null,5]"));
}

void TestLibraryBulk::keyThatNamesTwoColumnsIsAnError()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 5, R"js(
        vext.pages(db, {sql: 'SELECT -id AS "ID", id FROM t', key: "id", size: 2}, function () {},
            function (error) { done(error && error.message); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("\"vext: the result has two columns id\""));
}

void TestLibraryBulk::orderInTheKeyIsAnError()
{
    LibraryScript script;
    NEEDS("SQLite file", parameters);
    const QString outcome = script.outcome(filledWith(parameters, 5, R"js(
        var seen = 0;
        vext.pages(db, {sql: "SELECT id FROM t", key: "id DESC", size: 2}, function () { seen++; },
            function (error) { done([error.message, seen]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"vext: the result has no column id desc\",0]"));
}

void TestLibraryBulk::keyThatIsNullIsAnError()
{
    LibraryScript script;
    NEEDS("SQLite file", parameters);
    const QString outcome = script.outcome(filledWith(parameters, 3, R"js(
        vext.pages(db, {sql: "SELECT id, price FROM t", key: "price", size: 1}, function () {},
            function (error) { done(error.message); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("\"vext: the key price is NULL\""));
}

void TestLibraryBulk::keyThatIsTooLargeIsAnError()
{
    LibraryScript script;
    NEEDS("SQLite file", parameters);
    const QString outcome = script.outcome(filledWith(parameters, 3, R"js(
        vext.pages(db, {sql: "SELECT id + 9007199254740993 AS k FROM t", key: "k", size: 1}, function () {},
            function (error) { done(/more digits/.test(error.message)); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("true"));
}

SYSTEMS(keyThatComesTwiceIsAnError)
void TestLibraryBulk::keyThatComesTwiceIsAnError()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 20, R"js(
        var seenRows = 0;
        function walk(key, then) {
            vext.pages(db, {sql: "SELECT id, note FROM t", key: key, size: 5}, function (page) {
                seenRows += page.rows;
            }, then);
        }
        walk("note", function (error) {
            var before = seenRows;
            walk(["note", "id"], function (other) {
                done([error && error.message, before, told(other), seenRows]);
            });
        });
    )js"));
    QCOMPARE(outcome,
             QStringLiteral("[\"vext: the key does not tell the rows apart\",0,\"none\",20]"));
}

SYSTEMS(keyThatComesTwiceBetweenPagesIsAnError)
void TestLibraryBulk::keyThatComesTwiceBetweenPagesIsAnError()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    // The last row of a page and the first one behind it.
    const QString outcome = script.outcome(filledWith(parameters, 20, R"js(
        var seenRows = 0;
        vext.pages(db, {sql: "SELECT id, CASE WHEN id > 10 THEN id - 1 ELSE id END AS k FROM t",
                key: "k", size: 5}, function (page) {
            seenRows += page.rows;
        }, function (error) { done([error && error.message, seenRows]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"vext: the key does not tell the rows apart\",5]"));
}

/// A script sees milliseconds: what it writes is less than the key was, and its row comes again.
void TestLibraryBulk::keyFinerThanAScriptValueIsAnError()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 20, R"js(
        var seenRows = 0;
        vext.pages(db, {sql: "SELECT timestamp '2024-01-01' + id * interval '1001 microseconds' AS k FROM t",
                key: "k", size: 5}, function (page) {
            seenRows += page.rows;
        }, function (error) { done([error && error.message, seenRows]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"vext: the key does not tell the rows apart\",5]"));
}

SYSTEMS(pageHasNoTraceOfTheNextOne)
void TestLibraryBulk::pageHasNoTraceOfTheNextOne()
{
    FETCH_PARAMETERS();
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 10, R"js(
        var seen = [], wrong = 0;
        vext.pages(db, {sql: "SELECT id, CASE WHEN id < 4 THEN 'x' END AS note FROM t", key: "id", size: 5},
            function (page) {
                seen.push(page.rows, page.length, vext.rows(page).length, page.fields_index[0].length,
                    page.fields_index[1].join(), page.fields_nulls[1].join());
                wrong += page.numRowsAffected === 6 ? 1 : 0;
            }, function (error, all) { done([told(error), seen, wrong, all.rows, all.pages]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",[5,5,5,5,\"x,x,x,,\",\"3,4\",5,5,5,5,\",,,,\","
                                     "\"0,1,2,3,4\"],0,10,2]"));
}

void TestLibraryBulk::cursorLeavesAStatementWithoutValuesAlone()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    // The question mark is an operator.
    const QString outcome = script.outcome(filledWith(parameters, 3, R"js(
        vext.pages(db, {sql: "SELECT id FROM t WHERE '{\"a\": 1}'::jsonb ? 'a'"}, function () {},
            function (error, seen) { done([told(error), seen && seen.rows]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",3]"));
}

void TestLibraryBulk::pagesComeFromACursor()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 2500, R"js(
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

void TestLibraryBulk::transactionMayHaveSeveralCursors()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 4, R"js(
        var order = [], left = 2;
        function walk(tx, name, finish) {
            vext.pages(tx, {sql: "SELECT id FROM t", size: 2}, function (page) {
                order.push(name + page.rows);
            }, function (error) {
                if (error || --left === 0) { finish(error); }
            });
        }
        vext.transaction(db, function (tx, finish) {
            walk(tx, "a", finish);
            walk(tx, "b", finish);
        }, function (error) { done([told(error), order.sort().join()]); });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",\"a2,a2,b2,b2\"]"));
}

/// Its pages have been handed over: they do not begin again.
void TestLibraryBulk::cursorThatIsLostIsAnError()
{
    NEEDS("PostgreSQL", parameters);
    LibraryScript script;
    const QString outcome = script.outcome(filledWith(parameters, 9, R"js(
        var pool = vext.pool(settings), seen = 0;
        vext.pages(pool, {sql: "SELECT id, pg_backend_pid() AS pid FROM t", size: 3}, function (page) {
            seen++;
            must(db, "SELECT pg_terminate_backend(" + page.PID[0] + ", 10000)");
        }, function (error) {
            pool.close(function () { done([error.kind, error.message, seen]); });
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("[\"lost\",\"the cursor was lost with its transaction\",1]"));
}

void TestLibraryBulk::cursorNeedsPostgres()
{
    LibraryScript script;
    NEEDS("SQLite file", parameters);
    const QString outcome = script.outcome(filledWith(parameters, 3, R"js(
        vext.pages(db, {sql: "SELECT note FROM t"}, function () {}, function (error) {
            done(/pages need a key/.test(error.message));
        });
    )js"));
    QCOMPARE(outcome, QStringLiteral("true"));
}

QTEST_GUILESS_MAIN(TestLibraryBulk)
#include "test_library_bulk.moc"
