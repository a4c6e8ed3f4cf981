// The pictures of the pages: drawn by scripts from what a run says, and by nobody's hand.

#include "command.h"
#include "verdict.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QXmlStreamReader>
#include <QtTest>

namespace
{

struct Element {
    QString name;
    QXmlStreamAttributes attributes;
    QString text;
};

/// The elements of an SVG file; empty when it is not well formed.
QVector<Element> elements(const QString &name)
{
    QFile file(name);
    QVector<Element> found;
    if (!file.open(QIODevice::ReadOnly))
        return found;
    QXmlStreamReader reader(&file);
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement())
            found.append({reader.name().toString(), reader.attributes(), QString()});
        else if (reader.isCharacters() && !found.isEmpty())
            found.last().text += reader.text();
    }
    return reader.hasError() ? QVector<Element>() : found;
}

QString texts(const QVector<Element> &all)
{
    QString result;
    for (const Element &element : all) {
        if (element.name == QLatin1String("text"))
            result += element.text.section(QLatin1Char('\n'), 0, 0) + QLatin1Char('\n');
    }
    return result;
}

} // namespace

class TestPictures : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void barsAreAsLongAsTheFiguresOfARun();
    void chartOfAnIncompleteRunIsRefused();
    void peersStandApartInOneChartWithOurRun();
    void oneIncompleteTableOfTwoIsRefused();
    void sessionIsDrawnAsTheTerminalShowsIt();
    void sessionOfTheReadmeStillRunsAsDrawn();

private:
    CommandOutcome draw(const QStringList &tables);
    QVector<Element> bars();

    QTemporaryDir m_folder;
};

void TestPictures::initTestCase()
{
    if (!haveCommand(QStringLiteral("python3")))
        QSKIP("the pictures are drawn with 'python3'");
}

CommandOutcome TestPictures::draw(const QStringList &tables)
{
    QStringList command{QStringLiteral("python3"),
                        QStringLiteral(VEXT_SOURCE_DIR "/benchmarks/chart.py")};
    for (int i = 0; i < tables.size(); ++i) {
        QFile file(m_folder.filePath(QStringLiteral("table%1.txt").arg(i)));
        if (!file.open(QIODevice::WriteOnly))
            return CommandOutcome();
        file.write(tables.at(i).toUtf8());
        command << file.fileName();
    }
    return runCommand(command << m_folder.filePath(QStringLiteral("chart.svg")));
}

QVector<Element> TestPictures::bars()
{
    QVector<Element> result;
    const QVector<Element> all = elements(m_folder.filePath(QStringLiteral("chart.svg")));
    for (const Element &element : all) {
        if (element.attributes.value(QLatin1String("class")) == QLatin1String("bar"))
            result.append(element);
    }
    return result;
}

void TestPictures::barsAreAsLongAsTheFiguresOfARun()
{
    Verdict verdict;
    verdict.add(QStringLiteral("SQLite 500k x 6 async / C floor"), 2, 3);
    verdict.add(QStringLiteral("SQLite <a> & b / QSqlQuery"), 0.5);
    verdict.add(QStringLiteral("SQLite peak memory"), 160, 185, QStringLiteral("MB"));
    verdict.add(QStringLiteral("PostgreSQL inserts / C floor"), 4, 3);
    const CommandOutcome outcome = draw({verdict.text()});
    QVERIFY2(outcome.isGood(), outcome.described().constData());
    QVector<double> widths;
    QStringList colours;
    const QVector<Element> drawn = bars();
    for (const Element &bar : drawn) {
        widths.append(bar.attributes.value(QLatin1String("width")).toDouble());
        colours.append(bar.attributes.value(QLatin1String("fill")).toString());
    }
    QCOMPARE(widths.size(), 3); // megabytes are no ratio
    QVERIFY(qAbs(widths.at(0) / widths.at(1) - 4) < 0.01);
    QVERIFY(qAbs(widths.at(2) / widths.at(0) - 2) < 0.01);
    QCOMPARE(colours.at(0), colours.at(1));
    QVERIFY(colours.at(2) != colours.at(0)); // over its limit
    const QString shown = texts(elements(m_folder.filePath(QStringLiteral("chart.svg"))));
    for (const char *wanted : {"SQLite 500k x 6 async / C floor", "SQLite <a> & b / QSqlQuery",
                               "PostgreSQL inserts / C floor", "2.00", "0.50", "4.00"})
        QVERIFY2(shown.contains(QLatin1String(wanted)), wanted);
}

