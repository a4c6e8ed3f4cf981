// One version, wherever one meets it.

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QVector>
#include <QVersionNumber>
#include <QtTest>

namespace
{

QString fileText(const QString &name)
{
    QFile file(QStringLiteral(VEXT_SOURCE_DIR "/") + name);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

/// The versions in the headings of the changes, in their order, in numbers that can be compared.
QVector<QVersionNumber> changes()
{
    const QRegularExpression heading(
        QStringLiteral("^## (\\d+\\.\\d+\\.\\d+)( \\(\\d{4}-\\d\\d-\\d\\d\\))?$"),
        QRegularExpression::MultilineOption);
    QVector<QVersionNumber> found;
    QRegularExpressionMatchIterator matches =
        heading.globalMatch(fileText(QStringLiteral("CHANGELOG.md")));
    while (matches.hasNext())
        found.append(QVersionNumber::fromString(matches.next().captured(1)));
    return found;
}

} // namespace

class TestVersions : public QObject
{
    Q_OBJECT

private slots:
    void changesBeginWithThisVersion();
    void everyHeadingOfTheChangesIsAVersion();
    void programTellsThisVersion();
    void interfaceIsThatOfTheVersion();
};

void TestVersions::changesBeginWithThisVersion()
{
    const QVector<QVersionNumber> versions = changes();
    QVERIFY(versions.size() > 1);
    QCOMPARE(versions.first().toString(), QStringLiteral(VEXT_VERSION));
    for (int i = 1; i < versions.size(); ++i)
        QVERIFY2(versions.at(i) < versions.at(i - 1), qPrintable(versions.at(i).toString()));
}

void TestVersions::everyHeadingOfTheChangesIsAVersion()
{
    QCOMPARE(fileText(QStringLiteral("CHANGELOG.md")).count(QStringLiteral("\n## ")),
             changes().size());
}

void TestVersions::programTellsThisVersion()
{
    QProcess program;
    program.start(QStringLiteral(VEXT_RUN_FILE), {QStringLiteral("--version")});
    QVERIFY(program.waitForFinished());
    QCOMPARE(program.exitCode(), 0);
    const QString output = QString::fromUtf8(program.readAll());
    QVERIFY2(output.startsWith(QStringLiteral("vext-run " VEXT_VERSION)), qPrintable(output));
}

void TestVersions::interfaceIsThatOfTheVersion()
{
    const QVersionNumber version = QVersionNumber::fromString(QStringLiteral(VEXT_VERSION));
    const QString interface =
        QStringLiteral("\"Vext.%1.%2.Qt.").arg(version.majorVersion()).arg(version.minorVersion());
    for (const char *file :
         {"host/services/vext_plugin_interface.h", "plugins/PluginSQL/plugin_sql.h"})
        QVERIFY2(fileText(QLatin1String(file)).contains(interface), file);
}

QTEST_GUILESS_MAIN(TestVersions)
#include "test_versions.moc"
