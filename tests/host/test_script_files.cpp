// The script globals for files, standard input, included scripts, bytes and progress.

#include "host_process.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

#define VERIFY_OUTCOME(condition, outcome) QVERIFY2(condition, (outcome).described().constData())

class TestScriptFiles : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void filesAreReadWrittenAndAppended();
    void aWriteReplacesTheWholeFileOrNothing();
    void bytesGoThroughFilesUnchanged();
    void errorsNameFunctionFileAndReason_data();
    void errorsNameFunctionFileAndReason();
    void linesComeOneByOneWithTheirNumbers();
    void aLineFunctionThatReturnsFalseOrThrowsEndsTheReading();
    void aLineOfManyMegabytesIsRead();
    void aLargeFileIsReadInFlatMemory();
    void fiveGigabytesAreReadInFlatMemory();
    void standardInputIsReadAsLinesAndAsAWhole();
    void environmentIsReadByName();
    void foldersAreListedSorted();
    void includedFilesRunOnceInTheGlobalScope();
    void anIncludeIsRelativeToItsFile();
    void anIncludeOfCodeIsRelativeToTheWorkingDirectory();
    void aFileThatIncludesItselfRunsOnce();
    void theScriptLibraryIsIncludedByItsName();
    void anOwnFileComesBeforeTheScriptLibrary();
    void errorsInIncludedFilesNameThatFile_data();
    void errorsInIncludedFilesNameThatFile();
    void missingIncludeIsAClearErrorAndCode1();
    void scriptFileIsTheAbsolutePath();
    void bytesHaveMembersAndAreShown();
    void bytesAreMadeFromTexts_data();
    void bytesAreMadeFromTexts();
    void bytesInResultsHaveTheSameMembers();
    void bytesAreBoundAndReadBack_data();
    void bytesAreBoundAndReadBack();
    void bytesGoThroughJson();
    void arraysOfObjectsAreShownAsATable();
    void writeAddsNoLineBreakAndProgressIsSilentInAPipe();
    void aClosedPipeEndsTheScriptWithCode141();
    void aFullDiskEndsTheScriptWithCode1();
    void newerSyntaxIsExplained_data();
    void newerSyntaxIsExplained();

private:
    /// Writes a file into the folder of the test.
    void store(const QString &name, const QByteArray &content);
    /// Runs code with the folder as `dir`.
    HostOutcome run(const QString &code);

    QScopedPointer<QTemporaryDir> m_folder;
};

void TestScriptFiles::init()
{
    m_folder.reset(new QTemporaryDir);
}

void TestScriptFiles::store(const QString &name, const QByteArray &content)
{
    QFile file(m_folder->filePath(name));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), content.size());
}

HostOutcome TestScriptFiles::run(const QString &code)
{
    return runCode(QStringLiteral("var dir = '%1/';\n").arg(m_folder->path()) + code);
}

void TestScriptFiles::filesAreReadWrittenAndAppended()
{
    const HostOutcome outcome =
        run(QStringLiteral("var f = dir + 'a.txt'; print(exists(f));\n"
                           "writeFile(f, 'один\\n'); appendFile(f, 'zwei'); print(exists(f));\n"
                           "print(JSON.stringify(readFile(f)));\n"
                           "writeFile(f, ''); print(readFile(f).length);\n"
                           "appendFile(dir + 'new.txt', 'x'); print(readFile(dir + 'new.txt'));"));
    QCOMPARE(outcome.output, QStringLiteral("false\ntrue\n\"один\\nzwei\"\n0\nx\n"));
    VERIFY_OUTCOME(outcome.exitCode == 0 && outcome.errors.isEmpty(), outcome);
}

