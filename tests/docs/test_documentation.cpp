// What the documentation shows works, and what a script can see is documented.

#include "host_process.h"
#include "page.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace
{

const QStringList &pages()
{
    static const QStringList files{QStringLiteral("README.md"), QStringLiteral("docs/api.md"),
                                   QStringLiteral("docs/threads.md"),
                                   QStringLiteral("docs/vext-run.md")};
    return files;
}

QString fileText(const QString &file)
{
    QFile source(QStringLiteral(VEXT_SOURCE_DIR "/") + file);
    return source.open(QIODevice::ReadOnly) ? QString::fromUtf8(source.readAll()) : QString();
}

/// What the pattern's first group matches in each line, in order.
QStringList captured(const QStringList &lines, const QString &pattern)
{
    const QRegularExpression expression(pattern);
    QStringList found;
    for (const QString &line : lines) {
        const QRegularExpressionMatch match = expression.match(line);
        if (match.hasMatch() && !found.contains(match.captured(1)))
            found.append(match.captured(1));
    }
    return found;
}

/// The lines of a declaration in the type file, from its head to the bracket that ends it.
QStringList declaration(const QString &head)
{
    const QStringList lines =
        fileText(QStringLiteral("types/vext_sql.d.ts")).split(QLatin1Char('\n'));
    const int first = lines.indexOf(head);
    const int end = lines.indexOf(QStringLiteral("}"), first);
    return first < 0 ? QStringList() : lines.mid(first + 1, end - first - 1);
}

QStringList declaredMembers(const QString &head)
{
    return captured(declaration(head),
                    QStringLiteral(R"re(^    (?:readonly )?"?([\w$][\w$ ]*?)"?[?(:<])re"));
}

/// The names in the first column of the tables of a section of the reference.
QStringList describedMembers(const QString &heading)
{
    return captured(Page(QStringLiteral("docs/api.md")).section(heading),
                    QStringLiteral(R"(^\| `([\w$ ]+))"));
}

QStringList sorted(QStringList names)
{
    names.sort();
    return names;
}

/// The names that the type files declare for the whole script.
QStringList declaredGlobals()
{
    QStringList lines;
    for (const char *file : {"types/vext_sql.d.ts", "types/vext_run.d.ts"})
        lines += fileText(QLatin1String(file)).split(QLatin1Char('\n'));
    return captured(lines, QStringLiteral(R"(^declare (?:var|const|function) (\w+))"));
}

/// The lines that a piece of code prints.
QStringList printed(const QString &code)
{
    const HostOutcome outcome = runCode(code);
    return outcome.exitCode == 0 ? outcome.output.split(QLatin1Char('\n'), Qt::SkipEmptyParts)
                                 : QStringList{QString::fromUtf8(outcome.described())};
}

} // namespace

class TestDocumentation : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void exampleDoesWhatItSays_data();
    void exampleDoesWhatItSays();
    void everyExampleIsRunBySomeTest();
    void scriptOfAPageRuns_data();
    void scriptOfAPageRuns();
    void linksLeadSomewhere_data();
    void linksLeadSomewhere();
    void everyClaimOfTheFirstPageIsLinkedToItsProof();

    void everyMemberOfAConnectionIsDescribed();
    void everyGlobalIsDeclared();
    void everyPropertyIsDescribed_data();
    void everyPropertyIsDescribed();
    void everyRussianTextIsDescribed();

private:
    QTemporaryDir m_folder;
};

void TestDocumentation::initTestCase()
{
    QVERIFY2(m_folder.isValid(), qPrintable(m_folder.errorString()));
    // Scripts of the pages name their database files without a folder.
    QVERIFY(QDir::setCurrent(m_folder.path()));
    qputenv("TZ", "UTC");
}

/// A script must work where no other one was before it.
void TestDocumentation::init()
{
    for (const QString &file : QDir(m_folder.path()).entryList(QDir::Files))
        QVERIFY(QFile::remove(m_folder.filePath(file)));
}

void TestDocumentation::exampleDoesWhatItSays_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("expected");
    const QStringList layer;
    const QStringList stock{QStringLiteral("--stock-drivers")};
    for (const char *name :
         {"callback_chain", "batch_transaction", "progress", "stop_long_statement"}) {
        const QString file = QString::fromUtf8(name);
        // Only the layer's drivers can cancel.
        const bool differs = file == QLatin1String("stop_long_statement");
        QTest::newRow(name) << file << layer << file;
        QTest::addRow("%s, stock drivers", name)
            << file << stock << (differs ? file + QStringLiteral("_stock") : file);
    }
}

