// The interactive prompt, on a terminal.

#include "terminal_session.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

#define VERIFY_SCREEN(condition) QVERIFY2(condition, m_session->screen().constData())

class TestPrompt : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void valuesAreShown();
    void resultIsShownAsATable();
    void inputGoesOnOverSeveralLines();
    void endlessLineIsDroppedAsAWhole_data();
    void endlessLineIsDroppedAsAWhole();
    void exceptionLeavesThePromptRunning();
    void exceptionOfACallbackLeavesThePromptRunning();
    void whatCallbacksPrintAppearsAboveTheTypedLine();
    void interruptDropsTheTypedLine();
    void interruptDropsAnUnfinishedStatement();
    void interruptAtAnEmptyPromptEndsTheProgram();
    void quitEndsTheProgram();
    void endOfInputEndsTheProgramAlthoughTimersRun();
    void historyIsKeptForTheUserAlone();
    void oneInterruptEndsAScriptThatNeverReturns_data();
    void oneInterruptEndsAScriptThatNeverReturns();
    void oneInterruptEndsACallbackThatNeverReturns();

private:
    void startAgain();
    QString historyFile() const;

    QScopedPointer<QTemporaryDir> m_folder;
    QScopedPointer<TerminalSession> m_session;
};

void TestPrompt::init()
{
    m_folder.reset(new QTemporaryDir);
    startAgain();
}

void TestPrompt::startAgain()
{
    m_session.reset(new TerminalSession(m_folder->path()));
    VERIFY_SCREEN(m_session->isRunning() && m_session->waitFor("vext> "));
}

void TestPrompt::cleanup()
{
    m_session.reset();
    m_folder.reset();
}

QString TestPrompt::historyFile() const
{
    return m_folder->filePath(QStringLiteral("vext/vext-run-history"));
}

void TestPrompt::valuesAreShown()
{
    VERIFY_SCREEN(m_session->enter("6 * 7", "\n42\n"));
    VERIFY_SCREEN(m_session->enter("'a' + 'ж'", "\n'aж'\n"));
    VERIFY_SCREEN(m_session->enter("({a: [1]})", "\n{ a: [ 1 ] }\n"));
    VERIFY_SCREEN(m_session->enter("null", "\nnull\n"));
    VERIFY_SCREEN(m_session->enter("var x = 1", "\n")); // nothing, and the prompt comes back
    VERIFY_SCREEN(!m_session->screen().contains("undefined"));
}

void TestPrompt::resultIsShownAsATable()
{
    VERIFY_SCREEN(m_session->enter("var db = new VEXT_SQL('p'); db.driverName = 'QSQLITE'", "\n"));
    VERIFY_SCREEN(m_session->enter("db", "\n[VEXT_SQL 'p']\n"));
    VERIFY_SCREEN(m_session->enter("db.databaseName = ':memory:'; db.open()", "\ntrue\n"));
    VERIFY_SCREEN(m_session->enter("db.query(\"select 1 as a, '' as b, null as c\")",
                                   "\na | b | c\n--+---+-----\n1 |   | NULL\n(1 row)\n"));
}

void TestPrompt::inputGoesOnOverSeveralLines()
{
    m_session->type("function twice(n) {\r");
    VERIFY_SCREEN(m_session->waitFor("  ... "));
    m_session->type("return n * 2;\r");
    VERIFY_SCREEN(m_session->waitFor("  ... "));
    m_session->type("}\r");
    VERIFY_SCREEN(m_session->waitFor("vext> "));
    m_session->type("twice(\r");
    VERIFY_SCREEN(m_session->waitFor("  ... "));
    VERIFY_SCREEN(m_session->enter("21)", "\n42\n"));
}

void TestPrompt::endlessLineIsDroppedAsAWhole_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("behind");
    QTest::newRow("typed") << QByteArray() << QByteArray();
    QTest::newRow("pasted") << QByteArray("\x1b[200~") << QByteArray("\x1b[201~");
}

void TestPrompt::endlessLineIsDroppedAsAWhole()
{
    QFETCH(QByteArray, before);
    QFETCH(QByteArray, behind);
    // Its end, and what was pasted with it, would run if it were not.
    const QByteArray line = QByteArray("print(\"") + QByteArray(100000000, 'x');
    QVERIFY(m_session->typeMuch(before + line + "\"); quit(7)\rquit(8)\r" + behind));
    VERIFY_SCREEN(m_session->waitFor("\nthe line is too long to be typed; .read reads a file\n"));
    VERIFY_SCREEN(m_session->waitFor("vext> "));
    VERIFY_SCREEN(m_session->enter("6 * 7", "\n42\n"));
    QCOMPARE(m_session->screen().count("too long"), 1);
}

void TestPrompt::exceptionLeavesThePromptRunning()
{
    VERIFY_SCREEN(m_session->enter("throw new Error('boom')",
                                   "\nuncaught exception: Error: boom\n  in [input], line 1\n"));
    VERIFY_SCREEN(m_session->enter("var = 1", "\n[input]:1:5: SyntaxError: Parse error\n"));
    VERIFY_SCREEN(m_session->enter("1 + 1", "\n2\n"));
}

