// .help, .read and .quit

#include "dot_commands.h"
#include "prompt_session.h"
#include "script_host.h"

void DotCommands::showHelp(PromptSession *session, const QString &)
{
    session->output()->showText(help());
}

void DotCommands::readFile(PromptSession *session, const QString &arguments)
{
    if (arguments.isEmpty())
        session->complain(QStringLiteral(".read needs the name of a file"));
    else
        session->readFile(arguments);
}

void DotCommands::quit(PromptSession *session, const QString &)
{
    session->host()->end()->request(0);
}
