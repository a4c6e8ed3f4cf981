// What every plugin object shares: messages, the trace flag, the script this-value, exceptions.
#include "message_log.h"
#include "message_sink.h"
#include "vextplugin_base.h"

#include <QMetaMethod>
#include <QMetaProperty>
#include <QScriptEngine>
#include <QSignalSpy>
#include <QThread>
#include <QTranslator>
#include <QtTest>

#include <memory>

namespace
{

const char SourceFile[] = "plugins/base/vextplugin_base";

/// A plugin object that opens what subclasses may use.
class Probe : public Plugin_base
{
    Q_OBJECT

public:
    explicit Probe(QObject *parent = nullptr, QScriptEngine *engine = nullptr)
        : Plugin_base(parent, engine)
    {
    }

    Q_INVOKABLE QScriptValue fail(const QString &text, int error)
    {
        return throwScript(text, QScriptContext::Error(error));
    }

    using Plugin_base::m_classNames;
    using Plugin_base::m_engine;
    using Plugin_base::m_libResult;
    using Plugin_base::m_scriptValueThis;
};

/// An object with the message signal that is no plugin object, as the worker thread is.
class Talker : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;
    void say(const QString &text) { emit s_msg("talker", 3, "say", text, 1); }

signals:
    void s_msg(const char *, int, const char *, const QString &, int);
};

/// A post that has messages of its own to report.
class VextPostTalker : public Talker
{
    Q_OBJECT

public:
    using Talker::Talker;
    QStringList received;

public slots:
    void plugin_msg(const char *, int, const char *, const QString &msg, int)
    {
        received.append(msg);
    }
};

/// Objects whose class names hold the host's names elsewhere than at the beginning, or in another
/// case. They could receive.
class MyVextPost : public MessageSink
{
    Q_OBJECT
};

class vextPostLower : public MessageSink
{
    Q_OBJECT
};

class MyVextServer : public MessageSink
{
    Q_OBJECT

public:
    MyVextServer()
    {
        setParent(QCoreApplication::instance());
        setObjectName(QStringLiteral("server"));
    }
};

/// One message as the signal carries it.
struct Message {
    QByteArray file;
    int line;
    QByteArray function;
    QString text;
    int level;
};

/// Records the messages of one object.
class Messages
{
public:
    explicit Messages(Plugin_base *object)
    {
        QObject::connect(
            object, &Plugin_base::s_msg, &m_context,
            [this](const char *fl, int ln, const char *fn, const QString &msg, int val) {
                list.append({fl, ln, fn, msg, val});
            });
    }

    QVector<Message> list;

private:
    QObject m_context;
};

/// Translates the texts of one context by putting the context's name before them.
class ContextTranslator : public QTranslator
{
public:
    QString translate(const char *context, const char *source, const char *, int) const override
    {
        return QString::fromLatin1(context) + QLatin1Char('/') + QString::fromUtf8(source);
    }
    bool isEmpty() const override { return false; }
};

QString logPattern(const QString &header, const QString &text)
{
    return QStringLiteral("^\\d{4}-\\d\\d-\\d\\d-\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d %1 \\t %2$")
        .arg(header, text);
}

/// The two lines of a failed connection, the objects being given as patterns.
void verifyConnectLines(const MessageLog &log, const QString &sender, const QString &receiver)
{
    const QVector<LogLine> lines = log.lines(QtCriticalMsg);
    QCOMPARE(lines.size(), 2);
    const QStringList patterns{logPattern(QStringLiteral("vextplugin_base:87 ~~~~ connect_msg"),
                                          QStringLiteral("err conn sender ") + sender),
                               logPattern(QStringLiteral("vextplugin_base:87 connect_msg"),
                                          QStringLiteral("post ") + receiver)};
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(lines.at(i).category, QStringLiteral("default"));
        QVERIFY2(QRegularExpression(patterns.at(i)).match(lines.at(i).text).hasMatch(),
                 qPrintable(lines.at(i).text));
    }
}

const int guiAnswerAtStart = Plugin_base::m_isGuiApp;

} // namespace

class TestPluginBase : public QObject
{
    Q_OBJECT

private slots:
    void methodTable_data();
    void methodTable();
    void methodTableHoldsNothingElse();
    void traceLogProperty();
    void classInfoNamesAuthorAndUrl();
    void freshObjectIsEmpty();
    void guiAnswerStartsUnknown();

