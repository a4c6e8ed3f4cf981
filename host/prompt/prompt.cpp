#include "prompt.h"

#include "screen.h"
#include "table_printer.h"

#include <QSocketNotifier>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include <readline/readline.h>

namespace
{

/// The line editor looks at the whole line for each key; longer texts belong into a file.
const int MaxLineSize = 1000000;

/// A paste that is dropped is over when nothing came for so long.
const int DropPauseMs = 200;
const int DropChunkSize = 65536;

/// Read from the terminal for the key that is being handled; a whole paste is one key.
int s_charactersOfKey = 0;

/// The line editor takes a paste of any size, for minutes, and all that is typed ahead as one key;
/// this ends it.
int readTerminal(std::FILE *stream)
{
    return ++s_charactersOfKey > MaxLineSize + 1 ? EOF : rl_getc(stream);
}

const char *promptText(Prompt::Kind kind)
{
    switch (kind) {
    case Prompt::Kind::First:
        return "vext> ";
    case Prompt::Kind::NextOfSql:
        return " ...; ";
    case Prompt::Kind::Next:
        break;
    }
    return "  ... ";
}

/// The longest text with which all candidates begin.
QString commonStart(const QStringList &candidates)
{
    QString common = candidates.first();
    for (const QString &candidate : candidates) {
        int size = 0;
        while (size < common.size() && size < candidate.size() &&
               common.at(size).toLower() == candidate.at(size).toLower())
            ++size;
        common.truncate(size);
    }
    return common;
}

char *newText(const QString &text)
{
    return ::strdup(text.toUtf8().constData());
}

} // namespace

Prompt *Prompt::s_active = nullptr;

Prompt::Prompt(Terminal *terminal, QObject *parent)
    : QObject(parent)
    , m_terminal(terminal)
    , m_notifier(new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read))
{
    s_active = this;
    rl_readline_name = "vext-run";
    rl_catch_signals = 0; // the host has handlers of its own
    rl_getc_function = &readTerminal;
    rl_attempted_completion_function = &Prompt::onComplete;
    // Words with their dots: what stands before a dot decides what may follow it.
    rl_completer_word_break_characters = const_cast<char *>(" \t\n\"'`@><=;|&{}()[],+-*/!?:%^~");
    rl_completer_quote_characters = "";
    rl_basic_quote_characters = "";
    m_notifier->setEnabled(false);
    connect(m_notifier.data(), &QSocketNotifier::activated, this, &Prompt::readCharacter);
    m_drop.setSingleShot(true);
    m_drop.setInterval(DropPauseMs);
    connect(&m_drop, &QTimer::timeout, this, &Prompt::endDrop);
    m_terminal->setScreenSharer(this);
}

Prompt::~Prompt()
{
    m_terminal->setScreenSharer(nullptr);
    remove();
    rl_getc_function = &rl_getc;
    rl_attempted_completion_function = nullptr;
    s_active = nullptr;
}

void Prompt::resume(Kind kind)
{
    setStatus(QString());
    m_kind = kind;
    install();
}

void Prompt::stop()
{
    m_stopped = true;
    remove();
}

void Prompt::install()
{
    if (m_stopped || m_waiting)
        return;
    m_waiting = true;
    rl_callback_handler_install(promptText(m_kind), &Prompt::onLine);
    m_notifier->setEnabled(true);
}

void Prompt::remove()
{
    if (!m_waiting)
        return;
    m_waiting = false;
    m_drop.stop();
    m_notifier->setEnabled(false);
    rl_callback_handler_remove();
}

void Prompt::readCharacter()
{
    if (m_drop.isActive()) {
        dropMore();
        return;
    }
    s_charactersOfKey = 0;
    rl_callback_read_char();
    if (m_waiting && (rl_end > MaxLineSize || s_charactersOfKey > MaxLineSize))
        m_drop.start(); // what is left of it must not run as lines of their own
}

void Prompt::dropRest()
{
    m_waiting = true;
    rl_callback_handler_install("", &Prompt::onLine); // the terminal must not show what is dropped
    m_notifier->setEnabled(true);
    m_drop.start();
}

void Prompt::dropMore()
{
    char chunk[DropChunkSize];
    const ssize_t count = ::read(STDIN_FILENO, chunk, sizeof chunk);
    if (count < 0 && (errno == EINTR || errno == EAGAIN))
        return;
    if (count > 0)
        m_drop.start();
    else
        end();
}

void Prompt::endDrop()
{
    remove();
    rl_replace_line("", 0);
    std::fputc('\n', stdout);
    emit lineTooLong();
}

void Prompt::end()
{
    std::fputc('\n', stdout);
    stop();
    emit finished();
}

void Prompt::onLine(char *line)
{
    Prompt *prompt = s_active;
    prompt->remove(); // what is typed runs with the terminal as the user knows it
    if (!line && s_charactersOfKey > MaxLineSize) {
        prompt->dropRest();
        return;
    }
    if (!line) {
        prompt->end();
        return;
    }
    const QString text = QString::fromUtf8(line);
    std::free(line);
    emit prompt->line(text);
}

char **Prompt::onComplete(const char *word, int start, int)
{
    rl_attempted_completion_over = 1; // no names of files
    if (!s_active || !s_active->m_completer)
        return nullptr;
    const QString before = QString::fromUtf8(rl_line_buffer, start);
    const QStringList candidates = s_active->m_completer(before, QString::fromUtf8(word));
    if (candidates.isEmpty())
        return nullptr;
    const int count = candidates.size();
    // Freed by the line editor: the text to put in, then all candidates, then nothing.
    char **list = static_cast<char **>(std::malloc(sizeof(char *) * (count > 1 ? count + 2u : 2u)));
    list[0] = newText(commonStart(candidates));
    for (int i = 0; count > 1 && i < count; ++i)
        list[i + 1] = newText(candidates.at(i));
    list[count > 1 ? count + 1 : 1] = nullptr;
    rl_completion_suppress_append = candidates.first().endsWith(QLatin1Char('(')) ? 1 : 0;
    return list;
}

bool Prompt::hasText() const
{
    return m_waiting && rl_end > 0;
}

void Prompt::discard(Kind kind)
{
    if (!m_waiting)
        return;
    remove();
    rl_replace_line("", 0);
    std::fputs("^C\n", stdout);
    resume(kind);
}

void Prompt::setStatus(const QString &status)
{
    if (status == m_status)
        return;
    hide();
    m_status = status;
    show();
}

void Prompt::hide()
{
    if (m_waiting) {
        rl_clear_visible_line();
    } else if (!m_status.isEmpty()) {
        std::fputs("\r\x1b[K", stdout);
        std::fflush(stdout);
    }
}

void Prompt::show()
{
    if (m_waiting) {
        rl_forced_update_display();
    } else if (!m_status.isEmpty()) {
        // The last cell stays free: some terminals begin a new line behind it.
        const int width = Screen::columns() > 1 ? Screen::columns() - 1 : m_status.size();
        std::fputs(m_status.left(width).toUtf8().constData(), stdout);
        std::fflush(stdout);
    }
}
