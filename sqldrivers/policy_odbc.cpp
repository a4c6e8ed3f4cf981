#include "policy_odbc.h"

#include "leading_word.h"
#include "line_check.h"
#include "odbc_statement.h"

#include <QDeadlineTimer>
#include <QSqlField>

#include <algorithm>
#include <utility>

namespace
{

// Of ODBC's headers: types of numbers that are not exact.
constexpr int SqlFloat = 6;
constexpr int SqlReal = 7;
constexpr int SqlDouble = 8;

/// What may still be said to a server while the connection is closed takes no longer. Without an
/// answer the line is cut, which makes a live one roll back as well.
constexpr int ClosingMs = 300;

/// PostgreSQL's state of a statement in a transaction that has failed.
const char InFailed[] = "25P02";

/// SQLite's number for a database that another connection has locked.
const char Busy[] = "5";
/// How long SQLite's ODBC driver may wait for a lock by itself before the layer has it try again,
/// and how long it would wait unless it was told otherwise.
constexpr int BusyStepMs = 20;
constexpr int BusyMs = 100000;

/// Whether a statement sets how long SQLite waits for a lock by itself.
bool setsLockWait(const QString &text)
{
    return leadingWord(text) == QLatin1String("PRAGMA") &&
           text.contains(QLatin1String("busy_timeout"), Qt::CaseInsensitive) &&
           (text.contains(QLatin1Char('=')) || text.contains(QLatin1Char('(')));
}

/// Whether a state means that the session is over. PostgreSQL itself reports others that begin with
/// 08: of further servers that it asks, and of a message that it did not understand.
bool isLoss(const QString &state, bool isPostgres)
{
    if (isPostgres)
        return state == QLatin1String("08S01") || state == QLatin1String("57P01") ||
               state == QLatin1String("57P02") || state == QLatin1String("57P03");
    return state.startsWith(QLatin1String("08"));
}

} // namespace

OdbcPolicy::OdbcPolicy(QSqlDriver *stock)
    : Policy(stock)
{
}

// --- Opening and closing ---

QString OdbcPolicy::stockOptions(const QString &options, const LayerOptions &layer) const
{
    if (layer.connectTimeoutMs <= 0 || options.contains(QLatin1String("SQL_ATTR_LOGIN_TIMEOUT")))
        return options;
    const QString own =
        QStringLiteral("SQL_ATTR_LOGIN_TIMEOUT=%1").arg((layer.connectTimeoutMs + 999) / 1000);
    return options.isEmpty() ? own : own + QLatin1Char(';') + options;
}

void OdbcPolicy::opened(const OpenParameters &parameters)
{
    m_parameters = parameters;
}

bool OdbcPolicy::attach(const LayerOptions &layer, const std::shared_ptr<CancelGate> &gate,
                        QSqlError *error)
{
    Q_UNUSED(gate)
    Q_UNUSED(layer)
    m_client = OdbcClient();
    m_cancel = OdbcCancel(); // a request of the last session may still be stuck
    // The stock driver looks the type of its handle up by name each time, and for that in a list of
    // Qt's that exit() frees.
    m_connection = nativeHandle<OdbcClient::Handle>();
    m_dialect = odbcDialectOf(m_client.systemName(m_connection));
    m_transaction.start(m_dialect, m_dialect == SqlDialect::OdbcPostgreSql ||
                                       m_dialect == SqlDialect::OdbcSqlite);
    if (m_dialect != SqlDialect::OdbcSqlite) {
        watchSocket();
        return true;
    }
    if (!openImpatient(error))
        return false;
    m_connection = nativeHandle<OdbcClient::Handle>();
    m_cancelHandle = m_client.makeStatement(m_connection);
    return true;
}

/// Opens the connection once more with a short wait for locks: that of the ODBC driver notices no
/// request to cancel.
bool OdbcPolicy::openImpatient(QSqlError *error)
{
    m_lockWaitMs = m_client.sourceSetting(m_parameters.database, QStringLiteral("Timeout"), BusyMs);
    m_connection = nullptr;
    stock()->close();
    QStringList parts = m_parameters.database.split(QLatin1Char(';'));
    const auto isTimeout = [](const QString &part) {
        return part.trimmed().startsWith(QLatin1String("Timeout="), Qt::CaseInsensitive);
    };
    parts.erase(std::remove_if(parts.begin(), parts.end(), isTimeout), parts.end());
    parts.append(QStringLiteral("Timeout=%1").arg(BusyStepMs));
    const QString database = parts.join(QLatin1Char(';'));
    if (stock()->open(database, m_parameters.user, m_parameters.password, m_parameters.host,
                      m_parameters.port, m_parameters.options))
        return true;
    *error = stock()->lastError();
    return false;
}

