#include "policy_postgres.h"

#include "leading_word.h"
#include "line_check.h"
#include "postgres_literal.h"
#include "postgres_settings.h"
#include "postgres_sign_of_life.h"
#include "postgres_value.h"
#include "word_table.h"

#include <QCoreApplication>

#include <chrono>
#include <thread>

namespace
{

/// A server that has not taken a request by then is as good as dead.
constexpr int DeadServerMs = 2000;
/// The request that came before the statement had reached the server is repeated.
constexpr int RepeatMs = 250;
constexpr int LookMs = 2;

QString tr(const char *text)
{
    return QCoreApplication::translate("PostgresPolicy", text);
}

/// What PREPARE takes.
bool isPreparable(const QString &verb)
{
    static constexpr std::string_view verbs[] = {"SELECT", "INSERT", "UPDATE", "DELETE",
                                                 "VALUES", "WITH",   "MERGE",  "TABLE"};
    return isAmong(verb, verbs);
}

/// What changes neither tables nor names that a kept statement depends on.
bool leavesSchemaAlone(const QString &verb)
{
    static constexpr std::string_view verbs[] = {
        "BEGIN",  "START",    "COMMIT", "END",   "SAVEPOINT", "RELEASE", "LISTEN",
        "NOTIFY", "UNLISTEN", "SHOW",   "FETCH", "COPY",      "LOCK",    "EXPLAIN"};
    return isPreparable(verb) || isAmong(verb, verbs);
}

/// Not 08xxx: the client library has no codes of its own, and with those a server tells of other
/// lines than this one, or of a message that it did not understand.
bool isConnectionCode(const QString &code)
{
    return code == QLatin1String("57P01") || code == QLatin1String("57P02") ||
           code == QLatin1String("57P03");
}

} // namespace

/// A request to cancel, repeated until its statement is over.
struct PostgresPolicy::Request {
    PostgresClient client;
    std::shared_ptr<pg_cancel> handle;
    std::shared_ptr<SocketWatch> socket;
    std::atomic<bool> isOver{false};

    void repeat();
};

/// In a thread of its own. libpq's request has no time-out, and neither has the statement that
/// waits for the same server: when it does not answer, the line is cut.
void PostgresPolicy::Request::repeat()
{
    DeadlineWatch &watch = DeadlineWatch::instance();
    DeadlineWatch::Id deadline = 0;
    char error[256];
    while (!isOver) {
        if (!deadline)
            deadline = watch.add(DeadServerMs, [line = socket] { line->cut(); });
        if (client.cancel(handle.get(), error, sizeof error) == 1) {
            watch.remove(deadline);
            deadline = 0;
        }
        for (int ms = 0; ms < RepeatMs && !isOver; ms += LookMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(LookMs));
    }
    if (deadline)
        watch.remove(deadline);
}

PostgresPolicy::~PostgresPolicy()
{
    PostgresPolicy::detach();
}

// --- Opening and closing ---

QString PostgresPolicy::stockOptions(const QString &options, const LayerOptions &layer) const
{
    if (layer.connectTimeoutMs == 0 || options.contains(QLatin1String("connect_timeout")))
        return options;
    // libpq counts in seconds, and takes one for two.
    const int seconds = (layer.connectTimeoutMs + 999) / 1000;
    const QString timeout = QStringLiteral("connect_timeout=%1").arg(seconds);
    return options.isEmpty() ? timeout : timeout + QLatin1Char(';') + options;
}

bool PostgresPolicy::attach(const LayerOptions &layer, const std::shared_ptr<CancelGate> &,
                            QSqlError *error)
{
    auto session = std::make_shared<PostgresSession>();
    session->connection = nativeHandle<pg_conn *>();
    if (!session->connection || !session->client.resolve()) {
        *error = QSqlError(tr("PostgreSQL's client library was not found"), QString(),
                           QSqlError::ConnectionError);
        return false;
    }
    m_session = session;
    m_socket = std::make_shared<SocketWatch>(session->client.socket(session->connection));
    if (pg_cancel *handle = session->client.getCancel(session->connection))
        m_cancelHandle.reset(handle, session->client.freeCancel);
    m_requests = DetachedCancel(); // one of the last session may still be stuck
    m_signs = std::make_unique<RepeatedCancel>();
    m_statementTimeoutMs = layer.statementTimeoutMs;
    setStatementTimeout();
    return true;
}

