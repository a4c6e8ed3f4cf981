/// @file
/// The interactive prompt.
#pragma once

#include "statement_buffer.h"
#include "statement_source.h"
#include "terminal.h"

#include <QScopedPointer>

class QSocketNotifier;

/// Reads statements from the terminal with line editing and a history that is kept in the user's
/// data folder. The event loop runs while the prompt waits; what callbacks print appears above it.
///
/// The line editor has one state for the whole process: at most one instance at a time.
class Prompt : public StatementSource, private Terminal::ScreenSharer
{
    Q_OBJECT

public:
    /// @param terminal not owned, outlives the prompt.
    explicit Prompt(Terminal *terminal, QObject *parent = nullptr);
    /// Gives the terminal back as it was and writes the history.
    ~Prompt() override;

    void start() override;
    void stop() override;

    /// Drops what is typed so far.
    /// @return false when there was nothing to drop.
    bool discardInput();

    /// Where the history is kept: readable for the user alone, for it may hold passwords.
    static QString historyFile();

private:
    static void onLine(char *line); ///< called by the line editor; null at the end of input
    void takeLine(const QString &line);
    void installHandler();
    void removeHandler();

    void hide() override;
    void show() override;

    static Prompt *s_active;

    Terminal *m_terminal;
    QScopedPointer<QSocketNotifier> m_notifier;
    StatementBuffer m_buffer;
    bool m_waiting = false; ///< the prompt is on the screen and the line editor reads
    bool m_stopped = false;
    bool m_installed = false; ///< the line editor has the terminal
};
