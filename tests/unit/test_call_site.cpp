// Where in a script native code was called from: file, line, function and directory.
#include "message_log.h"
#include "vext_static_enums.h"

#include <QDir>
#include <QFile>
#include <QScriptEngine>
#include <QTemporaryDir>
#include <QtTest>

/// The host's object behind the global "scriptEngine".
class HostScriptEngine : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QScriptValue file READ file)

public:
    QScriptValue file() const { return m_file; }
    void setFile(const QScriptValue &file) { m_file = file; }

private:
    QScriptValue m_file;
};

/// A parent of script engines that can be asked for the post's directory.
class PostDirHost : public QObject
{
    Q_OBJECT

public:
    explicit PostDirHost(const QString &path)
        : m_dir(path)
    {
    }
    Q_INVOKABLE QDir getPostDir()
    {
        ++calls;
        return m_dir;
    }

    int calls = 0;

private:
    QDir m_dir;
};

namespace
{

/// Where infoDebugJs says the script is.
struct Location {
    QString file;
    QString function;
    int line = 0;
};

Location locate(QScriptContext *context, QScriptEngine *engine)
{
    Location location;
    const QStringList info = FuncWrapper::infoDebugJs(context, engine, location.line);
    if (info.size() == 2) {
        location.file = info.at(0);
        location.function = info.at(1);
    }
    return location;
}

QString text(const Location &location)
{
    return QStringLiteral("%1|%2|%3")
        .arg(location.file, location.function, QString::number(location.line));
}

/// Script function: its call site.
QScriptValue where(QScriptContext *context, QScriptEngine *engine)
{
    return QScriptValue(FuncWrapper::getCallee(context, engine));
}

/// Script function: "file|function|line" of the nearest script frame.
QScriptValue info(QScriptContext *context, QScriptEngine *engine)
{
    return QScriptValue(text(locate(context, engine)));
}

/// Script function: calls its argument from native code.
QScriptValue relay(QScriptContext *context, QScriptEngine *)
{
    return context->argument(0).call();
}

/// Script function: raises an exception and then reports its call site, as a function that refuses
/// its arguments would.
QScriptValue failAndReport(QScriptContext *context, QScriptEngine *engine)
{
    context->throwError(QStringLiteral("refused"));
    const QString site = FuncWrapper::getCallee(context, engine);
    const QString pending =
        engine->hasUncaughtException() ? QStringLiteral("pending") : QStringLiteral("consumed");
    return QScriptValue(site + QLatin1Char(' ') + pending);
}

QString absolute(const QString &path)
{
    return QDir(path).absolutePath() + QLatin1Char('/');
}

} // namespace

class TestCallSite : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void infoWithoutContextOrEngineIsUndefined();
    void infoOfAScriptFrame();
    void infoSkipsNativeFrames();
    void infoOutsideAnyScriptHasNoLine();
    void infoCutsTheFileName_data();
    void infoCutsTheFileName();

    void pendingExceptionIsLocatedAndConsumed();
    void locationOfAnExceptionIsReadFromTheBacktrace_data();
    void locationOfAnExceptionIsReadFromTheBacktrace();
    void innermostFrameOfAnExceptionIsReported();
    void exceptionWithoutFileNameHasNoLine();
    void exceptionWithoutBacktraceAsksTheHostForTheFile_data();
    void exceptionWithoutBacktraceAsksTheHostForTheFile();

    void calleeWithoutContextOrEngineIsEmpty();
    void calleeNamesTheCallingFunction_data();
    void calleeNamesTheCallingFunction();
    void calleeOutsideAnyScript();
    void calleeWithPercentSignsStaysAsItIs();
    void calleeConsumesAPendingException();
    void calleeUsesTheExceptionsLocation();
    void calleeSurvivesAScriptThatHidesItsName();

    void directoryOfTheScriptIsAbsoluteAndEndsInASlash();
    void relativeDirectoryIsMadeAbsolute();
    void directoryIsReadFromAHostProperty();
    void directoryThatDoesNotExistDecidesAlone_data();
    void directoryThatDoesNotExistDecidesAlone();
    void hostIsAskedWhereTheScriptDoesNotTell_data();
    void hostIsAskedWhereTheScriptDoesNotTell();
    void hostsDirectoryMustExist();
    void directoryWithoutAnyHostIsEmpty();
    void directoryWithoutEngineIsEmpty();
    void directoryLookupLeavesAPendingExceptionAlone();

