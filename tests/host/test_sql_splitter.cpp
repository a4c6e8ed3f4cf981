// SQL text cut at its semicolons.

#include "sql_splitter.h"

#include <QElapsedTimer>
#include <QtTest>

namespace
{

QStringList split(const QString &text, const SqlDialect &dialect = SqlDialect())
{
    SqlSplitter splitter(dialect);
    QStringList statements;
    SqlStatement statement;
    for (const QString &line : text.split(QLatin1Char('\n'))) {
        splitter.add(line + QLatin1Char('\n'));
        while (splitter.next(&statement))
            statements.append(statement.text);
    }
    if (splitter.takeRest(&statement))
        statements.append(statement.text + QLatin1String(" (rest)"));
    return statements;
}

SqlDialect dialectOf(const char *driver)
{
    return SqlDialect::ofDriver(QLatin1String(driver));
}

} // namespace

class TestSqlSplitter : public QObject
{
    Q_OBJECT

private slots:
    void semicolonsEndStatements_data();
    void semicolonsEndStatements();
    void systemsDiffer_data();
    void systemsDiffer();
    void linesAreCountedFromTheFirstWord();
    void statementIsOpenUntilItsSemicolon();
    void commentsAloneAreNoStatement();
    void clearForgetsAnOpenString();
    void longLineIsReadOnce();
    void stringOverManyLinesIsReadOnce();
};

void TestSqlSplitter::semicolonsEndStatements_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("statements");
    const auto row = [](const char *name, const char *text, const QStringList &statements) {
        QTest::newRow(name) << QString::fromUtf8(text) << statements;
    };
    const auto whole = [&row](const char *name, const char *text) {
        row(name, (QByteArray(text) + "; next;").constData(),
            {QString::fromUtf8(text), QStringLiteral("next")});
    };
    row("two on a line", "select 1; select 2;",
        {QStringLiteral("select 1"), QStringLiteral("select 2")});
    row("rest without semicolon", "a; b", {QStringLiteral("a"), QStringLiteral("b (rest)")});
    row("empty ones", ";;\n ; a;;", {QStringLiteral("a")});
    row("blanks around", "  a  \n  ;  b ;", {QStringLiteral("a"), QStringLiteral("b")});
    whole("string", "select 'a;b'");
    whole("doubled quote", "select 'it''s; a'");
    whole("backslash is a character", "select '\\'");
    whole("escape string", "select E'it\\'s; a'");
    whole("quoted name", "select \"a;b\"\"c;\"");
    whole("back quotes", "select `a;b`");
    whole("string over lines", "select 'a;\nb;'");
    whole("line comment", "select 1 -- one; two 'three\n + 1");
    whole("block comment", "select /* one; 'two */ 1");
    whole("nested comment", "select /* a /* b; */ c; */ 1");
    whole("dollar quote", "select $$a;'b$$");
    whole("tagged dollar quote", "select $x$a; $$ ; $y$ $x$");
    whole("parameter is no dollar quote", "select $1, $2");
    whole("dollar in a name", "select rdb$a$b");
    whole("minus and slash", "select 3 - 2 / 1 * 4");
    whole("trigger", "create trigger t after insert on a begin insert into b values (1); "
                     "delete from c; end");
    whole("nested blocks", "create or replace procedure p() begin begin a; end; b; end");
    whole("conditions", "create procedure p() begin if x then a; end if; while y do b; "
                        "end while; end");
    whole("case in a body", "create function f() begin atomic select case when 1 then 2 end; "
                            "case x when 1 then a; end case; end");
    whole("case as the last word",
          "create trigger t on a begin select case 1 when 1 then 2 end; end");
    whole("declarations before the body",
          "create procedure p as declare variable x int; declare y int; begin x = 1; end");
    whole("anonymous block", "execute block as begin a; end");
    whole("compound statement", "begin not atomic a; b; end");
    whole("function without a body", "create function f() returns int return 1");
    whole("dollar quoted body", "create function f() returns int as $$ begin return 1; end $$ "
                                "language plpgsql");
    whole("block names of a table", "create table begin (\"begin\" int, event int, begin int)");
    whole("word of a routine in a table", "create table t (trigger int, begin int)");
    row("transaction", "begin; a; end;",
        {QStringLiteral("begin"), QStringLiteral("a"), QStringLiteral("end")});
    row("open string", "a; select 'b;", {QStringLiteral("a"), QStringLiteral("select 'b; (rest)")});
}

void TestSqlSplitter::semicolonsEndStatements()
{
    QFETCH(QString, text);
    QFETCH(QStringList, statements);
    QCOMPARE(split(text), statements);
}

