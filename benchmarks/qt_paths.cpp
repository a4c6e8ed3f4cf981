#include "test_data.h"
#include "workloads.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QScriptEngine>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QThread>

namespace
{

/// Reads the rows of a statement and throws them away.
void readAway(const QSqlDatabase &db, const QString &sql)
{
    QSqlQuery query(db);
    query.setForwardOnly(true);
    if (!query.exec(sql))
        qFatal("%s", qPrintable(query.lastError().text()));
    const int columns = query.record().count();
    while (query.next()) {
        for (int c = 0; c < columns; ++c) {
            const QVariant value = query.value(c);
            Q_UNUSED(value)
        }
    }
}

QVector<QVector<QVariant>> readColumns(const QSqlDatabase &db, const QString &sql)
{
    QSqlQuery query(db);
    query.setForwardOnly(true);
    if (!query.exec(sql))
        qFatal("%s", qPrintable(query.lastError().text()));
    QVector<QVector<QVariant>> columns(query.record().count());
    while (query.next()) {
        for (int c = 0; c < columns.size(); ++c)
            columns[c].append(query.value(c));
    }
    return columns;
}

constexpr int LookUpColumns = 6;

/// Rows by a key that is bound; a fresh query each, as scripts make them.
void lookUpBound(const QSqlDatabase &db, const Workload &workload)
{
    for (int i = 0; i < workload.count; ++i) {
        QSqlQuery query(db);
        query.setForwardOnly(true);
        query.prepare(
            QStringLiteral("select id, part, weight, label, kind, total from big where id = ?"));
        query.addBindValue(workload.key(i));
        if (!query.exec() || !query.next())
            qFatal("%s", qPrintable(query.lastError().text()));
        for (int c = 0; c < LookUpColumns; ++c) {
            const QVariant value = query.value(c);
            Q_UNUSED(value)
        }
    }
}

void insertBound(QSqlDatabase &db, const Workload &workload)
{
    db.transaction();
    for (int i = 0; i < workload.count; ++i) {
        QSqlQuery query(db);
        query.prepare(QStringLiteral("insert into inserts values(?, ?, ?)"));
        query.addBindValue(i);
        query.addBindValue(QStringLiteral("text %1").arg(i));
        query.addBindValue(i * 0.5);
        if (!query.exec())
            qFatal("%s", qPrintable(query.lastError().text()));
    }
    db.commit();
}

void work(QSqlDatabase &db, const Target &target, const Workload &workload)
{
    if (workload.bound && workload.kind == Workload::Kind::Insert)
        return insertBound(db, workload);
    if (workload.bound)
        return lookUpBound(db, workload);
    switch (workload.kind) {
    case Workload::Kind::Read:
        readAway(db, workload.readStatement());
        break;
    case Workload::Kind::Insert: {
        db.transaction();
        QSqlQuery query(db);
        if (target.postgres)
            query.prepare(QStringLiteral("insert into inserts values(?, ?, ?)"));
        for (int i = 0; i < workload.count; ++i) {
            if (target.postgres) {
                query.bindValue(0, i);
                query.bindValue(1, QStringLiteral("text %1").arg(i));
                query.bindValue(2, i * 0.5);
                query.exec();
            } else {
                query.exec(QStringLiteral("insert into inserts values(%1, 'text %1', %2)")
                               .arg(i)
                               .arg(i * 0.5));
            }
        }
        db.commit();
        break;
    }
    default:
        for (int i = 0; i < workload.count; ++i)
            readAway(db, workload.smallStatement(i));
    }
}

} // namespace

/// A QSqlQuery as a host would wrap it for its scripts.
class WrappedQuery : public QObject
{
    Q_OBJECT
public:
    explicit WrappedQuery(const QSqlDatabase &db)
        : m_query(db)
    {
        m_query.setForwardOnly(true);
    }
    Q_INVOKABLE bool exec(const QString &sql) { return m_query.exec(sql); }
    Q_INVOKABLE bool next() { return m_query.next(); }
    Q_INVOKABLE QVariant value(int column) { return m_query.value(column); }
    Q_INVOKABLE bool isNull(int column) { return m_query.isNull(column); }
    Q_INVOKABLE int columns() { return m_query.record().count(); }

private:
    QSqlQuery m_query;
};

Measurement qtQuery(const Target &target, const Workload &workload)
{
    QSqlDatabase db = openTarget(target, QStringLiteral("plain"));
    Measurement m;
    m.startMb = memoryMb();
    QElapsedTimer timer;
    timer.start();
    work(db, target, workload);
    m.ms = double(timer.nsecsElapsed()) / 1e6;
    m.gapMs = m.ms;
    m.peakMb = peakMemoryMb();
    m.endMb = memoryMb();
    return m;
}

/// The thread keeps what it read, column by column, and hands it over, as a program would that
/// wants the result in its main thread.
Measurement qtThread(const Target &target, const Workload &workload)
{
    Measurement m;
    m.startMb = memoryMb();
    GapTimer gap;
    QEventLoop loop;
    QElapsedTimer timer;
    QVector<QVector<QVariant>> result;
    // The clock starts when the connection is there, as it does for the plugin.
    QThread *thread = QThread::create([&] {
        QSqlDatabase db = openTarget(target, QStringLiteral("thread"));
        timer.start();
        QVector<QVector<QVariant>> columns = readColumns(db, workload.readStatement());
        QMetaObject::invokeMethod(
            &loop,
            [&m, &timer, &loop, &result, columns = std::move(columns)]() mutable {
                result = std::move(columns);
                m.ms = double(timer.nsecsElapsed()) / 1e6;
                loop.quit();
            },
            Qt::QueuedConnection);
    });
    gap.start();
    thread->start();
    loop.exec();
    thread->wait();
    delete thread;
    m.gapMs = gap.longestMs();
    m.peakMb = peakMemoryMb();
    m.endMb = memoryMb();
    return m;
}

Measurement scriptLoop(const Target &target, const Workload &workload)
{
    QSqlDatabase db = openTarget(target, QStringLiteral("script"));
    WrappedQuery query(db);
    QScriptEngine engine;
    engine.globalObject().setProperty(QStringLiteral("query"), engine.newQObject(&query));
    engine.globalObject().setProperty(QStringLiteral("sql"), workload.readStatement());
    Measurement m;
    m.startMb = memoryMb();
    QElapsedTimer timer;
    timer.start();
    engine.evaluate(QStringLiteral("query.exec(sql); var n = query.columns(); var cols = [];"
                                   "for (var c = 0; c < n; ++c) cols.push([]);"
                                   "while (query.next())"
                                   "  for (var c = 0; c < n; ++c)"
                                   "    cols[c].push(query.isNull(c) ? null : query.value(c));"));
    m.ms = double(timer.nsecsElapsed()) / 1e6;
    if (engine.hasUncaughtException())
        qFatal("%s", qPrintable(engine.uncaughtException().toString()));
    m.gapMs = m.ms;
    m.peakMb = peakMemoryMb();
    m.endMb = memoryMb();
    return m;
}

#include "qt_paths.moc"
