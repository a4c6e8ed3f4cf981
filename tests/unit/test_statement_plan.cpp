// The placeholder rules: heads and procedures are completed, values find their places, and a wrong
// number of them is told.
#include "statement_plan.h"

#include <QtTest>

Q_DECLARE_METATYPE(SqlDialect)

namespace
{
constexpr auto Pg = SqlDialect::PostgreSql;
constexpr auto Maria = SqlDialect::MariaDb;
constexpr auto Fb = SqlDialect::Firebird;
constexpr auto Lite = SqlDialect::Sqlite;
constexpr auto Odbc = SqlDialect::Odbc;

QString numbers(const QVector<int> &list)
{
    QStringList texts;
    for (int number : list)
        texts.append(QString::number(number));
    return texts.join(QLatin1Char(' '));
}
} // namespace

class TestStatementPlan : public QObject
{
    Q_OBJECT

private slots:
    void textIsCompleted_data();
    void textIsCompleted();
    void completeTextStaysAsItIs_data();
    void completeTextStaysAsItIs();
    void valuesFindTheirPlaces_data();
    void valuesFindTheirPlaces();
    void wrongNumberNamesBoth_data();
    void wrongNumberNamesBoth();
    void literalsStandApart_data();
    void literalsStandApart();
    void statementIsDescribed_data();
    void statementIsDescribed();
    void semicolonPartsStatements_data();
    void semicolonPartsStatements();
    void thousandValues();
    void falseMarksAreTakenAway();
};

void TestStatementPlan::textIsCompleted_data()
{
    QTest::addColumn<SqlDialect>("dialect");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("count");
    QTest::addColumn<QString>("complete");
    const auto row = [](const char *name, SqlDialect dialect, const char *text, int count,
                        const char *complete) {
        QTest::newRow(name) << dialect << QString::fromUtf8(text) << count
                            << QString::fromUtf8(complete);
    };
    row("insert head", Lite, "INSERT INTO t VALUES", 2, "INSERT INTO t VALUES(?,?)");
    row("insert head with columns", Maria, "insert into t (a, b) values", 2,
        "insert into t (a, b) values(?,?)");
    row("list head", Pg, "SELECT * FROM t WHERE id IN", 3, "SELECT * FROM t WHERE id IN(?,?,?)");
    row("function head", Pg, "SELECT f", 1, "SELECT f(?)");
    row("function head in a clause", Pg, "SELECT * FROM t WHERE id = ANY", 1,
        "SELECT * FROM t WHERE id = ANY(?)");
    row("comparison head", Pg, "SELECT * FROM t WHERE (a, b) =", 2,
        "SELECT * FROM t WHERE (a, b) =(?,?)");
    row("head and timing mark", Lite, "INSERT INTO t VALUES --", 2, "INSERT INTO t VALUES(?,?) --");
    row("head and comment", Lite, "INSERT INTO t VALUES /* later */ ", 1,
        "INSERT INTO t VALUES(?) /* later */ ");
    row("head behind a comment", Odbc, "/* a */ -- b\n INSERT INTO t VALUES", 1,
        "/* a */ -- b\n INSERT INTO t VALUES(?)");
    row("values", Pg, "VALUES", 2, "VALUES(?,?)");
    row("more rows", Pg, "VALUES (1, 2),", 2, "VALUES (1, 2),(?,?)");
    row("call head", Maria, "CALL p", 2, "CALL p(?,?)");
    row("replace head", Maria, "REPLACE INTO t VALUES", 1, "REPLACE INTO t VALUES(?)");
    row("execute head", Fb, "EXECUTE PROCEDURE p", 2, "EXECUTE PROCEDURE p(?,?)");

    row("procedure on Firebird", Fb, "p", 2, "EXECUTE PROCEDURE p(?,?)");
    row("procedure on MariaDB", Maria, "p", 2, "CALL p(?,?)");
    row("procedure through ODBC", Odbc, "p", 2, "{call p(?,?)}");
    row("procedure through ODBC to PostgreSQL", SqlDialect::OdbcPostgreSql, "p", 1, "{call p(?)}");
    row("procedure through ODBC to SQLite", SqlDialect::OdbcSqlite, "abs", 1, "SELECT abs(?)");
    row("function on SQLite", Lite, "abs", 1, "SELECT abs(?)");
    row("function on PostgreSQL", Pg, "f", 2, "SELECT f(?,?)");
    row("procedure without values on Firebird", Fb, "p", 0, "EXECUTE PROCEDURE p");
    row("procedure without values on MariaDB", Maria, "p", 0, "CALL p()");
    row("procedure without values through ODBC", Odbc, "p", 0, "{call p()}");
    row("function without values", Pg, "f", 0, "SELECT f()");
    row("value that takes no parentheses", Pg, "current_date", 0, "SELECT current_date");
    row("procedure and timing mark", Fb, "p --", 2, "EXECUTE PROCEDURE p(?,?) --");
    row("procedure through ODBC and comment", Odbc, " p /* x */", 1, " {call p(?)} /* x */");
    row("procedure behind a comment", Maria, "# x\n p", 1, "# x\n CALL p(?)");
    row("qualified procedure", Pg, "s . \"My f\"", 1, "SELECT s . \"My f\"(?)");
    row("procedure in any script", Fb, "процедура", 1, "EXECUTE PROCEDURE процедура(?)");
    row("procedure with its arguments", Fb, "p(1, 2)", 0, "EXECUTE PROCEDURE p(1, 2)");
    row("procedure with placeholders", Maria, "p(?, :b)", 2, "CALL p(?, :b)");
    row("expression", Pg, "1 + 1", 0, "SELECT 1 + 1");
    row("expression in parentheses", Pg, "(1 + ?)", 1, "SELECT (1 + ?)");
    row("procedure named like a verb", Lite, "replace", 3, "SELECT replace(?,?,?)");
    row("call named like a verb", Lite, "replace('a', 'b', ?)", 1, "SELECT replace('a', 'b', ?)");
    row("qualified by a verb", Maria, "show.p", 1, "CALL show.p(?)");
    row("selection is a name", Fb, "selection", 1, "EXECUTE PROCEDURE selection(?)");
    row("long s is no s", Pg, "ſelect", 1, "SELECT ſelect(?)");
}

