#include "policy_mariadb.h"

#include "leading_word.h"
#include "line_check.h"
#include "mariadb_literal.h"
#include "word_table.h"

#include <QCoreApplication>
#include <QSqlField>

#include <algorithm>
#include <iterator>
#include <utility>

namespace
{

QString tr(const char *text)
{
    return QCoreApplication::translate("MariaDbPolicy", text);
}

// Of the client library's header: types of numbers that are not exact.
constexpr int FieldFloat = 4;
constexpr int FieldDouble = 5;

/// The numbers by which server and client say that the connection is over.
bool isLossNumber(unsigned int number)
{
    static constexpr unsigned int numbers[] = {1053, 1077, 1079, 1080, 1152, 1153, 1154, 1155,
                                               1156, 1157, 1158, 1159, 1160, 1161, 1184, 1927,
                                               2002, 2003, 2006, 2013, 2055, 4031};
    return std::find(std::begin(numbers), std::end(numbers), number) != std::end(numbers);
}

/// What the server can prepare.
bool isPreparable(const QString &verb)
{
    static constexpr std::string_view verbs[] = {"SELECT",  "INSERT", "UPDATE", "DELETE",
                                                 "REPLACE", "WITH",   "VALUES", "DO"};
    return isAmong(verb, verbs);
}

/// What changes nothing that a prepared statement depends on: database, modes, character sets. Of
/// a text that may hold several statements, or one in a comment, that is not known.
bool leavesSessionAlone(const QString &text)
{
    static constexpr std::string_view verbs[] = {"BEGIN",     "START",    "COMMIT",  "SHOW",
                                                 "SAVEPOINT", "ROLLBACK", "LOCK",    "RELEASE",
                                                 "EXPLAIN",   "UNLOCK",   "DESCRIBE"};
    if (text.contains(QLatin1Char(';')) || text.contains(QLatin1String("/*!")) ||
        text.contains(QLatin1String("/*M!")))
        return false;
    const QString verb = leadingWord(text);
    return isPreparable(verb) || isAmong(verb, verbs);
}

QString optionOf(const QString &options, const char *name)
{
    const QStringList parts = options.split(QLatin1Char(';'));
    for (const QString &part : parts) {
        if (part.section(QLatin1Char('='), 0, 0).trimmed() == QLatin1String(name))
            return part.section(QLatin1Char('='), 1).trimmed();
    }
    return QString();
}

/// As the stock driver makes it of the parameters.
MariaDbAddress addressOf(const OpenParameters &parameters)
{
    const auto option = [&](const char *name) {
        return optionOf(parameters.options, name).toLocal8Bit();
    };
    MariaDbAddress address;
    address.host = parameters.host.toLocal8Bit();
    address.user = parameters.user.toLocal8Bit();
    address.password = parameters.password.toLocal8Bit();
    address.socket = option("UNIX_SOCKET");
    address.key = option("SSL_KEY");
    address.certificate = option("SSL_CERT");
    address.authority = option("SSL_CA");
    address.authorityPath = option("SSL_CAPATH");
    address.cipher = option("SSL_CIPHER");
    address.port = parameters.port > 0 ? unsigned(parameters.port) : 0;
    address.encrypts = parameters.options.contains(QLatin1String("CLIENT_SSL")) ||
                       parameters.options.contains(QLatin1String("SSL_"));
    return address;
}

class MariaDbStatement : public DriverStatement
{
public:
    using DriverStatement::DriverStatement;
    bool execute(const QVector<BoundValue> &values) override
    {
        QVector<BoundValue> bindable = values;
        for (BoundValue &bound : bindable) {
            const QString refusal = MariaDbLiteral::refusal(bound.value);
            if (!refusal.isEmpty()) {
                result().fail(QSqlError(QString(), refusal, QSqlError::StatementError));
                return false;
            }
            bound.value = MariaDbLiteral::bindable(bound.value);
        }
        return DriverStatement::execute(bindable);
    }
};

/// KILL QUERY.
class Kill : public RepeatedCancel::Way
{
public:
    Kill(const MariaDbClient &client, MariaDbAddress address, QByteArray text,
         std::shared_ptr<SocketWatch> line)
        : m_client(client)
        , m_address(std::move(address))
        , m_text(std::move(text))
        , m_line(std::move(line))
    {
    }

