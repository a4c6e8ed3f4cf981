/// @file
/// The end of a process that does not come to its end.
#pragma once

#include <thread>

/// Gives a process that was told to end two seconds: a script that never returns to the event loop
/// and a statement that the driver cannot cancel are abandoned then. Meanwhile statements that can
/// be cancelled are.
///
/// At most one instance at a time. Its own thread does the waiting; each member says who may call
/// it.
class EndWatchdog
{
public:
    EndWatchdog();
    /// The process has come to its end: the watch is over.
    ~EndWatchdog();
    EndWatchdog(const EndWatchdog &) = delete;
    EndWatchdog &operator=(const EndWatchdog &) = delete;

    /// Begins to count. For signal handlers too.
    /// @param exitCode what the process ends with when the time is over
    static void start(unsigned char exitCode);

    /// Ends the counting: the process goes on. Any thread.
    static void calm();

private:
    void run();
    void count(unsigned char exitCode);

    int m_pipe[2] = {-1, -1};
    std::thread m_thread;
};
