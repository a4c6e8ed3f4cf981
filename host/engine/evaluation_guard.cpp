#include "evaluation_guard.h"

#include "host_application.h"
#include "interrupt_watch.h"

#include <QAbstractEventDispatcher>

#include <csignal>
#include <unistd.h>

namespace
{

/// How often a running loop looks, in the engine's own guess of time: it counts rounds, and is
/// wrong by as much as the rounds of one loop take longer than those of the loop before.
const int LookMs = 1;

QScriptEngine *volatile s_engine = nullptr;
volatile std::sig_atomic_t s_signals = 0;
volatile std::sig_atomic_t s_mustStop = 0;

bool isFirstThread()
{
    return ::gettid() == ::getpid();
}

} // namespace

EvaluationGuard::EvaluationGuard(QScriptEngine *engine, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
{
    // The engine keeps the interval when it stops looking at events.
    engine->setProcessEventsInterval(LookMs);
    engine->setProcessEventsInterval(-1);
    connect(engine, &QObject::destroyed, this, [] { s_engine = nullptr; });
    s_engine = engine;
    s_signals = 0;
    s_mustStop = 0;
    InterruptWatch::setHook(&EvaluationGuard::onSignal);
    const QAbstractEventDispatcher *dispatcher = QAbstractEventDispatcher::instance();
    // The first thing that happens when a running script looks at the events.
    connect(dispatcher, &QAbstractEventDispatcher::awake, this, &EvaluationGuard::onAwake);
    connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, this, &EvaluationGuard::onRest);
}

EvaluationGuard::~EvaluationGuard()
{
    InterruptWatch::setHook(nullptr);
    s_engine = nullptr;
}

void EvaluationGuard::onSignal()
{
    if (!s_engine || !isFirstThread() || !HostApplication::isInEvent())
        return;
    // A callback does not count as evaluating: whether one runs shows only when the engine looks.
    if (s_engine->isEvaluating())
        s_signals = s_signals + 1;
    s_mustStop = 1;
    s_engine->setProcessEventsInterval(LookMs); // stores numbers, nothing else
}

void EvaluationGuard::onAwake()
{
    if (!m_engine || !s_mustStop || !HostApplication::isInEvent())
        return;
    // Asked at every look: a callback that was delivered meanwhile has undone the stop. Inside a
    // callback the engine takes the stop only in a context of its own.
    const bool isCallback = !m_engine->isEvaluating();
    if (isCallback && !m_stopped)
        s_signals = s_signals + 1;
    m_stopped = true;
    if (isCallback)
        m_engine->pushContext();
    m_engine->abortEvaluation();
    if (isCallback)
        m_engine->popContext();
}

void EvaluationGuard::onRest()
{
    if (s_mustStop && !HostApplication::isInEvent() && settle())
        emit stopped();
}

bool EvaluationGuard::takeSignal()
{
    if (s_signals <= 0)
        return false;
    s_signals = s_signals - 1;
    return true;
}

bool EvaluationGuard::settle()
{
    if (!m_engine || m_engine->isEvaluating() || HostApplication::isNested())
        return false;
    const bool stopped = m_stopped;
    m_stopped = false;
    s_mustStop = 0;
    m_engine->setProcessEventsInterval(-1);
    if (stopped)
        m_engine->evaluate(QString()); // takes back a stop that found no script any more
    return stopped;
}

void EvaluationGuard::dropEngine()
{
    if (m_engine && (m_engine->isEvaluating() || HostApplication::isNested()))
        return;
    s_engine = nullptr;
    m_engine = nullptr;
}
