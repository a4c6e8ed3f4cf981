#include "policy_firebird.h"

#include "firebird_cancel.h"
#include "firebird_columns.h"
#include "firebird_events.h"
#include "word_table.h"

#include <QCoreApplication>
#include <QSqlField>

#include <algorithm>
#include <utility>

namespace
{

QString tr(const char *text)
{
    return QCoreApplication::translate("FirebirdPolicy", text);
}

/// Of the client library's header: CHAR; the last bit tells whether NULL is allowed.
constexpr int SqlText = 452;

/// Longest encoding of a character of UTF8.
constexpr int BytesPerCharacter = 4;
/// How long a connection that has just answered is believed to be there.
constexpr int LookMs = 200;
/// How long a server may be silent before anybody doubts that it lives.
constexpr int PatienceMs = 500;

/// The state that belongs to a code of the database and a part of its text.
struct KnownState {
    const char *code;
    const char *text; ///< empty: any
    const char *state;
};
constexpr KnownState KnownStates[] = {
    {"-803", "", "23000"},
    {"-530", "", "23000"},
    {"-297", "", "23000"},
    {"-625", "", "23000"},
    {"-104", "", "42000"},
    {"-204", "Table unknown", "42S02"},
    {"-204", "Procedure unknown", "42000"},
    {"-205", "", "42S22"},
    {"-206", "", "42S22"},
    {"-170", "", "07001"},
    {"-413", "", "22018"},
    {"-551", "", "28000"},
    {"-607", "already exists", "42S01"},
    {"-607", "", "42000"},
    {"-802", "divide by zero", "22012"},
    {"-802", "string right truncation", "22001"},
    {"-802", "numeric overflow", "22003"},
    {"-802", "numeric value is out of range", "22003"},
    {"-817", "read-only", "25006"},
    {"-836", "", "HY000"},
    {"-913", "", "40001"},
    {"-901", "lock", "40001"},
    {"-902", "shutdown", "08003"},
    {"-902", "network request", "08006"},
    {"-902", "user name and password", "28000"},
    {"-902", "writing data to the connection", "08006"},
    {"-902", "reading data from the connection", "08006"},
    {"", "operation was cancelled", "HY008"},
};

QString stateOf(const QSqlError &error)
{
    for (const KnownState &known : KnownStates) {
        const QLatin1String code(known.code);
        if ((code.isEmpty() || error.nativeErrorCode() == code) &&
            error.databaseText().contains(QLatin1String(known.text)))
            return QString::fromLatin1(known.state);
    }
    return QString();
}

/// What stands before the database's name, as the stock driver puts it; empty for the engine in
/// this process.
QByteArray addressOf(const OpenParameters &parameters)
{
    if (parameters.host.isEmpty()) {
        const int colon = parameters.database.lastIndexOf(QLatin1Char(':'));
        return parameters.database.leftRef(colon + 1).toLocal8Bit();
    }
    QString address = parameters.host;
    if (parameters.port > 0)
        address += QLatin1Char('/') + QString::number(parameters.port);
    return (address + QLatin1Char(':')).toLocal8Bit();
}

/// Whether a statement answers with neither columns nor values.
bool returnsNothing(const StatementPlan &plan)
{
    static constexpr std::string_view definitions[] = {"ALTER", "COMMENT",  "CREATE", "DROP",
                                                       "GRANT", "RECREATE", "REVOKE"};
    return plan.returnsNoColumns() || isAmong(plan.verb(), definitions);
}

class FirebirdStatement : public DriverStatement
{
public:
    FirebirdStatement(StatementPlan plan, FirebirdPolicy *policy)
        : DriverStatement(std::move(plan), policy->stock()->createResult())
        , m_policy(policy)
    {
    }

    /// What was prepared has a transaction of the stock driver's own.
    void begin() override
    {
        if (!returnsNothing(plan()) || !m_policy->beginOwn())
            return;
        const std::unique_ptr<LineWatch> watch = m_policy->watchLine();
        result().replace(m_policy->stock()->createResult());
        m_isFresh = true;
    }

    bool prepare() override
    {
        if (!DriverStatement::prepare())
            return false;
        m_policy->prepared(result());
        return true;
    }

    bool execute(const QVector<BoundValue> &values) override
    {
        if (std::exchange(m_isFresh, false) && !prepare())
            return false;
        QVector<BoundValue> exact = values;
        for (BoundValue &bound : exact)
            bound.value = withExactNumber(bound.value);
        return DriverStatement::execute(exact);
    }

private:
    FirebirdPolicy *m_policy;
    bool m_isFresh = false; ///< to be prepared again
};

bool isKeyword(const SqlToken &token, const QString &text, const char *word)
{
    return SqlScanner::isWord(token, text, QLatin1String(word));
}

/// Whether the rows of a SELECT are asked for with FOR UPDATE.
bool isForUpdate(const QString &text)
{
    const SqlToken *before = nullptr;
    const QVector<SqlToken> tokens = SqlScanner::scan(SqlDialect::Firebird, text);
    bool isFirst = true;
    for (const SqlToken &token : tokens) {
        if (!token.isSignificant())
            continue;
        if (isFirst && !isKeyword(token, text, "SELECT") && !isKeyword(token, text, "WITH"))
            return false;
        isFirst = false;
        if (before && isKeyword(*before, text, "FOR") && isKeyword(token, text, "UPDATE"))
            return true;
        before = &token;
    }
    return false;
}

} // namespace

