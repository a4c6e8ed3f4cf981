#include "worker_test.h"

#include <QSqlDatabase>
#include <QtTest>

const QString WorkerTest::heldSql = QStringLiteral("held");

void WorkerTest::init()
{
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    m_server = std::make_unique<StubServer>(QStringLiteral("STUB"));
    m_script = std::make_unique<ThreadFixture>();
    m_allowedComplaint.clear();
}

void WorkerTest::cleanup()
{
    for (const ThreadGatePtr &gate : qAsConst(m_gates))
        gate->release();
    m_gates.clear();
    m_script.reset();
    QVERIFY2(m_server->liveResults() == 0, qPrintable(m_server->record()));
    QVERIFY2(m_server->liveDrivers() == 0, qPrintable(m_server->record()));
    QCOMPARE(QSqlDatabase::connectionNames(), QStringList());
    m_server.reset();
    const QStringList complaints = m_log->qtComplaints(m_allowedComplaint);
    QVERIFY2(complaints.isEmpty(), qPrintable(complaints.join(QLatin1Char('\n'))));
    m_log.reset();
}

ThreadGatePtr WorkerTest::hold(const QString &sql)
{
    const ThreadGatePtr gate = ThreadGate::create();
    m_gates.append(gate);
    m_server->onExact(sql, StubReply::affected(0).withGate(gate));
    return gate;
}

void WorkerTest::occupyWorker()
{
    const ThreadGatePtr gate = hold();
    QVERIFY(m_script->queue(heldSql));
    QVERIFY2(gate->waitReached(), qPrintable(m_server->record()));
}

QSqlError WorkerTest::connectionError()
{
    return stubError(QSqlError::ConnectionError, QStringLiteral("server closed the connection"));
}

QSqlError WorkerTest::statementError()
{
    return stubError(QSqlError::StatementError, QStringLiteral("bad statement"));
}
