#include "decorated_result.h"

#include "decorated_driver.h"

#include <QCoreApplication>
#include <QtSql/private/qsqlresult_p.h>

namespace
{

QString tr(const char *text)
{
    return QCoreApplication::translate("DecoratedResult", text);
}

QSqlError notOpen()
{
    return QSqlError(tr("Connection not open"), QString(), QSqlError::ConnectionError);
}

QString withCode(const QString &text, const QString &code)
{
    return code.size() == 5 ? text + QStringLiteral(" (%1)").arg(code) : text;
}

} // namespace

DecoratedResult::DecoratedResult(const DecoratedDriver *driver)
    : QSqlResult(driver)
    , m_place(driver->addResult(this))
    , m_run(driver->gate())
{
}

DecoratedResult::~DecoratedResult()
{
    finish();
    giveUpPlain();
    if (const auto *driver = static_cast<const DecoratedDriver *>(this->driver()))
        driver->removeResult(m_place);
}

void DecoratedResult::endSession()
{
    endStatement();
    m_rows = nullptr;
    m_bound.reset();
    m_plain.reset();
    m_worthKeeping = false;
    setActive(false);
}

/// The driver while its connection is open; null when the result has outlived it.
DecoratedDriver *DecoratedResult::owner() const
{
    auto *driver =
        const_cast<DecoratedDriver *>(static_cast<const DecoratedDriver *>(this->driver()));
    return driver && driver->hasSession() ? driver : nullptr;
}

QSqlError DecoratedResult::explained(DecoratedDriver &driver, const QSqlError &error,
                                     CancelGate::Reason reason, Policy::Step step)
{
    const QSqlError classified = driver.policy()->classified(error, step);
    if (classified.type() == QSqlError::ConnectionError) {
        const bool isSilent = classified.text().trimmed().isEmpty(); // what the layer itself ended
        const QSqlError loss = isSilent ? unanswered() : classified;
        driver.giveUp(loss);
        return loss;
    }
    const QString code = classified.nativeErrorCode();
    switch (reason) {
    case CancelGate::Reason::Asked:
        return QSqlError(QString(), withCode(tr("cancelled"), code), QSqlError::StatementError,
                         code);
    case CancelGate::Reason::TimedOut:
        return QSqlError(
            QString(),
            tr("the statement took longer than %1 ms").arg(driver.options().statementTimeoutMs),
            QSqlError::StatementError, code);
    case CancelGate::Reason::None:
        break;
    }
    return classified;
}

QSqlError DecoratedResult::unanswered()
{
    return QSqlError(tr("Connection given up"), tr("the server does not answer"),
                     QSqlError::ConnectionError);
}

// --- Running ---

StockResult &DecoratedResult::plainResult(DecoratedDriver &driver)
{
    if (!m_plain || m_plainSession != driver.session() || !driver.policy()->reusesResults())
        giveUpPlain();
    if (!m_plain)
        m_plain = std::make_unique<StockResult>(driver.stock()->createResult());
    m_plainSession = driver.session();
    return *m_plain;
}

void DecoratedResult::giveUpPlain()
{
    const std::unique_ptr<LineWatch> watch = watchLine();
    m_plain.reset();
}

/// What comes next may talk to the server, although no statement is run.
std::unique_ptr<LineWatch> DecoratedResult::watchLine() const
{
    const DecoratedDriver *driver = owner();
    return driver ? driver->policy()->watchLine() : nullptr;
}

bool DecoratedResult::reset(const QString &text)
{
    finish();
    DecoratedDriver *driver = owner();
    if (!driver)
        return refuse(notOpen());
    driver->statementArrived();
    m_text = withWholePairs(text);
    m_isPrepared = false;
    if (driver->policy()->preparesPlainText(text)) {
        if (!obtain(*driver))
            return false;
        m_isPrepared = true;
        return runBound(*driver);
    }
    return runPlain(*driver);
}

bool DecoratedResult::savePrepare(const QString &text)
{
    finish();
    auto *d = d_ptr;
    d->clear();
    d->sql = text;
    DecoratedDriver *driver = owner();
    if (!driver)
        return refuse(notOpen());
    driver->statementArrived();
    m_text = withWholePairs(text);
    m_isPrepared = true;
    return obtain(*driver);
}

bool DecoratedResult::exec()
{
    DecoratedDriver *driver = owner();
    if (!driver)
        return refuse(notOpen());
    detachFromResultSet();
    if (!m_isPrepared)
        return runPlain(*driver);
    if (!askFirst(*driver, Policy::Need::Rules))
        return false;
    const bool isUsable = m_bound && m_session == driver->session() &&
                          m_bound->plan().rules() == driver->policy()->dialectOf(m_text) &&
                          (!m_wasKept || m_bound->isFresh());
    if (!isUsable && !obtain(*driver))
        return false;
    return runBound(*driver);
}

