// What the plugin reads in a statement's text and adds to it.
#include "sql_text.h"

#include <QtTest>

Q_DECLARE_METATYPE(SqlText::TransactionWord)

namespace
{
constexpr int PostgreSql = 3;
constexpr int SQLite = 6;
constexpr int Odbc = 9;
} // namespace

class TestSqlText : public QObject
{
    Q_OBJECT

private slots:
    void plainStatementIsToldByItsHead_data();
    void plainStatementIsToldByItsHead();
    void execNamesItsPlaceholders_data();
    void execNamesItsPlaceholders();
    void procedureNumbersItsPlaceholders_data();
    void procedureNumbersItsPlaceholders();
    void textIsNeitherTrimmedNorFilledIn();
    void manyPlaceholders();
    void transactionWordsCountByTheirHead_data();
    void transactionWordsCountByTheirHead();
    void twoHyphensAtTheEndAskForTiming_data();
    void twoHyphensAtTheEndAskForTiming();
    void errorTypesHaveNames();
};

void TestSqlText::plainStatementIsToldByItsHead_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("asGiven");
    QTest::addColumn<bool>("trimmed");
    const auto row = [](const QString &text, bool asGiven, bool trimmed) {
        QTest::newRow(qPrintable(QLatin1Char('\'') + text + QLatin1Char('\'')))
            << text << asGiven << trimmed;
    };
    row(QStringLiteral("DELETE from t"), true, true);
    row(QStringLiteral("insert into t"), true, true);
    row(QStringLiteral("sElEcT 1"), true, true);
    row(QStringLiteral("Update t"), true, true);
    row(QStringLiteral("values (1)"), true, true);
    row(QStringLiteral("selection"), true, true);
    row(QStringLiteral("select"), true, true);
    row(QStringLiteral("select  "), true, true);
    row(QStringLiteral(" select 1"), false, true);
    row(QStringLiteral("\t\nvalues (1)"), false, true);
    row(QStringLiteral("selec"), false, false);
    row(QStringLiteral("s"), false, false);
    row(QStringLiteral("deselect"), false, false);
    row(QStringLiteral("(select 1)"), false, false);
    row(QStringLiteral("with t as (select 1) select 1"), false, false);
    row(QStringLiteral("p_add"), false, false);
    row(QString(), false, false);
    row(QStringLiteral("   "), false, false);
    row(QStringLiteral("ſelect 1"), false, false); // the long s folds to an s
    row(QStringLiteral(" ſelect 1"), false, false);
    row(QStringLiteral("выбрать"), false, false);
    row(QStringLiteral("😀"), false, false);
}

void TestSqlText::plainStatementIsToldByItsHead()
{
    QFETCH(QString, text);
    QTEST(SqlText::isPlainStatement(text, SqlText::FirstCharacter::AsGiven), "asGiven");
    QTEST(SqlText::isPlainStatement(text, SqlText::FirstCharacter::Trimmed), "trimmed");
}

void TestSqlText::execNamesItsPlaceholders_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("driver");
    QTest::addColumn<QString>("statement");
    const auto row = [](const char *text, int count, int driver, const char *statement) {
        QTest::addRow("%s %d %d", text, count, driver)
            << QString::fromUtf8(text) << count << driver << QString::fromUtf8(statement);
    };
    row("p", 0, SQLite, "EXECUTE PROCEDURE p");
    row("p", 2, SQLite, "EXECUTE PROCEDURE p(:a0,:a1)");
    row("select 1", 0, SQLite, "EXECUTE PROCEDURE select 1");
    row("f", 1, Odbc, "EXECUTE PROCEDURE f(:a0)");
    row("f", 1, 0, "EXECUTE PROCEDURE f(:a0)");
    row("f", 1, PostgreSql, "SELECT f(:a0)");
    row("f", 0, PostgreSql, "SELECT f");
    row("select * from t", 0, PostgreSql, " select * from t");
    row(" select * from t", 0, PostgreSql, "SELECT  select * from t");
    row("INSERT INTO t VALUES", 2, PostgreSql, " INSERT INTO t VALUES(:a0,:a1)");
    row("", 0, PostgreSql, "SELECT ");
    row("f", -1, PostgreSql, "SELECT f");
}

void TestSqlText::execNamesItsPlaceholders()
{
    QFETCH(QString, text);
    QFETCH(int, count);
    QFETCH(int, driver);
    QTEST(SqlText::execStatement(text, count, driver), "statement");
}

void TestSqlText::procedureNumbersItsPlaceholders_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("system");
    QTest::addColumn<QString>("statement");
    const auto row = [](const char *text, int count, int system, const char *statement) {
        QTest::addRow("%s %d %d", text, count, system)
            << QString::fromUtf8(text) << count << system << QString::fromUtf8(statement);
    };
    row("p_add", 2, SQLite, "EXECUTE PROCEDURE p_add(?,?)");
    row("p_add", 0, SQLite, "EXECUTE PROCEDURE p_add");
    row("p_add", -1, SQLite, "EXECUTE PROCEDURE p_add()");
    row("p_add", -7, PostgreSql, "SELECT p_add()");
    row("select 1", 1, SQLite, "EXECUTE PROCEDURE select 1(?)");
    row("f", 3, PostgreSql, "SELECT f(?,?,?)");
    row("insert into t values", 2, PostgreSql, "insert into t values(?,?)");
    row("  select 1 ", 0, PostgreSql, "  select 1 ");
    row("", 0, PostgreSql, "SELECT ");
}