void TestDocumentation::exampleDoesWhatItSays()
{
    QFETCH(QString, name);
    QFETCH(QStringList, options);
    QFETCH(QString, expected);
    const QString lines = fileText(QStringLiteral("tests/docs/expected/%1.txt").arg(expected));
    QVERIFY(!lines.isEmpty());
    const QString script = QStringLiteral(VEXT_SOURCE_DIR "/examples/%1.js").arg(name);
    // The second time on what the first one left.
    for (int run = 0; run < 2; ++run) {
        const HostOutcome outcome =
            runHost(options + QStringList{script, m_folder.filePath(QStringLiteral("example.db"))});
        QVERIFY2(outcome.endedByItself && outcome.exitCode == 0, outcome.described().constData());
        QCOMPARE(outcome.output, lines);
    }
}

void TestDocumentation::everyExampleIsRunBySomeTest()
{
    const QString tests = fileText(QStringLiteral("tests/docs/test_documentation.cpp")) +
                          fileText(QStringLiteral("tests/host/test_quickstart.cpp")) +
                          fileText(QStringLiteral("tests/server/test_examples.cpp")) +
                          fileText(QStringLiteral("tests/library/test_cluster_postgres.cpp"));
    const QStringList examples = QDir(QStringLiteral(VEXT_SOURCE_DIR "/examples"))
                                     .entryList({QStringLiteral("*.js")}, QDir::Files);
    QVERIFY(!examples.isEmpty());
    for (const QString &example : examples)
        QVERIFY2(tests.contains(example.section(QLatin1Char('.'), 0, 0)), qPrintable(example));
}

void TestDocumentation::scriptOfAPageRuns_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("output");
    QTest::addColumn<bool>("needsServer");
    for (const QString &file : pages()) {
        const Page page(file);
        QVERIFY2(page.isRead(), qPrintable(file));
        const QVector<PageBlock> &blocks = page.blocks();
        for (int i = 0; i < blocks.size(); ++i) {
            const PageBlock &block = blocks.at(i);
            if (block.language != QLatin1String("js"))
                continue;
            const bool isComplete = block.text.contains(QLatin1String("var db = new VEXT_SQL"));
            const bool hasOutput =
                i + 1 < blocks.size() && blocks.at(i + 1).language == QLatin1String("output");
            QTest::newRow(qPrintable(QStringLiteral("%1:%2").arg(file).arg(block.line)))
                << (isComplete ? block.text : page.opening() + block.text)
                << (hasOutput ? blocks.at(i + 1).text : QString())
                << (block.remark == QLatin1String("server"));
        }
    }
}

void TestDocumentation::scriptOfAPageRuns()
{
    QFETCH(QString, code);
    QFETCH(QString, output);
    QFETCH(bool, needsServer);
    if (needsServer)
        code = QStringLiteral("function unused() {\n%1}\n").arg(code);
    const HostOutcome outcome = runCode(code);
    QVERIFY2(outcome.endedByItself && outcome.exitCode == 0, outcome.described().constData());
    if (!output.isEmpty())
        QCOMPARE(outcome.output, output);
}

void TestDocumentation::linksLeadSomewhere_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("target");
    const QRegularExpression link(QStringLiteral(R"re(\]\(([^)]+)\))re"));
    QStringList files =
        QDir(QStringLiteral(VEXT_SOURCE_DIR "/docs")).entryList({QStringLiteral("*.md")});
    for (QString &file : files)
        file.prepend(QStringLiteral("docs/"));
    files.prepend(QStringLiteral("README.md"));
    files.append(QStringLiteral("CHANGELOG.md"));
    files.append(QStringLiteral("tests/support/README.md"));
    for (const QString &file : qAsConst(files)) {
        QRegularExpressionMatchIterator links = link.globalMatch(fileText(file));
        while (links.hasNext()) {
            const QString target = links.next().captured(1);
            if (!target.contains(QLatin1String("://")))
                QTest::newRow(qPrintable(file + QLatin1String(" ") + target)) << file << target;
        }
    }
}

void TestDocumentation::linksLeadSomewhere()
{
    QFETCH(QString, file);
    QFETCH(QString, target);
    const QDir root(QStringLiteral(VEXT_SOURCE_DIR));
    const QString path = target.section(QLatin1Char('#'), 0, 0);
    const QString anchor = target.section(QLatin1Char('#'), 1);
    const QString linked =
        path.isEmpty() ? file : QDir::cleanPath(QFileInfo(file).path() + QLatin1Char('/') + path);
    QVERIFY(QFileInfo::exists(root.filePath(linked)));
    if (!anchor.isEmpty())
        QVERIFY(Page(linked).anchors().contains(anchor));
}

/// A test, a page or a benchmark of ours: what others write is no proof of what we do.
void TestDocumentation::everyClaimOfTheFirstPageIsLinkedToItsProof()
{
    const QString heading = QStringLiteral("## What you get that you would not have elsewhere\n");
    const QString section = fileText(QStringLiteral("README.md"))
                                .section(heading, 1)
                                .section(QStringLiteral("\n## "), 0, 0);
    const QRegularExpression proof(
        QStringLiteral(R"re(\]\((docs|tests|benchmarks)/[^)]+\) \|$)re"));
    int claims = 0;
    for (const QString &line : section.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (claims++ < 2)
            continue; // the head of the table
        QVERIFY2(proof.match(line).hasMatch(), qPrintable(line));
    }
    QVERIFY(claims > 6);
}

