/// @file
/// What once went wrong where only native code can look: the tag as a host sets it, objects in it
/// that go, and engines of several threads.
#include "library_life.h"
#include "frame_host.h"
#include "message_log.h"
#include "recording_driver.h"
#include "thread_gate.h"

#include <QtTest>

#include <atomic>
#include <memory>
#include <vector>

namespace
{

/// A thread that runs one function, waited for at the end of its scope.
class Background
{
public:
    explicit Background(std::function<void()> body)
        : m_thread(QThread::create(std::move(body)))
    {
        m_thread->start();
    }
    ~Background() { m_thread->wait(); }
    Background(const Background &) = delete;
    Background &operator=(const Background &) = delete;

    QThread *thread() const { return m_thread.get(); }
    bool wait() { return m_thread->wait(static_cast<unsigned long>(scaledMs(defaultWaitMs))); }

private:
    std::unique_ptr<QThread> m_thread;
};

void setTagNatively(const QVariant &value)
{
    QMutexLocker locker(&Plugin_SQL::m_mutexTag);
    Plugin_SQL::s_tag = value;
}

QVariant tagNatively()
{
    QMutexLocker locker(&Plugin_SQL::m_mutexTag);
    return Plugin_SQL::s_tag;
}

/// A value with an object in it at three depths: as it is, in a list and in a map in that list.
const char *const tagShapes[] = {"thing", "[1, thing, 'x']", "[{a: {b: thing}}]"};
const char *const tagPaths[] = {"tag", "tag[1]", "tag[0].a.b"};

} // namespace

class TestRegressionsInside : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void tagSetByTheHostIsWhatScriptsRead();
    void tagClearedByTheHostReadsAsUndefined();
    void tagWrittenByAScriptIsWhatTheHostReads();
    void objectInATagReadsAsItself_data();
    void objectInATagReadsAsItself();
    void deletedObjectInATagReadsAsNull_data();
    void deletedObjectInATagReadsAsNull();
    void objectOfAnotherThreadInATagReadsAsNull_data();
    void objectOfAnotherThreadInATagReadsAsNull();
    void objectThatTheHostPutsIntoTheTagReadsAsNull();
    void tagIsSharedByTwoEnginesUntilItsObjectGoes();
    void tagOfAnEngineInAnotherThreadNamesNoObjects();
    void enginesInTwoThreadsMayOpenTheSameName();

private:
    FrameHost &h() { return *m_host; }
    /// Lets scripts know an object as `thing`.
    void nameThing(QObject *thing);
    /// Makes an object of the host and lets a script put it into the tag.
    QObject *tagThing(int shape);

    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<FrameHost> m_host;
};

void TestRegressionsInside::init()
{
    m_log = std::make_unique<MessageLog>(MessageLog::Forward::No);
    m_host = std::make_unique<FrameHost>();
    setTagNatively(QVariant());
}

void TestRegressionsInside::cleanup()
{
    setTagNatively(QVariant());
    m_host.reset();
    drainEvents();
    QVERIFY(LibraryLife::workerCount() == 0);
    QVERIFY(QSqlDatabase::connectionNames().isEmpty());
    VERIFY_NO_QT_COMPLAINTS(*m_log);
}

void TestRegressionsInside::nameThing(QObject *thing)
{
    QScriptEngine *engine = h().engine();
    engine->globalObject().setProperty(QStringLiteral("thing"), engine->newQObject(thing));
}

QObject *TestRegressionsInside::tagThing(int shape)
{
    auto *thing = new QObject;
    thing->setObjectName(QStringLiteral("thing"));
    nameThing(thing);
    h().eval(QStringLiteral("tag = %1").arg(utf8(tagShapes[shape])));
    return thing;
}

// --- The tag as native code sets it ---

void TestRegressionsInside::tagSetByTheHostIsWhatScriptsRead()
{
    h().eval("tag = 7; var db = new VEXT_SQL()");
    setTagNatively(12);
    QVERIFY(h().holds("tag === 12 && db.tag === 12"));
    setTagNatively(QVariantList{1, QVariantMap{{QStringLiteral("a"), QStringLiteral("b")}}});
    QVERIFY(h().holds("tag.length === 2 && tag[0] === 1 && tag[1].a === 'b' && db.tag[0] === 1"));
}

void TestRegressionsInside::tagClearedByTheHostReadsAsUndefined()
{
    h().eval("tag = {a: 7}; var db = new VEXT_SQL()");
    QVERIFY(h().holds("tag.a === 7"));
    setTagNatively(QVariant());
    QVERIFY(h().holds("tag === undefined && db.tag === undefined"));
}

void TestRegressionsInside::tagWrittenByAScriptIsWhatTheHostReads()
{
    h().eval("tag = [1, 'мир']");
    QCOMPARE(tagNatively().toList().size(), 2);
    QCOMPARE(tagNatively().toList().at(1).toString(), utf8("мир"));
}

// --- Objects in it ---

void TestRegressionsInside::objectInATagReadsAsItself_data()
{
    QTest::addColumn<int>("shape");
    for (int shape = 0; shape < 3; ++shape)
        QTest::newRow(tagShapes[shape]) << shape;
}

void TestRegressionsInside::objectInATagReadsAsItself()
{
    QFETCH(int, shape);
    const std::unique_ptr<QObject> thing(tagThing(shape));
    const QScriptValue read = h().eval(tagPaths[shape]);
    QCOMPARE(read.toQObject(), thing.get());
    QVERIFY(
        h().eval(QStringLiteral("%1.objectName === 'thing'").arg(utf8(tagPaths[shape]))).toBool());
}