private:
    QString evaluate(const QString &code, const QString &file = QStringLiteral("q.js"),
                     int line = 1);
    /// Leaves an exception pending in the engine.
    void raise(const QString &code, const QString &file, int line);
    /// Sets the global "scriptEngine" to a wrapped QObject whose "file" is the value of `file`.
    void setScriptFile(const QString &file);

    QScopedPointer<HostScriptEngine> m_hostEngine;
    QScopedPointer<QScriptEngine> m_engine;
};

void TestCallSite::init()
{
    m_engine.reset(new QScriptEngine);
    m_hostEngine.reset(new HostScriptEngine);
    QScriptValue global = m_engine->globalObject();
    FuncWrapper::createFunc(m_engine.data(), global, "where", where, 0);
    FuncWrapper::createFunc(m_engine.data(), global, "info", info, 0);
    FuncWrapper::createFunc(m_engine.data(), global, "relay", relay, 1);
    FuncWrapper::createFunc(m_engine.data(), global, "failAndReport", failAndReport, 0);
}

QString TestCallSite::evaluate(const QString &code, const QString &file, int line)
{
    const QString result = m_engine->evaluate(code, file, line).toString();
    return m_engine->hasUncaughtException() ? QStringLiteral("exception: ") + result : result;
}

void TestCallSite::raise(const QString &code, const QString &file, int line)
{
    m_engine->evaluate(code, file, line);
    QVERIFY(m_engine->hasUncaughtException());
}

void TestCallSite::setScriptFile(const QString &file)
{
    m_engine->globalObject().setProperty(QStringLiteral("scriptEngine"),
                                         m_engine->newQObject(m_hostEngine.data()));
    m_hostEngine->setFile(m_engine->evaluate(file));
}

void TestCallSite::infoWithoutContextOrEngineIsUndefined()
{
    QCOMPARE(text(locate(nullptr, m_engine.data())), QStringLiteral("undefFile|undefFunc|-1"));
    QCOMPARE(text(locate(m_engine->currentContext(), nullptr)),
             QStringLiteral("undefFile|undefFunc|-1"));
    QCOMPARE(text(locate(nullptr, nullptr)), QStringLiteral("undefFile|undefFunc|-1"));
}

void TestCallSite::infoOfAScriptFrame()
{
    QCOMPARE(evaluate(QStringLiteral("function named() {\n return info();\n}\nnamed()"),
                      QStringLiteral("q.js"), 10),
             QStringLiteral("q.js|named|11"));
    QCOMPARE(evaluate(QStringLiteral("\n(function() { return info() })()")),
             QStringLiteral("q.js||2"));
    QCOMPARE(evaluate(QStringLiteral("info()"), QStringLiteral("q.js"), 7),
             QStringLiteral("q.js||7"));
}

void TestCallSite::infoSkipsNativeFrames()
{
    QCOMPARE(evaluate(QStringLiteral("function named() { return relay(info) }\n\nnamed()")),
             QStringLiteral("q.js|named|1"));
    QCOMPARE(evaluate(QStringLiteral("function named() { return [1].map(info)[0] }\nnamed()")),
             QStringLiteral("q.js|named|1"));
}

void TestCallSite::infoOutsideAnyScriptHasNoLine()
{
    QCOMPARE(text(locate(m_engine->currentContext(), m_engine.data())), QStringLiteral("||-1"));
}

