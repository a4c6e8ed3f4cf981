#include "recording_driver.h"

#include "connection_names.h"
#include "stub_session.h"

#include <QCoreApplication>
#include <QEvent>
#include <QMap>
#include <QMetaEnum>
#include <QPointer>
#include <QSet>
#include <QSqlDatabase>
#include <QSqlRecord>
#include <QSqlResult>
#include <QThread>

#include <private/qsqldriver_p.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace
{

const QVector<QSqlDriver::DriverFeature> &initialFeatures()
{
    static const QVector<QSqlDriver::DriverFeature> features{
        QSqlDriver::Transactions, QSqlDriver::QuerySize,       QSqlDriver::BLOB,
        QSqlDriver::Unicode,      QSqlDriver::PreparedQueries, QSqlDriver::PositionalPlaceholders,
        QSqlDriver::LastInsertId};
    return features;
}

QSqlError initialCancelError()
{
    return stubError(QSqlError::StatementError, QStringLiteral("canceling statement"),
                     QStringLiteral("57014"), QStringLiteral("STUB: cancelled"));
}

QSqlError gateTimedOutError()
{
    return stubError(QSqlError::UnknownError, QStringLiteral("the test never opened the gate"));
}

} // namespace

class StubDriver;

/// What the server, its drivers and their results share. Any thread.
class StubServer::State
{
public:
    struct Rule {
        StubMatch match;
        StubReply reply;
        int times;
    };
    struct Effect {
        StubCall::What what;
        StubEffect effect;
        StubWhere where;
        int seen = 0;
    };

    StubReply replyTo(const QString &text, const QString &writtenText, bool consume)
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (int i = rules.size() - 1; i >= 0; --i) {
            Rule &rule = rules[i];
            if (rule.times == 0 || !(rule.match.accepts(text) || rule.match.accepts(writtenText)))
                continue;
            if (consume && rule.times > 0)
                --rule.times;
            return rule.reply;
        }
        return defaultReply;
    }

    QVector<StubEffect> effectsOf(const StubCall &call)
    {
        std::lock_guard<std::mutex> lock(mutex);
        QVector<StubEffect> found;
        for (Effect &effect : effects) {
            const StubWhere &where = effect.where;
            if (effect.what != call.what || !call.connection.endsWith(where.connectionSuffix) ||
                (!where.callText.isEmpty() && where.callText != call.text))
                continue;
            ++effect.seen;
            if (where.number == 0 || where.number == effect.seen)
                found.append(effect.effect);
        }
        return found;
    }

    void add(const StubCall &call)
    {
        std::lock_guard<std::mutex> lock(mutex);
        calls.append(call);
        changed.notify_all();
    }

    void forgetScript()
    {
        features.clear();
        for (const QSqlDriver::DriverFeature feature : initialFeatures())
            features.insert(feature);
        tables.clear();
        rules.clear();
        effects.clear();
        defaultReply = StubReply::affected(0);
        cancelError = initialCancelError();
        cancelIgnored = false;
        keepsErrors = false;
        dbmsKnownOnlyWhenOpen = false;
        calls.clear();
        rowsRead = 0;
    }

    QString driverName;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;

    // All of the following are guarded by mutex.
    QSqlDriver::DbmsType dbms = QSqlDriver::UnknownDbms;
    bool dbmsKnownOnlyWhenOpen = false;
    QSet<int> features;
    QMap<int, QStringList> tables;
    QVector<Rule> rules;
    QVector<Effect> effects;
    StubReply defaultReply;
    QSqlError cancelError;
    bool cancelIgnored = false;
    bool keepsErrors = false;
    QVector<StubCall> calls;
    QVector<StubDriver *> drivers;
    int liveResults = 0;
    int openDrivers = 0;
    int driverCount = 0;
    int resultCount = 0;
    qint64 rowsRead = 0;
};

namespace
{

using StatePtr = std::shared_ptr<StubServer::State>;

StubCall makeCall(StubCall::What what, int driver, const QString &connection, const QString &text)
{
    StubCall call;
    call.what = what;
    call.driver = driver;
    call.connection = connection;
    call.text = text;
    call.thread = QThread::currentThread();
    call.mainThread =
        QCoreApplication::instance() && QCoreApplication::instance()->thread() == call.thread;
    return call;
}

/// A notification on its way to a driver of another thread.
class NotificationEvent : public QEvent
{
public:
    NotificationEvent(const QString &name, QSqlDriver::NotificationSource source,
                      const QVariant &payload)
        : QEvent(eventType())
        , m_name(name)
        , m_source(source)
        , m_payload(payload)
    {
    }

