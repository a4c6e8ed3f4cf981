/// @file
/// What scripts and hosts are told of the installed drivers, with and without the layer: a name
/// behind which no stock driver stands is not listed.

#include "database_script.h"
#include "deadline.h"
#include "layer_path.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QLibraryInfo>
#include <QProcess>
#include <QSqlDatabase>
#include <QTemporaryDir>
#include <QtTest>

namespace
{

const QString Sqlite = QStringLiteral("QSQLITE");
const QString StockFile = QStringLiteral("libqsqlite.so");

QString stockFolder()
{
    return QLibraryInfo::location(QLibraryInfo::PluginsPath) + QStringLiteral("/sqldrivers");
}

} // namespace

/// Qt finds the layer and, of all stock drivers, SQLite's: the first case runs before anything adds
/// another path, which Qt would never forget again.
class TestDriverList : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void namesWithoutAStockDriverAreNotListed();
    void namesWithoutAStockDriverAreNotAvailable();
    void openOfSuchANameTellsThePackage();
    void hostTellsTheSame();
    void listFollowsTheLibraryPaths();
    void listIsQtsWithoutTheLayer();

private:
    QStringList drivers();

    QTemporaryDir m_folder;
    QString m_layer;
    std::unique_ptr<DatabaseScript> m_script;
};

void TestDriverList::initTestCase()
{
    if (!QFile::exists(stockFolder() + QLatin1Char('/') + StockFile))
        QSKIP("Qt's driver for SQLite is not where Qt's plugins are");
    useDriverLayer();
    m_layer = QCoreApplication::libraryPaths().constFirst();
    QVERIFY(QDir(m_folder.path()).mkdir(QStringLiteral("sqldrivers")));
    QVERIFY(QFile::link(stockFolder() + QLatin1Char('/') + StockFile,
                        m_folder.filePath(QStringLiteral("sqldrivers/") + StockFile)));
    QCoreApplication::setLibraryPaths({m_layer, m_folder.path()});
    m_script = std::make_unique<DatabaseScript>();
}

QStringList TestDriverList::drivers()
{
    return qscriptvalue_cast<QStringList>(
        m_script->eval(QStringLiteral("(new VEXT_SQL('list')).drivers")));
}

void TestDriverList::namesWithoutAStockDriverAreNotListed()
{
    QVERIFY(QSqlDatabase::drivers().contains(QStringLiteral("QPSQL"))); // the layer has it
    QCOMPARE(drivers(), QStringList{Sqlite});
}

void TestDriverList::namesWithoutAStockDriverAreNotAvailable()
{
    ConnectionParameters parameters;
    parameters.driverName = Sqlite;
    parameters.databaseName = QStringLiteral(":memory:");
    QVERIFY(m_script->open(QStringLiteral("db"), parameters));
    QVERIFY(m_script->isTrue(QStringLiteral("db.isDriverAvailable('QSQLITE')")));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.isDriverAvailable('QPSQL')")));
    QVERIFY(!m_script->isTrue(QStringLiteral("db.isDriverAvailable('QNONE')")));
}

void TestDriverList::openOfSuchANameTellsThePackage()
{
    ConnectionParameters parameters;
    parameters.driverName = QStringLiteral("QPSQL");
    m_script->declare(QStringLiteral("missing"), parameters);
    QVERIFY(!m_script->isTrue(QStringLiteral("missing.open()")));
    const QString error = m_script->text(QStringLiteral("missing.lastError"));
    QVERIFY2(error.contains(QStringLiteral("libqt5sql5-psql")), qPrintable(error));
}

/// The host in a place of its own, with the layer beside it and a Qt that has one driver.
void TestDriverList::hostTellsTheSame()
{
    const QDir place(m_folder.path());
    QVERIFY(place.mkpath(QStringLiteral("host/bin")));
    QVERIFY(QFile::link(m_layer, place.filePath(QStringLiteral("host/qtplugins"))));
    const QString program = place.filePath(QStringLiteral("host/bin/vext-run"));
    QVERIFY(QFile::copy(QString::fromUtf8(VEXT_RUN_FILE), program));
    QFile configuration(place.filePath(QStringLiteral("host/bin/qt.conf")));
    QVERIFY(configuration.open(QIODevice::WriteOnly));
    configuration.write("[Paths]\nPrefix = ../..\nPlugins = .\n");
    configuration.close();

    QProcess host;
    host.start(program, {QStringLiteral("--plugin"), QString::fromUtf8(VEXT_PLUGIN_FILE),
                         QStringLiteral("--version")});
    QVERIFY(host.waitForFinished(scaledMs(30000)));
    const QString told = QString::fromUtf8(host.readAllStandardOutput());
    QVERIFY2(told.contains(QStringLiteral("drivers  QSQLITE (decorated by Vext)\n")),
             qPrintable(told));
    QVERIFY2(!told.contains(QStringLiteral("QPSQL")), qPrintable(told));
}

void TestDriverList::listFollowsTheLibraryPaths()
{
    QCoreApplication::addLibraryPath(QLibraryInfo::location(QLibraryInfo::PluginsPath));
    QCOMPARE(drivers(), QSqlDatabase::drivers());
    QVERIFY(drivers().contains(QStringLiteral("QPSQL")) ==
            QFile::exists(stockFolder() + QStringLiteral("/libqsqlpsql.so")));
}

void TestDriverList::listIsQtsWithoutTheLayer()
{
    QCoreApplication::setLibraryPaths({m_folder.path()});
    QCOMPARE(drivers(), QSqlDatabase::drivers());
}

QTEST_GUILESS_MAIN(TestDriverList)

#include "test_driver_list.moc"