void TestRegressionsInside::deletedObjectInATagReadsAsNull_data()
{
    objectInATagReadsAsItself_data();
}

void TestRegressionsInside::deletedObjectInATagReadsAsNull()
{
    QFETCH(int, shape);
    delete tagThing(shape);
    QVERIFY2(h().eval(tagPaths[shape]).isNull(), qPrintable(h().shown(tagPaths[shape])));
    // A new object may lie where the old one was; it is not the one in the tag.
    std::vector<std::unique_ptr<QObject>> others;
    for (int i = 0; i < 100; ++i)
        others.push_back(std::make_unique<QObject>());
    QVERIFY(h().eval(tagPaths[shape]).isNull());
}

void TestRegressionsInside::objectOfAnotherThreadInATagReadsAsNull_data()
{
    objectInATagReadsAsItself_data();
}

void TestRegressionsInside::objectOfAnotherThreadInATagReadsAsNull()
{
    QFETCH(int, shape);
    const ThreadGatePtr gate = ThreadGate::create();
    auto *thing = new QObject;
    Background owner([thing, gate] {
        gate->pass();
        delete thing;
    });
    const GateGuard guard(gate);
    QVERIFY(gate->waitReached());
    thing->moveToThread(owner.thread());
    nameThing(thing);
    h().eval(QStringLiteral("tag = %1").arg(utf8(tagShapes[shape])));
    QVERIFY2(h().eval(tagPaths[shape]).isNull(), qPrintable(h().shown(tagPaths[shape])));
    gate->release();
    QVERIFY(owner.wait());
    QVERIFY(h().eval(tagPaths[shape]).isNull());
}

void TestRegressionsInside::objectThatTheHostPutsIntoTheTagReadsAsNull()
{
    // Nobody can tell whether such an object still lives.
    QObject thing;
    setTagNatively(QVariant::fromValue(&thing));
    QVERIFY(h().holds("tag === null"));
    setTagNatively(QVariantList{5, QVariant::fromValue(&thing)});
    QVERIFY(h().holds("tag[0] === 5 && tag[1] === null"));
}

void TestRegressionsInside::tagIsSharedByTwoEnginesUntilItsObjectGoes()
{
    FrameHost other;
    other.eval("var db = new VEXT_SQL('shared'); tag = {list: [db], text: 'kept'}");
    QVERIFY(other.holds("tag.text === 'kept' && tag.list[0].objectName === 'shared'"));
    QCOMPARE(other.eval("tag.list[0]").toQObject(), other.connection());
    QVERIFY(h().holds("tag.text === 'kept' && tag.list[0] === null"));
    other.script.destroyEngine();
    QVERIFY(h().holds("tag.text === 'kept' && tag.list[0] === null && tag.list.length === 1"));
    h().eval("tag = 'mine'");
    QVERIFY(h().holds("tag === 'mine'"));
}

void TestRegressionsInside::tagOfAnEngineInAnotherThreadNamesNoObjects()
{
    h().eval("var db = new VEXT_SQL(); tag = {db: db, n: 5}");
    QString read;
    Background reader([&read] {
        QScriptEngine engine;
        engine.globalObject().setProperty(QStringLiteral("tagFunction"),
                                          engine.newFunction(&Plugin_SQL::js_tag));
        read =
            engine.evaluate(QStringLiteral("var t = tagFunction(); t.n + ' ' + (t.db === null);"))
                .toString();
        engine.evaluate(QStringLiteral("tagFunction({n: 6, engine: 'other'})"));
    });
    QVERIFY(reader.wait());
    QCOMPARE(read, QStringLiteral("5 true"));
    QVERIFY(h().holds("tag.n === 6 && tag.engine === 'other'"));
}

// --- Engines of several threads ---

void TestRegressionsInside::enginesInTwoThreadsMayOpenTheSameName()
{
    StubServer stub(QStringLiteral("QSTUB"));
    stub.setDefaultReply(StubReply::table({{QStringLiteral("a"), QVariant::Int}}, {{1}}));
    constexpr int Rounds = 500;
    std::atomic<int> arrived{0};
    std::atomic<int> wrong{0};
    const auto body = [&] {
        QScriptEngine engine;
        VEXT_SQL db(nullptr, &engine);
        db.setDriverName(QStringLiteral("QSTUB"));
        const Deadline deadline(defaultWaitMs);
        for (int round = 1; round <= Rounds; ++round) {
            db.worker->setParameter(db.worker->connectionName, QStringLiteral("same"));
            // Both look for a free name at the same moment.
            ++arrived;
            while (arrived < 2 * round && !deadline.expired()) {
            }
            const bool worked =
                db.open() && db.query(QStringLiteral("x")).isObject() && db.isOpen() && db.close();
            wrong += worked ? 0 : 1;
        }
        db.releaseWorkerAtOnce();
    };
    {
        Background first(body);
        Background second(body);
    }
    QCOMPARE(wrong.load(), 0);
    QCOMPARE(stub.liveDrivers(), 0);
    QCOMPARE(stub.count(StubCall::Open), 2 * Rounds);
}

QTEST_GUILESS_MAIN(TestRegressionsInside)
#include "test_regressions_inside.moc"
