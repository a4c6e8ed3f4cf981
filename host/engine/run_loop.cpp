#include "run_loop.h"

#include "host_application.h"
#include "script_end.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QScriptEngine>

namespace
{

const int PollMs = 25;
const int QuietPolls = 2; ///< a worker reads as idle a moment before its task is handed back

} // namespace

RunLoop::RunLoop(QScriptEngine *engine, ScriptEnd *end, const PendingWork &work, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_end(end)
    , m_work(work)
{
    connect(&m_poll, &QTimer::timeout, this, &RunLoop::poll);
    connect(end, &ScriptEnd::requested, &m_loop, &QEventLoop::quit);
    // A signal with several script handlers: each exception is seen before the next handler's.
    connect(engine, &QScriptEngine::signalHandlerException, this, &RunLoop::checkForException);
    // The last event before the loop sleeps has no event after it that would look.
    connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock, this,
            &RunLoop::checkForException);
    QCoreApplication::instance()->installEventFilter(this);
}

RunLoop::~RunLoop()
{
    QCoreApplication::instance()->removeEventFilter(this);
}

void RunLoop::exec()
{
    checkForException();
    if (m_end->isRequested())
        return;
    m_quietPolls = 0;
    m_poll.start(PollMs);
    m_loop.exec();
    m_poll.stop();
}

void RunLoop::dropEngine()
{
    m_engine = nullptr;
}

bool RunLoop::eventFilter(QObject *receiver, QEvent *)
{
    checkForException();
    m_receiver = receiver;
    if (!m_engine || !m_end->isRequested() || m_engine->isEvaluating() ||
        HostApplication::isNested())
        return false;
    const QPointer<QObject> guarded(receiver);
    emit scriptsMustEnd();
    return !guarded; // destroyed with the engine: the event has nobody to go to
}

void RunLoop::checkForException()
{
    // While a script runs, its exceptions are its own affair: it may catch them. A callback does
    // not count as running; but then this event came to pass inside another one.
    if (HostApplication::isNested())
        return;
    if (m_engine && !m_engine->isEvaluating() && m_engine->hasUncaughtException())
        emit exceptionFound(m_receiver);
}

void RunLoop::poll()
{
    if (m_holds > 0 || m_work.hasPending()) {
        m_quietPolls = 0;
        return;
    }
    if (++m_quietPolls < QuietPolls)
        return;
    if (!m_work.isAnyWorkerRunning()) {
        emit idle();
        m_loop.quit();
        return;
    }
    // What the workers hand back now is delivered before the next look, and may queue more.
    m_work.stopWorkers();
    m_quietPolls = 0;
}
