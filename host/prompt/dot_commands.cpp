#include "dot_commands.h"

#include "prompt_session.h"

#include <QVector>

namespace
{

const DotCommand Commands[] = {
    {"help", "", "shows this text", DotCommands::showHelp},
    {"open", "ADDRESS", "opens a connection, as below", DotCommands::openConnection},
    {"close", "", "closes it", DotCommands::closeConnection},
    {"tables", "[PATTERN]", "lists tables; * and ? stand for anything", DotCommands::showTables},
    {"views", "[PATTERN]", "lists views", DotCommands::showViews},
    {"schema", "TABLE", "lists the columns of a table with their types", DotCommands::showSchema},
    {"drivers", "", "lists the database drivers that are installed", DotCommands::showDrivers},
    {"mode", "FORM", "shows results as table, expanded, csv, json, json-lines or list",
     DotCommands::setMode},
    {"timing", "on|off", "shows how long statements take", DotCommands::setTiming},
    {"read", "FILE", "runs a file: .js is script, .sql is SQL, others as if typed",
     DotCommands::readFile},
    {"quit", "", "ends the program, as Ctrl-D does", DotCommands::quit},
};

/// The command of that name, or those that begin so.
QVector<const DotCommand *> matches(const QString &name)
{
    QVector<const DotCommand *> found;
    for (const DotCommand &command : Commands) {
        const QLatin1String full(command.name);
        if (full == name)
            return {&command};
        if (!name.isEmpty() && QString(full).startsWith(name))
            found.append(&command);
    }
    return found;
}

} // namespace

void DotCommands::run(PromptSession *session, const QString &text)
{
    QString line = text.trimmed();
    int end = 0;
    while (end < line.size() && !line.at(end).isSpace())
        ++end;
    QString name = line.left(end).toLower();
    QString arguments = line.mid(end).trimmed();
    QString *last = arguments.isEmpty() ? &name : &arguments;
    if (last->endsWith(QLatin1Char(';')))
        last->chop(1);
    const QVector<const DotCommand *> found = matches(name);
    if (found.size() == 1) {
        found.first()->run(session, arguments.trimmed());
        return;
    }
    QStringList choice;
    for (const DotCommand *command : found)
        choice.append(QLatin1Char('.') + QLatin1String(command->name));
    session->complain(
        choice.isEmpty()
            ? QStringLiteral("no command .%1; .help lists them").arg(name)
            : QStringLiteral(".%1 may be %2").arg(name, choice.join(QLatin1String(" or "))));
}

QStringList DotCommands::names()
{
    QStringList list;
    for (const DotCommand &command : Commands)
        list.append(QLatin1Char('.') + QLatin1String(command.name));
    return list;
}

QString DotCommands::banner()
{
    return QStringLiteral("vext-run " VEXT_VERSION ", Qt %1. Type .help for help, .quit to leave.")
        .arg(QLatin1String(qVersion()));
}

QString DotCommands::help()
{
    QString text = QStringLiteral("SQL that ends with ; runs on the open connection.\n"
                                  "Anything else is script (ECMAScript 5); db is the connection.\n"
                                  "\n");
    for (const DotCommand &command : Commands) {
        const QString form = QStringLiteral(".%1 %2").arg(QLatin1String(command.name),
                                                          QLatin1String(command.arguments));
        text += QStringLiteral("  %1 %2\n").arg(form, -17).arg(QLatin1String(command.help));
    }
    return text +
           QStringLiteral("\n"
                          "Addresses for .open:\n"
                          "  postgresql://USER@HOST:PORT/DATABASE\n"
                          "  mysql://USER@HOST/DATABASE\n"
                          "  firebird:FILE   sqlite:FILE   sqlite::memory:\n"
                          "  QPSQL host=HOST dbname=DATABASE user=USER   (any driver)\n"
                          "  @FILE           a file that holds one of these\n"
                          "\n"
                          "A first look at your own data:\n"
                          "  .open postgresql://USER@localhost/DATABASE\n"
                          "  .tables\n"
                          "  SELECT * FROM TABLE LIMIT 10;\n"
                          "\n"
                          "Tab completes, the arrow keys fetch what was typed before. Ctrl-C\n"
                          "cancels a statement, stops a script, drops what is typed.\n");
}
