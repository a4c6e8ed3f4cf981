#include "byte_values.h"

#include "script_reading.h"
#include "text_decoding.h"

#include <QByteArray>
#include <QScriptContext>
#include <QScriptEngine>
#include <QTime>
#include <QVariant>

#include <cctype>

namespace
{

QScriptValue newBytes(QScriptEngine *engine, const QByteArray &bytes)
{
    return engine->newVariant(QVariant(bytes));
}

/// The bytes that a member was called on.
/// @return false after a TypeError was thrown.
bool takeThis(QScriptContext *context, QByteArray *bytes)
{
    const QVariant variant = context->thisObject().toVariant();
    *bytes = variant.toByteArray();
    if (variant.userType() == QMetaType::QByteArray)
        return true;
    context->throwError(QScriptContext::TypeError, QStringLiteral("this is not a value of bytes"));
    return false;
}

/// An index counted from the end when it is negative, and kept between 0 and size, as in the
/// language's own slice().
int position(const QScriptValue &value, int size, int missing)
{
    if (value.isUndefined() || !value.isValid())
        return missing;
    const double index = value.toInteger();
    const double fromStart = index < 0 ? size + index : index;
    return static_cast<int>(qBound(0.0, fromStart, static_cast<double>(size)));
}

QScriptValue length(QScriptContext *context, QScriptEngine *)
{
    QByteArray bytes;
    return takeThis(context, &bytes) ? QScriptValue(bytes.size()) : QScriptValue();
}

QScriptValue get(QScriptContext *context, QScriptEngine *engine)
{
    QByteArray bytes;
    if (!takeThis(context, &bytes))
        return QScriptValue();
    const double index = context->argument(0).toInteger();
    if (!(index >= 0 && index < bytes.size()))
        return engine->undefinedValue();
    return QScriptValue(static_cast<int>(static_cast<uchar>(bytes.at(static_cast<int>(index)))));
}

QScriptValue slice(QScriptContext *context, QScriptEngine *engine)
{
    QByteArray bytes;
    if (!takeThis(context, &bytes))
        return QScriptValue();
    const int begin = position(context->argument(0), bytes.size(), 0);
    const int end = position(context->argument(1), bytes.size(), bytes.size());
    return newBytes(engine, bytes.mid(begin, qMax(end - begin, 0)));
}

QScriptValue toHex(QScriptContext *context, QScriptEngine *)
{
    QByteArray bytes;
    return takeThis(context, &bytes) ? QScriptValue(QString::fromLatin1(bytes.toHex()))
                                     : QScriptValue();
}

QScriptValue toBase64(QScriptContext *context, QScriptEngine *)
{
    QByteArray bytes;
    return takeThis(context, &bytes) ? QScriptValue(QString::fromLatin1(bytes.toBase64()))
                                     : QScriptValue();
}

QScriptValue toText(QScriptContext *context, QScriptEngine *)
{
    QByteArray bytes;
    if (!takeThis(context, &bytes))
        return QScriptValue();
    QString text;
    QString reason;
    if (TextDecoding::decode(bytes, &text, &reason))
        return QScriptValue(text);
    return context->throwError(QStringLiteral("toText: %1").arg(reason));
}

/// The text in which the value prints.
QScriptValue toJson(QScriptContext *context, QScriptEngine *)
{
    return QScriptValue(ScriptReading::variantText(context->thisObject().toVariant()));
}

bool isHex(const QByteArray &text)
{
    for (const char c : text) {
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            return false;
    }
    return text.size() % 2 == 0;
}

/// Reads a text that stands for bytes.
/// @return false when it is none in that form, or when there is no such form.
bool readBytes(const QString &text, const QString &form, QByteArray *bytes)
{
    if (form == QLatin1String("text")) {
        *bytes = text.toUtf8();
        return true;
    }
    if (form == QLatin1String("hex")) {
        *bytes = QByteArray::fromHex(text.toLatin1());
        return isHex(text.toUtf8());
    }
    const auto decoded =
        QByteArray::fromBase64Encoding(text.toUtf8(), QByteArray::AbortOnBase64DecodingErrors);
    *bytes = decoded.decoded;
    return form == QLatin1String("base64") && decoded;
}

QScriptValue bytes(QScriptContext *context, QScriptEngine *engine)
{
    const QScriptValue text = context->argument(0);
    const QScriptValue second = context->argument(1);
    const QString form = second.isUndefined() ? QStringLiteral("text") : second.toString();
    if (!text.isString()) {
        return context->throwError(QScriptContext::TypeError,
                                   QStringLiteral("bytes: the first argument must be a text"));
    }
    QByteArray result;
    if (readBytes(text.toString(), form, &result))
        return newBytes(engine, result);
    const bool isKnown = form == QLatin1String("hex") || form == QLatin1String("base64");
    return context->throwError(
        QScriptContext::TypeError,
        (isKnown ? QStringLiteral("bytes: the text is not in the form \"%1\"")
                 : QStringLiteral("bytes: there is no form \"%1\", but \"hex\", \"base64\" and"
                                  " \"text\""))
            .arg(form));
}

/// A prototype over the one that all values have which the language does not know.
QScriptValue newPrototype(QScriptEngine *engine, const QVariant &example)
{
    QScriptValue prototype = engine->newObject();
    prototype.setPrototype(engine->newVariant(example).prototype());
    prototype.setProperty(QStringLiteral("toJSON"), engine->newFunction(toJson),
                          QScriptValue::SkipInEnumeration);
    return prototype;
}

void addMember(QScriptEngine *engine, QScriptValue *prototype, const char *name,
               QScriptEngine::FunctionSignature function)
{
    prototype->setProperty(QLatin1String(name), engine->newFunction(function),
                           QScriptValue::SkipInEnumeration);
}

} // namespace

void ByteValues::install(QScriptEngine *engine)
{
    QScriptValue prototype = newPrototype(engine, QVariant(QByteArray()));
    // The name first: the engine drops the flag when an accessor is set on a new one.
    const QString name = QStringLiteral("length");
    prototype.setProperty(name, 0, QScriptValue::SkipInEnumeration);
    prototype.setProperty(name, engine->newFunction(length),
                          QScriptValue::PropertyGetter | QScriptValue::SkipInEnumeration);
    addMember(engine, &prototype, "get", get);
    addMember(engine, &prototype, "slice", slice);
    addMember(engine, &prototype, "toHex", toHex);
    addMember(engine, &prototype, "toBase64", toBase64);
    addMember(engine, &prototype, "toText", toText);
    engine->setDefaultPrototype(QMetaType::QByteArray, prototype);
    engine->setDefaultPrototype(QMetaType::QTime, newPrototype(engine, QVariant(QTime())));
    engine->globalObject().setProperty(QStringLiteral("bytes"), engine->newFunction(bytes, 2));
}
