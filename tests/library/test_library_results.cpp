/// @file
/// The script library: its global, rows as objects, values written into statements.

#include "library_script.h"

#include <QtTest>

class TestLibraryResults : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void definesOneGlobal();
    void missingTimersAreNamed();
    void halfOfTheTimersIsNamedToo();
    void timersAreTakenFromTheHost();

    void rowsAreObjects();
    void eachEndsWhenItIsTold();
    void oneIsTheFirstRowOrNull();
    void whatIsNoResultIsATypeError();

    void errorsTellTheirCodeWithAllItsDigits_data();
    void errorsTellTheirCodeWithAllItsDigits();

    void lossIsKnownByItsCodeOrItsWords_data();
    void lossIsKnownByItsCodeOrItsWords();

    void questionMarksArePlaceholdersWhereTheServerReadsNone_data();
    void questionMarksArePlaceholdersWhereTheServerReadsNone();
    void negativeNumberBeginsNoComment();
    void wrongNumberOfValuesIsAnError();
    void valueThatCannotBeWrittenIsAnError_data();
    void valueThatCannotBeWrittenIsAnError();
    void valuesComeBackAsTheyWere_data();
    void valuesComeBackAsTheyWere();

private:
    LibraryDatabases m_databases;
};

void TestLibraryResults::definesOneGlobal()
{
    DatabaseScript script(
        QStringLiteral(VEXT_SOURCE_DIR)); // an engine that has not seen the library
    script.eval(
        QStringLiteral("var before = {}, added = []; for (var n in this) before[n] = true;"));
    QFile file(QStringLiteral(VEXT_SOURCE_DIR "/library/vext.js"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    script.eval(QString::fromUtf8(file.readAll()));
    QCOMPARE(script.text(QStringLiteral("(function (scope) { for (var n in scope) if (!before[n]) "
                                        "added.push(n); return added.sort().join(); })(this)")),
             QStringLiteral("string:vext"));
}

void TestLibraryResults::missingTimersAreNamed()
{
    LibraryScript script(LibraryScript::Host::WithoutTimers);
    for (const char *call :
         {"vext.pool({driverName: 'QSQLITE'})", "vext.transaction({}, done, done)",
          "vext.cluster({engine: 'postgresql', nodes: [{}]})"}) {
        const QString text = script.host().evalThrows(QString::fromUtf8(call));
        QVERIFY2(text.contains(QStringLiteral("no setTimeout")) &&
                     text.contains(QStringLiteral("vext.timers(")),
                 qPrintable(text));
    }
}

void TestLibraryResults::halfOfTheTimersIsNamedToo()
{
    LibraryScript script(LibraryScript::Host::WithoutTimers);
    for (const char *call :
         {"vext.pool({driverName: 'QSQLITE'})", "vext.transaction({}, done, done)",
          "vext.cluster({engine: 'postgresql', nodes: [{}]})"}) {
        const QString text = script.host().evalThrows(
            QStringLiteral("vext.timers(function () {}); ") + QString::fromUtf8(call));
        QVERIFY2(text.contains(QStringLiteral("no clearTimeout")), qPrintable(text));
    }
}

void TestLibraryResults::timersAreTakenFromTheHost()
{
    LibraryScript script(LibraryScript::Host::WithoutTimers);
    Timers timers;
    timers.install(script.host().engine());
    script.eval(QStringLiteral(
        "var handed = 0, set = setTimeout, clear = clearTimeout; delete this.setTimeout;"
        "delete this.clearTimeout;"
        "vext.timers(function (f, ms) { handed++; return set(f, ms); }, clear);"));
    const QString outcome = script.outcome(QStringLiteral(
        "var pool = vext.pool({driverName: 'QSQLITE', databaseName: ':memory:'});"
        "pool.query('SELECT 1 AS n', function (error, result) {"
        "    pool.close(function () { done([told(error), result.n, handed > 0]); }); });"));
    QCOMPARE(outcome, QStringLiteral("[\"none\",[1],true]"));
    timers.clear();
}

void TestLibraryResults::rowsAreObjects()
{
    LibraryScript script;
    script.eval(QStringLiteral("var db = open({driverName: 'QSQLITE', databaseName: ':memory:'});"
                               "var result = must(db, \"SELECT 1 AS Id, NULL AS note, 'a' AS rows "
                               "UNION ALL SELECT 2, 'x', 'b'\");"));
    QCOMPARE(script.text(QStringLiteral("JSON.stringify(vext.rows(result))")),
             QStringLiteral("string:[{\"Id\":1,\"note\":null,\"rows\":\"a\"},"
                            "{\"Id\":2,\"note\":\"x\",\"rows\":\"b\"}]"));
    QCOMPARE(script.text(QStringLiteral("vext.rows(result, true)[1].id")),
             QStringLiteral("number:2"));
    QCOMPARE(script.text(QStringLiteral("vext.rows(must(db, 'SELECT 1 AS a WHERE 0')).length")),
             QStringLiteral("number:0"));
}

void TestLibraryResults::eachEndsWhenItIsTold()
{
    LibraryScript script;
    script.eval(
        QStringLiteral("var result = {fields_names: ['N'], fields_index: [[5, 6, 7]], rows: 3},"
                       "seen = [];"));
    QCOMPARE(script.text(QStringLiteral("vext.each(result, function (row, at) {"
                                        "    seen.push(row.N + ':' + at); return at < 1; })")),
             QStringLiteral("number:2"));
    QCOMPARE(script.text(QStringLiteral("seen.join()")), QStringLiteral("string:5:0,6:1"));
    QCOMPARE(script.text(QStringLiteral("vext.each(result, function () {})")),
             QStringLiteral("number:3"));
}

void TestLibraryResults::oneIsTheFirstRowOrNull()
{
    LibraryScript script;
    QCOMPARE(script.text(QStringLiteral(
                 "vext.one({fields_names: ['N'], fields_index: [[5, 6]], rows: 2}, true).n")),
             QStringLiteral("number:5"));
    QCOMPARE(
        script.text(QStringLiteral("vext.one({fields_names: ['N'], fields_index: [[]], rows: 0})")),
        QStringLiteral("null"));
}

void TestLibraryResults::whatIsNoResultIsATypeError()
{
    LibraryScript script;
    for (const char *value : {"false", "undefined", "{}", "7"}) {
        const QString text =
            script.host().evalThrows(QStringLiteral("vext.rows(%1)").arg(QString::fromUtf8(value)));
        QVERIFY2(text.startsWith(QStringLiteral("TypeError: vext: no result object")),
                 qPrintable(text));
    }
}

void TestLibraryResults::errorsTellTheirCodeWithAllItsDigits_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("sql");
    QTest::addColumn<QString>("told");
    const auto raise = [](const char *state) {
        return QStringLiteral(
                   "DO 'BEGIN RAISE EXCEPTION ''no (12345)'' USING ERRCODE = ''%1''; END'")
            .arg(QLatin1String(state));
    };
    const QString postgres = QStringLiteral("PostgreSQL");
    const QString mariadb = QStringLiteral("MariaDB");
    for (const char *state : {"08000", "08001", "08003", "08006", "57P01", "57P02", "57P03"})
        QTest::newRow(state) << postgres << raise(state)
                             << QStringLiteral("lost ") + QLatin1String(state);
    QTest::newRow("cancelled, which is no loss") << postgres << raise("57014") << "statement 57014";
    QTest::newRow("letters") << postgres << "SELECT 1 FROM nix"
                             << "statement 42P01";
    QTest::newRow("serialization failure") << postgres << raise("40001") << "conflict 40001";
    QTest::newRow("deadlock") << postgres << raise("40P01") << "conflict 40P01";
    QTest::newRow("duplicate") << postgres << raise("23505") << "duplicate 23505";
    QTest::newRow("read only") << postgres << raise("25006") << "unready 25006";
    QTest::newRow("ordinary") << postgres << raise("P0001") << "statement P0001";
    // What users have written stands in the text, and says nothing about the line.
    QTest::newRow("words of a loss in a value")
        << postgres << "SELECT CAST('connection refused' AS int)"
        << "statement 22P02";
    QTest::newRow("words of a deadlock in a value")
        << postgres << "SELECT CAST('Deadlock found' AS int)"
        << "statement 22P02";
    QTest::newRow("words of a loss, MariaDB")
        << mariadb
        << "SIGNAL SQLSTATE '45000' SET MYSQL_ERRNO = 1644, MESSAGE_TEXT = 'timeout expired'"
        << "statement 1644";
    QTest::newRow("missing table") << mariadb << "SELECT 1 FROM nix"
                                   << "statement 1146";
    const struct {
        int number;
        const char *kind;
    } numbers[] = {{1213, "conflict"}, {1205, "conflict"}, {1062, "duplicate"},
                   {1053, "lost"},     {1927, "lost"},     {1047, "unready"},
                   {1290, "unready"},  {1406, "statement"}};
    // A code of PostgreSQL's in the text means nothing there.
    for (const auto &known : numbers)
        QTest::newRow(QByteArray::number(known.number).constData())
            << mariadb
            << QStringLiteral("BEGIN NOT ATOMIC SIGNAL SQLSTATE '45000' SET MYSQL_ERRNO = %1, "
                              "MESSAGE_TEXT = 'no (40P01)'; END")
                   .arg(known.number)
            << QStringLiteral("%1 %2").arg(QLatin1String(known.kind)).arg(known.number);
}

void TestLibraryResults::errorsTellTheirCodeWithAllItsDigits()
{
    QFETCH(QString, system);
    QFETCH(QString, sql);
    QFETCH(QString, told);
    TestDatabase *database = m_databases.find(system);
    if (!database)
        QSKIP(qPrintable(QStringLiteral("not installed: ") + system));
    LibraryScript script;
    script.host().engine()->globalObject().setProperty(QStringLiteral("sql"), sql);
    const QString outcome =
        script.outcome(QStringLiteral("var pool = vext.pool(%1); pool.query(sql, function (error) {"
                                      "    pool.close(function () { done(told(error)); }); });")
                           .arg(literalOf(database->parameters())));
    QCOMPARE(outcome, QLatin1Char('"') + told + QLatin1Char('"'));
}

void TestLibraryResults::lossIsKnownByItsCodeOrItsWords_data()
{
    QTest::addColumn<QString>("driver");
    QTest::addColumn<int>("number");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("told");
    // The client library's own numbers: no server sends them.
    for (int number : {2002, 2003, 2006, 2013, 2055})
        QTest::newRow(QByteArray::number(number).constData())
            << "QMYSQL" << number << "no word" << QStringLiteral("lost %1").arg(number);
    QTest::newRow("another number") << "QMYSQL" << 2027 << "no word"
                                    << "statement 2027";
    QTest::newRow("a number without its zeros") << "QPSQL" << 8006 << "no word"
                                                << "lost 08006";
    const struct {
        const char *driver;
        const char *text;
        const char *told;
    } words[] = {
        {"QPSQL", "server closed the connection unexpectedly", "lost"},
        {"QPSQL", "no connection to the server", "lost"},
        {"QPSQL", "FATAL: terminating connection due to administrator command", "lost"},
        {"QPSQL", "could not connect to server", "lost"},
        {"QPSQL", "could not receive data from server", "lost"},
        {"QPSQL", "connection to server failed: Connection refused", "lost"},
        {"QPSQL", "SSL SYSCALL error: EOF detected", "lost"},
        {"QPSQL", "timeout expired", "lost"},
        {"QPSQL", "FATAL: the database system is shutting down", "lost"},
        {"QMYSQL", "Lost connection to MySQL server during query", "lost 2013"},
        {"QMYSQL", "MySQL server has gone away", "lost 2006"},
        {"QMYSQL", "Can't connect to MySQL server", "lost 2002"},
        {"QMYSQL", "WSREP has not yet prepared node for application use", "unready 1047"},
        {"QMYSQL", "running with the --read-only option", "unready 1047"},
        {"QMYSQL", "Deadlock found when trying to get lock", "conflict 1213"},
        {"QMYSQL", "Lock wait timeout exceeded", "conflict 1205"},
        {"QMYSQL", "Duplicate entry '1' for key 'PRIMARY'", "duplicate 1062"},
        {"QMYSQL", "Table 'a.b' doesn't exist", "statement 1146"},
        {"QIBASE", "deadlock", "conflict"},
        {"QIBASE", "lock conflict on no wait transaction", "conflict"},
        {"QPSQL", "syntax error", "statement"},
    };
    for (const auto &known : words)
        QTest::newRow(known.text) << known.driver << -1 << known.text << known.told;
    QTest::newRow("delivered unrun") << "QPSQL" << -1 << QString() << "lost";
}

/// A connection object of the test's own, whose tasks fail as the row says.
void TestLibraryResults::lossIsKnownByItsCodeOrItsWords()
{
    QFETCH(QString, driver);
    QFETCH(int, number);
    QFETCH(QString, text);
    QFETCH(QString, told);
    LibraryScript script;
    QScriptEngine *engine = script.host().engine();
    engine->globalObject().setProperty(QStringLiteral("text"), text);
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var db = {driverName: "%1", isOpen: true, lastError: "", lastErrors: {number: %2, type: 2,
            text: %2 > 0 ? text : "of something else"}};
        db.hasFeature = function () { return {}; };
        db.query_thread = function (callback) {
            setTimeout(function () {
                if (text === "") {
                    callback(false);
                } else {
                    callback(false, text);
                }
            }, 0);
            return true;
        };
        vext.pages(db, {sql: "SELECT 1 AS n", key: "n"}, function () {}, function (error) { done(told(error)); });
    )js")
                                               .arg(driver, QString::number(number)));
    QCOMPARE(outcome, QLatin1Char('"') + told + QLatin1Char('"'));
}