void TestCallSite::infoCutsTheFileName_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("file");
    const auto row = [](const char *path, const char *file) {
        QTest::newRow(path) << QString::fromUtf8(path) << QString::fromUtf8(file);
    };
    row("q.js", "q.js");
    row("/home/user/q.js", "q.js");
    row("dir/q.js", "q.js");
    row("post@q.js", "q.js");
    row("a@b@q.js", "q.js");
    row("/home/user/post@q.js", "q.js");
    row("post@dir/q.js", "dir/q.js");
    row("dir/", "");
    row("post@", "");
    row("C:\\dir\\q.js", "C:\\dir\\q.js");
    row("файл.js", "файл.js");
}

void TestCallSite::infoCutsTheFileName()
{
    QFETCH(QString, path);
    QFETCH(QString, file);
    QCOMPARE(evaluate(QStringLiteral("info()"), path, 3), file + QStringLiteral("||3"));
}

void TestCallSite::pendingExceptionIsLocatedAndConsumed()
{
    raise(QStringLiteral("function broken() {\n null.x }\nbroken()"), QStringLiteral("q.js"), 20);
    QCOMPARE(text(locate(m_engine->currentContext(), m_engine.data())),
             QStringLiteral("q.js|broken|21"));
    QVERIFY(!m_engine->hasUncaughtException());
    QVERIFY(m_engine->uncaughtExceptionBacktrace().isEmpty());
}

void TestCallSite::locationOfAnExceptionIsReadFromTheBacktrace_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("location");
    const auto row = [](const char *title, const char *code, const char *path,
                        const char *location) {
        QTest::newRow(title) << QString::fromLatin1(code) << QString::fromLatin1(path)
                             << QString::fromLatin1(location);
    };
    row("global code", "throw 1", "q.js", "q.js|<global>|3");
    row("anonymous function", "(function() { throw 1 })()", "q.js", "q.js|<anonymous>|3");
    row("arguments with a bracket", "function f(a) { throw 1 } f('(x')", "q.js", "q.js|f|3");
    row("folder", "throw 1", "/home/user/q.js", "q.js|<global>|3");
    row("prefix", "throw 1", "post@q.js", "q.js|<global>|3");
    row("folder and prefix", "throw 1", "/home/post@q.js", "q.js|<global>|3");
    row("prefix before the folder", "throw 1", "post@dir/q.js", "q.js|<global>|3");
    row("colon in the name", "throw 1", "a:b:q.js", "a|<global>|3");
    row("' at ' in the name", "throw 1", "look at q.js", "q.js|<global>|3");
    row("bracket in the name", "throw 1", "copy(2).js", "2).js|<global>|3");
}

void TestCallSite::locationOfAnExceptionIsReadFromTheBacktrace()
{
    QFETCH(QString, code);
    QFETCH(QString, path);
    raise(code, path, 3);
    QTEST(text(locate(m_engine->currentContext(), m_engine.data())), "location");
    QVERIFY(!m_engine->hasUncaughtException());
}

void TestCallSite::innermostFrameOfAnExceptionIsReported()
{
    raise(QStringLiteral("function inner() {\n throw 1 }\n"
                         "function outer() {\n inner() }\nouter()"),
          QStringLiteral("q.js"), 1);
    QCOMPARE(text(locate(m_engine->currentContext(), m_engine.data())),
             QStringLiteral("q.js|inner|2"));
}

void TestCallSite::exceptionWithoutFileNameHasNoLine()
{
    raise(QStringLiteral("throw 1"), QString(), 3);
    QCOMPARE(m_engine->uncaughtExceptionBacktrace(),
             QStringList{QStringLiteral("<global>() at 3")});
    QCOMPARE(text(locate(m_engine->currentContext(), m_engine.data())),
             QStringLiteral("3|<global>|-1"));
}

