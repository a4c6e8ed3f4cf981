/// @file
/// What happens at the prompt.
#pragma once

#include "evaluation_guard.h"
#include "input_files.h"
#include "kept_messages.h"
#include "prompt.h"
#include "prompt_input.h"
#include "result_output.h"
#include "schema_names.h"
#include "sql_run.h"

#include <QObject>
#include <QScopedPointer>
#include <QTimer>
#include <QVector>

#include <functional>

class ScriptHost;

/// Runs what is typed, one entry after the other: script in the engine, SQL on the worker of the
/// connection that the global `db` holds, commands by their table. The event loop goes on
/// meanwhile; the prompt comes back when everything is through.
///
/// Thread: the engine's. The host is not owned and outlives the session; its engine may not.
class PromptSession : public QObject
{
    Q_OBJECT

public:
    /// Goes on when a statement is through.
    using Then = std::function<void(const SqlOutcome &outcome)>;

    explicit PromptSession(ScriptHost *host, QObject *parent = nullptr);
    ~PromptSession() override;

    /// Greets and shows the prompt.
    void start();
    /// Reads and runs no more. May be called while something runs.
    void stop();

    /// What Ctrl-C means now: it stops the script, cancels the statement, ends the reading of a
    /// file, drops what is typed.
    /// @return false when there was nothing of all that.
    bool interrupt();

    /// Writes what the end of the session would write.
    void save() { m_prompt.history()->save(); }

    /// Whether a statement was let go that nobody could cancel: it holds its connection, and the
    /// connection the end of the program.
    bool hasAbandoned() const;

    // What commands are made of.

    ScriptHost *host() const { return m_host; }
    ResultOutput *output() { return &m_output; }
    SqlConnection connection() const;

    /// One line to the user.
    void say(const QString &text);
    /// One line that tells a mistake; what was to be read from a file is not read any more.
    void complain(const QString &text);

    /// Runs a statement and hands its outcome on; without `then` shows it. Nothing else is run
    /// until it is through.
    /// @param otherwise goes on after an error, which is not shown then
    void runSql(const QString &sql, const Then &then = Then(), const Then &otherwise = Then());

    /// Runs `open`, which may wait for a server for ever; Ctrl-C gives it up. What it reports as an
    /// error is not written.
    SqlConnection openInterruptibly(const std::function<SqlConnection()> &open);
    /// Whether the last opening ended so.
    bool isOpeningGivenUp() const { return m_isGivenUp; }

    /// Runs what a file holds next, before everything that waits.
    void readFile(const QString &name);

    /// The connection is another one: its names are read for the completion.
    void connectionChanged();

signals:
    /// The user has ended the input.
    void finished();

private:
    void onLine(const QString &line);
    void keepHistory(const QString &line);
    void pump();
    void runEntry(const PromptEntry &entry);
    void runScript(const QString &code, const QString &fileName);
    void onSqlFinished();
    void show(const SqlOutcome &outcome);
    void letGo();
    void showElapsed();
    bool toldStop();
    Prompt::Kind promptKind() const;
    SqlWords::IsVariable isVariable() const;

    ScriptHost *m_host;
    ResultOutput m_output;
    EvaluationGuard m_guard;
    PromptInput m_input;
    SchemaNames m_names;
    Prompt m_prompt;
    KeptMessages m_messages;
    InputFiles m_waiting;
    QString m_typed; ///< the lines of the open entry, for the history
    QScopedPointer<SqlRun, QScopedPointerDeleteLater> m_run; ///< null when none runs
    QString m_sql;                                           ///< of m_run
    Then m_then;                                             ///< of m_run
    Then m_otherwise;                                        ///< of m_run
    QTimer m_elapsed;
    QVector<SqlConnection> m_abandoned;
    QString m_place; ///< file and line of what runs, empty for what was typed
    bool m_isGivenUp = false;
    bool m_hasOpeningSignal = false; ///< that of the last opening is yet to come
    bool m_pumping = false;
    bool m_stopped = false;
    bool m_hinted = false; ///< that SQL goes on to its semicolon
};
