// The table of drivers and of the database systems behind them.
#include "sql_driver_kind.h"

#include <QSqlDriver>
#include <QtTest>

class TestDriverKind : public QObject
{
    Q_OBJECT

private slots:
    void driverNameTellsTheKind_data();
    void driverNameTellsTheKind();
    void kindsFollowQtsNumbers();
    void systemIsTheDriversOwnKind();
    void odbcDriverReportsTheSystem();
};

void TestDriverKind::driverNameTellsTheKind_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("kind");
    const auto row = [](const char *name, int kind) {
        QTest::newRow(*name ? name : "empty") << QString::fromLatin1(name) << kind;
    };
    row("QMYSQL", 2);
    row("QPSQL", 3);
    row("QOCI", 4);
    row("QTDS", 5);
    row("QSQLITE", 6);
    row("QSQLITE2", 6);
    row("QIBASE", 7);
    row("QFIREBIRD", 7);
    row("QDB2", 8);
    row("QODBC", 9);
    row("QMIMER", 11);
    row("qpsql", 3);
    row("qSqLite", 6);
    row("", 0);
    row("Q", 0);
    row("QPSQL7", 0);
    row("QODBC3", 0);
    row("QMYSQL3", 0);
    row("QPSQ", 0);
    row(" QPSQL", 0);
    row("PSQL", 0);
    row("QSQLCIPHER", 0);
}

void TestDriverKind::driverNameTellsTheKind()
{
    QFETCH(QString, name);
    QFETCH(int, kind);
    QCOMPARE(SqlDriverKind::driverType(name), kind);
}

void TestDriverKind::kindsFollowQtsNumbers()
{
    QCOMPARE(int(SqlDriverKind::MySql), int(QSqlDriver::MySqlServer));
    QCOMPARE(int(SqlDriverKind::PostgreSql), int(QSqlDriver::PostgreSQL));
    QCOMPARE(int(SqlDriverKind::Oracle), int(QSqlDriver::Oracle));
    QCOMPARE(int(SqlDriverKind::Tds), int(QSqlDriver::Sybase));
    QCOMPARE(int(SqlDriverKind::SQLite), int(QSqlDriver::SQLite));
    QCOMPARE(int(SqlDriverKind::Interbase), int(QSqlDriver::Interbase));
    QCOMPARE(int(SqlDriverKind::Db2), int(QSqlDriver::DB2));
}

void TestDriverKind::systemIsTheDriversOwnKind()
{
    for (int kind : {0, 2, 3, 4, 5, 6, 7, 8, 11})
        QCOMPARE(SqlDriverKind::dbmsType(kind, 1), kind);
}

void TestDriverKind::odbcDriverReportsTheSystem()
{
    for (int reported = 1; reported <= 8; ++reported)
        QCOMPARE(SqlDriverKind::dbmsType(9, reported), reported);
    for (int reported : {-1, 0, 9, 11})
        QCOMPARE(SqlDriverKind::dbmsType(9, reported), 0);
}

QTEST_APPLESS_MAIN(TestDriverKind)
#include "test_driver_kind.moc"
