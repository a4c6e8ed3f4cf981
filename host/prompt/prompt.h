/// @file
/// The line editor on the terminal.
#pragma once

#include "history.h"
#include "terminal.h"

#include <QObject>
#include <QScopedPointer>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <functional>

class QSocketNotifier;

/// Reads lines from the terminal with line editing, a history and completion. The event loop runs
/// while the prompt waits; what callbacks print appears above it. Between a line and the next
/// resume() the terminal is the running work's, which may show a status line.
///
/// The line editor has one state for the whole process: at most one instance at a time. Thread:
/// the application's.
class Prompt : public QObject, private Terminal::ScreenSharer
{
    Q_OBJECT

public:
    enum class Kind { First, Next, NextOfSql };

    /// What may stand in the place of the last word.
    /// @param before what is typed before the word
    using Completer = std::function<QStringList(const QString &before, const QString &word)>;

    /// @param terminal not owned, outlives the prompt.
    explicit Prompt(Terminal *terminal, QObject *parent = nullptr);
    /// Gives the terminal back as it was and writes the history.
    ~Prompt() override;

    void setCompleter(const Completer &completer) { m_completer = completer; }
    History *history() { return &m_history; }

    /// Shows the prompt and reads a line.
    void resume(Kind kind);
    /// Reads no more and emits nothing more. May be called while a line is handled.
    void stop();

    /// Whether the prompt waits and anything is typed behind it.
    bool hasText() const;
    /// Drops what is typed behind the prompt and shows a new one.
    void discard(Kind kind);

    /// A line that is shown below everything else while no prompt is; empty for none. It is cut to
    /// the width of the terminal.
    void setStatus(const QString &status);

signals:
    /// The prompt is off until resume().
    void line(const QString &text);
    /// The line was longer than the editor takes, and is dropped. The prompt is off.
    void lineTooLong();
    /// The user has ended the input. Emitted once.
    void finished();

private:
    static void onLine(char *line); ///< called by the line editor; null at the end of input
    static char **onComplete(const char *word, int start, int end);
    void readCharacter();
    void dropRest(); ///< of a line at whose limit the line editor has given up
    void dropMore();
    void endDrop();
    void end(); ///< the input has ended
    void install();
    void remove();

    void hide() override;
    void show() override;

    static Prompt *s_active;

    Terminal *m_terminal;
    History m_history;
    QScopedPointer<QSocketNotifier> m_notifier;
    Completer m_completer;
    QString m_status;
    QTimer m_drop; ///< runs while an endless line is being dropped
    Kind m_kind = Kind::First;
    bool m_waiting = false; ///< the prompt is on the screen and the line editor reads
    bool m_stopped = false;
};