void PostgresPolicy::detach()
{
    if (!m_session)
        return;
    m_session->connection = nullptr;
    m_session.reset();
    m_socket.reset();
    m_cancelHandle.reset();
}

void PostgresPolicy::setStatementTimeout()
{
    m_hasReset =
        m_statementTimeoutMs > 0 &&
        !m_session->client.run(m_session->connection, "SET statement_timeout = " +
                                                          QByteArray::number(m_statementTimeoutMs));
}

// --- Cancelling ---

void PostgresPolicy::interrupt(CancelGate::Phase, bool)
{
    QMutexLocker locker(&m_mutex);
    if (!m_cancelHandle || m_request)
        return;
    auto request = std::make_shared<Request>();
    request->client = m_session->client;
    request->handle = m_cancelHandle;
    request->socket = m_socket;
    if (m_requests.start([request] { request->repeat(); }))
        m_request = request;
}

bool PostgresPolicy::settle()
{
    m_signs->settle(); // on a line that was cut isBroken() tells
    std::shared_ptr<Request> request;
    {
        QMutexLocker locker(&m_mutex);
        request.swap(m_request);
    }
    if (!request)
        return true;
    request->isOver = true;
    // Whoever wants to cancel another statement meanwhile does not wait for this one's end. On a
    // line that was cut no request can hit anything any more.
    return !isBroken() && m_requests.settle();
}

// --- Statements ---

/// The server tells the setting by itself whenever it changes.
SqlDialect PostgresPolicy::dialect() const
{
    const bool escapes = m_session && m_session->connection &&
                         qstrcmp(m_session->client.parameterStatus(m_session->connection,
                                                                   "standard_conforming_strings"),
                                 "off") == 0;
    return escapes ? SqlDialect::PostgreSqlBackslash : SqlDialect::PostgreSql;
}

std::unique_ptr<BoundStatement> PostgresPolicy::makeStatement(StatementPlan plan)
{
    if (isPreparable(plan.verb()) && plan.valueCount() > 0)
        return std::make_unique<PostgresStatement>(std::move(plan), stock(), m_session);
    return std::make_unique<LiteralStatement>(std::move(plan), stock()->createResult(),
                                              &PostgresLiteral::inText);
}

bool PostgresPolicy::mayKeep(const StatementPlan &plan) const
{
    return isPreparable(plan.verb()) && plan.valueCount() > 0;
}

/// What a statement may fail with whose tables have changed since it was prepared.
bool PostgresPolicy::isStale(const QSqlError &error) const
{
    if (!m_session->wasIdle)
        return false;
    const QString code = error.nativeErrorCode();
    return code == QLatin1String("26000") || code == QLatin1String("0A000") ||
           code.startsWith(QLatin1String("22")) || code.startsWith(QLatin1String("42"));
}

void PostgresPolicy::finished(const QString &text, bool good)
{
    Q_UNUSED(good)
    const QString verb = leadingWord(text);
    if (!verb.isEmpty() && !leavesSchemaAlone(verb))
        ++m_session->schema;
    if (verb == QLatin1String("DISCARD") || verb == QLatin1String("RESET"))
        m_hasReset = m_statementTimeoutMs > 0;
}

QSqlError PostgresPolicy::refusal(const QString &text)
{
    m_session->statementBegins();
    switch (PostgresSettings::effectOf(text)) {
    case PostgresSettings::Effect::OtherStyle:
        return QSqlError(QString(), tr("DateStyle stays ISO: the driver reads dates in no other"),
                         QSqlError::StatementError);
    case PostgresSettings::Effect::OtherEncoding:
        return QSqlError(QString(), tr("client_encoding stays UTF8: the driver reads no other"),
                         QSqlError::StatementError);
    case PostgresSettings::Effect::None:
        break;
    }
    return QSqlError();
}

QSqlError PostgresPolicy::refusal(Command)
{
    m_session->statementBegins();
    return QSqlError();
}

