/// @file
/// ODBC: two systems behind one driver, told apart as far as the driver tells.

#include "database_script.h"
#include "driver_layer.h"
#include "local_databases.h"

#include <QtTest>

class TestServerOdbc : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init() { m_script = std::make_unique<DatabaseScript>(); }
    void cleanup() { m_script.reset(); }

    void sourceIsFoundByItsName_data() { sources(); }
    void sourceIsFoundByItsName();
    void systemIsUnknownBeforeTheDriverIsOpen_data() { sources(); }
    void systemIsUnknownBeforeTheDriverIsOpen();
    void lastInsertIdIsReadWhereTheDriverKnowsTheSystem_data() { sources(); }
    void lastInsertIdIsReadWhereTheDriverKnowsTheSystem();
    void boundProcedureCallIsRefused_data() { sources(); }
    void boundProcedureCallIsRefused();
    void functionIsCalledInAPlainQuery();
    void notificationsAreNotSupported_data() { sources(); }
    void notificationsAreNotSupported();
    void noApplicationNameIsSent();
    void typedColumnsOfSqliteHaveTypes();

private:
    static void sources();
    /// Opens the global `db`. @return whether that went well; skips where the source is missing
    bool open(const QString &source);

    PostgresServer m_server;
    OdbcSource m_postgres{OdbcSource::Behind::PostgreSql, &m_server};
    OdbcSource m_sqlite{OdbcSource::Behind::Sqlite};
    QString m_postgresReason;
    QString m_sqliteReason;
    std::unique_ptr<DatabaseScript> m_script;
};

#define OPEN_SOURCE(name)                                                                          \
    do {                                                                                           \
        const QString &reason_ =                                                                   \
            (name) == QLatin1String("PostgreSQL") ? m_postgresReason : m_sqliteReason;             \
        if (!reason_.isEmpty())                                                                    \
            QSKIP(qPrintable(reason_));                                                            \
        QVERIFY(open(name));                                                                       \
    } while (false)

void TestServerOdbc::initTestCase()
{
    if (m_postgres.available(&m_postgresReason)) {
        QVERIFY2(m_server.start(), qPrintable(m_server.error()));
        QVERIFY2(m_postgres.start(), qPrintable(m_postgres.error()));
    }
    if (m_sqlite.available(&m_sqliteReason))
        QVERIFY2(m_sqlite.start(), qPrintable(m_sqlite.error()));
    if (!m_postgresReason.isEmpty() && !m_sqliteReason.isEmpty())
        QSKIP(qPrintable(m_postgresReason + QStringLiteral("; ") + m_sqliteReason));
}

void TestServerOdbc::sources()
{
    QTest::addColumn<QString>("source");
    QTest::newRow("PostgreSQL") << QStringLiteral("PostgreSQL");
    QTest::newRow("SQLite") << QStringLiteral("SQLite");
}

bool TestServerOdbc::open(const QString &source)
{
    const OdbcSource &chosen = source == QLatin1String("PostgreSQL") ? m_postgres : m_sqlite;
    return m_script->open(QStringLiteral("db"), chosen.parameters());
}

void TestServerOdbc::sourceIsFoundByItsName()
{
    QFETCH(QString, source);
    OPEN_SOURCE(source);
    const bool postgres = source == QLatin1String("PostgreSQL");
    const QString sql = postgres ? QStringLiteral("SELECT substr(version(), 1, 10)")
                                 : QStringLiteral("SELECT substr(sqlite_version(), 1, 2)");
    for (const Way way : {Way::Here, Way::Thread}) {
        QCOMPARE(m_script->rows(way, QStringLiteral("db"), sql),
                 postgres ? QStringLiteral("string:PostgreSQL") : QStringLiteral("string:3."));
    }
}

void TestServerOdbc::systemIsUnknownBeforeTheDriverIsOpen()
{
    QFETCH(QString, source);
    OPEN_SOURCE(source);
    // The system is asked for when the parameters are set, and Qt's driver learns it later: names
    // keep their case, which PostgreSQL's own driver would have in upper case.
    for (const Way way : {Way::Here, Way::Thread}) {
        QVERIFY(m_script->mustRun(way, QStringLiteral("db"), QStringLiteral("SELECT 1 AS lower")));
        QCOMPARE(m_script->text(QStringLiteral("answer.result.fields_names")),
                 QStringLiteral("array:string:lower"));
    }
}

