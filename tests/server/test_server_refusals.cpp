/// @file
/// What is refused before a server sees it, and failures behind the first result of a text.

#include "database_script.h"
#include "local_databases.h"
#include "mariadb_server.h"
#include "postgres_server.h"

#include <QtTest>

#include <memory>

namespace
{

const QString Db = QStringLiteral("db");
const QString Postgres = QStringLiteral("PostgreSQL");
const QString MariaDb = QStringLiteral("MariaDB");

} // namespace

class TestServerRefusals : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void copyThroughTheClientIsRefused_data();
    void copyThroughTheClientIsRefused();
    void copyOnTheServerIsSent_data();
    void copyOnTheServerIsSent();
    void nulCharacterSendsNothing_data();
    void nulCharacterSendsNothing();
    void errorOfALaterStatementFails_data();
    void errorOfALaterStatementFails();
    void severalGoodStatementsSucceed_data();
    void severalGoodStatementsSucceed();

private:
    /// Adds rows for each of the systems, on both ways, with the text as third column.
    void addRows(const QStringList &systems, const QStringList &texts);
    /// Opens the connection and makes the table `u` with one row, 5; skips where it cannot.
    bool prepare();
    QString count(const QString &sql = QStringLiteral("SELECT COUNT(*) FROM u"))
    {
        return m_script->rows(m_way, Db, sql);
    }

    PostgresServer m_postgres;
    MariaDbServer m_mariadb;
    FirebirdDatabase m_firebird;
    SqliteDatabase m_sqlite;
    OdbcSource m_odbc{OdbcSource::Behind::PostgreSql, &m_postgres};
    QHash<QString, TestDatabase *> m_databases;
    QHash<QString, QString> m_missing;
    std::unique_ptr<DatabaseScript> m_script;
    Way m_way = Way::Here;
};

void TestServerRefusals::initTestCase()
{
    for (TestDatabase *database : std::initializer_list<TestDatabase *>{
             &m_postgres, &m_mariadb, &m_firebird, &m_sqlite, &m_odbc}) {
        m_databases[database->name()] = database;
        QString reason;
        if (!database->available(&reason) || (database == &m_odbc && m_missing.contains(Postgres)))
            m_missing[database->name()] = reason;
        else
            QVERIFY2(database->start(), qPrintable(database->error()));
    }
}

void TestServerRefusals::addRows(const QStringList &systems, const QStringList &texts)
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<int>("way");
    QTest::addColumn<QString>("text");
    for (const QString &system : systems) {
        for (const Way way : {Way::Here, Way::Thread}) {
            for (const QString &text : texts) {
                const QString row =
                    QStringLiteral("%1, %2, %3").arg(system, wayName(way), text.trimmed());
                QTest::newRow(qPrintable(row)) << system << int(way) << text;
            }
        }
    }
}

bool TestServerRefusals::prepare()
{
    QFETCH(QString, system);
    QFETCH(int, way);
    m_way = Way(way);
    if (m_missing.contains(system)) {
        QTest::qSkip(qPrintable(m_missing.value(system)), __FILE__, __LINE__);
        return false;
    }
    m_script = std::make_unique<DatabaseScript>();
    if (!m_script->open(Db, m_databases.value(system)->parameters()))
        return false;
    if (!m_script->ask(Way::Here, Db, QStringLiteral("DELETE FROM u"))) {
        m_script->eval(QStringLiteral("if (!db.isOpen) db.open()"));
        if (!m_script->mustRun(Way::Here, Db,
                               QStringLiteral("CREATE TABLE u (id integer NOT NULL UNIQUE)")))
            return false;
    }
    return m_script->mustRun(Way::Here, Db, QStringLiteral("INSERT INTO u VALUES (5)"));
}

void TestServerRefusals::copyThroughTheClientIsRefused_data()
{
    addRows({m_postgres.name(), m_odbc.name()},
            {QStringLiteral("COPY u TO STDOUT"), QStringLiteral("COPY u FROM STDIN"),
             QStringLiteral(" /* all */ copy u (id) from stdin with csv"),
             QStringLiteral("-- all\nCOPY (SELECT id FROM u) TO STDOUT")});
}

void TestServerRefusals::copyThroughTheClientIsRefused()
{
    QFETCH(QString, text);
    if (!prepare())
        return;
    QVERIFY(!m_script->ask(m_way, Db, text));
    QVERIFY2(m_script->isTrue(QStringLiteral("/^COPY .*STDIN/.test(answer.error)")),
             qPrintable(m_script->text(QStringLiteral("answer.error"))));
    QVERIFY(m_script->isTrue(QStringLiteral("db.isOpen && db.lastErrors.type === 2")));
    QCOMPARE(count(), QStringLiteral("number:1"));
}

void TestServerRefusals::copyOnTheServerIsSent_data()
{
    addRows({m_postgres.name(), m_odbc.name()}, {QStringLiteral("COPY u FROM PROGRAM 'echo 6'")});
}

