/// @file
/// What the tests of the worker thread share: a script, and a driver whose statements stand still.
#pragma once

#include "thread_fixture.h"

#include <QObject>
#include <QSqlError>
#include <QVector>

#include <memory>

/// Each test begins with a script and a stub driver of its own, and leaves no query, no connection
/// and no complaint of Qt behind.
class WorkerTest : public QObject
{
    Q_OBJECT

protected slots:
    void init();
    void cleanup();

protected:
    /// A statement that stands still until the gate is opened.
    ThreadGatePtr hold(const QString &sql = heldSql);
    /// Queues the held statement and waits until the worker stands in it.
    void occupyWorker();
    int scriptInt(const QString &expression) { return m_script->eval(expression).toInt32(); }
    VextPostStub *sink() { return m_script->host.post(); }

    static QSqlError connectionError();
    static QSqlError statementError();

    const QString thr = QStringLiteral("_thr");
    static const QString heldSql;
    static constexpr int promptMs = 1000; ///< what does not wait is over well before this
    static constexpr char workerFile[] = "plugins/PluginSQL/vext_sql_thread";

    std::unique_ptr<StubServer> m_server;
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<ThreadFixture> m_script;
    QVector<ThreadGatePtr> m_gates;
    QString m_allowedComplaint;
};
