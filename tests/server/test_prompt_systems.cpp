// .tables, .views and .schema at the prompt, on each database system.

#include "local_databases.h"
#include "mariadb_server.h"
#include "terminal_session.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#define VERIFY_SCREEN(condition) QVERIFY2(condition, m_session->screen().constData())

class TestPromptSystems : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void tablesAreListed_data() { systems(); }
    void tablesAreListed();
    void viewsAreListed_data() { systems(); }
    void viewsAreListed();
    void columnsOfATableAreTold_data();
    void columnsOfATableAreTold();
    void missingTableIsTold_data() { systems(); }
    void missingTableIsTold();
    void namesAreCompleted_data() { systems(); }
    void namesAreCompleted();

private:
    void systems();
    /// The text that a command brings, up to the next prompt.
    QByteArray answerTo(const QByteArray &line);

    QScopedPointer<PostgresServer> m_postgres{new PostgresServer};
    QScopedPointer<MariaDbServer> m_mariadb{new MariaDbServer};
    QScopedPointer<FirebirdDatabase> m_firebird{new FirebirdDatabase};
    QScopedPointer<OdbcSource> m_odbcPostgres{
        new OdbcSource(OdbcSource::Behind::PostgreSql, m_postgres.data())};
    QScopedPointer<OdbcSource> m_odbcSqlite{new OdbcSource(OdbcSource::Behind::Sqlite)};
    QVector<TestDatabase *> m_started;
    QStringList m_reasons; ///< why others could not be
    QTemporaryDir m_folder;
    QScopedPointer<TerminalSession> m_session;
};

namespace
{

/// The parameters as `.open @file` takes them.
QByteArray addressOf(const ConnectionParameters &own)
{
    QString text = own.driverName;
    const auto add = [&text](const char *keyword, const QString &value) {
        if (!value.isEmpty())
            text += QStringLiteral(" %1='%2'").arg(QLatin1String(keyword), value);
    };
    add("dbname", own.databaseName);
    add("user", own.userName);
    add("password", own.password);
    add("host", own.hostName);
    add("port", own.port > 0 ? QString::number(own.port) : QString());
    add("options", own.connectOptions);
    return text.toUtf8() + '\n';
}

} // namespace

void TestPromptSystems::initTestCase()
{
    QVector<TestDatabase *> all{m_postgres.data(), m_mariadb.data(), m_firebird.data(),
                                m_odbcPostgres.data(), m_odbcSqlite.data()};
    for (TestDatabase *database : qAsConst(all)) {
        QString reason;
        if (!database->available(&reason)) {
            m_reasons.append(reason);
            continue;
        }
        QVERIFY2(database->start(), qPrintable(database->error()));
        m_started.append(database);
    }
    if (m_started.isEmpty())
        QSKIP(qPrintable(m_reasons.join(QStringLiteral("; "))));
}

void TestPromptSystems::systems()
{
    QTest::addColumn<int>("number");
    for (int i = 0; i < m_started.size(); ++i)
        QTest::newRow(qPrintable(m_started.at(i)->name())) << i;
}

void TestPromptSystems::init()
{
    QFETCH(int, number);
    const QString name = m_folder.filePath(QStringLiteral("address"));
    QFile file(name);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(addressOf(m_started.at(number)->parameters()));
    file.close();
    m_session.reset(new TerminalSession(m_folder.path()));
    VERIFY_SCREEN(m_session->isRunning() && m_session->waitFor("vext> "));
    VERIFY_SCREEN(m_session->enter(".open @" + name.toUtf8(), "\nopened Q"));
    VERIFY_SCREEN(m_session->enter(".timing off", "\n"));
    VERIFY_SCREEN(m_session->enter("create table goods (id integer not null primary key, "
                                   "name varchar(20) default 'x', price numeric(8, 2));",
                                   "\n(done)\n"));
    VERIFY_SCREEN(m_session->enter("create view cheap_goods as select id, name from goods "
                                   "where price < 2;",
                                   "\n(done)\n"));
}

void TestPromptSystems::cleanup()
{
    if (m_session) { // what drivers write for themselves
        VERIFY_SCREEN(!m_session->screen().contains("numRowsAffected") &&
                      !m_session->screen().contains("lastInsertId"));
    }
    if (m_session && m_session->isRunning()) {
        m_session->enter("drop view cheap_goods;", "\n(done)\n");
        m_session->enter("drop table goods;", "\n(done)\n");
    }
    m_session.reset();
}

QByteArray TestPromptSystems::answerTo(const QByteArray &line)
{
    m_session->type(line + '\r');
    if (!m_session->waitFor(line + '\n'))
        return "the line did not appear";
    const int begin = m_session->screen().size();
    if (!m_session->waitFor("vext> "))
        return "no prompt came back";
    const QByteArray screen = m_session->screen();
    return screen.mid(screen.lastIndexOf(line + '\n', qMin(begin, screen.size())) + line.size());
}

