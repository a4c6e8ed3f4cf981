/// @file
/// The worker's session by itself, without a thread.
#include "connection_names.h"
#include "message_log.h"
#include "recording_driver.h"
#include "statement_execution.h"
#include "thread_session.h"
#include "transaction_watch.h"

#include <QSqlQuery>
#include <QSqlRecord>
#include <QTemporaryDir>
#include <QtTest>

#include <functional>
#include <memory>

namespace
{

/// A session on a file of its own.
class SqliteSession
{
public:
    SqliteSession()
        : session(ConnectionNames::claimThread(QStringLiteral("sqlite_thr"), 7), m_watch)
    {
        session.create(QStringLiteral("QSQLITE"));
        session.database().setDatabaseName(m_folder.filePath(QStringLiteral("file")));
    }
    ~SqliteSession()
    {
        session.close();
        session.remove();
    }

    /// @return the last cell of the first row; 0 without one.
    int run(const QString &sql)
    {
        structThrSql task(session.database());
        QSqlQuery &query = *task.sqlQuery;
        StatementExecution::run(task, m_watch, sql, [&] { return query.exec(sql); });
        return query.next() ? query.value(query.record().count() - 1).toInt() : 0;
    }

private:
    const QTemporaryDir m_folder;
    TransactionWatch m_watch;

public:
    ThreadSession session;
};

constexpr int HalfDepth = 256 * 1024;

/// Leaves zeros behind on so much of the stack, and runs a step below it.
[[gnu::noinline]] void atDepth(int bytes, const std::function<void()> &step)
{
    volatile char *room = static_cast<volatile char *>(__builtin_alloca(size_t(bytes)));
    for (int i = 0; i < bytes; ++i)
        room[i] = 0;
    if (step)
        step();
}

} // namespace

class TestThreadSession : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void secondTransactionRollsBackTheFirst();
    void endOfATransactionThatNeverBeganReachesNoDatabase();
    void wordEndsWhatNobodyBegan();
    void otherStatementsAreNoWords();
    void commitBehindALostSessionFailsOnce();
    void rollbackBehindALostSessionEndsTheLoss();
    void transactionThatCannotBeginKeepsTheLoss();
    void endedTransactionIsNotEndedAgain();
    void reopeningClosesTheSessionThatWasLost();
    void sessionThatCannotBeOpenedAgainIsLost();
    void reopenedSqliteSessionFollowsTheSchema();
    void statementBehindAGuardedOneAsksNothingOfIt();
    void applicationNameIsDueOnceASession();
    void endRollsBackWhatIsOpen();
    void sessionThatTheDriverFoundLostIsLostAtTheEnd();
    void leftoverOfTheNameGoes();
    void nameIsTakenUntilTheSessionIsRemoved();

private:
    ClaimedName claimed() { return ConnectionNames::claimThread(QStringLiteral("base_thr"), 7); }

    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<StubServer> m_server;
    TransactionWatch m_watch;
    std::unique_ptr<ThreadSession> m_session;
};

void TestThreadSession::init()
{
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    m_server = std::make_unique<StubServer>(QStringLiteral("STUB"));
    m_watch.ended();
    m_session = std::make_unique<ThreadSession>(claimed(), m_watch);
    m_session->create(QStringLiteral("STUB"));
    QVERIFY(m_session->open());
}

