// .mode and .timing

#include "dot_commands.h"
#include "prompt_session.h"

void DotCommands::setMode(PromptSession *session, const QString &arguments)
{
    ResultFormat format = session->output()->format();
    if (arguments.isEmpty())
        session->say(ResultPrinter::nameOfFormat(format));
    else if (ResultPrinter::formatOfName(arguments, &format))
        session->output()->setFormat(format);
    else
        session->complain(QStringLiteral(".mode needs one of %1")
                              .arg(ResultPrinter::formatNames().join(QLatin1String(", "))));
}

void DotCommands::setTiming(PromptSession *session, const QString &arguments)
{
    const bool on = arguments == QLatin1String("on");
    if (on || arguments == QLatin1String("off"))
        session->output()->setShowsTime(on);
    else if (arguments.isEmpty())
        session->say(session->output()->showsTime() ? QStringLiteral("on") : QStringLiteral("off"));
    else
        session->complain(QStringLiteral(".timing needs on or off"));
}