void TestDocumentation::everyMemberOfAConnectionIsDescribed()
{
    const QStringList described = describedMembers(QStringLiteral("## The connection object"));
    QCOMPARE(described,
             declaredMembers(QStringLiteral("interface VEXT_SQL extends VextDeletableObject {")));

    QStringList seen = printed(
        QStringLiteral("var db = new VEXT_SQL; for (var name in db) print(name.split('(')[0]);"
                       "print('query_thread'); print('exec_thread'); print('countersAll');"
                       "print('tag'); print('queryResult');"));
    seen.removeDuplicates();
    const QStringList ofEveryObject =
        declaredMembers(QStringLiteral("interface VextObject {")) +
        declaredMembers(QStringLiteral("interface VextDeletableObject extends VextObject {"));
    for (const QString &name : ofEveryObject)
        QVERIFY2(described.contains(name) || seen.removeOne(name), qPrintable(name));
    for (const char *forTheHost : {"s_msg", "msg", "setScriptValueThis"})
        QVERIFY2(seen.removeOne(QLatin1String(forTheHost)), forTheHost);
    QCOMPARE(sorted(described), sorted(seen));
}

void TestDocumentation::everyGlobalIsDeclared()
{
    QStringList globals = printed(QStringLiteral(
        "Object.getOwnPropertyNames(this).forEach(function (name) { print(name) })"));
    // Those of the language come first, and compilers know them.
    const int last = globals.indexOf(QStringLiteral("encodeURIComponent"));
    QVERIFY2(last > 20, qPrintable(globals.join(QLatin1Char(' '))));
    globals = globals.mid(last + 1);
    globals.removeDuplicates();
    QCOMPARE(sorted(declaredGlobals()), sorted(globals));
}

void TestDocumentation::everyPropertyIsDescribed_data()
{
    QTest::addColumn<QString>("heading");
    QTest::addColumn<QString>("head");
    QTest::addColumn<QString>("code");
    const QString open = openSqlite();
    const QString show = QStringLiteral("for (var name in shown) print(name);");
    QTest::newRow("result")
        << QStringLiteral("## Result objects")
        << QStringLiteral("interface VextSqlResultProperties {")
        << open + QStringLiteral("var shown = db.query('begin'); print('$ res sql');") + show;
    QTest::newRow("error record") << QStringLiteral("## The error record")
                                  << QStringLiteral("interface VextSqlError {")
                                  << open + QStringLiteral("var shown = db.lastErrors;") + show;
    QTest::newRow("statistics")
        << QStringLiteral("## Statistics") << QStringLiteral("interface VextSqlCounters {")
        << open + QStringLiteral("db.start_thread(); var shown = counters()[0];") + show;
    QTest::newRow("features") << QStringLiteral("## Features")
                              << QStringLiteral("interface VextSqlFeatures {")
                              << open + QStringLiteral("var shown = db.hasFeature();") + show;
}

void TestDocumentation::everyPropertyIsDescribed()
{
    QFETCH(QString, heading);
    QFETCH(QString, head);
    QFETCH(QString, code);
    const QStringList described = describedMembers(heading);
    QCOMPARE(described, declaredMembers(head));
    QCOMPARE(described, printed(code));
}

void TestDocumentation::everyRussianTextIsDescribed()
{
    const QString page = fileText(QStringLiteral("docs/api.md"));
    const QRegularExpression text(QStringLiteral(R"("([^"\n]*[\x{0410}-\x{044F}][^"\n]*)\")"));
    const QRegularExpression placeholder(QStringLiteral(R"(%\d|\\n)"));
    int found = 0;
    for (const char *folder : {"plugins/base", "plugins/PluginSQL"}) {
        const QDir sources(QStringLiteral(VEXT_SOURCE_DIR "/") + QLatin1String(folder));
        for (const QString &file : sources.entryList({QStringLiteral("*.cpp")}, QDir::Files)) {
            QRegularExpressionMatchIterator matches =
                text.globalMatch(fileText(QLatin1String(folder) + QLatin1Char('/') + file));
            while (matches.hasNext()) {
                const QString russian = matches.next().captured(1);
                // The page has names where the code has placeholders.
                for (const QString &piece : russian.split(placeholder))
                    QVERIFY2(page.contains(piece),
                             qPrintable(file + QLatin1String(": ") + russian));
                ++found;
            }
        }
    }
    QVERIFY(found > 20);
}

QTEST_GUILESS_MAIN(TestDocumentation)
#include "test_documentation.moc"
