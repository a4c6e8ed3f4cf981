#include "statistics.h"

#include "own_properties.h"

#include <QMutexLocker>
#include <QObject>
#include <QScriptEngine>
#include <QScriptValue>

#include <algorithm>

namespace
{

constexpr QScriptValue::PropertyFlags Fixed = QScriptValue::ReadOnly | QScriptValue::Undeletable;

/// "place name" for each subscription, the places padded to the longest of them.
QStringList subscriptionTexts(const QStringList &names, const QStringList &places)
{
    int width = 0;
    for (const QString &place : places)
        width = std::max(width, place.size());
    QStringList texts;
    for (int i = 0; i < names.size(); ++i)
        texts << QStringLiteral("%1 %2").arg(places.value(i).leftJustified(width), names.at(i));
    return texts;
}

QScriptValue textArray(QScriptEngine *engine, const QStringList &texts)
{
    QScriptValue array = engine->newArray(uint(texts.size()));
    const WithoutPrototype bare(engine, array);
    for (int i = 0; i < texts.size(); ++i)
        array.setProperty(quint32(i), QScriptValue(engine, texts.at(i)));
    return array;
}

} // namespace

QScriptValue Statistics::toScript(QScriptEngine *engine, bool ofProcess) const
{
    QScriptValue object = engine->newObject();
    const WithoutPrototype bare(engine, object);
    const auto text = [&](const char *key, const QString &value) {
        object.setProperty(QLatin1String(key), QScriptValue(engine, value), Fixed);
    };
    const auto number = [&](const char *key, double value) {
        object.setProperty(QLatin1String(key), QScriptValue(engine, value), Fixed);
    };
    if (ofProcess)
        text("postName", postName);
    text("connectionName", connectionName);
    number("is_opened", isOpen ? 1 : 0);
    number("cnt_open", opens);
    number("cnt_opened", opened);
    number("cnt_closed", closed);
    number("cnt_sql_ok", statements);
    number("cnt_sql_er", failures);
    text("driver", driver);
    text("database", database);
    text("user", user);
    text("host", host);
    if (ofProcess) {
        object.setProperty(QStringLiteral("subscribeEvents"),
                           textArray(engine, subscriptionTexts(events, eventPlaces)), Fixed);
    }
    text("dbObjectName", ownerName);
    if (isRunning) {
        number("thr_sql_queue", queue);
        number("thr_sql_finish", finished);
        number("thr_notUsedMs", idleMs);
        number("thr_sql_currMs", currentMs);
    }
    return object;
}

void ShownNames::follow(const QObject *context, const QObject *owner, const QObject *post)
{
    set(&Texts::owner, owner->objectName());
    QObject::connect(owner, &QObject::objectNameChanged, context,
                     [this](const QString &name) { set(&Texts::owner, name); });
    if (!post)
        return;
    set(&Texts::post, post->objectName());
    QObject::connect(post, &QObject::objectNameChanged, context,
                     [this](const QString &name) { set(&Texts::post, name); });
}

ShownNames::Texts ShownNames::texts() const
{
    QMutexLocker locker(&m_mutex);
    return m_texts;
}

void ShownNames::set(QString Texts::*text, const QString &name)
{
    QMutexLocker locker(&m_mutex);
    m_texts.*text = name;
}