void TestLibraryResults::questionMarksArePlaceholdersWhereTheServerReadsNone_data()
{
    QTest::addColumn<QString>("driver");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("filled"); // with the values 7 and 'a'
    const auto row = [](const char *name, const char *driver, const char *text,
                        const char *filled) {
        QTest::newRow(name) << QString::fromUtf8(driver) << QString::fromUtf8(text)
                            << QString::fromUtf8(filled);
    };
    row("plain", "QSQLITE", "SELECT ?, ?", "SELECT 7, 'a'");
    row("at the ends", "QSQLITE", "?+?", "7+'a'");
    row("in a string", "QSQLITE", "'?''?' ? ?", "'?''?' 7 'a'");
    row("backslash ends a string", "QSQLITE", "'\\' ? ?", "'\\' 7 'a'");
    row("in a quoted name", "QSQLITE", "\"?\" [?] `?` ? ?", "\"?\" [?] `?` 7 'a'");
    row("in a line comment", "QSQLITE", "? -- ?\n?", "7 -- ?\n'a'");
    row("in a comment", "QSQLITE", "? /* ? /* */ ?", "7 /* ? /* */ 'a'");
    row("open comment", "QSQLITE", "? ? /* ?", "7 'a' /* ?");
    row("nested comment", "QPSQL", "? /* /* ? */ ? */ ?", "7 /* /* ? */ ? */ 'a'");
    row("dollar quotes", "QPSQL", "? $$ ? $$ $q$ ? $$ $q$ ?", "7 $$ ? $$ $q$ ? $$ $q$ 'a'");
    row("dollar inside a name", "QPSQL", "a$b ? c$d ?", "a$b 7 c$d 'a'");
    row("numbered parameter is no quote", "QPSQL", "$1 ? $1 ?", "$1 7 $1 'a'");
    row("escape string", "QPSQL", "E'\\'?' ? e'\\\\' ?", "E'\\'?' 7 e'\\\\' 'a'");
    row("plain string with a backslash", "QPSQL", "'\\' ? ?", "'\\' 7 'a'");
    row("array and cast", "QPSQL", "a[?]::int, ?", "a[7]::int, 'a'");
    row("name that ends with e", "QPSQL", "SELECT type'\\' ? ?", "SELECT type'\\' 7 'a'");
    row("hash comment", "QMYSQL", "? # ?\n?", "7 # ?\n'a'");
    row("escaped quote", "QMYSQL", "'\\'?' ? \"\\\"?\" ?", "'\\'?' 7 \"\\\"?\" 'a'");
    row("backtick", "QMYSQL", "`?``?` ? ?", "`?``?` 7 'a'");
}

