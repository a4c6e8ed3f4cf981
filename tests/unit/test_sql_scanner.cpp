// How a statement's text is split: what each system quotes, comments out and takes for a value.
#include "sql_scanner.h"

#include <QtTest>

Q_DECLARE_METATYPE(SqlDialect)

namespace
{
constexpr auto Pg = SqlDialect::PostgreSql;
constexpr auto Maria = SqlDialect::MariaDb;
constexpr auto Fb = SqlDialect::Firebird;
constexpr auto Lite = SqlDialect::Sqlite;
constexpr auto Any = SqlDialect::Odbc;

QString nameOf(SqlToken::Kind kind)
{
    switch (kind) {
    case SqlToken::Blank:
        return QString();
    case SqlToken::Comment:
        return QStringLiteral("c");
    case SqlToken::String:
        return QStringLiteral("s");
    case SqlToken::QuotedName:
        return QStringLiteral("n");
    case SqlToken::Word:
        return QStringLiteral("w");
    case SqlToken::Number:
        return QStringLiteral("d");
    case SqlToken::Symbol:
        return QStringLiteral("o");
    case SqlToken::Placeholder:
    case SqlToken::NamedPlaceholder:
        break;
    }
    return QStringLiteral("P");
}

/// "w<SELECT> P<?>" for "SELECT ?".
QString described(SqlDialect dialect, const QString &text)
{
    QStringList parts;
    for (const SqlToken &token : SqlScanner::scan(dialect, text)) {
        if (token.kind == SqlToken::Blank)
            continue;
        parts.append(nameOf(token.kind) + QLatin1Char('<') +
                     SqlScanner::textOf(token, text).toString() + QLatin1Char('>'));
    }
    return parts.join(QLatin1Char(' '));
}
} // namespace

class TestSqlScanner : public QObject
{
    Q_OBJECT

private slots:
    void splitsAsTheSystemDoes_data();
    void splitsAsTheSystemDoes();
    void tokensCoverTheText_data();
    void tokensCoverTheText();
    void odbcFollowsTheSystemBehindIt();
};