void TestScriptFiles::aWriteReplacesTheWholeFileOrNothing()
{
    store(QStringLiteral("a.txt"), "old");
    QVERIFY(QFile::setPermissions(m_folder->path(), QFile::ReadOwner | QFile::ExeOwner));
    const HostOutcome refused =
        run(QStringLiteral("try { writeFile(dir + 'none/a.txt', 'new') } catch (e) {"
                           " print(e.message.indexOf(\"none/a.txt': \") > 0) }"));
    QFile::setPermissions(m_folder->path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QCOMPARE(refused.output, QStringLiteral("true\n"));
    QVERIFY(run(QStringLiteral("writeFile(dir + 'a.txt', 'n');")).exitCode == 0);
    QCOMPARE(QDir(m_folder->path()).entryList(QDir::Files), QStringList{QStringLiteral("a.txt")});
    QCOMPARE(run(QStringLiteral("print(readFile(dir + 'a.txt'))")).output, QStringLiteral("n\n"));
}

void TestScriptFiles::bytesGoThroughFilesUnchanged()
{
    const HostOutcome outcome =
        run(QStringLiteral("var f = dir + 'b'; writeFile(f, bytes('00ff0a0d80', 'hex'));\n"
                           "appendFile(f, bytes('01', 'hex'));\n"
                           "print(readFile(f, 'bytes').toHex());"));
    QCOMPARE(outcome.output, QStringLiteral("00ff0a0d8001\n"));
}

void TestScriptFiles::errorsNameFunctionFileAndReason_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("error");
    const auto row = [](const char *name, const char *code, const char *error) {
        QTest::newRow(name) << QString::fromUtf8(code) << QString::fromUtf8(error);
    };
    row("missing", "readFile(dir + 'x')", "Error: readFile 'DIR/x': No such file or directory");
    row("folder", "readFile(dir)", "Error: readFile 'DIR/': it is a folder");
    row("zero bytes", "readFile(dir + 'zero')",
        "Error: readFile 'DIR/zero': it is not text: byte 2 is zero; \"bytes\" as a further "
        "argument"
        " reads it as it is");
    row("not UTF-8", "readFile(dir + 'latin')",
        "Error: readFile 'DIR/latin': it is not text in UTF-8: byte 3; \"bytes\" as a further"
        " argument reads it as it is");
    row("lines", "readLines(dir + 'latin', function () {})",
        "Error: readLines 'DIR/latin': line 2: it is not text in UTF-8: byte 1");
    row("missing lines", "readLines(dir + 'x', function () {})",
        "Error: readLines 'DIR/x': No such file or directory");
    row("no function", "readLines(dir + 'latin')",
        "TypeError: readLines: the second argument must be a function");
    row("write to a folder", "writeFile(dir, 'x')", "Error: writeFile 'DIR/': it is a folder");
    row("full disk", "writeFile('/dev/full', 'x')",
        "Error: writeFile '/dev/full': No space left on device");
    row("append to a full disk", "appendFile('/dev/full', 'x')",
        "Error: appendFile '/dev/full': No space left on device");
    row("no content", "writeFile(dir + 'y')",
        "TypeError: writeFile: the second argument must be a text or bytes");
    row("no path", "readFile()", "TypeError: readFile: the first argument must be a path");
    row("path with a zero", "exists('a\\0b')",
        "TypeError: exists: the first argument must be a path");
    row("missing folder", "listFiles(dir + 'x')",
        "Error: listFiles 'DIR/x': No such file or directory");
}

void TestScriptFiles::errorsNameFunctionFileAndReason()
{
    QFETCH(QString, code);
    QFETCH(QString, error);
    store(QStringLiteral("zero"), QByteArray("ab\0c", 4));
    store(QStringLiteral("latin"), "a\nb\xE4\xE4");
    const HostOutcome outcome = run(code);
    error.replace(QLatin1String("DIR"), m_folder->path());
    VERIFY_OUTCOME(outcome.errors.startsWith(QStringLiteral("uncaught exception: %1\n").arg(error)),
                   outcome);
    VERIFY_OUTCOME(outcome.exitCode == 1, outcome);
}

void TestScriptFiles::linesComeOneByOneWithTheirNumbers()
{
    store(QStringLiteral("l"), "one\r\n\nthree\rx\n" + QByteArray(200000, 'y'));
    const HostOutcome outcome = run(QStringLiteral(
        "var n = readLines(dir + 'l', function (line, number) {\n"
        "  print(number, line.length > 100 ? line.length : JSON.stringify(line)); }); print(n);"));
    QCOMPARE(outcome.output, QStringLiteral("1 \"one\"\n2 \"\"\n3 \"three\\rx\"\n4 200000\n4\n"));
}

void TestScriptFiles::aLineFunctionThatReturnsFalseOrThrowsEndsTheReading()
{
    store(QStringLiteral("l"), "1\n2\n3\n");
    const HostOutcome outcome = run(QStringLiteral(
        "print(readLines(dir + 'l', function (line, n) { return n < 2; }));\n"
        "try { readLines(dir + 'l', function (line) { print(line); throw 'enough'; }); }\n"
        "catch (e) { print(e); }\n"
        "readLines(dir + 'l', function (line) { print(line); quit(7); }); print('never');"));
    QCOMPARE(outcome.output, QStringLiteral("2\n1\nenough\n1\n"));
    QCOMPARE(outcome.exitCode, 7);
}

