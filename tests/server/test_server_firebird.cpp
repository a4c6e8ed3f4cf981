/// @file
/// Firebird's procedures and events, with the engine inside this process.

#include "database_script.h"
#include "driver_layer.h"
#include "local_databases.h"

#include <QtTest>

#include <ctime>

class TestServerFirebird : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup() { m_script.reset(); }

    void procedureIsCalledWithArguments_data();
    void procedureIsCalledWithArguments();
    void procedureWithoutOutputIsCalled();
    void procedureWithoutArgumentsIsCalled();
    void batchOfProceduresBindsItsOwnArguments();
    void selectableProcedureIsQueried();
    void exceptionOfAProcedureIsToldAsAnError();
    void plainStatementThroughExecIsAProcedureCall();
    void eventOfAnotherConnectionArrives();
    void eventArrivesAgainAfterCloseAndOpen();
    void subscribingAndClosingAtOnceIsSafe();
    void removedEventArrivesNoMore();
    void eventIsPostedAtCommitOnly();

private:
    bool open(const QString &name = QStringLiteral("db"))
    {
        return m_script->open(name, m_database.parameters());
    }
    bool post(const QString &event);

    FirebirdDatabase m_database;
    std::unique_ptr<DatabaseScript> m_script;
};

void TestServerFirebird::initTestCase()
{
    qputenv("TZ", "MSK-3");
    tzset();
    QString reason;
    if (!m_database.available(&reason))
        QSKIP(qPrintable(reason));
    QVERIFY2(m_database.start(), qPrintable(m_database.error()));
    DatabaseScript script;
    QVERIFY(script.open(QStringLiteral("db"), m_database.parameters()));
    const QStringList setUp{
        QStringLiteral("CREATE TABLE work (id INTEGER, note VARCHAR(40))"),
        QStringLiteral("CREATE EXCEPTION e_refused 'not today'"),
        QStringLiteral("CREATE PROCEDURE p_add (a INTEGER, b INTEGER) RETURNS (total INTEGER) AS "
                       "BEGIN total = a + b; END"),
        QStringLiteral("CREATE PROCEDURE p_big (a BIGINT) RETURNS (b BIGINT) AS "
                       "BEGIN b = a; END"),
        QStringLiteral("CREATE PROCEDURE p_num (a DOUBLE PRECISION) RETURNS (b DOUBLE PRECISION) "
                       "AS BEGIN b = a; END"),
        QStringLiteral("CREATE PROCEDURE p_text (a VARCHAR(40)) RETURNS (b VARCHAR(40)) AS "
                       "BEGIN b = a; END"),
        QStringLiteral("CREATE PROCEDURE p_time (a TIMESTAMP) RETURNS (b TIMESTAMP) AS "
                       "BEGIN b = a; END"),
        QStringLiteral("CREATE PROCEDURE p_blob (a BLOB) RETURNS (b BLOB) AS BEGIN b = a; END"),
        QStringLiteral("CREATE PROCEDURE p_note (a INTEGER, b VARCHAR(40)) AS "
                       "BEGIN INSERT INTO work VALUES (:a, :b); END"),
        QStringLiteral("CREATE PROCEDURE p_clear AS BEGIN DELETE FROM work; END"),
        QStringLiteral("CREATE PROCEDURE p_fail (a INTEGER) AS BEGIN EXCEPTION e_refused; END"),
        QStringLiteral("CREATE PROCEDURE p_count (n INTEGER) RETURNS (i INTEGER) AS "
                       "BEGIN i = 1; WHILE (i <= n) DO BEGIN SUSPEND; i = i + 1; END END")};
    for (const QString &sql : setUp)
        QVERIFY(script.mustRun(Way::Here, QStringLiteral("db"), sql));
}

void TestServerFirebird::init()
{
    m_script = std::make_unique<DatabaseScript>();
    m_script->eval(QStringLiteral("var heard = []; function hear(name, payload, source) { "
                                  "heard.push(name + '/' + source); }"));
    QVERIFY(open());
    QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), QStringLiteral("DELETE FROM work")));
}

bool TestServerFirebird::post(const QString &event)
{
    return m_script->mustRun(
        Way::Thread, QStringLiteral("db"),
        QStringLiteral("EXECUTE BLOCK AS BEGIN POST_EVENT '%1'; END").arg(event));
}

