// The sample host: built as its readers build it, and shown whole in the guide.

#include "sample_host.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

namespace
{

QString fileText(const QString &name)
{
    QFile file(QStringLiteral(VEXT_SOURCE_DIR "/") + name);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

} // namespace

class TestSampleHost : public QObject
{
    Q_OBJECT

private slots:
    void isBuiltAgainstTheBuildTreeAndRunsItsScript();
    void isRefusedAPluginOfAnotherInterface();
    void isShownWholeInTheGuide_data();
    void isShownWholeInTheGuide();
    void isShort();
};

void TestSampleHost::isBuiltAgainstTheBuildTreeAndRunsItsScript()
{
    QTemporaryDir folder;
    const CommandOutcome outcome =
        buildAndRunSampleHost(folder.path(), QStringLiteral("-DVextSql_DIR=" VEXT_BINARY_DIR),
                              QStringLiteral(VEXT_SOURCE_DIR "/examples/host"));
    QVERIFY2(outcome.isGood(), outcome.described().constData());
    QVERIFY2(outcome.errors.endsWith(sampleHostOutput()), outcome.described().constData());
    QVERIFY2(!outcome.errors.contains(QLatin1String("QSqlDatabase")),
             outcome.described().constData());
}

void TestSampleHost::isRefusedAPluginOfAnotherInterface()
{
    QTemporaryDir folder;
    QFile project(folder.filePath(QStringLiteral("CMakeLists.txt")));
    QVERIFY(project.open(QIODevice::WriteOnly));
    project.write("cmake_minimum_required(VERSION 3.22)\nproject(Other LANGUAGES CXX)\n"
                  "find_package(VextSql ${ASKED} REQUIRED)\n");
    project.close();
    const auto configured = [&folder](const char *asked) {
        return runCommand({QStringLiteral(VEXT_CMAKE), QStringLiteral("-S"), folder.path(),
                           QStringLiteral("-B"), folder.filePath(QLatin1String(asked)),
                           QStringLiteral("-GNinja"),
                           QStringLiteral("-DCMAKE_CXX_COMPILER=" VEXT_CXX),
                           QStringLiteral("-DASKED=") + QLatin1String(asked),
                           QStringLiteral("-DVextSql_DIR=" VEXT_BINARY_DIR)});
    };
    const CommandOutcome same = configured("2.9");
    QVERIFY2(same.isGood(), same.described().constData());
    for (const char *other : {"2.8", "2.10", "3.0"})
        QVERIFY2(!configured(other).isGood(), other);
}

void TestSampleHost::isShownWholeInTheGuide_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("file");
    QTest::newRow("CMakeLists.txt")
        << QStringLiteral("cmake") << QStringLiteral("examples/host/CMakeLists.txt");
    QTest::newRow("main.cpp") << QStringLiteral("cpp") << QStringLiteral("examples/host/main.cpp");
    QTest::newRow("hello.js") << QStringLiteral("js sample")
                              << QStringLiteral("examples/host/hello.js");
}

void TestSampleHost::isShownWholeInTheGuide()
{
    QFETCH(QString, language);
    QFETCH(QString, file);
    const QString text = fileText(file);
    QVERIFY(!text.isEmpty());
    const QString block = QStringLiteral("```%1\n%2```\n").arg(language, text);
    QVERIFY(fileText(QStringLiteral("docs/hosts.md")).contains(block));
}

void TestSampleHost::isShort()
{
    const int lines = fileText(QStringLiteral("examples/host/main.cpp")).count(QLatin1Char('\n'));
    QVERIFY2(lines >= 60 && lines <= 80, qPrintable(QString::number(lines)));
}

QTEST_GUILESS_MAIN(TestSampleHost)
#include "test_sample_host.moc"
