/// @file
/// The application object of the host.
#pragma once

#include <QCoreApplication>

#include <csignal>

/// Knows whether an event is being handled: script code runs only then, once the event loop runs.
///
/// Thread: the application's; both may be asked in a signal handler of that thread.
class HostApplication : public QCoreApplication
{
    Q_OBJECT

public:
    using QCoreApplication::QCoreApplication;

    static bool isInEvent() { return s_depth > 0; }
    /// Whether an event is being handled inside the handling of another one.
    static bool isNested() { return s_depth > 1; }

    bool notify(QObject *receiver, QEvent *event) override;

private:
    static volatile std::sig_atomic_t s_depth;
};
