/// @file
/// vext-run on a terminal of its own.
#pragma once

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>

#include <sys/types.h>

/// Starts vext-run with a pseudo terminal as its standard streams, types into it and reads what
/// appears. Every wait has a limit.
class TerminalSession
{
public:
    /// How the terminal looks to vext-run.
    struct Settings {
        int columns = 0; ///< 0: the terminal does not tell its size
        int rows = 0;
        QByteArray pager;  ///< PAGER; unset when null
        QByteArray option; ///< of vext-run; none when null
    };

    /// @param dataFolder the user's data folder of the session
    explicit TerminalSession(const QString &dataFolder);
    TerminalSession(const QString &dataFolder, const Settings &settings);
    /// Kills what still runs.
    ~TerminalSession();
    TerminalSession(const TerminalSession &) = delete;
    TerminalSession &operator=(const TerminalSession &) = delete;

    bool isRunning() const { return m_process > 0; }

    void type(const QByteArray &keys);

    /// Types what is too much for the terminal to hold, and drops what appears meanwhile.
    /// @return whether all of it was taken
    bool typeMuch(const QByteArray &keys);

    /// Waits until the text appears behind what was waited for before.
    bool waitFor(const QByteArray &text);

    /// Types a line and waits for the text that it brings and for the next prompt.
    bool enter(const QByteArray &line, const QByteArray &answer);

    /// Takes the terminal away.
    void hangUp();

    /// Waits for the end.
    /// @return the exit code, 128 and more for a signal, -1 when the limit is over.
    int finish();

    /// Everything that has appeared, without the terminal's control sequences.
    QByteArray screen() const { return m_screen; }

private:
    bool readMore(int milliseconds);

    pid_t m_process = -1;
    int m_terminal = -1;
    QByteArray m_raw;
    QByteArray m_screen;
    int m_seen = 0; ///< of m_screen
};
