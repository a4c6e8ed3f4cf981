#include "standard_input.h"

#include "script_lines.h"

#include <QScriptContext>
#include <QScriptEngine>

#include <unistd.h>

namespace
{

const char Source[] = "stdin";

LineReader *linesOf(void *input)
{
    return static_cast<LineReader *>(input);
}

} // namespace

StandardInput::StandardInput()
    : m_lines(STDIN_FILENO)
{
}

void StandardInput::install(QScriptEngine *engine)
{
    QScriptValue object = engine->newObject();
    object.setProperty(QStringLiteral("readLine"), engine->newFunction(readLine, &m_lines));
    object.setProperty(QStringLiteral("readLines"), engine->newFunction(readLines, &m_lines));
    object.setProperty(QStringLiteral("read"), engine->newFunction(read, &m_lines));
    object.setProperty(QStringLiteral("isTerminal"), ::isatty(STDIN_FILENO) == 1);
    engine->globalObject().setProperty(QLatin1String(Source), object);
}

QScriptValue StandardInput::readLine(QScriptContext *context, QScriptEngine *engine, void *input)
{
    QString text;
    switch (linesOf(input)->next(&text)) {
    case LineReader::Outcome::Line:
        return QScriptValue(text);
    case LineReader::Outcome::End:
        return engine->nullValue();
    case LineReader::Outcome::Failed:
        break;
    }
    return ScriptLines::fail(context, QLatin1String(Source), text);
}

QScriptValue StandardInput::readLines(QScriptContext *context, QScriptEngine *, void *input)
{
    const QScriptValue callback = context->argument(0);
    if (callback.isFunction())
        return ScriptLines::callForEach(context, linesOf(input), callback, QLatin1String(Source));
    return context->throwError(
        QScriptContext::TypeError,
        QStringLiteral("stdin.readLines: the first argument must be a function"));
}

QScriptValue StandardInput::read(QScriptContext *context, QScriptEngine *, void *input)
{
    QByteArray bytes;
    QString error;
    if (!linesOf(input)->readRest(&bytes, &error))
        return ScriptLines::fail(context, QLatin1String(Source), error);
    const bool asBytes = context->argument(0).toString() == QLatin1String("bytes");
    return ScriptLines::content(context, bytes, asBytes, QLatin1String(Source));
}