/// Lets the policy learn or set what the text needs. @return false when that was cancelled
bool DecoratedResult::askFirst(DecoratedDriver &driver, Policy::Need need)
{
    const CancelGate::Reason reason = driver.askServer(need, m_text);
    if (reason == CancelGate::Reason::None)
        return true;
    return refuse(explained(driver, QSqlError(), reason, Policy::Step::Prepare));
}

/// Whether the text may be sent now.
bool DecoratedResult::admits(DecoratedDriver &driver)
{
    if (!askFirst(driver, Policy::Need::Settings))
        return false;
    const QSqlError refused = driver.policy()->refusal(m_text);
    return !refused.isValid() || refuse(refused);
}

/// Takes the kept statement of the text, or has it prepared.
bool DecoratedResult::obtain(DecoratedDriver &driver)
{
    m_rows = nullptr;
    if (!askFirst(driver, Policy::Need::Rules))
        return false;
    m_session = driver.session();
    m_bound = driver.cache().take(m_text);
    m_wasKept = m_bound && m_bound->isFresh() &&
                m_bound->plan().rules() == driver.policy()->dialectOf(m_text);
    m_worthKeeping = false;
    if (m_wasKept) {
        rememberNames(m_bound->plan());
        return true;
    }
    return prepareAnew(driver);
}

bool DecoratedResult::prepareAnew(DecoratedDriver &driver)
{
    m_wasKept = false;
    m_rows = nullptr;
    if (!admits(driver))
        return false;
    m_bound.reset();
    StatementPlan plan = StatementPlan::of(driver.policy()->dialectOf(m_text), m_text);
    if (plan.hasSeveral() && plan.valueCount() > 0) {
        // A server would run the rest of the text while it prepares the first of them.
        return refuse(QSqlError(QString(),
                                tr("a text with placeholders holds one statement, not several"),
                                QSqlError::StatementError));
    }
    rememberNames(plan);
    m_bound = driver.policy()->makeStatement(std::move(plan));
    m_rows = &m_bound->result();
    beginStatement(driver);
    if (m_bound->prepare()) {
        endStatement();
        return true;
    }
    conclude(driver, false, Policy::Step::Prepare);
    m_bound.reset();
    m_rows = nullptr;
    return false;
}

/// boundValue() and its like look names up here.
void DecoratedResult::rememberNames(const StatementPlan &plan)
{
    auto *d = d_ptr;
    d->executedQuery = m_text;
    d->clearIndex();
    const QStringList &names = plan.names();
    for (int i = 0; i < names.size(); ++i) {
        if (names.at(i).isEmpty())
            continue;
        d->holders.append(QHolder(names.at(i), i));
        d->indexes[names.at(i)].append(i);
    }
}

void DecoratedResult::bindValue(int index, const QVariant &value, QSql::ParamType type)
{
    auto *d = d_ptr;
    if (index < 0)
        return;
    d->binds = PositionalBinding;
    if (d->values.size() <= index)
        d->values.resize(index + 1);
    d->values[index] = value;
    if (type != QSql::In || !d->types.isEmpty())
        d->types[index] = type;
}

void DecoratedResult::bindValue(const QString &name, const QVariant &value, QSql::ParamType type)
{
    const QVector<int> indexes = d_ptr->indexes.value(name);
    for (int index : indexes)
        bindValue(index, value, type);
    d_ptr->binds = NamedBinding;
}

QVector<BoundValue> DecoratedResult::boundForRun() const
{
    const auto *d = d_ptr;
    QVector<BoundValue> values(d->values.size());
    for (int i = 0; i < values.size(); ++i) {
        const QVariant &value = d->values.at(i);
        values[i].value =
            value.userType() == QMetaType::QString ? withWholePairs(value.toString()) : value;
        values[i].type = d->types.value(i, QSql::In);
    }
    return values;
}

bool DecoratedResult::runBound(DecoratedDriver &driver)
{
    const QVector<BoundValue> values = boundForRun();
    QString wrong = m_bound->plan().refusal(values.size());
    for (int i = 0; i < values.size() && wrong.isEmpty(); ++i)
        wrong = refusalOf(values.at(i).value, i + 1);
    if (!wrong.isEmpty())
        return refuse(QSqlError(QString(), wrong, QSqlError::StatementError));
    if (m_bound->plan().valueCount() > values.size())
        return runPlain(driver);
    if (!admits(driver))
        return false;
    bool good = executeBound(driver, values);
    if (!good && m_wasKept && !m_run.isCancelled() &&
        driver.policy()->isStale(driver.policy()->errorOf(*m_rows, Policy::Step::Execute))) {
        endStatement();
        if (!prepareAnew(driver))
            return false;
        good = executeBound(driver, values);
    }
    m_worthKeeping = good && driver.policy()->mayKeep(m_bound->plan());
    m_wasKept = good; // from now on it may age
    d_ptr->executedQuery = m_bound->sentText();
    good = conclude(driver, good, Policy::Step::Execute);
    if (good && hasOutValues())
        readBack();
    return good;
}

