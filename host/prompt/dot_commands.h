/// @file
/// The commands of the prompt that begin with a dot.
#pragma once

#include <QString>
#include <QStringList>

class PromptSession;

/// One command. Those of one subject stand in one file and are listed in DotCommands.
struct DotCommand {
    const char *name;
    const char *arguments; ///< as the help shows them
    const char *help;
    void (*run)(PromptSession *session, const QString &arguments);
};

/// All commands. They may be cut to a beginning that only one of them has.
///
/// Thread: the engine's.
namespace DotCommands
{

/// Runs what stands behind the dot; a mistake is told in the session.
void run(PromptSession *session, const QString &text);

/// The names with their dots.
QStringList names();

/// What the prompt says first.
QString banner();

/// All commands with a line each, and how to begin.
QString help();

// By subject.
void openConnection(PromptSession *session, const QString &arguments);
void closeConnection(PromptSession *session, const QString &arguments);
void showDrivers(PromptSession *session, const QString &arguments);
void showTables(PromptSession *session, const QString &arguments);
void showViews(PromptSession *session, const QString &arguments);
void showSchema(PromptSession *session, const QString &arguments);
void setMode(PromptSession *session, const QString &arguments);
void setTiming(PromptSession *session, const QString &arguments);
void showHelp(PromptSession *session, const QString &arguments);
void readFile(PromptSession *session, const QString &arguments);
void quit(PromptSession *session, const QString &arguments);

} // namespace DotCommands
