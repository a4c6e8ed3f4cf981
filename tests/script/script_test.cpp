#include "script_test.h"

#include <QCoreApplication>
#include <QSqlDatabase>

namespace
{

const QString workerModule = QStringLiteral("plugins/PluginSQL/vext_sql_thread");

} // namespace

ScriptTest::ScriptTest() = default;
ScriptTest::~ScriptTest() = default;

QObject *ScriptTest::pluginObject()
{
    if (!m_library) {
        m_library = std::make_unique<PluginLibrary>(QStringLiteral(VEXT_PLUGIN_FILE));
        if (!m_library->load())
            QTest::qFail(qPrintable(m_library->errorString()), __FILE__, __LINE__);
    }
    return m_library->globalObject();
}

void ScriptTest::initTestCase()
{
    m_server = std::make_unique<VextServerStub>(QCoreApplication::instance());
    QVERIFY(m_folder.isValid());
    QVERIFY(pluginObject());
}

void ScriptTest::init()
{
    m_expectedComplaints.clear();
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    ScriptHostOptions options;
    options.server = m_server.get();
    m_host = std::make_unique<ScriptHost>(options);
    m_host->install(pluginObject());
}

void ScriptTest::cleanup()
{
    destroyHost();
    drainEvents();
    QStringList left;
    for (const auto &server : m_stubs) {
        if (server->liveResults() != 0 || server->liveDrivers() != 0)
            left.append(server->record());
    }
    m_stubs.clear();
    QVERIFY2(left.isEmpty(), qPrintable(left.join(QLatin1Char('\n'))));
    const QStringList names = QSqlDatabase::connectionNames();
    QVERIFY2(names.isEmpty(), qPrintable(names.join(QLatin1Char(' '))));
    const QStringList complaints = m_log->qtComplaints(m_expectedComplaints);
    m_log.reset();
    QVERIFY2(complaints.isEmpty(), qPrintable(complaints.join(QLatin1Char('\n'))));
}

void ScriptTest::cleanupTestCase()
{
    if (m_library)
        m_library->deleteGlobalObject();
    m_server.reset();
}

void ScriptTest::destroyHost()
{
    m_host.reset();
}

StubServer &ScriptTest::makeStub(const QString &driverName, QSqlDriver::DbmsType dbms)
{
    m_stubs.push_back(std::make_unique<StubServer>(driverName, dbms));
    return *m_stubs.back();
}

void ScriptTest::openDb(const QString &driverName, const QString &databaseName)
{
    eval(QStringLiteral("var db = new VEXT_SQL(); db.driverName = '%1'; db.databaseName = '%2';")
             .arg(driverName, databaseName));
    if (!truth(QStringLiteral("db.open()")))
        QTest::qFail(qPrintable(text(QStringLiteral("db.lastError"))), __FILE__, __LINE__);
    forgetMessages();
}

void ScriptTest::openSqlite()
{
    openDb(QStringLiteral("QSQLITE"), path(QStringLiteral("base%1.sqlite").arg(++m_files)));
}

StubServer &ScriptTest::openStub(const QString &driverName, QSqlDriver::DbmsType dbms)
{
    StubServer &made = makeStub(driverName, dbms);
    openDb(driverName);
    made.clearRecord();
    return made;
}

QScriptValue ScriptTest::eval(const QString &code, int line)
{
    return m_host->eval(code, QStringLiteral("test.js"), 1, metaObject()->className(), line);
}

QString ScriptTest::text(const QString &expression, int line)
{
    return eval(expression, line).toString();
}

bool ScriptTest::truth(const QString &expression, int line)
{
    const QScriptValue value = eval(expression, line);
    return value.isBool() && value.toBool();
}

double ScriptTest::number(const QString &expression, int line)
{
    return eval(expression, line).toNumber();
}

QString ScriptTest::json(const QString &expression, int line)
{
    return eval(QStringLiteral("JSON.stringify(%1)").arg(expression), line).toString();
}

void ScriptTest::recordAnswers()
{
    eval(QStringLiteral("var answers = [], finished = [];"
                        "function record() { answers.push(Array.prototype.slice.call(arguments)); }"
                        "db.query_finish.connect(function() {"
                        "    finished.push(Array.prototype.slice.call(arguments)); });"));
}

bool ScriptTest::waitForAnswers(int count)
{
    return m_host->waitForScript(
        QStringLiteral("answers.length + finished.length >= %1").arg(count));
}

QStringList ScriptTest::sent() const
{
    QStringList found;
    const QVector<SinkMessage> messages = m_host->post()->messages();
    for (const SinkMessage &message : messages) {
        if (message.file == workerModule)
            found.append(QStringLiteral("%1 %2 ").arg(message.level).arg(message.function) +
                         message.text);
    }
    return found;
}

void ScriptTest::forgetMessages()
{
    drainEvents();
    m_host->post()->clear();
}

QStringList ScriptTest::criticalLines() const
{
    static const QRegularExpression time(
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\d-\\d\\d:\\d\\d:\\d\\d\\.\\d{3} "));
    QStringList found;
    const QVector<LogLine> lines = m_log->lines(QtCriticalMsg);
    for (const LogLine &line : lines)
        found.append(QString(line.text).remove(time));
    return found;
}

QStringList ScriptTest::debugLines(const QString &function) const
{
    const QRegularExpression head(
        QStringLiteral("^\\S+ vext_sql_thread:\\d+ %1 \\t ").arg(function));
    QStringList found;
    const QVector<LogLine> lines = m_log->lines(QtDebugMsg);
    for (const LogLine &line : lines) {
        const QRegularExpressionMatch match = head.match(line.text);
        if (match.hasMatch())
            found.append(line.text.mid(match.capturedLength()));
    }
    return found;
}
