#include "c_columns.h"

#include <QElapsedTimer>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace
{

/// A thread with a connection of its own: takes statements from a queue, and hands each result to
/// the thread that waits at an eventfd, as an event loop would. The least that a program needs in
/// order not to block.
class StatementThread
{
public:
    explicit StatementThread(const Target &target)
        : m_thread([this, target] { run(target); })
    {
        take(); // the connection is there
    }
    ~StatementThread()
    {
        submit(QByteArray());
        m_thread.join();
        close(m_event);
    }
    StatementThread(const StatementThread &) = delete;
    StatementThread &operator=(const StatementThread &) = delete;

    void submit(const QByteArray &sql)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_statements.push_back(sql);
        }
        m_wake.notify_one();
    }

    /// Waits for an event. @return the results that are there: none where the event's own was taken
    /// with the one before it
    std::deque<Columns> take()
    {
        uint64_t count = 0;
        if (read(m_event, &count, sizeof count) != sizeof count)
            failFloor("no event");
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_results, {});
    }

private:
    QByteArray next()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_wake.wait(lock, [this] { return !m_statements.empty(); });
        const QByteArray sql = m_statements.front();
        m_statements.pop_front();
        return sql;
    }

    void handOver(Columns columns)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_results.push_back(std::move(columns));
        }
        const uint64_t one = 1;
        if (write(m_event, &one, sizeof one) != sizeof one)
            failFloor("no event");
    }

    void run(const Target &target)
    {
        const CReader readStatement = makeReader(target);
        handOver(Columns());
        for (QByteArray sql = next(); !sql.isEmpty(); sql = next()) {
            Columns columns;
            readStatement(sql, columns);
            handOver(std::move(columns));
        }
    }

    const int m_event = eventfd(0, 0);
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<QByteArray> m_statements; ///< m_mutex
    std::deque<Columns> m_results;       ///< m_mutex
    std::thread m_thread;                ///< last: it uses the others
};

void workChained(StatementThread &thread, const std::vector<QByteArray> &statements)
{
    for (const QByteArray &sql : statements) {
        thread.submit(sql);
        thread.take();
    }
}

void workQueued(StatementThread &thread, const std::vector<QByteArray> &statements)
{
    for (const QByteArray &sql : statements)
        thread.submit(sql);
    for (size_t done = 0; done < statements.size();)
        done += thread.take().size();
}

} // namespace

Measurement floorThread(const Target &target, const Workload &workload)
{
    std::vector<QByteArray> statements;
    for (int i = 0; i < workload.count; ++i)
        statements.push_back(workload.smallStatement(i).toUtf8());
    StatementThread thread(target);
    Measurement m;
    m.startMb = memoryMb();
    QElapsedTimer timer;
    timer.start();
    if (workload.kind == Workload::Kind::Chain)
        workChained(thread, statements);
    else
        workQueued(thread, statements);
    m.ms = double(timer.nsecsElapsed()) / 1e6;
    m.gapMs = m.ms;
    m.peakMb = peakMemoryMb();
    m.endMb = memoryMb();
    return m;
}
