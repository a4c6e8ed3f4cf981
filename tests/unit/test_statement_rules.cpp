// What the worker reads in a statement: words, refusals, transactions, columns, secrets.
#include "sql_driver_kind.h"
#include "sql_secrets.h"
#include "sql_words.h"
#include "statement_rules.h"
#include "transaction_watch.h"

#include <QtTest>

using Refusal = StatementRules::Refusal;
using Step = StatementRules::TransactionStep;

namespace
{

QString utf8(const char *text)
{
    return QString::fromUtf8(text);
}

} // namespace

class TestStatementRules : public QObject
{
    Q_OBJECT

private slots:
    void wordsLeaveOutWhatIsQuoted_data();
    void wordsLeaveOutWhatIsQuoted();
    void copyThroughTheClientIsRefused_data();
    void copyThroughTheClientIsRefused();
    void copyIsRefusedOnPostgreSqlOnly();
    void nulCharacterIsRefusedEverywhere();
    void starInARowsStatementMayChangeColumns_data();
    void starInARowsStatementMayChangeColumns();
    void transactionStepsAreRecognised_data();
    void transactionStepsAreRecognised();
    void lostSessionLosesTheTransaction();
    void closedSessionLosesOnlyAnOpenTransaction();
    void autocommitOffIsAnOpenTransaction();
    void passwordsOfStatementsAreMasked_data();
    void passwordsOfStatementsAreMasked();
    void longPasswordsAreMasked_data();
    void longPasswordsAreMasked();
};

void TestStatementRules::wordsLeaveOutWhatIsQuoted_data()
{
    QTest::addColumn<int>("dbms");
    QTest::addColumn<QString>("sql");
    QTest::addColumn<QString>("words");
    const auto row = [](const char *name, int dbms, const char *sql, const char *words) {
        QTest::newRow(name) << dbms << utf8(sql) << utf8(words);
    };
    row("plain", 0, "select a1, b_2 from t;", "select a1 , b_2 from t ;");
    row("strings", 0, "a 'b''*' c", "a c");
    row("names", 0, "a \"b\"\"*\" c", "a c");
    row("open string", 0, "a 'b c", "a");
    row("line comment", 0, "a -- b\nc", "a c");
    row("open line comment", 0, "a -- b", "a");
    row("comment", 0, "a /* b */ c", "a c");
    row("open comment", 0, "a /* b", "a");
    row("slashed comment", 0, "a /*/ b */ c", "a c");
    row("stars in a comment", 0, "a /** b **/ c", "a c");
    row("nested comment", 3, "a /* b /* c */ d */ e", "a e");
    row("no nested comment", 6, "a /* b /* c */ d", "a d");
    row("division", 0, "a/b", "a / b");
    row("subtraction", 0, "a-b", "a - b");
    row("dollars", 3, "a $$ b ' $$ c", "a c");
    row("tagged dollars", 3, "a $x$ b $$ c $x$ d", "a d");
    row("parameter", 3, "a $1 b", "a $1 b");
    row("parameter with a dollar behind it", 3, "a $1$ b", "a $1$ b");
    row("dollars elsewhere", 6, "a $b", "a $b");
    row("escape string", 3, "a E'b\\' c' d", "a d");
    row("no escape string", 3, "a 'b\\' c", "a c");
    row("MariaDB escapes", 2, "a 'b\\' c' d", "a d");
    row("hash comment", 2, "a # b\nc", "a c");
    row("backquotes", 2, "a `b c` d", "a d");
    row("brackets", 6, "a [b * c] d", "a d");
    row("subscript", 3, "a[1]", "a [ 1 ]");
}

void TestStatementRules::wordsLeaveOutWhatIsQuoted()
{
    QFETCH(int, dbms);
    QFETCH(QString, sql);
    SqlWords words(sql, dbms);
    QStringList found;
    while (words.next())
        found << words.text().toString();
    QTEST(found.join(QLatin1Char(' ')), "words");
}

void TestStatementRules::copyThroughTheClientIsRefused_data()
{
    QTest::addColumn<QString>("sql");
    QTest::addColumn<bool>("refused");
    const auto row = [](const char *sql, bool refused) {
        QTest::newRow(sql) << utf8(sql) << refused;
    };
    row("COPY t TO STDOUT", true);
    row("copy t from stdin", true);
    row(" \n/* a */ -- b\n Copy t (a, b) From StdIn with csv", true);
    row("COPY (SELECT 1) TO STDOUT", true);
    row("SELECT 1; COPY t TO STDOUT", true);
    row(";COPY t TO STDOUT", true);
    row("COPY t TO '/stdout'", false);
    row("COPY t FROM PROGRAM 'stdin'", false);
    row("COPY stdin FROM '/file'", false);
    row("COPY (SELECT * FROM stdin) TO '/file'", false);
    row("SELECT 'COPY t TO STDOUT'", false);
    row("SELECT copy FROM stdin", false);
    row("SELECT $$; COPY t TO STDOUT$$", false);
    row("-- COPY t TO STDOUT\nSELECT 1", false);
}