void TestPromptSystems::tablesAreListed()
{
    const QByteArray all = answerTo(".tables").toLower();
    QVERIFY2(all.contains("goods\n") && !all.contains("cheap_goods"), all.constData());
    QVERIFY2(!all.contains("rdb$") && !all.contains("pg_class"), all.constData());
    const QByteArray some = answerTo(".tables G?o*").toLower();
    QVERIFY2(some.contains("goods\n"), some.constData());
    const QByteArray none = answerTo(".tables *x*").toLower();
    QVERIFY2(!none.contains("goods"), none.constData());
}

void TestPromptSystems::viewsAreListed()
{
    const QByteArray all = answerTo(".views").toLower();
    QVERIFY2(all.contains("cheap_goods\n"), all.constData());
    QVERIFY2(!all.contains(" goods\n") && !all.contains("\ngoods\n"), all.constData());
    // "_" stands for itself.
    QVERIFY(answerTo(".views cheap_g*").toLower().contains("cheap_goods\n"));
    QVERIFY(!answerTo(".views cheap__goods").toLower().contains("cheap_goods\n"));
}

void TestPromptSystems::columnsOfATableAreTold_data()
{
    systems();
}

void TestPromptSystems::columnsOfATableAreTold()
{
    // What stands in the line of each column, by the system's own words.
    static const QHash<QString, QVector<QByteArrayList>> expected{
        {QStringLiteral("PostgreSQL"),
         {{"id", "integer", "NOT NULL", "NULL", "primary"},
          {"name", "character varying(20)", "", "'x'::character varying", ""},
          {"price", "numeric(8,2)", "", "NULL", ""}}},
        {QStringLiteral("MariaDB"),
         {{"id", "int(11)", "NOT NULL", "NULL", "primary"},
          {"name", "varchar(20)", "", "'x'", ""},
          {"price", "decimal(8,2)", "", "NULL", ""}}},
        {QStringLiteral("Firebird"),
         {{"ID", "INTEGER", "NOT NULL", "NULL", "primary"},
          {"NAME", "VARCHAR(20)", "", "'x'", ""},
          {"PRICE", "NUMERIC(8,2)", "", "NULL", ""}}},
        {QStringLiteral("ODBC to PostgreSQL"),
         {{"id", "integer", "NULL", "32", "0", "NOT NULL", "NULL"},
          {"name", "character varying", "20", "NULL", "NULL", "", "'x'::character varying"},
          {"price", "numeric", "NULL", "8", "2", "", "NULL"}}},
        {QStringLiteral("ODBC to SQLite"),
         {{"id", "INTEGER", "NOT NULL", "NULL", "primary"},
          {"name", "varchar(20)", "", "'x'", ""},
          {"price", "numeric(8, 2)", "", "NULL", ""}}}};
    QFETCH(int, number);
    const QString system = m_started.at(number)->name();
    QVERIFY2(expected.contains(system), qPrintable(system));
    const QByteArray answer = answerTo(".schema goods");
    const QList<QByteArray> lines = answer.trimmed().split('\n');
    QVERIFY2(lines.size() >= 5 && lines.at(0).toLower().contains("column"), answer.constData());
    int line = 2; // below the headings and their rule
    for (const QByteArrayList &cells : expected.value(system)) {
        QByteArrayList shown;
        for (const QByteArray &cell : lines.at(line++).split('|'))
            shown.append(cell.trimmed());
        QVERIFY2(shown == cells, answer.constData());
    }
    QVERIFY2(lines.at(line) == "(3 rows)", answer.constData());
}

void TestPromptSystems::missingTableIsTold()
{
    const QByteArray answer = answerTo(".schema no_such_table");
    QVERIFY2(answer.contains("no_such_table"), answer.constData());
    QVERIFY2(!answer.contains('|'), answer.constData());
}

void TestPromptSystems::namesAreCompleted()
{
    QFETCH(int, number);
    const bool isFirebird = m_started.at(number)->name() == QLatin1String("Firebird");
    if (m_started.at(number)->parameters().driverName == QLatin1String("QODBC"))
        QSKIP("the catalog behind ODBC is not known");
    answerTo(".tables"); // runs behind the statement that reads the names
    m_session->type("select * from cheap\t");
    VERIFY_SCREEN(m_session->waitFor(isFirebird ? "CHEAP_GOODS" : "cheap_goods"));
    m_session->type("\x03");
    VERIFY_SCREEN(m_session->waitFor("vext> "));
}

QTEST_GUILESS_MAIN(TestPromptSystems)
#include "test_prompt_systems.moc"
