#include "host_process.h"

#include <QDeadlineTimer>

#include <csignal>

QByteArray HostOutcome::described() const
{
    return QStringLiteral("\nexit code %1%2\n--- output\n%3\n--- errors\n%4")
        .arg(QString::number(exitCode),
             endedByItself ? QString() : QStringLiteral(" (did not end by itself)"), output, errors)
        .toUtf8();
}

HostProcess::HostProcess()
{
    m_process.setProgram(QStringLiteral(VEXT_RUN_FILE));
    // The plugin's texts as its sources have them.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LANGUAGE"), QStringLiteral("ru"));
    m_process.setProcessEnvironment(environment);
}

HostProcess::~HostProcess()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    m_process.waitForFinished(limitMs);
}

bool HostProcess::start(const QStringList &arguments)
{
    m_process.setArguments(arguments);
    m_process.start();
    return m_process.waitForStarted(limitMs);
}

bool HostProcess::waitForOutput(const QString &text)
{
    const QDeadlineTimer deadline(limitMs);
    while (!m_output.contains(text.toUtf8())) {
        if (deadline.hasExpired() || m_process.state() == QProcess::NotRunning)
            return false;
        m_process.waitForReadyRead(100);
        m_output += m_process.readAllStandardOutput();
    }
    return true;
}

bool HostProcess::send(int signalNumber)
{
    return ::kill(static_cast<pid_t>(m_process.processId()), signalNumber) == 0;
}

HostOutcome HostProcess::finish(int milliseconds)
{
    HostOutcome outcome;
    m_process.closeWriteChannel();
    const bool finished =
        m_process.state() == QProcess::NotRunning || m_process.waitForFinished(milliseconds);
    outcome.endedByItself = finished && m_process.exitStatus() == QProcess::NormalExit;
    outcome.exitCode = m_process.exitCode();
    outcome.output = QString::fromUtf8(m_output + m_process.readAllStandardOutput());
    outcome.errors = QString::fromUtf8(m_process.readAllStandardError());
    return outcome;
}

bool HostProcess::staysAlive(int milliseconds)
{
    return !m_process.waitForFinished(milliseconds);
}

HostOutcome runHost(const QStringList &arguments, const QByteArray &input)
{
    HostProcess host;
    if (!host.start(arguments))
        return HostOutcome();
    host.process().write(input);
    return host.finish();
}

HostOutcome runCode(const QString &code, const QStringList &options)
{
    return runHost(options + QStringList{QStringLiteral("-e"), code});
}

QString openSqlite()
{
    return QStringLiteral("var db = new VEXT_SQL('main'); db.driverName = 'QSQLITE';"
                          " db.databaseName = ':memory:'; if (!db.open()) throw db.lastError;\n");
}
