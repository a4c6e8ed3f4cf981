// The script constructor VEXT_SQL.
#include "frame_host.h"
#include "library_life.h"
#include "message_log.h"

#include <QtTest>

#include <memory>

/// A post that looks at the object while it is handed over.
class VextPostLooking : public QObject
{
    Q_OBJECT

public:
    QString name;
    QString objectName;
    bool hadQueryThread = true;
    QObject *parent = nullptr;

    Q_INVOKABLE void insertObject(QObject *object, const QString &handedName)
    {
        name = handedName;
        objectName = object->objectName();
        parent = object->parent();
        auto *connection = qobject_cast<VEXT_SQL *>(object);
        hadQueryThread = connection->getScriptValueThis(nullptr).isValid();
    }
};

class TestConstructor : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void constructorIsNamedAndHasLengthOne();
    void constructorCannotBeChangedOrDeleted_data();
    void constructorCannotBeChangedOrDeleted();
    void constructorIsNotEnumerated();
    void constructorsOwnDataIsFixed_data();
    void constructorsOwnDataIsFixed();
    void constructorIsRegisteredWithoutInstallToo();
    void registeringTwiceLeavesOneConstructor();

    void objectNameComesFromTheFirstArgument_data();
    void objectNameComesFromTheFirstArgument();
    void plainCallMakesAnObjectToo();
    void objectIsAChildOfTheEngine();
    void wrapperHidesChildObjects();
    void wrapperIsTheThisValue();
    void functionsAreThereRightAfterConstruction();
    void noPrototypeIsSetUp();
    void eachCallMakesAnIndependentConnection();
    void serialNumberGrowsWithEachWorker();

    void objectIsHandedToThePostByName();
    void objectIsNamedButNotYetWrappedWhenThePostGetsIt();
    void withoutPostAndServerTheObjectIsMadeAllTheSame();
    void constructionSendsNoMessage();
    void constructionOpensAndStartsNothing();
    void constructorDoesNotSurviveItsEngine();

private:
    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<FrameHost> m_host;
    FrameHost &h() { return *m_host; }
};

void TestConstructor::init()
{
    m_log = std::make_unique<MessageLog>();
    m_host = std::make_unique<FrameHost>();
}

void TestConstructor::cleanup()
{
    m_host.reset();
    QVERIFY(VEXT_SQL::m_listSqlConns.isEmpty());
    QVERIFY(LibraryLife::workerCount() == 0);
    VERIFY_NO_QT_COMPLAINTS(*m_log);
    m_log.reset();
}

// --- The function ---

void TestConstructor::constructorIsNamedAndHasLengthOne()
{
    QVERIFY(h().holds("VEXT_SQL.name === 'VEXT_SQL' && VEXT_SQL.length === 1"));
    const QScriptValue function = h().script.global(QStringLiteral("VEXT_SQL"));
    QVERIFY(function.isFunction());
    QCOMPARE(int(function.propertyFlags(QStringLiteral("name"))), 7);
    QCOMPARE(int(function.propertyFlags(QStringLiteral("length"))), 7);
}

void TestConstructor::constructorCannotBeChangedOrDeleted_data()
{
    QTest::addColumn<QString>("check");
    QTest::newRow("VEXT_SQL = 5") << QStringLiteral("VEXT_SQL === kept");
    QTest::newRow("delete VEXT_SQL") << QStringLiteral("VEXT_SQL === kept");
    QTest::newRow("VEXT_SQL.name = 'x'") << QStringLiteral("VEXT_SQL.name === 'VEXT_SQL'");
    QTest::newRow("delete VEXT_SQL.name") << QStringLiteral("VEXT_SQL.name === 'VEXT_SQL'");
    QTest::newRow("VEXT_SQL.length = 7") << QStringLiteral("VEXT_SQL.length === 1");
    QTest::newRow("delete VEXT_SQL.length") << QStringLiteral("VEXT_SQL.length === 1");
}

void TestConstructor::constructorCannotBeChangedOrDeleted()
{
    QFETCH(QString, check);
    h().eval("var kept = VEXT_SQL");
    h().eval(utf8(QTest::currentDataTag()));
    QVERIFY(h().eval(check).toBool());
}

void TestConstructor::constructorIsNotEnumerated()
{
    QVERIFY(h().holds("(function(g) { for (var p in g) if (p === 'VEXT_SQL') return false;"
                      "return true })(this)"));
    QVERIFY(h().holds("(function() { for (var p in VEXT_SQL)"
                      "if (VEXT_SQL.hasOwnProperty(p)) return false; return true })()"));
}