void TestScriptFiles::aLineOfManyMegabytesIsRead()
{
    store(QStringLiteral("l"), QByteArray(100000000, 'x') + "\nend\n");
    const HostOutcome outcome =
        run(QStringLiteral("readLines(dir + 'l', function (line, n) { print(n, line.length); });"));
    QCOMPARE(outcome.output, QStringLiteral("1 100000000\n2 3\n"));
}

void TestScriptFiles::aLargeFileIsReadInFlatMemory()
{
    store(QStringLiteral("l"),
          QByteArray("a line of forty characters, more or less\n").repeated(5000000));
    const HostOutcome outcome = run(QStringLiteral(
        "function memory() { return +/VmHWM:\\s*(\\d+)/.exec(readFile('/proc/self/status'))[1]; }\n"
        "var before = 0;\n"
        "readLines(dir + 'l', function (line, n) { if (n === 100000) before = memory(); });\n"
        "print(memory() - before < 20000, memory() - before);"));
    VERIFY_OUTCOME(outcome.output.startsWith(QLatin1String("true ")), outcome);
}

void TestScriptFiles::fiveGigabytesAreReadInFlatMemory()
{
    // 54,000 lines of 99,999 characters, from a pipe: no disk of a test machine has room for them.
    QProcess source;
    source.setProgram(QStringLiteral("sh"));
    source.setArguments({QStringLiteral("-c"), QStringLiteral("yes \"$1\" | head -n 54000"),
                         QStringLiteral("sh"), QString(99999, QLatin1Char('x'))});
    HostProcess host;
    source.setStandardOutputProcess(&host.process());
    source.start();
    QVERIFY(host.start(
        {QStringLiteral("-e"),
         QStringLiteral("var lines = 0, size = 0;\n"
                        "readLines('/dev/stdin', function (line, number) {\n"
                        "  lines = number; size += line.length; });\n"
                        "var most = /VmHWM:\\s*(\\d+)/.exec(readFile('/proc/self/status'))[1];\n"
                        "print(lines, size, +most < 100000, most);")}));
    const HostOutcome outcome = host.finish(4 * HostProcess::limitMs); // half a minute with luck
    QVERIFY(source.waitForFinished(HostProcess::limitMs));
    VERIFY_OUTCOME(outcome.output.startsWith(QLatin1String("54000 5399946000 true ")), outcome);
}

void TestScriptFiles::standardInputIsReadAsLinesAndAsAWhole()
{
    const QStringList arguments{
        QStringLiteral("-e"),
        QStringLiteral("print(stdin.isTerminal, stdin.readLine());\n"
                       "stdin.readLines(function (line, n) { print(n, line); return n < 1; });\n"
                       "print(JSON.stringify(stdin.read())); print(stdin.readLine());\n"
                       "print(stdin.read('bytes').length);")};
    const HostOutcome outcome = runHost(arguments, "a\nb\nc\nd");
    QCOMPARE(outcome.output, QStringLiteral("false a\n1 b\n\"c\\nd\"\nnull\n0\n"));
}

void TestScriptFiles::environmentIsReadByName()
{
    qputenv("VEXT_TEST_WORD", "слово");
    QCOMPARE(run(QStringLiteral("print(env('VEXT_TEST_WORD'), env('VEXT_TEST_NONE'));")).output,
             QStringLiteral("слово undefined\n"));
}

void TestScriptFiles::foldersAreListedSorted()
{
    for (const char *name : {"b.csv", "a.csv", "c.txt"})
        store(QLatin1String(name), "x");
    QVERIFY(QDir(m_folder->path()).mkdir(QStringLiteral("folder")));
    QCOMPARE(run(QStringLiteral("print(listFiles(dir), listFiles(dir, '*.csv'));")).output,
             QStringLiteral("[ 'a.csv', 'b.csv', 'c.txt' ] [ 'a.csv', 'b.csv' ]\n"));
}

