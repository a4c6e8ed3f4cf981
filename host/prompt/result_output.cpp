#include "result_output.h"

#include "console.h"
#include "pager.h"
#include "result_reader.h"
#include "screen.h"
#include "script_reading.h"
#include "terminal.h"

#include <QScriptEngine>

namespace
{

const int MaxResults = 1000; ///< of a list; an array may claim any length

bool isListOfResults(const QScriptValue &value)
{
    return ScriptReading::arrayLength(value) > 0 &&
           ResultReader::isResult(ScriptReading::plainProperty(value, QStringLiteral("0")));
}

} // namespace

ResultOutput::ResultOutput(Terminal *terminal)
    : m_terminal(terminal)
{
}

void ResultOutput::show(const QScriptValue &result, double milliseconds, bool countsChanges)
{
    const QString time = m_showsTime ? duration(milliseconds) : QString();
    const bool isForReaders = m_format == ResultFormat::Table || m_format == ResultFormat::Expanded;
    if (countsChanges || !isForReaders || ResultReader(result).columnCount() > 0)
        print(result, time);
    else
        showText(
            QStringLiteral("(done%1)\n").arg(time.isEmpty() ? time : QLatin1String(", ") + time));
}

void ResultOutput::showValue(const QScriptValue &value)
{
    if (!value.isValid() || value.isUndefined())
        return;
    const ExceptionGuard guard(value.engine());
    if (ResultReader::isResult(value)) {
        print(value, QString());
    } else if (isListOfResults(value)) {
        const int length = qMin(ScriptReading::arrayLength(value), MaxResults);
        for (int i = 0; i < length; ++i)
            showValue(ScriptReading::plainProperty(value, QString::number(i)));
    } else {
        m_terminal->write(Terminal::Stream::Output, Console::shown(value));
    }
}

void ResultOutput::showText(const QString &text)
{
    Pager().write(text);
}

void ResultOutput::print(const QScriptValue &result, const QString &note)
{
    ResultPrinter printer(m_format);
    printer.setScreenWidth(Screen::columns());
    printer.setNote(note);
    Pager pager;
    printer.print(result, [&pager](const QString &text) { return pager.write(text); });
}

QString ResultOutput::duration(double milliseconds)
{
    if (milliseconds < 1000)
        return QStringLiteral("%1 ms").arg(qRound(milliseconds));
    const double seconds = milliseconds / 1000;
    if (seconds < 60)
        return QStringLiteral("%1 s").arg(seconds, 0, 'f', 2);
    const int whole = static_cast<int>(seconds);
    return QStringLiteral("%1 min %2 s").arg(whole / 60).arg(whole % 60, 2, 10, QLatin1Char('0'));
}
