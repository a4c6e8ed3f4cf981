/// @file
/// The queue of a worker by itself, without a thread.
#include "deadline.h"
#include "sql_records.h"
#include "task_queue.h"

#include <QDateTime>
#include <QMutexLocker>
#include <QtTest>

namespace
{

constexpr int LongMs = 20000;
constexpr int ShortMs = 20;

class Queue : public TaskQueue
{
public:
    using TaskQueue::takeTask;
    using TaskQueue::waitForTask;
    using TaskQueue::Wake;

    ~Queue() { qDeleteAll(m_listSqlTasks); }

    structThrSql *add()
    {
        auto *task = new structThrSql;
        m_listSqlTasks.append(task);
        m_thrSqlQueue.storeRelease(m_listSqlTasks.size());
        return task;
    }
    Wake wait(int ms)
    {
        QMutexLocker locker(&m_mutexSqlTasks);
        return waitForTask(ms);
    }
};

} // namespace

class TestTaskQueue : public QObject
{
    Q_OBJECT

private slots:
    void whatCameBeforeTheSleepEndsIt_data();
    void whatCameBeforeTheSleepEndsIt();
    void taskGoesBeforeAStop();
    void sleepThatNobodyEndsTellsWhetherItIsIdle();
    void tasksAreTakenInOrderAndCounted();
    void takenTaskKnowsSinceWhen();
};

void TestTaskQueue::whatCameBeforeTheSleepEndsIt_data()
{
    QTest::addColumn<bool>("task");
    QTest::newRow("task") << true;
    QTest::newRow("stop") << false;
}

void TestTaskQueue::whatCameBeforeTheSleepEndsIt()
{
    QFETCH(bool, task);
    Queue queue;
    if (task)
        queue.add();
    else
        queue.m_thrStop.storeRelease(1);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(queue.wait(scaledMs(LongMs)) == (task ? Queue::Wake::Task : Queue::Wake::Stop));
    QVERIFY2(timer.elapsed() < scaledMs(LongMs) / 2, qPrintable(QString::number(timer.elapsed())));
}

void TestTaskQueue::taskGoesBeforeAStop()
{
    Queue queue;
    queue.add();
    queue.m_thrStop.storeRelease(1);
    QVERIFY(queue.wait(scaledMs(LongMs)) == Queue::Wake::Task);
}

void TestTaskQueue::sleepThatNobodyEndsTellsWhetherItIsIdle()
{
    Queue queue;
    QVERIFY(queue.wait(ShortMs) == Queue::Wake::TimedOut);
    queue.m_timeNotUse = 1;
    QVERIFY(queue.wait(ShortMs) == Queue::Wake::Idle);
}

void TestTaskQueue::tasksAreTakenInOrderAndCounted()
{
    Queue queue;
    structThrSql *first = queue.add();
    structThrSql *second = queue.add();
    QCOMPARE(queue.taskSize(), 2);
    for (structThrSql *expected : {first, second}) {
        structThrSql *task = queue.takeTask();
        QCOMPARE(task, expected);
        delete task;
        QCOMPARE(queue.m_thrSqlQueue.loadAcquire(), queue.taskSize());
        QCOMPARE(queue.m_thrSqlBusy.loadAcquire(), 1);
    }
    QCOMPARE(queue.taskSize(), 0);
    QCOMPARE(queue.m_thrSqlFinish.loadAcquire(), 2);
}

void TestTaskQueue::takenTaskKnowsSinceWhen()
{
    Queue queue;
    queue.add();
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    delete queue.takeTask();
    QVERIFY(queue.m_thrSqlStartMs >= before);
    QVERIFY(queue.m_thrSqlStartMs <= QDateTime::currentMSecsSinceEpoch());
}

QTEST_GUILESS_MAIN(TestTaskQueue)
#include "test_task_queue.moc"