void TestStatementRules::copyThroughTheClientIsRefused()
{
    QFETCH(QString, sql);
    QFETCH(bool, refused);
    QCOMPARE(StatementRules::refusal(sql, SqlDriverKind::PostgreSql) == Refusal::CopyStream,
             refused);
}

void TestStatementRules::copyIsRefusedOnPostgreSqlOnly()
{
    for (const int dbms : {0, 2, 4, 5, 6, 7, 8, 11})
        QVERIFY(StatementRules::refusal(utf8("COPY t TO STDOUT"), dbms) == Refusal::None);
}

void TestStatementRules::nulCharacterIsRefusedEverywhere()
{
    const QString sql = utf8("DELETE FROM t") + QChar() + utf8(" WHERE a = 1");
    for (const int dbms : {0, 2, 3, 4, 5, 6, 7, 8, 11})
        QVERIFY(StatementRules::refusal(sql, dbms) == Refusal::NulCharacter);
    QVERIFY(StatementRules::refusal(QString(QChar()), 0) == Refusal::NulCharacter);
}

void TestStatementRules::starInARowsStatementMayChangeColumns_data()
{
    QTest::addColumn<QString>("sql");
    QTest::addColumn<bool>("may");
    const auto row = [](const char *sql, bool may) { QTest::newRow(sql) << utf8(sql) << may; };
    row("SELECT * FROM t", true);
    row("select t.* from t", true);
    row(" /* c */ ;; SELECT * FROM t", true);
    row("WITH q AS (SELECT * FROM t) SELECT * FROM q", true);
    row("DELETE FROM t RETURNING *", true);
    row("INSERT INTO t VALUES (1) RETURNING *", true);
    row("REPLACE INTO t VALUES (1) RETURNING *", true);
    row("UPDATE t SET a = 1 RETURNING *", true);
    row("SELECT a FROM t", false);
    row("SELECT '*' FROM t", false);
    row("SELECT \"*\", `*`, [*] FROM t", false);
    row("SELECT a /* * */ FROM t -- *", false);
    row("CREATE TABLE u AS SELECT * FROM t", false);
    row("CREATE VIEW v AS SELECT * FROM t", false);
    row("EXPLAIN SELECT * FROM t", false);
    row("VACUUM", false);
    row("*", false);
    row("", false);
}

void TestStatementRules::starInARowsStatementMayChangeColumns()
{
    QFETCH(QString, sql);
    QTEST(StatementRules::mayChangeColumns(sql), "may");
}

void TestStatementRules::transactionStepsAreRecognised_data()
{
    QTest::addColumn<QString>("sql");
    QTest::addColumn<int>("step");
    const auto row = [](const char *sql, Step step) {
        QTest::newRow(sql) << utf8(sql) << int(step);
    };
    row("BEGIN", Step::Begin);
    row(" /* a */ begin;", Step::Begin);
    row("BEGIN IMMEDIATE", Step::Begin);
    row("BEGIN TRANSACTION", Step::Begin);
    row("BEGIN ISOLATION LEVEL SERIALIZABLE", Step::Begin);
    row("BEGIN NOT ATOMIC SELECT 1; END", Step::None);
    row("START TRANSACTION", Step::Begin);
    row("START SLAVE", Step::None);
    row("COMMIT", Step::Commit);
    row(" commit work", Step::Commit);
    row("END", Step::Commit);
    row("ROLLBACK", Step::Rollback);
    row("ABORT", Step::Rollback);
    row("ROLLBACK TO a", Step::None);
    row("ROLLBACK WORK TO SAVEPOINT a", Step::None);
    row("ROLLBACK; SET x TO 1", Step::Rollback);
    row(" ;; COMMIT", Step::Commit);
    row(";", Step::None);
    row("SET autocommit=0", Step::AutocommitOff);
    row("SET @@autocommit = OFF", Step::AutocommitOff);
    row("SET SESSION autocommit = 1", Step::AutocommitOn);
    row("SET x = 0", Step::None);
    row("SELECT 'BEGIN'", Step::None);
    row("", Step::None);
}

void TestStatementRules::transactionStepsAreRecognised()
{
    QFETCH(QString, sql);
    QFETCH(int, step);
    QCOMPARE(int(StatementRules::transactionStep(sql, SqlDriverKind::MySql)), step);
}

void TestStatementRules::lostSessionLosesTheTransaction()
{
    for (const Step end : {Step::Commit, Step::Rollback, Step::Begin}) {
        TransactionWatch watch;
        QVERIFY(!watch.isLost() && !watch.isOpen());
        watch.executed(Step::Begin);
        QVERIFY(!watch.isLost() && watch.isOpen());
        watch.sessionLost();
        watch.executed(Step::None);
        QVERIFY(watch.isLost() && !watch.isOpen());
        watch.executed(end);
        QVERIFY(!watch.isLost());
    }
}

void TestStatementRules::closedSessionLosesOnlyAnOpenTransaction()
{
    TransactionWatch watch;
    watch.sessionClosed();
    QVERIFY(!watch.isLost());
    watch.begun();
    watch.sessionClosed();
    QVERIFY(watch.isLost());
    watch.ended();
    watch.sessionClosed();
    QVERIFY(!watch.isLost());
    watch.begun();
    watch.ended();
    QVERIFY(!watch.isOpen());
    watch.sessionClosed();
    QVERIFY(!watch.isLost());
}

