#include "timers.h"

#include <QScriptContext>
#include <QScriptEngine>
#include <QTimerEvent>

#include <limits>

namespace
{

/// A delay in milliseconds from whatever the script passed: not a number and negative read as 0.
int delayOf(const QScriptValue &value)
{
    const double delay = value.isNumber() ? value.toNumber() : 0;
    if (!(delay > 0))
        return 0;
    return static_cast<int>(qMin(delay, double(std::numeric_limits<int>::max())));
}

} // namespace

Timers::Timers(QObject *parent)
    : QObject(parent)
{
}

void Timers::install(QScriptEngine *engine)
{
    QScriptValue global = engine->globalObject();
    global.setProperty(QStringLiteral("setTimeout"), engine->newFunction(setTimeout, this));
    global.setProperty(QStringLiteral("setInterval"), engine->newFunction(setInterval, this));
    global.setProperty(QStringLiteral("clearTimeout"), engine->newFunction(clearTimer, this));
    global.setProperty(QStringLiteral("clearInterval"), engine->newFunction(clearTimer, this));
}

QScriptValue Timers::setTimeout(QScriptContext *context, QScriptEngine *, void *timers)
{
    return static_cast<Timers *>(timers)->add(context, false);
}

QScriptValue Timers::setInterval(QScriptContext *context, QScriptEngine *, void *timers)
{
    return static_cast<Timers *>(timers)->add(context, true);
}

QScriptValue Timers::clearTimer(QScriptContext *context, QScriptEngine *engine, void *timers)
{
    const QScriptValue id = context->argument(0);
    if (id.isNumber())
        static_cast<Timers *>(timers)->remove(id.toInt32());
    return engine->undefinedValue();
}

QScriptValue Timers::add(QScriptContext *context, bool repeats)
{
    if (!context->argument(0).isFunction()) {
        return context->throwError(QScriptContext::TypeError,
                                   QStringLiteral("%1: the first argument must be a function")
                                       .arg(QLatin1String(repeats ? "setInterval" : "setTimeout")));
    }
    Timer timer;
    timer.scriptId = ++m_lastScriptId;
    timer.repeats = repeats;
    timer.callback = context->argument(0);
    for (int i = 2; i < context->argumentCount(); ++i)
        timer.arguments.append(context->argument(i));
    // An interval of 0 would keep the program busy and starve everything else.
    const int delay = qMax(delayOf(context->argument(1)), repeats ? 1 : 0);
    m_timers.insert(startTimer(delay, Qt::PreciseTimer), timer);
    return QScriptValue(timer.scriptId);
}

void Timers::remove(int scriptId)
{
    for (auto it = m_timers.begin(); it != m_timers.end(); ++it) {
        if (it->scriptId == scriptId) {
            killTimer(it.key());
            m_timers.erase(it);
            return;
        }
    }
}

void Timers::clear()
{
    const QList<int> ids = m_timers.keys();
    for (int id : ids)
        killTimer(id);
    m_timers.clear();
}

void Timers::timerEvent(QTimerEvent *event)
{
    const auto it = m_timers.find(event->timerId());
    if (it == m_timers.end())
        return;
    // A copy, and out of the table before the call: the callback may clear and set timers.
    Timer timer = *it;
    if (!timer.repeats) {
        killTimer(it.key());
        m_timers.erase(it);
    }
    timer.callback.call(QScriptValue(), timer.arguments);
}