void TestServerFirebird::procedureIsCalledWithArguments_data()
{
    QTest::addColumn<QString>("procedure");
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("result");
    const auto add = [](const char *name, const char *procedure, const char *arguments,
                        const char *result) {
        QTest::newRow(name) << QString::fromUtf8(procedure) << QString::fromUtf8(arguments)
                            << QString::fromUtf8(result);
    };
    add("two integers", "p_add", "[2, 3]", "number:5");
    add("negative integer", "p_add", "[2, -3]", "number:-1");
    add("integer of 2^53", "p_big", "[9007199254740992]", "number:9007199254740992");
    add("fraction", "p_num", "[0.1]", "number:0.1");
    add("text", "p_text", "['жук €']", "string:жук €");
    add("quotes", "p_text", "[\"it's\"]", "string:it's");
    add("empty text", "p_text", "['']", "string:");
    add("null", "p_text", "[null]", "null");
    add("date", "p_time", "[new Date(2024, 1, 29, 12, 34, 56, 789)]",
        "date:2024-02-29T12:34:56.789");
    add("byte array", "p_blob", "[blob]", "variant:00ff41");
}

void TestServerFirebird::procedureIsCalledWithArguments()
{
    QFETCH(QString, procedure);
    QFETCH(QString, arguments);
    QFETCH(QString, result);
    m_script->eval(QStringLiteral("var blob = db.query(\"SELECT CAST(x'00ff41' AS BLOB) FROM "
                                  "RDB$DATABASE\").fields_index[0][0]"));

    m_script->eval(QStringLiteral("var direct = db.exec('%1', %2)").arg(procedure, arguments));
    QVERIFY2(m_script->isTrue(QStringLiteral("direct !== false")),
             qPrintable(m_script->eval(QStringLiteral("db.lastError")).toString()));
    QCOMPARE(m_script->eval(QStringLiteral("rows(direct)")).toString(), result);

    QVERIFY(m_script->isTrue(
        QStringLiteral("db.exec_thread(keep('p'), '%1', %2)").arg(procedure, arguments)));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QCOMPARE(m_script->text(QStringLiteral("delivered[0].error")), QStringLiteral("boolean:false"));
    QCOMPARE(m_script->eval(QStringLiteral("rows(delivered[0].result)")).toString(), result);
}

void TestServerFirebird::procedureWithoutOutputIsCalled()
{
    m_script->eval(QStringLiteral("var direct = db.exec('p_note', [1, 'direct']); "
                                  "db.exec_thread(keep('p'), 'p_note', [2, 'thread'])"));
    QVERIFY(m_script->isTrue(QStringLiteral("direct.fields === 0 && direct.rows === 0")));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QVERIFY(m_script->isTrue(QStringLiteral("delivered[0].result.fields === 0")));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"),
                            QStringLiteral("SELECT * FROM work ORDER BY id")),
             QStringLiteral("number:1|string:direct;number:2|string:thread"));
}