bool DecoratedResult::executeBound(DecoratedDriver &driver, const QVector<BoundValue> &values)
{
    m_rows = &m_bound->result();
    m_bound->begin();
    applySettings(*m_rows, driver);
    beginStatement(driver);
    return m_bound->execute(values);
}

bool DecoratedResult::runPlain(DecoratedDriver &driver)
{
    if (!admits(driver))
        return false;
    driver.policy()->beginPlain(m_text);
    StockResult &rows = plainResult(driver);
    m_rows = &rows;
    rows.renew(m_text);
    applySettings(rows, driver);
    beginStatement(driver);
    const bool good = driver.policy()->runPlain(rows, m_text);
    return conclude(driver, good, Policy::Step::Execute);
}

void DecoratedResult::applySettings(StockResult &rows, const DecoratedDriver &driver)
{
    m_adjusts = true;
    m_knowsColumns = false;
    m_rules.clear();
    rows.setForwardOnly(isForwardOnly());
    rows.setPrecision(driver.options().exactNumbers ? QSql::HighPrecision
                                                    : numericalPrecisionPolicy());
}

// --- Ending ---

bool DecoratedResult::refuse(const QSqlError &error)
{
    setActive(false);
    setSelect(false);
    setLastError(error);
    return false;
}

/// What the stock driver has done becomes this result's state.
bool DecoratedResult::conclude(DecoratedDriver &driver, bool good, Policy::Step step)
{
    const bool hasRows = driver.policy()->hasRows(*m_rows);
    setSelect(hasRows);
    if (good && hasRows && !m_run.stream()) {
        // Cancelled at the very moment at which the rows were ready.
        m_rows->detach();
        good = false;
    }
    setAt(m_rows->at());
    setActive(good && m_rows->isActive());
    if (!good || !hasRows) {
        endStatement();
        const QSqlError late = driver.policy()->complete(good);
        if (good && late.isValid()) {
            tellPolicy(driver, false);
            return refuse(explained(driver, late, m_run.reason(), step));
        }
    }
    tellPolicy(driver, good);
    if (!good)
        setLastError(
            explained(driver, driver.policy()->errorOf(*m_rows, step), m_run.reason(), step));
    else if (driver.policy()->endsKept(m_text))
        driver.cache().clear();
    return good;
}

/// The statement is over, which may say something of the transaction around it.
void DecoratedResult::tellPolicy(DecoratedDriver &driver, bool good)
{
    driver.policy()->finished(m_text, good);
    driver.askServer(Policy::Need::Transaction, m_text);
}

void DecoratedResult::beginStatement(DecoratedDriver &driver)
{
    m_run.begin(driver.statementLimitMs());
}

void DecoratedResult::endStatement()
{
    if (m_run.end())
        return;
    if (DecoratedDriver *driver = owner())
        driver->giveUp(unanswered());
}

void DecoratedResult::detachFromResultSet()
{
    if (!m_run.isUnderWay() && !isActive())
        return;
    // A request that nothing has noticed yet must not hit what giving the rows up takes.
    if (m_run.isCancelled())
        endStatement();
    // Rows that nobody wants may still be on their way: that can be cancelled until it is over.
    if (m_rows && rowsAreAlive())
        m_rows->detach();
    endStatement();
}

/// Whether the session is still there in which the rows were made: ODBC's handles die with it.
bool DecoratedResult::rowsAreAlive() const
{
    const DecoratedDriver *driver = owner();
    const int session = m_rows == m_plain.get() ? m_plainSession : m_session;
    return driver && driver->session() == session;
}

/// Gives up what was run and prepared last, or gives it back for its next use.
void DecoratedResult::finish()
{
    detachFromResultSet();
    m_rows = nullptr;
    if (!m_bound)
        return;
    const std::unique_ptr<LineWatch> watch = watchLine();
    DecoratedDriver *driver = owner();
    const bool isOfSession = driver && driver->session() == m_session;
    if (isOfSession && m_worthKeeping)
        m_bound->release();
    if (isOfSession && (m_worthKeeping || driver->freesStatementsLater()))
        driver->cache().give(m_text, std::move(m_bound));
    m_bound.reset();
    m_worthKeeping = false;
}
