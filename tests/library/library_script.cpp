#include "library_script.h"

#include "local_databases.h"
#include "mariadb_server.h"
#include "postgres_server.h"

#include <QFile>
#include <QScriptEngine>
#include <QtTest>

namespace
{

constexpr int KnownSystems = 3; ///< the first of the databases

const char Helpers[] = R"js(
var ended = null;

function done(value) {
    ended = { value: value };
}

function told(error) {
    return error ? (error.kind || "thrown") + (error.code ? " " + error.code : "") : "none";
}

function open(parameters) {
    var db = new VEXT_SQL("test");
    for (var name in parameters) {
        db[name] = parameters[name];
    }
    if (!db.open()) {
        throw new Error(db.lastError);
    }
    return db;
}

function must(db, sql) {
    var result = db.query(sql);
    if (result === false) {
        throw new Error(sql + ": " + db.lastError);
    }
    return result;
}

var longest = 0;

function watchTimers() {
    vext.timers(function (task, ms) {
        longest = Math.max(longest, ms);
        return setTimeout(task, ms);
    }, clearTimeout);
}
)js";

} // namespace

LibraryScript::LibraryScript(Host host)
    : DatabaseScript(QStringLiteral(VEXT_SOURCE_DIR))
{
    if (host == Host::WithTimers) {
        m_timers = std::make_unique<Timers>();
        m_timers->install(this->host().engine());
    }
    eval(QString::fromUtf8(Helpers));
    QFile file(QStringLiteral(VEXT_SOURCE_DIR "/library/vext.js"));
    if (!file.open(QIODevice::ReadOnly))
        QTest::qFail(qPrintable(file.errorString()), __FILE__, __LINE__);
    this->host().eval(QString::fromUtf8(file.readAll()), QStringLiteral("vext.js"));
}

LibraryScript::~LibraryScript()
{
    if (m_timers)
        m_timers->clear();
}

QString LibraryScript::outcome(const QString &code, int ms, const char *file, int line)
{
    eval(QStringLiteral("ended = null"));
    eval(code, file, line);
    return awaitOutcome(ms);
}

QString LibraryScript::awaitOutcome(int ms)
{
    // Not waitFor(): an exception in a callback has to be told as well.
    QScriptEngine *engine = host().engine();
    QString thrown;
    const bool came = host().waitFor(
        [&] {
            if (engine->hasUncaughtException() && thrown.isEmpty())
                thrown = engine->uncaughtException().toString();
            return engine->globalObject().property(QStringLiteral("ended")).isObject();
        },
        ms);
    if (!came)
        return QStringLiteral("done() was not called in time; %1").arg(thrown);
    return eval(QStringLiteral("String(JSON.stringify(ended.value))")).toString();
}

QString literalOf(const ConnectionParameters &parameters)
{
    const auto quoted = [](QString text) {
        text.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
        text.replace(QLatin1Char('"'), QStringLiteral("\\\""));
        return QLatin1Char('"') + text + QLatin1Char('"');
    };
    return QStringLiteral("{driverName: %1, databaseName: %2, userName: %3, password: %4, "
                          "hostName: %5, port: %6, connectOptions: %7}")
        .arg(quoted(parameters.driverName), quoted(parameters.databaseName),
             quoted(parameters.userName), quoted(parameters.password), quoted(parameters.hostName),
             QString::number(parameters.port), quoted(parameters.connectOptions));
}

LibraryDatabases::LibraryDatabases()
{
    m_entries.push_back({std::make_unique<SqliteDatabase>(), {}});
    auto postgres = std::make_unique<PostgresServer>();
    const PostgresServer *server = postgres.get();
    m_entries.push_back({std::move(postgres), {}});
    m_entries.push_back({std::make_unique<MariaDbServer>(), {}});
    m_entries.push_back({std::make_unique<FirebirdDatabase>(), {}});
    m_entries.push_back({std::make_unique<OdbcSource>(OdbcSource::Behind::PostgreSql, server), {}});
    m_entries.back().behind = 1;
}

LibraryDatabases::~LibraryDatabases()
{
    while (!m_entries.empty())
        m_entries.pop_back(); // the source behind its server
}

bool LibraryDatabases::isReady(Entry &entry)
{
    if (!entry.asked) {
        entry.asked = true;
        if (entry.behind >= 0)
            isReady(m_entries.at(size_t(entry.behind)));
        if (entry.database->available(&entry.reason) && !entry.database->start()) {
            entry.reason = entry.database->name() + QStringLiteral(": ") + entry.database->error();
            QTest::qFail(qPrintable(entry.reason), __FILE__, __LINE__);
        }
    }
    return entry.reason.isEmpty();
}

void LibraryDatabases::addRows(Systems systems)
{
    QTest::addColumn<QString>("parameters");
    QTest::addColumn<QString>("skip");
    for (Entry &entry : m_entries) {
        if (systems == Systems::Known && &entry - m_entries.data() >= KnownSystems)
            break;
        const bool there = isReady(entry);
        QTest::newRow(qPrintable(entry.database->name()))
            << (there ? literalOf(entry.database->parameters()) : QString()) << entry.reason;
    }
}

TestDatabase *LibraryDatabases::find(const QString &name)
{
    for (Entry &entry : m_entries) {
        if (entry.database->name() == name && isReady(entry))
            return entry.database.get();
    }
    return nullptr;
}