void TestSqlScanner::splitsAsTheSystemDoes_data()
{
    QTest::addColumn<SqlDialect>("dialect");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("tokens");
    const auto row = [](const char *name, SqlDialect dialect, const char *text,
                        const char *tokens) {
        QTest::newRow(name) << dialect << QString::fromUtf8(text) << QString::fromUtf8(tokens);
    };
    row("words and values", Any, "SELECT ?, :name", "w<SELECT> P<?> o<,> P<:name>");
    row("string with a mark", Any, "'it''s ? :x'", "s<'it''s ? :x'>");
    row("string never ends", Any, "'abc ?", "s<'abc ?>");
    row("quoted name", Any, "\"a \"\"?\"\" b\"", "n<\"a \"\"?\"\" b\">");
    row("line comment", Any, "1 -- ? :x\n?", "d<1> c<-- ? :x> P<?>");
    row("line comment at the end", Any, "p --", "w<p> c<-->");
    row("block comment", Any, "/* ? ' */ ?", "c</* ? ' */> P<?>");
    row("block comment never ends", Any, "1 /* ?", "d<1> c</* ?>");
    row("comment is not nested", Lite, "/* a /* b */ ?", "c</* a /* b */> P<?>");
    row("comment is nested", Pg, "/* a /* b */ ? */ ?", "c</* a /* b */ ? */> P<?>");
    row("number", Any, "1.5e3 0x1F 7", "d<1.5e3> d<0x1F> d<7>");
    row("names in any script", Any, ":имя1 :数_2 :a😀",
        "P<:имя1> P<:数_2> P<:a> o<\xf0\x9f\x98\x80>");
    row("letters beyond the basic plane", Any, ":\U00020000x", "P<:\U00020000x>");
    row("name of digits", Any, ":1, :2", "P<:1> o<,> P<:2>");

    row("backslash is a character", Lite, "'a\\' ?", "s<'a\\'> P<?>");
    row("backslash is a character on PostgreSQL", Pg, "'a\\' ?", "s<'a\\'> P<?>");
    row("backslash escapes where PostgreSQL is told so", SqlDialect::PostgreSqlBackslash,
        "'a\\' ?' ? \"\\\" $$\\$$ e'\\' ?'", "s<'a\\' ?'> P<?> n<\"\\\"> s<$$\\$$> s<e'\\' ?'>");
    row("carriage return ends a comment", Pg, "-- a\r? -- b\n?", "c<-- a> P<?> c<-- b> P<?>");
    row("carriage return ends no comment, elsewhere", Maria, "-- a\r?\n?", "c<-- a\r?> P<?>");
    row("backslash escapes", Maria, "'a\\' ?' ?", "s<'a\\' ?'> P<?>");
    row("double quotes are strings", Maria, "\"a\\\" ?\" ?", "s<\"a\\\" ?\"> P<?>");
    row("no backslash escapes", SqlDialect::MariaDbPlainBackslash, "'a\\' ? \"\\\" ?",
        "s<'a\\'> P<?> s<\"\\\"> P<?>");
    row("double quotes are names", SqlDialect::MariaDbAnsiQuotes, "\"a\\\" ? '\\' ?'",
        "n<\"a\\\"> P<?> s<'\\' ?'>");
    row("both", SqlDialect::MariaDbAnsiQuotesPlainBackslash, "\"a\\\" ? '\\' ?",
        "n<\"a\\\"> P<?> s<'\\'> P<?>");
    row("backticks", Maria, "`a ``?` ?", "n<`a ``?`> P<?>");
    row("backticks on SQLite", Lite, "`?` ?", "n<`?`> P<?>");
    row("hash comment", Maria, "1 # ?\n?", "d<1> c<# ?> P<?>");
    row("hash is an operator", Pg, "1 # ?", "d<1> o<#> P<?>");
    row("two hyphens without a blank", Maria, "5--?", "d<5> o<-> o<-> P<?>");
    row("two hyphens with a blank", Maria, "5-- ?", "d<5> c<-- ?>");
    row("two hyphens without a blank, elsewhere", Pg, "5--?", "d<5> c<--?>");
    row("executable comment", Maria, "/*!50000 ? */ ?", "o</*!50000> P<?> o<*/> P<?>");
    row("executable comment of MariaDB", Maria, "/*M!100100 '*/' */",
        "o</*M!100100> s<'*/'> o<*/>");
    row("executable comment, elsewhere", Pg, "/*!50000 ? */", "c</*!50000 ? */>");
    row("user variable", Maria, "@a := ?", "o<@> w<a> o<:=> P<?>");
    row("assignment glued", Maria, "@a:=:b", "o<@> w<a> o<:=> P<:b>");
    row("system variable", Maria, "@@x", "o<@@> w<x>");

    row("bracketed name", Lite, "[a ? :b] ?", "n<[a ? :b]> P<?>");
    row("numbered mark", Lite, "?12", "P<?12>");
    row("numbered mark, elsewhere", Pg, "?12", "P<?> d<12>");
    row("dollar name", Lite, "$a", "o<$> w<a>");

    row("cast", Pg, "?::int", "P<?> o<::> w<int>");
    row("cast of a name", Pg, ":a::text", "P<:a> o<::> w<text>");
    row("slice", Pg, "a[1:2]", "w<a> o<[> d<1> o<:> d<2> o<]>");
    row("slice of columns", Pg, "a[x:y]", "w<a> o<[> w<x> o<:> w<y> o<]>");
    row("slice with blanks", Pg, "a[1 :n]", "w<a> o<[> d<1> o<:> w<n> o<]>");
    row("slice behind parentheses", Pg, "a[f(1):n]",
        "w<a> o<[> w<f> o<(> d<1> o<)> o<:> w<n> o<]>");
    row("array of names", Pg, "ARRAY[:a, :b]", "w<ARRAY> o<[> P<:a> o<,> P<:b> o<]>");
    row("name behind a keyword in brackets", Pg, "ARRAY[CASE WHEN :a THEN :b END]",
        "w<ARRAY> o<[> w<CASE> w<WHEN> P<:a> w<THEN> P<:b> w<END> o<]>");
    row("slice between values", Pg, "a[:x : :y]", "w<a> o<[> P<:x> o<:> P<:y> o<]>");
    row("escape string", Pg, "E'a\\' ?' ?", "s<E'a\\' ?'> P<?>");
    row("escape string that goes on behind a return", Pg, "E'a'\r'\\'?' ?",
        "s<E'a'\r'\\'?'> P<?>");
    row("escape string that goes on behind a comment", Pg, "E'a' -- b\n'\\'?' ?",
        "s<E'a' -- b\n'\\'?'> P<?>");
    row("escape string goes on", Pg, "e'a'\n'\\' ?' ?", "s<e'a'\n'\\' ?'> P<?>");
    row("name that ends in e", Pg, "note'a\\' ?", "w<note> s<'a\\'> P<?>");
    row("dollar quote", Pg, "$$ ? ' $$ ?", "s<$$ ? ' $$> P<?>");
    row("dollar quote with a tag", Pg, "$fn$ $$ ? $$ $fn$ ?", "s<$fn$ $$ ? $$ $fn$> P<?>");
    row("dollar number", Pg, "$1 ?", "o<$> d<1> P<?>");
    row("dollar in a name", Pg, "a$b$ ? $b$", "w<a$b$> P<?> s<$b$>");
    row("jsonb asks for any", Pg, "a ?| b", "w<a> o<?|> w<b>");
    row("jsonb asks for all", Pg, "a ?& b", "w<a> o<?&> w<b>");
    row("value is concatenated", Pg, "?||'x'", "P<?> o<|> o<|> s<'x'>");
    row("arrays overlap", Pg, "?&&b", "P<?> o<&> o<&> w<b>");
    row("jsonpath", Pg, "a @? 'x'", "w<a> o<@?> s<'x'>");
    row("text search", Pg, "a @@?", "w<a> o<@@> P<?>");
    row("key and value", Pg, "JSON_OBJECT('a':x)", "w<JSON_OBJECT> o<(> s<'a'> o<:> w<x> o<)>");
    row("comparison glued", Any, "a=:b", "w<a> o<=> P<:b>");
    row("keyword glued", Any, "LIMIT:n", "w<LIMIT> P<:n>");

    row("block of Firebird", Fb, "EXECUTE BLOCK (a INT = ?) AS BEGIN b = :a; END",
        "w<EXECUTE> w<BLOCK> o<(> w<a> w<INT> o<=> P<?> o<)> w<AS> w<BEGIN> w<b> o<=> o<:a> o<;> "
        "w<END>");
    row("body of a procedure", Fb, "create or alter procedure p as begin x = :a; end",
        "w<create> w<or> w<alter> w<procedure> w<p> w<as> w<begin> w<x> o<=> o<:a> o<;> w<end>");
    row("call of a procedure", Fb, "execute procedure p(:a)",
        "w<execute> w<procedure> w<p> o<(> P<:a> o<)>");
    row("alternative quotes", Fb, "q'{it's ?}' ?", "s<q'{it's ?}'> P<?>");
    row("alternative quotes, any mark", Fb, "Q'!it's ?!' ?", "s<Q'!it's ?!'> P<?>");
    row("call of ODBC", Any, "{? = call f(?)}", "o<{> P<?> o<=> w<call> w<f> o<(> P<?> o<)> o<}>");
}

