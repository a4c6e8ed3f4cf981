#include "connection_watch.h"

#include "script_place.h"
#include "script_reading.h"

#include <QMetaObject>
#include <QScriptEngine>
#include <QStringList>
#include <QVariant>

namespace
{

/// A call, because the macro is one in a debug build.
const char *finishSignal()
{
    return SIGNAL(query_finish(QScriptValue, QScriptValue, QScriptValue, QScriptValue));
}

/// Gives access to the number of receivers, which an object tells its own class only.
class Receivers : public QObject
{
public:
    static int count(const QObject *object, const char *signal)
    {
        return (object->*(&Receivers::receivers))(signal);
    }
};

bool hasSignal(const QObject *object, const char *signature)
{
    return object->metaObject()->indexOfSignal(signature) >= 0;
}

/// The host's own connection is one; scripts that listen are more.
bool hasHandler(const QObject *connection)
{
    return Receivers::count(connection, QMetaObject::normalizedSignature(finishSignal())) > 1;
}

/// The first text in an error, which for several statements is an array of texts and false.
QString errorText(const QScriptValue &error)
{
    const int count = ScriptReading::arrayLength(error);
    for (int i = 0; i < count; ++i) {
        const QScriptValue item = ScriptReading::plainProperty(error, QString::number(i));
        if (item.isString())
            return item.toString();
    }
    return error.isString() ? error.toString() : QString();
}

/// The connection keeps the last statement and its error. Another task may have run since.
QString statementOf(QObject *connection, const QString &error)
{
    const QVariantMap last = connection->property("lastErrors").toMap();
    const bool isThisOne =
        !error.isEmpty() && last.value(QStringLiteral("databaseText")).toString() == error;
    return isThisOne ? connection->property("lastQuery").toString() : QString();
}

} // namespace

ConnectionWatch::ConnectionWatch(QScriptEngine *engine, QObject *parent)
    : QObject(parent)
    , m_engine(engine)
{
}

void ConnectionWatch::watch(QObject *connection)
{
    if (!hasSignal(connection, QMetaObject::normalizedSignature(finishSignal()).mid(1)))
        return; // another kind of object
    State state;
    state.object = connection;
    m_states.insert(connection, state);
    connect(connection, finishSignal(), this,
            SLOT(onQueryFinish(QScriptValue, QScriptValue, QScriptValue, QScriptValue)));
    connect(connection, SIGNAL(opened()), this, SLOT(onOpened()));
    connect(connection, SIGNAL(closed()), this, SLOT(onClosed()));
    connect(connection, SIGNAL(started()), this, SLOT(onStarted()));
    connect(connection, &QObject::destroyed, this,
            [this](QObject *object) { m_states.remove(object); });
}

void ConnectionWatch::onOpened()
{
    m_states[sender()].isOpened = true;
    emit opened(sender());
}

void ConnectionWatch::onClosed()
{
    // A statement that finds its connection lost closes it too.
    if (m_engine && ScriptPlace::isCalling(m_engine, QStringLiteral("close")))
        m_states[sender()].isOpened = false;
}

void ConnectionWatch::onStarted()
{
    m_states[sender()].hadTasks = true;
}

void ConnectionWatch::onQueryFinish(const QScriptValue &first, const QScriptValue &,
                                    const QScriptValue &third, const QScriptValue &fourth)
{
    const bool hasFailed = first.isBool() && !first.toBool() && fourth.isNumber();
    // What a script calls and waits for tells the script itself how it ended.
    const bool isAsynchronous = m_engine && !m_engine->isEvaluating();
    QObject *connection = sender();
    if (!hasFailed || !isAsynchronous || hasHandler(connection))
        return;
    const QString error = errorText(third);
    emit taskFailed(connection, error, statementOf(connection, error));
}

QList<QObject *> ConnectionWatch::connections() const
{
    QList<QObject *> list;
    for (const State &state : m_states) {
        if (state.object)
            list.append(state.object);
    }
    return list;
}

QList<QObject *> ConnectionWatch::lost() const
{
    QList<QObject *> list;
    for (const State &state : m_states) {
        if (!state.object || !state.isOpened)
            continue;
        const bool listened = !state.object->property("events").toStringList().isEmpty();
        const bool isOpen = state.object->property("isOpen").toBool();
        if (!isOpen && (listened || state.hadTasks))
            list.append(state.object);
    }
    return list;
}

QObject *ConnectionWatch::connectionOf(QObject *object) const
{
    while (object && !m_states.contains(object))
        object = object->parent();
    return object;
}
