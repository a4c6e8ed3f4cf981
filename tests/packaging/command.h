/// @file
/// Commands of the system that tests call.
#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

/// What one command left.
struct CommandOutcome {
    int exitCode = -1; ///< -1 when it did not start, crashed or was over the limit
    QString output;
    QString errors;

    bool isGood() const { return exitCode == 0; }
    /// For the message of a failed check.
    QByteArray described() const;
};

/// Runs a command to its end, with a limit, in the language C.
/// @param command the program, found through PATH and the folders of administrators, and its
/// arguments
/// @param variables set in its environment, as "NAME=value"
CommandOutcome runCommand(const QStringList &command, const QStringList &variables = QStringList());

/// Whether a program of that name can be called.
bool haveCommand(const QString &name);