void TestSqlScanner::splitsAsTheSystemDoes()
{
    QFETCH(SqlDialect, dialect);
    QFETCH(QString, text);
    QTEST(described(dialect, text), "tokens");
}

void TestSqlScanner::tokensCoverTheText_data()
{
    splitsAsTheSystemDoes_data();
}

void TestSqlScanner::tokensCoverTheText()
{
    QFETCH(QString, text);
    const auto dialects = {Pg,
                           Maria,
                           Fb,
                           Lite,
                           Any,
                           SqlDialect::OdbcSqlite,
                           SqlDialect::OdbcPostgreSql,
                           SqlDialect::OdbcPostgreSqlBackslash,
                           SqlDialect::OdbcMariaDb};
    for (SqlDialect dialect : dialects) {
        // Cut anywhere, quotes and names beyond the basic plane included.
        for (int length = 0; length <= text.size(); ++length) {
            const QString cut = text.left(length);
            int end = 0;
            for (const SqlToken &token : SqlScanner::scan(dialect, cut)) {
                QCOMPARE(token.start, end);
                QVERIFY(token.length > 0);
                end = token.end();
            }
            QCOMPARE(end, length);
        }
    }
}

void TestSqlScanner::odbcFollowsTheSystemBehindIt()
{
    const QString text = QStringLiteral("'a\\' ?' [b ?]");
    QCOMPARE(described(SqlDialect::OdbcMariaDb, text), described(Maria, text));
    QCOMPARE(described(SqlDialect::OdbcSqlite, text), described(Lite, text));
    QCOMPARE(described(SqlDialect::OdbcPostgreSql, text), described(Pg, text));
    QCOMPARE(described(SqlDialect::OdbcPostgreSqlBackslash, text),
             described(SqlDialect::PostgreSqlBackslash, text));
    QVERIFY(described(SqlDialect::PostgreSqlBackslash, text) != described(Pg, text));
}

QTEST_GUILESS_MAIN(TestSqlScanner)
#include "test_sql_scanner.moc"