void OdbcPolicy::watchSocket()
{
    const int socket = m_finder ? m_finder->find([this] { learnCancelStatement(); }) : -1;
    m_finder.reset();
    m_socket = std::make_shared<SocketWatch>(socket);
}

/// How another connection ends what this one runs.
void OdbcPolicy::learnCancelStatement()
{
    m_cancelText = QByteArray();
    const bool isPostgres = m_dialect == SqlDialect::OdbcPostgreSql;
    if (!m_client.isComplete() || (!isPostgres && m_dialect != SqlDialect::OdbcMariaDb))
        return;
    const QString question = isPostgres ? QStringLiteral("SELECT pg_backend_pid()")
                                        : QStringLiteral("SELECT connection_id()");
    const QVariant answer = answerTo(question);
    if (!answer.isValid())
        return;
    const QByteArray session = QByteArray::number(answer.toLongLong());
    m_cancelText =
        isPostgres ? "SELECT pg_cancel_backend(" + session + ')' : "KILL QUERY " + session;
}

void OdbcPolicy::detach()
{
    m_aside.reset();
    // SQLite's ODBC driver refuses to disconnect otherwise, and keeps the database locked.
    if (m_dialect == SqlDialect::OdbcSqlite && m_transaction.isDriven())
        stock()->rollbackTransaction();
    m_finder.reset();
    m_socket.reset(); // it holds the line open
    m_client.freeStatement(std::exchange(m_cancelHandle, nullptr));
    m_cancelText = QByteArray();
    m_parameters = OpenParameters();
    m_connection = nullptr;
    m_knowsBackslash = false;
}

bool OdbcPolicy::canCancel() const
{
    return m_cancelHandle || !m_cancelText.isEmpty();
}

// --- Statements ---

/// Only a backslash in a string is read in two ways.
SqlDialect OdbcPolicy::dialectOf(const QString &text) const
{
    const bool isAsked =
        m_dialect == SqlDialect::OdbcPostgreSql && text.contains(QLatin1Char('\\'));
    return isAsked && m_backslashEscapes ? SqlDialect::OdbcPostgreSqlBackslash : m_dialect;
}

bool OdbcPolicy::mustAsk(Need need, const QString &text) const
{
    if (need == Need::Transaction)
        return m_connection && m_transaction.mustAsk();
    return need == Need::Rules && !m_knowsBackslash && m_connection &&
           m_dialect == SqlDialect::OdbcPostgreSql && text.contains(QLatin1Char('\\'));
}

void OdbcPolicy::ask(Need need)
{
    if (need == Need::Transaction)
        return m_transaction.answered(m_dialect == SqlDialect::OdbcSqlite ? sqliteTransaction()
                                                                          : olderTransaction());
    const QVariant setting = answerTo(QStringLiteral("SHOW standard_conforming_strings"));
    m_knowsBackslash = setting.isValid();
    m_backslashEscapes = setting.toString() == QLatin1String("off");
}

std::unique_ptr<BoundStatement> OdbcPolicy::makeStatement(StatementPlan plan)
{
    if (m_dialect == SqlDialect::OdbcSqlite)
        return std::make_unique<OdbcSqliteStatement>(std::move(plan), this);
    return std::make_unique<OdbcStatement>(std::move(plan), stock()->createResult());
}

void OdbcPolicy::beginPlain(const QString &text)
{
    Q_UNUSED(text)
    m_isInterrupted = false;
    if (m_dialect == SqlDialect::OdbcSqlite)
        runAside(QStringLiteral("SELECT 1 FROM sqlite_master LIMIT 1"));
}

bool OdbcPolicy::runPlain(StockResult &rows, const QString &text)
{
    if (m_dialect != SqlDialect::OdbcSqlite)
        return rows.reset(text);
    const QString plain = StatementPlan::withoutFalseMarks(m_dialect, text);
    return waitForLocks(rows, [&] { return rows.reset(plain); });
}

