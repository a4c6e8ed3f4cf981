/// @file
/// Ctrl-C and its relatives.
#pragma once

#include <QObject>
#include <QScopedPointer>

class QSocketNotifier;

/// Turns the signals SIGINT, SIGTERM and SIGHUP into one Qt signal, delivered by the event loop.
/// Each of them is caught once: the second one has its default effect and ends the process at
/// once, which is the way out of a script that never returns to the event loop.
///
/// At most one instance at a time. Thread: the application's.
class InterruptWatch : public QObject
{
    Q_OBJECT

public:
    explicit InterruptWatch(QObject *parent = nullptr);
    /// Gives the signals back their default effect.
    ~InterruptWatch() override;

    /// Catches each signal once more.
    void arm();

signals:
    /// @param number the number of the signal
    void interrupted(int number);

private:
    void read();

    int m_pipe[2] = {-1, -1};
    QScopedPointer<QSocketNotifier> m_notifier;
};