    bool open() override
    {
        m_connection = m_client.open(m_address);
        return m_connection != nullptr;
    }
    bool ask() override { return m_client.run(m_connection, m_text); }
    void close() override
    {
        if (m_connection)
            m_client.close(m_connection);
    }
    void cut() override { m_line->cut(); }

private:
    MariaDbClient m_client;
    MariaDbAddress m_address;
    QByteArray m_text;
    std::shared_ptr<SocketWatch> m_line;
    st_mysql *m_connection = nullptr;
};

/// Whether the server answers at all.
class SignOfLife : public RepeatedCancel::Way
{
public:
    SignOfLife(const MariaDbClient &client, MariaDbAddress address,
               std::shared_ptr<SocketWatch> line)
        : m_client(client)
        , m_address(std::move(address))
        , m_line(std::move(line))
    {
    }

    bool open() override { return m_client.reaches(m_address); }
    bool ask() override { return true; }
    void close() override {}
    void cut() override { m_line->cut(); }

private:
    MariaDbClient m_client;
    MariaDbAddress m_address;
    std::shared_ptr<SocketWatch> m_line;
};

} // namespace

// --- Opening and closing ---

QString MariaDbPolicy::stockOptions(const QString &options, const LayerOptions &layer) const
{
    if (layer.connectTimeoutMs <= 0 || options.contains(QLatin1String("MYSQL_OPT_CONNECT_TIMEOUT")))
        return options;
    const QString timeout =
        QStringLiteral("MYSQL_OPT_CONNECT_TIMEOUT=%1").arg((layer.connectTimeoutMs + 999) / 1000);
    return options.isEmpty() ? timeout : timeout + QLatin1Char(';') + options;
}

void MariaDbPolicy::opened(const OpenParameters &parameters)
{
    m_address = addressOf(parameters);
}

bool MariaDbPolicy::attach(const LayerOptions &layer, const std::shared_ptr<CancelGate> &,
                           QSqlError *error)
{
    m_connection = nativeHandle<st_mysql *>();
    if (!m_connection || !m_client.resolve()) {
        m_connection = nullptr;
        *error = QSqlError(tr("MariaDB's client library was not found"), QString(),
                           QSqlError::ConnectionError);
        return false;
    }
    m_cancel = std::make_unique<RepeatedCancel>(); // a request of the last may still be stuck
    m_socket = std::make_shared<SocketWatch>(m_client.socket(m_connection));
    m_killText = "KILL QUERY " + QByteArray::number(qulonglong(m_client.session(m_connection)));
    // The stock driver's own choice holds three bytes a character and refuses an emoji.
    m_client.setCharacterSet(m_connection, "utf8mb4");
    m_hasServerTimeout =
        layer.statementTimeoutMs > 0 &&
        m_client.run(m_connection,
                     "SET SESSION max_statement_time = " +
                         QByteArray::number(layer.statementTimeoutMs / 1000.0, 'f', 3));
    return true;
}

void MariaDbPolicy::detach()
{
    m_connection = nullptr;
    m_socket.reset();
    m_address = MariaDbAddress();
    m_hasServerTimeout = false;
    m_knowsDialect = false;
}

// --- Statements ---

SqlDialect MariaDbPolicy::dialect() const
{
    return m_connection ? m_dialect : SqlDialect::MariaDb;
}

bool MariaDbPolicy::mustAsk(Need need, const QString &) const
{
    return need == Need::Rules && m_connection &&
           (!m_knowsDialect || m_client.quotingStatus(m_connection) != m_quotingStatus);
}

/// The server's status is not enough: it says what a procedure has set for itself, after its end.
void MariaDbPolicy::ask(Need)
{
    QByteArray mode;
    if (!m_client.ask(m_connection, "SELECT @@sql_mode", &mode))
        return; // what comes next fails, too
    const QList<QByteArray> modes = mode.split(',');
    const bool plain = modes.contains("NO_BACKSLASH_ESCAPES");
    const bool ansi = modes.contains("ANSI_QUOTES");
    if (ansi)
        m_dialect =
            plain ? SqlDialect::MariaDbAnsiQuotesPlainBackslash : SqlDialect::MariaDbAnsiQuotes;
    else
        m_dialect = plain ? SqlDialect::MariaDbPlainBackslash : SqlDialect::MariaDb;
    m_quotingStatus = m_client.quotingStatus(m_connection);
    m_knowsDialect = true;
}

