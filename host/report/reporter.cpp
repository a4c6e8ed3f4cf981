#include "reporter.h"

#include "driver_packages.h"
#include "message_log.h"
#include "misspelt_properties.h"
#include "running_statements.h"
#include "script_end.h"
#include "script_failure.h"
#include "script_place.h"

#include <QScriptEngine>
#include <QThread>

namespace
{

const int ExitException = 1;
const int ExitSyntax = 2;

QString nameOf(const QObject *connection)
{
    return connection ? connection->objectName() : QString();
}

} // namespace

Reporter::Reporter(QScriptEngine *engine, Terminal *terminal, ScriptEnd *end, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
    , m_end(end)
    , m_log(terminal)
    , m_watch(engine)
{
    connect(&m_watch, &ConnectionWatch::taskFailed, this, &Reporter::onTaskFailed);
    connect(&m_watch, &ConnectionWatch::opened, this, &Reporter::tellMisspelt);
    connect(&m_watch, &ConnectionWatch::opened, this, &RunningStatements::add);
    MessageLog::setSink([this](const QString &line) { m_log.writeForeign(line); });
    MessageLog::setMissingDriverHandler([this](const QString &driver) {
        if (thread() == QThread::currentThread())
            onMissingDriver(driver);
    });
}

Reporter::~Reporter()
{
    MessageLog::setMissingDriverHandler({});
    MessageLog::setSink({});
}

void Reporter::dropEngine()
{
    m_engine = nullptr;
    m_watch.dropEngine();
}

LogRecord Reporter::recordHere(int level, const QString &connection) const
{
    LogRecord record;
    record.level = level;
    record.connection = connection;
    record.file = m_file;
    record.line = m_line;
    ScriptPlace::current(m_engine, &record.file, &record.line);
    return record;
}

void Reporter::tellMessage(const PluginMessage &message)
{
    LogRecord record = recordHere(message.level, message.connection);
    record.operation = message.operation;
    record.source = QStringLiteral("%1:%2").arg(message.source, QString::number(message.line));
    record.text = message.text;
    if (message.level == LogRecord::Error)
        m_lastError.insert(message.connection, message.text);
    m_log.write(record);
}

void Reporter::tellError(const QString &file, int line, const QString &text)
{
    LogRecord record;
    record.level = LogRecord::Error;
    record.file = file;
    record.line = line;
    record.text = text;
    m_log.write(record);
}

void Reporter::setPlace(const QString &file, int line)
{
    m_file = file;
    m_line = line;
}

void Reporter::tellException(const QString &code, QObject *receiver)
{
    ScriptFailure failure = ScriptFailure::take(m_engine);
    if (failure.isSyntaxError && failure.column == 0)
        failure.explainSyntax(code);
    // The end itself stops a running script with an exception.
    if (m_end->isRequested() || (m_stopCheck && m_stopCheck()))
        return;
    m_log.write(failure, nameOf(m_watch.connectionOf(receiver)));
    fail(failure.isSyntaxError ? ExitSyntax : ExitException);
}

void Reporter::onTaskFailed(QObject *connection, const QString &error, const QString &statement)
{
    if (m_end->isRequested())
        return;
    const QString name = nameOf(connection);
    // What the plugin has just told itself is not told twice.
    const QString told = m_lastError.take(name);
    if (told.isEmpty() || !told.contains(error)) {
        LogRecord record = recordHere(LogRecord::Error, name);
        record.operation = QStringLiteral("task failed");
        record.text = error;
        record.statement = statement;
        m_log.write(record);
    }
    fail(ExitException);
}

void Reporter::onMissingDriver(const QString &driver)
{
    QObject *object = m_engine ? ScriptPlace::calledObject(m_engine) : nullptr;
    LogRecord record = recordHere(LogRecord::Error, nameOf(object));
    record.operation = QStringLiteral("open");
    record.text = DriverPackages::hint(driver);
    m_log.write(record);
    if (object)
        tellMisspelt(object);
}

void Reporter::tellMisspelt(QObject *connection)
{
    if (!m_engine)
        return;
    const auto list = MisspeltProperties::find(ScriptPlace::valueOf(m_engine, connection));
    for (const auto &misspelt : list) {
        if (m_misspelt.contains(misspelt.name))
            continue;
        m_misspelt.insert(misspelt.name);
        LogRecord record = recordHere(LogRecord::Notice, nameOf(connection));
        record.operation = QStringLiteral("warning");
        record.text = QStringLiteral("a connection has no property '%1'; did you mean '%2'?")
                          .arg(misspelt.name, misspelt.nearest);
        m_log.write(record);
    }
}

void Reporter::tellAtEnd()
{
    const QList<QObject *> connections = m_watch.connections();
    for (QObject *connection : connections)
        tellMisspelt(connection);
    if (!m_end->isRequested())
        tellLost();
}

void Reporter::tellLost()
{
    const QList<QObject *> lost = m_watch.lost();
    for (const QObject *connection : lost) {
        LogRecord record = recordHere(LogRecord::Error, nameOf(connection));
        record.operation = QStringLiteral("connection lost");
        record.text = QStringLiteral("nothing is left to wait for");
        m_log.write(record);
    }
    if (!lost.isEmpty())
        fail(ExitException);
}

void Reporter::fail(int exitCode)
{
    m_hasFailed = true;
    if (!m_keepsGoing)
        m_end->request(exitCode);
}