void TestPictures::chartOfAnIncompleteRunIsRefused()
{
    Verdict verdict;
    verdict.add(QStringLiteral("SQLite 500k x 6 async / C floor"), 2, 3);
    verdict.setIncomplete();
    QFile::remove(m_folder.filePath(QStringLiteral("chart.svg")));
    QCOMPARE(draw({verdict.text()}).exitCode, 1);
    QVERIFY(!QFile::exists(m_folder.filePath(QStringLiteral("chart.svg"))));
}

void TestPictures::peersStandApartInOneChartWithOurRun()
{
    Verdict ours;
    ours.add(QStringLiteral("SQLite 500k x 6 async / C floor"), 2, 3);
    Verdict peers;
    peers.add(QStringLiteral("SQLite 500k x 6, ours async / C floor"), 2);
    peers.add(QStringLiteral("SQLite 500k x 6, peer other 1.2 / C floor"), 3);
    peers.addNote(QStringLiteral("left out: third: no <network>"));
    const CommandOutcome outcome = draw({ours.text(), peers.text()});
    QVERIFY2(outcome.isGood(), outcome.described().constData());
    const QVector<Element> drawn = bars();
    QCOMPARE(drawn.size(), 3);
    const auto colour = [&drawn](int i) {
        return drawn.at(i).attributes.value(QLatin1String("fill")).toString();
    };
    QCOMPARE(colour(1), colour(0));
    QVERIFY(colour(2) != colour(0));
    const QString shown = texts(elements(m_folder.filePath(QStringLiteral("chart.svg"))));
    for (const char *wanted : {"peer other 1.2 / C floor", "left out: third: no <network>"})
        QVERIFY2(shown.contains(QLatin1String(wanted)), wanted);
}

void TestPictures::oneIncompleteTableOfTwoIsRefused()
{
    Verdict whole;
    whole.add(QStringLiteral("SQLite 500k x 6 async / C floor"), 2, 3);
    Verdict part = whole;
    part.setIncomplete();
    QFile::remove(m_folder.filePath(QStringLiteral("chart.svg")));
    QCOMPARE(draw({whole.text(), part.text()}).exitCode, 1);
    QVERIFY(!QFile::exists(m_folder.filePath(QStringLiteral("chart.svg"))));
}

void TestPictures::sessionIsDrawnAsTheTerminalShowsIt()
{
    if (!haveCommand(QStringLiteral("tmux")))
        QSKIP("the picture of a terminal needs 'tmux'");
    QFile session(m_folder.filePath(QStringLiteral("session.txt")));
    QVERIFY(session.open(QIODevice::WriteOnly));
    session.write("#columns 60\nvext-run\nvar x = 6 * 7;\nx + ' <&>'\n");
    session.close();
    const QString picture = m_folder.filePath(QStringLiteral("session.svg"));
    const CommandOutcome outcome = runCommand(
        {QStringLiteral("python3"), QStringLiteral(VEXT_SOURCE_DIR "/scripts/terminal_picture.py"),
         QStringLiteral(VEXT_RUN_FILE), session.fileName(), picture});
    QVERIFY2(outcome.isGood(), outcome.described().constData());
    const QString shown = texts(elements(picture));
    QVERIFY2(shown.startsWith(QLatin1String("$ vext-run\n")), qPrintable(shown));
    QVERIFY2(shown.endsWith(QLatin1String("> var x = 6 * 7;\nvext> x + ' <&>'\n'42 <&>'\n")),
             qPrintable(shown));
}

void TestPictures::sessionOfTheReadmeStillRunsAsDrawn()
{
    if (!haveCommand(QStringLiteral("tmux")))
        QSKIP("the picture of a terminal needs 'tmux'");
    const QString picture = m_folder.filePath(QStringLiteral("readme.svg"));
    const CommandOutcome outcome = runCommand(
        {QStringLiteral("python3"), QStringLiteral(VEXT_SOURCE_DIR "/scripts/terminal_picture.py"),
         QStringLiteral(VEXT_RUN_FILE),
         QStringLiteral(VEXT_SOURCE_DIR "/docs/pictures/session.txt"), picture});
    QVERIFY2(outcome.isGood(), outcome.described().constData());
    const QString drawn =
        texts(elements(QStringLiteral(VEXT_SOURCE_DIR "/docs/pictures/session.svg")));
    QVERIFY(!drawn.isEmpty());
    // Anew with scripts/picture where the program has changed. The banner's versions may differ.
    const auto withoutBanner = [](const QString &shown) {
        return shown.split(QLatin1Char('\n'))
            .filter(QRegularExpression(QStringLiteral("^(?!vext-run \\d)")));
    };
    QCOMPARE(withoutBanner(texts(elements(picture))), withoutBanner(drawn));
}

QTEST_GUILESS_MAIN(TestPictures)
#include "test_pictures.moc"
