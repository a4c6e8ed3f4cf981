/// @file
/// Subscriptions on PostgreSQL that a failed or rolled back transaction has its part in, and
/// connections that are opened anew while they deliver.

#include "database_script.h"
#include "postgres_server.h"

#include <QProcess>
#include <QtTest>

namespace
{

const QString Db = QStringLiteral("db");
const QString Channels = QStringLiteral("SELECT pg_listening_channels()");

} // namespace

class TestServerSubscriptions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup() { m_script.reset(); }

    void refusedRemovalHoldsAtOnceAndOnTheServerLater_data();
    void refusedRemovalHoldsAtOnceAndOnTheServerLater();
    void refusedRemovalMayBeTakenBack();
    void programEndsBehindARefusedRemoval();
    void rolledBackSubscriptionIsRenewed_data();
    void rolledBackSubscriptionIsRenewed();
    void committedSubscriptionIsLeftAlone();
    void reopeningInAHandlerKeepsTheName();

private:
    bool notify(const QString &channel)
    {
        return m_script->mustRun(Way::Here, QStringLiteral("other"),
                                 QStringLiteral("SELECT pg_notify('%1', 'x')").arg(channel));
    }
    /// Whether what was notified up to now is `names`; a last notification tells when all is here.
    bool heardOnly(const QString &names)
    {
        return m_script->isTrue(QStringLiteral("db.add_event('end')")) &&
               notify(QStringLiteral("end")) &&
               m_script->waitFor(QStringLiteral("heard[heard.length - 1] === 'end'")) &&
               m_script->eval(QStringLiteral("heard.slice(0, -1).join()")).toString() == names;
    }
    bool failTransaction()
    {
        return m_script->isTrue(
            QStringLiteral("db.transaction() && db.query('SELECT 1/0') === false"));
    }

    PostgresServer m_server;
    std::unique_ptr<DatabaseScript> m_script;
};

void TestServerSubscriptions::initTestCase()
{
    QString reason;
    if (!m_server.available(&reason))
        QSKIP(qPrintable(reason));
    QVERIFY2(m_server.start(), qPrintable(m_server.error()));
}

void TestServerSubscriptions::init()
{
    m_script = std::make_unique<DatabaseScript>();
    QVERIFY(m_script->open(Db, m_server.parameters()));
    QVERIFY(m_script->open(QStringLiteral("other"), m_server.parameters()));
    m_script->eval(QStringLiteral("var heard = [];"
                                  "db.event.connect(function (name) { heard.push(name); });"));
}

void TestServerSubscriptions::refusedRemovalHoldsAtOnceAndOnTheServerLater_data()
{
    QTest::addColumn<QString>("end");
    QTest::newRow("rollback()") << QStringLiteral("db.rollback()");
    QTest::newRow("ROLLBACK") << QStringLiteral("db.query('ROLLBACK')");
    QTest::newRow("COMMIT, which rolls back") << QStringLiteral("db.query('COMMIT')");
    QTest::newRow("ROLLBACK TO") << QStringLiteral(
        "db.query('ROLLBACK TO a') && db.query('SELECT 1')");
}

void TestServerSubscriptions::refusedRemovalHoldsAtOnceAndOnTheServerLater()
{
    QFETCH(QString, end);
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('a')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.transaction() && db.query('SAVEPOINT a') && "
                                            "db.query('SELECT 1/0') === false")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rem_event('a')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.events.length === 0")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rem_event('a') === false")));
    QVERIFY(notify(QStringLiteral("a")));
    QVERIFY2(m_script->eval(end).toBool(), qPrintable(end));
    if (end.contains(QStringLiteral("ROLLBACK TO")))
        QVERIFY(m_script->isTrue(QStringLiteral("db.commit()")));
    QCOMPARE(m_script->rows(Way::Here, Db, Channels), QString());
    QVERIFY(heardOnly(QString()));
}

