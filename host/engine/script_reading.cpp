#include "script_reading.h"

#include <QDateTime>
#include <QVariant>

#include <limits>

ExceptionGuard::ExceptionGuard(QScriptEngine *engine)
    : m_engine(engine)
    , m_hadException(engine->hasUncaughtException())
{
}

ExceptionGuard::~ExceptionGuard()
{
    if (!m_hadException && m_engine->hasUncaughtException())
        m_engine->clearExceptions();
}

QScriptValue ScriptReading::plainProperty(const QScriptValue &object, const QString &name)
{
    const QScriptValue::PropertyFlags flags = object.propertyFlags(name);
    // Properties of wrapped QObjects count as getters too, but those are ours to read.
    if (flags.testFlag(QScriptValue::PropertyGetter) &&
        !flags.testFlag(QScriptValue::QObjectMember))
        return QScriptValue();
    return object.property(name);
}

int ScriptReading::arrayLength(const QScriptValue &array)
{
    if (!array.isArray())
        return 0;
    const quint32 length = array.property(QStringLiteral("length")).toUInt32();
    const quint32 limit = std::numeric_limits<int>::max();
    return static_cast<int>(qMin(length, limit));
}

QString ScriptReading::variantText(const QVariant &variant)
{
    switch (static_cast<QMetaType::Type>(variant.userType())) {
    case QMetaType::QByteArray:
        return QLatin1String("0x") + QString::fromLatin1(variant.toByteArray().toHex());
    case QMetaType::QDateTime:
        return variant.toDateTime().toString(Qt::ISODateWithMs);
    case QMetaType::QTime:
        return variant.toTime().toString(Qt::ISODateWithMs);
    case QMetaType::QDate:
        return variant.toDate().toString(Qt::ISODate);
    default:
        break;
    }
    if (variant.canConvert<QString>())
        return variant.toString();
    return QStringLiteral("[%1]").arg(QString::fromLatin1(variant.typeName()));
}