    static QEvent::Type eventType()
    {
        static const int type = QEvent::registerEventType();
        return static_cast<QEvent::Type>(type);
    }

    QString name() const { return m_name; }
    QSqlDriver::NotificationSource source() const { return m_source; }
    QVariant payload() const { return m_payload; }

private:
    const QString m_name;
    const QSqlDriver::NotificationSource m_source;
    const QVariant m_payload;
};

class StubDriverPrivate : public QSqlDriverPrivate
{
public:
    explicit StubDriverPrivate(QSqlDriver::DbmsType dbms)
        : QSqlDriverPrivate(dbms)
    {
    }
};

} // namespace

/// The driver of one connection.
class StubDriver : public QSqlDriver
{
public:
    StubDriver(const StatePtr &state, QSqlDriver::DbmsType dbms, int number)
        : QSqlDriver(*new StubDriverPrivate(dbms))
        , m_state(state)
        , m_session(std::make_shared<StubSession>(number))
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        m_state->drivers.append(this);
    }

    ~StubDriver() override
    {
        StubDriver::close();
        recordEnd(StubCall::DriverDestroyed);
        ConnectionNames::instance().forget(this);
        std::lock_guard<std::mutex> lock(m_state->mutex);
        m_state->drivers.removeOne(this);
    }

    bool hasFeature(DriverFeature feature) const override
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        return m_state->features.contains(feature);
    }

    bool open(const QString &db, const QString &user, const QString &password, const QString &host,
              int port, const QString &options) override
    {
        if (isOpen())
            close();
        StubCall call = newCall(StubCall::Open);
        call.parameters = {db, user, password, host, port, options};
        if (!carryOut(call)) {
            setOpenError(true);
            return false;
        }
        learnDbms();
        setOpen(true);
        setOpenError(false);
        setLastError(QSqlError());
        std::lock_guard<std::mutex> lock(m_state->mutex);
        ++m_state->openDrivers;
        m_holdsConnection = true;
        return true;
    }

    void close() override
    {
        if (!m_holdsConnection)
            return;
        recordEnd(StubCall::Close);
        m_holdsConnection = false;
        setOpen(false);
        setOpenError(false);
        std::lock_guard<std::mutex> lock(m_state->mutex);
        m_subscribed.clear();
        --m_state->openDrivers;
    }

    /// What it holds of the connection is freed only by close(): an open() before that forgets it.
    void loseConnection() { setOpen(false); }

    QSqlResult *createResult() const override;

    bool beginTransaction() override { return carryOut(newCall(StubCall::Begin)); }
    bool commitTransaction() override { return carryOut(newCall(StubCall::Commit)); }
    bool rollbackTransaction() override { return carryOut(newCall(StubCall::Rollback)); }

    QStringList tables(QSql::TableType type) const override
    {
        auto *self = const_cast<StubDriver *>(this); // the interface is const, errors are not
        if (!self->carryOut(newCall(StubCall::Tables, QString::number(type))))
            return {};
        std::lock_guard<std::mutex> lock(m_state->mutex);
        if (!m_state->keepsErrors)
            self->setLastError(QSqlError());
        QStringList names;
        for (auto it = m_state->tables.cbegin(); it != m_state->tables.cend(); ++it) {
            if (it.key() & type)
                names.append(it.value());
        }
        return names;
    }

    bool subscribeToNotification(const QString &name) override
    {
        if (!carryOut(newCall(StubCall::Subscribe, name)))
            return false;
        std::lock_guard<std::mutex> lock(m_state->mutex);
        if (m_subscribed.contains(name))
            return false;
        m_subscribed.append(name);
        return true;
    }

    bool unsubscribeFromNotification(const QString &name) override
    {
        if (!carryOut(newCall(StubCall::Unsubscribe, name)))
            return false;
        std::lock_guard<std::mutex> lock(m_state->mutex);
        return m_subscribed.removeOne(name);
    }

    QStringList subscribedToNotifications() const override
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        return m_subscribed;
    }

    bool cancelQuery() override
    {
        record(StubCall::Cancel);
        {
            std::lock_guard<std::mutex> lock(m_state->mutex);
            if (!m_state->features.contains(CancelQuery))
                return false;
            if (m_state->cancelIgnored)
                return true;
        }
        return m_session->cancel();
    }

    /// Caller holds the state's mutex.
    bool isSubscribed(const QString &name) const { return m_subscribed.contains(name); }

    void emitNotification(const QString &name, NotificationSource source, const QVariant &payload)
    {
        const QPointer<StubDriver> self(this); // a receiver may close the connection
        QT_WARNING_PUSH
        QT_WARNING_DISABLE_DEPRECATED
        Q_EMIT notification(name);
        QT_WARNING_POP
        if (self)
            Q_EMIT notification(name, source, payload);
    }

    StubCall newCall(StubCall::What what, const QString &text = {}) const
    {
        return makeCall(what, m_session->number(), ConnectionNames::instance().find(this), text);
    }

    void record(StubCall::What what, const QString &text = {}) const
    {
        m_state->add(newCall(what, text));
    }

