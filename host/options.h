/// @file
/// The command line of vext-run.
#pragma once

#include "log.h"
#include "result_printer.h"

#include <QString>
#include <QStringList>

/// What the user asked for.
struct Options {
    enum class Action { Run, ShowHelp, ShowManual, ShowVersion };

    Action action = Action::Run;
    bool hasCode = false;
    bool printsValue = false; ///< of the code: -p instead of -e
    QString code;             ///< of -e and -p
    QString scriptFile;       ///< "-": standard input; empty: code, or statements
    QStringList arguments;    ///< the script's own
    QString pluginFile;       ///< empty: the default
    QString address;          ///< of the database to open; empty: none
    ResultFormat format = ResultFormat::Table;
    bool keepGoing = false;
    bool stockDrivers = false; ///< without the layer of drivers
    QString language;          ///< empty: that of the user
    Log::Settings log;
    bool trace = false;

    /// Reads the command line, the program's name first. Options end at the first argument that is
    /// none: what follows belongs to the script.
    /// @return false with `error` set to a text for the user.
    bool parse(const QStringList &commandLine, QString *error);
};