void TestStatementRules::autocommitOffIsAnOpenTransaction()
{
    TransactionWatch watch;
    watch.executed(Step::AutocommitOff);
    watch.executed(Step::Commit);
    watch.sessionClosed();
    QVERIFY(watch.isLost());
    watch.executed(Step::AutocommitOff);
    QVERIFY(!watch.isLost() && watch.isOpen());
    watch.executed(Step::AutocommitOn);
    watch.sessionClosed();
    QVERIFY(!watch.isLost() && !watch.isOpen());
    watch.begun();
    watch.executed(Step::AutocommitOn); // commits
    QVERIFY(!watch.isOpen());
    watch.executed(Step::AutocommitOff);
    watch.sessionLost();
    watch.executed(Step::Rollback);
    QVERIFY(!watch.isOpen()); // a new session has autocommit
}

void TestStatementRules::passwordsOfStatementsAreMasked_data()
{
    QTest::addColumn<QString>("sql");
    QTest::addColumn<QString>("masked");
    const auto row = [](const char *sql, const char *masked) {
        QTest::newRow(sql) << utf8(sql) << utf8(masked);
    };
    row("ALTER ROLE r PASSWORD 'se''cret' LOGIN", "ALTER ROLE r PASSWORD '****' LOGIN");
    row("create user u identified by 'secret'", "create user u identified by '****'");
    row("CREATE USER u IDENTIFIED BY PASSWORD '*AB'",
        "CREATE USER u IDENTIFIED BY PASSWORD '****'");
    row("CREATE USER u IDENTIFIED WITH x AS 'secret'", "CREATE USER u IDENTIFIED WITH x AS '****'");
    row("SET PASSWORD FOR u = PASSWORD('secret')", "SET PASSWORD FOR u = PASSWORD('****')");
    row("SET PASSWORD = 'a\\'b'", "SET PASSWORD = '****'");
    row("ALTER ROLE r PASSWORD E'se\\'cret'", "ALTER ROLE r PASSWORD '****'");
    row("ALTER ROLE r PASSWORD $x$secret$x$;", "ALTER ROLE r PASSWORD '****';");
    row("CREATE USER u PASSWORD \"secret\"", "CREATE USER u PASSWORD '****'");
    row("LINE 1: ALTER ROLE r PASSWORD 'secr...", "LINE 1: ALTER ROLE r PASSWORD '****'");
    row("ATTACH 'a;Pwd=secret;b'", "ATTACH 'a;Pwd=****;b'");
    row("SELECT password FROM t WHERE a = 'b'", "SELECT password FROM t WHERE a = 'b'");
}

void TestStatementRules::passwordsOfStatementsAreMasked()
{
    QFETCH(QString, sql);
    QTEST(SqlSecrets::maskedStatement(sql), "masked");
}

void TestStatementRules::longPasswordsAreMasked_data()
{
    QTest::addColumn<bool>("ofConnection");
    QTest::addColumn<QString>("begin");
    QTest::addColumn<QString>("filling");
    QTest::addColumn<QString>("end");
    QTest::addColumn<QString>("masked");
    const auto row = [](bool ofConnection, const char *begin, const char *filling, const char *end,
                        const char *masked) {
        QTest::newRow(qPrintable(QStringLiteral("%1 %2 %3")
                                     .arg(ofConnection ? QStringLiteral("connection")
                                                       : QStringLiteral("statement"),
                                          utf8(begin), utf8(filling))))
            << ofConnection << utf8(begin) << utf8(filling) << utf8(end) << utf8(masked);
    };
    for (const char *filling : {"x", "''", "\\a"}) {
        row(false, "set password '", filling, "'; alter role r password 'secret'",
            "set password '****'; alter role r password '****'");
        row(true, "a=1;password='", filling, "';b=2", "a=1;password=****;b=2");
    }
    row(false, "set password \"", "x", "\" x", "set password '****' x");
    row(false, "set password $a$", "x", "$a$ x", "set password '****' x");
    row(false, "set password '", "x\\", "", "set password '****'");
    row(true, "Pwd={", "x", "};b=2", "Pwd=****;b=2");
    row(true, "pwd={", "{", "", "pwd=****");
    row(true, "password=\"", "\"\"", "\";b=2", "password=****;b=2");
    row(true, "password=", "x", ";b=2", "password=****;b=2");
}

/// As long as a statement that holds a file.
void TestStatementRules::longPasswordsAreMasked()
{
    QFETCH(bool, ofConnection);
    QFETCH(QString, begin);
    QFETCH(QString, filling);
    QFETCH(QString, end);
    const QString text = begin + filling.repeated(1000000) + end;
    const QString masked =
        ofConnection ? SqlSecrets::maskedConnection(text) : SqlSecrets::maskedStatement(text);
    QVERIFY2(masked.size() < 200, qPrintable(QString::number(masked.size())));
    QTEST(masked, "masked");
}

QTEST_APPLESS_MAIN(TestStatementRules)
#include "test_statement_rules.moc"
