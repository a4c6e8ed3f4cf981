#include "script_cell.h"

#include <QMetaType>
#include <QScriptEngine>
#include <QVariant>

QScriptValue ScriptCell::toScript(QScriptEngine *engine, const QVariant &value, bool enableNull)
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
    default:
        return engine->toScriptValue(value);
    }
}
