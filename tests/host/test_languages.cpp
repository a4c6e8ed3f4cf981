// Messages in the user's language: Russian, as the plugin has them, and English.

#include "host_process.h"

#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QXmlStreamReader>
#include <QtTest>

#define VERIFY_OUTCOME(condition, outcome) QVERIFY2(condition, (outcome).described().constData())

class TestLanguages : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void everyTextOfThePluginIsTranslated();
    void placeholdersAreKept();
    void oneScenarioInBothLanguages_data();
    void oneScenarioInBothLanguages();
    void languageFollowsTheLocale_data();
    void languageFollowsTheLocale();

private:
    QHash<QString, QString> m_english; ///< finished translations by their Russian text
};

namespace
{

/// The text of one or several string literals that stand side by side.
QString literalText(const QString &literals)
{
    QString text;
    const QRegularExpression literal(QStringLiteral("\"((?:[^\"\\\\]|\\\\.)*)\""));
    for (auto match = literal.globalMatch(literals); match.hasNext();)
        text += match.next().captured(1);
    return text.replace(QLatin1String("\\n"), QLatin1String("\n"))
        .replace(QLatin1String("\\\""), QLatin1String("\""));
}

QStringList textsIn(const QString &code)
{
    QStringList texts;
    const QRegularExpression call(QStringLiteral(
        "\\b(?:tr\\(|translate\\(\\s*\"\\w+\",)\\s*((?:\"(?:[^\"\\\\]|\\\\.)*\"\\s*)+)"));
    for (auto match = call.globalMatch(code); match.hasNext();)
        texts.append(literalText(match.next().captured(1)));
    return texts;
}

/// A failure of each kind: thrown, as the last error, as a message.
const char Scenario[] =
    "var db = new VEXT_SQL('main'); db.driverName = 'QSQLITE'; db.databaseName = ':memory:';\n"
    "db.open();\n"
    "try { db.query_thread(); } catch (e) { print(e.message.split(' db')[0]); }\n"
    "try { db.exec_thread(['a'], [[]]); } catch (e) { print(e.message.split(':')[0]); }\n"
    "try { db.connectionName = 'x'; } catch (e) { print(e.message); }\n"
    "db.query('select nope');\n";

} // namespace

void TestLanguages::initTestCase()
{
    QFile file(QStringLiteral(VEXT_SOURCE_DIR "/translations/vext_en.ts"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    QString source;
    while (!xml.atEnd()) {
        if (xml.readNext() != QXmlStreamReader::StartElement)
            continue;
        if (xml.name() == QLatin1String("source"))
            source = xml.readElementText();
        else if (xml.name() == QLatin1String("translation") &&
                 !xml.attributes().hasAttribute(QLatin1String("type")))
            m_english.insert(source, xml.readElementText());
    }
    QVERIFY2(!xml.hasError(), qPrintable(xml.errorString()));
}

void TestLanguages::everyTextOfThePluginIsTranslated()
{
    int count = 0;
    QDirIterator files(QStringLiteral(VEXT_SOURCE_DIR "/plugins"),
                       {QStringLiteral("*.cpp"), QStringLiteral("*.h")}, QDir::Files,
                       QDirIterator::Subdirectories);
    while (files.hasNext()) {
        QFile file(files.next());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QStringList texts = textsIn(QString::fromUtf8(file.readAll()));
        for (const QString &text : texts) {
            ++count;
            QVERIFY2(!m_english.value(text).isEmpty(),
                     qPrintable(file.fileName() + QLatin1String(": ") + text));
        }
    }
    QVERIFY2(count > 25, qPrintable(QString::number(count)));
}

void TestLanguages::placeholdersAreKept()
{
    const QRegularExpression placeholder(QStringLiteral("%\\d"));
    for (auto it = m_english.constBegin(); it != m_english.constEnd(); ++it) {
        for (auto match = placeholder.globalMatch(it.key()); match.hasNext();) {
            const QString name = match.next().captured();
            QVERIFY2(it.value().contains(name), qPrintable(it.value()));
        }
        QVERIFY2(!it.value().contains(QRegularExpression(QStringLiteral("[а-яА-Я]"))),
                 qPrintable(it.value()));
    }
}

void TestLanguages::oneScenarioInBothLanguages_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("message");
    QTest::newRow("ru") << QStringLiteral("ru")
                        << QStringLiteral("использовать как\n"
                                          "каждому запросу необходим массив аргументов\n"
                                          "нельзя менять имя соединения если isOpen == true\n")
                        << QStringLiteral("query: ошибка выполнения: 'no such column: nope");
    QTest::newRow("en") << QStringLiteral("en")
                        << QStringLiteral("use as\n"
                                          "every statement needs an array of arguments\n"
                                          "the connection name cannot be changed while isOpen =="
                                          " true\n")
                        << QStringLiteral("query: execution error: 'no such column: nope");
}

void TestLanguages::oneScenarioInBothLanguages()
{
    QFETCH(QString, language);
    QFETCH(QString, output);
    QFETCH(QString, message);
    const HostOutcome outcome =
        runCode(QLatin1String(Scenario), {QStringLiteral("--lang"), language});
    QCOMPARE(outcome.output, output);
    VERIFY_OUTCOME(outcome.errors.contains(message), outcome);
}

void TestLanguages::languageFollowsTheLocale_data()
{
    QTest::addColumn<QString>("variable");
    QTest::addColumn<QString>("value");
    QTest::addColumn<bool>("isRussian");
    QTest::newRow("LANG ru") << QStringLiteral("LANG") << QStringLiteral("ru_RU.UTF-8") << true;
    QTest::newRow("LC_ALL ru") << QStringLiteral("LC_ALL") << QStringLiteral("ru_RU") << true;
    QTest::newRow("LANG de") << QStringLiteral("LANG") << QStringLiteral("de_DE.UTF-8") << false;
    QTest::newRow("LANG C") << QStringLiteral("LANG") << QStringLiteral("C") << false;
    QTest::newRow("LANGUAGE") << QStringLiteral("LANGUAGE") << QStringLiteral("ru:en") << true;
}

void TestLanguages::languageFollowsTheLocale()
{
    QFETCH(QString, variable);
    QFETCH(QString, value);
    QFETCH(bool, isRussian);
    HostProcess host;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"})
        environment.remove(QLatin1String(name));
    environment.insert(variable, value);
    host.process().setProcessEnvironment(environment);
    QVERIFY(host.start({QStringLiteral("-e"), QLatin1String(Scenario)}));
    const HostOutcome outcome = host.finish();
    VERIFY_OUTCOME(outcome.output.startsWith(QStringLiteral("использовать как\n")) == isRussian,
                   outcome);
}

QTEST_GUILESS_MAIN(TestLanguages)
#include "test_languages.moc"
