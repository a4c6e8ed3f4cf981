/// @file
/// Bound values through scripts, on every system of the layer and in both threads.

#include "database_script.h"
#include "layer_path.h"
#include "layered_systems.h"
#include "placeholder_cases.h"

#include <QtTest>

Q_DECLARE_METATYPE(Way)

namespace
{

QString utf8(const char *text)
{
    return QString::fromUtf8(text);
}

/// A JavaScript literal of a text.
QString quoted(QString text)
{
    text.replace(QLatin1Char('\\'), QLatin1String("\\\\"))
        .replace(QLatin1Char('"'), QLatin1String("\\\""))
        .replace(QLatin1Char('\n'), QLatin1String("\\n"));
    return QLatin1Char('"') + text + QLatin1Char('"');
}

} // namespace

class TestDriverPlaceholders : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void textWithPlaceholdersGivesWhatTheTableTells_data();
    void textWithPlaceholdersGivesWhatTheTableTells();
    void everyScriptValueArrives_data();
    void everyScriptValueArrives();
    void noValueIsCutOrEmptiedUnseen_data();
    void noValueIsCutOrEmptiedUnseen();
    void halfAPairOfAStatementEndsNoString_data() { everySystem(); }
    void halfAPairOfAStatementEndsNoString();
    void aThousandValuesAreFine_data() { everySystem(); }
    void aThousandValuesAreFine();
    void wrongNumberLeavesConnectionAndTransactionAlone_data() { everySystem(); }
    void wrongNumberLeavesConnectionAndTransactionAlone();

private:
    void everySystem();
    void useScript(const QString &system);
    QString seen(Way way, const QString &sql, const QString &values);

    LayeredSystems m_systems;
    std::map<QString, std::unique_ptr<DatabaseScript>> m_scripts;
    DatabaseScript *m_script = nullptr;
};

void TestDriverPlaceholders::initTestCase()
{
    useDriverLayer();
}

void TestDriverPlaceholders::cleanup()
{
    m_script = nullptr;
}

void TestDriverPlaceholders::everySystem()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<Way>("way");
    for (const QString &system : LayeredSystems::names()) {
        for (const Way way : {Way::Here, Way::Thread})
            QTest::addRow("%s, %s", qPrintable(system), qPrintable(wayName(way))) << system << way;
    }
}

/// One open connection a system, kept for all its rows, with fresh tables.
void TestDriverPlaceholders::useScript(const QString &system)
{
    std::unique_ptr<DatabaseScript> &script = m_scripts[system];
    if (!script) {
        script = std::make_unique<DatabaseScript>();
        script->eval(QStringLiteral(
            "var answer; function bound(way, text, values) {"
            "  answer = undefined;"
            "  if (way === 'here') {"
            "    var result = db.exec(text, values);"
            "    answer = { result: result, error: result === false ? db.lastError : false };"
            "    return;"
            "  }"
            "  db.exec_thread(function (result, error) {"
            "    answer = { result: result, error: error };"
            "  }, text, values);"
            "}"
            "function outcome() {"
            "  if (answer.error !== false || answer.result === false) return 'error: ' + "
            "answer.error;"
            "  return answer.result.fields > 0 ? rows(answer.result)"
            "                                  : 'changed: ' + answer.result.numRowsAffected;"
            "}"));
        QVERIFY(script->open(QStringLiteral("db"), m_systems.get(system).parameters()));
        const auto run = [&script](const QString &sql) {
            QVERIFY(script->mustRun(Way::Here, QStringLiteral("db"), sql));
        };
        // The same server as PostgreSQL's own rows use.
        if (system == QLatin1String("ODBC to PostgreSQL"))
            run(QStringLiteral("DROP TABLE IF EXISTS words, scratch"));
        const QString note = QStringLiteral("note ") + LayeredSystems::textType(system);
        run(QStringLiteral("CREATE TABLE words (id INTEGER PRIMARY KEY, %1)").arg(note));
        run(QStringLiteral("CREATE TABLE scratch (id INTEGER PRIMARY KEY, %1)").arg(note));
        for (const char *row : {"1, 'one'", "2, 'two'", "3, 'it''s'", "4, 'why?'"})
            run(QStringLiteral("INSERT INTO words VALUES (%1)").arg(utf8(row)));
        if (system == QLatin1String("PostgreSQL"))
            run(QStringLiteral("CREATE PROCEDURE add_scratch(a int, b text) LANGUAGE SQL AS "
                               "'INSERT INTO scratch VALUES (a, b)'"));
        if (system == QLatin1String("MariaDB"))
            run(QStringLiteral("CREATE PROCEDURE note_of(a INTEGER) "
                               "SELECT note FROM words WHERE id = a"));
        if (system == QLatin1String("Firebird")) {
            run(QStringLiteral("CREATE PROCEDURE note_of(a INTEGER) RETURNS (n VARCHAR(200)) AS "
                               "BEGIN SELECT note FROM words WHERE id = :a INTO :n; END"));
            run(QStringLiteral("CREATE PROCEDURE notes_from(a INTEGER) "
                               "RETURNS (id INTEGER, note VARCHAR(200)) AS BEGIN FOR SELECT id, "
                               "note FROM words WHERE id >= :a INTO :id, :note DO SUSPEND; END"));
        }
    }
    m_script = script.get();
    for (const char *sql : {"DELETE FROM scratch", "INSERT INTO scratch VALUES (7, 'seven')",
                            "INSERT INTO scratch VALUES (8, 'eight')"})
        QVERIFY(m_script->mustRun(Way::Here, QStringLiteral("db"), utf8(sql)));
}