    void switchingTraceReportsTheChange();
    void switchingTraceTwiceReportsOnce();
    void switchingOffAFreshObjectReportsNothing();
    void traceTextsBelongToTheContextQObject();
    void enableTraceLogWithoutArgumentSwitchesOn();
    void enableTraceLogTakesTheState();
    void disableTraceLogSwitchesOff();
    void scriptSwitchesTrace();
    void msgRelaysAChildsMessage();

    void setScriptValueThisAcceptsItsOwnWrapper();
    void setScriptValueThisRefusesOthersAndKeepsTheOld_data();
    void setScriptValueThisRefusesOthersAndKeepsTheOld();
    void getScriptValueThisWithoutEngineIsInvalidAtFirst();
    void getScriptValueThisWrapsOnce();
    void getScriptValueThisKeepsTheValueThatWasSet();
    void getScriptValueThisReplacesTheValueOfADeadEngine();
    void wrapperIsOwnedByQtAndHidesChildren();

    void throwScriptRaisesInTheCallingScript_data();
    void throwScriptRaisesInTheCallingScript();
    void throwScriptWithoutEngineReturnsFalse();
    void throwScriptAfterTheEngineDiedReturnsFalse();

    void connectMsgDeliversEachMessage();
    void connectMsgServesAnySenderWithTheSignal();
    void secondConnectMsgKeepsOneConnectionAndWritesTwoLines();
    void connectMsgToAReceiverWithoutTheSlotWritesTwoLines();
    void connectMsgOfASenderWithoutTheSignalWritesTwoLines();
    void connectMsgToNullWritesTwoLines();
    void failedConnectMsgSendsNoMessage();
    void messagesOfAnotherThreadArriveQueued();

    void senderWithoutHostIsLeftAlone();
    void nullSenderIsLeftAlone();
    void nearestPostAmongTheParentsReceives();
    void senderMayItselfBeThePost();
    void postMustBeginTheClassName_data();
    void postMustBeginTheClassName();
    void serverReceivesWhereThereIsNoPost();
    void serverIsFoundBelowOtherObjects();
    void serverOfAnotherClassIsPassedOver();
    void postWithoutTheSlotIsNotReplacedByTheServer();
};

void TestPluginBase::methodTable_data()
{
    QTest::addColumn<QByteArray>("signature");
    QTest::addColumn<QByteArray>("result");
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("access");
    QTest::addColumn<int>("attributes");
    QTest::addColumn<QList<QByteArray>>("names");
    QTest::newRow("0") << QByteArray("s_msg(const char*,int,const char*,QString,int)")
                       << QByteArray("void") << int(QMetaMethod::Signal) << int(QMetaMethod::Public)
                       << 0
                       << QList<QByteArray>{QByteArray(""), QByteArray(""), QByteArray(""),
                                            QByteArray(""), QByteArray("")};
    QTest::newRow("1") << QByteArray("setScriptValueThis(QScriptValue)") << QByteArray("bool")
                       << int(QMetaMethod::Slot) << int(QMetaMethod::Public) << 0
                       << QList<QByteArray>{"scriptValue"};
    QTest::newRow("2") << QByteArray("msg(const char*,int,const char*,QString,int)")
                       << QByteArray("void") << int(QMetaMethod::Slot)
                       << int(QMetaMethod::Protected) << 0
                       << QList<QByteArray>{"fl", "ln", "fn", "msg", "val"};
    QTest::newRow("3") << QByteArray("disableTraceLog()") << QByteArray("void")
                       << int(QMetaMethod::Method) << int(QMetaMethod::Public) << 0
                       << QList<QByteArray>{};
    QTest::newRow("4") << QByteArray("enableTraceLog(bool)") << QByteArray("void")
                       << int(QMetaMethod::Method) << int(QMetaMethod::Public) << 0
                       << QList<QByteArray>{"trace"};
    QTest::newRow("5") << QByteArray("enableTraceLog()") << QByteArray("void")
                       << int(QMetaMethod::Method) << int(QMetaMethod::Public)
                       << int(QMetaMethod::Cloned) << QList<QByteArray>{};
}