protected:
    void customEvent(QEvent *event) override
    {
        if (event->type() != NotificationEvent::eventType())
            return;
        const auto *notice = static_cast<NotificationEvent *>(event);
        emitNotification(notice->name(), notice->source(), notice->payload());
    }

private:
    /// Close and destruction happen under Qt's lock on the connection names.
    void recordEnd(StubCall::What what) const
    {
        const QString name = ConnectionNames::instance().known(this);
        m_state->add(makeCall(what, m_session->number(), name, QString()));
    }

    /// Records the call and does what the test has scripted for it.
    bool carryOut(const StubCall &call)
    {
        m_state->add(call);
        const QVector<StubEffect> effects = m_state->effectsOf(call);
        if (effects.isEmpty())
            return true;
        m_session->begin();
        const bool done = suffer(effects);
        m_session->end();
        return done;
    }

    bool suffer(const QVector<StubEffect> &effects)
    {
        for (const StubEffect &effect : effects) {
            const StubSession::Pause pause = m_session->pause(effect.delayMs, effect.gate);
            QSqlError error = effect.error;
            if (pause == StubSession::Pause::Cancelled)
                error = cancelError();
            else if (pause == StubSession::Pause::TimedOut)
                error = gateTimedOutError();
            if (error.isValid()) {
                setLastError(error);
                return false;
            }
        }
        return true;
    }

    QSqlError cancelError() const
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        return m_state->cancelError;
    }

    void learnDbms()
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        static_cast<QSqlDriverPrivate *>(d_ptr.data())->dbmsType = m_state->dbms;
    }

    const StatePtr m_state;
    const StubSessionPtr m_session;
    bool m_holdsConnection = false;
    QStringList m_subscribed; // guarded by the state's mutex
};

namespace
{

/// One query's result. It may outlive its driver, so it keeps what it needs of it.
class StubResult : public QSqlResult
{
public:
    StubResult(const StubDriver *driver, const StatePtr &state, const StubSessionPtr &session,
               const QString &connection)
        : QSqlResult(driver)
        , m_state(state)
        , m_session(session)
        , m_connection(connection)
    {
        {
            std::lock_guard<std::mutex> lock(m_state->mutex);
            ++m_state->liveResults;
            m_number = ++m_state->resultCount;
        }
        m_state->add(newCall(StubCall::ResultCreated));
    }

    ~StubResult() override
    {
        letGo();
        m_state->add(newCall(StubCall::ResultDestroyed, lastQuery()));
        std::lock_guard<std::mutex> lock(m_state->mutex);
        --m_state->liveResults;
    }

protected:
    bool savePrepare(const QString &text) override
    {
        m_writtenText = text;
        return QSqlResult::savePrepare(text);
    }

