#include "thread_session.h"

#include "sql_text.h"
#include "sqlite_schema_guard.h"
#include "statement_execution.h"
#include "statement_rules.h"
#include "transaction_watch.h"

#include <utility>

ThreadSession::ThreadSession(ClaimedName name, TransactionWatch &watch)
    : m_name(std::move(name))
    , m_watch(watch)
{
    if (!QSqlDatabase::contains(m_name.text()))
        return;
    {
        QSqlDatabase leftover = QSqlDatabase::database(m_name.text(), false);
        if (leftover.isOpen())
            leftover.close();
    }
    QSqlDatabase::removeDatabase(m_name.text());
}

void ThreadSession::create(const QString &driverName)
{
    m_db = QSqlDatabase::addDatabase(driverName, m_name.text());
}

bool ThreadSession::open()
{
    // What a driver keeps of a connection that it found lost is freed only by close().
    if (m_opened) {
        m_db.close();
        m_watch.sessionLost();
    }
    m_inTransaction = false;
    if (!m_db.open())
        return false;
    SqliteSchemaGuard::opened(m_db.driver());
    m_opened = true;
    m_nameTold = false;
    return true;
}

bool ThreadSession::takeNameDue()
{
    return m_kind.dbmsType == SqlDriverKind::PostgreSql && !std::exchange(m_nameTold, true);
}

std::optional<ThreadSession::Outcome> ThreadSession::run(taskSqlType command)
{
    switch (command) {
    case taskTransaction:
        return begin();
    case taskCommit:
        return commit(true);
    case taskRollback:
        return rollBack(true);
    case taskSql:
        break;
    }
    return std::nullopt;
}

std::optional<ThreadSession::Outcome> ThreadSession::runWord(const QString &sql)
{
    switch (SqlText::transactionWord(sql)) {
    case SqlText::TransactionWord::Commit:
        return commit(false);
    case SqlText::TransactionWord::Rollback:
        return rollBack(false);
    case SqlText::TransactionWord::None:
        break;
    }
    return std::nullopt;
}

ThreadSession::Outcome ThreadSession::begin()
{
    if (m_inTransaction) {
        m_db.rollback();
        m_watch.ended();
    }
    m_inTransaction = m_db.transaction();
    if (!m_inTransaction)
        return {false, m_db.lastError()};
    m_watch.begun();
    return {};
}

/// A commit behind a lost session is no success: what it was to keep is gone.
/// @param onlyOwn leaves a connection alone on which begin() began nothing.
ThreadSession::Outcome ThreadSession::commit(bool onlyOwn)
{
    Outcome outcome;
    outcome.ok = (onlyOwn && !m_inTransaction) || m_db.commit();
    if (!outcome.ok)
        outcome.error = m_db.lastError();
    if (m_watch.isLost())
        outcome = {false, StatementExecution::lostTransaction()};
    m_watch.ended();
    m_inTransaction = false;
    return outcome;
}

ThreadSession::Outcome ThreadSession::rollBack(bool onlyOwn)
{
    Outcome outcome;
    outcome.ok = (onlyOwn && !m_inTransaction) || m_db.rollback();
    if (!outcome.ok)
        outcome.error = m_db.lastError();
    m_watch.ended();
    m_inTransaction = false;
    return outcome;
}

void ThreadSession::executed(const QString &sql)
{
    m_watch.executed(StatementRules::transactionStep(sql, m_kind.dbmsType));
}

QSqlError ThreadSession::rollBackRest()
{
    if (m_lost || (m_opened && !m_db.isOpen()))
        m_watch.sessionLost();
    else
        m_watch.sessionClosed();
    if (m_inTransaction)
        m_db.rollback();
    return m_db.lastError();
}

void ThreadSession::close()
{
    if (m_opened)
        m_db.close();
    m_db = QSqlDatabase();
}

void ThreadSession::remove()
{
    if (QSqlDatabase::contains(m_name.text()))
        QSqlDatabase::removeDatabase(m_name.text());
    m_name = ClaimedName();
}