void TestConstructor::constructorsOwnDataIsFixed_data()
{
    QTest::addColumn<QString>("attack");
    for (const char *attack :
         {"VEXT_SQL.__qt_data__ = [evil, evil]", "delete VEXT_SQL.__qt_data__",
          "VEXT_SQL.__defineGetter__('__qt_data__', evil)",
          "try { Object.defineProperty(VEXT_SQL, '__qt_data__', {get: evil}) } catch (e) {}",
          "var own = VEXT_SQL.__qt_data__, names = Object.getOwnPropertyNames(own);"
          "for (var i = 0; i < names.length; ++i) own[names[i]] = evil"})
        QTest::newRow(attack) << utf8(attack);
}

/// The constructor keeps native functions in a property of its own, and a result of many rows is
/// converted with them.
void TestConstructor::constructorsOwnDataIsFixed()
{
    QFETCH(QString, attack);
    h().eval("function evil() { throw new Error('evil') }");
    h().eval(attack);
    h().eval("var db = new VEXT_SQL(); db.driverName = 'QSQLITE'; db.databaseName = ':memory:'");
    QVERIFY(h().holds("db.open()"));
    h().eval("var r = db.query('with recursive s(i) as (select 1 union all select i + 1 from s "
             "where i < 3000) select i from s')");
    QVERIFY(h().holds("r.i.length === 3000 && r.i[2999] === 3000"));
    h().eval("r = null; db.close()");
}

void TestConstructor::constructorIsRegisteredWithoutInstallToo()
{
    QScriptEngine engine;
    VEXT_SQLWrapper::registerWrapper(&engine);
    QCOMPARE(engine.evaluate(QStringLiteral("new VEXT_SQL('a').objectName")).toString(),
             QStringLiteral("a"));
}

void TestConstructor::registeringTwiceLeavesOneConstructor()
{
    VEXT_SQLWrapper::registerWrapper(h().engine());
    QCOMPARE(h().shown("new VEXT_SQL().objectName"), QStringLiteral("sql"));
    QCOMPARE(VEXT_SQL::m_listSqlConns.size(), 1);
}

// --- The object ---

void TestConstructor::objectNameComesFromTheFirstArgument_data()
{
    QTest::addColumn<QString>("name");
    const auto row = [](const char *arguments, const char *name) {
        QTest::newRow(arguments) << utf8(name);
    };
    row("", "sql");
    row("'orders'", "orders");
    row("''", "sql");
    row("5", "sql");
    row("'orders', 'more', {}", "orders");
    row("5, 'orders'", "sql");
    row("undefined", "sql");
    row("null", "sql");
    row("true", "sql");
    row("NaN", "sql");
    row("{}", "sql");
    row("['a']", "sql");
    row("function() {}", "sql");
    row("new String('a')", "sql");
    row("{toString: function() { throw 1 }}", "sql");
    row("' '", " ");
    row("'__A b__'", "__A b__");
    row("'заказы'", "заказы");
}

void TestConstructor::objectNameComesFromTheFirstArgument()
{
    QFETCH(QString, name);
    const QString arguments = utf8(QTest::currentDataTag());
    QCOMPARE(h().eval(QStringLiteral("new VEXT_SQL(%1).objectName").arg(arguments)).toString(),
             name);
    QCOMPARE(h().eval(QStringLiteral("VEXT_SQL(%1).objectName").arg(arguments)).toString(), name);
}

void TestConstructor::plainCallMakesAnObjectToo()
{
    h().eval("var a = VEXT_SQL('a'), b = VEXT_SQL.call({}, 'b'), c = VEXT_SQL.apply(null, ['c'])");
    QCOMPARE(h().shown("a.objectName + b.objectName + c.objectName"), QStringLiteral("abc"));
    QVERIFY(h().connection("a") && h().connection("b") && h().connection("c"));
}

void TestConstructor::objectIsAChildOfTheEngine()
{
    h().eval("var db = new VEXT_SQL()");
    QCOMPARE(h().connection()->parent(), h().engine());
}

void TestConstructor::wrapperHidesChildObjects()
{
    h().eval("var db = new VEXT_SQL()");
    auto *child = new QObject(h().connection());
    child->setObjectName(QStringLiteral("inner"));
    QVERIFY(h().holds("db.inner === undefined"));
    // The worker is a child of its own name, too.
    QVERIFY(h().holds("db._sql === undefined"));
}

