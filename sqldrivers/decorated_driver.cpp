#include "decorated_driver.h"

#include "decorated_result.h"
#include "stock_plugins.h"
#include "stock_session.h"
#include "watched_statement.h"

#include <QSqlIndex>
#include <QSqlRecord>
#include <QtSql/private/qsqldriver_p.h>

namespace
{

/// How much longer than the server's own limit for statements the layer's is.
constexpr int ServerFirstMs = 1000;

QSqlDriver::DbmsType dbmsOf(const QString &key)
{
    if (key.startsWith(QLatin1String("QSQLITE")))
        return QSqlDriver::SQLite;
    if (key.startsWith(QLatin1String("QPSQL")))
        return QSqlDriver::PostgreSQL;
    if (key.startsWith(QLatin1String("QMYSQL")) || key == QLatin1String("QMARIADB"))
        return QSqlDriver::MySqlServer;
    if (key == QLatin1String("QIBASE"))
        return QSqlDriver::Interbase;
    return QSqlDriver::UnknownDbms;
}

} // namespace

DecoratedDriver::DecoratedDriver(const QString &key, QObject *parent)
    : QSqlDriver(*new QSqlDriverPrivate(dbmsOf(key)), parent)
    , m_key(key)
    , m_stock(StockPlugins::create(key, &m_loadError))
    , m_gate(std::make_shared<CancelGate>())
{
    if (!m_stock)
        return;
    m_policy = makePolicy(key, m_stock.get());
    relayNotifications();
}

DecoratedDriver::~DecoratedDriver()
{
    DecoratedDriver::close();
}

void DecoratedDriver::relayNotifications()
{
    connect(
        m_stock.get(),
        qOverload<const QString &, NotificationSource, const QVariant &>(&QSqlDriver::notification),
        this,
        qOverload<const QString &, NotificationSource, const QVariant &>(
            &QSqlDriver::notification));
    // The form with a name alone is deprecated, and still what older hosts listen to.
    connect(m_stock.get(), SIGNAL(notification(QString)), this, SIGNAL(notification(QString)));
}

QString DecoratedDriver::boundStatement(const QString &text, int count)
{
    if (!m_policy)
        return text;
    m_mustTellLoss = askServer(Policy::Need::Rules, text) != CancelGate::Reason::None;
    return StatementPlan::complete(m_policy->dialectOf(text), text, count);
}

bool DecoratedDriver::hasFeature(DriverFeature feature) const
{
    switch (feature) {
    case CancelQuery:
        return m_canCancel;
    case PreparedQueries:
    case NamedPlaceholders:
    case PositionalPlaceholders:
        return true;
    case BatchOperations:
        return false; // QSqlResult then executes row by row
    default:
        return m_stock && m_stock->hasFeature(feature);
    }
}

// --- Opening and closing ---

/// Why there is no stock driver.
QSqlError DecoratedDriver::notLoaded() const
{
    const QString reason = m_loadError.isEmpty()
                               ? tr("the driver %1 is not installed; install the package %2")
                                     .arg(m_key, StockPlugins::debianPackage(m_key))
                               : tr("the driver %1 cannot be loaded: %2").arg(m_key, m_loadError);
    return QSqlError(tr("Driver not loaded"), reason, QSqlError::ConnectionError);
}

bool DecoratedDriver::failOpen(const QSqlError &error)
{
    setLastError(error);
    setOpenError(true);
    return false;
}

bool DecoratedDriver::open(const QString &database, const QString &user, const QString &password,
                           const QString &host, int port, const QString &options)
{
    close();
    if (!m_stock)
        return failOpen(notLoaded());
    QString stockOptions = options;
    QString refusal;
    if (!LayerOptions::take(&stockOptions, &m_options, &refusal))
        return failOpen(
            QSqlError(tr("Wrong connect options"), refusal, QSqlError::ConnectionError));
    QSqlError error;
    if (!openStock(
            {database, user, password, host, port, m_policy->stockOptions(stockOptions, m_options)},
            &error))
        return failOpen(error);
    // ODBC drivers know only now what they speak to.
    static_cast<QSqlDriverPrivate *>(d_ptr.data())->dbmsType = m_stock->dbmsType();
    m_lost = false;
    m_mustTellLoss = false;
    ++m_session;
    m_canCancel = m_policy->canCancel();
    m_gate->setInterrupter(m_policy.get());
    setOpenError(false);
    setOpen(true);
    return true;
}

/// Opens the stock driver and sets its session up.
bool DecoratedDriver::openStock(const OpenParameters &parameters, QSqlError *error)
{
    if (m_options.connectTimeoutMs == 0)
        return StockSession::open(*m_stock, *m_policy, parameters, m_options, m_gate, error);
    // Results of earlier sessions may still look at the driver that they had, so one that is opened
    // in another thread, and may be left there, is always a new one.
    std::unique_ptr<QSqlDriver> driver(StockPlugins::create(m_key, &m_loadError));
    if (!driver) {
        *error = notLoaded();
        return false;
    }
    auto session = std::make_unique<StockSession>(m_key, std::move(driver));
    session = StockSession::openInTime(std::move(session), parameters, m_options, m_gate, error);
    if (!session)
        return false;
    m_policy = std::move(session->policy);
    m_stock = std::move(session->driver);
    relayNotifications();
    return true;
}

