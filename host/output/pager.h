/// @file
/// Long texts on a terminal.
#pragma once

#include <QString>

/// Takes a text in pieces. What fits the screen goes straight to standard output; what is longer
/// goes to the program that the environment variable PAGER names, "less -S" when it names none.
/// An empty PAGER, and standard output that is no terminal, switch paging off.
///
/// While the pager runs it has the terminal, and the event loop stands still.
///
/// Thread: the application's.
class Pager
{
public:
    Pager();
    /// Waits until the user leaves the pager.
    ~Pager();
    Pager(const Pager &) = delete;
    Pager &operator=(const Pager &) = delete;

    /// @return false when the user has left the pager, and no more is wanted.
    bool write(const QString &text);

private:
    bool start();
    bool send(const QByteArray &bytes);
    void finish();

    QByteArray m_command; ///< empty: no paging
    QByteArray m_held;    ///< not more than a screen of it
    int m_lines = 0;
    int m_room = 0; ///< lines that fit the screen
    int m_pipe = -1;
    int m_process = -1;
};