void TestStatementPlan::textIsCompleted()
{
    QFETCH(SqlDialect, dialect);
    QFETCH(QString, text);
    QFETCH(int, count);
    QTEST(StatementPlan::complete(dialect, text, count), "complete");
}

void TestStatementPlan::completeTextStaysAsItIs_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("count");
    const auto row = [](const char *text, int count) {
        QTest::newRow(text) << QString::fromUtf8(text) << count;
    };
    row("UPDATE t SET a = ? WHERE id = ?", 2);
    row("UPDATE t SET a = :a WHERE id = :id", 2);
    row("\n\t-- why\n/* and */ UPDATE t SET a = ?", 1);
    row("INSERT INTO t VALUES (?, ?) ON CONFLICT DO NOTHING RETURNING id", 2);
    row("INSERT INTO t VALUES (?, ?) RETURNING id", 2);
    row("INSERT INTO t (a) VALUES (1)", 1);
    row("INSERT INTO t", 1);
    row("INSERT INTO s.t", 1);
    row("DELETE FROM t", 1);
    row("DELETE FROM t WHERE a IS NULL", 1);
    row("UPDATE t", 1);
    row("SELECT * FROM t FOR UPDATE", 1);
    row("SELECT * FROM t ORDER BY a DESC", 1);
    row("SELECT a FROM t WHERE b = 'IN'", 1);
    row("SELECT 1", 1);
    row("SELECT *", 1);
    row("WITH q AS (SELECT ? AS a) SELECT * FROM q", 1);
    row("MERGE INTO t USING s ON (t.id = s.id AND s.a = ?) WHEN MATCHED THEN DELETE", 1);
    row("REPLACE INTO t VALUES (?)", 1);
    row("CALL p(?, ?)", 2);
    row("EXECUTE PROCEDURE p(?)", 1);
    row("EXECUTE BLOCK (a INT = ?) AS BEGIN END", 1);
    row("EXEC p ?", 1);
    row("{call p(?)}", 1);
    row("{? = call f(?)}", 1);
    row("(SELECT ?) UNION (SELECT ?)", 2);
    row("((VALUES (?)))", 1);
    row("EXPLAIN (ANALYZE) SELECT ?", 1);
    row("CREATE TABLE t (a INT)", 0);
    row("PRAGMA user_version", 0);
    row("SHOW TABLES", 0);
    row("SET NAMES utf8mb4", 0);
    row("BEGIN", 0);
    row("COMMIT", 0);
    row("DO $$ BEGIN END $$", 0);
    row("INSERT INTO t VALUES", 0);
    row("", 2);
    row("  -- nothing\n", 2);
}

