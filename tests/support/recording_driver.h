/// @file
/// A Qt SQL driver without a database: it answers as the test has scripted it and records each call
/// together with the thread and the connection it came from.
#pragma once

#include "deadline.h"
#include "stub_reply.h"

#include <QObject>
#include <QSqlDriver>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <memory>

class QThread;

/// One call that reached the driver or one of its results.
struct StubCall {
    Q_GADGET

public:
    enum What {
        DriverCreated,
        DriverDestroyed,
        Open, ///< tried; with parameters
        Close,
        Prepare,      ///< text: what QSqlResult::prepare() received
        Exec,         ///< direct execution; text: what QSqlResult::reset() received
        ExecPrepared, ///< text: the prepared text; bindings: what was bound
        Bind,         ///< bindings: the one value
        Begin,
        Commit,
        Rollback,
        Cancel,
        Subscribe,   ///< text: the notification's name
        Unsubscribe, ///< text: the notification's name
        Tables,      ///< text: the table type as a number
        ResultCreated,
        ResultDetached,  ///< the query was finished; text: its last statement
        ResultDestroyed, ///< text: its last statement
        AskAffected,
        AskLastInsertId
    };
    Q_ENUM(What)

    /// One bound value. A value bound by name has position -1 while it is being bound.
    struct Binding {
        QString placeholder;
        int position = -1;
        QVariant value;
        QSql::ParamType type;
    };

    /// The parameters of an open.
    struct OpenParameters {
        QString database;
        QString user;
        QString password;
        QString host;
        int port = -1;
        QString options;
    };

    What what = DriverCreated;
    QString text;
    QString writtenText; ///< Prepare, ExecPrepared: the text before Qt replaced placeholders
    QString connection;  ///< name under which the connection was registered
    const QThread *thread = nullptr; ///< for comparison only, it may be gone
    bool mainThread = false;
    bool forwardOnly = false; ///< of the result, at Exec, ExecPrepared and Prepare
    int driver = 0;           ///< number of the driver, from 1
    int result = 0;           ///< number of the result, from 1; 0 for calls of the driver
    QVector<Binding> bindings;
    OpenParameters parameters;

    /// One line for a failure message.
    QString toString() const;
};

/// The database behind the driver: registers the driver under a name for as long as it lives,
/// scripts the answers and keeps the record. A test makes one per driver name (in init(), or in the
/// test function), so that each test begins with an empty record and no rules.
///
/// The constructor and the destructor run in the test's thread while no connection is being opened;
/// all other members may be called from any thread. Drivers and results which outlive the server go
/// on with its answers. The name must not be one that a StubServer still has.
class StubServer
{
public:
    /// @param driverName name for QSqlDatabase::addDatabase(); a real driver of that name is hidden
    /// until the server is destroyed.
    explicit StubServer(const QString &driverName,
                        QSqlDriver::DbmsType dbms = QSqlDriver::UnknownDbms);
    ~StubServer();
    StubServer(const StubServer &) = delete;
    StubServer &operator=(const StubServer &) = delete;

    QString driverName() const;

    // What the driver says of itself. At first it has Transactions, QuerySize, BLOB, Unicode,
    // PreparedQueries, PositionalPlaceholders and LastInsertId.
    void setFeatures(const QVector<QSqlDriver::DriverFeature> &features);
    void setFeature(QSqlDriver::DriverFeature feature, bool on = true);
    /// For drivers made from now on.
    void setDbmsType(QSqlDriver::DbmsType dbms);
    /// A driver reports no database system before it is opened, as ODBC drivers do.
    void setDbmsTypeKnownOnlyWhenOpen(bool on);
    void setTables(QSql::TableType type, const QStringList &names);
    /// A listing that works leaves the driver's last error as it was, as Qt's own drivers do.
    void setKeepsErrors(bool on);

    // Statements. The rule added last is asked first; a statement without a rule gets the default
    // reply, which at first is success without columns.
    /// @param times how often the rule answers an execution (a failed preparation counts as one);
    /// afterwards it is as if it was never there. Negative: always.
    void on(const StubMatch &match, const StubReply &reply, int times = -1);
    void onExact(const QString &text, const StubReply &reply) { on(StubMatch::exact(text), reply); }
    void onPrefix(const QString &text, const StubReply &reply)
    {
        on(StubMatch::prefix(text), reply);
    }
    void setDefaultReply(const StubReply &reply);

    // Cancelling. It works when the driver has the feature CancelQuery.
    /// The error that a cancelled statement or read ends with.
    void setCancelError(const QSqlError &error);
    /// The driver takes the request and goes on, as some do.
    void setCancelIgnored(bool on);

    // Everything else: Open, Begin, Commit, Rollback, Subscribe, Unsubscribe and Tables can fail,
    // last, or stand at a gate. Effects that fit the same call apply one after the other, in the
    // order in which they were added, up to the first error.
    void effect(StubCall::What what, const StubEffect &effect, const StubWhere &where = {});
    void fail(StubCall::What what, const QSqlError &error, const StubWhere &where = {})
    {
        effect(what, StubEffect::failure(error), where);
    }
    /// Emits both notification() signals of each open driver that is subscribed to @p name: at once
    /// for the drivers of the calling thread, through the event loop for those of others.
    /// @return how many drivers that were.
    int notify(const QString &name, QSqlDriver::NotificationSource source,
               const QVariant &payload = QVariant());

    // The record, in the order in which the calls began.
    QVector<StubCall> calls() const;
    QVector<StubCall> calls(StubCall::What what, const QString &connectionSuffix = {}) const;
    /// The texts of the calls of one kind.
    QStringList texts(StubCall::What what, const QString &connectionSuffix = {}) const;
    /// All statements that were executed, directly or prepared, in order.
    QStringList executed(const QString &connectionSuffix = {}) const;
    int count(StubCall::What what, const QString &connectionSuffix = {}) const;
    /// Blocks until such a call is in the record; no events are handled meanwhile.
    bool waitForCall(StubCall::What what, const QString &text = {}, int ms = defaultWaitMs) const;
    /// The whole record as text, for failure messages.
    QString record() const;
    void clearRecord();

    /// Forgets record, rules and effects, and returns to the features the driver has at first.
    /// Drivers and results that live go on.
    void reset();

    // Leak checks: what lives now.
    int liveDrivers() const;
    /// Connections that drivers hold, those included that they found broken or forgot.
    int openDrivers() const;
    int liveResults() const;
    /// Rows handed out so far.
    qint64 rowsRead() const;

    class State;

private:
    std::shared_ptr<State> m_state;
};
