/// @file
/// Commits after a server has ended the session: none is a success, however the transaction began.

#include "database_script.h"
#include "mariadb_server.h"
#include "postgres_server.h"

#include <QtTest>

#include <initializer_list>

namespace
{

const QString Db = QStringLiteral("db");
const QString Killer = QStringLiteral("killer");

} // namespace

class TestLostCommits : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void commitIsFalse_data();
    void commitIsFalse();
    void nextTransactionIsNotConcerned_data();
    void nextTransactionIsNotConcerned();

private:
    void addRows(std::initializer_list<const char *> commits);
    bool prepare(const QString &system);
    bool begin(Way way, const QString &how);
    void killSession(Way way);
    bool commit(Way way, const QString &how);

    TestDatabase *database(const QString &system)
    {
        return system == QStringLiteral("PostgreSQL") ? static_cast<TestDatabase *>(&m_postgres)
                                                      : &m_mariadb;
    }

    PostgresServer m_postgres;
    MariaDbServer m_mariadb;
    QHash<QString, QString> m_missing;
    bool m_isPostgres = false;
    std::unique_ptr<DatabaseScript> m_script;
};

void TestLostCommits::initTestCase()
{
    for (const char *name : {"PostgreSQL", "MariaDB"}) {
        const QString system = QString::fromLatin1(name);
        QString reason;
        if (!database(system)->available(&reason))
            m_missing[system] = reason;
        else
            QVERIFY2(database(system)->start(), qPrintable(database(system)->error()));
    }
}

void TestLostCommits::addRows(std::initializer_list<const char *> commits)
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<int>("way");
    QTest::addColumn<QString>("how");
    QTest::addColumn<QString>("commit");
    for (const char *system : {"PostgreSQL", "MariaDB"}) {
        for (const Way way : {Way::Here, Way::Thread}) {
            for (const char *how :
                 {"begin", "START TRANSACTION", "SET autocommit=0", "transaction()"}) {
                if (qstrcmp(system, "PostgreSQL") == 0 && qstrncmp(how, "SET", 3) == 0)
                    continue; // no such setting
                for (const char *commit : commits) {
                    QTest::newRow(
                        qPrintable(QStringLiteral("%1, %2, %3, %4")
                                       .arg(QString::fromLatin1(system), wayName(way),
                                            QString::fromLatin1(how), QString::fromLatin1(commit))))
                        << QString::fromLatin1(system) << int(way) << QString::fromLatin1(how)
                        << QString::fromLatin1(commit);
                }
            }
        }
    }
}

bool TestLostCommits::prepare(const QString &system)
{
    m_isPostgres = system == QStringLiteral("PostgreSQL");
    m_script = std::make_unique<DatabaseScript>();
    return m_script->open(Db, database(system)->parameters()) &&
           m_script->open(Killer, database(system)->parameters()) &&
           m_script->mustRun(Way::Here, Killer, QStringLiteral("DROP TABLE IF EXISTS work")) &&
           m_script->mustRun(Way::Here, Killer, QStringLiteral("CREATE TABLE work (id integer)"));
}

bool TestLostCommits::begin(Way way, const QString &how)
{
    if (how != QStringLiteral("transaction()"))
        return m_script->mustRun(way, Db, how);
    if (way == Way::Thread && !m_script->isTrue(QStringLiteral("db.start_thread()")))
        return false;
    return m_script->isTrue(QStringLiteral("db.transaction()"));
}

/// Ends the session on the server, and waits until it is gone.
void TestLostCommits::killSession(Way way)
{
    const QString id = m_script
                           ->rows(way, Db,
                                  m_isPostgres ? QStringLiteral("SELECT pg_backend_pid()")
                                               : QStringLiteral("SELECT CONNECTION_ID()"))
                           .mid(7);
    QVERIFY(m_script->mustRun(Way::Here, Killer,
                              m_isPostgres
                                  ? QStringLiteral("SELECT pg_terminate_backend(%1)").arg(id)
                                  : QStringLiteral("KILL %1").arg(id)));
    const QString sessions =
        m_isPostgres
            ? QStringLiteral("SELECT count(*) FROM pg_stat_activity WHERE pid = %1").arg(id)
            : QStringLiteral("SELECT COUNT(*) FROM information_schema.processlist WHERE id = %1")
                  .arg(id);
    const Deadline deadline(defaultWaitMs);
    while (m_script->rows(Way::Here, Killer, sessions) != QStringLiteral("number:0"))
        QVERIFY(!deadline.expired());
}

bool TestLostCommits::commit(Way way, const QString &how)
{
    if (how == QStringLiteral("commit()"))
        return m_script->isTrue(QStringLiteral("db.commit()"));
    return m_script->ask(way, Db, how);
}

void TestLostCommits::commitIsFalse_data()
{
    addRows({"commit", " COMMIT", "commit()"});
}

void TestLostCommits::commitIsFalse()
{
    QFETCH(QString, system);
    QFETCH(int, way);
    QFETCH(QString, how);
    QFETCH(QString, commit);
    if (m_missing.contains(system))
        QSKIP(qPrintable(m_missing.value(system)));
    QVERIFY(prepare(system));
    const Way where = Way(way);
    QVERIFY(begin(where, how));
    QVERIFY(m_script->mustRun(where, Db, QStringLiteral("INSERT INTO work VALUES (1)")));
    killSession(where);
    QVERIFY(!m_script->ask(where, Db, QStringLiteral("SELECT 1")));
    // As a script recovers, unless the connection did so by itself.
    if (where == Way::Here)
        m_script->eval(QStringLiteral("db.close(); db.open()"));
    else if (!m_isPostgres)
        m_script->eval(QStringLiteral("db.stop_thread(20000)"));
    QVERIFY(m_script->mustRun(where, Db, QStringLiteral("SELECT 1")));
    if (where == Way::Thread && commit == QStringLiteral("commit()")) {
        // Tells for a worker's connection when its thread has ended.
        m_script->eval(QStringLiteral("db.stop_thread(20000)"));
    }
    QVERIFY(!this->commit(where, commit));
    QVERIFY2(m_script->isTrue(QStringLiteral("/потеряна/.test(db.lastError)")),
             qPrintable(m_script->text(QStringLiteral("db.lastError"))));
    QCOMPARE(m_script->rows(Way::Here, Killer, QStringLiteral("SELECT COUNT(*) FROM work")),
             QStringLiteral("number:0"));
    // Told once.
    QVERIFY(this->commit(where, commit));
}

void TestLostCommits::nextTransactionIsNotConcerned_data()
{
    addRows({"commit"});
}

void TestLostCommits::nextTransactionIsNotConcerned()
{
    QFETCH(QString, system);
    QFETCH(int, way);
    QFETCH(QString, how);
    QFETCH(QString, commit);
    if (m_missing.contains(system))
        QSKIP(qPrintable(m_missing.value(system)));
    QVERIFY(prepare(system));
    const Way where = Way(way);
    QVERIFY(begin(where, how));
    killSession(where);
    QVERIFY(!m_script->ask(where, Db, QStringLiteral("SELECT 1")));
    m_script->eval(QStringLiteral("db.close(); db.open()"));
    QVERIFY(begin(where, how));
    QVERIFY(m_script->mustRun(where, Db, QStringLiteral("INSERT INTO work VALUES (2)")));
    QVERIFY(this->commit(where, commit));
    QCOMPARE(m_script->rows(Way::Here, Killer, QStringLiteral("SELECT id FROM work")),
             QStringLiteral("number:2"));
}

QTEST_GUILESS_MAIN(TestLostCommits)
#include "test_lost_commits.moc"
