#include "program.h"

#include "connection_source.h"
#include "driver_layer.h"
#include "interrupt_watch.h"
#include "open_connection.h"
#include "plain_input.h"
#include "plugin_library.h"
#include "prompt_session.h"
#include "run_loop.h"
#include "script_file.h"
#include "script_host.h"
#include "sql_input.h"
#include "value_output.h"
#include "version_text.h"

#include <QDir>
#include <QFileInfo>

#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace
{

const int ExitFailure = 1;
const int ExitUsage = 2;
const int SignalBase = 128; ///< the shell's way to tell a signal from an exit code

/// The name of a script without a file, in messages and backtraces.
const char CodeName[] = "[code]";
const char InputName[] = "[input]";
const char StandardInputName[] = "[stdin]";

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
    if (hasFile && !isStandardInput() && !readScript(&code))
        return ExitUsage;
    InterruptWatch interrupts;
    connect(&interrupts, &InterruptWatch::interrupted, this, [&interrupts, this](int number) {
        if (number == SIGINT && m_session && m_session->interrupt())
            interrupts.arm();
        else
            onInterrupt(number);
    });
    if (!startHost())
        return ExitUsage;
    if (m_options.action == Options::Action::ShowVersion)
        return showVersion();
    QScriptValue connection;
    if (!m_options.address.isEmpty() && !openConnection(&connection))
        return ExitUsage;
    if (isStandardInput() && !readStandardInput(&code))
        return ExitUsage;
    if (hasFile || m_options.hasCode)
        runScript(code);
    else if (connection.isValid() && !::isatty(STDIN_FILENO))
        runSql(connection);
    else
        readStatements();
    return finish();
}

int Program::finish()
{
    const int exitCode = m_host->exec();
    m_source.reset();
    m_session.reset(); // gives the terminal back before anything else is written
    m_host->shutDown();
    return exitCode;
}

bool Program::isStandardInput() const
{
    return m_options.scriptFile == QLatin1String("-");
}

bool Program::readStandardInput(QString *code)
{
    QByteArray bytes;
    QString error;
    if (m_host->input()->readRest(&bytes, &error) && ScriptFile::decode(bytes, code, &error))
        return true;
    fail(QStringLiteral("cannot read the script from standard input: %1").arg(error));
    return false;
}

int Program::showVersion()
{
    m_host->terminal()->write(Terminal::Stream::Output,
                              VersionText::all(m_host.data(), !m_options.stockDrivers));
    return finish();
}

bool Program::openConnection(QScriptValue *connection)
{
    ConnectionAddress address;
    QString error;
    if (ConnectionSource::read(m_options.address, &address, &error))
        *connection = OpenConnection::open(m_host->engine(), address, &error);
    if (connection->isValid())
        return true;
    fail(error);
    return false;
}

void Program::runSql(const QScriptValue &connection)
{
    SqlInput input(m_host.data(), connection, ValueOutput(m_host->terminal(), m_options.format));
    if (!input.run(m_options.keepGoing))
        m_host->end()->request(ExitFailure);
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
    settings.log = m_options.log;
    settings.trace = m_options.trace;
    m_host.reset(new ScriptHost(settings));
    QString error;
    if (!m_host->start(&error)) {
        fail(error);
        return false;
    }
    m_host->setKeepGoing(m_options.keepGoing);
    return true;
}

void Program::runScript(const QString &code)
{
    const QString file = m_options.scriptFile;
    if (isStandardInput()) {
        m_host->setScriptFile(QLatin1String(StandardInputName), QDir::currentPath());
        m_host->evaluate(code, QLatin1String(StandardInputName));
    } else if (!file.isEmpty()) {
        m_host->setScriptFile(file);
        m_host->evaluate(code, file);
    } else {
        const QScriptValue value = m_host->evaluate(code, QLatin1String(CodeName));
        if (m_options.printsValue && value.isValid())
            ValueOutput(m_host->terminal(), m_options.format).print(value);
    }
}

void Program::readStatements()
{
    if (::isatty(STDIN_FILENO)) {
        startPrompt();
        return;
    }
    m_source.reset(new PlainInput(STDIN_FILENO));
    m_host->setScriptFile(QLatin1String(InputName), QDir::currentPath());
    m_host->runLoop()->hold();
    connect(m_source.data(), &StatementSource::statement, this, &Program::onStatement);
    connect(m_source.data(), &StatementSource::failed, this, &Program::onInputFailure);
    connect(m_source.data(), &StatementSource::finished, this, &Program::onInputEnd);
    connect(m_host->end(), &ScriptEnd::requested, m_source.data(), &StatementSource::stop);
    m_source->start();
}

void Program::startPrompt()
{
    InterruptWatch::setInterruptEnds(false);
    m_host->setKeepGoing(true);
    m_host->setScriptFile(QLatin1String(InputName), QDir::currentPath());
    m_host->runLoop()->hold();
    m_session.reset(new PromptSession(m_host.data()));
    // Who leaves the prompt wants to leave.
    connect(m_session.data(), &PromptSession::finished, this,
            [this] { m_host->end()->request(0); });
    connect(m_host->end(), &ScriptEnd::requested, m_session.data(), &PromptSession::stop);
    connect(m_host->end(), &ScriptEnd::requested, this, &Program::leaveAbandoned);
    m_session->start();
}

/// The worker of an abandoned statement ends with it, and nobody waits for that. Called before the
/// engine goes: its end would wait.
void Program::leaveAbandoned()
{
    if (!m_session->hasAbandoned())
        return;
    m_session->save();
    std::fflush(nullptr);
    ::_exit(m_host->end()->code());
}

void Program::onStatement(const QString &code)
{
    m_host->evaluateStatement(code, QLatin1String(InputName));
}

void Program::onInputFailure(int line, const QString &reason)
{
    m_host->reporter()->tellError(QLatin1String(InputName), line, reason);
    m_host->end()->request(ExitUsage);
}

void Program::onInputEnd()
{
    m_host->runLoop()->release();
}

void Program::onInterrupt(int number)
{
    if (m_host)
        m_host->end()->request(SignalBase + number);
}
