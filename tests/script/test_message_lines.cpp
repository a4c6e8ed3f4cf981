/// @file
/// The line that a message of the worker carries leads a reader to the place that sent it, though
/// its functions lie in several files under one path.
#include "script_test.h"

#include <QFile>
#include <QRegularExpression>
#include <QSet>

namespace
{

/// The file that the thousands of a line tell.
QString fileOf(int line)
{
    static const QStringList files = {"thread"_qs, "connection"_qs, "statement"_qs,
                                      "result"_qs, "event"_qs,      "info"_qs,
                                      "run"_qs};
    return "plugins/PluginSQL/vext_sql_%1.cpp"_qs.arg(files.value(line / 1000, "?"_qs));
}

/// A file of the source tree by its lines.
QStringList linesOf(const QString &fileName)
{
    QFile file(QString::fromUtf8(VEXT_SOURCE_DIR "/") + fileName);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
}

} // namespace

class TestMessageLines : public ScriptTest
{
    Q_OBJECT

private slots:
    void linesOfTheWorkerLeadToTheirPlaces();
    void sampleOfTheHostsPageCouldBeTold();

private:
    /// What everything that the worker has told so far names as its line.
    QSet<int> toldLines() const;
};

QSet<int> TestMessageLines::toldLines() const
{
    QSet<int> lines;
    for (const SinkMessage &message : host().post()->messages()) {
        if (message.file == "plugins/PluginSQL/vext_sql_thread"_qs)
            lines.insert(message.line);
    }
    static const QRegularExpression logged("\\bvext_sql_thread:(\\d+) "_qs);
    for (const LogLine &entry : log().lines()) {
        const QRegularExpressionMatch match = logged.match(entry.text);
        if (match.hasMatch())
            lines.insert(match.captured(1).toInt());
    }
    return lines;
}

void TestMessageLines::linesOfTheWorkerLeadToTheirPlaces()
{
    StubServer &driver = openStub("STUB"_qs);
    driver.setFeature(QSqlDriver::EventNotifications);
    expectComplaints("driver not loaded|available drivers"_qs);
    driver.onExact("wrong"_qs,
                   StubReply::failure(stubError(QSqlError::StatementError, "wrong"_qs)));
    eval("db.close(); db.traceLog = true; db.add_event('before'); db.open(); db.open();"
         "db.add_event('after'); db.query('wrong'); db.query('right --'); db.exec('p', [1, 2]);"
         "var done = 0; db.query_thread(function() { ++done }, ['one', 'wrong', 'two --']);"
         "db.exec_thread(function() { ++done }, 'p', [1])"_qs);
    QVERIFY(host().waitForScript("done === 2"_qs));
    eval("db.close(); db.tables(); db.query('x'); db.driverName = 'NONE'; db.open()"_qs);
    drainEvents();
    QSet<QString> files;
    for (const int line : toldLines()) {
        const QString file = fileOf(line);
        files.insert(file);
        const QString place = linesOf(file).value(line % 1000 - 1).trimmed();
        QVERIFY2(place.contains("__LINE__"_qs),
                 qPrintable("%1 says %2: %3"_qs.arg(file, QString::number(line), place)));
    }
    QCOMPARE(files.size(), 7);
}

/// Not its very line, which moves with the code.
void TestMessageLines::sampleOfTheHostsPageCouldBeTold()
{
    const QString page = linesOf("docs/hosts.md"_qs).join(QLatin1Char('\n'));
    const QRegularExpressionMatch sample =
        QRegularExpression("vext_sql_thread:(\\d+) (\\w+):"_qs).match(page);
    QVERIFY(sample.hasMatch());
    const int line = sample.captured(1).toInt();
    const QStringList lines = linesOf(fileOf(line));
    QVERIFY2(line % 1000 < lines.size(), qPrintable(fileOf(line)));
    QVERIFY(!lines.filter("__LINE__, \"%1\""_qs.arg(sample.captured(2))).isEmpty());
}

QTEST_GUILESS_MAIN(TestMessageLines)

#include "test_message_lines.moc"
