/// @file
/// Ctrl-C and its relatives.
#pragma once

#include "end_watchdog.h"

#include <QObject>
#include <QScopedPointer>

class QSocketNotifier;

/// Turns the signals SIGINT, SIGTERM and SIGHUP into one Qt signal, delivered by the event loop.
/// One of them is caught: the second one has its default effect and ends the process at once. A
/// process that does not come to its end after the first one is ended two seconds later.
///
/// At most one instance at a time. Thread: the application's.
class InterruptWatch : public QObject
{
    Q_OBJECT

public:
    explicit InterruptWatch(QObject *parent = nullptr);
    /// Gives the signals back their default effect.
    ~InterruptWatch() override;

    /// A function that is called in the signal handler and does only what is allowed there; null
    /// for none.
    static void setHook(void (*hook)());

    /// Can be read from while a signal waits to be told; for threads that must know before the event
    /// loop does, which leave the reading to this object. -1 when there is none.
    static int descriptor();

    /// Catches a signal once more, and lets the process live on.
    void arm();

    /// Whether SIGINT, too, gives the process two seconds. On at first; at a prompt it is a key.
    static void setInterruptEnds(bool on);

signals:
    /// @param number the number of the signal
    void interrupted(int number);

private:
    void read();

    EndWatchdog m_watchdog;
    int m_pipe[2] = {-1, -1};
    QScopedPointer<QSocketNotifier> m_notifier;
};
