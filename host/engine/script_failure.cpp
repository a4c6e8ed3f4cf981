#include "script_failure.h"

#include "script_file.h"
#include "script_reading.h"
#include "short_text.h"
#include "syntax_hint.h"
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

QString location(const QString &file, int line, int column)
{
    QString text = file;
    for (int number : {line, column}) {
        if (number > 0)
            text += QLatin1Char(':') + QString::number(number);
    }
    return text;
}

bool isSyntax(const QScriptValue &exception, const QString &text)
{
    return exception.isError() && text.startsWith(QLatin1String("SyntaxError"));
}

/// Where the code was compiled that cannot be: inside an inclusion the innermost call is only that
/// of the file that includes.
void locateSyntaxError(const QScriptValue &exception, ScriptFailure *failure)
{
    const QScriptValue file = ScriptReading::plainProperty(exception, QStringLiteral("fileName"));
    const QScriptValue line = ScriptReading::plainProperty(exception, QStringLiteral("lineNumber"));
    if (!file.isString() || file.toString().isEmpty())
        return;
    failure->file = file.toString();
    failure->line = line.toInt32();
    QString code;
    QString error;
    if (ScriptFile::read(failure->file, &code, &error))
        failure->explainSyntax(code);
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
    failure.text = ShortText::of(ValueText::plain(exception));
    bool known = false;
    for (int i = 0; i < failure.backtrace.size() && !known; ++i)
        known = splitEntry(failure.backtrace.at(i), &failure.file, &failure.line);
    if (!known && exception.isError())
        failure.file =
            ScriptReading::plainProperty(exception, QStringLiteral("fileName")).toString();
    for (QString &entry : failure.backtrace)
        entry = ShortText::of(entry); // entries tell arguments
    if (!isSyntax(exception, failure.text))
        return failure;
    // Only the compiler throws without any script frame around it.
    failure.isSyntaxError = failure.backtrace.isEmpty();
    locateSyntaxError(exception, &failure);
    return failure;
}

void ScriptFailure::explainSyntax(const QString &code)
{
    const SyntaxHint found = SyntaxHint::find(code, line);
    column = found.column;
    hint = found.text;
}

QString ScriptFailure::described() const
{
    return hint.isEmpty() ? text : QStringLiteral("%1; %2").arg(text, hint);
}

QString ScriptFailure::formatted(const QString &connection) const
{
    const QString what = described();
    if (isSyntaxError)
        return QStringLiteral("%1: %2\n").arg(location(file, line, column), what);
    QString lines = QStringLiteral("uncaught exception: %1\n").arg(what);
    if (!file.isEmpty())
        lines += QStringLiteral("  in %1, line %2%3\n")
                     .arg(file, QString::number(line),
                          column > 0 ? QStringLiteral(", column %1").arg(column) : QString());
    for (const QString &entry : backtrace)
        lines += QStringLiteral("    %1\n").arg(entry);
    if (!connection.isEmpty())
        lines += QStringLiteral("  in a callback of the connection '%1'\n").arg(connection);
    return lines;
}
