/// @file
/// MariaDB's modes that change what a string is: placeholders are found where the server sees them,
/// and no value ever breaks out of its literal.

#include "layer_path.h"
#include "layered_systems.h"

#include <QRandomGenerator>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QtTest>

namespace
{

const QString Connection = QStringLiteral("modes");
const QString MariaDb = QStringLiteral("MariaDB");
const QString PlainBackslash = QStringLiteral("NO_BACKSLASH_ESCAPES");
const QString AnsiQuotes = QStringLiteral("ANSI_QUOTES");

/// A text whose placeholders are others in another mode. Each has one value bound to it.
struct Probe {
    const char *text;
    /// What comes back in each mode; null where the text has no placeholder.
    const char *plain;   ///< neither mode
    const char *literal; ///< NO_BACKSLASH_ESCAPES
    const char *ansi;    ///< ANSI_QUOTES
    const char *both;
};

/// Where it broke out of its literal, the second column would tell.
const char Value[] = "',(SELECT 'broken out'),'\"";

const Probe Probes[] = {
    {"SELECT '\\', ? -- '", nullptr, "\\|VALUE", nullptr, "\\|VALUE"},
    {"SELECT '\\', '?'", "error", nullptr, "error", nullptr},
    {"SELECT '\\'', ?", "'|VALUE", nullptr, "'|VALUE", nullptr},
    {"SELECT 'a' AS \"b\\\", ? AS `c\"`", nullptr, "a|VALUE", "a|VALUE", "a|VALUE"},
    {"SELECT '?\\' AS \"?\", ? -- '", nullptr, "?\\|VALUE", nullptr, "?\\|VALUE"},
    {"SELECT \"?\", ?", "?|VALUE", "?|VALUE", "error", "error"},
};

QString utf8(const char *text)
{
    return QString::fromUtf8(text);
}

} // namespace

class TestDriverModes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void placeholdersAreThoseOfTheMode_data();
    void placeholdersAreThoseOfTheMode();
    void modeMayChangeBetweenPrepareAndExec_data();
    void modeMayChangeBetweenPrepareAndExec();
    void modeOfTheServerHoldsFromTheFirstStatement();
    void everyTextComesBackAsItWas_data();
    void everyTextComesBackAsItWas();
    void noValueBreaksOutInAnotherCharacterSet_data();
    void noValueBreaksOutInAnotherCharacterSet();

private:
    QString run(const QString &sql, const QVariantList &values = {});
    QString mode();
    void probe();
    static QString randomText(QRandomGenerator &random);

    LayeredSystems m_systems;
};

void TestDriverModes::initTestCase()
{
    useDriverLayer();
}

void TestDriverModes::init()
{
    USE_SYSTEM(m_systems, MariaDb);
    QSqlDatabase db = m_systems.mariadb().parameters().database(Connection);
    QVERIFY2(db.open(), qPrintable(db.lastError().text()));
}

void TestDriverModes::cleanup()
{
    if (!QSqlDatabase::contains(Connection))
        return;
    QSqlDatabase::database(Connection, false).close();
    QSqlDatabase::removeDatabase(Connection);
}

/// The columns of the first row, or "error: TEXT".
QString TestDriverModes::run(const QString &sql, const QVariantList &values)
{
    QSqlQuery query(QSqlDatabase::database(Connection));
    bool done = false;
    if (values.isEmpty()) {
        done = query.exec(sql);
    } else {
        done = query.prepare(sql);
        for (const QVariant &value : values)
            query.addBindValue(value);
        done = done && query.exec();
    }
    if (!done)
        return QStringLiteral("error: ") + query.lastError().text();
    if (!query.next())
        return QString();
    QStringList row;
    for (int i = 0; i < query.record().count(); ++i)
        row.append(query.value(i).toString());
    return row.join(QLatin1Char('|'));
}

QString TestDriverModes::mode()
{
    return run(QStringLiteral("SELECT @@sql_mode"));
}