void TestStatementPlan::completeTextStaysAsItIs()
{
    QFETCH(QString, text);
    QFETCH(int, count);
    for (SqlDialect dialect : {Pg, Maria, Fb, Lite, Odbc})
        QCOMPARE(StatementPlan::complete(dialect, text, count), text);
}

void TestStatementPlan::valuesFindTheirPlaces_data()
{
    QTest::addColumn<SqlDialect>("dialect");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("marks");
    QTest::addColumn<QString>("valueOf");
    QTest::addColumn<int>("values");
    const auto row = [](const char *name, SqlDialect dialect, const char *text, const char *marks,
                        const char *valueOf, int values) {
        QTest::newRow(name) << dialect << QString::fromUtf8(text) << QString::fromUtf8(marks)
                            << QString::fromUtf8(valueOf) << values;
    };
    row("none", Lite, "SELECT 1", "SELECT 1", "", 0);
    row("marks", Lite, "a = ? AND b = ?", "a = ? AND b = ?", "0 1", 2);
    row("names", Lite, "a = :x AND b = :y", "a = ? AND b = ?", "0 1", 2);
    row("repeated name", Maria, "a = :x OR b = :y OR c = :x", "a = ? OR b = ? OR c = ?", "0 1 0",
        2);
    row("names differ by case", Lite, ":a, :A, :a", "?, ?, ?", "0 1 0", 2);
    row("names share their beginning", Lite, ":a, :a1, :a10", "?, ?, ?", "0 1 2", 3);
    row("names of digits and letters", Fb, ":1, :имя, :名2", "?, ?, ?", "0 1 2", 3);
    row("marks and names", Lite, "?, :a, ?, :a", "?, ?, ?, ?", "0 1 2 1", 3);
    row("numbered marks", Lite, "?2, ?1, ?2", "?, ?, ?", "1 0 1", 2);
    row("numbered marks with a gap", Lite, "?3", "?", "2", 3);
    row("mark behind a numbered one", Lite, "?2, ?", "?, ?", "1 2", 3);
    row("strings and comments", Pg, "'?' || ? /* ? */ -- ?", "'?' || ? /* ? */ -- ?", "0", 1);
    row("casts", Pg, ":a::int + '1'::int", "?::int + '1'::int", "0", 1);
    row("block", Fb, "EXECUTE BLOCK (a INT = ?) AS BEGIN :b = 1; END",
        "EXECUTE BLOCK (a INT = ?) AS BEGIN :b = 1; END", "0", 1);
    row("question mark operators", Pg, "a ?| ? AND a ?& ?", "a ?| ? AND a ?& ?", "0 1", 2);
}

void TestStatementPlan::valuesFindTheirPlaces()
{
    QFETCH(SqlDialect, dialect);
    QFETCH(QString, text);
    const StatementPlan plan = StatementPlan::of(dialect, text);
    QTEST(plan.withMarks(), "marks");
    QTEST(numbers(plan.valueOf()), "valueOf");
    QTEST(plan.valueCount(), "values");
    QCOMPARE(plan.pieces().size(), plan.valueOf().size() + 1);
    QCOMPARE(plan.names().size(), plan.valueCount());
}

