#include "prompt_session.h"

#include "completion.h"
#include "dot_commands.h"
#include "opening_guard.h"
#include "script_file.h"
#include "script_host.h"
#include "short_text.h"

#include <QScriptEngine>

namespace
{

const int ShowElapsedMs = 500;
const int ElapsedStepMs = 100;
const char InputName[] = "[input]";
const char Interrupted[] = "interrupted";

using Stream = Terminal::Stream;

} // namespace

PromptSession::PromptSession(ScriptHost *host, QObject *parent)
    : QObject(parent)
    , m_host(host)
    , m_output(host->terminal())
    , m_guard(host->engine())
    , m_input(isVariable())
    , m_names(host->engine())
    , m_prompt(host->terminal())
    , m_messages(host)
{
    connect(&m_prompt, &Prompt::line, this, &PromptSession::onLine);
    connect(&m_prompt, &Prompt::lineTooLong, this, [this] {
        complain(QStringLiteral("the line is too long to be typed; .read reads a file"));
        m_typed.clear();
        m_input.clear();
        pump();
    });
    connect(&m_prompt, &Prompt::finished, this, &PromptSession::finished);
    connect(&m_elapsed, &QTimer::timeout, this, &PromptSession::showElapsed);
    connect(&m_guard, &EvaluationGuard::stopped, this,
            [this] { m_host->terminal()->writeLine(Stream::Error, QLatin1String(Interrupted)); });
    m_host->reporter()->setStopCheck([this] { return toldStop(); });
    m_prompt.setCompleter([this](const QString &before, const QString &word) {
        return Completion(m_host->engine(), m_names, m_input.isSqlOpen()).candidates(before, word);
    });
}

PromptSession::~PromptSession()
{
    if (m_host->reporter())
        m_host->reporter()->setStopCheck(std::function<bool()>());
}

void PromptSession::start()
{
    say(DotCommands::banner());
    if (connection().isOpen()) { // opened on the command line
        connection().keepSession();
        connectionChanged();
        say(QStringLiteral("opened %1").arg(connection().shown()));
    }
    pump();
}

void PromptSession::stop()
{
    m_stopped = true;
    m_guard.dropEngine();
    m_elapsed.stop();
    m_waiting.clear();
    m_prompt.setStatus(QString());
    m_prompt.stop();
}

SqlConnection PromptSession::connection() const
{
    return m_host->engine() ? SqlConnection::current(m_host->engine()) : SqlConnection();
}

SqlWords::IsVariable PromptSession::isVariable() const
{
    return [host = m_host](const QString &name) {
        return host->engine() && host->engine()->globalObject().property(name).isValid();
    };
}

void PromptSession::say(const QString &text)
{
    m_host->terminal()->writeLine(Stream::Output, text);
}

void PromptSession::complain(const QString &text)
{
    m_host->terminal()->writeLine(Stream::Error, m_place + text);
    m_waiting.clear();
}

bool PromptSession::interrupt()
{
    if (m_hasOpeningSignal) {
        m_hasOpeningSignal = false;
        return true; // what was opened has been given up
    }
    if (m_guard.takeSignal())
        return true; // the script is told by the guard
    if (m_run) {
        m_waiting.clear();
        m_run->cancel();
        showElapsed();
        return true;
    }
    if (!m_waiting.isEmpty()) {
        m_waiting.clear();
        return true;
    }
    if (!m_prompt.hasText() && !m_input.isOpen())
        return false;
    m_input.clear();
    m_typed.clear();
    m_prompt.discard(promptKind());
    return true;
}

bool PromptSession::hasAbandoned() const
{
    for (const SqlConnection &connection : m_abandoned) {
        if (connection.isWorkerRunning())
            return true;
    }
    return false;
}

void PromptSession::onLine(const QString &line)
{
    if (!m_input.isOpen()) {
        const SqlConnection open = connection();
        if (open.exists())
            m_input.setDialect(open.dialect());
        m_input.clear(); // lines are counted from the entry's first
    }
    const QVector<PromptEntry> entries = m_input.add(line);
    keepHistory(line);
    m_waiting.add(entries);
    if (m_input.isSqlOpen() && !m_hinted) {
        m_hinted = true;
        say(QStringLiteral("(SQL goes on to its semicolon; Ctrl-C drops it)"));
    }
    pump();
}

void PromptSession::keepHistory(const QString &line)
{
    m_typed += line + QLatin1Char('\n');
    if (m_input.isOpen())
        return;
    m_prompt.history()->add(m_typed);
    m_typed.clear();
}

/// Runs what waits until something takes its time; then its end calls this again.
void PromptSession::pump()
{
    if (m_pumping)
        return;
    m_pumping = true;
    PromptEntry entry;
    while (!m_run && !m_stopped && m_waiting.take(&entry, &m_place))
        runEntry(entry);
    m_pumping = false;
    if (m_run || m_stopped)
        return;
    m_place.clear();
    m_prompt.resume(promptKind());
}

void PromptSession::runEntry(const PromptEntry &entry)
{
    switch (entry.kind) {
    case PromptEntry::Kind::Script:
        runScript(entry.text, QLatin1String(InputName));
        break;
    case PromptEntry::Kind::Sql:
        runSql(entry.text);
        break;
    case PromptEntry::Kind::Command:
        DotCommands::run(this, entry.text);
        break;
    }
}