void TestCallSite::exceptionWithoutBacktraceAsksTheHostForTheFile_data()
{
    QTest::addColumn<QString>("scriptEngine");
    QTest::addColumn<QString>("location");
    const auto row = [](const char *title, const char *scriptEngine, const char *location) {
        QTest::newRow(title) << QString::fromUtf8(scriptEngine) << QString::fromUtf8(location);
    };
    row("named", "({file: {name: 'dir/q.js'}})", "dir/q.js|undefFunc|-1");
    row("number as name", "({file: {name: 5}})", "5|undefFunc|-1");
    row("undefined as name", "({file: {name: undefined}})", "undefined|undefFunc|-1");
    row("without name", "({file: {}})", "|undefFunc|-1");
    row("text as file", "({file: 'q.js'})", "undefFile|undefFunc|-1");
    row("without file", "({})", "undefFile|undefFunc|-1");
    row("no object", "5", "undefFile|undefFunc|-1");
    row("no such global", "", "undefFile|undefFunc|-1");
    row("throwing file", "({get file() { throw 1 }})", "undefFile|undefFunc|-1");
    row("throwing name", "({file: {get name() { throw 1 }}})", "undefFile|undefFunc|-1");
    row("name that cannot be text", "({file: {name: {toString: function() { throw 1 }}}})",
        "undefFile|undefFunc|-1");
}

void TestCallSite::exceptionWithoutBacktraceAsksTheHostForTheFile()
{
    QFETCH(QString, scriptEngine);
    if (!scriptEngine.isEmpty())
        m_engine->globalObject().setProperty(QStringLiteral("scriptEngine"),
                                             m_engine->evaluate(scriptEngine));
    m_engine->currentContext()->throwError(QStringLiteral("raised by the host"));
    QVERIFY(m_engine->uncaughtExceptionBacktrace().isEmpty());
    QTEST(text(locate(m_engine->currentContext(), m_engine.data())), "location");
    QVERIFY(!m_engine->hasUncaughtException());
}

void TestCallSite::calleeWithoutContextOrEngineIsEmpty()
{
    QVERIFY(FuncWrapper::getCallee(nullptr, m_engine.data()).isEmpty());
    QVERIFY(FuncWrapper::getCallee(m_engine->currentContext(), nullptr).isEmpty());
}

void TestCallSite::calleeNamesTheCallingFunction_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("site");
    const auto row = [](const char *title, const char *code, const char *site) {
        QTest::newRow(title) << QString::fromLatin1(code) << QString::fromLatin1(site);
    };
    row("named", "function named() {\n return where() }\nnamed()", "q.js:11 named()");
    row("anonymous", "(function() {\n return where() })()", "q.js:11 ()");
    row("anonymous in a variable", "var f = function() { return where() };\nf()", "q.js:10 ()");
    row("named expression", "(function inner() { return where() })()", "q.js:10 inner()");
    row("nested",
        "function outer() {\n function inner() {\n return where() }\n return inner() }\n"
        "outer()",
        "q.js:12 inner()");
    row("global code", "\n\nwhere()", "q.js:12 ()");
    row("called by a native function", "function named() {\n return relay(where) }\nnamed()",
        "q.js:11 relay()");
    row("called by a nameless native function",
        "function named() {\n return [1].map(where)[0] }\nnamed()", "q.js:11 ()");
    row("native frame further out", "function named() { return where() }\n\nrelay(named)",
        "q.js:10 named()");
    row("constructor", "function Thing() { this.site = where() }\nnew Thing().site",
        "q.js:10 Thing()");
}

void TestCallSite::calleeNamesTheCallingFunction()
{
    QFETCH(QString, code);
    QTEST(evaluate(code, QStringLiteral("dir/post@q.js"), 10), "site");
}

void TestCallSite::calleeOutsideAnyScript()
{
    QCOMPARE(FuncWrapper::getCallee(m_engine->currentContext(), m_engine.data()),
             QStringLiteral(":-1 ()"));
}

void TestCallSite::calleeWithPercentSignsStaysAsItIs()
{
    QCOMPARE(evaluate(QStringLiteral("function named() { return where() } named()"),
                      QStringLiteral("a%1b%2c%3.js"), 4),
             QStringLiteral("a%1b%2c%3.js:4 named()"));
}