bool PostgresPolicy::hasSetting(const char *name, const char *beginning) const
{
    return qstrncmp(m_session->client.parameterStatus(m_session->connection, name), beginning,
                    qstrlen(beginning)) == 0;
}

bool PostgresPolicy::mustAsk(Need need, const QString &) const
{
    if (need != Need::Settings || !m_session)
        return false;
    const PostgresClient::TransactionStatus status = m_session->transactionStatus();
    if (status != PostgresClient::Idle && status != PostgresClient::InTransaction)
        return false;
    return m_hasReset || !hasSetting("DateStyle", "ISO") || !hasSetting("client_encoding", "UTF8");
}

void PostgresPolicy::ask(Need)
{
    const PostgresClient &client = m_session->client;
    if (!hasSetting("DateStyle", "ISO"))
        client.run(m_session->connection, "SET DateStyle TO 'ISO'");
    if (!hasSetting("client_encoding", "UTF8"))
        client.run(m_session->connection, "SET client_encoding TO 'UTF8'");
    if (m_hasReset)
        setStatementTimeout();
}

// --- Errors and loss ---

bool PostgresPolicy::isBroken() const
{
    return !m_session || m_session->client.status(m_session->connection) != 0 || m_socket->isCut();
}

QSqlError PostgresPolicy::classified(const QSqlError &error, Step step)
{
    const QString code = error.nativeErrorCode();
    QSqlError::ErrorType type = error.type();
    if (step == Step::Open || isConnectionCode(code) || isBroken())
        type = QSqlError::ConnectionError;
    else if (step != Step::Transaction)
        type = QSqlError::StatementError;
    return QSqlError(error.driverText(), error.databaseText(), type, code);
}

/// A transaction that is open is not given up unseen: its next statement fails, so that nothing
/// behind it runs on a new session by itself.
bool PostgresPolicy::isLost() const
{
    if (!m_session || m_session->inTransaction())
        return false;
    return isBroken();
}

/// A request to cancel is a sign of life, and the server does not let it interrupt a rollback.
std::unique_ptr<LineWatch> PostgresPolicy::watchRollback()
{
    return std::make_unique<LineCheck>(*this,
                                       [this] { interrupt(CancelGate::Phase::Running, true); });
}

// --- Notifications ---

/// A request to cancel would be a sign of life here, too, but might end a transaction with the
/// command that it hits.
std::unique_ptr<LineWatch> PostgresPolicy::watchSubscribing()
{
    auto question =
        std::make_shared<PostgresSignOfLife>(m_session->client, m_session->connection, m_socket);
    return std::make_unique<LineCheck>(*this, [this, question] { m_signs->begin(question); });
}

bool PostgresPolicy::subscribe(const QString &name, QObject *outer)
{
    if (isBroken())
        return false;
    const std::unique_ptr<LineWatch> watch = watchSubscribing();
    return Policy::subscribe(name, outer);
}

bool PostgresPolicy::unsubscribe(const QString &name)
{
    if (isBroken())
        return false;
    const std::unique_ptr<LineWatch> watch = watchSubscribing();
    return Policy::unsubscribe(name);
}

// --- Values ---

bool PostgresPolicy::rereads(StockResult &rows)
{
    const auto *result = resultOf(rows);
    if (!result)
        return false;
    const int columns = m_session->client.columnCount(result);
    for (int c = 0; c < columns; ++c) {
        if (PostgresValue::needsLook(m_session->client.columnType(result, c)))
            return true;
    }
    return false;
}

QVariant PostgresPolicy::reread(StockResult &rows, int column, const QVariant &value)
{
    const auto *result = resultOf(rows);
    if (!result || rows.isNull(column)) // a date that was not understood is null, too
        return value;
    const unsigned type = m_session->client.columnType(result, column);
    if (!PostgresValue::needsLook(type))
        return value;
    const int row = rows.isForwardOnly() ? 0 : rows.at();
    return PostgresValue::read(type, m_session->client.value(result, row, column), value);
}

const pg_result *PostgresPolicy::resultOf(StockResult &rows) const
{
    const QVariant handle = rows.handle();
    return m_session && handle.isValid() ? *static_cast<pg_result *const *>(handle.constData())
                                         : nullptr;
}
