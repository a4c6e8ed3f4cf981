/// @file
/// How deep calls into connection objects lie within one another.
#pragma once

#include <QtGlobal>

/// Stands in every function of a connection object that may send a signal. A script may connect
/// signals to slots in a circle (`opened` to `close`, `closed` to `open`), in which no function of
/// its own stands that the engine could count: without a limit the stack ends, and the host with
/// it. Counts all objects of the thread together, as circles may lead through several.
///
/// Where the limit is passed every call is refused until the outermost one has returned: otherwise
/// a circle with two branches would go all of its 2 to the power of 100 ways.
class CallDepth
{
public:
    /// Calls within one another that are answered; far more than a script needs.
    static constexpr int Most = 100;

    CallDepth();
    ~CallDepth();
    Q_DISABLE_COPY(CallDepth)

    /// Whether the call is to be refused.
    bool isTooDeep() const { return s_refusing; }
    /// Whether it is the first one that is: the one to report.
    bool isFirst() const { return m_first; }

private:
    static thread_local int s_depth;
    static thread_local bool s_refusing;
    bool m_first = false;
};