void TestSqlSplitter::systemsDiffer_data()
{
    QTest::addColumn<QByteArray>("driver");
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("statements");
    const auto row = [](const char *name, const char *driver, const char *text, int count) {
        QTest::newRow(name) << QByteArray(driver) << QString::fromUtf8(text) << count;
    };
    row("MySQL: backslash", "QMYSQL", "select 'it\\'s; a'; b;", 2);
    row("MySQL: hash", "QMYSQL", "a # x; y\n; b;", 2);
    row("PostgreSQL: hash", "QPSQL", "select a #- b; c;", 2);
    row("MySQL: dashes", "QMYSQL", "select 5--3; b;", 2);
    row("PostgreSQL: dashes", "QPSQL", "select 5--3; b\n; c;", 2);
    row("MySQL: comments do not nest", "QMYSQL", "a /* /* */; b;", 2);
    row("MySQL: code in a comment", "QMYSQL", "/*!40101 SET NAMES utf8 */; b;", 2);
    row("SQLite: dollars", "QSQLITE", "select $$; b;", 2);
    row("PostgreSQL: dollars", "QPSQL", "select $$; b;", 1);
}

void TestSqlSplitter::systemsDiffer()
{
    QFETCH(QByteArray, driver);
    QFETCH(QString, text);
    QFETCH(int, statements);
    const QStringList found = split(text, dialectOf(driver.constData()));
    QVERIFY2(found.size() == statements, qPrintable(found.join(QLatin1String(" | "))));
}

void TestSqlSplitter::linesAreCountedFromTheFirstWord()
{
    SqlSplitter splitter;
    SqlStatement statement;
    QVector<int> lines;
    for (const char *line : {"-- a comment\n", "\n", "select 1,\n", "2; select\n", "3;\n", "\n"}) {
        splitter.add(QLatin1String(line));
        while (splitter.next(&statement))
            lines.append(statement.line);
    }
    splitter.add(QStringLiteral("rest"));
    QVERIFY(!splitter.next(&statement));
    QVERIFY(splitter.takeRest(&statement));
    lines.append(statement.line);
    QCOMPARE(lines, (QVector<int>{3, 4, 7}));
}

void TestSqlSplitter::statementIsOpenUntilItsSemicolon()
{
    SqlSplitter splitter;
    SqlStatement statement;
    QVERIFY(!splitter.isOpen());
    splitter.add(QStringLiteral("select\n"));
    QVERIFY(!splitter.next(&statement));
    QVERIFY(splitter.isOpen());
    splitter.add(QStringLiteral("1;\n"));
    QVERIFY(splitter.next(&statement));
    QVERIFY(!splitter.next(&statement));
    QVERIFY(!splitter.isOpen());
    splitter.add(QStringLiteral("/* a\n"));
    QVERIFY(!splitter.next(&statement));
    QVERIFY(splitter.isOpen());
}

void TestSqlSplitter::commentsAloneAreNoStatement()
{
    QCOMPARE(split(QStringLiteral("-- a\n/* b */ ; /* c */")), QStringList());
}

void TestSqlSplitter::clearForgetsAnOpenString()
{
    SqlSplitter splitter;
    SqlStatement statement;
    splitter.add(QStringLiteral("select 'a\n"));
    QVERIFY(!splitter.next(&statement));
    splitter.clear();
    QVERIFY(!splitter.isOpen());
    splitter.add(QStringLiteral("b;\n"));
    QVERIFY(splitter.next(&statement));
    QCOMPARE(statement.text, QStringLiteral("b"));
    QCOMPARE(statement.line, 1);
}

void TestSqlSplitter::longLineIsReadOnce()
{
    QString line;
    for (int i = 0; i < 200000; ++i)
        line += QStringLiteral("insert into t values ('a;b', 1);");
    SqlSplitter splitter;
    SqlStatement statement;
    QElapsedTimer clock;
    clock.start();
    splitter.add(line + QLatin1Char('\n'));
    int count = 0;
    while (splitter.next(&statement))
        ++count;
    QCOMPARE(count, 200000);
    // Looking at the line again for each statement would take hours.
    QVERIFY2(clock.elapsed() < 30000, qPrintable(QString::number(clock.elapsed())));
}

void TestSqlSplitter::stringOverManyLinesIsReadOnce()
{
    const QString line = QString(100, QLatin1Char('x')) + QLatin1Char('\n');
    SqlSplitter splitter;
    SqlStatement statement;
    QElapsedTimer clock;
    clock.start();
    splitter.add(QStringLiteral("select '\n"));
    for (int i = 0; i < 50000; ++i) {
        splitter.add(line);
        QVERIFY(!splitter.next(&statement));
    }
    splitter.add(QStringLiteral("';\n"));
    QVERIFY(splitter.next(&statement));
    QVERIFY(statement.text.size() > 5000000);
    QVERIFY2(clock.elapsed() < 30000, qPrintable(QString::number(clock.elapsed())));
}

QTEST_GUILESS_MAIN(TestSqlSplitter)
#include "test_sql_splitter.moc"