void PromptSession::runScript(const QString &code, const QString &fileName)
{
    const QScriptValue value = m_host->evaluate(code, fileName);
    if (m_guard.settle())
        complain(QLatin1String(Interrupted));
    else
        m_output.showValue(value);
}

/// A script that was stopped is told in one word.
bool PromptSession::toldStop()
{
    const bool stopped = m_guard.settle();
    if (stopped)
        m_host->terminal()->writeLine(Stream::Error, QLatin1String(Interrupted));
    return stopped;
}

void PromptSession::runSql(const QString &sql, const Then &then, const Then &otherwise)
{
    const SqlConnection open = connection();
    if (!open.isOpen()) {
        complain(QStringLiteral("no connection is open; .open opens one, .help tells how"));
        return;
    }
    m_sql = sql;
    m_then = then;
    m_otherwise = otherwise;
    m_messages.hold();
    m_run.reset(new SqlRun(m_host->engine()));
    connect(m_run.data(), &SqlRun::finished, this, &PromptSession::onSqlFinished);
    m_elapsed.start(ElapsedStepMs);
    m_run->start(open, sql);
}

SqlConnection PromptSession::openInterruptibly(const std::function<SqlConnection()> &open)
{
    const OpeningGuard guard;
    m_messages.hold();
    const SqlConnection opened = open();
    m_messages.drop();
    m_hasOpeningSignal = m_hasOpeningSignal || guard.isInterrupted();
    m_isGivenUp = guard.isInterrupted() && !opened.exists();
    if (m_isGivenUp)
        say(QString()); // the terminal has shown the key
    return opened;
}

void PromptSession::onSqlFinished()
{
    const SqlOutcome outcome = m_run->outcome();
    m_elapsed.stop();
    m_prompt.setStatus(QString());
    m_messages.release(outcome.error);
    const Then then = m_then;
    const Then otherwise = m_otherwise;
    m_then = Then();
    m_otherwise = Then();
    if (!m_host->engine() || m_stopped)
        return;
    if (outcome.kind == SqlOutcome::Kind::Abandoned)
        letGo();
    m_run.reset();
    if (outcome.kind == SqlOutcome::Kind::Done && then)
        then(outcome);
    else if (outcome.kind == SqlOutcome::Kind::Failed && otherwise)
        otherwise(outcome);
    else
        show(outcome);
    if (outcome.kind == SqlOutcome::Kind::Done && !m_run && SqlWords::changesSchema(m_sql))
        m_names.read(connection());
    pump();
}

void PromptSession::show(const SqlOutcome &outcome)
{
    switch (outcome.kind) {
    case SqlOutcome::Kind::Done:
        m_output.show(outcome.result, outcome.milliseconds, SqlWords::changesRows(m_sql));
        break;
    case SqlOutcome::Kind::Failed:
        complain(QStringLiteral("error: ") + ShortText::of(outcome.error.trimmed()));
        break;
    case SqlOutcome::Kind::Cancelled:
        complain(QStringLiteral("cancelled; the session on the server begins anew, an open "
                                "transaction is rolled back"));
        break;
    case SqlOutcome::Kind::Abandoned:
        break;
    }
}

/// The connection goes with its statement, and a new one comes in its place.
void PromptSession::letGo()
{
    const SqlConnection old = m_run->connection();
    complain(
        QStringLiteral("%1 cannot cancel a statement: it runs on, and its connection is let go")
            .arg(old.driver()));
    m_abandoned.append(old);
    QString error;
    const auto reopen = [&] { return old.reopened(m_host->engine(), &error); };
    if (openInterruptibly(reopen).exists())
        say(QStringLiteral("opened a new connection: %1").arg(old.shown()));
    else
        complain(QStringLiteral("cannot open a new connection: %1")
                     .arg(m_isGivenUp ? QLatin1String(Interrupted) : error));
}

void PromptSession::showElapsed()
{
    if (!m_run || m_run->elapsedMs() < ShowElapsedMs)
        return;
    const double seconds = m_run->elapsedMs() / 1000;
    const QString time = seconds < 60 ? QStringLiteral("%1 s").arg(seconds, 0, 'f', 1)
                                      : ResultOutput::duration(m_run->elapsedMs());
    m_prompt.setStatus(time + (m_run->isCancelled() ? QStringLiteral(", cancelling")
                                                    : QStringLiteral(", Ctrl-C cancels")));
}

void PromptSession::readFile(const QString &name)
{
    QString error;
    if (name.endsWith(QLatin1String(".js"), Qt::CaseInsensitive)) {
        QString code;
        if (ScriptFile::read(name, &code, &error))
            runScript(code, name);
        else
            complain(QStringLiteral("%1: %2").arg(name, error));
        return;
    }
    PromptInput empty(isVariable());
    empty.setDialect(connection().dialect());
    if (!m_waiting.open(name, empty, &error))
        complain(error);
}

void PromptSession::connectionChanged()
{
    m_input.setDialect(connection().dialect());
    m_waiting.setDialect(connection().dialect());
    m_names.read(connection());
}

Prompt::Kind PromptSession::promptKind() const
{
    if (!m_input.isOpen())
        return Prompt::Kind::First;
    return m_input.isSqlOpen() ? Prompt::Kind::NextOfSql : Prompt::Kind::Next;
}