void MariaDbPolicy::finished(const QString &text, bool good)
{
    Q_UNUSED(good) // of several statements the first one may have worked
    if (!text.isEmpty() && !leavesSessionAlone(text))
        m_knowsDialect = false;
}

std::unique_ptr<BoundStatement> MariaDbPolicy::makeStatement(StatementPlan plan)
{
    QSqlResult *result = stock()->createResult();
    // QMYSQL (5.15) does not fetch the rows of a prepared change, and of a prepared query it takes
    // the columns' lengths before the values are known: "SELECT ?" fails with a text.
    if (isPreparable(plan.verb()) && plan.returnsNoColumns())
        return std::make_unique<MariaDbStatement>(std::move(plan), result);
    return std::make_unique<LiteralStatement>(std::move(plan), result, MariaDbLiteral::of);
}

/// Columns that have changed since a statement was prepared are not noticed in every case, so only
/// statements without any are kept.
bool MariaDbPolicy::mayKeep(const StatementPlan &plan) const
{
    return plan.returnsNoColumns() && isPreparable(plan.verb());
}

/// QMYSQL (5.15) takes a result for none when it cannot take all of its rows over, and reports
/// success: after a loss, and for a cancel that came between two rows.
QSqlError MariaDbPolicy::complete(bool good)
{
    const unsigned int number = good && m_connection ? m_client.errorNumber(m_connection) : 0;
    if (number == 0)
        return QSqlError();
    return QSqlError(QStringLiteral("QMYSQL: Unable to store result"),
                     m_client.errorText(m_connection), QSqlError::StatementError,
                     QString::number(number));
}

bool MariaDbPolicy::endsKept(const QString &text) const
{
    return !leavesSessionAlone(text);
}

bool MariaDbPolicy::isStale(const QSqlError &error) const
{
    static constexpr std::string_view numbers[] = {"1243", "1615", "2057"};
    return isAmong(error.nativeErrorCode(), numbers);
}

// --- Errors and loss ---

QSqlError MariaDbPolicy::classified(const QSqlError &error, Step step)
{
    const unsigned int number = error.nativeErrorCode().toUInt();
    QSqlError::ErrorType type = QSqlError::StatementError;
    if (step == Step::Open || isLossNumber(number) || (m_socket && m_socket->isCut()))
        type = QSqlError::ConnectionError;
    else if (step == Step::Transaction)
        type = QSqlError::TransactionError;
    QString text = error.databaseText();
    // The connection keeps the state of its last error, which may be another one.
    if (m_connection && m_client.errorNumber(m_connection) == number && number != 0)
        text += QStringLiteral(" (%1)").arg(m_client.state(m_connection));
    return QSqlError(error.driverText(), text, type, error.nativeErrorCode());
}

bool MariaDbPolicy::isLost() const
{
    // The loss of a transaction is for its next statement to tell.
    return m_socket && m_socket->isCut() && !m_client.isInTransaction(m_connection);
}

std::unique_ptr<LineWatch> MariaDbPolicy::watchRollback()
{
    if (!m_cancel)
        return nullptr;
    return std::make_unique<LineCheck>(*this, [this] {
        m_cancel->begin(std::make_shared<SignOfLife>(m_client, m_address, m_socket));
    });
}

// --- Values ---

QVector<ColumnRule> MariaDbPolicy::columnRules(const QSqlRecord &columns, const LayerOptions &layer)
{
    QVector<ColumnRule> rules = Policy::columnRules(columns, layer);
    for (int i = 0; i < rules.size(); ++i) {
        const int type = columns.field(i).typeID();
        if (type == FieldFloat || type == FieldDouble)
            rules[i].kind = ColumnRule::Real;
    }
    return rules;
}

// --- Cancelling ---

void MariaDbPolicy::interrupt(CancelGate::Phase, bool)
{
    m_cancel->begin(std::make_shared<Kill>(m_client, m_address, m_killText, m_socket));
}

bool MariaDbPolicy::settle()
{
    return m_cancel->settle();
}