void TestServerOdbc::lastInsertIdIsReadWhereTheDriverKnowsTheSystem()
{
    QFETCH(QString, source);
    OPEN_SOURCE(source);
    const bool postgres = source == QLatin1String("PostgreSQL");
    const QString create =
        QStringLiteral("CREATE TABLE counted (id %1 PRIMARY KEY, a INTEGER)")
            .arg(postgres ? QStringLiteral("SERIAL") : QStringLiteral("INTEGER"));
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), create));
    const QString expected = postgres ? QStringLiteral("number:%1") : QStringLiteral("null");
    int n = 0;
    for (const Way way : {Way::Here, Way::Thread}) {
        QVERIFY(m_script->mustRun(way, QStringLiteral("db"),
                                  QStringLiteral("INSERT INTO counted (a) VALUES (5)")));
        ++n;
        QCOMPARE(m_script->text(QStringLiteral("answer.result.lastInsertId")),
                 postgres ? expected.arg(n) : expected);
    }
}

void TestServerOdbc::boundProcedureCallIsRefused()
{
    QFETCH(QString, source);
    OPEN_SOURCE(source);
    if (driverLayerInUse()) { // which calls it
        m_script->eval(QStringLiteral("var direct = db.exec('abs', [-1]); "
                                      "db.exec_thread(keep('abs'), 'abs', [-2])"));
        QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
        QCOMPARE(m_script->text(QStringLiteral("Number(direct.fields_index[0][0])")),
                 QStringLiteral("number:1"));
        QCOMPARE(m_script->text(QStringLiteral("Number(delivered[0].result.fields_index[0][0])")),
                 QStringLiteral("number:2"));
        return;
    }
    QVERIFY(m_script->isTrue(QStringLiteral("db.exec('abs', [-1]) === false")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.lastError.length > 0 && db.isOpen")));
    m_script->eval(QStringLiteral("db.exec_thread(keep('abs'), 'abs', [-1])"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QVERIFY(m_script->isTrue(QStringLiteral("typeof delivered[0].error === 'string'")));
}

void TestServerOdbc::functionIsCalledInAPlainQuery()
{
    OPEN_SOURCE(QStringLiteral("PostgreSQL"));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT abs(-1)")),
             QStringLiteral("number:1"));
}

void TestServerOdbc::notificationsAreNotSupported()
{
    QFETCH(QString, source);
    OPEN_SOURCE(source);
    QVERIFY(!m_script->isTrue(QStringLiteral("db.isSupportEvent")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('jobs')")));
}

void TestServerOdbc::noApplicationNameIsSent()
{
    OPEN_SOURCE(QStringLiteral("PostgreSQL"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.close(); db.app_name = 'night shift'; db.open()")));
    for (const Way way : {Way::Here, Way::Thread}) {
        const QString name =
            m_script->rows(way, QStringLiteral("db"), QStringLiteral("SHOW application_name"));
        QVERIFY2(!name.contains(QLatin1String("night shift")), qPrintable(name));
    }
}

void TestServerOdbc::typedColumnsOfSqliteHaveTypes()
{
    OPEN_SOURCE(QStringLiteral("SQLite"));
    QVERIFY(m_script->mustRun(
        Way::Here, QStringLiteral("db"),
        QStringLiteral("CREATE TABLE typed (small INTEGER, big BIGINT, price DECIMAL(10,2), "
                       "yes BOOLEAN, day DATE, moment TIMESTAMP, clock TIME)")));
    QVERIFY(m_script->mustRun(
        Way::Here, QStringLiteral("db"),
        QStringLiteral("INSERT INTO typed VALUES (7, 9007199254740992, 12.50, 1, '2024-02-29', "
                       "'2024-02-29 12:34:56', '12:34:56')")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"), QStringLiteral("SELECT * FROM typed")),
             QStringLiteral("number:7|number:9007199254740992|string:12.5|number:1|"
                            "date:2024-02-29T00:00:00|date:2024-02-29T12:34:56|"
                            "variant:12:34:56.000"));
}

QTEST_GUILESS_MAIN(TestServerOdbc)
#include "test_server_odbc.moc"
