// From the first prompt to a table of one's own data, with the built-in help alone.

#include "postgres_server.h"
#include "terminal_session.h"

#include <QElapsedTimer>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

#define VERIFY_SCREEN(condition) QVERIFY2(condition, m_session->screen().constData())

class TestNewcomer : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void findsATableOfPostgresDataInAMinute();
    void datesPrintAsDates();
    void longStatementIsCancelled();

private:
    void open();

    PostgresServer m_server;
    QTemporaryDir m_folder;
    QScopedPointer<TerminalSession> m_session;
};

void TestNewcomer::initTestCase()
{
    QString reason;
    if (!m_server.available(&reason))
        QSKIP(qPrintable(reason));
    QVERIFY2(m_server.start(), qPrintable(m_server.error()));
    QSqlDatabase data = m_server.parameters().database(QStringLiteral("data"));
    QVERIFY2(data.open(), qPrintable(data.lastError().text()));
    QSqlQuery query(data);
    for (const char *sql :
         {"CREATE TABLE customers (id integer PRIMARY KEY, name text NOT NULL, born date)",
          "INSERT INTO customers VALUES (1, 'Anna', '1980-02-29'), (2, 'Boris', NULL)"})
        QVERIFY2(query.exec(QLatin1String(sql)), qPrintable(query.lastError().text()));
}

void TestNewcomer::init()
{
    m_session.reset(new TerminalSession(m_folder.path()));
    VERIFY_SCREEN(m_session->isRunning() && m_session->waitFor("Type .help for help") &&
                  m_session->waitFor("vext> "));
}

void TestNewcomer::cleanup()
{
    m_session.reset();
}

void TestNewcomer::open()
{
    const ConnectionParameters own = m_server.parameters();
    const QString address =
        QStringLiteral(".open postgresql://%1@%2:%3/%4")
            .arg(own.userName, own.hostName, QString::number(own.port), own.databaseName);
    m_session->type(address.toUtf8() + '\r');
    VERIFY_SCREEN(m_session->waitFor("Password: "));
    m_session->type(own.password.toUtf8() + '\r');
    VERIFY_SCREEN(m_session->waitFor("opened QPSQL") && m_session->waitFor("vext> "));
    VERIFY_SCREEN(!m_session->screen().contains(own.password.toUtf8()));
}

void TestNewcomer::findsATableOfPostgresDataInAMinute()
{
    QElapsedTimer clock;
    clock.start();
    m_session->type(".help\r");
    VERIFY_SCREEN(m_session->waitFor(".tables [PATTERN]"));
    VERIFY_SCREEN(m_session->waitFor(".open postgresql://USER@localhost/DATABASE"));
    VERIFY_SCREEN(m_session->waitFor("SELECT * FROM TABLE LIMIT 10;"));
    VERIFY_SCREEN(m_session->waitFor("vext> "));
    open();
    VERIFY_SCREEN(m_session->enter(".tables", "| customers\n(1 row, "));
    VERIFY_SCREEN(m_session->enter(".schema customers", "\nborn   | date "));
    VERIFY_SCREEN(m_session->enter("SELECT * FROM customers LIMIT 10;", "\nID | NAME  | BORN\n"
                                                                        "---+-------+-----------\n"
                                                                        " 1 | Anna  | 1980-02-29\n"
                                                                        " 2 | Boris | NULL\n"
                                                                        "(2 rows, "));
    QVERIFY2(clock.elapsed() < 60000, qPrintable(QString::number(clock.elapsed())));
}

void TestNewcomer::datesPrintAsDates()
{
    open();
    VERIFY_SCREEN(m_session->enter("select date '2024-02-29' as d, time '12:34:56' as t, "
                                   "timestamp '2024-02-29 12:34:56' as dt;",
                                   "\n2024-02-29 | 12:34:56"));
    VERIFY_SCREEN(m_session->screen().contains("| 2024-02-29 12:34:56\n"));
}

void TestNewcomer::longStatementIsCancelled()
{
    open();
    m_session->type("select pg_sleep(600);\r");
    VERIFY_SCREEN(m_session->waitFor(" s, Ctrl-C cancels"));
    m_session->type("\x03");
    VERIFY_SCREEN(m_session->waitFor("cancelled; ") ||
                  m_session->waitFor("opened a new connection"));
    VERIFY_SCREEN(m_session->waitFor("vext> "));
    VERIFY_SCREEN(m_session->enter("select count(*) as n from customers;", "\nN\n-\n2\n(1 row, "));
}

QTEST_GUILESS_MAIN(TestNewcomer)
#include "test_newcomer.moc"