void TestPluginBase::methodTable()
{
    const QMetaObject &meta = Plugin_base::staticMetaObject;
    const int index = QByteArray(QTest::currentDataTag()).toInt();
    const QMetaMethod method = meta.method(meta.methodOffset() + index);
    QTEST(method.methodSignature(), "signature");
    QTEST(QByteArray(method.typeName()), "result");
    QTEST(int(method.methodType()), "kind");
    QTEST(int(method.access()), "access");
    QTEST(method.attributes(), "attributes");
    QTEST(method.parameterNames(), "names");
}

void TestPluginBase::methodTableHoldsNothingElse()
{
    const QMetaObject &meta = Plugin_base::staticMetaObject;
    QCOMPARE(meta.superClass(), &QObject::staticMetaObject);
    QCOMPARE(meta.methodCount() - meta.methodOffset(), 6);
    QCOMPARE(meta.propertyCount() - meta.propertyOffset(), 1);
    QCOMPARE(meta.enumeratorCount() - meta.enumeratorOffset(), 0);
    QCOMPARE(meta.constructorCount(), 0);
}

void TestPluginBase::traceLogProperty()
{
    const QMetaObject &meta = Plugin_base::staticMetaObject;
    const QMetaProperty property = meta.property(meta.propertyOffset());
    QCOMPARE(property.name(), "traceLog");
    QCOMPARE(property.typeName(), "bool");
    QVERIFY(property.isReadable());
    QVERIFY(property.isWritable());
    QVERIFY(property.isDesignable());
    QVERIFY(property.isScriptable());
    QVERIFY(property.isStored());
    QVERIFY(!property.isResettable());
    QVERIFY(!property.hasNotifySignal());
}

void TestPluginBase::classInfoNamesAuthorAndUrl()
{
    const QMetaObject &meta = Plugin_base::staticMetaObject;
    QCOMPARE(meta.classInfoCount() - meta.classInfoOffset(), 2);
    QCOMPARE(meta.classInfo(meta.classInfoOffset()).name(), "Author");
    QCOMPARE(meta.classInfo(meta.classInfoOffset() + 1).name(), "URL");
}

void TestPluginBase::freshObjectIsEmpty()
{
    QObject parent;
    const Probe *probe = new Probe(&parent);
    QCOMPARE(probe->parent(), &parent);
    QVERIFY(!probe->m_scriptValueThis.isValid());
    QVERIFY(!probe->traceLog());
    QVERIFY(probe->m_engine.isNull());
    QVERIFY(probe->m_classNames.isEmpty());
    QVERIFY(!probe->m_libResult);

    QScriptEngine engine;
    QCOMPARE(Probe(nullptr, &engine).m_engine.data(), &engine);
}

void TestPluginBase::guiAnswerStartsUnknown()
{
    QCOMPARE(guiAnswerAtStart, -1);
}

void TestPluginBase::switchingTraceReportsTheChange()
{
    Probe probe;
    Messages messages(&probe);
    probe.setTraceLog(true);
    QVERIFY(probe.traceLog());
    probe.setTraceLog(false);
    QVERIFY(!probe.traceLog());

    QCOMPARE(messages.list.size(), 2);
    for (const Message &message : qAsConst(messages.list)) {
        QCOMPARE(message.file, QByteArray(SourceFile));
        QCOMPARE(message.line, 52);
        QCOMPARE(message.function, QByteArray("setTraceLog"));
        QCOMPARE(message.level, 1);
    }
    QCOMPARE(messages.list.at(0).text, QStringLiteral("трассировка включена"));
    QCOMPARE(messages.list.at(1).text, QStringLiteral("трассировка выключена"));
}

void TestPluginBase::switchingTraceTwiceReportsOnce()
{
    Probe probe;
    Messages messages(&probe);
    probe.setTraceLog(true);
    probe.setTraceLog(true);
    QCOMPARE(messages.list.size(), 1);
}

void TestPluginBase::switchingOffAFreshObjectReportsNothing()
{
    Probe probe;
    Messages messages(&probe);
    probe.setTraceLog(false);
    QCOMPARE(messages.list.size(), 0);
}