QString TestDriverPlaceholders::seen(Way way, const QString &sql, const QString &values)
{
    m_script->eval(QStringLiteral("bound('%1', %2, %3)")
                       .arg(way == Way::Here ? QStringLiteral("here") : QStringLiteral("thread"),
                            quoted(sql), values));
    if (!m_script->waitFor(QStringLiteral("answer !== undefined")))
        return QStringLiteral("nothing");
    return m_script->eval(QStringLiteral("outcome()")).toString();
}

void TestDriverPlaceholders::textWithPlaceholdersGivesWhatTheTableTells_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<Way>("way");
    QTest::addColumn<QString>("sql");
    QTest::addColumn<QString>("values");
    QTest::addColumn<QString>("expected");
    for (const QString &system : LayeredSystems::names()) {
        for (const PlaceholderCase &row : placeholderCases()) {
            if (qstrcmp(row.systems, "*") != 0 && system != utf8(row.systems))
                continue;
            for (const Way way : {Way::Here, Way::Thread})
                QTest::addRow("%s, %s, %s", qPrintable(system), row.what, qPrintable(wayName(way)))
                    << system << way << utf8(row.sql) << utf8(row.values) << utf8(row.seen);
        }
    }
}

void TestDriverPlaceholders::textWithPlaceholdersGivesWhatTheTableTells()
{
    QFETCH(QString, system);
    QFETCH(Way, way);
    QFETCH(QString, sql);
    QFETCH(QString, values);
    QFETCH(QString, expected);
    USE_SYSTEM(m_systems, system);
    useScript(system);
    // Twice, since the second one may use what the first has left behind.
    for (int round = 0; round < 2; ++round) {
        useScript(system);
        const QString outcome = seen(way, sql, values);
        if (expected.startsWith(QLatin1String("error: "))) {
            QVERIFY2(outcome.startsWith(QLatin1String("error: ")) &&
                         outcome.contains(expected.mid(7)),
                     qPrintable(outcome));
        } else if (expected.endsWith(QLatin1Char('*'))) {
            QVERIFY2(!outcome.startsWith(QLatin1String("error: ")), qPrintable(outcome));
        } else {
            QCOMPARE(outcome, expected);
        }
        QVERIFY(m_script->isTrue(QStringLiteral("db.isOpen")));
    }
}

void TestDriverPlaceholders::everyScriptValueArrives_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("expected");
    const struct {
        const char *value;
        const char *expected;
    } values[] = {
        {"null", "null"},
        {"undefined", "null"},
        {"''", "string:"},
        {"'plain'", "string:plain"},
        {"\"it's\"", "string:it's"},
        {"'back\\\\slash'", "string:back\\slash"},
        {"'back\\\\'", "string:back\\"},
        {"'two\\nlines'", "string:two\nlines"},
        {"'Привет, 世界'", "string:Привет, 世界"},
        {"'smile \\ud83d\\ude00'", "string:smile \xF0\x9F\x98\x80"},
        {"'?, :a, $1, --'", "string:?, :a, $1, --"},
        {"42", "string:42"},
        {"-7", "string:-7"},
        {"'007'", "string:007"},
        {"0.1", "string:0.1"},
        // Half a pair of surrogates must not take the next character along.
        {"'a\\ud800b'", "string:a?b"},
        {"'a\\udc00'", "string:a?"},
        {"'\\ud800'", "string:?"},
    };
    for (const QString &system : LayeredSystems::names()) {
        for (const auto &row : values) {
            QString expected = utf8(row.expected);
            // The ODBC driver writes all digits that the number has in binary.
            if (system == QLatin1String("ODBC to PostgreSQL") && qstrcmp(row.value, "0.1") == 0)
                expected = QStringLiteral("string:0.10000000000000001");
            QTest::addRow("%s, %s", qPrintable(system), row.value)
                << system << utf8(row.value) << expected;
        }
    }
}

void TestDriverPlaceholders::everyScriptValueArrives()
{
    QFETCH(QString, system);
    QFETCH(QString, value);
    QFETCH(QString, expected);
    USE_SYSTEM(m_systems, system);
    for (const Way way : {Way::Here, Way::Thread}) {
        // The same text each time, so that later values meet a kept statement.
        useScript(system);
        QCOMPARE(seen(way, QStringLiteral("UPDATE scratch SET note = ? WHERE id = ?"),
                      QStringLiteral("[%1, 7]").arg(value)),
                 QStringLiteral("changed: 1"));
        QCOMPARE(seen(way, QStringLiteral("SELECT note FROM scratch WHERE id = ?"),
                      QStringLiteral("[7]")),
                 expected);
    }
}