void TestServerRefusals::copyOnTheServerIsSent()
{
    QFETCH(QString, text);
    if (!prepare())
        return;
    QVERIFY(m_script->mustRun(m_way, Db, text));
    QCOMPARE(count(), QStringLiteral("number:2"));
}

void TestServerRefusals::nulCharacterSendsNothing_data()
{
    QStringList systems = m_databases.keys();
    systems.sort();
    addRows(systems, {QStringLiteral("DELETE FROM u\\u0000 WHERE id = 1"),
                      QStringLiteral("SELECT '\\u0000' FROM u")});
}

void TestServerRefusals::nulCharacterSendsNothing()
{
    QFETCH(QString, text);
    if (!prepare())
        return;
    text.replace(QStringLiteral("\\u0000"), QString(QChar()));
    QVERIFY(!m_script->ask(m_way, Db, text));
    QVERIFY2(m_script->isTrue(QStringLiteral("/U\\+0000/.test(answer.error)")),
             qPrintable(m_script->text(QStringLiteral("answer.error"))));
    QVERIFY(m_script->isTrue(QStringLiteral("db.isOpen")));
    QVERIFY(count() == QStringLiteral("number:1") || count() == QStringLiteral("string:1"));
}

void TestServerRefusals::errorOfALaterStatementFails_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<int>("way");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("kept");
    const auto row = [](const QString &system, const char *text, const char *error,
                        const char *kept) {
        for (const Way way : {Way::Here, Way::Thread}) {
            const QString name =
                QStringLiteral("%1, %2, %3").arg(system, wayName(way), QString::fromLatin1(text));
            QTest::newRow(qPrintable(name))
                << system << int(way) << QString::fromLatin1(text) << QString::fromLatin1(error)
                << QString::fromLatin1(kept);
        }
    };
    // PostgreSQL runs a text as one transaction, unless it says otherwise.
    row(Postgres, "INSERT INTO u VALUES (1); INSERT INTO u VALUES (1)", "23505", "");
    row(Postgres, "SELECT 1; SELECT 2; SELECT 1/0", "22012", "");
    row(Postgres, "INSERT INTO u VALUES (1); COMMIT; SELECT 1/0; SELECT 3", "22012", "number:1");
    row(Postgres, "BEGIN; INSERT INTO u VALUES (1); SELECT 1/0; COMMIT", "22012", "");
    row(MariaDb, "INSERT INTO u VALUES (1); INSERT INTO u VALUES (1)", "Duplicate", "number:1");
    row(MariaDb, "SELECT 1; SELECT 2; SELECT missing", "missing", "");
    row(MariaDb, "INSERT INTO u VALUES (1); SELECT missing; INSERT INTO u VALUES (2)", "missing",
        "number:1");
    row(MariaDb, "CALL tells_and_fails()", "on purpose", "number:1");
}

void TestServerRefusals::errorOfALaterStatementFails()
{
    QFETCH(QString, system);
    QFETCH(QString, text);
    QFETCH(QString, error);
    QFETCH(QString, kept);
    if (!prepare())
        return;
    if (system == MariaDb)
        QVERIFY(m_script->mustRun(
            Way::Here, Db,
            QStringLiteral("CREATE OR REPLACE PROCEDURE tells_and_fails() BEGIN SELECT 7 AS a; "
                           "INSERT INTO u VALUES (1); SELECT 8 AS b; "
                           "SIGNAL SQLSTATE '45000' SET MESSAGE_TEXT = 'on purpose'; END")));
    QVERIFY(!m_script->ask(m_way, Db, text));
    QVERIFY2(m_script->eval(QStringLiteral("String(answer.error) + db.lastError"))
                 .toString()
                 .contains(error),
             qPrintable(m_script->text(QStringLiteral("answer.error"))));
    QVERIFY(m_script->isTrue(QStringLiteral("db.isOpen")));
    m_script->ask(m_way, Db, QStringLiteral(" ROLLBACK"));
    QCOMPARE(count(QStringLiteral("SELECT id FROM u WHERE id <> 5")), kept);
}

void TestServerRefusals::severalGoodStatementsSucceed_data()
{
    addRows({Postgres, MariaDb}, {QStringLiteral("SELECT 1; SELECT 2"),
                                  QStringLiteral("SELECT 1; INSERT INTO u VALUES (6), (7)")});
}

/// The rows are those of the first statement, as ever.
void TestServerRefusals::severalGoodStatementsSucceed()
{
    QFETCH(QString, text);
    if (!prepare())
        return;
    QCOMPARE(m_script->rows(m_way, Db, text), QStringLiteral("number:1"));
    QCOMPARE(count(), text.contains(QStringLiteral("INSERT")) ? QStringLiteral("number:3")
                                                              : QStringLiteral("number:1"));
}

QTEST_GUILESS_MAIN(TestServerRefusals)
#include "test_server_refusals.moc"
