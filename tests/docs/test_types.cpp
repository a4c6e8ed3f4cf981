// The type files, with the compiler that reads them: what is right passes, what is wrong does not,
// and what it writes with the options of the reference runs in the engine.

#include "host_process.h"
#include "page.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace
{

constexpr int InstallLimitMs = 240000;
constexpr int CompileLimitMs = 240000;

QString sourceFile(const QString &name)
{
    return QStringLiteral(VEXT_SOURCE_DIR "/") + name;
}

QString scriptFile(const QString &name)
{
    return sourceFile(QStringLiteral("tests/docs/typescript/") + name);
}

/// The options that the reference page shows.
QJsonObject optionsOfThePage()
{
    const Page page(QStringLiteral("docs/api.md"));
    for (const PageBlock &block : page.blocks()) {
        if (block.language == QLatin1String("json"))
            return QJsonDocument::fromJson(block.text.toUtf8()).object();
    }
    return {};
}

/// What a program said, to both of its outputs.
struct Said {
    bool ended = false;
    int exitCode = -1;
    QString text;
};

Said run(const QString &program, const QStringList &arguments, int limitMs)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    Said said;
    said.ended = process.waitForFinished(limitMs);
    said.exitCode = process.exitCode();
    said.text = QString::fromUtf8(process.readAll());
    if (!said.ended) {
        process.kill();
        process.waitForFinished();
    }
    return said;
}

/// "LINE NUMBER" of each mistake that the compiler tells of a file.
QStringList mistakesTold(const QString &text, const QString &file)
{
    const QRegularExpression mistake(
        QStringLiteral(R"(%1\((\d+),\d+\): error (TS\d+))").arg(QRegularExpression::escape(file)));
    QStringList found;
    QRegularExpressionMatchIterator matches = mistake.globalMatch(text);
    while (matches.hasNext()) {
        const QRegularExpressionMatch match = matches.next();
        found.append(match.captured(1) + QLatin1Char(' ') + match.captured(2));
    }
    return found;
}

/// The same as the file's own comments announce it.
QStringList mistakesAnnounced(const QString &file)
{
    QFile source(scriptFile(file));
    if (!source.open(QIODevice::ReadOnly))
        return {};
    const QRegularExpression remark(QStringLiteral("// (TS\\d+)"));
    const QStringList lines = QString::fromUtf8(source.readAll()).split(QLatin1Char('\n'));
    QStringList found;
    for (int i = 0; i < lines.size(); ++i) {
        const QRegularExpressionMatch match = remark.match(lines.at(i));
        if (match.hasMatch()) {
            found.append(QString::number(i + 1) + QLatin1Char(' ') + match.captured(1));
        }
    }
    return found;
}

} // namespace

class TestTypes : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void rightScriptPasses_data();
    void rightScriptPasses();
    void everyMistakeIsRefused_data();
    void everyMistakeIsRefused();
    void compiledScriptRuns();
    void codeForALaterLanguageDoesNotRun();

private:
    /// Compiles a script with the options of the reference, of which `target` may differ.
    Said compile(const QString &script, const QString &target = QString());

    QTemporaryDir m_folder;
    QString m_reason; ///< why there is no compiler
};

void TestTypes::initTestCase()
{
    QVERIFY2(m_folder.isValid(), qPrintable(m_folder.errorString()));
    const Said said = run(sourceFile(QStringLiteral("scripts/install_typescript.sh")),
                          {QStringLiteral(VEXT_TYPESCRIPT_DIR)}, InstallLimitMs);
    if (!said.ended || said.exitCode != 0)
        m_reason = QStringLiteral("no TypeScript compiler: ") + said.text.trimmed();
}

void TestTypes::init()
{
    if (!m_reason.isEmpty())
        QSKIP(qPrintable(m_reason));
}