void TestStatementPlan::wrongNumberNamesBoth_data()
{
    QTest::addColumn<SqlDialect>("dialect");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("given");
    QTest::addColumn<int>("needed"); // -1: the statement may run
    QTest::addColumn<bool>("hint");
    const auto row = [](const char *name, SqlDialect dialect, const char *text, int given,
                        int needed, bool hint = false) {
        QTest::newRow(name) << dialect << QString::fromUtf8(text) << given << needed << hint;
    };
    row("right", Lite, "SELECT ?, ?", 2, -1);
    row("one too few", Lite, "SELECT ?, ?", 1, 2);
    row("one too many", Fb, "SELECT ?, ?", 3, 2);
    row("none", Maria, "SELECT ?", 0, 1);
    row("none for names", Pg, "SELECT :a", 0, 1);
    row("none for a mark", Pg, "SELECT * FROM t WHERE a = ? AND b", 0, 1);
    row("values for a text without places", Lite, "SELECT 1", 2, 0);
    row("repeated name counts once", Lite, "SELECT :a, :a", 1, -1);
    row("repeated name counts once only", Lite, "SELECT :a, :a", 2, 1);
    row("jsonb without values", Pg, "SELECT a ? 'k' FROM t", 0, -1);
    row("jsonb column without values", Pg, "SELECT 1 FROM t WHERE a ? b", 0, -1);
    row("jsonb literal without values", Pg, "SELECT '{}'::jsonb ? 'k'", 0, -1);
    row("jsonb without values, elsewhere", Maria, "SELECT a ? 'k' FROM t", 0, 1);
    row("jsonb and too few values", Pg, "SELECT 1 FROM t WHERE a ? 'k' AND b = ?", 1, 2, true);
    row("jsonb with as many values as marks", Pg, "SELECT 1 FROM t WHERE a ? 'k' AND b = ?", 2, -1);
}

void TestStatementPlan::wrongNumberNamesBoth()
{
    QFETCH(SqlDialect, dialect);
    QFETCH(QString, text);
    QFETCH(int, given);
    QFETCH(int, needed);
    QFETCH(bool, hint);
    QString expected;
    if (needed >= 0) {
        expected = QStringLiteral("Wrong number of values: the statement has placeholders for %1, "
                                  "but %2 were given")
                       .arg(needed)
                       .arg(given);
    }
    if (hint)
        expected += QStringLiteral("; with values, write the operator ? as jsonb_exists()");
    QCOMPARE(StatementPlan::of(dialect, text).refusal(given), expected);
}

void TestStatementPlan::literalsStandApart_data()
{
    QTest::addColumn<SqlDialect>("dialect");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("literals");
    QTest::addColumn<QString>("numbers");
    const auto row = [](const char *name, SqlDialect dialect, const char *text,
                        const char *literals, const char *numbers) {
        QTest::newRow(name) << dialect << QString::fromUtf8(text) << QString::fromUtf8(literals)
                            << QString::fromUtf8(numbers);
    };
    row("list", Maria, "CALL p(?,:b,?)", "CALL p('x',-1,NULL)", "CALL p($1,$2,$3)");
    row("glued to a word", Pg, "LIMIT?", "LIMIT 'x'", "LIMIT $1");
    row("glued to a minus", Maria, "5-? - :b", "5- 'x' - -1", "5- $1 - $2");
    row("glued to a digit", Pg, "?1", "'x' 1", "$1 1");
    row("glued to a string", Maria, "'a'?'b'", "'a' 'x' 'b'", "'a' $1 'b'");
    row("repeated", Pg, ":a,:b,:a", "'x',-1,'x'", "$1,$2,$1");
    row("cast", Pg, "?::int", "'x'::int", "$1::int");
    row("literals may look like placeholders", Maria, "?,?", "'x',-1", "$1,$2");
}

void TestStatementPlan::literalsStandApart()
{
    QFETCH(SqlDialect, dialect);
    QFETCH(QString, text);
    const StatementPlan plan = StatementPlan::of(dialect, text);
    const QStringList literals = {QStringLiteral("'x'"), QStringLiteral("-1"),
                                  QStringLiteral("NULL")};
    QTEST(plan.withLiterals(literals), "literals");
    QTEST(plan.withNumbers(), "numbers");
}