void DecoratedDriver::close()
{
    m_canCancel = false;
    m_gate->setInterrupter(nullptr);
    if (!m_stock || !QSqlDriver::isOpen())
        return;
    std::unique_ptr<LineWatch> watch = m_policy->watchClosing();
    if (!m_policy->freesStatementsLast())
        m_cache.clear();
    if (m_policy->resultsHoldSession()) {
        for (DecoratedResult *result : m_results)
            result->endSession();
    }
    ++m_session;
    m_policy->detach();
    m_stock->close();
    m_cache.clear();
    watch.reset();
    setOpen(false);
    setOpenError(false);
}

bool DecoratedDriver::isOpen() const
{
    if (!QSqlDriver::isOpen())
        return false;
    if (m_mustTellLoss)
        return true;
    if (m_lost)
        return false;
    m_lost = !m_stock->isOpen() || m_policy->isLost();
    return !m_lost;
}

void DecoratedDriver::giveUp(const QSqlError &reason)
{
    m_lost = true;
    setLastError(reason);
}

QSqlResult *DecoratedDriver::createResult() const
{
    return new DecoratedResult(this);
}

QVariant DecoratedDriver::handle() const
{
    return m_stock ? m_stock->handle() : QVariant();
}

int DecoratedDriver::statementLimitMs() const
{
    const int limit = m_options.statementTimeoutMs;
    // The server's own limit comes first; the layer's then ends what waits for a dead server.
    return limit > 0 && m_policy->hasServerTimeout() ? limit + ServerFirstMs : limit;
}

CancelGate::Reason DecoratedDriver::askServer(Policy::Need need, const QString &text)
{
    if (!m_policy->mustAsk(need, text))
        return CancelGate::Reason::None;
    WatchedStatement question(m_gate);
    question.begin(statementLimitMs());
    m_policy->ask(need);
    if (!question.end())
        giveUp(DecoratedResult::unanswered());
    return question.reason();
}

bool DecoratedDriver::cancelQuery()
{
    m_gate->cancel();
    return m_canCancel;
}

// --- Transactions ---

bool DecoratedDriver::command(Policy::Command command, bool (QSqlDriver::*run)())
{
    if (!QSqlDriver::isOpen())
        return false;
    const QSqlError refused = m_policy->refusal(command);
    if (refused.isValid()) {
        setLastError(refused);
        return false;
    }
    WatchedStatement statement(m_gate);
    if (m_policy->cancelsCommands())
        statement.begin(statementLimitMs());
    std::unique_ptr<LineWatch> watch =
        command == Policy::Command::Rollback ? m_policy->watchRollback() : m_policy->watchLine();
    const bool good = (m_stock.get()->*run)();
    watch.reset();
    if (!statement.end())
        giveUp(DecoratedResult::unanswered());
    if (good)
        setLastError(QSqlError());
    else
        setLastError(DecoratedResult::explained(*this, m_stock->lastError(), statement.reason(),
                                                Policy::Step::Transaction));
    m_policy->finished(QString(), good);
    return good;
}

bool DecoratedDriver::beginTransaction()
{
    return command(Policy::Command::Begin, &QSqlDriver::beginTransaction);
}

bool DecoratedDriver::commitTransaction()
{
    return command(Policy::Command::Commit, &QSqlDriver::commitTransaction);
}

bool DecoratedDriver::rollbackTransaction()
{
    return command(Policy::Command::Rollback, &QSqlDriver::rollbackTransaction);
}

// --- Passed on ---

QStringList DecoratedDriver::tables(QSql::TableType type) const
{
    return m_stock ? m_stock->tables(type) : QStringList();
}

QSqlIndex DecoratedDriver::primaryIndex(const QString &table) const
{
    return m_stock ? m_stock->primaryIndex(table) : QSqlIndex();
}

QSqlRecord DecoratedDriver::record(const QString &table) const
{
    return m_stock ? m_stock->record(table) : QSqlRecord();
}

QString DecoratedDriver::formatValue(const QSqlField &field, bool trimStrings) const
{
    return m_stock ? m_stock->formatValue(field, trimStrings)
                   : QSqlDriver::formatValue(field, trimStrings);
}

QString DecoratedDriver::escapeIdentifier(const QString &identifier, IdentifierType type) const
{
    return m_stock ? m_stock->escapeIdentifier(identifier, type) : identifier;
}

bool DecoratedDriver::isIdentifierEscaped(const QString &identifier, IdentifierType type) const
{
    return m_stock && m_stock->isIdentifierEscaped(identifier, type);
}

QString DecoratedDriver::stripDelimiters(const QString &identifier, IdentifierType type) const
{
    return m_stock ? m_stock->stripDelimiters(identifier, type) : identifier;
}

QString DecoratedDriver::sqlStatement(StatementType type, const QString &table,
                                      const QSqlRecord &record, bool preparedStatement) const
{
    return m_stock ? m_stock->sqlStatement(type, table, record, preparedStatement) : QString();
}

bool DecoratedDriver::subscribeToNotification(const QString &name)
{
    return m_policy && m_policy->subscribe(name, this);
}

bool DecoratedDriver::unsubscribeFromNotification(const QString &name)
{
    return m_policy && m_policy->unsubscribe(name);
}

QStringList DecoratedDriver::subscribedToNotifications() const
{
    return m_stock ? m_stock->subscribedToNotifications() : QStringList();
}
