/// @file
/// Failures and messages of a script, told to its operator.
#pragma once

#include "connection_watch.h"
#include "log.h"
#include "plugin_message.h"

#include <QHash>
#include <QObject>
#include <QSet>

#include <functional>

class QScriptEngine;
class ScriptEnd;
class Terminal;

/// Sees to it that nobody misses a failure: exceptions that no script caught, tasks that failed
/// without anybody listening, connections that were lost, names that were misspelt. Failures end
/// the program with exit code 1, unless it keeps going.
///
/// Thread: the engine's. Nothing that it is given is owned.
class Reporter : public QObject
{
    Q_OBJECT

public:
    Reporter(QScriptEngine *engine, Terminal *terminal, ScriptEnd *end, QObject *parent = nullptr);
    ~Reporter() override;

    Log *log() { return &m_log; }

    /// Whether the program goes on after a failure. Off at first.
    void setKeepGoing(bool on) { m_keepsGoing = on; }

    /// Whether anything has failed so far.
    bool hasFailed() const { return m_hasFailed; }

    /// Follows a new object of the script from now on.
    void watch(QObject *object) { m_watch.watch(object); }

    void tellMessage(const PluginMessage &message);

    /// Tells an error that has a place in what the user has written.
    void tellError(const QString &file, int line, const QString &text);

    /// The place of what is done now, for messages that come while no script runs.
    /// @param file empty: none
    void setPlace(const QString &file, int line);

    /// Takes the uncaught exception out of the engine and tells it.
    /// @param code what has just been compiled; empty while callbacks run
    /// @param receiver the object whose event the callback answered; null when unknown
    void tellException(const QString &code, QObject *receiver);

    /// Asked when an exception was taken out of the engine: true when it is the host's own way to
    /// stop a script, of which the user is told otherwise.
    void setStopCheck(const std::function<bool()> &check) { m_stopCheck = check; }

    /// Tells what only the end of a script shows. Called when nothing is left to wait for.
    void tellAtEnd();

    /// From now on the engine is not touched any more.
    void dropEngine();

private:
    void onTaskFailed(QObject *connection, const QString &error, const QString &statement);
    void onMissingDriver(const QString &driver);
    void tellLost();
    void tellMisspelt(QObject *connection);
    void fail(int exitCode);
    LogRecord recordHere(int level, const QString &connection) const;

    QScriptEngine *m_engine;
    ScriptEnd *m_end;
    Log m_log;
    ConnectionWatch m_watch;
    QString m_file; ///< of setPlace()
    int m_line = 0;
    std::function<bool()> m_stopCheck;
    bool m_keepsGoing = false;
    bool m_hasFailed = false;
    QHash<QString, QString> m_lastError; ///< by the connection's name: its last message of an error
    QSet<QString> m_misspelt;            ///< names that have been told
};