void TestStatementPlan::statementIsDescribed_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("verb");
    QTest::addColumn<bool>("noColumns");
    QTest::addColumn<bool>("allColumns");
    const auto row = [](const char *text, const char *verb, bool noColumns, bool allColumns) {
        QTest::newRow(text) << QString::fromUtf8(text) << QString::fromUtf8(verb) << noColumns
                            << allColumns;
    };
    row("select a from t", "SELECT", false, false);
    row("SELECT * FROM t", "SELECT", false, true);
    row("SELECT count(*) FROM t", "SELECT", false, false);
    row("SELECT count( * ), '*' FROM t", "SELECT", false, false);
    row("SELECT t.* FROM t", "SELECT", false, true);
    row("SELECT a * 2 FROM t", "SELECT", false, true);
    row(" -- x\n/**/ Insert INTO t VALUES (1)", "INSERT", true, false);
    row("INSERT INTO t VALUES (1) RETURNING a", "INSERT", false, false);
    row("INSERT INTO t VALUES ('RETURNING')", "INSERT", true, false);
    row("UPDATE t SET a = 1", "UPDATE", true, false);
    row("DELETE FROM t", "DELETE", true, false);
    row("WITH q AS (SELECT 1) SELECT 1", "WITH", false, false);
    row("CALL p()", "CALL", false, false);
    row("{call p()}", "CALL", false, false);
    row("(SELECT 1)", "SELECT", false, false);
    row("", "", false, false);
    row("--", "", false, false);
}

void TestStatementPlan::statementIsDescribed()
{
    QFETCH(QString, text);
    const StatementPlan plan = StatementPlan::of(Odbc, text);
    QTEST(plan.verb(), "verb");
    QTEST(plan.returnsNoColumns(), "noColumns");
    QTEST(plan.namesAllColumns(), "allColumns");
}

void TestStatementPlan::semicolonPartsStatements_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("several");
    const auto row = [](const char *text, bool several) {
        QTest::newRow(text) << QString::fromUtf8(text) << several;
    };
    row("SELECT 1", false);
    row("SELECT 1;", false);
    row("SELECT 1; -- the end", false);
    row("SELECT ';' || \";\"", false);
    row("SELECT 1; SELECT 2", true);
    row("SELECT 1;;", true);
    row("EXECUTE BLOCK AS BEGIN a = 1; b = 2; END", false);
    row("CREATE TRIGGER t AFTER INSERT ON s BEGIN DELETE FROM a; DELETE FROM b; END", false);
    row("CREATE TABLE a (b INT); DROP TABLE a", true);
}

void TestStatementPlan::semicolonPartsStatements()
{
    QFETCH(QString, text);
    QTEST(StatementPlan::of(Odbc, text).hasSeveral(), "several");
}

void TestStatementPlan::thousandValues()
{
    constexpr int Count = 1000;
    const QString head =
        StatementPlan::complete(Lite, QStringLiteral("SELECT 1 WHERE 1 IN"), Count);
    QCOMPARE(StatementPlan::of(Lite, head).valueCount(), Count);

    QStringList names;
    for (int i = 0; i < Count; ++i)
        names.append(QStringLiteral(":v%1").arg(i));
    const QString text = names.join(QLatin1Char(',')) + QLatin1Char(',') + names.constLast();
    const StatementPlan plan = StatementPlan::of(Pg, text);
    QCOMPARE(plan.valueCount(), Count);
    QCOMPARE(plan.names(), names);
    QCOMPARE(plan.valueOf().constLast(), Count - 1);
    QVERIFY(plan.withNumbers().endsWith(QLatin1String(",$999,$1000,$1000")));
}

void TestStatementPlan::falseMarksAreTakenAway()
{
    const auto without = [](const char *text) {
        return StatementPlan::withoutFalseMarks(SqlDialect::OdbcSqlite, QString::fromUtf8(text));
    };
    QCOMPARE(without("SELECT '?' /* ? */ AS [a\"?], ? -- why?\n, 1"),
             QStringLiteral("SELECT '?'   AS \"a\"\"?\", ?  \n, 1"));
    QCOMPARE(without("SELECT [a] -- b"), QStringLiteral("SELECT [a] -- b"));
}

QTEST_GUILESS_MAIN(TestStatementPlan)
#include "test_statement_plan.moc"
