#include "thread_fixture.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>

namespace
{

constexpr int threadSanitizerDivisor = 4;
constexpr int addressSanitizerDivisor = 3;

const char prelude[] = R"JS(
var delivered = [];
var outcomes = {};
function deliver(tag) {
    return function (result, error, age) {
        delivered.push(tag);
        var before = outcomes[tag] ? outcomes[tag].count : 0;
        outcomes[tag] = { result: result, error: error, age: age, count: before + 1 };
    };
}
)JS";

QScriptValue handleEvents(QScriptContext *, QScriptEngine *)
{
    drainEvents();
    return QScriptValue();
}

QScriptValue destroyNow(QScriptContext *context, QScriptEngine *)
{
    delete context->argument(0).toQObject();
    return QScriptValue();
}

} // namespace

ThreadFixture::ThreadFixture(const QString &driverName, const ScriptHostOptions &options)
    : host(options)
    , m_driverName(driverName)
{
    host.install(m_plugin.globalObject());
    QScriptEngine *engine = host.engine();
    QScriptValue global = engine->globalObject();
    global.setProperty(QStringLiteral("destroy"), engine->newFunction(destroyNow, 1));
    global.setProperty(QStringLiteral("handleEvents"), engine->newFunction(handleEvents));
    host.eval(QString::fromLatin1(prelude));
}

VEXT_SQL *ThreadFixture::closedConnection(const QString &name, const QString &database)
{
    const QScriptValue object = host.eval(
        QStringLiteral("%1 = new VEXT_SQL(%2); %1.driverName = %3; %1.databaseName = %4; %1")
            .arg(name, quoted(name), quoted(m_driverName), quoted(database)));
    return qobject_cast<VEXT_SQL *>(object.toQObject());
}

VEXT_SQL *ThreadFixture::connection(const QString &name, const QString &database)
{
    VEXT_SQL *made = closedConnection(name, database);
    made->open();
    return made;
}

QScriptValue ThreadFixture::eval(const QString &code, const char *callerFile, int callerLine)
{
    return host.eval(code, QStringLiteral("test.js"), 1, callerFile, callerLine);
}

bool ThreadFixture::queue(const QString &sql, const QString &tag)
{
    return eval(QStringLiteral("db.query_thread(deliver(%1), %2)")
                    .arg(quoted(tag.isEmpty() ? sql : tag), quoted(sql)))
        .toBool();
}

bool ThreadFixture::queueList(const QStringList &list, const QString &tag)
{
    const QJsonDocument json(QJsonArray::fromStringList(list));
    return eval(QStringLiteral("db.query_thread(deliver(%1), %2)")
                    .arg(quoted(tag), QString::fromUtf8(json.toJson(QJsonDocument::Compact))))
        .toBool();
}

QStringList ThreadFixture::delivered()
{
    return host.global(QStringLiteral("delivered")).toVariant().toStringList();
}

bool ThreadFixture::waitDelivered(int count, int ms)
{
    const QScriptValue list = host.global(QStringLiteral("delivered"));
    return waitUntil([&] { return list.property(QStringLiteral("length")).toInt32() >= count; },
                     ms);
}

QString ThreadFixture::json(const QString &expression)
{
    return eval(QStringLiteral("JSON.stringify(%1)").arg(expression)).toString();
}

bool waitStopped(const VEXT_SQL *connection, int ms)
{
    return waitUntil([connection] { return !connection->isRunning(); }, ms);
}

QString quoted(const QString &text)
{
    const QJsonDocument json(QJsonArray{text});
    const QString list = QString::fromUtf8(json.toJson(QJsonDocument::Compact));
    return list.mid(1, list.size() - 2);
}

QString threadConnectionName(const VEXT_SQL *connection)
{
    return connection->connectionName() + QStringLiteral("_thr");
}

int Stress::rounds(int normal)
{
#if defined(__SANITIZE_THREAD__)
    return qMax(1, normal / threadSanitizerDivisor);
#elif defined(__SANITIZE_ADDRESS__)
    return qMax(1, normal / addressSanitizerDivisor);
#else
    Q_UNUSED(threadSanitizerDivisor)
    Q_UNUSED(addressSanitizerDivisor)
    return normal;
#endif
}

quint32 Stress::seed()
{
    static const quint32 value = [] {
        bool given = false;
        const uint wanted = qEnvironmentVariableIntValue("VEXT_TEST_SEED", &given);
        const quint32 chosen = given ? wanted : QRandomGenerator::global()->generate() >> 1;
        qInfo("VEXT_TEST_SEED=%u", chosen);
        return chosen;
    }();
    return value;
}

bool Stress::ownAllocator()
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    return false;
#else
    return true;
#endif
}
