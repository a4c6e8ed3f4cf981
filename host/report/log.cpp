#include "log.h"

#include "script_failure.h"
#include "short_text.h"
#include "terminal.h"

#include <QMutexLocker>

#include <cstdio>

namespace
{

LogRecord recordOf(const ScriptFailure &failure, const QString &connection)
{
    LogRecord record;
    record.level = LogRecord::Error;
    record.connection = connection;
    record.file = failure.file;
    record.line = qMax(failure.line, 0);
    record.text = failure.described();
    record.backtrace = failure.backtrace;
    return record;
}

} // namespace

Log::Log(Terminal *terminal)
    : m_terminal(terminal)
{
}

bool Log::open(const Settings &settings, QString *error)
{
    m_settings = settings;
    if (settings.file.isEmpty())
        return true;
    m_file.setFileName(settings.file);
    if (m_file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered))
        return true;
    *error =
        QStringLiteral("cannot write log file '%1': %2").arg(settings.file, m_file.errorString());
    return false;
}

void Log::write(const LogRecord &record)
{
    if (record.level > m_settings.level)
        return;
    LogRecord shown = record;
    shown.text = ShortText::of(record.text);
    shown.statement = ShortText::of(record.statement);
    put(formatted(shown));
}

void Log::write(const ScriptFailure &failure, const QString &connection)
{
    if (m_settings.format == Format::Text && !m_file.isOpen())
        m_terminal->write(Terminal::Stream::Error, failure.formatted(connection));
    else
        put(formatted(recordOf(failure, connection)));
}

void Log::writeForeign(const QString &line)
{
    QByteArray bytes = line.toUtf8();
    if (m_settings.format == Format::Json) {
        LogRecord record;
        record.text = line;
        bytes = record.asJson();
    }
    bytes += '\n';
    const QMutexLocker locker(&m_mutex);
    if (m_file.isOpen())
        m_file.write(bytes);
    else
        std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stderr);
}

QByteArray Log::formatted(const LogRecord &record) const
{
    return m_settings.format == Format::Json ? record.asJson() : record.asText();
}

void Log::put(const QByteArray &line)
{
    if (!m_file.isOpen()) {
        m_terminal->writeLine(Terminal::Stream::Error, QString::fromUtf8(line));
        return;
    }
    const QMutexLocker locker(&m_mutex);
    m_file.write(line + '\n');
}