void TestSqlText::procedureNumbersItsPlaceholders()
{
    QFETCH(QString, text);
    QFETCH(int, count);
    QFETCH(int, system);
    QTEST(SqlText::procedureStatement(text, count, system), "statement");
}

void TestSqlText::textIsNeitherTrimmedNorFilledIn()
{
    const QString text = QStringLiteral(" p%1 ") + QChar(0) + QStringLiteral("%2 ");
    QCOMPARE(SqlText::execStatement(text, 1, SQLite),
             QStringLiteral("EXECUTE PROCEDURE ") + text + QStringLiteral("(:a0)"));
    QCOMPARE(SqlText::procedureStatement(text, 1, SQLite),
             QStringLiteral("EXECUTE PROCEDURE ") + text + QStringLiteral("(?)"));
}

void TestSqlText::manyPlaceholders()
{
    const QString named = SqlText::execStatement(QStringLiteral("p"), 1000, SQLite);
    QCOMPARE(named.count(QLatin1Char(':')), 1000);
    QVERIFY(named.endsWith(QStringLiteral(":a998,:a999)")));
    const QString numbered = SqlText::procedureStatement(QStringLiteral("p"), 1000, SQLite);
    QCOMPARE(numbered.count(QLatin1Char('?')), 1000);
    QVERIFY(numbered.endsWith(QStringLiteral("?,?)")));
}

void TestSqlText::transactionWordsCountByTheirHead_data()
{
    using SqlText::TransactionWord;
    QTest::addColumn<QString>("statement");
    QTest::addColumn<TransactionWord>("word");
    const auto row = [](const QString &statement, TransactionWord word) {
        QTest::newRow(qPrintable(QLatin1Char('\'') + statement + QLatin1Char('\'')))
            << statement << word;
    };
    row(QStringLiteral("commit"), TransactionWord::Commit);
    row(QStringLiteral("COMMIT WORK"), TransactionWord::Commit);
    row(QStringLiteral("Commit;"), TransactionWord::Commit);
    row(QStringLiteral("commitment"), TransactionWord::Commit);
    row(QStringLiteral("rollback"), TransactionWord::Rollback);
    row(QStringLiteral("ROLLBACK to savepoint a"), TransactionWord::Rollback);
    row(QStringLiteral("rollbacks"), TransactionWord::Rollback);
    row(QStringLiteral(" commit"), TransactionWord::None);
    row(QStringLiteral("\trollback"), TransactionWord::None);
    row(QStringLiteral("commi"), TransactionWord::None);
    row(QStringLiteral("commi t"), TransactionWord::None);
    row(QStringLiteral("rollbac"), TransactionWord::None);
    row(QStringLiteral("roll back"), TransactionWord::None);
    row(QStringLiteral("create table t(a)"), TransactionWord::None);
    row(QStringLiteral("release a"), TransactionWord::None);
    row(QStringLiteral("begin"), TransactionWord::None);
    row(QString(), TransactionWord::None);
}

void TestSqlText::transactionWordsCountByTheirHead()
{
    QFETCH(QString, statement);
    QTEST(SqlText::transactionWord(statement), "word");
}

void TestSqlText::twoHyphensAtTheEndAskForTiming_data()
{
    QTest::addColumn<QString>("statement");
    QTest::addColumn<bool>("timing");
    QTest::newRow("marker") << QStringLiteral("SELECT 1 --") << true;
    QTest::newRow("alone") << QStringLiteral("--") << true;
    QTest::newRow("three") << QStringLiteral("select 1---") << true;
    QTest::newRow("none") << QStringLiteral("SELECT 1") << false;
    QTest::newRow("one") << QStringLiteral("select 1 -") << false;
    QTest::newRow("blank behind") << QStringLiteral("select 1 -- ") << false;
    QTest::newRow("comment") << QStringLiteral("-- select 1") << false;
    QTest::newRow("empty") << QString() << false;
}

void TestSqlText::twoHyphensAtTheEndAskForTiming()
{
    QFETCH(QString, statement);
    QTEST(SqlText::asksForTiming(statement), "timing");
}

void TestSqlText::errorTypesHaveNames()
{
    QCOMPARE(type2str(QSqlError::NoError), QStringLiteral("NoError"));
    QCOMPARE(type2str(QSqlError::ConnectionError), QStringLiteral("ConnectionError"));
    QCOMPARE(type2str(QSqlError::StatementError), QStringLiteral("StatementError"));
    QCOMPARE(type2str(QSqlError::TransactionError), QStringLiteral("TransactionError"));
    QCOMPARE(type2str(QSqlError::UnknownError), QStringLiteral("UnknownError"));
}

QTEST_APPLESS_MAIN(TestSqlText)
#include "test_sql_text.moc"