    bool prepare(const QString &text) override
    {
        letGo();
        m_prepared = text;
        StubCall call = newCall(StubCall::Prepare, text);
        call.writtenText = m_writtenText;
        m_state->add(call);
        const QSqlError error = m_state->replyTo(text, m_writtenText, false).prepareError;
        if (error.isValid()) {
            m_state->replyTo(text, m_writtenText, true); // the failure used the rule up
            return fail(error);
        }
        if (!driver()->hasFeature(QSqlDriver::PreparedQueries))
            return QSqlResult::prepare(text);
        return true;
    }

    bool exec() override
    {
        if (!driver())
            return false; // the connection was removed under the query
        if (!driver()->hasFeature(QSqlDriver::PreparedQueries))
            return QSqlResult::exec(); // Qt writes the values into the text and calls reset()
        StubCall call = newCall(StubCall::ExecPrepared, m_prepared);
        call.writtenText = m_writtenText;
        for (int i = 0; i < boundValueCount(); ++i)
            call.bindings.append({boundValueName(i), i, boundValue(i), bindValueType(i)});
        m_state->add(call);
        return run(m_state->replyTo(m_prepared, m_writtenText, true));
    }

    bool reset(const QString &text) override
    {
        m_state->add(newCall(StubCall::Exec, text));
        return run(m_state->replyTo(text, text, true));
    }

    void bindValue(int position, const QVariant &value, QSql::ParamType type) override
    {
        recordBinding({QString(), position, value, type});
        QSqlResult::bindValue(position, value, type);
    }

    void bindValue(const QString &placeholder, const QVariant &value, QSql::ParamType type) override
    {
        recordBinding({placeholder, -1, value, type});
        QSqlResult::bindValue(placeholder, value, type);
    }

    bool fetch(int row) override
    {
        if (row < 0 || (isForwardOnly() && row < at()))
            return false;
        if (!waitForRow(row))
            return false;
        if (m_reply.errorRow >= 0 && row >= m_reply.errorRow)
            return fail(m_reply.errorAtRow);
        if (row >= m_reply.rowCount) {
            m_exhausted = true;
            letGo();
            return false;
        }
        m_row = m_reply.rowAt(row);
        setAt(row);
        std::lock_guard<std::mutex> lock(m_state->mutex);
        ++m_state->rowsRead;
        return true;
    }

    bool fetchFirst() override { return fetch(0); }
    bool fetchLast() override { return fetch(m_reply.rowCount - 1); }

    QVariant data(int column) override { return m_row.value(column); }
    bool isNull(int column) override { return m_row.value(column).isNull(); }

    bool nextResult() override
    {
        if (m_reply.errorBehind.isValid())
            return fail(m_reply.errorBehind);
        return false;
    }

    int size() override
    {
        return m_reply.sizeUnknownWhenForwardOnly && isForwardOnly() ? -1 : m_reply.size;
    }

    int numRowsAffected() override
    {
        m_state->add(newCall(StubCall::AskAffected, lastQuery()));
        return m_reply.affectedOnlyAfterLastRow && !m_exhausted ? -1 : m_reply.affectedRows;
    }

    QVariant lastInsertId() const override
    {
        m_state->add(newCall(StubCall::AskLastInsertId, lastQuery()));
        return m_reply.lastInsertId;
    }

    QSqlRecord record() const override
    {
        QSqlRecord fields;
        if (isActive()) {
            for (const QSqlField &column : m_reply.columns)
                fields.append(column);
        }
        return fields;
    }

    void detachFromResultSet() override
    {
        m_state->add(newCall(StubCall::ResultDetached, lastQuery()));
        letGo();
    }

private:
    StubCall newCall(StubCall::What what, const QString &text = {}) const
    {
        StubCall call = makeCall(what, m_session->number(), m_connection, text);
        call.result = m_number;
        call.forwardOnly = isForwardOnly();
        return call;
    }

    void recordBinding(const StubCall::Binding &binding)
    {
        StubCall call = newCall(StubCall::Bind, m_prepared);
        call.bindings = {binding};
        m_state->add(call);
    }

    bool run(const StubReply &reply)
    {
        letGo();
        m_reply = reply;
        m_exhausted = false;
        m_session->begin();
        m_holdsSession = true;
        setActive(false);
        setAt(QSql::BeforeFirstRow);
        if (!goOn(m_session->pause(reply.delayMs, reply.gate)))
            return false;
        if (reply.losesConnection && driver())
            const_cast<StubDriver *>(static_cast<const StubDriver *>(driver()))->loseConnection();
        if (reply.error.isValid())
            return fail(reply.error);
        if (reply.failsSilently) {
            letGo();
            return false;
        }
        setSelect(reply.isSelect);
        setActive(true);
        if (!reply.isSelect)
            letGo();
        return true;
    }

