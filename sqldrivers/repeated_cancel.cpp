#include "repeated_cancel.h"

#include "deadline_watch.h"

#include <QMutexLocker>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

namespace
{

/// A server that has not taken a request by then is as good as dead.
constexpr int DeadServerMs = 2000;
constexpr int RepeatMs = 250;
constexpr int LookMs = 2;

} // namespace

/// Shared by the thread that asks, the deadline and whoever waits for the end.
struct RepeatedCancel::Request {
    std::shared_ptr<Way> way;
    std::atomic<bool> isOver{false};
    std::atomic<bool> isCut{false};
    bool isOpen = false; ///< the thread's

    explicit Request(std::shared_ptr<Way> chosen)
        : way(std::move(chosen))
    {
    }
    static void repeat(const std::shared_ptr<Request> &request);
    bool ask();
};

/// @return whether the server has taken the request
bool RepeatedCancel::Request::ask()
{
    isOpen = isOpen || way->open();
    // Opening takes its time, and the statement may be over by now.
    return isOpen && !isOver && way->ask();
}

void RepeatedCancel::Request::repeat(const std::shared_ptr<Request> &request)
{
    DeadlineWatch &watch = DeadlineWatch::instance();
    DeadlineWatch::Id deadline = watch.add(DeadServerMs, [request] {
        // The statement has had its answer: whoever settles waits, and needs the line.
        if (request->isOver)
            return;
        request->isCut = true;
        request->way->cut();
    });
    while (!request->isOver) {
        if (request->ask() && deadline) {
            watch.remove(deadline);
            deadline = 0;
        }
        for (int ms = 0; ms < RepeatMs && !request->isOver; ms += LookMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(LookMs));
    }
    if (deadline)
        watch.remove(deadline);
    request->way->close();
}

void RepeatedCancel::begin(std::shared_ptr<Way> way)
{
    const QMutexLocker locker(&m_mutex);
    if (m_request)
        return; // it repeats itself
    auto request = std::make_shared<Request>(std::move(way));
    if (m_threads.start([request] { Request::repeat(request); }))
        m_request = request;
}

bool RepeatedCancel::settle()
{
    std::shared_ptr<Request> request;
    {
        const QMutexLocker locker(&m_mutex);
        request.swap(m_request);
    }
    if (!request)
        return true;
    request->isOver = true;
    // On a line that was cut it may still be connecting to the dead server. Nothing of this
    // connection can be hit by it any more, so it is left behind instead of being waited for.
    if (request->isCut || !m_threads.settle())
        return false;
    // It may have been cut as the statement ended.
    return !request->isCut && !request->way->mayComeLate();
}
