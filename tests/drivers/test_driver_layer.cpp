/// @file
/// That Qt finds the layer under the stock drivers' names, and scripts work through it.

#include "database_script.h"
#include "layer_path.h"
#include "local_databases.h"

#include <QSqlDatabase>
#include <QSqlDriver>
#include <QtTest>

class TestDriverLayer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void driverOfTheNameIsTheLayers();
    void statementIsAnswered();

private:
    SqliteDatabase m_database;
};

void TestDriverLayer::initTestCase()
{
    useDriverLayer();
    QString reason;
    if (!m_database.available(&reason))
        QSKIP(qPrintable(reason));
    QVERIFY2(m_database.start(), qPrintable(m_database.error()));
}

void TestDriverLayer::driverOfTheNameIsTheLayers()
{
    const QString name = QStringLiteral("which");
    {
        const QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        QCOMPARE(db.driver()->metaObject()->className(), "DecoratedDriver");
    }
    QSqlDatabase::removeDatabase(name);
}

void TestDriverLayer::statementIsAnswered()
{
    DatabaseScript script;
    QVERIFY(script.open(QStringLiteral("db"), m_database.parameters()));
    for (const Way way : {Way::Here, Way::Thread})
        QCOMPARE(script.rows(way, QStringLiteral("db"), QStringLiteral("SELECT 1")),
                 QStringLiteral("number:1"));
    QVERIFY(script.isTrue(QStringLiteral("db.close()")));
}

QTEST_GUILESS_MAIN(TestDriverLayer)

#include "test_driver_layer.moc"
