#include "postgres_statement.h"

#include "postgres_lasting.h"
#include "postgres_literal.h"

// --- Session ---

PostgresClient::TransactionStatus PostgresSession::transactionStatus() const
{
    return connection ? PostgresClient::TransactionStatus(client.transactionStatus(connection))
                      : PostgresClient::Unknown;
}

void PostgresSession::statementBegins()
{
    wasIdle = isIdle();
    if (wasIdle)
        ++transaction;
}

bool PostgresSession::inTransaction() const
{
    switch (transactionStatus()) {
    case PostgresClient::InTransaction:
    case PostgresClient::InFailedTransaction:
        return true;
    case PostgresClient::Active:
        return !wasIdle;
    default:
        return false;
    }
}

void PostgresSession::forget(const QByteArray &name)
{
    // Within a transaction a failure would end it, and rows that are on their way would be lost.
    if (connection)
        unused.append(name);
}

void PostgresSession::forgetUnused()
{
    if (unused.isEmpty() || !isIdle())
        return;
    const QVector<QByteArray> names = std::move(unused);
    unused.clear();
    for (const QByteArray &name : names)
        client.run(connection, "DEALLOCATE " + name);
}

// --- Statement ---

PostgresStatement::PostgresStatement(StatementPlan plan, const QSqlDriver *driver,
                                     std::shared_ptr<PostgresSession> session)
    : BoundStatement(std::move(plan), driver->createResult())
    , m_driver(driver)
    , m_session(std::move(session))
{
}

PostgresStatement::~PostgresStatement()
{
    if (!m_name.isEmpty())
        m_session->forget(m_name);
}

bool PostgresStatement::tellServer()
{
    m_session->forgetUnused();
    m_transaction = m_session->transaction;
    m_schema = m_session->schema;
    const QByteArray name = "vext_" + QByteArray::number(++m_session->lastName);
    const QString text = QLatin1String("PREPARE ") + QString::fromLatin1(name) +
                         QLatin1String(" AS ") + plan().withNumbers();
    result().renew(text);
    result().setForwardOnly(false);
    if (!result().reset(text))
        return false;
    m_name = name;
    return true;
}

void PostgresStatement::learnTypes()
{
    const QByteArray types = m_session->client.firstValue(
        m_session->connection,
        "SELECT array_to_string(parameter_types::oid[], ' ') FROM pg_prepared_statements "
        "WHERE name = '" +
            m_name + '\'');
    const QList<QByteArray> numbers = types.split(' ');
    for (const QByteArray &number : numbers)
        m_types.append(number.toUInt());
}

/// Asks the server once, while nothing else is under way on the line.
bool PostgresStatement::areLasting(const QVector<BoundValue> &values)
{
    if (m_types.isEmpty())
        learnTypes();
    for (int i = 0; i < values.size(); ++i) {
        if (!PostgresLasting::isLasting(m_types.value(i), values.at(i).value))
            return false;
    }
    return true;
}

bool PostgresStatement::isFresh() const
{
    if (m_name.isEmpty() || m_schema != m_session->schema)
        return false;
    return m_session->isIdle() || m_transaction == m_session->transaction;
}

/// The stock driver's result holds the line until it is destroyed or used again.
void PostgresStatement::release()
{
    result().replace(m_driver->createResult());
}

bool PostgresStatement::execute(const QVector<BoundValue> &values)
{
    const bool forwardOnly = result().isForwardOnly();
    bool older = m_hasRun && m_session->wasIdle;
    if (older && !areLasting(values)) {
        m_session->forget(m_name);
        m_name.clear();
        m_types.clear();
        older = false;
    }
    if (m_name.isEmpty() && !tellServer())
        return false;
    const auto numbers = older ? PostgresLiteral::Numbers::Quoted : PostgresLiteral::Numbers::Bare;
    QString text = QLatin1String("EXECUTE ") + QString::fromLatin1(m_name);
    for (int i = 0; i < values.size(); ++i) {
        QString refusal;
        text += i == 0 ? QLatin1Char('(') : QLatin1Char(',');
        text += PostgresLiteral::of(values.at(i).value, numbers, &refusal);
        if (!refusal.isEmpty()) {
            result().fail(QSqlError(QString(), refusal, QSqlError::StatementError));
            return false;
        }
    }
    if (!values.isEmpty())
        text += QLatin1Char(')');
    result().renew(text);
    result().setForwardOnly(forwardOnly);
    m_hasRun = true;
    return result().reset(text);
}
