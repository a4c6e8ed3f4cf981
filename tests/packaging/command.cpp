#include "command.h"

#include <QProcess>
#include <QStandardPaths>

namespace
{

const int LimitMs = 300000;

/// Users who do not administer the system lack these in their PATH; dpkg needs what lies there.
const char AdministratorFolders[] = ":/usr/local/sbin:/usr/sbin:/sbin";

} // namespace

QByteArray CommandOutcome::described() const
{
    return "exit code " + QByteArray::number(exitCode) + "\noutput:\n" + output.toUtf8() +
           "errors:\n" + errors.toUtf8();
}

CommandOutcome runCommand(const QStringList &command, const QStringList &variables)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QString path = QStringLiteral("PATH");
    environment.insert(path, environment.value(path) + QLatin1String(AdministratorFolders));
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    for (const QString &variable : variables)
        environment.insert(variable.section(QLatin1Char('='), 0, 0),
                           variable.section(QLatin1Char('='), 1));
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(command.first(), command.mid(1));
    CommandOutcome outcome;
    if (!process.waitForFinished(LimitMs) && process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
        outcome.errors = process.errorString();
    } else if (process.exitStatus() == QProcess::NormalExit) {
        outcome.exitCode = process.exitCode();
    }
    outcome.output = QString::fromUtf8(process.readAllStandardOutput());
    outcome.errors += QString::fromUtf8(process.readAllStandardError());
    return outcome;
}

bool haveCommand(const QString &name)
{
    return !QStandardPaths::findExecutable(name).isEmpty();
}