void TestCallSite::calleeConsumesAPendingException()
{
    setScriptFile(QStringLiteral("({name: 'host.js'})"));
    QCOMPARE(evaluate(QStringLiteral("function named() { return failAndReport() } named()")),
             QStringLiteral("host.js:-1 named() consumed"));
}

void TestCallSite::calleeUsesTheExceptionsLocation()
{
    raise(QStringLiteral("function broken() { throw 1 }\nbroken()"), QStringLiteral("dir/q.js"), 5);
    QCOMPARE(FuncWrapper::getCallee(m_engine->currentContext(), m_engine.data()),
             QStringLiteral("q.js:5 ()"));
    QVERIFY(!m_engine->hasUncaughtException());
}

void TestCallSite::calleeSurvivesAScriptThatHidesItsName()
{
    const QString code = QStringLiteral(
        "function named() { arguments.callee = {get name() { throw 1 }}; return where() }\n"
        "named() + ' went on'");
    QCOMPARE(evaluate(code), QStringLiteral("q.js:1 () went on"));
}

void TestCallSite::directoryOfTheScriptIsAbsoluteAndEndsInASlash()
{
    const QTemporaryDir folder;
    setScriptFile(QStringLiteral("({dir: '%1'})").arg(folder.path()));
    QString dir = QStringLiteral("before");
    QVERIFY(FuncWrapper::getJsDir(m_engine.data(), dir));
    QCOMPARE(dir, folder.path() + QLatin1Char('/'));

    setScriptFile(QStringLiteral("({dir: '%1/'})").arg(folder.path()));
    QVERIFY(FuncWrapper::getJsDir(m_engine.data(), dir));
    QCOMPARE(dir, folder.path() + QLatin1Char('/'));
}

void TestCallSite::relativeDirectoryIsMadeAbsolute()
{
    setScriptFile(QStringLiteral("({dir: '.'})"));
    QString dir;
    QVERIFY(FuncWrapper::getJsDir(m_engine.data(), dir));
    QCOMPARE(dir, absolute(QDir::currentPath()));
}

void TestCallSite::directoryIsReadFromAHostProperty()
{
    const QTemporaryDir folder;
    QObject file;
    file.setProperty("dir", folder.path());
    setScriptFile(QString());
    m_hostEngine->setFile(m_engine->newQObject(&file));
    QString dir;
    QVERIFY(FuncWrapper::getJsDir(m_engine.data(), dir));
    QCOMPARE(dir, folder.path() + QLatin1Char('/'));
}

void TestCallSite::directoryThatDoesNotExistDecidesAlone_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("missing") << QStringLiteral("missing");
    QTest::newRow("a file") << QStringLiteral("file");
}

void TestCallSite::directoryThatDoesNotExistDecidesAlone()
{
    QFETCH(QString, name);
    const QTemporaryDir folder;
    QFile file(folder.filePath(QStringLiteral("file")));
    QVERIFY(file.open(QIODevice::WriteOnly));
    PostDirHost host(folder.path());
    m_engine->setParent(&host);
    setScriptFile(QStringLiteral("({dir: '%1'})").arg(folder.filePath(name)));
    QString dir = QStringLiteral("before");
    QVERIFY(!FuncWrapper::getJsDir(m_engine.data(), dir));
    QVERIFY(dir.isEmpty());
    QCOMPARE(host.calls, 0);

    setScriptFile(QStringLiteral("({dir: ''})"));
    dir = QStringLiteral("before");
    QVERIFY(!FuncWrapper::getJsDir(m_engine.data(), dir));
    QVERIFY(dir.isEmpty());
    QCOMPARE(host.calls, 0);
    m_engine->setParent(nullptr);
}

