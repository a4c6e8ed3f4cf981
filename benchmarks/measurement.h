/// @file
/// What one run of one workload measures.
#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

/// Outcome of one run, in the process that made it.
struct Measurement {
    double ms = 0;      ///< time of the work itself
    double gapMs = 0;   ///< longest pause of a 1 ms timer on the engine's thread
    double peakMb = 0;  ///< most memory that the process held
    double startMb = 0; ///< memory before the work began
    double endMb = 0;   ///< memory when everything of the work was freed
};

/// Watches the event loop of its thread: a 1 ms timer that notes its longest pause.
class GapTimer : public QObject
{
    Q_OBJECT
public:
    GapTimer();
    void start();
    /// Longest pause so far, the one that is under way included; ms.
    double longestMs() const;

private:
    void tick();

    QTimer m_timer;
    QElapsedTimer m_since;
    double m_longest = 0;
};

/// Highest and present resident size of this process, MB.
double peakMemoryMb();
double memoryMb();

/// The core for what is to run on one: the last that this process may use.
int theOneCore();
/// Lets a process run on one core from now on, or on those that this process may use again; 0 is
/// this process. What it starts later runs there too. @return whether the system allowed it
bool pinToOneCore(qint64 pid = 0);
bool unpin(qint64 pid);
