/// @file
/// Where statements come from when there is no script file.
#pragma once

#include <QObject>
#include <QString>

/// Base of the two sources of statements. It never waits: it is driven by the event loop, so that
/// callbacks and timers run between two statements.
///
/// Thread: the application's.
class StatementSource : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    /// Begins to read. Signals may be emitted at once.
    virtual void start() = 0;

    /// Reads no more and emits nothing more. May be called while a statement runs.
    virtual void stop() = 0;

signals:
    void statement(const QString &code);
    /// The input is none that a script can have; nothing follows.
    void failed(int line, const QString &reason);
    /// There is no more input. Emitted once.
    void finished();
};
