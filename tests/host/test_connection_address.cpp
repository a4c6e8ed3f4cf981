// How users name a database: addresses, keywords, files and the environment.

#include "connection_address.h"
#include "connection_source.h"
#include "driver_packages.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

class TestConnectionAddress : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void addressesAndKeywordsAreRead_data();
    void addressesAndKeywordsAreRead();
    void passwordsAreReadAndNotShown_data();
    void passwordsAreReadAndNotShown();
    void whatCannotBeReadIsAClearError_data();
    void whatCannotBeReadIsAClearError();
    void fileHoldsAnAddressAndComments();
    void missingFileIsAClearError();
    void environmentFillsWhatIsNotGiven();
    void environmentDoesNotReplaceWhatIsGiven();
    void missingDriverNamesItsPackage();
};

namespace
{

/// All that was read, in one line.
QString described(const ConnectionAddress &address)
{
    return QStringLiteral("%1|%2|%3|%4|%5|%6|%7")
        .arg(address.driver, address.host, QString::number(address.port), address.database,
             address.user, address.applicationName, address.options);
}

} // namespace

void TestConnectionAddress::init()
{
    for (const char *name : {"VEXT_PASSWORD", "MYSQL_PWD", "ISC_USER", "ISC_PASSWORD"})
        qunsetenv(name);
}

void TestConnectionAddress::addressesAndKeywordsAreRead_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("expected");
    const auto row = [](const char *text, const char *expected) {
        QTest::newRow(text) << QString::fromUtf8(text) << QString::fromUtf8(expected);
    };
    row("postgresql://me@db.example:5433/shop", "QPSQL|db.example|5433|shop|me||");
    row("postgres://localhost/shop", "QPSQL|localhost|0|shop|||");
    row("postgresql:///shop?host=/tmp/pg&port=5433", "QPSQL|/tmp/pg|5433|shop|||");
    row("postgresql://me@[::1]/shop?sslmode=require&connect_timeout=5&application_name=nightly",
        "QPSQL|::1|0|shop|me|nightly|sslmode=require;connect_timeout=5");
    row("postgresql://", "QPSQL||0||||");
    row("PostgreSQL://h/d", "QPSQL|h|0|d|||");
    row("mysql://me@h/d", "QMYSQL|h|0|d|me||");
    row("mariadb://me@h:3307/d", "QMYSQL|h|3307|d|me||");
    row("firebird:/var/db/a b.fdb", "QIBASE||0|/var/db/a b.fdb|||");
    row("firebird://sysdba@h:3050//var/db/a.fdb", "QIBASE|h|3050|/var/db/a.fdb|sysdba||");
    row("firebird://h/employee", "QIBASE|h|0|employee|||");
    row("sqlite::memory:", "QSQLITE||0|:memory:|||");
    row("sqlite:my data 100%.db", "QSQLITE||0|my data 100%.db|||");
    row("sqlite:///tmp/a%20b.db", "QSQLITE||0|/tmp/a b.db|||");
    row("odbc:Driver=SQLite3;Database=/tmp/x", "QODBC||0|Driver=SQLite3;Database=/tmp/x|||");
    row("  sqlite:x.db \n", "QSQLITE||0|x.db|||");
    row("QPSQL host=localhost dbname=shop user=me port=5433", "QPSQL|localhost|5433|shop|me||");
    row("QPSQL sslmode=disable options=\"connect_timeout=3;keepalives=1\"",
        "QPSQL||0||||sslmode=disable;connect_timeout=3;keepalives=1");
    row("QSQLITE 'my file.db'", "QSQLITE||0|my file.db|||");
    row("QSQLITE my.db QSQLITE_OPEN_READONLY=1", "QSQLITE||0|my.db|||QSQLITE_OPEN_READONLY=1");
    row("postgresql dbname='it\\'s'", "QPSQL||0|it's|||");
    row("driver=QODBC dbname=\"Driver={X};Uid=y\"", "QODBC||0|Driver={X};Uid=y|||");
    row("QOCI databaseName=x userName=u hostName=h", "QOCI|h|0|x|u||");
}

void TestConnectionAddress::addressesAndKeywordsAreRead()
{
    QFETCH(QString, text);
    QFETCH(QString, expected);
    ConnectionAddress address;
    QString error;
    QVERIFY2(ConnectionAddress::parse(text, &address, &error), qPrintable(error));
    QCOMPARE(described(address), expected);
}

void TestConnectionAddress::passwordsAreReadAndNotShown_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("address") << QStringLiteral("postgresql://me:s%40c%2Fret@h/d");
    QTest::newRow("query") << QStringLiteral("postgresql://me@h/d?password=s@c/ret");
    QTest::newRow("keyword") << QStringLiteral("QPSQL user=me host=h dbname=d password='s@c/ret'");
}