void TestLibraryResults::questionMarksArePlaceholdersWhereTheServerReadsNone()
{
    QFETCH(QString, driver);
    QFETCH(QString, text);
    QFETCH(QString, filled);
    LibraryScript script;
    QScriptEngine *engine = script.host().engine();
    engine->globalObject().setProperty(QStringLiteral("sql"), text);
    QCOMPARE(
        script.eval(QStringLiteral("vext.filled({driverName: '%1'}, sql, [7, 'a'])").arg(driver))
            .toString(),
        filled);
}

void TestLibraryResults::negativeNumberBeginsNoComment()
{
    LibraryScript script;
    QCOMPARE(script.text(QStringLiteral(
                 "vext.filled({driverName: 'QSQLITE'}, 'SELECT 1 -?, ?', [-5, -0.5])")),
             QStringLiteral("string:SELECT 1 -(-5), (-0.5)"));
}

void TestLibraryResults::wrongNumberOfValuesIsAnError()
{
    LibraryScript script;
    const QString text = script.host().evalThrows(
        QStringLiteral("vext.filled({driverName: 'QSQLITE'}, 'SELECT ?, ?', [1])"));
    QVERIFY2(text.contains(QStringLiteral("2 placeholders and 1 values")), qPrintable(text));
}

void TestLibraryResults::valueThatCannotBeWrittenIsAnError_data()
{
    QTest::addColumn<QString>("driver");
    QTest::addColumn<QString>("value");
    QTest::newRow("function") << "QSQLITE"
                              << "function () {}";
    QTest::newRow("object") << "QPSQL"
                            << "{a: 1}";
    QTest::newRow("array") << "QMYSQL"
                           << "[1]";
    QTest::newRow("NaN") << "QSQLITE"
                         << "NaN";
    QTest::newRow("infinity") << "QMYSQL"
                              << "-Infinity";
    QTest::newRow("NUL character") << "QPSQL"
                                   << "'a\\u0000b'";
    QTest::newRow("half a character") << "QMYSQL"
                                      << "'\\ud800'";
}