void TestServerSubscriptions::refusedRemovalMayBeTakenBack()
{
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('a')")));
    QVERIFY(failTransaction());
    QVERIFY(m_script->isTrue(QStringLiteral("db.rem_event('a') && db.add_event('a')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rollback()")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.events.join() === 'a'")));
    QVERIFY(notify(QStringLiteral("a")));
    QVERIFY(heardOnly(QStringLiteral("a")));
}

/// A program whose last subscription is gone has nothing to wait for.
void TestServerSubscriptions::programEndsBehindARefusedRemoval()
{
    for (const char *more : {"", "db.rollback();"}) {
        const QString code = QStringLiteral("var db = new VEXT_SQL();\n") +
                             m_server.parameters().script(Db) +
                             QStringLiteral("db.open(); db.add_event('a'); db.transaction();"
                                            "db.query('SELECT 1/0'); db.rem_event('a');") +
                             QString::fromLatin1(more) + QStringLiteral("print('end');");
        QProcess program;
        program.start(QStringLiteral(VEXT_RUN_FILE), {QStringLiteral("-e"), code});
        QVERIFY2(program.waitForFinished(scaledMs(3 * defaultWaitMs)), more);
        QCOMPARE(program.exitCode(), 0);
        QCOMPARE(program.readAllStandardOutput(), QByteArray("end\n"));
    }
}

void TestServerSubscriptions::rolledBackSubscriptionIsRenewed_data()
{
    QTest::addColumn<QString>("begin");
    QTest::addColumn<QString>("end");
    for (const char *begin : {"db.transaction()", "db.query('BEGIN')"}) {
        for (const char *end : {"db.rollback()", "db.query('ROLLBACK')",
                                "!db.query('SELECT 1/0') && db.query('COMMIT')"}) {
            QTest::newRow(qPrintable(QString::fromLatin1(begin) + QLatin1String(", ") +
                                     QString::fromLatin1(end)))
                << QString::fromLatin1(begin) << QString::fromLatin1(end);
        }
    }
}

void TestServerSubscriptions::rolledBackSubscriptionIsRenewed()
{
    QFETCH(QString, begin);
    QFETCH(QString, end);
    QVERIFY(m_script->isTrue(begin + QStringLiteral(" && db.add_event('b')")));
    QVERIFY2(m_script->eval(end).toBool(), qPrintable(end));
    QVERIFY(m_script->isTrue(QStringLiteral("db.events.join() === 'b'")));
    QCOMPARE(m_script->rows(Way::Here, Db, Channels), QStringLiteral("string:b"));
    QVERIFY(notify(QStringLiteral("b")));
    QVERIFY(heardOnly(QStringLiteral("b")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rem_event('b')")));
    QCOMPARE(m_script->rows(Way::Here, Db, Channels), QStringLiteral("string:end"));
}

void TestServerSubscriptions::committedSubscriptionIsLeftAlone()
{
    QVERIFY(
        m_script->isTrue(QStringLiteral("db.transaction() && db.add_event('c') && db.commit()")));
    QVERIFY(notify(QStringLiteral("c")));
    QVERIFY(heardOnly(QStringLiteral("c")));
}

void TestServerSubscriptions::reopeningInAHandlerKeepsTheName()
{
    m_script->eval(QStringLiteral("var before = db.connectionName, during = null;"
                                  "db.event.connect(function () { if (during) return;"
                                  "  during = [db.close(), db.open(), db.connectionName]; });"
                                  "db.add_event('d');"));
    QVERIFY(notify(QStringLiteral("d")));
    QVERIFY(m_script->waitFor(QStringLiteral("during")));
    QVERIFY(m_script->isTrue(QStringLiteral("during[0] && during[1] && during[2] === before")));
    drainEvents();
    QVERIFY(m_script->isTrue(QStringLiteral("db.connectionName === before && db.isOpen")));
    QVERIFY(notify(QStringLiteral("d")));
    QVERIFY(heardOnly(QStringLiteral("d,d")));
    // The name is free for the next one.
    QVERIFY(m_script->isTrue(QStringLiteral("db.close() && db.open() && "
                                            "db.connectionName === before")));
    const QString name = m_script->eval(QStringLiteral("before")).toString();
    QVERIFY(QSqlDatabase::connectionNames().contains(name));
}

QTEST_GUILESS_MAIN(TestServerSubscriptions)
#include "test_server_subscriptions.moc"
