// The records that carry work and its outcome: their defaults, and how a task ends.
#include "sql_records.h"

#include <QScriptEngine>
#include <QSqlField>
#include <QSqlRecord>
#include <QtTest>

#include <memory>

namespace
{

const QString ConnectionName = QStringLiteral("records");

int s_warnings = 0;

void countWarnings(QtMsgType type, const QMessageLogContext &, const QString &)
{
    if (type != QtDebugMsg && type != QtInfoMsg)
        ++s_warnings;
}

bool isBooleanFalse(const QScriptValue &value)
{
    return value.isValid() && value.isBool() && !value.toBool();
}

} // namespace

class TestRecords : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void taskKindsHaveTheirNumbers();
    void freshTaskHasItsDefaults();
    void taskOnADatabaseHasAQueryAtOnce();
    void freshResultHasItsDefaults();
    void timerRunsFromConstruction();
    void destructionFinishesAnActiveQuery();
    void releaseEndsAnActiveQuery();
    void releasedQueryIsGoneOnce();
    void destructionLetsScriptValuesGo();
    void recordsOutliveTheEngine();
    void recordsAreCopiedByValue();
    void taskTravelsAsAPointer();

private:
    std::unique_ptr<QSqlDatabase> m_db;
};

void TestRecords::init()
{
    m_db = std::make_unique<QSqlDatabase>(
        QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), ConnectionName));
    m_db->setDatabaseName(QStringLiteral(":memory:"));
    QVERIFY(m_db->open());
    QSqlQuery query(*m_db);
    QVERIFY(query.exec(QStringLiteral("create table t(a integer)")));
    QVERIFY(query.exec(QStringLiteral("insert into t values (1), (2), (3)")));
}

void TestRecords::cleanup()
{
    m_db.reset();
    // Qt warns here when a task left a query behind.
    s_warnings = 0;
    const QtMessageHandler before = qInstallMessageHandler(countWarnings);
    QSqlDatabase::removeDatabase(ConnectionName);
    qInstallMessageHandler(before);
    QCOMPARE(s_warnings, 0);
}

void TestRecords::taskKindsHaveTheirNumbers()
{
    QCOMPARE(int(taskSql), 0);
    QCOMPARE(int(taskTransaction), 1);
    QCOMPARE(int(taskCommit), 2);
    QCOMPARE(int(taskRollback), 3);
    QCOMPARE(sizeof(taskSqlType), sizeof(int));
}

void TestRecords::freshTaskHasItsDefaults()
{
    structThrSql task;
    QVERIFY(!task.sqlQuery);
    QVERIFY(task.timer.isValid());
    QVERIFY(isBooleanFalse(task.thisObject));
    QVERIFY(isBooleanFalse(task.func));
    QVERIFY(isBooleanFalse(task.result));
    QVERIFY(isBooleanFalse(task.error));
    QVERIFY(task.sqlList.isEmpty());
    QVERIFY(task.argsJs.isEmpty());
    QVERIFY(task.callArgs.isEmpty());
    QVERIFY(task.procArgs.isEmpty());
    QVERIFY(task.results.isEmpty());
    QVERIFY(!task.inThread);
    QVERIFY(!task.timing);
    QVERIFY(!task.failed);
    QVERIFY(!task.isProc);
    QVERIFY(!task.ok);
    QCOMPARE(task.current, 0);
    QCOMPARE(task.rowsAffected, 0);
    QCOMPARE(int(task.type), 0);
}

void TestRecords::taskOnADatabaseHasAQueryAtOnce()
{
    structThrSql task(*m_db);
    QVERIFY(task.sqlQuery);
    QVERIFY(task.sqlQuery->exec(QStringLiteral("select a from t")));
    QVERIFY(isBooleanFalse(task.error));
    QVERIFY(task.timer.isValid());
    QVERIFY(task.sqlList.isEmpty());
    QVERIFY(!task.ok && !task.failed);
}