/// Each probe has to mean what it means in the mode that the server says.
void TestDriverModes::probe()
{
    const QString now = mode();
    const bool isPlain = now.contains(PlainBackslash);
    const bool isAnsi = now.contains(AnsiQuotes);
    for (const Probe &probe : Probes) {
        const char *expected =
            isPlain ? (isAnsi ? probe.both : probe.literal) : (isAnsi ? probe.ansi : probe.plain);
        const QString row = run(utf8(probe.text), {utf8(Value)});
        const QByteArray seen = probe.text + QByteArray("  [") + now.toUtf8() + "] " + row.toUtf8();
        QVERIFY2(!row.contains(QLatin1String("|broken out")), seen.constData());
        if (!expected)
            QVERIFY2(row.contains(QLatin1String("placeholders for 0, but 1")), seen.constData());
        else if (qstrcmp(expected, "error") == 0)
            QVERIFY2(row.startsWith(QLatin1String("error: ")), seen.constData());
        else
            QVERIFY2(row == utf8(expected).replace(QLatin1String("VALUE"), utf8(Value)),
                     seen.constData());
    }
}

void TestDriverModes::placeholdersAreThoseOfTheMode_data()
{
    QTest::addColumn<QStringList>("setUp");
    const auto row = [](const char *name, const QStringList &setUp) {
        QTest::newRow(name) << setUp;
    };
    const QString set = QStringLiteral("SET sql_mode = '%1'");
    const QString procedure = QStringLiteral(
        "CREATE OR REPLACE PROCEDURE changes_mode() BEGIN SET sql_mode = '%1'; %2 END");
    row("as the server starts", {});
    row("no backslashes", {set.arg(PlainBackslash)});
    row("ANSI quotes", {set.arg(AnsiQuotes)});
    row("both", {set.arg(PlainBackslash + QLatin1Char(',') + AnsiQuotes)});
    row("ANSI", {set.arg(QStringLiteral("ANSI"))});
    row("set and taken back", {set.arg(PlainBackslash), set.arg(QString())});
    row("as a session variable",
        {QStringLiteral("SET @@session.sql_mode = CONCAT(@@sql_mode, ',%1')").arg(PlainBackslash)});
    row("from dynamic SQL",
        {QStringLiteral("EXECUTE IMMEDIATE CONCAT('SET sql_mode = ''', '%1', '''')")
             .arg(PlainBackslash)});
    row("by a procedure, which has a mode of its own",
        {procedure.arg(PlainBackslash, QString()), QStringLiteral("CALL changes_mode()")});
    row("by a procedure, and back", {procedure.arg(QString(), QString()), set.arg(PlainBackslash),
                                     QStringLiteral("CALL changes_mode()")});
    row("by a function", {QStringLiteral("CREATE OR REPLACE FUNCTION sets_mode() RETURNS INTEGER "
                                         "BEGIN SET sql_mode = '%1'; RETURN 1; END")
                              .arg(PlainBackslash),
                          QStringLiteral("SELECT sets_mode()")});
    row("by a procedure that fails",
        {procedure.arg(PlainBackslash, QStringLiteral("SELECT 1 FROM nowhere;")),
         QStringLiteral("CALL changes_mode()")});
    row("by a block that fails",
        {QStringLiteral("BEGIN NOT ATOMIC SET sql_mode = '%1'; SELECT 1 FROM nowhere; END")
             .arg(PlainBackslash)});
    row("by the first of two statements, the second of which fails",
        {set.arg(PlainBackslash) + QStringLiteral("; SELECT 1 FROM nowhere")});
    row("by the second of two statements",
        {QStringLiteral("SELECT 1; ") + set.arg(PlainBackslash)});
    row("in a comment that is run", {QStringLiteral("/*!SET sql_mode = '%1'*/").arg(AnsiQuotes)});
    row("for one statement",
        {QStringLiteral("SET STATEMENT sql_mode = '%1' FOR SELECT 1").arg(PlainBackslash)});
    row("for the server, which changes no open session",
        {QStringLiteral("SET @before = @@global.sql_mode"),
         QStringLiteral("SET GLOBAL sql_mode = '%1'").arg(PlainBackslash),
         QStringLiteral("SET GLOBAL sql_mode = @before")});
}