void TestScriptFiles::includedFilesRunOnceInTheGlobalScope()
{
    store(QStringLiteral("lib.js"), "var shared = (typeof shared === 'undefined') ? 1 : 2;\n"
                                    "function twice(x) { return 2 * x; }\n");
    const HostOutcome outcome =
        run(QStringLiteral("(function () { include(dir + 'lib.js'); })();\n"
                           "include(dir + './lib.js'); print(shared, twice(4), this.shared);"));
    QCOMPARE(outcome.output, QStringLiteral("1 8 1\n"));
}

void TestScriptFiles::anIncludeIsRelativeToItsFile()
{
    QVERIFY(QDir(m_folder->path()).mkdir(QStringLiteral("lib")));
    store(QStringLiteral("main.js"), "include('lib/a.js'); print(a, b);\n");
    store(QStringLiteral("lib/a.js"), "var a = 'a'; include('b.js');\n");
    store(QStringLiteral("lib/b.js"), "var b = 'b';\n");
    const HostOutcome outcome = runHost({m_folder->filePath(QStringLiteral("main.js"))});
    QCOMPARE(outcome.output, QStringLiteral("a b\n"));
}

void TestScriptFiles::anIncludeOfCodeIsRelativeToTheWorkingDirectory()
{
    store(QStringLiteral("a.js"), "print('here');\n");
    HostProcess host;
    host.process().setWorkingDirectory(m_folder->path());
    QVERIFY(host.start({QStringLiteral("-e"), QStringLiteral("include('a.js')")}));
    QCOMPARE(host.finish().output, QStringLiteral("here\n"));
}

void TestScriptFiles::aFileThatIncludesItselfRunsOnce()
{
    store(QStringLiteral("a.js"), "print('a'); include('b.js');\n");
    store(QStringLiteral("b.js"), "print('b'); include('b.js'); include('a.js');\n");
    const HostOutcome outcome = runHost({m_folder->filePath(QStringLiteral("a.js"))});
    QCOMPARE(outcome.output, QStringLiteral("a\nb\n"));
}

void TestScriptFiles::theScriptLibraryIsIncludedByItsName()
{
    store(QStringLiteral("a.js"), "include('vext'); print(typeof vext.rows);\n");
    const HostOutcome outcome = runHost({m_folder->filePath(QStringLiteral("a.js"))});
    QCOMPARE(outcome.output, QStringLiteral("function\n"));
    // Nothing but a bare name is looked up there.
    const HostOutcome path = run(QStringLiteral("include('library/vext')"));
    VERIFY_OUTCOME(path.exitCode == 1, path);
}

void TestScriptFiles::anOwnFileComesBeforeTheScriptLibrary()
{
    store(QStringLiteral("vext"), "print('mine');\n");
    store(QStringLiteral("a.js"), "include('vext'); print(typeof vext);\n");
    const HostOutcome outcome = runHost({m_folder->filePath(QStringLiteral("a.js"))});
    QCOMPARE(outcome.output, QStringLiteral("mine\nundefined\n"));
}

void TestScriptFiles::errorsInIncludedFilesNameThatFile_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("place");
    QTest::newRow("exception") << QByteArray("\nthrow new Error('x');\n")
                               << QStringLiteral("bad.js, line 2\n");
    QTest::newRow("syntax") << QByteArray("\n\nvar x = ;\n")
                            << QStringLiteral("bad.js, line 3, column 9\n");
}

void TestScriptFiles::errorsInIncludedFilesNameThatFile()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, place);
    store(QStringLiteral("bad.js"), content);
    const HostOutcome outcome = run(QStringLiteral("include(dir + 'bad.js')"));
    VERIFY_OUTCOME(outcome.errors.contains(place) && outcome.exitCode == 1, outcome);
}

void TestScriptFiles::missingIncludeIsAClearErrorAndCode1()
{
    const HostOutcome outcome = run(QStringLiteral("include(dir + 'none.js')"));
    VERIFY_OUTCOME(
        outcome.errors.contains(QLatin1String("none.js': No such file or directory\n")) &&
            outcome.exitCode == 1,
        outcome);
}

void TestScriptFiles::scriptFileIsTheAbsolutePath()
{
    store(QStringLiteral("s.js"), "print(scriptFile);\n");
    HostProcess host;
    host.process().setWorkingDirectory(m_folder->path());
    QVERIFY(host.start({QStringLiteral("s.js")}));
    QCOMPARE(host.finish().output, m_folder->filePath(QStringLiteral("s.js\n")));
    QCOMPARE(run(QStringLiteral("print('<' + scriptFile + '>')")).output, QStringLiteral("<>\n"));
}

