/// @file
/// The command line of vext-run.
#pragma once

#include <QString>
#include <QStringList>

/// What the user asked for.
struct Options {
    enum class Action { Run, ShowHelp, ShowVersion };

    Action action = Action::Run;
    bool hasCode = false;
    QString code;          ///< of -e
    QString scriptFile;    ///< empty: code, or statements from standard input
    QStringList arguments; ///< the script's own
    QString pluginFile;    ///< empty: the default
    int level = 0;
    bool trace = false;
    bool stockDrivers = false; ///< without the layer of drivers

    /// Reads the command line, the program's name first. Options end at the first argument that is
    /// none: what follows belongs to the script.
    /// @return false with `error` set to a text for the user.
    bool parse(const QStringList &commandLine, QString *error);

    static QString helpText();
    static QString versionText();
};
