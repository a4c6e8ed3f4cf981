#include "program.h"

#include "driver_layer.h"
#include "interrupt_watch.h"
#include "plain_input.h"
#include "plugin_library.h"
#include "prompt.h"
#include "run_loop.h"
#include "script_file.h"
#include "script_host.h"

#include <QDir>
#include <QFileInfo>

#include <csignal>
#include <unistd.h>

namespace
{

const int ExitUsage = 2;
const int SignalBase = 128; ///< the shell's way to tell a signal from an exit code

/// The name of a script without a file, in messages and backtraces.
const char CodeName[] = "[code]";
const char InputName[] = "[input]";

} // namespace

Program::Program(const Options &options)
    : m_options(options)
{
    if (m_options.pluginFile.isEmpty())
        m_options.pluginFile = PluginLibrary::defaultFile();
}

Program::~Program() = default;

int Program::run()
{
    QString code = m_options.code;
    const bool hasFile = !m_options.scriptFile.isEmpty();
    if (hasFile && !readScript(&code))
        return ExitUsage;
    InterruptWatch interrupts;
    connect(&interrupts, &InterruptWatch::interrupted, this, [&interrupts, this](int number) {
        if (number == SIGINT && m_prompt && m_prompt->discardInput())
            interrupts.arm();
        else
            onInterrupt(number);
    });
    if (!startHost())
        return ExitUsage;
    if (hasFile || m_options.hasCode)
        runScript(code);
    else
        readStatements();
    const int exitCode = m_host->exec();
    m_prompt = nullptr;
    m_source.reset(); // gives the terminal back before anything else is written
    m_host->shutDown();
    return exitCode;
}

int Program::fail(const QString &error)
{
    Terminal().writeLine(Terminal::Stream::Error, QStringLiteral("vext-run: %1").arg(error));
    return ExitUsage;
}

bool Program::readScript(QString *code)
{
    QString error;
    if (QFileInfo(m_options.scriptFile).isDir())
        fail(QStringLiteral("script '%1' is a folder").arg(m_options.scriptFile));
    else if (!ScriptFile::read(m_options.scriptFile, code, &error))
        fail(QStringLiteral("cannot read script '%1': %2").arg(m_options.scriptFile, error));
    else
        return true;
    return false;
}

bool Program::startHost()
{
    if (!m_options.stockDrivers)
        DriverLayer::use();
    ScriptHost::Settings settings;
    settings.pluginFile = m_options.pluginFile;
    settings.arguments = m_options.arguments;
    settings.log.level = m_options.level;
    settings.trace = m_options.trace;
    m_host.reset(new ScriptHost(settings));
    QString error;
    if (m_host->start(&error))
        return true;
    fail(error);
    return false;
}

void Program::runScript(const QString &code)
{
    const QString file = m_options.scriptFile;
    if (file.isEmpty()) {
        m_host->evaluate(code, QLatin1String(CodeName));
        return;
    }
    m_host->setScriptFile(file);
    m_host->evaluate(code, file);
}

void Program::readStatements()
{
    if (::isatty(STDIN_FILENO)) {
        m_prompt = new Prompt(m_host->terminal());
        m_source.reset(m_prompt);
        m_host->setKeepGoing(true);
    } else {
        m_source.reset(new PlainInput(STDIN_FILENO));
    }
    m_host->setScriptFile(QLatin1String(InputName), QDir::currentPath());
    m_host->runLoop()->hold();
    connect(m_source.data(), &StatementSource::statement, this, &Program::onStatement);
    connect(m_source.data(), &StatementSource::finished, this, &Program::onInputEnd);
    connect(m_host->end(), &ScriptEnd::requested, m_source.data(), &StatementSource::stop);
    m_source->start();
}

void Program::onStatement(const QString &code)
{
    m_host->evaluateStatement(code, QLatin1String(InputName));
}

void Program::onInputEnd()
{
    // Who leaves the prompt wants to leave; what comes through a pipe is a program.
    if (m_prompt)
        m_host->end()->request(0);
    else
        m_host->runLoop()->release();
}

void Program::onInterrupt(int number)
{
    if (m_host)
        m_host->end()->request(SignalBase + number);
}