Said TestTypes::compile(const QString &script, const QString &target)
{
    QJsonObject project = optionsOfThePage();
    QJsonObject options = project.value(QStringLiteral("compilerOptions")).toObject();
    if (!target.isEmpty())
        options.insert(QStringLiteral("target"), target);
    options.insert(QStringLiteral("outDir"), m_folder.path());
    options.insert(QStringLiteral("pretty"), false);
    const bool isPlain = script.endsWith(QLatin1String(".js"));
    options.insert(QStringLiteral("allowJs"), isPlain);
    options.insert(QStringLiteral("checkJs"), isPlain);
    project.insert(QStringLiteral("compilerOptions"), options);
    QJsonArray files{sourceFile(QStringLiteral("types/vext_run.d.ts")), scriptFile(script)};
    if (script.startsWith(QLatin1String("library")))
        files.append(sourceFile(QStringLiteral("types/vext_library.d.ts")));
    project.insert(QStringLiteral("files"), files);
    const QString name = m_folder.filePath(QStringLiteral("tsconfig.json"));
    QFile file(name);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return {};
    file.write(QJsonDocument(project).toJson());
    file.close();
    return run(QStringLiteral("node"),
               {QStringLiteral(VEXT_TYPESCRIPT_DIR "/node_modules/typescript/bin/tsc"),
                QStringLiteral("--project"), name},
               CompileLimitMs);
}

void TestTypes::rightScriptPasses_data()
{
    QTest::addColumn<QString>("script");
    QTest::newRow("TypeScript") << QStringLiteral("accepted.ts");
    QTest::newRow("plain script") << QStringLiteral("accepted_plain.js");
    QTest::newRow("script library") << QStringLiteral("library.ts");
}

void TestTypes::rightScriptPasses()
{
    QFETCH(QString, script);
    const Said said = compile(script);
    QVERIFY2(said.ended && said.exitCode == 0, qPrintable(said.text));
    QCOMPARE(said.text, QString());
}

void TestTypes::everyMistakeIsRefused_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<int>("mistakes");
    QTest::newRow("globals") << QStringLiteral("refused.ts") << 30;
    QTest::newRow("script library") << QStringLiteral("library_refused.ts") << 8;
}

void TestTypes::everyMistakeIsRefused()
{
    QFETCH(QString, file);
    QFETCH(int, mistakes);
    const QStringList announced = mistakesAnnounced(file);
    QVERIFY(announced.size() >= mistakes);
    const Said said = compile(file);
    QVERIFY2(said.ended && said.exitCode != 0, qPrintable(said.text));
    QCOMPARE(mistakesTold(said.text, file), announced);
    QVERIFY2(!QFile::exists(m_folder.filePath(QStringLiteral("refused.js"))),
             "code was written in spite of mistakes");
}

void TestTypes::compiledScriptRuns()
{
    const Said said = compile(QStringLiteral("compiled.ts"));
    QVERIFY2(said.ended && said.exitCode == 0, qPrintable(said.text));
    const HostOutcome outcome = runHost({m_folder.filePath(QStringLiteral("compiled.js"))});
    QVERIFY2(outcome.endedByItself && outcome.exitCode == 0, outcome.described().constData());
    QFile expected(sourceFile(QStringLiteral("tests/docs/expected/compiled.txt")));
    QVERIFY(expected.open(QIODevice::ReadOnly));
    QCOMPARE(outcome.output, QString::fromUtf8(expected.readAll()));
}

/// Otherwise the script above would not show what the options are for.
void TestTypes::codeForALaterLanguageDoesNotRun()
{
    const Said said = compile(QStringLiteral("compiled.ts"), QStringLiteral("ES5"));
    QVERIFY2(said.ended && said.exitCode == 0, qPrintable(said.text));
    const HostOutcome outcome = runHost({m_folder.filePath(QStringLiteral("compiled.js"))});
    QCOMPARE(outcome.exitCode, 2);
    QVERIFY2(outcome.errors.contains(QLatin1String("SyntaxError")),
             outcome.described().constData());
}

QTEST_GUILESS_MAIN(TestTypes)
#include "test_types.moc"
