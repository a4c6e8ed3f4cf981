#include "prompt.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QStandardPaths>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include <readline/history.h>
#include <readline/readline.h>

namespace
{

const char FirstPrompt[] = "vext> ";
const char NextPrompt[] = "  ... ";
const int HistoryLines = 1000;

void readHistory()
{
    using_history();
    stifle_history(HistoryLines);
    read_history(QFile::encodeName(Prompt::historyFile()).constData());
}

void writeHistory()
{
    const QString file = Prompt::historyFile();
    if (!QDir().mkpath(QFileInfo(file).path()))
        return; // no history is no reason to fail
    write_history(QFile::encodeName(file).constData());
    QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner);
}

} // namespace

Prompt *Prompt::s_active = nullptr;

Prompt::Prompt(Terminal *terminal, QObject *parent)
    : StatementSource(parent)
    , m_terminal(terminal)
{
    s_active = this;
    rl_readline_name = "vext-run";
    rl_catch_signals = 0;         // the host has handlers of its own
    rl_bind_key('\t', rl_insert); // there is no completion of script names
    readHistory();
}

Prompt::~Prompt()
{
    m_terminal->setScreenSharer(nullptr);
    removeHandler();
    writeHistory();
    clear_history();
    s_active = nullptr;
}

QString Prompt::historyFile()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return folder + QStringLiteral("/vext/vext-run-history");
}

void Prompt::start()
{
    m_notifier.reset(new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read));
    connect(m_notifier.data(), &QSocketNotifier::activated, this, [] { rl_callback_read_char(); });
    m_terminal->setScreenSharer(this);
    installHandler();
}

void Prompt::stop()
{
    m_stopped = true;
    removeHandler();
    if (m_notifier)
        m_notifier->setEnabled(false);
}

void Prompt::installHandler()
{
    if (m_stopped)
        return;
    m_installed = true;
    m_waiting = true;
    rl_callback_handler_install(m_buffer.isOpen() ? NextPrompt : FirstPrompt, &Prompt::onLine);
}

void Prompt::removeHandler()
{
    if (!m_installed)
        return;
    m_installed = false;
    m_waiting = false;
    rl_callback_handler_remove();
}

void Prompt::onLine(char *line)
{
    Prompt *prompt = s_active;
    prompt->removeHandler(); // the statement runs with the terminal as the user knows it
    if (!line) {
        std::fputc('\n', stdout);
        prompt->stop();
        emit prompt->finished();
        return;
    }
    if (*line)
        add_history(line);
    const QString text = QString::fromLocal8Bit(line);
    std::free(line);
    prompt->takeLine(text);
    prompt->installHandler();
}

void Prompt::takeLine(const QString &line)
{
    if (m_buffer.add(line))
        emit statement(m_buffer.take());
}

bool Prompt::discardInput()
{
    if (!m_waiting || (!m_buffer.isOpen() && rl_end == 0))
        return false;
    m_buffer.clear();
    removeHandler();
    rl_replace_line("", 0);
    std::fputs("^C\n", stdout);
    installHandler();
    return true;
}

void Prompt::hide()
{
    if (m_waiting)
        rl_clear_visible_line();
}

void Prompt::show()
{
    if (m_waiting)
        rl_forced_update_display();
}
