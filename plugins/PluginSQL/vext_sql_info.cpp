#include "vext_sql_entry.h"

#include "own_properties.h"
#include "sql_secrets.h"
#include "vext_sql_module.h"

#include <QDateTime>

#include <algorithm>

namespace
{

constexpr QScriptValue::PropertyFlags Fixed = QScriptValue::ReadOnly | QScriptValue::Undeletable;
constexpr QScriptValue::PropertyFlags FixedHidden = Fixed | QScriptValue::SkipInEnumeration;

struct Feature {
    const char *name;
    QSqlDriver::DriverFeature feature;
};

constexpr Feature Features[] = {
    {"Transactions", QSqlDriver::Transactions},
    {"QuerySize", QSqlDriver::QuerySize},
    {"BLOB", QSqlDriver::BLOB},
    {"Unicode", QSqlDriver::Unicode},
    {"PreparedQueries", QSqlDriver::PreparedQueries},
    {"NamedPlaceholders", QSqlDriver::NamedPlaceholders},
    {"PositionalPlaceholders", QSqlDriver::PositionalPlaceholders},
    {"LastInsertId", QSqlDriver::LastInsertId},
    {"BatchOperations", QSqlDriver::BatchOperations},
    {"SimpleLocking", QSqlDriver::SimpleLocking},
    {"LowPrecisionNumbers", QSqlDriver::LowPrecisionNumbers},
    {"EventNotifications", QSqlDriver::EventNotifications},
    {"FinishQuery", QSqlDriver::FinishQuery},
    {"MultipleResultSets", QSqlDriver::MultipleResultSets},
    {"CancelQuery", QSqlDriver::CancelQuery},
};

/// Opens what QSqlDriver keeps for drivers.
struct DriverErrors : QSqlDriver {
    using QSqlDriver::setLastError;
};

/// Lists the tables, and tells the error of this call alone: Qt's drivers leave that of an earlier
/// one where it was.
QStringList listTables(const QSqlDatabase &db, QSql::TableType type, QSqlError &error)
{
    QSqlDriver *driver = db.driver();
    const auto setError = &DriverErrors::setLastError;
    const QSqlError before = driver->lastError();
    (driver->*setError)(QSqlError());
    const QStringList names = db.tables(type);
    error = driver->lastError();
    if (!error.isValid())
        (driver->*setError)(before);
    return names;
}

QScriptValue tablesResult(QScriptEngine *engine, const QStringList &names)
{
    QScriptValue list = engine->newArray(uint(names.size()));
    {
        const WithoutPrototype bare(engine, list);
        // Flags of an array's elements hold only when set by name.
        for (int i = 0; i < names.size(); ++i)
            list.setProperty(QString::number(i), QScriptValue(engine, names.at(i)), Fixed);
    }
    QScriptValue result = engine->newObject();
    const WithoutPrototype bare(engine, result);
    result.setProperty(QStringLiteral("TABLES"), list, FixedHidden);
    result.setProperty(QStringLiteral("rows"), QScriptValue(engine, names.size()), Fixed);
    result.setProperty(QStringLiteral("fields"), QScriptValue(engine, 1), Fixed);
    result.setProperty(QStringLiteral("numRowsAffected"), QScriptValue(engine, 0), Fixed);
    return result;
}

} // namespace

bool VEXT_sqlThr::tables(int ttype)
{
    const Entry entry(this);
    if (!db.isOpen()) {
        reportNotOpen("tables", WorkerLines::Info + __LINE__);
        return false;
    }
    QSqlError error;
    QStringList names = listTables(db, static_cast<QSql::TableType>(ttype & 0xff), error);
    std::sort(names.begin(), names.end());
    setLastError(error);
    clearSqlResult();
    if (m_engine && m_owner) {
        OwnProperties(m_engine, m_scriptValueThis)
            .set(m_engine->toStringHandle(QStringLiteral("queryResult")),
                 tablesResult(m_engine, names), QScriptValue::SkipInEnumeration);
    }
    return !error.isValid();
}

QVariant VEXT_sqlThr::hasFeature() const
{
    QVariantMap map;
    for (const Feature &feature : Features) {
        map.insert(QLatin1String(feature.name), db.driver()->hasFeature(feature.feature));
    }
    return map;
}

/// Also for another engine's thread: only atomics, and what the locks guard.
Statistics VEXT_sqlThr::statistics()
{
    Statistics s;
    const bool own = thread() == QThread::currentThread();
    const QObject *owner = own ? parent() : nullptr;
    const QObject *post = own && m_engine ? m_engine->parent() : nullptr;
    const ShownNames::Texts shown = m_shown.texts();
    s.postName = post ? post->objectName() : shown.post;
    s.connectionName = own ? objectName() : shown.connection;
    s.ownerName = owner ? owner->objectName() : shown.owner;
    {
        QMutexLocker locker(&m_mutexParams);
        s.driver = driverName;
        s.database = SqlSecrets::maskedConnection(databaseName);
        s.user = userName;
        s.host = port > 0 ? QStringLiteral("%1:%2").arg(hostName, QString::number(port)) : hostName;
        s.events = m_listEvents;
        s.eventPlaces = m_listEventsCallee;
    }
    s.isOpen = own ? db.isOpen() : m_shown.isOpen.load();
    s.isRunning = isRunning();
    s.opens = cnt_open.loadAcquire();
    s.opened = cnt_opened.loadAcquire();
    s.closed = cnt_closed.loadAcquire();
    s.statements = cnt_sql_ok.loadAcquire();
    s.failures = cnt_sql_er.loadAcquire();
    QMutexLocker locker(&m_mutexSqlTasks);
    const bool busy = m_thrSqlBusy.loadAcquire() == 1;
    s.queue = m_thrSqlQueue.loadAcquire();
    s.finished = m_thrSqlFinish.loadAcquire();
    s.idleMs = busy ? 0.0 : double(m_timerNotUse.elapsed());
    s.currentMs = busy ? double(QDateTime::currentMSecsSinceEpoch() - m_thrSqlStartMs) : 0.0;
    return s;
}

QScriptValue VEXT_sqlThr::counters(QScriptEngine *eng)
{
    QScriptEngine *engine = eng;
    if (!engine)
        engine = m_engine;
    return engine ? statistics().toScript(engine, eng) : QScriptValue();
}
