#include "console.h"

#include "object_table.h"
#include "result_table.h"
#include "script_reading.h"
#include "terminal.h"
#include "value_text.h"

#include <QScriptContext>
#include <QScriptEngine>
#include <QStringList>

namespace
{

const int MaxResults = 1000; ///< of a list; an array may claim any length

QString joinedArguments(QScriptContext *context)
{
    QStringList texts;
    for (int i = 0; i < context->argumentCount(); ++i)
        texts.append(ValueText::plain(context->argument(i)));
    return texts.join(QLatin1Char(' '));
}

/// A script whose output goes nowhere is not run on. Called where no exception is swallowed.
QScriptValue afterWriting(QScriptEngine *engine, const Terminal *terminal)
{
    if (terminal->hasFailed())
        engine->abortEvaluation();
    return engine->undefinedValue();
}

QScriptValue writeArguments(QScriptContext *context, QScriptEngine *engine, void *terminal,
                            Terminal::Stream stream)
{
    Terminal *target = static_cast<Terminal *>(terminal);
    {
        const ExceptionGuard guard(engine);
        target->writeLine(stream, joinedArguments(context));
    }
    return afterWriting(engine, target);
}

QScriptValue toOutput(QScriptContext *context, QScriptEngine *engine, void *terminal)
{
    return writeArguments(context, engine, terminal, Terminal::Stream::Output);
}

QScriptValue toError(QScriptContext *context, QScriptEngine *engine, void *terminal)
{
    return writeArguments(context, engine, terminal, Terminal::Stream::Error);
}

/// A list of results is what several statements in one call leave.
bool isListOfResults(const QScriptValue &value)
{
    const int length = ScriptReading::arrayLength(value);
    return length > 0 &&
           ResultTable::isResult(ScriptReading::plainProperty(value, QStringLiteral("0")));
}

QString tableText(const QScriptValue &value)
{
    const bool isList = ObjectTable::isList(value) && !isListOfResults(value);
    return isList ? ObjectTable::print(value) : Console::shown(value);
}

QScriptValue table(QScriptContext *context, QScriptEngine *engine, void *terminal)
{
    Terminal *target = static_cast<Terminal *>(terminal);
    {
        const ExceptionGuard guard(engine);
        for (int i = 0; i < context->argumentCount(); ++i)
            target->write(Terminal::Stream::Output, tableText(context->argument(i)));
    }
    return afterWriting(engine, target);
}

/// `write(text)`: as it is, without a line break. A text that begins with a carriage return is a
/// line of progress.
QScriptValue write(QScriptContext *context, QScriptEngine *engine, void *terminal)
{
    Terminal *target = static_cast<Terminal *>(terminal);
    {
        const ExceptionGuard guard(engine);
        const QString text = joinedArguments(context);
        if (text.startsWith(QLatin1Char('\r')))
            target->writeProgress(text);
        else
            target->write(Terminal::Stream::Output, text);
    }
    return afterWriting(engine, target);
}

} // namespace

void Console::install(QScriptEngine *engine, Terminal *terminal)
{
    QScriptValue console = engine->newObject();
    console.setProperty(QStringLiteral("log"), engine->newFunction(toOutput, terminal));
    console.setProperty(QStringLiteral("info"), engine->newFunction(toOutput, terminal));
    console.setProperty(QStringLiteral("warn"), engine->newFunction(toError, terminal));
    console.setProperty(QStringLiteral("error"), engine->newFunction(toError, terminal));
    console.setProperty(QStringLiteral("table"), engine->newFunction(table, terminal));
    QScriptValue global = engine->globalObject();
    global.setProperty(QStringLiteral("console"), console);
    global.setProperty(QStringLiteral("print"), engine->newFunction(toOutput, terminal));
    global.setProperty(QStringLiteral("write"), engine->newFunction(write, terminal));
}

QString Console::shown(const QScriptValue &value)
{
    if (ResultTable::isResult(value))
        return ResultTable::print(value);
    if (!isListOfResults(value))
        return ValueText::quoted(value) + QLatin1Char('\n');
    QString text;
    const int length = qMin(ScriptReading::arrayLength(value), MaxResults);
    for (int i = 0; i < length; ++i) {
        const QScriptValue item = ScriptReading::plainProperty(value, QString::number(i));
        text += ResultTable::isResult(item) ? ResultTable::print(item)
                                            : ValueText::quoted(item) + QLatin1Char('\n');
    }
    return text;
}
