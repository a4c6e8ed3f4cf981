#include "script_failure.h"

#include "script_reading.h"
#include "value_text.h"

#include <QScriptEngine>

namespace
{

/// Cuts "name() at file:line" into file and line.
/// @return false when the entry names no file, as those of native frames.
bool splitEntry(const QString &entry, QString *file, int *line)
{
    const QString separator = QStringLiteral(" at ");
    const int at = entry.lastIndexOf(separator);
    const int colon = entry.lastIndexOf(QLatin1Char(':'));
    if (at < 0 || colon < at)
        return false;
    *file = entry.mid(at + separator.size(), colon - at - separator.size());
    *line = entry.midRef(colon + 1).toInt();
    return true;
}

/// Without the frame that stands for the host's own call of a callback.
QStringList scriptFrames(QStringList backtrace)
{
    while (!backtrace.isEmpty() && backtrace.last().endsWith(QLatin1String(" at -1")))
        backtrace.removeLast();
    return backtrace;
}

QString location(const QString &file, int line)
{
    return line > 0 ? QStringLiteral("%1:%2").arg(file, QString::number(line)) : file;
}

} // namespace

ScriptFailure ScriptFailure::take(QScriptEngine *engine)
{
    ScriptFailure failure;
    const QScriptValue exception = engine->uncaughtException();
    failure.backtrace = scriptFrames(engine->uncaughtExceptionBacktrace());
    failure.line = engine->uncaughtExceptionLineNumber();
    engine->clearExceptions(); // before the value is looked at, which needs a clean engine
    const ExceptionGuard guard(engine);
    failure.text = ValueText::plain(exception);
    bool known = false;
    for (int i = 0; i < failure.backtrace.size() && !known; ++i)
        known = splitEntry(failure.backtrace.at(i), &failure.file, &failure.line);
    if (!known && exception.isError())
        failure.file =
            ScriptReading::plainProperty(exception, QStringLiteral("fileName")).toString();
    // Only the compiler throws without any script frame around it.
    failure.isSyntaxError = failure.backtrace.isEmpty() && exception.isError() &&
                            failure.text.startsWith(QLatin1String("SyntaxError"));
    return failure;
}

QString ScriptFailure::formatted() const
{
    const QString where = location(file, line);
    if (isSyntaxError)
        return QStringLiteral("%1: %2\n").arg(where, text);
    QString lines = QStringLiteral("uncaught exception: %1\n").arg(text);
    if (!file.isEmpty())
        lines += QStringLiteral("  in %1, line %2\n").arg(file, QString::number(line));
    for (const QString &entry : backtrace)
        lines += QStringLiteral("    %1\n").arg(entry);
    return lines;
}
