/// @file
/// Whether anything is still to come for a script.
#pragma once

#include <QObject>

class Timers;
class VextPost;

/// Looks at a script's timers and at its connection objects, the latter only through their
/// meta-object: the host knows no header of a plugin.
///
/// A connection has work pending while tasks wait in its queue, while its worker executes one, and
/// while it is open with notifications subscribed. One observation is not proof: a worker counts
/// as idle a moment before it has handed its task back.
///
/// Thread: the script engine's. Neither object is owned.
class PendingWork
{
public:
    PendingWork(const VextPost *post, const Timers *timers);

    /// Whether a timer or a connection has work pending now.
    bool hasPending() const;

    /// Whether the worker of any connection runs, idle or not.
    bool isAnyWorkerRunning() const;

    /// Ends the idle workers, which otherwise wait for more for minutes. A worker that has ended
    /// has handed back everything; it is in the event queue then.
    void stopWorkers();

private:
    const VextPost *m_post;
    const Timers *m_timers;
};