void TestConnectionAddress::passwordsAreReadAndNotShown()
{
    QFETCH(QString, text);
    ConnectionAddress address;
    QString error;
    QVERIFY2(ConnectionAddress::parse(text, &address, &error), qPrintable(error));
    QCOMPARE(address.password, QStringLiteral("s@c/ret"));
    QCOMPARE(address.shown(), QStringLiteral("QPSQL me@h/d"));
}

void TestConnectionAddress::whatCannotBeReadIsAClearError_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("part");
    const auto row = [](const char *name, const char *text, const char *part) {
        QTest::newRow(name) << QString::fromUtf8(text) << QString::fromUtf8(part);
    };
    row("nothing", "  ", "is empty");
    row("scheme", "oracle://me:secret@h/d", "unknown kind of database 'oracle'");
    row("port", "postgresql://me:secret@h:99999999/d", "cannot be read");
    row("port in a query", "postgresql://me:secret@h/d?port=abc", "'abc' is not a port");
    row("port in a keyword", "QPSQL password=secret port=70000", "'70000' is not a port");
    row("two words", "QSQLITE a.db b.db", "before 'b.db'");
    row("quote", "QSQLITE 'a.db password=secret", "a quote is not closed");
    row("no driver", "host=h password=secret", "no driver is named");
    row("no file", "sqlite:", "nothing follows");
}

void TestConnectionAddress::whatCannotBeReadIsAClearError()
{
    QFETCH(QString, text);
    QFETCH(QString, part);
    ConnectionAddress address;
    QString error;
    QVERIFY(!ConnectionAddress::parse(text, &address, &error));
    QVERIFY2(error.contains(part), qPrintable(error));
    QVERIFY2(!error.contains(QLatin1String("secret")), qPrintable(error));
}

void TestConnectionAddress::fileHoldsAnAddressAndComments()
{
    const QTemporaryDir folder;
    QFile file(folder.filePath(QStringLiteral("shop.open")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("# the shop = on this machine\nQPSQL host=h\n  dbname=d user=me\npassword=x\n");
    file.close();
    ConnectionAddress address;
    QString error;
    QVERIFY2(ConnectionSource::read(QLatin1Char('@') + file.fileName(), &address, &error),
             qPrintable(error));
    QCOMPARE(address.shown(), QStringLiteral("QPSQL me@h/d"));
    QCOMPARE(address.password, QStringLiteral("x"));
}

void TestConnectionAddress::missingFileIsAClearError()
{
    ConnectionAddress address;
    QString error;
    QVERIFY(!ConnectionSource::read(QStringLiteral("@/no/such/file"), &address, &error));
    QVERIFY2(error.startsWith(QLatin1String("cannot read '/no/such/file': ")), qPrintable(error));
}

void TestConnectionAddress::environmentFillsWhatIsNotGiven()
{
    ConnectionAddress address;
    QString error;
    qputenv("MYSQL_PWD", "my");
    QVERIFY(ConnectionSource::read(QStringLiteral("mysql://me@h/d"), &address, &error));
    QCOMPARE(address.password, QStringLiteral("my"));
    qputenv("ISC_USER", "u");
    qputenv("ISC_PASSWORD", "fb");
    QVERIFY(ConnectionSource::read(QStringLiteral("firebird:x.fdb"), &address, &error));
    QCOMPARE(address.user + QLatin1Char('/') + address.password, QStringLiteral("u/fb"));
    qputenv("VEXT_PASSWORD", "any");
    QVERIFY(ConnectionSource::read(QStringLiteral("QODBC source"), &address, &error));
    QCOMPARE(address.password, QStringLiteral("any"));
}

void TestConnectionAddress::environmentDoesNotReplaceWhatIsGiven()
{
    ConnectionAddress address;
    QString error;
    qputenv("VEXT_PASSWORD", "any");
    qputenv("ISC_USER", "u");
    QVERIFY(ConnectionSource::read(QStringLiteral("firebird://me:own@h/d"), &address, &error));
    QCOMPARE(address.user + QLatin1Char('/') + address.password, QStringLiteral("me/own"));
}

void TestConnectionAddress::missingDriverNamesItsPackage()
{
    QVERIFY(
        DriverPackages::hint(QStringLiteral("QPSQL")).contains(QLatin1String("libqt5sql5-psql")));
    QVERIFY(DriverPackages::hint(QStringLiteral("QNOPE")).contains(QLatin1String("'QNOPE'")));
}

QTEST_GUILESS_MAIN(TestConnectionAddress)
#include "test_connection_address.moc"