    bool waitForRow(int row)
    {
        if (row >= m_reply.rowCount)
            return true;
        const ThreadGatePtr gate = row == m_reply.gateRow ? m_reply.rowGate : nullptr;
        return goOn(m_session->pause(m_reply.rowDelayMs, gate));
    }

    bool goOn(StubSession::Pause pause)
    {
        switch (pause) {
        case StubSession::Pause::Over:
            return true;
        case StubSession::Pause::TimedOut:
            return fail(gateTimedOutError());
        case StubSession::Pause::Cancelled:
            break;
        }
        QSqlError error;
        {
            std::lock_guard<std::mutex> lock(m_state->mutex);
            error = m_state->cancelError;
        }
        return fail(error);
    }

    bool fail(const QSqlError &error)
    {
        letGo();
        setLastError(error);
        return false;
    }

    /// Nothing of this result can be cancelled any more.
    void letGo()
    {
        if (m_holdsSession)
            m_session->end();
        m_holdsSession = false;
    }

    const StatePtr m_state;
    const StubSessionPtr m_session;
    const QString m_connection;
    int m_number = 0;
    QString m_writtenText;
    QString m_prepared;
    StubReply m_reply;
    QVariantList m_row;
    bool m_exhausted = false;
    bool m_holdsSession = false;
};

/// Makes a driver for each connection. Owned by Qt's table of drivers.
class StubDriverCreator : public QSqlDriverCreatorBase
{
public:
    explicit StubDriverCreator(const StatePtr &state)
        : m_state(state)
    {
    }

    QSqlDriver *createObject() const override
    {
        return ConnectionNames::instance().create([this] {
            int number = 0;
            QSqlDriver::DbmsType dbms = QSqlDriver::UnknownDbms;
            {
                std::lock_guard<std::mutex> lock(m_state->mutex);
                number = ++m_state->driverCount;
                if (!m_state->dbmsKnownOnlyWhenOpen)
                    dbms = m_state->dbms;
            }
            m_state->add(makeCall(StubCall::DriverCreated, number, QString(), QString()));
            return new StubDriver(m_state, dbms, number);
        });
    }

private:
    const StatePtr m_state;
};

bool fits(const StubCall &call, StubCall::What what, const QString &connectionSuffix)
{
    return call.what == what && call.connection.endsWith(connectionSuffix);
}

} // namespace

QSqlResult *StubDriver::createResult() const
{
    return new StubResult(this, m_state, m_session, ConnectionNames::instance().find(this));
}

QString StubCall::toString() const
{
    QStringList parts{QString::fromLatin1(QMetaEnum::fromType<What>().valueToKey(what)),
                      QStringLiteral("connection='%1'").arg(connection),
                      QStringLiteral("driver=%1 result=%2").arg(driver).arg(result),
                      mainThread ? QStringLiteral("main thread") : QStringLiteral("other thread")};
    if (!text.isEmpty())
        parts.append(QStringLiteral("text='%1'").arg(text));
    for (const Binding &binding : bindings) {
        parts.append(
            QStringLiteral("%1[%2]=%3 (%4)")
                .arg(binding.placeholder)
                .arg(binding.position)
                .arg(binding.value.toString(), QString::fromLatin1(binding.value.typeName())));
    }
    return parts.join(QLatin1Char(' '));
}

StubServer::StubServer(const QString &driverName, QSqlDriver::DbmsType dbms)
    : m_state(std::make_shared<State>())
{
    m_state->driverName = driverName;
    m_state->dbms = dbms;
    m_state->forgetScript();
    QSqlDatabase::registerSqlDriver(driverName, new StubDriverCreator(m_state));
}

StubServer::~StubServer()
{
    QSqlDatabase::registerSqlDriver(m_state->driverName, nullptr);
}

QString StubServer::driverName() const
{
    return m_state->driverName;
}

