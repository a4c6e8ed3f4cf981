#include "script_lines.h"

#include "line_reader.h"
#include "text_decoding.h"

#include <QScriptContext>
#include <QScriptEngine>

QScriptValue ScriptLines::callForEach(QScriptContext *context, LineReader *lines,
                                      QScriptValue callback, const QString &source)
{
    QScriptEngine *engine = context->engine();
    qint64 count = 0;
    QString text;
    for (;;) {
        const LineReader::Outcome outcome = lines->next(&text);
        if (outcome == LineReader::Outcome::Failed)
            return fail(context, source, text);
        if (outcome == LineReader::Outcome::End)
            return QScriptValue(static_cast<double>(count));
        ++count;
        const QScriptValue answer =
            callback.call(engine->undefinedValue(),
                          {QScriptValue(text), QScriptValue(static_cast<double>(count))});
        if (engine->hasUncaughtException())
            return answer;
        if (answer.isBool() && !answer.toBool())
            return QScriptValue(static_cast<double>(count));
    }
}

QScriptValue ScriptLines::content(QScriptContext *context, const QByteArray &bytes, bool asBytes,
                                  const QString &source)
{
    if (asBytes)
        return context->engine()->newVariant(QVariant(bytes));
    QString text;
    QString reason;
    if (TextDecoding::decode(bytes, &text, &reason))
        return QScriptValue(text);
    return fail(
        context, source,
        QStringLiteral("%1; \"bytes\" as a further argument reads it as it is").arg(reason));
}

QScriptValue ScriptLines::fail(QScriptContext *context, const QString &source,
                               const QString &reason)
{
    return context->throwError(QStringLiteral("%1: %2").arg(source, reason));
}
