#include "value_output.h"

#include "result_reader.h"
#include "script_reading.h"
#include "terminal.h"
#include "value_text.h"

#include <QScriptEngine>

void ValueOutput::print(const QScriptValue &value) const
{
    const int length = ScriptReading::arrayLength(value);
    const bool isList = length > 0 && ResultReader::isResult(
                                          ScriptReading::plainProperty(value, QStringLiteral("0")));
    if (ResultReader::isResult(value)) {
        printResult(value);
    } else if (isList) {
        for (int i = 0; i < length && !m_terminal->hasFailed(); ++i)
            print(ScriptReading::plainProperty(value, QString::number(i)));
    } else if (!printJson(value)) {
        m_terminal->writeLine(Terminal::Stream::Output, ValueText::plain(value));
    }
}

void ValueOutput::printResult(const QScriptValue &result) const
{
    m_printer.print(result, [this](const QString &text) {
        m_terminal->write(Terminal::Stream::Output, text);
        return !m_terminal->hasFailed();
    });
}

bool ValueOutput::printJson(const QScriptValue &value) const
{
    if (m_format != ResultFormat::Json && m_format != ResultFormat::JsonLines)
        return false;
    const ExceptionGuard guard(value.engine());
    const QScriptValue json = value.engine()->globalObject().property(QStringLiteral("JSON"));
    const QScriptValue text = json.property(QStringLiteral("stringify")).call(json, QScriptValueList{value});
    if (text.isString())
        m_terminal->writeLine(Terminal::Stream::Output, text.toString());
    return text.isString();
}