void TestScriptFiles::bytesHaveMembersAndAreShown()
{
    const HostOutcome outcome = run(QStringLiteral(
        "var b = bytes('deadbeef', 'hex');\n"
        "print(b, b.length, b.toHex(), b.toBase64(), b.get(0), b.get(4), b.get(-1));\n"
        "print(b.slice(1), b.slice(-2, -1), b.slice(3, 1), b.slice(0, 99));\n"
        "print(bytes('привет').toText(), bytes('привет').length);\n"
        "try { b.toText() } catch (e) { print(e.message); }\n"
        "try { b.toHex.call({}) } catch (e) { print(e.name); }\n"
        "for (var name in b) print('enumerated', name);"));
    QCOMPARE(outcome.output,
             QStringLiteral("0xdeadbeef 4 deadbeef 3q2+7w== 222 undefined undefined\n"
                            "0xadbeef 0xbe 0x 0xdeadbeef\n"
                            "привет 12\n"
                            "toText: it is not text in UTF-8: byte 2\n"
                            "TypeError\n"));
}

void TestScriptFiles::bytesAreMadeFromTexts_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("shown");
    const auto row = [](const char *code, const char *shown) {
        QTest::newRow(code) << QString::fromUtf8(code) << QString::fromUtf8(shown);
    };
    row("bytes('', 'hex')", "0x");
    row("bytes('00fF', 'hex')", "0x00ff");
    row("bytes('3q2+7w==', 'base64')", "0xdeadbeef");
    row("bytes('aé')", "0x61c3a9");
    row("bytes('abc', 'hex')", "TypeError: bytes: the text is not in the form \"hex\"");
    row("bytes('zz', 'hex')", "TypeError: bytes: the text is not in the form \"hex\"");
    row("bytes('*', 'base64')", "TypeError: bytes: the text is not in the form \"base64\"");
    row("bytes('a', 'rot13')",
        "TypeError: bytes: there is no form \"rot13\", but \"hex\", \"base64\" and \"text\"");
    row("bytes(5)", "TypeError: bytes: the first argument must be a text");
}

void TestScriptFiles::bytesAreMadeFromTexts()
{
    QFETCH(QString, code);
    QFETCH(QString, shown);
    const HostOutcome outcome =
        run(QStringLiteral("try { print(%1) } catch (e) { print(e) }").arg(code));
    QCOMPARE(outcome.output, shown + QLatin1Char('\n'));
}

void TestScriptFiles::bytesInResultsHaveTheSameMembers()
{
    const HostOutcome outcome =
        runCode(openSqlite() + QStringLiteral("var b = db.query(\"select x'00ff41' as b\").b[0];\n"
                                              "print(b, b.length, b.toHex(), b.get(2));"));
    QCOMPARE(outcome.output, QStringLiteral("0x00ff41 3 00ff41 65\n"));
}

void TestScriptFiles::bytesAreBoundAndReadBack_data()
{
    QTest::addColumn<QString>("insert");
    QTest::newRow("placeholders") << QStringLiteral("insert into t values (?, ?)");
    QTest::newRow("head") << QStringLiteral("insert into t values");
}

void TestScriptFiles::bytesAreBoundAndReadBack()
{
    QFETCH(QString, insert);
    const HostOutcome outcome =
        run(QStringLiteral("var db = new VEXT_SQL('b'); db.driverName = 'QSQLITE';\n"
                           "db.databaseName = dir + 'b.db'; db.open();\n"
                           "db.query('create table t (id integer, b blob)');\n"
                           "var v = bytes('00ff27005c80', 'hex');\n"
                           "print(!!db.exec('%1', [1, v]));\n"
                           "db.exec_thread(function (result, error) {\n"
                           "  print(error || !!result);\n"
                           "  var r = db.query('select typeof(b) as kind, b from t order by id');\n"
                           "  print(r.kind, r.b[0].toHex(), r.b[1].toHex());\n"
                           "  print(db.exec('select id from t where b = ?', [v]).id);\n"
                           "}, '%1', [2, v.slice(1)]);")
                .arg(insert));
    QCOMPARE(outcome.output, QStringLiteral("true\ntrue\n"
                                            "[ 'blob', 'blob' ] 00ff27005c80 ff27005c80\n[ 1 ]\n"));
    VERIFY_OUTCOME(outcome.exitCode == 0, outcome);
}