void TestCallSite::hostIsAskedWhereTheScriptDoesNotTell_data()
{
    QTest::addColumn<QString>("scriptEngine");
    QTest::addColumn<QString>("file");
    const QString wrapped;
    QTest::newRow("plain scriptEngine") << QStringLiteral("({file: {dir: '/'}})") << QString();
    QTest::newRow("no scriptEngine") << QStringLiteral("undefined") << QString();
    QTest::newRow("throwing global")
        << QStringLiteral("this.__defineGetter__('scriptEngine', function() { throw 1 })")
        << QString();
    QTest::newRow("file is no object") << wrapped << QStringLiteral("'/'");
    QTest::newRow("file is null") << wrapped << QStringLiteral("null");
    QTest::newRow("dir is no text") << wrapped << QStringLiteral("({dir: 5})");
    QTest::newRow("dir is a text object") << wrapped << QStringLiteral("({dir: new String('/')})");
    QTest::newRow("no dir") << wrapped << QStringLiteral("({})");
    QTest::newRow("throwing dir") << wrapped << QStringLiteral("({get dir() { throw 1 }})");
}

void TestCallSite::hostIsAskedWhereTheScriptDoesNotTell()
{
    QFETCH(QString, scriptEngine);
    QFETCH(QString, file);
    const QTemporaryDir folder;
    PostDirHost host(folder.path());
    m_engine->setParent(&host);
    if (scriptEngine.isEmpty())
        setScriptFile(file);
    else
        m_engine->evaluate(
            QStringLiteral("var r = %1; if (r) this.scriptEngine = r").arg(scriptEngine));
    m_engine->clearExceptions();
    QString dir;
    const bool found = FuncWrapper::getJsDir(m_engine.data(), dir);
    m_engine->setParent(nullptr);
    QVERIFY(found);
    QCOMPARE(dir, folder.path() + QLatin1Char('/'));
    QCOMPARE(host.calls, 1);
    QVERIFY(!m_engine->hasUncaughtException());
}

void TestCallSite::hostsDirectoryMustExist()
{
    const QTemporaryDir folder;
    PostDirHost host(folder.filePath(QStringLiteral("missing")));
    m_engine->setParent(&host);
    QString dir = QStringLiteral("before");
    const bool found = FuncWrapper::getJsDir(m_engine.data(), dir);
    m_engine->setParent(nullptr);
    QVERIFY(!found);
    QVERIFY(dir.isEmpty());
    QCOMPARE(host.calls, 1);
}

void TestCallSite::directoryWithoutAnyHostIsEmpty()
{
    QString dir = QStringLiteral("before");
    QVERIFY(!FuncWrapper::getJsDir(m_engine.data(), dir));
    QVERIFY(dir.isEmpty());

    QObject mute;
    m_engine->setParent(&mute);
    dir = QStringLiteral("before");
    const bool found = FuncWrapper::getJsDir(m_engine.data(), dir);
    m_engine->setParent(nullptr);
    QVERIFY(!found);
    QVERIFY(dir.isEmpty());
}

void TestCallSite::directoryWithoutEngineIsEmpty()
{
    QString dir = QStringLiteral("before");
    QVERIFY(!FuncWrapper::getJsDir(nullptr, dir));
    QVERIFY(dir.isEmpty());
}

void TestCallSite::directoryLookupLeavesAPendingExceptionAlone()
{
    const QTemporaryDir folder;
    PostDirHost host(folder.path());
    m_engine->setParent(&host);
    setScriptFile(QStringLiteral("({dir: '/'})"));
    raise(QStringLiteral("throw {dir: '/'}"), QStringLiteral("q.js"), 9);
    QString dir;
    const bool found = FuncWrapper::getJsDir(m_engine.data(), dir);
    m_engine->setParent(nullptr);
    QVERIFY(found);
    QCOMPARE(dir, folder.path() + QLatin1Char('/'));
    QVERIFY(m_engine->hasUncaughtException());
    QCOMPARE(m_engine->uncaughtExceptionBacktrace(),
             QStringList{QStringLiteral("<global>() at q.js:9")});
}

QTEST_GUILESS_MAIN(TestCallSite)

#include "test_call_site.moc"