void TestPluginBase::traceTextsBelongToTheContextQObject()
{
    ContextTranslator translator;
    QVERIFY(QCoreApplication::installTranslator(&translator));
    Probe probe;
    Messages messages(&probe);
    probe.setTraceLog(true);
    probe.setTraceLog(false);
    QCoreApplication::removeTranslator(&translator);
    QCOMPARE(messages.list.size(), 2);
    QCOMPARE(messages.list.at(0).text, QStringLiteral("QObject/трассировка QObject/включена"));
    QCOMPARE(messages.list.at(1).text, QStringLiteral("QObject/трассировка QObject/выключена"));
}

void TestPluginBase::enableTraceLogWithoutArgumentSwitchesOn()
{
    Probe probe;
    QVERIFY(QMetaObject::invokeMethod(&probe, "enableTraceLog"));
    QVERIFY(probe.traceLog());
}

void TestPluginBase::enableTraceLogTakesTheState()
{
    Probe probe;
    Messages messages(&probe);
    probe.enableTraceLog(true);
    QVERIFY(probe.traceLog());
    probe.enableTraceLog(false);
    QVERIFY(!probe.traceLog());
    QCOMPARE(messages.list.size(), 2);
}

void TestPluginBase::disableTraceLogSwitchesOff()
{
    Probe probe;
    probe.setTraceLog(true);
    Messages messages(&probe);
    QVERIFY(QMetaObject::invokeMethod(&probe, "disableTraceLog"));
    QVERIFY(!probe.traceLog());
    QCOMPARE(messages.list.size(), 1);
    QCOMPARE(messages.list.first().text, QStringLiteral("трассировка выключена"));
}

void TestPluginBase::scriptSwitchesTrace()
{
    QScriptEngine engine;
    Probe probe(nullptr, &engine);
    engine.globalObject().setProperty(QStringLiteral("probe"), probe.getScriptValueThis(&engine));
    QCOMPARE(engine
                 .evaluate(QStringLiteral("var seen = [probe.traceLog];"
                                          "probe.traceLog = true; seen.push(probe.traceLog);"
                                          "probe.disableTraceLog(); seen.push(probe.traceLog);"
                                          "probe.enableTraceLog(); seen.push(probe.traceLog);"
                                          "probe.enableTraceLog(false); seen.push(probe.traceLog);"
                                          "seen.join()"))
                 .toString(),
             QStringLiteral("false,true,false,true,false"));
}

void TestPluginBase::msgRelaysAChildsMessage()
{
    Probe parent;
    Talker child(&parent);
    QVERIFY(QObject::connect(&child, SIGNAL(s_msg(const char *, int, const char *, QString, int)),
                             &parent, SLOT(msg(const char *, int, const char *, QString, int))));
    Messages messages(&parent);
    child.say(QStringLiteral("от ребёнка"));
    QCOMPARE(messages.list.size(), 1);
    const Message &message = messages.list.first();
    QCOMPARE(message.file, QByteArray("talker"));
    QCOMPARE(message.line, 3);
    QCOMPARE(message.function, QByteArray("say"));
    QCOMPARE(message.text, QStringLiteral("от ребёнка"));
    QCOMPARE(message.level, 1);
}

void TestPluginBase::setScriptValueThisAcceptsItsOwnWrapper()
{
    QScriptEngine engine;
    Probe probe;
    const QScriptValue wrapper = engine.newQObject(&probe);
    QVERIFY(probe.setScriptValueThis(wrapper));
    QVERIFY(probe.m_scriptValueThis.strictlyEquals(wrapper));
}

void TestPluginBase::setScriptValueThisRefusesOthersAndKeepsTheOld_data()
{
    QTest::addColumn<QString>("code");
    QTest::newRow("another object") << QStringLiteral("other");
    QTest::newRow("number") << QStringLiteral("5");
    QTest::newRow("text") << QStringLiteral("'probe'");
    QTest::newRow("plain object") << QStringLiteral("({})");
    QTest::newRow("heir of its wrapper") << QStringLiteral("Object.create(probe)");
    QTest::newRow("null") << QStringLiteral("null");
    QTest::newRow("undefined") << QStringLiteral("undefined");
    QTest::newRow("invalid") << QString();
}

