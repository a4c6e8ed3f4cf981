/// @file
/// vext-run: runs a script with the SQL plugin.

#include "host_application.h"
#include "languages.h"
#include "message_log.h"
#include "option_texts.h"
#include "options.h"
#include "program.h"
#include "terminal.h"

#include <QCoreApplication>
#include <QTextCodec>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <langinfo.h>

namespace
{

/// Scripts, messages and file names are UTF-8, also where the environment names no language.
void useUtf8()
{
    std::setlocale(LC_CTYPE, "");
    if (std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0)
        return;
    std::setlocale(LC_CTYPE, "C.UTF-8");
    ::setenv("LC_ALL", "C.UTF-8", 1); // read again by Qt and by the database drivers
}

/// A standard stream that the caller has closed would be the next file that anybody opens.
void openStandardStreams()
{
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) < 0 && ::open("/dev/null", O_RDWR) != descriptor)
            std::exit(2);
    }
}

/// A write to a pipe that nobody reads fails then, instead of ending the process.
void ignoreClosedPipes()
{
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

QStringList commandLine(int argc, char **argv)
{
    QStringList list;
    for (int i = 0; i < argc; ++i)
        list.append(QString::fromUtf8(argv[i]));
    return list;
}

int runProgram(const QStringList &arguments, const QString &language)
{
    Terminal terminal;
    Options options;
    QString error;
    if (!options.parse(arguments, &error)) {
        terminal.writeLine(Terminal::Stream::Error,
                           QStringLiteral("vext-run: %1\nTry 'vext-run --help'.").arg(error));
        return 2;
    }
    switch (options.action) {
    case Options::Action::ShowHelp:
        terminal.write(Terminal::Stream::Output, OptionTexts::help());
        return 0;
    case Options::Action::ShowManual:
        terminal.write(Terminal::Stream::Output, OptionTexts::manual());
        return 0;
    case Options::Action::ShowVersion:
    case Options::Action::Run:
        break;
    }
    Languages::use(options.language.isEmpty() ? language : options.language);
    return Program(options).run();
}

} // namespace

int main(int argc, char **argv)
{
    openStandardStreams();
    const QString language = Languages::ofUser(); // before the environment is completed
    useUtf8();
    ignoreClosedPipes();
    MessageLog::install();
    // Taken first: the application object removes the options that Qt knows, which may be the
    // script's own.
    const QStringList arguments = commandLine(argc, argv);
    int ownArguments = 1;
    const HostApplication application(ownArguments, argv);
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    QCoreApplication::setApplicationName(QStringLiteral("vext-run"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VEXT_VERSION));
    return runProgram(arguments, language);
}