FirebirdPolicy::FirebirdPolicy(QSqlDriver *stock)
    : Policy(stock)
{
}

// --- Opening and closing ---

QString FirebirdPolicy::stockOptions(const QString &options, const LayerOptions &layer) const
{
    Q_UNUSED(layer)
    if (options.contains(QLatin1String("ISC_DPB_LC_CTYPE"), Qt::CaseInsensitive))
        return options;
    // The stock driver's own choice holds three bytes a character, and corrupts longer ones.
    const QString utf8 = QStringLiteral("ISC_DPB_LC_CTYPE=UTF8");
    return options.isEmpty() ? utf8 : utf8 + QLatin1Char(';') + options;
}

void FirebirdPolicy::opened(const OpenParameters &parameters)
{
    m_inTransaction = m_ownTransaction = false;
    m_isUtf8 = parameters.options.contains(QLatin1String("UTF8"), Qt::CaseInsensitive);
    m_address = addressOf(parameters);
    const QString path =
        parameters.host.isEmpty() ? parameters.database.mid(m_address.size()) : parameters.database;
    m_second = {m_address + path.toLocal8Bit(), parameters.user.toLocal8Bit(),
                parameters.password.toLocal8Bit()};
}

bool FirebirdPolicy::attach(const LayerOptions &layer, const std::shared_ptr<CancelGate> &gate,
                            QSqlError *error)
{
    Q_UNUSED(gate)
    Q_UNUSED(error)
    m_wantsExactNumbers = layer.exactNumbers;
    m_client.resolve();
    m_connection = nativeHandle<FirebirdClient::Handle>();
    m_line = std::make_unique<FirebirdLine>(m_client, m_connection, m_address, m_second);
    if (m_line->isRemote()) {
        m_socket = std::make_unique<SocketWatch>(m_finder->find([this] { answers(); }));
        m_number = m_client.number(m_connection);
        m_cancel = std::make_unique<RepeatedCancel>();
    }
    m_finder.reset();
    m_lastLook.start();
    return true;
}

void FirebirdPolicy::detach()
{
    m_finder.reset();
    m_socket.reset();
    // Qt's driver (5.15) keeps the handle of a transaction that is open now for the next session,
    // in which every statement would fail.
    stock()->rollbackTransaction();
    m_connection = 0;
    m_client = FirebirdClient();
    m_line.reset();
    m_second = FirebirdAddress();
    m_cancel.reset();
}

// --- Statements ---

std::unique_ptr<BoundStatement> FirebirdPolicy::makeStatement(StatementPlan plan)
{
    return std::make_unique<FirebirdStatement>(std::move(plan), this);
}

void FirebirdPolicy::beginPlain(const QString &text)
{
    if (returnsNothing(StatementPlan::of(SqlDialect::Firebird, text)))
        beginOwn();
}

bool FirebirdPolicy::runPlain(StockResult &rows, const QString &text)
{
    if (!m_wantsExactNumbers)
        return rows.reset(text);
    if (!rows.prepare(text))
        return false;
    prepared(rows);
    return rows.exec();
}

void FirebirdPolicy::prepared(StockResult &rows)
{
    if (m_wantsExactNumbers)
        FirebirdColumns::askForDecimalsAsTexts(rows, m_connection);
}

bool FirebirdPolicy::beginOwn()
{
    if (!m_inTransaction && !m_ownTransaction) {
        const std::unique_ptr<LineWatch> watch = watchLine();
        m_ownTransaction = stock()->beginTransaction();
    }
    return m_ownTransaction;
}

QSqlError FirebirdPolicy::complete(bool good)
{
    if (!std::exchange(m_ownTransaction, false))
        return QSqlError();
    const std::unique_ptr<LineWatch> watch = watchLine();
    if (!good)
        stock()->rollbackTransaction();
    else if (!stock()->commitTransaction())
        return stock()->lastError();
    return QSqlError();
}

QSqlError FirebirdPolicy::refusal(Command command)
{
    m_command = command;
    return QSqlError();
}

void FirebirdPolicy::finished(const QString &text, bool good)
{
    // A commit that fails ends the transaction in the stock driver, too.
    if (text.isEmpty())
        m_inTransaction = m_command == Command::Begin && good;
}