void TestPluginBase::setScriptValueThisRefusesOthersAndKeepsTheOld()
{
    QFETCH(QString, code);
    QScriptEngine engine;
    Probe probe;
    Probe other;
    const QScriptValue wrapper = engine.newQObject(&probe);
    QVERIFY(probe.setScriptValueThis(wrapper));
    engine.globalObject().setProperty(QStringLiteral("probe"), wrapper);
    engine.globalObject().setProperty(QStringLiteral("other"), engine.newQObject(&other));
    const QScriptValue value = code.isEmpty() ? QScriptValue() : engine.evaluate(code);
    QVERIFY(!probe.setScriptValueThis(value));
    QVERIFY(probe.m_scriptValueThis.strictlyEquals(wrapper));
    if (!code.isEmpty())
        QVERIFY(engine.evaluate(QStringLiteral("probe.setScriptValueThis(%1) === false").arg(code))
                    .toBool());
}

void TestPluginBase::getScriptValueThisWithoutEngineIsInvalidAtFirst()
{
    Probe probe;
    QVERIFY(!probe.getScriptValueThis(nullptr).isValid());
}

void TestPluginBase::getScriptValueThisWrapsOnce()
{
    QScriptEngine engine;
    Probe probe;
    const QScriptValue first = probe.getScriptValueThis(&engine);
    QCOMPARE(first.toQObject(), &probe);
    QVERIFY(first.strictlyEquals(probe.getScriptValueThis(&engine)));
    QVERIFY(first.strictlyEquals(probe.getScriptValueThis(nullptr)));
}

void TestPluginBase::getScriptValueThisKeepsTheValueThatWasSet()
{
    QScriptEngine engine;
    Probe probe;
    const QScriptValue wrapper = engine.newQObject(&probe);
    QVERIFY(probe.setScriptValueThis(wrapper));
    QVERIFY(probe.getScriptValueThis(&engine).strictlyEquals(wrapper));
}

void TestPluginBase::getScriptValueThisReplacesTheValueOfADeadEngine()
{
    Probe probe;
    {
        QScriptEngine first;
        QVERIFY(probe.getScriptValueThis(&first).isQObject());
    }
    QScriptEngine second;
    const QScriptValue value = probe.getScriptValueThis(&second);
    QCOMPARE(value.engine(), &second);
    QCOMPARE(value.toQObject(), &probe);
}

void TestPluginBase::wrapperIsOwnedByQtAndHidesChildren()
{
    QScriptEngine engine;
    QPointer<Probe> probe = new Probe(nullptr, &engine);
    const std::unique_ptr<Probe> owner(probe.data());
    QObject *child = new QObject(probe);
    child->setObjectName(QStringLiteral("child"));
    QVERIFY(!probe->getScriptValueThis(&engine).property(QStringLiteral("child")).isValid());

    probe->m_scriptValueThis = QScriptValue();
    engine.collectGarbage();
    QVERIFY(!probe.isNull());
}

void TestPluginBase::throwScriptRaisesInTheCallingScript_data()
{
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("name");
    QTest::newRow("Error") << int(QScriptContext::UnknownError) << QStringLiteral("Error");
    QTest::newRow("TypeError") << int(QScriptContext::TypeError) << QStringLiteral("TypeError");
    QTest::newRow("RangeError") << int(QScriptContext::RangeError) << QStringLiteral("RangeError");
    QTest::newRow("URIError") << int(QScriptContext::URIError) << QStringLiteral("URIError");
}

void TestPluginBase::throwScriptRaisesInTheCallingScript()
{
    QFETCH(int, error);
    QFETCH(QString, name);
    QScriptEngine engine;
    Probe probe(nullptr, &engine);
    engine.globalObject().setProperty(QStringLiteral("probe"), probe.getScriptValueThis(&engine));
    engine.globalObject().setProperty(QStringLiteral("error"), error);
    QCOMPARE(engine
                 .evaluate(QStringLiteral("try { probe.fail('плохо', error); 'not thrown' }"
                                          "catch (e) { e.name + '|' + e.message }"))
                 .toString(),
             name + QStringLiteral("|плохо"));
    QVERIFY(!engine.hasUncaughtException());
    QVERIFY(probe.fail(QStringLiteral("плохо"), error).isError());
}

void TestPluginBase::throwScriptWithoutEngineReturnsFalse()
{
    Probe probe;
    const QScriptValue result = probe.fail(QStringLiteral("text"), QScriptContext::TypeError);
    QVERIFY(result.isBool());
    QVERIFY(!result.toBool());
}

