// Compiled into every program that uses the test support library: shows ThreadSanitizer how Qt
// orders threads. Without ThreadSanitizer this file is empty.
//
// Qt is not built with the sanitizer and its mutexes are made of futexes, so the sanitizer sees
// neither a lock nor a queued call nor the end of a thread that is waited for, and reports races
// where there are none. The functions below take the place of Qt's for the callers in the program
// and in the plugin, tell the sanitizer what is ordered before what, and call Qt's.
//
// A queued call is ordered after every queued call or signal that was sent earlier by anyone, not
// only after its own sender. A race between two senders can hide behind that; a race between a
// sender and a receiver that do not exchange calls cannot. A functor that is queued is shared by
// both sides through a counter in Qt, which cannot be shown: queue a method by name, or an event.
//
// Data that threads share by Qt's reference counts is freed by the one that lets go of it last.
// That one has seen the others let go, which is shown where the memory is given back.

#if defined(__SANITIZE_THREAD__)

#include <QArrayData>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QMetaObject>
#include <QMutex>
#include <QObject>
#include <QThread>
#include <QWaitCondition>

#include <sanitizer/tsan_interface.h>

#include <dlfcn.h>
#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

// Exported by the sanitizer's library; its headers do not declare them.
extern "C" void AnnotateIgnoreWritesBegin(const char *file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char *file, int line);

namespace
{

/// The function of this name that would have been called without this file.
template <typename Function>
Function *next(const char *mangledName)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, mangledName));
}

char queuedCalls; // its address stands for all event queues

void beforeSending()
{
    __tsan_release(&queuedCalls);
}

void beforeReceiving()
{
    __tsan_acquire(&queuedCalls);
}

/// While Qt makes and sends a queued call. What it writes for that comes after beforeSending() and
/// belongs to the receiver.
class EventInTheMaking
{
public:
    explicit EventInTheMaking(bool isQueued)
        : m_isQueued(isQueued)
    {
        beforeSending();
        if (m_isQueued)
            AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
    }
    EventInTheMaking(const EventInTheMaking &) = delete;
    EventInTheMaking &operator=(const EventInTheMaking &) = delete;
    ~EventInTheMaking()
    {
        if (m_isQueued)
            AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    }

private:
    bool m_isQueued;
};

/// Which thread routines run, by the argument they were started with: the QThread for Qt's threads.
class Routines
{
public:
    // Never destroyed: threads may end after the statics of the program.
    static Routines &instance()
    {
        static auto *routines = new Routines;
        return *routines;
    }

    void begin(void *argument)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_running[argument];
    }

    void end(void *argument)
    {
        __tsan_release(argument);
        std::lock_guard<std::mutex> lock(m_mutex);
        if (--m_running[argument] == 0)
            m_running.erase(argument);
        m_ended.notify_all();
    }

    void awaitEnd(void *argument)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_ended.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(10),
                           [&] { return m_running.count(argument) == 0; });
        __tsan_acquire(argument);
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_ended;
    std::map<void *, int> m_running; // guarded by m_mutex
};

struct Start {
    void *(*routine)(void *);
    void *argument;
};

void *runRoutine(void *startPointer)
{
    const Start start = *static_cast<Start *>(startPointer);
    delete static_cast<Start *>(startPointer);
    void *result = start.routine(start.argument);
    Routines::instance().end(start.argument);
    return result;
}

} // namespace

// Qt's own locks are made of wait conditions which they hand from thread to thread unseen.
extern "C" const char *__tsan_default_suppressions();
extern "C" const char *__tsan_default_suppressions()
{
    return "race:QWaitCondition::\n";
}

extern "C" int pthread_create(pthread_t *thread, const pthread_attr_t *attributes,
                              void *(*routine)(void *), void *argument) noexcept
{
    static auto *original =
        next<int(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *)>("pthread_create");
    Routines::instance().begin(argument);
    auto *start = new Start{routine, argument};
    const int error = original(thread, attributes, runRoutine, start);
    if (error != 0) {
        delete start;
        Routines::instance().end(argument);
    }
    return error;
}

bool QThread::wait(QDeadlineTimer deadline)
{
    static auto *original =
        next<bool(QThread *, QDeadlineTimer)>("_ZN7QThread4waitE14QDeadlineTimer");
    const bool ended = original(this, deadline);
    if (ended)
        Routines::instance().awaitEnd(this);
    return ended;
}

bool QThread::wait(unsigned long time)
{
    return wait(time == ULONG_MAX ? QDeadlineTimer(QDeadlineTimer::Forever)
                                  : QDeadlineTimer(qint64(time)));
}