void TestServerFirebird::procedureWithoutArgumentsIsCalled()
{
    QVERIFY(m_script->isTrue(QStringLiteral("db.exec('p_note', [1, 'x']) !== false")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.exec('p_clear', []) !== false")));
    m_script->eval(QStringLiteral("db.exec_thread(keep('p'), 'p_clear', [])"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QCOMPARE(m_script->text(QStringLiteral("delivered[0].error")), QStringLiteral("boolean:false"));
    QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"),
                            QStringLiteral("SELECT COUNT(*) FROM work")),
             QStringLiteral("number:0"));
}

void TestServerFirebird::batchOfProceduresBindsItsOwnArguments()
{
    m_script->eval(QStringLiteral(
        "db.exec_thread(keep('batch'), ['p_note', 'p_add'], [[5, 'five'], [20, 22]])"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QCOMPARE(m_script->text(QStringLiteral("delivered[0].error")),
             QStringLiteral("array:boolean:false,boolean:false"));
    QCOMPARE(m_script->eval(QStringLiteral("rows(delivered[0].result[1])")).toString(),
             QStringLiteral("number:42"));
}

void TestServerFirebird::selectableProcedureIsQueried()
{
    for (const Way way : {Way::Here, Way::Thread}) {
        QCOMPARE(
            m_script->rows(way, QStringLiteral("db"), QStringLiteral("SELECT i FROM p_count(3)")),
            QStringLiteral("number:1;number:2;number:3"));
    }
}

void TestServerFirebird::exceptionOfAProcedureIsToldAsAnError()
{
    QVERIFY(m_script->isTrue(QStringLiteral("db.exec('p_fail', [1]) === false")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.lastError.indexOf('not today') >= 0")));
    // The layer gives the state HY000 instead, which is no number.
    QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.number")).toInt32(),
             driverLayerInUse() ? 0 : -836);
    m_script->eval(QStringLiteral("db.exec_thread(keep('p'), 'p_fail', [1])"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QVERIFY(m_script->isTrue(QStringLiteral("delivered[0].error.indexOf('not today') >= 0")));
}

void TestServerFirebird::plainStatementThroughExecIsAProcedureCall()
{
    if (driverLayerInUse()) { // which completes the statement's head
        m_script->eval(
            QStringLiteral("var direct = db.exec('INSERT INTO work VALUES', [1, 'x']); "
                           "db.exec_thread(keep('i'), 'INSERT INTO work VALUES', [2, 'y'])"));
        QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
        QVERIFY(m_script->isTrue(QStringLiteral("direct !== false && !delivered[0].error")));
        QCOMPARE(m_script->rows(Way::Here, QStringLiteral("db"),
                                QStringLiteral("SELECT * FROM work ORDER BY id")),
                 QStringLiteral("number:1|string:x;number:2|string:y"));
        return;
    }
    QVERIFY(m_script->isTrue(QStringLiteral("db.exec('INSERT INTO work VALUES', [1, 'x']) === "
                                            "false")));
    QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.number")).toInt32(), -104);
    m_script->eval(
        QStringLiteral("db.exec_thread(keep('i'), 'INSERT INTO work VALUES', [1, 'x'])"));
    QVERIFY(m_script->waitFor(QStringLiteral("delivered.length === 1")));
    QVERIFY(m_script->isTrue(QStringLiteral("delivered[0].error !== false")));
}

void TestServerFirebird::eventOfAnotherConnectionArrives()
{
    QVERIFY(m_script->isTrue(QStringLiteral("db.isSupportEvent")));
    m_script->eval(QStringLiteral("db.event.connect(hear)"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('stock')")));
    QCOMPARE(m_script->text(QStringLiteral("db.events")), QStringLiteral("array:string:stock"));
    for (int n = 1; n <= 3; ++n) {
        QVERIFY(post(QStringLiteral("stock")));
        QVERIFY(m_script->waitFor(QStringLiteral("heard.length === %1").arg(n)));
    }
    QCOMPARE(m_script->text(QStringLiteral("heard[0]")), QStringLiteral("string:stock/0"));
}

void TestServerFirebird::eventArrivesAgainAfterCloseAndOpen()
{
    m_script->eval(QStringLiteral("db.event.connect(hear)"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('stock')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.close() && db.open()")));
    QVERIFY(post(QStringLiteral("stock")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length === 1")));
}

void TestServerFirebird::subscribingAndClosingAtOnceIsSafe()
{
    // Every subscription fires once of its own accord, from a thread of the engine's.
    for (int round = 0; round < 200; ++round) {
        QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('stock')")));
        QVERIFY(m_script->isTrue(round % 2 == 0 ? QStringLiteral("db.close() && db.open() && "
                                                                 "db.rem_event('stock')")
                                                : QStringLiteral("db.rem_event('stock')")));
    }
    m_script->eval(QStringLiteral("db.event.connect(hear)"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('stock')")));
    QVERIFY(post(QStringLiteral("stock")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length === 1")));
}

void TestServerFirebird::removedEventArrivesNoMore()
{
    m_script->eval(QStringLiteral("db.event.connect(hear)"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('stock') && db.add_event('rest')")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.rem_event('stock')")));
    QVERIFY(post(QStringLiteral("stock")));
    QVERIFY(post(QStringLiteral("rest")));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length > 0")));
    QCOMPARE(m_script->text(QStringLiteral("heard")), QStringLiteral("array:string:rest/0"));
}

void TestServerFirebird::eventIsPostedAtCommitOnly()
{
    m_script->eval(QStringLiteral("db.event.connect(hear)"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.add_event('undone') && db.add_event('done')")));
    QVERIFY(open(QStringLiteral("other")));
    const QString block = QStringLiteral("EXECUTE BLOCK AS BEGIN POST_EVENT '%1'; END");
    QVERIFY(m_script->isTrue(QStringLiteral("other.transaction()")));
    QVERIFY(
        m_script->mustRun(Way::Here, QStringLiteral("other"), block.arg(QStringLiteral("undone"))));
    QVERIFY(m_script->isTrue(QStringLiteral("other.rollback()")));
    QVERIFY(
        m_script->mustRun(Way::Here, QStringLiteral("other"), block.arg(QStringLiteral("done"))));
    QVERIFY(m_script->waitFor(QStringLiteral("heard.length > 0")));
    QCOMPARE(m_script->text(QStringLiteral("heard")), QStringLiteral("array:string:done/0"));
}

QTEST_GUILESS_MAIN(TestServerFirebird)
#include "test_server_firebird.moc"