void TestPluginBase::throwScriptAfterTheEngineDiedReturnsFalse()
{
    auto engine = std::make_unique<QScriptEngine>();
    Probe probe(nullptr, engine.get());
    engine.reset();
    const QScriptValue result = probe.fail(QStringLiteral("text"), QScriptContext::TypeError);
    QVERIFY(result.isBool());
    QVERIFY(!result.toBool());
}

void TestPluginBase::connectMsgDeliversEachMessage()
{
    const MessageLog log;
    Probe sender;
    MessageSink receiver;
    Plugin_base::connect_msg(&sender, &receiver);
    sender.setTraceLog(true);
    QCOMPARE(receiver.messages().size(), 1);
    const SinkMessage message = receiver.messages().first();
    QCOMPARE(message.file, QString::fromLatin1(SourceFile));
    QCOMPARE(message.line, 52);
    QCOMPARE(message.function, QStringLiteral("setTraceLog"));
    QCOMPARE(message.text, QStringLiteral("трассировка включена"));
    QCOMPARE(message.level, 1);
    QVERIFY(log.lines().isEmpty());
}

void TestPluginBase::connectMsgServesAnySenderWithTheSignal()
{
    Talker sender;
    MessageSink receiver;
    Plugin_base::connect_msg(&sender, &receiver);
    sender.say(QStringLiteral("hello"));
    QCOMPARE(receiver.texts(), QStringList{QStringLiteral("hello")});
}

void TestPluginBase::secondConnectMsgKeepsOneConnectionAndWritesTwoLines()
{
    Talker sender;
    sender.setObjectName(QStringLiteral("talker"));
    MessageSink receiver;
    receiver.setObjectName(QStringLiteral("sink"));
    Plugin_base::connect_msg(&sender, &receiver);
    const MessageLog log;
    Plugin_base::connect_msg(&sender, &receiver);
    QCOMPARE(log.lines().size(), 2);
    verifyConnectLines(log, QStringLiteral("Talker\\(0x[0-9a-f]+, name = \"talker\"\\)"),
                       QStringLiteral("MessageSink\\(0x[0-9a-f]+, name = \"sink\"\\)"));
    sender.say(QStringLiteral("once"));
    QCOMPARE(receiver.texts(), QStringList{QStringLiteral("once")});
}

void TestPluginBase::connectMsgToAReceiverWithoutTheSlotWritesTwoLines()
{
    Talker sender;
    QObject receiver;
    const MessageLog log;
    Plugin_base::connect_msg(&sender, &receiver);
    verifyConnectLines(log, QStringLiteral("Talker\\(0x[0-9a-f]+\\)"),
                       QStringLiteral("QObject\\(0x[0-9a-f]+\\)"));
}

void TestPluginBase::connectMsgOfASenderWithoutTheSignalWritesTwoLines()
{
    QObject sender;
    MessageSink receiver;
    const MessageLog log;
    Plugin_base::connect_msg(&sender, &receiver);
    verifyConnectLines(log, QStringLiteral("QObject\\(0x[0-9a-f]+\\)"),
                       QStringLiteral("MessageSink\\(0x[0-9a-f]+\\)"));
}

void TestPluginBase::connectMsgToNullWritesTwoLines()
{
    Talker sender;
    const MessageLog log;
    Plugin_base::connect_msg(&sender, nullptr);
    verifyConnectLines(log, QStringLiteral("Talker\\(0x[0-9a-f]+\\)"),
                       QStringLiteral("QObject\\(0x0\\)"));
}

void TestPluginBase::failedConnectMsgSendsNoMessage()
{
    const MessageLog log(MessageLog::Forward::No);
    Probe sender;
    QObject receiver;
    Messages messages(&sender);
    Plugin_base::connect_msg(&sender, &receiver);
    QCOMPARE(messages.list.size(), 0);
    QCOMPARE(log.lines(QtCriticalMsg).size(), 2);
}

void TestPluginBase::messagesOfAnotherThreadArriveQueued()
{
    Talker sender;
    MessageSink receiver;
    Plugin_base::connect_msg(&sender, &receiver);
    const std::unique_ptr<QThread> thread(
        QThread::create([&sender] { sender.say(QStringLiteral("from afar")); }));
    thread->start();
    QVERIFY(thread->wait(scaledMs(defaultWaitMs)));
    QCOMPARE(receiver.texts(), QStringList());
    QVERIFY(receiver.waitFor(QStringLiteral("from afar")));
    QCOMPARE(receiver.messages().size(), 1);
    QVERIFY(receiver.messages().first().mainThread);
    QCOMPARE(receiver.messages().first().file, QStringLiteral("talker"));
}