bool OdbcPolicy::waitForLocks(StockResult &rows, const std::function<bool()> &run)
{
    const QDeadlineTimer deadline(m_lockWaitMs);
    while (!run()) {
        if (rows.lastError().nativeErrorCode() != QLatin1String(Busy) || m_isInterrupted ||
            deadline.hasExpired())
            return false;
    }
    return true;
}

/// What a script has set holds for the layer, and SQLite goes on waiting for a step.
void OdbcPolicy::takeLockWait()
{
    const QVariant set = answerTo(QStringLiteral("PRAGMA busy_timeout"));
    if (set.isValid())
        m_lockWaitMs = set.toInt();
    runAside(QStringLiteral("PRAGMA busy_timeout = %1").arg(BusyStepMs));
}

/// Asks for one value. @return an invalid one when the server has not answered
QVariant OdbcPolicy::answerTo(const QString &question) const
{
    StockResult answer(stock()->createResult());
    answer.renew(question);
    return answer.reset(question) && answer.fetchFirst() ? answer.data(0) : QVariant();
}

/// Runs a statement of the layer's own. @return whether it worked
bool OdbcPolicy::runAside(const QString &text)
{
    if (!m_aside)
        m_aside = std::make_unique<StockResult>(stock()->createResult());
    m_aside->renew(text);
    const bool good = m_aside->reset(text);
    m_aside->detach();
    return good;
}

// --- Transactions ---

/// A transaction has the time of the message that began it.
OdbcTransaction::Answer OdbcPolicy::olderTransaction()
{
    const QString question = QStringLiteral("SELECT now() < statement_timestamp()");
    StockResult answer(stock()->createResult());
    answer.renew(question);
    if (answer.reset(question) && answer.fetchFirst())
        return answer.data(0).toBool() ? OdbcTransaction::Answer::Open
                                       : OdbcTransaction::Answer::Gone;
    const bool hasFailed =
        errorOf(answer, Step::Execute).nativeErrorCode() == QLatin1String(InFailed);
    return hasFailed ? OdbcTransaction::Answer::Failed : OdbcTransaction::Answer::Unknown;
}

/// SQLite has no function that tells, but begins no transaction within another.
OdbcTransaction::Answer OdbcPolicy::sqliteTransaction()
{
    if (!runAside(QStringLiteral("BEGIN")))
        return OdbcTransaction::Answer::Open;
    runAside(QStringLiteral("ROLLBACK"));
    return OdbcTransaction::Answer::Gone;
}

/// The script's rollback of what is gone is to succeed.
void OdbcPolicy::pretendTransaction()
{
    if (m_dialect == SqlDialect::OdbcSqlite)
        runAside(QStringLiteral("BEGIN"));
}

QSqlError OdbcPolicy::refusal(const QString &text)
{
    if (!m_transaction.isGone())
        return QSqlError();
    const bool ends = OdbcTransaction::effectOf(m_dialect, text) == OdbcTransaction::Effect::Ends;
    if (!ends)
        return transactionGone(QSqlError::StatementError);
    const QString verb = leadingWord(text);
    if (verb == QLatin1String("ROLLBACK") || verb == QLatin1String("ABORT")) {
        m_transaction.end();
        pretendTransaction();
        return QSqlError();
    }
    if (!m_transaction.isDriven())
        m_transaction.end();
    return transactionGone(QSqlError::StatementError);
}

QSqlError OdbcPolicy::refusal(Command command)
{
    m_command = command;
    const bool wouldRollBack = command == Command::Commit && m_transaction.hasFailed();
    if (!m_transaction.isGone() && !wouldRollBack)
        return QSqlError();
    if (command == Command::Begin)
        return transactionGone(QSqlError::TransactionError);
    if (m_transaction.isGone()) {
        m_transaction.end();
        pretendTransaction();
    }
    if (command == Command::Rollback)
        return QSqlError();
    rollBack();
    return transactionGone(QSqlError::TransactionError);
}

/// Ends the transaction that the stock driver believes in.
void OdbcPolicy::rollBack()
{
    const std::unique_ptr<LineWatch> watch = watchRollback();
    m_transaction.commandRan(Command::Rollback, stock()->rollbackTransaction());
}

