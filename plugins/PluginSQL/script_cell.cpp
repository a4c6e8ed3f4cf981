#include "script_cell.h"

#include "local_clock.h"

#include <QMetaType>
#include <QScriptEngine>
#include <QVariant>

namespace
{

/// A Date; invalid where the engine itself has to make it.
QScriptValue quickDate(QScriptEngine *engine, const QVariant &value, LocalClock &clock)
{
    double ms = 0;
    // The values where they are: a conversion would copy them.
    const bool isKnown =
        value.userType() == QMetaType::QDate
            ? clock.toEpochMs(*static_cast<const QDate *>(value.constData()), &ms)
            : clock.toEpochMs(*static_cast<const QDateTime *>(value.constData()), &ms);
    return isKnown ? engine->newDate(ms) : QScriptValue();
}

} // namespace

QScriptValue ScriptCell::toScript(QScriptEngine *engine, const QVariant &value, bool enableNull,
                                  LocalClock *clock)
{
    const int type = value.userType();
    if (enableNull && (type == QMetaType::UnknownType || value.isNull()))
        return QScriptValue(engine, QScriptValue::NullValue);
    switch (type) {
    case QMetaType::UnknownType:
        return QScriptValue();
    case QMetaType::Bool:
        return QScriptValue(engine, value.toBool());
    case QMetaType::Int:
        return QScriptValue(engine, value.toInt());
    case QMetaType::UInt:
        return QScriptValue(engine, value.toUInt());
    case QMetaType::LongLong:
        return QScriptValue(engine, qsreal(value.toLongLong()));
    case QMetaType::ULongLong:
        return QScriptValue(engine, qsreal(value.toULongLong()));
    case QMetaType::Double:
        return QScriptValue(engine, value.toDouble());
    case QMetaType::QString:
        return QScriptValue(engine, value.toString());
    case QMetaType::Float:
        return QScriptValue(engine, qsreal(value.toFloat()));
    case QMetaType::QDate:
    case QMetaType::QDateTime:
        if (clock) {
            const QScriptValue date = quickDate(engine, value, *clock);
            if (date.isValid())
                return date;
        }
        return engine->toScriptValue(value);
    default:
        return engine->toScriptValue(value);
    }
}