void QMutex::lock() noexcept
{
    static auto *original = next<void(QMutex *)>("_ZN6QMutex4lockEv");
    original(this);
    __tsan_acquire(this);
}

bool QMutex::tryLock(int timeout) noexcept
{
    static auto *original = next<bool(QMutex *, int)>("_ZN6QMutex7tryLockEi");
    const bool locked = original(this, timeout);
    if (locked)
        __tsan_acquire(this);
    return locked;
}

void QMutex::unlock() noexcept
{
    static auto *original = next<void(QMutex *)>("_ZN6QMutex6unlockEv");
    __tsan_release(this);
    original(this);
}

bool QWaitCondition::wait(QMutex *mutex, QDeadlineTimer deadline)
{
    static auto *original = next<bool(QWaitCondition *, QMutex *, QDeadlineTimer)>(
        "_ZN14QWaitCondition4waitEP6QMutex14QDeadlineTimer");
    __tsan_release(mutex);
    const bool woken = original(this, mutex, deadline);
    __tsan_acquire(mutex);
    return woken;
}

bool QWaitCondition::wait(QMutex *mutex, unsigned long time)
{
    return wait(mutex, time == ULONG_MAX ? QDeadlineTimer(QDeadlineTimer::Forever)
                                         : QDeadlineTimer(qint64(time)));
}

void QMetaObject::activate(QObject *sender, const QMetaObject *metaObject, int signal, void **argv)
{
    static auto *original = next<void(QObject *, const QMetaObject *, int, void **)>(
        "_ZN11QMetaObject8activateEP7QObjectPKS_iPPv");
    // An object of this thread calls slots at once, and what those write counts.
    const EventInTheMaking event(sender && sender->thread() != QThread::currentThread());
    original(sender, metaObject, signal, argv);
}

bool QMetaObject::invokeMethod(QObject *object, const char *member, Qt::ConnectionType type,
                               QGenericReturnArgument result, QGenericArgument v0,
                               QGenericArgument v1, QGenericArgument v2, QGenericArgument v3,
                               QGenericArgument v4, QGenericArgument v5, QGenericArgument v6,
                               QGenericArgument v7, QGenericArgument v8, QGenericArgument v9)
{
    using A = QGenericArgument;
    static auto *original = next<bool(QObject *, const char *, Qt::ConnectionType,
                                      QGenericReturnArgument, A, A, A, A, A, A, A, A, A, A)>(
        "_ZN11QMetaObject12invokeMethodEP7QObjectPKcN2Qt14ConnectionTypeE22QGenericReturnArgument"
        "16QGenericArgumentS7_S7_S7_S7_S7_S7_S7_S7_S7_");
    const EventInTheMaking event(type == Qt::QueuedConnection);
    return original(object, member, type, result, v0, v1, v2, v3, v4, v5, v6, v7, v8, v9);
}

bool QMetaObject::invokeMethodImpl(QObject *object, QtPrivate::QSlotObjectBase *slot,
                                   Qt::ConnectionType type, void *result)
{
    static auto *original =
        next<bool(QObject *, QtPrivate::QSlotObjectBase *, Qt::ConnectionType, void *)>(
            "_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14"
            "ConnectionTypeEPv");
    const EventInTheMaking event(type == Qt::QueuedConnection);
    return original(object, slot, type, result);
}

void QCoreApplication::postEvent(QObject *receiver, QEvent *event, int priority)
{
    static auto *original =
        next<void(QObject *, QEvent *, int)>("_ZN16QCoreApplication9postEventEP7QObjectP6QEventi");
    beforeSending();
    original(receiver, event, priority);
}

void QCoreApplication::sendPostedEvents(QObject *receiver, int type)
{
    static auto *original =
        next<void(QObject *, int)>("_ZN16QCoreApplication16sendPostedEventsEP7QObjecti");
    beforeReceiving();
    original(receiver, type);
}

bool QObject::event(QEvent *event)
{
    static auto *original = next<bool(QObject *, QEvent *)>("_ZN7QObject5eventEP6QEvent");
    beforeReceiving();
    return original(this, event);
}

bool QThread::event(QEvent *event)
{
    static auto *original = next<bool(QThread *, QEvent *)>("_ZN7QThread5eventEP6QEvent");
    beforeReceiving();
    return original(this, event);
}

void QArrayData::deallocate(QArrayData *data, size_t objectSize, size_t alignment) noexcept
{
    static auto *original =
        next<void(QArrayData *, size_t, size_t)>("_ZN10QArrayData10deallocateEPS_mm");
    __tsan_acquire(data); // the counter is its first member
    original(data, objectSize, alignment);
}

#endif