void OdbcPolicy::finished(const QString &text, bool good)
{
    m_knowsBackslash = false;
    if (m_dialect == SqlDialect::OdbcSqlite && good && setsLockWait(text))
        takeLockWait();
    if (!text.isEmpty())
        return m_transaction.statementRan(text, good);
    m_transaction.commandRan(m_command, good);
    // A commit that failed has kept nothing, but the stock driver would go on without committing.
    if (m_command == Command::Commit && !good && m_transaction.isDriven())
        rollBack();
}

// --- Errors and loss ---

/// The stock driver keeps the state to itself; the statement's handle still has it.
QSqlError OdbcPolicy::errorOf(StockResult &rows, Step step)
{
    Q_UNUSED(step)
    const QSqlError error = rows.lastError();
    if (!error.isValid())
        return error;
    const QVariant handle = rows.handle();
    const QString state =
        handle.isValid()
            ? m_client.statementState(*static_cast<const OdbcClient::Handle *>(handle.constData()))
            : QString();
    if (state.isEmpty())
        return error;
    return QSqlError(error.driverText(),
                     error.databaseText().trimmed() + QStringLiteral(" (%1)").arg(state),
                     error.type(), state);
}

QSqlError OdbcPolicy::classified(const QSqlError &error, Step step)
{
    if (step == Step::Open)
        return QSqlError(error.driverText(), error.databaseText(), QSqlError::ConnectionError,
                         error.nativeErrorCode());
    QString state = error.nativeErrorCode();
    QString text = error.databaseText();
    if (step == Step::Transaction) {
        const QString own = m_client.connectionState(m_connection);
        if (!own.isEmpty()) {
            state = own;
            text = text.trimmed() + QStringLiteral(" (%1)").arg(own);
        }
    }
    QSqlError::ErrorType type = QSqlError::StatementError;
    if (isLoss(state, m_dialect == SqlDialect::OdbcPostgreSql) || isBroken())
        type = QSqlError::ConnectionError;
    else if (step == Step::Transaction)
        type = QSqlError::TransactionError;
    return QSqlError(error.driverText(), text, type, state);
}

bool OdbcPolicy::isBroken() const
{
    return m_client.isDead(m_connection) || (m_socket && m_socket->isCut());
}

/// A transaction that is open is not given up unseen: its next statement fails.
bool OdbcPolicy::isLost() const
{
    return m_transaction.isOpen() ? m_client.isDead(m_connection) : isBroken();
}

std::unique_ptr<LineWatch> OdbcPolicy::watchClosing() const
{
    if (!m_socket || !m_transaction.isOpen())
        return nullptr;
    return std::make_unique<LineCut>(m_socket, ClosingMs);
}

std::unique_ptr<LineWatch> OdbcPolicy::watchRollback()
{
    if (m_cancelText.isEmpty())
        return nullptr;
    return std::make_unique<LineCheck>(
        *this, [this] { m_cancel.begin(m_client, m_parameters, "SELECT 1", m_socket); });
}

// --- Values ---

QVector<ColumnRule> OdbcPolicy::columnRules(const QSqlRecord &columns, const LayerOptions &layer)
{
    QVector<ColumnRule> rules = Policy::columnRules(columns, layer);
    for (int i = 0; i < rules.size(); ++i) {
        const int type = columns.field(i).typeID();
        if (type == SqlFloat || type == SqlReal || type == SqlDouble)
            rules[i].kind = ColumnRule::Real;
    }
    return rules;
}

/// The stock driver takes a length in bytes for one in characters, and reads on behind the end.
QString OdbcPolicy::columnName(const QString &name) const
{
    const int end = name.indexOf(QChar());
    return end < 0 ? name : name.left(end);
}

// --- Cancelling ---

void OdbcPolicy::interrupt(CancelGate::Phase phase, bool alone)
{
    Q_UNUSED(alone)
    m_isInterrupted = true;
    if (m_cancelHandle)
        return m_client.cancel(m_cancelHandle);
    // The stock driver has all rows when a server's statement has been executed.
    if (phase != CancelGate::Phase::Running || m_cancelText.isEmpty())
        return;
    m_cancel.begin(m_client, m_parameters, m_cancelText, m_socket);
}

/// On a line that was cut no request can hit anything any more.
bool OdbcPolicy::settle()
{
    return !(m_socket && m_socket->isCut()) && m_cancel.settle();
}