void TestRecords::freshResultHasItsDefaults()
{
    const structSqlResult result;
    QCOMPARE(result.error.type(), QSqlError::NoError);
    QVERIFY(result.fields.isEmpty());
    QVERIFY(result.lastInsertId.isNull());
    QVERIFY(result.executedQuery.isEmpty());
    QVERIFY(result.lastQuery.isEmpty());
    QCOMPARE(result.index, 0);
    QCOMPARE(result.size, -1);
    QCOMPARE(result.numRowsAffected, 0);
    QVERIFY(!result.hasLastInsertId);
    QVERIFY(!result.canceled);

    const structSqlFieldResult field;
    QVERIFY(field.name.isEmpty());
    QCOMPARE(field.type, 0);
    QVERIFY(field.values.isEmpty());
    QVERIFY(field.nulls.isEmpty());
}

void TestRecords::timerRunsFromConstruction()
{
    structThrSql task;
    QTRY_VERIFY_WITH_TIMEOUT(task.timer.elapsed() >= 2, 5000);
}

// A query that is still reading keeps its table locked: dropping it shows that it was finished.
void TestRecords::destructionFinishesAnActiveQuery()
{
    auto task = std::make_unique<structThrSql>(*m_db);
    QVERIFY(task->sqlQuery->exec(QStringLiteral("select a from t")));
    QVERIFY(task->sqlQuery->next());
    QVERIFY(task->sqlQuery->isActive());
    QVERIFY(!QSqlQuery(*m_db).exec(QStringLiteral("drop table t")));

    task.reset();

    QVERIFY(QSqlQuery(*m_db).exec(QStringLiteral("drop table t")));
}

// Copies of a query share its result, so that a copy shows what happened to it before the delete.
void TestRecords::releaseEndsAnActiveQuery()
{
    structThrSql task(*m_db);
    QVERIFY(task.sqlQuery->exec(QStringLiteral("select a from t")));
    const QSqlQuery seen = *task.sqlQuery;
    task.releaseQuery();
    QVERIFY(!seen.isActive());
}

void TestRecords::releasedQueryIsGoneOnce()
{
    structThrSql task(*m_db);
    task.releaseQuery();
    QVERIFY(!task.sqlQuery);
    task.releaseQuery();
    QVERIFY(!task.sqlQuery);
}

void TestRecords::destructionLetsScriptValuesGo()
{
    QScriptEngine engine;
    QPointer<QObject> object = new QObject;
    {
        structThrSql task;
        task.callArgs << engine.newQObject(object, QScriptEngine::ScriptOwnership);
        task.thisObject = engine.newObject();
        engine.collectGarbage();
        QVERIFY(object);
    }
    // The engine's stack may still hold a copy of the wrapper's address for a while.
    for (int i = 0; object && i < 100; ++i) {
        engine.evaluate(QStringLiteral("(function f(n) { return n ? f(n - 1) : {}; })(50)"));
        engine.collectGarbage();
    }
    QVERIFY(!object);
}

void TestRecords::recordsOutliveTheEngine()
{
    auto engine = std::make_unique<QScriptEngine>();
    auto task = std::make_unique<structThrSql>();
    task->thisObject = engine->newObject();
    task->func = engine->evaluate(QStringLiteral("(function() {})"));
    task->result = engine->newArray(2);
    task->error = engine->newArray(2);
    task->argsJs << engine->newArray() << QScriptValue(engine.get(), 1);
    task->callArgs << engine->newDate(QDateTime::currentDateTime());

    engine.reset();
    QVERIFY(!task->func.isFunction());
    QVERIFY(!task->func.engine());
    task.reset();
}

void TestRecords::recordsAreCopiedByValue()
{
    structSqlFieldResult field;
    field.name = QStringLiteral("a");
    field.values << 1 << QVariant();
    field.nulls << 1;
    structSqlResult result;
    result.fields << field;

    QList<structSqlResult> results;
    results.append(result);
    field.values << 3;
    result.fields.first().values << 4;

    QCOMPARE(results.first().fields.first().values.size(), 2);
    QCOMPARE(results.first().fields.first().nulls, QList<uint>{1});
}

void TestRecords::taskTravelsAsAPointer()
{
    structThrSql task;
    const QVariant carried = QVariant::fromValue(&task);
    QCOMPARE(carried.value<structThrSql *>(), &task);
}

QTEST_GUILESS_MAIN(TestRecords)
#include "test_records.moc"