void TestScriptFiles::bytesGoThroughJson()
{
    const HostOutcome outcome = run(QStringLiteral("print(JSON.stringify([bytes('a')]))"));
    QCOMPARE(outcome.output, QStringLiteral("[\"0x61\"]\n"));
}

void TestScriptFiles::arraysOfObjectsAreShownAsATable()
{
    const HostOutcome outcome = run(QStringLiteral(
        "console.table([{id: 1, name: 'x'}, {id: null, more: 'y'}, 7]); console.table([1, 2]);"));
    QCOMPARE(outcome.output, QStringLiteral("  id | name | more | value\n"
                                            "-----+------+------+------\n"
                                            "   1 | x    |      |\n"
                                            "NULL |      | y    |\n"
                                            "     |      |      |     7\n"
                                            "(3 rows)\n"
                                            "[ 1, 2 ]\n"));
}

void TestScriptFiles::writeAddsNoLineBreakAndProgressIsSilentInAPipe()
{
    const HostOutcome outcome = run(
        QStringLiteral("write('a'); write('b', 1); write('\\r10%'); write('\\r20%\\n'); print();"));
    QCOMPARE(outcome.output, QStringLiteral("ab 1\n"));
}

void TestScriptFiles::aClosedPipeEndsTheScriptWithCode141()
{
    HostProcess host;
    QProcess head;
    head.setProgram(QStringLiteral("head"));
    head.setArguments({QStringLiteral("-1")});
    host.process().setStandardOutputProcess(&head);
    QVERIFY(host.start({QStringLiteral("-e"), QStringLiteral("for (;;) print('line')")}));
    head.start();
    const HostOutcome outcome = host.finish();
    QVERIFY(head.waitForFinished(HostProcess::limitMs));
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 128 + SIGPIPE, outcome);
    QCOMPARE(outcome.errors, QStringLiteral("vext-run: standard output is closed\n"));
}

void TestScriptFiles::aFullDiskEndsTheScriptWithCode1()
{
    HostProcess host;
    host.process().setStandardOutputFile(QStringLiteral("/dev/full"));
    QVERIFY(host.start({QStringLiteral("-e"), QStringLiteral("print('x'); quit(0);")}));
    const HostOutcome outcome = host.finish();
    VERIFY_OUTCOME(outcome.endedByItself && outcome.exitCode == 1, outcome);
    QCOMPARE(outcome.errors,
             QStringLiteral("vext-run: cannot write to standard output: No space left"
                            " on device\n"));
}

void TestScriptFiles::newerSyntaxIsExplained_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("begin");
    const auto row = [](const char *code, const char *begin) {
        QTest::newRow(code) << QString::fromUtf8(code) << QString::fromUtf8(begin);
    };
    row("let x = 5", "[code]:1:1: SyntaxError: Parse error; \"let\" cannot be used: ");
    row("const {a} = b", "[code]:1:1: SyntaxError: Parse error; \"const\" in this form cannot");
    row("var f = x => x", "[code]:1:11: SyntaxError: Parse error; arrow functions cannot");
    row("\nprint(`x`)", "[code]:2:7: SyntaxError: Parse error; template strings cannot");
    row("db.default = 5", "[code]:1:4: SyntaxError: Parse error; \"default\" as the name");
    row("print({a: 1, class: 2})", "[code]:1:14: SyntaxError: Parse error; \"class\" as the name");
    row("class A {}", "[code]:1:1: SyntaxError: Parse error; classes cannot");
    row("for (var x of y) {}", "[code]:1:12: SyntaxError: Parse error; \"for ... of\" cannot");
    row("var s = \"let x => `\"; var = 3", "[code]:1:27: SyntaxError: Parse error\n");
}

void TestScriptFiles::newerSyntaxIsExplained()
{
    QFETCH(QString, code);
    QFETCH(QString, begin);
    const HostOutcome outcome = runCode(code);
    VERIFY_OUTCOME(outcome.errors.startsWith(begin) && outcome.exitCode == 2, outcome);
    const bool isExplained = outcome.errors.contains(
        QLatin1String("the engine is ECMAScript 5, with reserved words as in ECMAScript 3\n"));
    QCOMPARE(isExplained, !begin.endsWith(QLatin1Char('\n')));
    QCOMPARE(outcome.errors.count(QLatin1Char('\n')), 1);
}

QTEST_GUILESS_MAIN(TestScriptFiles)
#include "test_script_files.moc"