void TestPrompt::exceptionOfACallbackLeavesThePromptRunning()
{
    m_session->type("setTimeout(function() { throw new Error('late'); }, 10); 0\r");
    VERIFY_SCREEN(m_session->waitFor("uncaught exception: Error: late\n"));
    VERIFY_SCREEN(m_session->waitFor("vext> "));
    VERIFY_SCREEN(m_session->enter("1 + 1", "\n2\n"));
}

void TestPrompt::whatCallbacksPrintAppearsAboveTheTypedLine()
{
    VERIFY_SCREEN(m_session->enter("var go = false; var i = setInterval(function() {"
                                   " if (go) return; go = true; print('from a callback');"
                                   " clearInterval(i); }, 300); 0",
                                   "\n0\n"));
    m_session->type("40 + ");
    VERIFY_SCREEN(m_session->waitFor("from a callback\n"));
    VERIFY_SCREEN(m_session->waitFor("vext> 40 + ")); // the line has come back as it was
    m_session->type("2\r");
    VERIFY_SCREEN(m_session->waitFor("\n42\n"));
}

void TestPrompt::interruptDropsTheTypedLine()
{
    m_session->type("never");
    VERIFY_SCREEN(m_session->waitFor("never"));
    m_session->type("\x03");
    VERIFY_SCREEN(m_session->waitFor("^C\nvext> "));
    VERIFY_SCREEN(m_session->enter("1 + 1", "\n2\n"));
    VERIFY_SCREEN(!m_session->screen().contains("exception"));
}

void TestPrompt::interruptDropsAnUnfinishedStatement()
{
    m_session->type("function never() {\r");
    VERIFY_SCREEN(m_session->waitFor("  ... "));
    m_session->type("\x03");
    VERIFY_SCREEN(m_session->waitFor("^C\nvext> "));
    VERIFY_SCREEN(m_session->enter("1 + 1", "\n2\n"));
}

void TestPrompt::interruptAtAnEmptyPromptEndsTheProgram()
{
    m_session->type("\x03");
    const int exitCode = m_session->finish();
    VERIFY_SCREEN(exitCode == 130);
}

void TestPrompt::quitEndsTheProgram()
{
    m_session->type("quit(4)\r");
    const int exitCode = m_session->finish();
    VERIFY_SCREEN(exitCode == 4);
    QCOMPARE(m_session->screen().count("vext> "), 1);
}

void TestPrompt::endOfInputEndsTheProgramAlthoughTimersRun()
{
    VERIFY_SCREEN(m_session->enter("setInterval(function() {}, 5); 0", "\n0\n"));
    m_session->type("\x04");
    const int exitCode = m_session->finish();
    VERIFY_SCREEN(exitCode == 0);
}

void TestPrompt::historyIsKeptForTheUserAlone()
{
    VERIFY_SCREEN(m_session->enter("'first' + 1", "\n'first1'\n"));
    VERIFY_SCREEN(m_session->enter("'second' + 2", "\n'second2'\n"));
    m_session->type("\x04");
    QCOMPARE(m_session->finish(), 0);
    QFile history(historyFile());
    QVERIFY(history.open(QIODevice::ReadOnly));
    QCOMPARE(history.readAll(), QByteArray("'first' + 1\n'second' + 2\n"));
    const QFile::Permissions others =
        QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther;
    QCOMPARE(history.permissions() & others, QFile::Permissions());

    startAgain();
    m_session->type("\x1b[A\x1b[A"); // twice up
    m_session->type("\r");
    VERIFY_SCREEN(m_session->waitFor("\n'first1'\n"));
}

void TestPrompt::oneInterruptEndsAScriptThatNeverReturns_data()
{
    QTest::addColumn<QByteArray>("code");
    QTest::newRow("empty loop") << QByteArray("while (true) {}");
    QTest::newRow("loop without a condition") << QByteArray("for (;;);");
    QTest::newRow("catch") << QByteArray("try { while (true); } catch (e) { while (true); }");
    QTest::newRow("finally") << QByteArray("try { while (true); } finally { while (true); }");
    QTest::newRow("calls") << QByteArray(
        "function f() { f(); } while (1) try { f(); } catch (e) {}");
    QTest::newRow("native calls") << QByteArray("while (1) [1].forEach(function (x) { x++; });");
}

void TestPrompt::oneInterruptEndsAScriptThatNeverReturns()
{
    QFETCH(QByteArray, code);
    m_session->type("print('on'); " + code + "\r");
    VERIFY_SCREEN(m_session->waitFor("\non\n"));
    m_session->type("\x03");
    VERIFY_SCREEN(m_session->waitFor("interrupted\n") && m_session->waitFor("vext> "));
    VERIFY_SCREEN(m_session->enter("6 * 7", "\n42\n"));
    VERIFY_SCREEN(!m_session->screen().contains("exception"));
}

void TestPrompt::oneInterruptEndsACallbackThatNeverReturns()
{
    m_session->type("setTimeout(function () { print('on'); while (true); }, 20); 0\r");
    VERIFY_SCREEN(m_session->waitFor("on\n"));
    m_session->type("\x03");
    VERIFY_SCREEN(m_session->waitFor("interrupted\n"));
    VERIFY_SCREEN(m_session->enter("6 * 7", "\n42\n"));
    VERIFY_SCREEN(!m_session->screen().contains("exception"));
}

QTEST_GUILESS_MAIN(TestPrompt)
#include "test_prompt.moc"
