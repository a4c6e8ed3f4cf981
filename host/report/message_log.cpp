#include "message_log.h"

#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>

#include <cstdio>

namespace
{

using DriverHandler = std::function<void(const QString &)>;

struct State {
    QMutex mutex;
    MessageLog::Sink sink;         ///< under the mutex
    DriverHandler onMissingDriver; ///< under the mutex
};

State &state()
{
    static State s_state;
    return s_state;
}

/// A failed statement: the plugin writes the kind of the error here and sends its text as a
/// message.
bool isSaidElsewhere(const QString &text)
{
    static const QRegularExpression known(
        QStringLiteral("^QSqlDatabase: available drivers: |"
                       " ~~~~ (query|exec)[()]* \\s*"
                       "(Connection|Statement|Transaction|Unknown)Error\\s*$"));
    return known.match(text).hasMatch();
}

/// What Qt's drivers write when the plugin asks after a statement that has no such thing:
/// Firebird's for the count of rows after CREATE and its like, ODBC's for the id of a row.
bool isIdleTalk(const QString &text)
{
    static const QRegularExpression known(
        QStringLiteral("^numRowsAffected: Unknown statement type \\(|"
                       "^\"QODBCResult::lastInsertId: Unable to get lastInsertId\""));
    return known.match(text).hasMatch();
}

/// "QSqlDatabase: QNAME driver not loaded"
bool isMissingDriver(const QString &text, QString *driver)
{
    static const QRegularExpression form(
        QStringLiteral("^QSqlDatabase: (\\S*) driver not loaded$"));
    const QRegularExpressionMatch match = form.match(text);
    *driver = match.captured(1);
    return match.hasMatch();
}

/// @return false when nobody wants to know.
bool tellMissingDriver(const QString &driver)
{
    DriverHandler handler;
    {
        const QMutexLocker locker(&state().mutex);
        handler = state().onMissingDriver;
    }
    if (handler)
        handler(driver); // writes to the log itself
    return static_cast<bool>(handler);
}

void writeToStandardError(const QString &line)
{
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stderr);
}

void onMessage(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    QString driver;
    if (isSaidElsewhere(text) || isIdleTalk(text) ||
        (isMissingDriver(text, &driver) && tellMissingDriver(driver)))
        return;
    const QString line = qFormatLogMessage(type, context, text);
    const QMutexLocker locker(&state().mutex);
    if (state().sink)
        state().sink(line);
    else
        writeToStandardError(line);
}

} // namespace

void MessageLog::install()
{
    state(); // before the first line, and destroyed after the last
    qInstallMessageHandler(onMessage);
}

void MessageLog::setSink(const Sink &sink)
{
    const QMutexLocker locker(&state().mutex);
    state().sink = sink;
}

void MessageLog::setMissingDriverHandler(const DriverHandler &handler)
{
    const QMutexLocker locker(&state().mutex);
    state().onMissingDriver = handler;
}