void TestDriverModes::placeholdersAreThoseOfTheMode()
{
    QFETCH(QStringList, setUp);
    for (const QString &sql : qAsConst(setUp))
        run(sql); // some are to fail
    probe();
    // The texts of the other mode were kept, or prepared, meanwhile.
    run(QStringLiteral("SET sql_mode = IF(@@sql_mode LIKE '%BACK%', '', '%1')")
            .arg(PlainBackslash));
    if (!QTest::currentTestFailed())
        probe();
}

void TestDriverModes::modeMayChangeBetweenPrepareAndExec_data()
{
    QTest::addColumn<QString>("mode");
    QTest::newRow("no backslashes") << PlainBackslash;
    QTest::newRow("ANSI quotes") << AnsiQuotes;
    QTest::newRow("both") << PlainBackslash + QLatin1Char(',') + AnsiQuotes;
}

void TestDriverModes::modeMayChangeBetweenPrepareAndExec()
{
    QFETCH(QString, mode);
    run(QStringLiteral("SET sql_mode = ''"));
    QSqlQuery query(QSqlDatabase::database(Connection));
    QVERIFY(query.prepare(QStringLiteral("SELECT '\\', '?")));
    QVERIFY(query.prepare(QStringLiteral("SELECT '\\'', \"?\", ?, '") + QLatin1Char('\'')));
    query.addBindValue(utf8(Value));
    QVERIFY2(query.exec() && query.next(), qPrintable(query.lastError().text()));
    QCOMPARE(query.value(2).toString(), utf8(Value));
    run(QStringLiteral("SET sql_mode = '%1'").arg(mode));
    if (query.exec() && query.next())
        QVERIFY(query.record().count() == 4 && query.value(2).toString() == utf8(Value));
    else
        QVERIFY(query.lastError().isValid());
    query.clear();
    probe();
}

void TestDriverModes::modeOfTheServerHoldsFromTheFirstStatement()
{
    const QString before = run(QStringLiteral("SELECT @@global.sql_mode"));
    run(QStringLiteral("SET GLOBAL sql_mode = '%1,%2'").arg(PlainBackslash, AnsiQuotes));
    QSqlDatabase db = QSqlDatabase::database(Connection);
    QVERIFY(db.open());
    const QString row = run(utf8(Probes[0].text), {utf8(Value)});
    probe();
    QVERIFY(mode().contains(PlainBackslash));
    run(QStringLiteral("SET GLOBAL sql_mode = '%1'").arg(before));
    QCOMPARE(row, QStringLiteral("\\|") + utf8(Value));
}

void TestDriverModes::everyTextComesBackAsItWas_data()
{
    QTest::addColumn<QString>("mode");
    QTest::newRow("as the server starts") << QString();
    modeMayChangeBetweenPrepareAndExec_data();
}

QString TestDriverModes::randomText(QRandomGenerator &random)
{
    static const QVector<QString> parts{QStringLiteral("'"),
                                        QStringLiteral("\\"),
                                        QStringLiteral("\""),
                                        QStringLiteral("`"),
                                        QStringLiteral("''"),
                                        QStringLiteral("\\'"),
                                        QStringLiteral("?"),
                                        QStringLiteral(":a"),
                                        QStringLiteral("-- "),
                                        QStringLiteral("/*"),
                                        QStringLiteral("*/"),
                                        QStringLiteral("#"),
                                        QStringLiteral(";"),
                                        QStringLiteral("%"),
                                        QStringLiteral("\n"),
                                        QStringLiteral("\r"),
                                        QStringLiteral("\x1a"),
                                        QString(QChar(0)),
                                        utf8("\U0001F600"),
                                        utf8("жук"),
                                        utf8("世"),
                                        QString(QChar(0xd83d)),
                                        QString(QChar(0xde00)),
                                        QStringLiteral("x")};
    QString text = QStringLiteral(""); // empty, which is not NULL
    const int length = int(random.bounded(12));
    for (int i = 0; i < length; ++i)
        text += parts.at(int(random.bounded(parts.size())));
    return text;
}