QSqlError FirebirdPolicy::refusal(const QString &text)
{
    if (!isForUpdate(text))
        return QSqlError();
    // QIBASE (5.15) runs it and then takes it for a statement without rows.
    return QSqlError(QString(),
                     tr("the driver cannot read the rows of SELECT ... FOR UPDATE; "
                        "SELECT ... WITH LOCK locks them, too"),
                     QSqlError::StatementError);
}

/// QIBASE (5.15) takes every procedure and block for a query, and crashes when rows are asked for
/// where there are no columns.
bool FirebirdPolicy::hasRows(const StockResult &rows) const
{
    return rows.isSelect() && !rows.record().isEmpty();
}

// --- Errors and loss ---

QSqlError FirebirdPolicy::classified(const QSqlError &error, Step step)
{
    QSqlError::ErrorType type = QSqlError::StatementError;
    if (step == Step::Open || !answers())
        type = QSqlError::ConnectionError;
    else if (step == Step::Transaction)
        type = QSqlError::TransactionError;
    const QString state = stateOf(error);
    if (state.isEmpty())
        return QSqlError(error.driverText(), error.databaseText(), type, error.nativeErrorCode());
    return QSqlError(error.driverText(), error.databaseText() + QStringLiteral(" (%1)").arg(state),
                     type, state);
}

bool FirebirdPolicy::answers() const
{
    if (!m_line)
        return true;
    const std::unique_ptr<LineWatch> watch = watchLine();
    const bool answer = m_client.answers(m_connection);
    m_lastLook.start();
    return answer;
}

std::unique_ptr<LineWatch> FirebirdPolicy::watchLine() const
{
    if (!m_line || !m_line->isRemote())
        return nullptr;
    return std::make_unique<FirebirdLine::Watch>(*m_line, PatienceMs);
}

/// A transaction that is open is not given up unseen: its next statement fails.
bool FirebirdPolicy::isLost() const
{
    if (m_inTransaction)
        return false;
    if (m_socket && m_socket->isCut())
        return true;
    return m_lastLook.isValid() && m_lastLook.hasExpired(LookMs) && !answers();
}

// --- Values ---

bool FirebirdPolicy::adjustsValues(const LayerOptions &layer) const
{
    return m_isUtf8 || layer.exactNumbers;
}

QVector<ColumnRule> FirebirdPolicy::columnRules(const QSqlRecord &columns,
                                                const LayerOptions &layer)
{
    QVector<ColumnRule> rules = Policy::columnRules(columns, layer);
    bool any = layer.exactNumbers;
    for (int i = 0; m_isUtf8 && i < rules.size(); ++i) {
        const QSqlField column = columns.field(i);
        // CHAR comes with blanks up to as many characters as its bytes could hold. Only a column
        // that is no multiple of them in length surely holds bytes of its own.
        if ((column.typeID() & ~1) != SqlText || column.length() % BytesPerCharacter != 0)
            continue;
        rules[i] = {ColumnRule::Padded, column.length() / BytesPerCharacter};
        any = true;
    }
    return any ? rules : QVector<ColumnRule>();
}

/// QIBASE (5.15) reads the bytes of names as Latin-1.
QString FirebirdPolicy::columnName(const QString &name) const
{
    constexpr ushort LastAscii = 0x7f;
    const bool isAscii =
        std::all_of(name.cbegin(), name.cend(), [](QChar c) { return c.unicode() <= LastAscii; });
    return isAscii || !m_isUtf8 ? name : QString::fromUtf8(name.toLatin1());
}

// --- Notifications ---

bool FirebirdPolicy::subscribe(const QString &name, QObject *outer)
{
    if (!FirebirdEvents::subscribe(stock(), name, watchLine()))
        return false;
    // A caller that knows the stock driver's quirk waits for a call to the driver it knows.
    QMetaObject::invokeMethod(
        outer, [] {}, Qt::QueuedConnection);
    return true;
}

bool FirebirdPolicy::unsubscribe(const QString &name)
{
    const std::unique_ptr<LineWatch> watch = watchLine();
    return Policy::unsubscribe(name);
}

// --- Cancelling ---

void FirebirdPolicy::interrupt(CancelGate::Phase phase, bool alone)
{
    Q_UNUSED(alone)
    Q_UNUSED(phase)
    if (m_cancel)
        m_cancel->begin(
            std::make_shared<FirebirdCancel>(m_client, *m_line, m_second, m_connection, m_number));
    else
        m_client.cancel(m_connection, FirebirdClient::Raise);
}

bool FirebirdPolicy::settle()
{
    if (m_cancel && !m_cancel->settle())
        return false;
    // Both of them forget a mark that nothing has noticed.
    for (const auto option : {FirebirdClient::Disable, FirebirdClient::Enable})
        m_client.cancel(m_connection, option);
    return true;
}