void TestLibraryResults::valueThatCannotBeWrittenIsAnError()
{
    QFETCH(QString, driver);
    QFETCH(QString, value);
    LibraryScript script;
    const QString text = script.host().evalThrows(
        QStringLiteral("vext.filled({driverName: '%1'}, 'SELECT ?', [%2])").arg(driver, value));
    QVERIFY2(text.startsWith(QStringLiteral("TypeError: vext:")) ||
                 text.startsWith(QStringLiteral("URIError")),
             qPrintable(text));
}

void TestLibraryResults::valuesComeBackAsTheyWere_data()
{
    m_databases.addRows();
}

void TestLibraryResults::valuesComeBackAsTheyWere()
{
    QFETCH(QString, parameters);
    QFETCH(QString, skip);
    if (!skip.isEmpty())
        QSKIP(qPrintable(skip));
    LibraryScript script;
    const QString outcome = script.outcome(QString::fromUtf8(R"js(
        var pool = vext.pool(%1);
        var texts = ["", "it's", "'); DROP TABLE kept; --", "back\\slash", "\\'", "\\", "?", "$1 :a",
            "quote \" and `", "line\nbreak\ttab\rreturn", "\u0416\u0443\u043a \u65e5\u672c", "%", "--", "/*"];
        var numbers = [0, -1, 0.5, -1.25e-7, 9007199254740991, -9007199254740991, 1e300];
        var wrong = [], left = texts.length + numbers.length;
        function check(value, pattern) {
            pool.query("SELECT " + pattern + " AS v", [value], function (error, result) {
                if (error || Number(result.fields_index[0][0]) !== value && result.fields_index[0][0] !== value) {
                    wrong.push([value, told(error), error ? error.message : result.fields_index[0][0]]);
                }
                if (--left === 0) {
                    pool.close(function () { done(wrong); });
                }
            });
        }
        var engine = pool.engine, text = engine === "mysql" ? "CONCAT(?, '')" : "CAST(? AS TEXT)";
        texts.forEach(function (value) { check(value, text); });
        numbers.forEach(function (value) { check(value, engine === "postgresql" ? "?::float8" : "? + 0"); });
    )js")
                                               .arg(parameters));
    QCOMPARE(outcome, QStringLiteral("[]"));
}

QTEST_GUILESS_MAIN(TestLibraryResults)
#include "test_library_results.moc"