void TestThreadSession::cleanup()
{
    m_session->rollBackRest();
    m_session->close();
    m_session->remove();
    m_session.reset();
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    QVERIFY2(m_server->liveDrivers() == 0, qPrintable(m_server->record()));
    m_server.reset();
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

void TestThreadSession::secondTransactionRollsBackTheFirst()
{
    QVERIFY(m_session->run(taskTransaction)->ok);
    QVERIFY(m_session->run(taskTransaction)->ok);
    QCOMPARE(m_server->count(StubCall::Begin), 2);
    QCOMPARE(m_server->count(StubCall::Rollback), 1);
    QVERIFY(m_watch.isOpen());
}

void TestThreadSession::endOfATransactionThatNeverBeganReachesNoDatabase()
{
    QVERIFY(m_session->run(taskCommit)->ok);
    QVERIFY(m_session->run(taskRollback)->ok);
    QCOMPARE(m_server->count(StubCall::Commit) + m_server->count(StubCall::Rollback), 0);
}

void TestThreadSession::wordEndsWhatNobodyBegan()
{
    QVERIFY(m_session->runWord(QStringLiteral("Commitment")));
    QVERIFY(m_session->runWord(QStringLiteral("rollback to savepoint a")));
    QCOMPARE(m_server->count(StubCall::Commit), 1);
    QCOMPARE(m_server->count(StubCall::Rollback), 1);
    QCOMPARE(m_server->executed(), QStringList());
}

void TestThreadSession::otherStatementsAreNoWords()
{
    QVERIFY(!m_session->runWord(QStringLiteral(" commit")));
    QVERIFY(!m_session->runWord(QStringLiteral("SELECT 1")));
    QCOMPARE(m_server->count(StubCall::Commit), 0);
}

void TestThreadSession::commitBehindALostSessionFailsOnce()
{
    QVERIFY(m_session->run(taskTransaction)->ok);
    QVERIFY(m_session->open());
    const ThreadSession::Outcome lost = *m_session->run(taskCommit);
    QVERIFY(!lost.ok);
    QCOMPARE(lost.error.type(), QSqlError::TransactionError);
    QCOMPARE(m_server->count(StubCall::Commit), 0);
    QVERIFY(m_session->run(taskCommit)->ok);
}

void TestThreadSession::rollbackBehindALostSessionEndsTheLoss()
{
    QVERIFY(m_session->open());
    QVERIFY(m_watch.isLost());
    QVERIFY(m_session->run(taskRollback)->ok);
    QVERIFY(m_session->run(taskCommit)->ok);
}

void TestThreadSession::transactionThatCannotBeginKeepsTheLoss()
{
    m_server->fail(StubCall::Begin, stubError(QSqlError::TransactionError, QStringLiteral("no")),
                   StubWhere::nth(2));
    QVERIFY(m_session->run(taskTransaction)->ok);
    QVERIFY(!m_session->run(taskTransaction)->ok);
    QVERIFY(!m_watch.isOpen());
    QVERIFY(m_session->open());
    m_server->fail(StubCall::Begin, stubError(QSqlError::TransactionError, QStringLiteral("no")));
    QVERIFY(!m_session->run(taskTransaction)->ok);
    QVERIFY(!m_session->run(taskCommit)->ok);
}

void TestThreadSession::endedTransactionIsNotEndedAgain()
{
    for (const taskSqlType end : {taskCommit, taskRollback}) {
        QVERIFY(m_session->run(taskTransaction)->ok);
        QVERIFY(m_session->run(end)->ok);
        QVERIFY(m_session->run(taskCommit)->ok);
        QVERIFY(m_session->run(taskRollback)->ok);
    }
    QCOMPARE(m_server->count(StubCall::Commit), 1);
    QCOMPARE(m_server->count(StubCall::Rollback), 1);
}

void TestThreadSession::reopeningClosesTheSessionThatWasLost()
{
    m_server->onExact(QStringLiteral("lost"), StubReply::silentFailure().withConnectionLost());
    QSqlQuery(m_session->database()).exec(QStringLiteral("lost"));
    QVERIFY(!m_session->isOpen());
    QVERIFY(m_session->open());
    QCOMPARE(m_server->openDrivers(), 1);
    QCOMPARE(m_server->count(StubCall::Close), 1);
}

void TestThreadSession::sessionThatCannotBeOpenedAgainIsLost()
{
    m_server->fail(StubCall::Open, stubError(QSqlError::ConnectionError, QStringLiteral("gone")));
    QVERIFY(!m_session->open());
    QVERIFY(!m_session->isOpen());
    QVERIFY(m_watch.isLost());
    QCOMPARE(m_session->database().lastError().databaseText(), QStringLiteral("gone"));
}

/// What watches the schema for a session must not go on asking the one before.
void TestThreadSession::reopenedSqliteSessionFollowsTheSchema()
{
    SqliteSession sqlite;
    QVERIFY(sqlite.session.open() && sqlite.session.open());
    sqlite.run(QStringLiteral("CREATE TABLE t (a)"));
    sqlite.run(QStringLiteral("INSERT INTO t VALUES (1)"));
    QCOMPARE(sqlite.run(QStringLiteral("SELECT * FROM t")), 1);
    {
        QSqlDatabase other =
            QSqlDatabase::cloneDatabase(sqlite.session.database(), QStringLiteral("other"));
        QVERIFY(other.open());
        QSqlQuery(other).exec(QStringLiteral("ALTER TABLE t ADD COLUMN b DEFAULT 7"));
    }
    QSqlDatabase::removeDatabase(QStringLiteral("other"));
    QCOMPARE(sqlite.run(QStringLiteral("SELECT * FROM t")), 7);
}

/// What was kept for a statement lies on the stack, deeper than anything that runs behind it.
void TestThreadSession::statementBehindAGuardedOneAsksNothingOfIt()
{
    SqliteSession sqlite;
    QVERIFY(sqlite.session.open());
    sqlite.run(QStringLiteral("CREATE TABLE t (a)"));
    atDepth(HalfDepth, [&] { sqlite.run(QStringLiteral("SELECT * FROM t")); });
    atDepth(2 * HalfDepth, {});
    QSqlQuery query(sqlite.session.database());
    QVERIFY(query.exec(QStringLiteral("SELECT a FROM t")));
}

void TestThreadSession::applicationNameIsDueOnceASession()
{
    QVERIFY(!m_session->takeNameDue());
    m_session->setKind({SqlDriverKind::Odbc, SqlDriverKind::PostgreSql, true});
    QVERIFY(m_session->takeNameDue());
    QVERIFY(!m_session->takeNameDue());
    QVERIFY(m_session->open());
    QVERIFY(m_session->takeNameDue());
}

void TestThreadSession::endRollsBackWhatIsOpen()
{
    QVERIFY(m_session->run(taskTransaction)->ok);
    m_server->fail(StubCall::Rollback,
                   stubError(QSqlError::TransactionError, QStringLiteral("no rollback")));
    QCOMPARE(m_session->rollBackRest().databaseText(), QStringLiteral("no rollback"));
    QCOMPARE(m_server->count(StubCall::Rollback), 1);
    QVERIFY(m_watch.isLost());
}

void TestThreadSession::sessionThatTheDriverFoundLostIsLostAtTheEnd()
{
    m_session->database().close();
    m_session->rollBackRest();
    QVERIFY(m_watch.isLost());
}

void TestThreadSession::leftoverOfTheNameGoes()
{
    const QString name = QStringLiteral("other_thr");
    QSqlDatabase::addDatabase(QStringLiteral("STUB"), name).open();
    QCOMPARE(m_server->openDrivers(), 2);
    const ThreadSession other(ConnectionNames::claimThread(name, 7), m_watch);
    QVERIFY(!QSqlDatabase::contains(name));
    QCOMPARE(m_server->openDrivers(), 1);
}

void TestThreadSession::nameIsTakenUntilTheSessionIsRemoved()
{
    QCOMPARE(claimed().text(), QStringLiteral("base_thr_7"));
    m_session->close();
    m_session->remove();
    QCOMPARE(claimed().text(), QStringLiteral("base_thr"));
}

QTEST_GUILESS_MAIN(TestThreadSession)
#include "test_thread_session.moc"