void TestConstructor::wrapperIsTheThisValue()
{
    h().eval("var db = new VEXT_SQL()");
    const QScriptValue db = h().script.global(QStringLiteral("db"));
    QVERIFY(h().connection()->getScriptValueThis(nullptr).strictlyEquals(db));
    QVERIFY(h().worker()->m_scriptValueThis.strictlyEquals(db));
}

void TestConstructor::functionsAreThereRightAfterConstruction()
{
    QVERIFY(h().holds("var db = new VEXT_SQL(); typeof db.query_thread === 'function'"
                      " && typeof db.exec_thread === 'function'"
                      " && typeof db.countersAll === 'function' && 'tag' in db"));
}

void TestConstructor::noPrototypeIsSetUp()
{
    QVERIFY(h().holds("var db = new VEXT_SQL(); !(db instanceof VEXT_SQL)"));
}

void TestConstructor::eachCallMakesAnIndependentConnection()
{
    h().eval("var a = new VEXT_SQL('x'), b = new VEXT_SQL('x'); a.hostName = 'one'");
    QVERIFY(h().holds("a !== b && b.hostName === ''"));
    QVERIFY(h().connection("a") != h().connection("b"));
    QVERIFY(h().worker("a") != h().worker("b"));
    QCOMPARE(VEXT_SQL::m_listSqlConns.size(), 2);
}

void TestConstructor::serialNumberGrowsWithEachWorker()
{
    h().eval("var a = new VEXT_SQL(), b = new VEXT_SQL()");
    const int first = h().worker("a")->m_conNumber;
    QVERIFY(first >= 1);
    QCOMPARE(h().worker("b")->m_conNumber, first + 1);
    delete h().connection("b");
    drainEvents();
    h().eval("var c = new VEXT_SQL()");
    QCOMPARE(h().worker("c")->m_conNumber, first + 2);
}

// --- The host ---

void TestConstructor::objectIsHandedToThePostByName()
{
    h().eval("var a = new VEXT_SQL('orders'), b = VEXT_SQL()");
    const auto inserted = h().post()->inserted();
    QCOMPARE(inserted.size(), 2);
    QCOMPARE(inserted.at(0).object.data(), h().connection("a"));
    QCOMPARE(inserted.at(0).name, QStringLiteral("orders"));
    QCOMPARE(inserted.at(1).object.data(), h().connection("b"));
    QCOMPARE(inserted.at(1).name, QStringLiteral("sql"));
}

void TestConstructor::objectIsNamedButNotYetWrappedWhenThePostGetsIt()
{
    VextPostLooking post;
    h().engine()->globalObject().setProperty(QStringLiteral("post"),
                                             h().engine()->newQObject(&post));
    h().eval("var a = new VEXT_SQL('orders')");
    QCOMPARE(post.name, QStringLiteral("orders"));
    QCOMPARE(post.objectName, QStringLiteral("orders"));
    QCOMPARE(post.parent, h().engine());
    QVERIFY(!post.hadQueryThread);
}

void TestConstructor::withoutPostAndServerTheObjectIsMadeAllTheSame()
{
    m_host.reset();
    ScriptHostOptions options;
    options.withServer = false;
    options.withPost = false;
    options.withGlobals = false;
    m_host = std::make_unique<FrameHost>(options);
    QCOMPARE(h().shown("new VEXT_SQL('alone').objectName"), QStringLiteral("alone"));
    QCOMPARE(m_log->lines(QtCriticalMsg).size(), 0);
}

void TestConstructor::constructionSendsNoMessage()
{
    h().eval("new VEXT_SQL()");
    drainEvents();
    QCOMPARE(h().post()->messages().size(), 0);
    QCOMPARE(h().script.server()->messages().size(), 0);
    QCOMPARE(m_log->lines().size(), 0);
}

void TestConstructor::constructionOpensAndStartsNothing()
{
    QVERIFY(h().holds("var db = new VEXT_SQL(); !db.isValid && !db.isOpen && !db.isRunning"));
    QVERIFY(QSqlDatabase::connectionNames().isEmpty());
}

void TestConstructor::constructorDoesNotSurviveItsEngine()
{
    const QScriptValue function = h().script.global(QStringLiteral("VEXT_SQL"));
    h().script.destroyEngine();
    QVERIFY(!function.isValid());
}

QTEST_GUILESS_MAIN(TestConstructor)
#include "test_constructor.moc"
