#include "measurement.h"

#include <QByteArray>
#include <QFile>

#include <algorithm>
#include <sched.h>

namespace
{

double statusMb(const char *key)
{
    QFile file(QStringLiteral("/proc/self/status"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray &line : lines) {
        if (line.startsWith(key))
            return line.mid(line.indexOf(':') + 1).trimmed().split(' ').first().toDouble() / 1024;
    }
    return 0;
}

} // namespace

GapTimer::GapTimer()
{
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.setInterval(1);
    connect(&m_timer, &QTimer::timeout, this, &GapTimer::tick);
}

void GapTimer::start()
{
    m_longest = 0;
    m_since.start();
    m_timer.start();
}

double GapTimer::longestMs() const
{
    return std::max(m_longest, double(m_since.nsecsElapsed()) / 1e6);
}

void GapTimer::tick()
{
    m_longest = std::max(m_longest, double(m_since.nsecsElapsed()) / 1e6);
    m_since.start();
}

double peakMemoryMb()
{
    return statusMb("VmHWM");
}

double memoryMb()
{
    return statusMb("VmRSS");
}

int theOneCore()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    for (int core = CPU_SETSIZE - 1; core > 0; --core) {
        if (CPU_ISSET(core, &set))
            return core;
    }
    return 0;
}

bool pinToOneCore(qint64 pid)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(theOneCore(), &set);
    return sched_setaffinity(pid_t(pid), sizeof set, &set) == 0;
}

bool unpin(qint64 pid)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    return sched_setaffinity(pid_t(pid), sizeof set, &set) == 0;
}