void StubServer::setFeatures(const QVector<QSqlDriver::DriverFeature> &features)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->features.clear();
    for (const QSqlDriver::DriverFeature feature : features)
        m_state->features.insert(feature);
}

void StubServer::setFeature(QSqlDriver::DriverFeature feature, bool on)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    if (on)
        m_state->features.insert(feature);
    else
        m_state->features.remove(feature);
}

void StubServer::setDbmsType(QSqlDriver::DbmsType dbms)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->dbms = dbms;
}

void StubServer::setDbmsTypeKnownOnlyWhenOpen(bool on)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->dbmsKnownOnlyWhenOpen = on;
}

void StubServer::setTables(QSql::TableType type, const QStringList &names)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->tables.insert(type, names);
}

void StubServer::on(const StubMatch &match, const StubReply &reply, int times)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->rules.append({match, reply, times});
}

void StubServer::setDefaultReply(const StubReply &reply)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->defaultReply = reply;
}

void StubServer::setCancelError(const QSqlError &error)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->cancelError = error;
}

void StubServer::setKeepsErrors(bool on)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->keepsErrors = on;
}

void StubServer::setCancelIgnored(bool on)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->cancelIgnored = on;
}

void StubServer::effect(StubCall::What what, const StubEffect &effect, const StubWhere &where)
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->effects.append({what, effect, where, 0});
}

int StubServer::notify(const QString &name, QSqlDriver::NotificationSource source,
                       const QVariant &payload)
{
    QVector<QPointer<StubDriver>> here;
    int reached = 0;
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        for (StubDriver *driver : qAsConst(m_state->drivers)) {
            if (!driver->isSubscribed(name))
                continue;
            ++reached;
            if (driver->thread() == QThread::currentThread()) {
                here.append(driver);
                continue;
            }
            QCoreApplication::postEvent(driver, new NotificationEvent(name, source, payload));
        }
    }
    for (const QPointer<StubDriver> &driver : qAsConst(here)) {
        if (driver)
            driver->emitNotification(name, source, payload);
    }
    return reached;
}

QVector<StubCall> StubServer::calls() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->calls;
}

QVector<StubCall> StubServer::calls(StubCall::What what, const QString &connectionSuffix) const
{
    QVector<StubCall> found;
    const QVector<StubCall> all = calls();
    for (const StubCall &call : all) {
        if (fits(call, what, connectionSuffix))
            found.append(call);
    }
    return found;
}

QStringList StubServer::texts(StubCall::What what, const QString &connectionSuffix) const
{
    QStringList found;
    const QVector<StubCall> some = calls(what, connectionSuffix);
    for (const StubCall &call : some)
        found.append(call.text);
    return found;
}

QStringList StubServer::executed(const QString &connectionSuffix) const
{
    QStringList found;
    const QVector<StubCall> all = calls();
    for (const StubCall &call : all) {
        if (fits(call, StubCall::Exec, connectionSuffix) ||
            fits(call, StubCall::ExecPrepared, connectionSuffix))
            found.append(call.text);
    }
    return found;
}

int StubServer::count(StubCall::What what, const QString &connectionSuffix) const
{
    return calls(what, connectionSuffix).size();
}

bool StubServer::waitForCall(StubCall::What what, const QString &text, int ms) const
{
    const auto arrived = [&] {
        for (const StubCall &call : qAsConst(m_state->calls)) {
            if (call.what == what && (text.isEmpty() || call.text == text))
                return true;
        }
        return false;
    };
    const auto limit = std::chrono::system_clock::now() + std::chrono::milliseconds(scaledMs(ms));
    std::unique_lock<std::mutex> lock(m_state->mutex);
    return m_state->changed.wait_until(lock, limit, arrived);
}

QString StubServer::record() const
{
    QStringList lines;
    const QVector<StubCall> all = calls();
    for (const StubCall &call : all)
        lines.append(call.toString());
    return lines.join(QLatin1Char('\n'));
}

void StubServer::clearRecord()
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->calls.clear();
}

void StubServer::reset()
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    m_state->forgetScript();
}

int StubServer::liveDrivers() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->drivers.size();
}

int StubServer::openDrivers() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->openDrivers;
}

int StubServer::liveResults() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->liveResults;
}

qint64 StubServer::rowsRead() const
{
    std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->rowsRead;
}
