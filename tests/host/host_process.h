/// @file
/// vext-run as a process, as its users run it.
#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

/// What one run of vext-run left.
struct HostOutcome {
    int exitCode = -1;
    bool endedByItself = false; ///< neither crashed nor killed by a signal nor over the limit
    QString output;
    QString errors; ///< standard error

    /// For the message of a failed check.
    QByteArray described() const;
};

/// Starts vext-run, talks to it and waits for it, always with a limit.
class HostProcess
{
public:
    HostProcess();
    /// Kills what still runs.
    ~HostProcess();

    QProcess &process() { return m_process; }

    /// Starts vext-run with the plugin of this build.
    bool start(const QStringList &arguments);

    /// Waits until standard output holds the text.
    bool waitForOutput(const QString &text);

    bool send(int signalNumber);

    /// Ends the input and waits for the end of the process, for so many milliseconds at most.
    HostOutcome finish(int milliseconds = limitMs);

    /// Whether the process goes on for that long: the only way to see that it does not end.
    bool staysAlive(int milliseconds);

    static constexpr int limitMs = 60000;

private:
    QProcess m_process;
    QByteArray m_output;
};

/// Runs vext-run to its end.
HostOutcome runHost(const QStringList &arguments, const QByteArray &input = QByteArray());

/// Runs one piece of code.
HostOutcome runCode(const QString &code, const QStringList &options = QStringList());

/// Code that opens an SQLite connection in memory as `db`.
QString openSqlite();