/// By literals (SELECT, CALL) and by the server's own placeholders (INSERT), side by side with a
/// value that must stay where it is.
void TestDriverModes::everyTextComesBackAsItWas()
{
    QFETCH(QString, mode);
    run(QStringLiteral("CREATE OR REPLACE PROCEDURE echoes(a LONGTEXT CHARACTER SET utf8mb4, "
                       "b INTEGER) SELECT a, b"));
    run(QStringLiteral("CREATE OR REPLACE TABLE texts (a LONGTEXT CHARACTER SET utf8mb4, "
                       "b INTEGER)"));
    run(QStringLiteral("SET sql_mode = '%1'").arg(mode));
    const quint32 seed = QRandomGenerator::global()->generate();
    QRandomGenerator random(seed);
    for (int round = 0; round < 400; ++round) {
        const QString text = randomText(random);
        // Half a pair of surrogates has no form in UTF-8.
        const QByteArray bytes = text.toUtf8();
        const QString whole = QString::fromUtf8(bytes.constData(), bytes.size());
        const QByteArray what = "seed " + QByteArray::number(seed) + ", round " +
                                QByteArray::number(round) + ": " + bytes.toHex();
        const auto same = [&](const char *sql, const QVariantList &values, const QString &row) {
            const QString seen = run(utf8(sql), values);
            QVERIFY2(seen == row, what + "  " + sql + "  " + seen.toUtf8().toHex());
        };
        const QString expected = whole + QStringLiteral("|7");
        same("SELECT ?, ?", {text, 7}, expected);
        same("SELECT?,'?',?", {text, 7}, whole + QStringLiteral("|?|7"));
        if (round % 4 == 0) {
            same("CALL echoes(?, ?)", {text, 7}, expected);
            run(QStringLiteral("DELETE FROM texts"));
            same("INSERT INTO texts VALUES (?, ?)", {text, 7}, QString());
            same("SELECT a, b FROM texts", {}, expected);
            same("SELECT b FROM texts WHERE a = ?", {QVariant(text)}, QStringLiteral("7"));
        }
        if (QTest::currentTestFailed())
            return;
    }
}

void TestDriverModes::noValueBreaksOutInAnotherCharacterSet_data()
{
    QTest::addColumn<QString>("characterSet");
    // Some have characters whose second byte is a backslash.
    for (const char *name : {"gbk", "big5", "sjis", "cp932", "eucjpms", "euckr", "latin1"})
        QTest::newRow(name) << utf8(name);
}

void TestDriverModes::noValueBreaksOutInAnotherCharacterSet()
{
    QFETCH(QString, characterSet);
    const quint32 seed = QRandomGenerator::global()->generate();
    QRandomGenerator random(seed);
    for (const char *mode : {"", "NO_BACKSLASH_ESCAPES"}) {
        run(QStringLiteral("SET sql_mode = '%1'").arg(utf8(mode)));
        QCOMPARE(run(QStringLiteral("SET NAMES %1").arg(characterSet)), QString());
        for (int round = 0; round < 100; ++round) {
            const QString text = randomText(random) + utf8("世\xc2\xbf") + randomText(random);
            const QString seen = run(QStringLiteral("SELECT 7, LENGTH(?) > 0, 8, ''"), {text});
            const QByteArray what = "seed " + QByteArray::number(seed) + ", round " +
                                    QByteArray::number(round) + ": " + text.toUtf8().toHex() +
                                    "  " + seen.toUtf8();
            QVERIFY2(seen == QLatin1String("7|1|8|"), what.constData());
        }
    }
}

QTEST_GUILESS_MAIN(TestDriverModes)

#include "test_driver_modes.moc"