void TestPluginBase::senderWithoutHostIsLeftAlone()
{
    const MessageLog log;
    QObject parent;
    Talker *sender = new Talker(&parent);
    Plugin_base::connect_msg(sender);
    QCOMPARE(log.lines().size(), 0);
}

void TestPluginBase::nullSenderIsLeftAlone()
{
    const MessageLog log;
    const VextServerStub server(QCoreApplication::instance());
    Plugin_base::connect_msg(nullptr);
    QCOMPARE(log.lines().size(), 0);
}

void TestPluginBase::nearestPostAmongTheParentsReceives()
{
    VextServerStub server(QCoreApplication::instance());
    VextPostStub far;
    VextPostStub *near = new VextPostStub(&far);
    QObject *between = new QObject(near);
    Talker *sender = new Talker(between);
    Plugin_base::connect_msg(sender);
    sender->say(QStringLiteral("hello"));
    QCOMPARE(near->texts(), QStringList{QStringLiteral("hello")});
    QCOMPARE(far.texts(), QStringList());
    QCOMPARE(server.texts(), QStringList());
}

void TestPluginBase::senderMayItselfBeThePost()
{
    VextPostStub outer;
    VextPostTalker *sender = new VextPostTalker(&outer);
    Plugin_base::connect_msg(sender);
    sender->say(QStringLiteral("to myself"));
    QCOMPARE(sender->received, QStringList{QStringLiteral("to myself")});
    QCOMPARE(outer.texts(), QStringList());
}

void TestPluginBase::postMustBeginTheClassName_data()
{
    QTest::addColumn<bool>("lowerCase");
    QTest::newRow("elsewhere in the name") << false;
    QTest::newRow("in another case") << true;
}

void TestPluginBase::postMustBeginTheClassName()
{
    QFETCH(bool, lowerCase);
    const MessageLog log;
    MyVextPost elsewhere;
    vextPostLower lower;
    MessageSink &parent =
        lowerCase ? static_cast<MessageSink &>(lower) : static_cast<MessageSink &>(elsewhere);
    Talker *sender = new Talker(&parent);
    Plugin_base::connect_msg(sender);
    sender->say(QStringLiteral("hello"));
    QCOMPARE(parent.texts(), QStringList());
    QCOMPARE(log.lines().size(), 0);
}

void TestPluginBase::serverReceivesWhereThereIsNoPost()
{
    VextServerStub server(QCoreApplication::instance());
    Talker sender;
    Plugin_base::connect_msg(&sender);
    sender.say(QStringLiteral("hello"));
    QCOMPARE(server.texts(), QStringList{QStringLiteral("hello")});
}

void TestPluginBase::serverIsFoundBelowOtherObjects()
{
    QObject between(QCoreApplication::instance());
    VextServerStub *server = new VextServerStub(&between);
    Talker sender;
    Plugin_base::connect_msg(&sender);
    sender.say(QStringLiteral("hello"));
    QCOMPARE(server->texts(), QStringList{QStringLiteral("hello")});
}

void TestPluginBase::serverOfAnotherClassIsPassedOver()
{
    const MessageLog log;
    MyVextServer server;
    Talker sender;
    Plugin_base::connect_msg(&sender);
    sender.say(QStringLiteral("hello"));
    QCOMPARE(server.texts(), QStringList());
    QCOMPARE(log.lines().size(), 0);
}

void TestPluginBase::postWithoutTheSlotIsNotReplacedByTheServer()
{
    VextServerStub server(QCoreApplication::instance());
    VextPostMute post;
    Talker *sender = new Talker(&post);
    const MessageLog log;
    Plugin_base::connect_msg(sender);
    verifyConnectLines(log, QStringLiteral("Talker\\(0x[0-9a-f]+\\)"),
                       QStringLiteral("VextPostMute\\(0x[0-9a-f]+.*\\)"));
    sender->say(QStringLiteral("hello"));
    QCOMPARE(server.texts(), QStringList());
}

QTEST_GUILESS_MAIN(TestPluginBase)

#include "test_plugin_base.moc"