/// Otherwise the string would go on behind its quote for the server, and not for the layer.
void TestDriverPlaceholders::halfAPairOfAStatementEndsNoString()
{
    QFETCH(QString, system);
    QFETCH(Way, way);
    USE_SYSTEM(m_systems, system);
    useScript(system);
    const QString text =
        QStringLiteral("SELECT id FROM words WHERE note <> 'a%1' AND id = ?").arg(QChar(0xd800));
    QCOMPARE(seen(way, text, QStringLiteral("[2]")), QStringLiteral("number:2"));
}

void TestDriverPlaceholders::noValueIsCutOrEmptiedUnseen_data()
{
    QTest::addColumn<QString>("system");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QString>("refusal"); ///< empty where the value is kept
    for (const QString &system : LayeredSystems::names()) {
        const bool isPostgres = system.endsWith(QLatin1String("PostgreSQL"));
        QTest::addRow("%s, null character", qPrintable(system))
            << system << "'a\\u0000b'" << (isPostgres ? "U+0000" : "");
        for (const char *value : {"[1, 2]", "{a: 1}", "/x/", "new Number(5)", "print"})
            QTest::addRow("%s, %s", qPrintable(system), value)
                << system << value << "a list or an object";
    }
    for (const char *value : {"NaN", "Infinity", "-Infinity"})
        QTest::addRow("MariaDB, %s", value) << "MariaDB" << value << "neither infinity nor NaN";
}

void TestDriverPlaceholders::noValueIsCutOrEmptiedUnseen()
{
    QFETCH(QString, system);
    QFETCH(QString, value);
    QFETCH(QString, refusal);
    USE_SYSTEM(m_systems, system);
    useScript(system);
    for (const Way way : {Way::Here, Way::Thread}) {
        const QString outcome =
            seen(way, QStringLiteral("UPDATE scratch SET note = ? WHERE id = ?"),
                 QStringLiteral("[%1, 7]").arg(value));
        if (!refusal.isEmpty()) {
            QVERIFY2(outcome.startsWith(QLatin1String("error: ")) && outcome.contains(refusal),
                     qPrintable(outcome));
            QVERIFY(m_script->isTrue(QStringLiteral("db.isOpen")));
            continue;
        }
        QVERIFY2(outcome.startsWith(QLatin1String("changed: ")), qPrintable(outcome));
        // The ODBC driver reads texts up to the first of them.
        if (system != QLatin1String("ODBC to SQLite"))
            QCOMPARE(seen(way, QStringLiteral("SELECT note FROM scratch WHERE id = ?"),
                          QStringLiteral("[7]")),
                     QStringLiteral("string:a%1b").arg(QChar(0)));
    }
}

void TestDriverPlaceholders::aThousandValuesAreFine()
{
    QFETCH(QString, system);
    QFETCH(Way, way);
    USE_SYSTEM(m_systems, system);
    useScript(system);
    m_script->eval(QStringLiteral("var many = []; for (var i = 0; i < 1000; ++i) many.push(i);"));
    QCOMPARE(seen(way, QStringLiteral("SELECT id FROM words WHERE id IN"), QStringLiteral("many")),
             QStringLiteral("number:1;number:2;number:3;number:4"));
}

void TestDriverPlaceholders::wrongNumberLeavesConnectionAndTransactionAlone()
{
    QFETCH(QString, system);
    QFETCH(Way, way);
    USE_SYSTEM(m_systems, system);
    useScript(system);
    const bool here = way == Way::Here;
    if (!here)
        QVERIFY(m_script->isTrue(QStringLiteral("db.start_thread()")));
    QVERIFY(m_script->isTrue(QStringLiteral("db.transaction()")));
    const QString insert = QStringLiteral("INSERT INTO scratch VALUES (?, ?)");
    QCOMPARE(seen(way, insert, QStringLiteral("[1, 'x']")), QStringLiteral("changed: 1"));
    QVERIFY(seen(way, insert, QStringLiteral("[2]")).contains(QLatin1String("for 2, but 1")));
    if (here)
        QCOMPARE(m_script->eval(QStringLiteral("db.lastErrors.type")).toInt32(), 2);
    QCOMPARE(seen(way, insert, QStringLiteral("[3, 'z']")), QStringLiteral("changed: 1"));
    QVERIFY(m_script->isTrue(QStringLiteral("db.commit()")));
    QCOMPARE(seen(way, QStringLiteral("SELECT id FROM scratch WHERE id < ? ORDER BY id"),
                  QStringLiteral("[5]")),
             QStringLiteral("number:1;number:3"));
}

QTEST_GUILESS_MAIN(TestDriverPlaceholders)

#include "test_driver_placeholders.moc"
