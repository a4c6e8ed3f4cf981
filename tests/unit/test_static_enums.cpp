// The toolkit that shows native functions, properties and enumerations to scripts.
#include "message_log.h"
#include "vext_static_enums.h"

#include <QDir>
#include <QFile>
#include <QMetaEnum>
#include <QScriptEngine>
#include <QScriptValueIterator>
#include <QTemporaryDir>
#include <QtTest>

namespace
{

class Palette
{
    Q_GADGET

public:
    enum Colour { A = 1, B = 2 };
    Q_ENUM(Colour)
    enum Option { Fast = 0x1, Safe = 0x4, All = 0x5 };
    Q_DECLARE_FLAGS(Options, Option)
    Q_FLAG(Options)
};

/// Describes a file as QFileInfo does, with methods.
class FileObject : public QObject
{
    Q_OBJECT

public:
    explicit FileObject(const QString &path)
        : m_path(path)
    {
    }
    Q_INVOKABLE QString absoluteFilePath() const { return m_path; }

private:
    QString m_path;
};

/// Returns the number of its arguments.
QScriptValue countArguments(QScriptContext *context, QScriptEngine *)
{
    return QScriptValue(context->argumentCount());
}

/// What the accessor function below saw: -1 for a read, else the value written.
QVector<int> accesses;

/// An accessor that gives the object "holder" of the script.
QScriptValue accessHolder(QScriptContext *context, QScriptEngine *engine)
{
    accesses.append(context->argumentCount() == 0 ? -1 : context->argument(0).toInt32());
    return engine->globalObject().property(QStringLiteral("holder"));
}

QScriptValue throwAlways(QScriptContext *context, QScriptEngine *)
{
    return context->throwError(QStringLiteral("refused"));
}

QScriptValue throwByToolkit(QScriptContext *context, QScriptEngine *)
{
    return FuncWrapper::throwScript(context, QStringLiteral("плохо"), QScriptContext::RangeError);
}

QStringList ownNames(const QScriptValue &object)
{
    QStringList names;
    for (QScriptValueIterator it(object); it.hasNext();) {
        it.next();
        names.append(it.name());
    }
    return names;
}

int flagsOf(const QScriptValue &object, const char *name)
{
    return int(object.propertyFlags(QString::fromLatin1(name)));
}

QScriptValue get(const QScriptValue &object, const char *name)
{
    return object.property(QString::fromLatin1(name));
}

void verifySingleCriticalLine(const MessageLog &log, const QString &afterTime)
{
    QCOMPARE(log.lines().size(), 1);
    const LogLine line = log.lines().first();
    QCOMPARE(line.severity, QtCriticalMsg);
    QCOMPARE(line.category, QStringLiteral("default"));
    QVERIFY2(QRegularExpression(
                 QStringLiteral("^\\d{4}-\\d\\d-\\d\\d-\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d %1$")
                     .arg(afterTime))
                 .match(line.text)
                 .hasMatch(),
             qPrintable(line.text));
}

} // namespace

class TestStaticEnums : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void flagNumbers();

    void createFuncNamesTheFunctionAndSetsIt_data();
    void createFuncNamesTheFunctionAndSetsIt();
    void createFuncWithNegativeLengthLeavesLength();
    void createFuncFromNativeIsVisibleUnlessToldOtherwise();
    void hiddenFunctionIsNotEnumeratedAVisibleOneIs();
    void scriptCannotChangeOrDeleteAFunction();

    void accessorHasAllFlags_data();
    void accessorHasAllFlags();
    void accessorIsReadAndWrittenThroughOneFunction();
    void accessorCannotBeDeletedAndIsNotEnumerated();
    void accessorsSetterMethodIsNamed();
    void accessorIsReadBackOnceAndItsValueNamed();
    void accessorThatThrowsLeavesNoException();

    void createFuncsMakesGetterAndSetter();
    void createFuncsWithoutSetterMakesTheGetterOnly();
    void nameKeepsAllButItsFirstCharacter();

    void enumerationObjectHoldsMapNameKeysAndGetFlagInOrder();
    void enumerationObjectFlags();
    void longEnumerationKeepsTheOrderOfItsKeys();
    void unknownEnumerationIsShownAndLogged();
    void setFlagsPutsASubObject();
    void setFlagsOfAnUnknownEnumerationIsShownAndLogged();

    void getFlagAnswers_data();
    void getFlagAnswers();
    void getFlagFindsHiddenProperties();
    void getFlagTakesTheFirstMatch();
    void getFlagPassesOverPropertiesThatThrow();
    void getFlagOnOtherObjects_data();
    void getFlagOnOtherObjects();

    void removeDeletesTheNamedFile();
    void removeRefuses_data();
    void removeRefuses();
    void removeAsksTheThisObjectInOrder_data();
    void removeAsksTheThisObjectInOrder();
    void removeCallsAMethodWithTheThisObject();
    void removeServesQObjects();

    void throwScriptRaisesInTheContext();
    void throwScriptWithoutContextReturnsFalse();

private:
    /// Runs `code` with "e" the enumeration object of Palette::Colour.
    QScriptValue evaluateOnColours(const QString &code);
    /// An engine whose global function "remove" is the toolkit's.
    void prepareRemove();
    QString makeFile(const QString &name);

    QScopedPointer<QScriptEngine> m_engine;
    QScopedPointer<QTemporaryDir> m_folder;
};

void TestStaticEnums::init()
{
    m_engine.reset(new QScriptEngine);
    m_folder.reset(new QTemporaryDir);
    accesses.clear();
}

QScriptValue TestStaticEnums::evaluateOnColours(const QString &code)
{
    QScriptValue colours = m_engine->newObject();
    FuncWrapper::setEnums(m_engine.data(), colours, Palette::staticMetaObject, "Colour");
    m_engine->globalObject().setProperty(QStringLiteral("e"), colours);
    return m_engine->evaluate(code);
}

void TestStaticEnums::prepareRemove()
{
    QScriptValue global = m_engine->globalObject();
    FuncWrapper::createFunc(m_engine.data(), global, "remove", FuncWrapper::remove, 1);
}

QString TestStaticEnums::makeFile(const QString &name)
{
    const QString path = m_folder->filePath(name);
    QFile file(path);
    return file.open(QIODevice::WriteOnly) ? path : QString();
}

void TestStaticEnums::flagNumbers()
{
    QCOMPARE(int(FuncWrapper::Visible), 3);
    QCOMPARE(int(FuncWrapper::Hidden), 7);
    QCOMPARE(int(FuncWrapper::Accessor), 30);
}

void TestStaticEnums::createFuncNamesTheFunctionAndSetsIt_data()
{
    QTest::addColumn<bool>("hidden");
    QTest::addColumn<int>("flags");
    QTest::newRow("visible") << false << 3;
    QTest::newRow("hidden") << true << 7;
}

void TestStaticEnums::createFuncNamesTheFunctionAndSetsIt()
{
    QFETCH(bool, hidden);
    QScriptValue object = m_engine->newObject();
    QScriptValue func = m_engine->newFunction(countArguments, 5);
    const QScriptValue returned = FuncWrapper::createFunc(func, object, "work", hidden, 2);
    QVERIFY(returned.strictlyEquals(func));
    QVERIFY(get(object, "work").strictlyEquals(func));
    QTEST(flagsOf(object, "work"), "flags");
    QVERIFY(get(func, "name").isString());
    QCOMPARE(get(func, "name").toString(), QStringLiteral("work"));
    QCOMPARE(flagsOf(func, "name"), 7);
    QVERIFY(get(func, "length").isNumber());
    QCOMPARE(get(func, "length").toInt32(), 2);
    QCOMPARE(flagsOf(func, "length"), 7);
}

void TestStaticEnums::createFuncWithNegativeLengthLeavesLength()
{
    QScriptValue object = m_engine->newObject();
    QScriptValue func = m_engine->newFunction(countArguments, 5);
    FuncWrapper::createFunc(func, object, "work", false, -1);
    QCOMPARE(get(func, "length").toInt32(), 5);
    QCOMPARE(get(func, "name").toString(), QStringLiteral("work"));
    FuncWrapper::createFunc(func, object, "work", false, 0);
    QCOMPARE(get(func, "length").toInt32(), 0);
}

void TestStaticEnums::createFuncFromNativeIsVisibleUnlessToldOtherwise()
{
    QScriptValue object = m_engine->newObject();
    const QScriptValue shown =
        FuncWrapper::createFunc(m_engine.data(), object, "shown", countArguments, 3);
    const QScriptValue hidden =
        FuncWrapper::createFunc(m_engine.data(), object, "hidden", countArguments, -1, true);
    const QScriptValue visible =
        FuncWrapper::createFunc(m_engine.data(), object, "visible", countArguments, 1, false);
    QCOMPARE(flagsOf(object, "shown"), 3);
    QCOMPARE(flagsOf(object, "hidden"), 7);
    QCOMPARE(flagsOf(object, "visible"), 3);
    QVERIFY(get(object, "shown").strictlyEquals(shown));
    QCOMPARE(get(shown, "length").toInt32(), 3);
    QCOMPARE(get(hidden, "length").toInt32(), 0);
    QCOMPARE(get(hidden, "name").toString(), QStringLiteral("hidden"));
    QCOMPARE(get(visible, "length").toInt32(), 1);
    QCOMPARE(get(object, "shown").call(object, {1, 2}).toInt32(), 2);
}

void TestStaticEnums::hiddenFunctionIsNotEnumeratedAVisibleOneIs()
{
    QScriptValue object = m_engine->newObject();
    FuncWrapper::createFunc(m_engine.data(), object, "hidden", countArguments, 0, true);
    FuncWrapper::createFunc(m_engine.data(), object, "visible", countArguments, 0, false);
    m_engine->globalObject().setProperty(QStringLiteral("o"), object);
    QCOMPARE(m_engine->evaluate(QStringLiteral("var n = []; for (var k in o) n.push(k); n.join()"))
                 .toString(),
             QStringLiteral("visible"));
}

void TestStaticEnums::scriptCannotChangeOrDeleteAFunction()
{
    QScriptValue object = m_engine->newObject();
    FuncWrapper::createFunc(m_engine.data(), object, "work", countArguments, 2);
    m_engine->globalObject().setProperty(QStringLiteral("o"), object);
    QCOMPARE(m_engine
                 ->evaluate(QStringLiteral("o.work = 1; o.work.name = 'x'; o.work.length = 9;"
                                           "[delete o.work, delete o.work.name,"
                                           " typeof o.work, o.work.name, o.work.length].join()"))
                 .toString(),
             QStringLiteral("false,false,function,work,2"));
}

void TestStaticEnums::accessorHasAllFlags_data()
{
    QTest::addColumn<QString>("before");
    QTest::newRow("new name") << QString();
    QTest::newRow("plain property") << QStringLiteral("o.value = 1");
    QTest::newRow("set before") << QStringLiteral("set");
}

void TestStaticEnums::accessorHasAllFlags()
{
    QFETCH(QString, before);
    QScriptValue object = m_engine->newObject();
    m_engine->globalObject().setProperty(QStringLiteral("o"), object);
    const QScriptValue func = m_engine->newFunction(countArguments, 0);
    if (before == QLatin1String("set"))
        FuncWrapper::setAccessor(object, QStringLiteral("value"), func);
    else
        m_engine->evaluate(before);
    FuncWrapper::setAccessor(object, QStringLiteral("value"), func);
    QCOMPARE(flagsOf(object, "value"), 30);
    QVERIFY(get(object, "value").isNumber());
    QCOMPARE(get(object, "value").toInt32(), 0);
}

void TestStaticEnums::accessorIsReadAndWrittenThroughOneFunction()
{
    m_engine->globalObject().setProperty(QStringLiteral("holder"), 77);
    QScriptValue object = m_engine->newObject();
    FuncWrapper::createFuncAndProp(m_engine.data(), object, QStringLiteral("value"), accessHolder);
    m_engine->globalObject().setProperty(QStringLiteral("o"), object);
    QCOMPARE(flagsOf(object, "value"), 30);
    accesses.clear();
    QCOMPARE(m_engine->evaluate(QStringLiteral("o.value = 5; o.setValue(6); o.value")).toInt32(),
             77);
    QCOMPARE(accesses, (QVector<int>{5, 6, -1}));
}

void TestStaticEnums::accessorCannotBeDeletedAndIsNotEnumerated()
{
    QScriptValue object = m_engine->newObject();
    FuncWrapper::createFuncAndProp(m_engine.data(), object, QStringLiteral("value"),
                                   countArguments);
    m_engine->globalObject().setProperty(QStringLiteral("o"), object);
    QCOMPARE(m_engine
                 ->evaluate(QStringLiteral("var n = [delete o.value, o.value];"
                                           "for (var k in o) n.push(k); n.join()"))
                 .toString(),
             QStringLiteral("false,0,setValue"));
}

void TestStaticEnums::accessorsSetterMethodIsNamed()
{
    QScriptValue object = m_engine->newObject();
    FuncWrapper::createFuncAndProp(m_engine.data(), object, QStringLiteral("value"),
                                   countArguments);
    const QScriptValue setter = get(object, "setValue");
    QVERIFY(setter.isFunction());
    QCOMPARE(flagsOf(object, "setValue"), 3);
    QCOMPARE(get(setter, "name").toString(), QStringLiteral("setValue"));
    QCOMPARE(flagsOf(setter, "name"), 7);
    QCOMPARE(get(setter, "length").toInt32(), 0);
}

void TestStaticEnums::accessorIsReadBackOnceAndItsValueNamed()
{
    const QScriptValue holder = m_engine->newObject();
    m_engine->globalObject().setProperty(QStringLiteral("holder"), holder);
    QScriptValue object = m_engine->newObject();
    FuncWrapper::createFuncAndProp(m_engine.data(), object, QStringLiteral("value"), accessHolder);
    QCOMPARE(accesses, QVector<int>{-1});
    QCOMPARE(get(holder, "name").toString(), QStringLiteral("value"));
    QCOMPARE(flagsOf(holder, "name"), 7);
}

void TestStaticEnums::accessorThatThrowsLeavesNoException()
{
    QScriptValue object = m_engine->newObject();
    FuncWrapper::createFuncAndProp(m_engine.data(), object, QStringLiteral("value"), throwAlways);
    QVERIFY(!m_engine->hasUncaughtException());
    QCOMPARE(flagsOf(object, "value"), 30);
    QVERIFY(get(object, "setValue").isFunction());
}

void TestStaticEnums::createFuncsMakesGetterAndSetter()
{
    QScriptValue object = m_engine->newObject();
    FuncWrapper::createFuncs(m_engine.data(), object, QStringLiteral("value"), countArguments,
                             true);
    QCOMPARE(ownNames(object),
             (QStringList{QStringLiteral("getValue"), QStringLiteral("setValue")}));
    for (const char *name : {"getValue", "setValue"}) {
        const QScriptValue method = get(object, name);
        QCOMPARE(flagsOf(object, name), 3);
        QCOMPARE(get(method, "name").toString(), QString::fromLatin1(name));
        QCOMPARE(flagsOf(method, "name"), 7);
        QCOMPARE(get(method, "length").toInt32(), 0);
    }
    m_engine->globalObject().setProperty(QStringLiteral("o"), object);
    QCOMPARE(m_engine->evaluate(QStringLiteral("[o.getValue(), o.setValue(5)].join()")).toString(),
             QStringLiteral("0,1"));
}

void TestStaticEnums::createFuncsWithoutSetterMakesTheGetterOnly()
{
    QScriptValue object = m_engine->newObject();
    FuncWrapper::createFuncs(m_engine.data(), object, QStringLiteral("value"), countArguments,
                             false);
    QCOMPARE(ownNames(object), QStringList{QStringLiteral("getValue")});
}

void TestStaticEnums::nameKeepsAllButItsFirstCharacter()
{
    QScriptValue object = m_engine->newObject();
    FuncWrapper::createFuncs(m_engine.data(), object, QStringLiteral("app_NAME"), countArguments,
                             true);
    FuncWrapper::createFuncAndProp(m_engine.data(), object, QStringLiteral("x"), countArguments);
    QCOMPARE(ownNames(object),
             (QStringList{QStringLiteral("getApp_NAME"), QStringLiteral("setApp_NAME"),
                          QStringLiteral("x"), QStringLiteral("setX")}));
}

void TestStaticEnums::enumerationObjectHoldsMapNameKeysAndGetFlagInOrder()
{
    const QScriptValue colours = evaluateOnColours(QStringLiteral("e"));
    QCOMPARE(ownNames(colours), (QStringList{QStringLiteral("mapName"), QStringLiteral("A"),
                                             QStringLiteral("B"), QStringLiteral("getFlag")}));
    QVERIFY(get(colours, "mapName").isString());
    QCOMPARE(get(colours, "mapName").toString(), QStringLiteral("Palette::Colour"));
    QVERIFY(get(colours, "A").isNumber());
    QCOMPARE(get(colours, "A").toInt32(), 1);
    QCOMPARE(get(colours, "B").toInt32(), 2);
    QCOMPARE(get(get(colours, "getFlag"), "name").toString(), QStringLiteral("getFlag"));
    QCOMPARE(get(get(colours, "getFlag"), "length").toInt32(), 1);
}

void TestStaticEnums::enumerationObjectFlags()
{
    const QScriptValue colours = evaluateOnColours(QStringLiteral("e"));
    QCOMPARE(flagsOf(colours, "mapName"), 7);
    QCOMPARE(flagsOf(colours, "A"), 3);
    QCOMPARE(flagsOf(colours, "B"), 3);
    QCOMPARE(flagsOf(colours, "getFlag"), 3);
}

void TestStaticEnums::longEnumerationKeepsTheOrderOfItsKeys()
{
    const QMetaEnum keys = QMetaEnum::fromType<Qt::Key>();
    QVERIFY(keys.keyCount() > 400);
    QScriptValue object = m_engine->newObject();
    FuncWrapper::setEnums(m_engine.data(), object, *keys.enclosingMetaObject(), "Key");
    QStringList expected{QStringLiteral("mapName")};
    for (int i = 0; i < keys.keyCount(); ++i)
        expected.append(QString::fromLatin1(keys.key(i)));
    expected.append(QStringLiteral("getFlag"));
    QCOMPARE(ownNames(object), expected);
    QCOMPARE(get(object, "mapName").toString(), QStringLiteral("Qt::Key"));
    QCOMPARE(get(object, "Key_Escape").toInt32(), int(Qt::Key_Escape));
}

void TestStaticEnums::unknownEnumerationIsShownAndLogged()
{
    const MessageLog log;
    QScriptValue object = m_engine->newObject();
    FuncWrapper::setEnums(m_engine.data(), object, Palette::staticMetaObject, "Color");
    QCOMPARE(ownNames(object), QStringList{QStringLiteral("Color")});
    QCOMPARE(get(object, "Color").toString(), QStringLiteral("enum Palette::Color no found"));
    QCOMPARE(flagsOf(object, "Color"), 3);
    verifySingleCriticalLine(log, QStringLiteral("vext_static_enums:137 ~~~~ setEnums \\t "
                                                 "enum Palette::Color no found"));
}

void TestStaticEnums::setFlagsPutsASubObject()
{
    const MessageLog log;
    QScriptValue object = m_engine->newObject();
    FuncWrapper::setFlags(m_engine.data(), object, Palette::staticMetaObject, "Options");
    QCOMPARE(ownNames(object), QStringList{QStringLiteral("Options")});
    QCOMPARE(flagsOf(object, "Options"), 7);
    const QScriptValue flags = get(object, "Options");
    QCOMPARE(ownNames(flags),
             (QStringList{QStringLiteral("mapName"), QStringLiteral("Fast"), QStringLiteral("Safe"),
                          QStringLiteral("All"), QStringLiteral("getFlag")}));
    QCOMPARE(get(flags, "mapName").toString(), QStringLiteral("Palette::Options"));
    QCOMPARE(get(flags, "All").toInt32(), 5);
    QCOMPARE(log.lines().size(), 0);
}

void TestStaticEnums::setFlagsOfAnUnknownEnumerationIsShownAndLogged()
{
    const MessageLog log;
    QScriptValue object = m_engine->newObject();
    FuncWrapper::setFlags(m_engine.data(), object, Palette::staticMetaObject, "Choices");
    QCOMPARE(ownNames(object), QStringList{QStringLiteral("Choices")});
    QCOMPARE(get(object, "Choices").toString(), QStringLiteral("enum Palette::Choices no found"));
    QCOMPARE(flagsOf(object, "Choices"), 3);
    verifySingleCriticalLine(log, QStringLiteral("vext_static_enums:121 ~~~~ setFlags \\t "
                                                 "enum Palette::Choices no found"));
}

void TestStaticEnums::getFlagAnswers_data()
{
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("answer");
    const auto row = [](const char *title, const char *arguments, const char *answer) {
        QTest::newRow(title) << QString::fromLatin1(arguments) << QString::fromLatin1(answer);
    };
    row("key", "'B'", "number 2");
    row("key in another case", "'b'", "number 2");
    row("key with class prefix", "'Palette::B'", "number 2");
    row("key with any prefix", "'x:b'", "number 2");
    row("last of several parts", "'x:A::B'", "number 2");
    row("one leading colon", "':B'", "undefined undefined");
    row("two leading colons", "'::B'", "undefined undefined");
    row("leading colon and prefix", "':Palette::B'", "undefined undefined");
    row("separator at the end", "'B:'", "undefined undefined");
    row("unknown key", "'C'", "undefined undefined");
    row("empty text", "''", "undefined undefined");
    row("mapName", "'MAPNAME'", "string Palette::Colour");
    row("number", "2", "string B");
    row("other number", "1", "string A");
    row("unknown number", "3", "undefined undefined");
    row("fraction", "1.5", "undefined undefined");
    row("not a number", "0/0", "undefined undefined");
    row("zero", "0", "string mapName");
    row("no argument", "", "undefined undefined");
    row("boolean", "true", "undefined undefined");
    row("null", "null", "undefined undefined");
    row("undefined", "undefined", "undefined undefined");
    row("object", "{}", "undefined undefined");
    row("text object", "new String('B')", "undefined undefined");
    row("further arguments", "2, 1", "string B");
}

void TestStaticEnums::getFlagAnswers()
{
    QFETCH(QString, arguments);
    QTEST(evaluateOnColours(
              QStringLiteral("var r = e.getFlag(%1); typeof r + ' ' + r").arg(arguments))
              .toString(),
          "answer");
}

void TestStaticEnums::getFlagFindsHiddenProperties()
{
    QScriptValue object = m_engine->newObject();
    object.setProperty(QStringLiteral("Secret"), 9, FuncWrapper::Hidden);
    FuncWrapper::createFunc(m_engine.data(), object, "getFlag", FuncWrapper::getFlag, 1, true);
    m_engine->globalObject().setProperty(QStringLiteral("o"), object);
    QCOMPARE(m_engine->evaluate(QStringLiteral("o.getFlag('secret')")).toInt32(), 9);
    QCOMPARE(m_engine->evaluate(QStringLiteral("o.getFlag(9)")).toString(),
             QStringLiteral("Secret"));
}

void TestStaticEnums::getFlagTakesTheFirstMatch()
{
    QCOMPARE(evaluateOnColours(QStringLiteral("var o = {z: 7, Key: '8', key: 9, y: 7, x: 8};"
                                              "o.getFlag = e.getFlag;"
                                              "[o.getFlag('KEY'), o.getFlag(7), o.getFlag(8)]"
                                              ".join()"))
                 .toString(),
             QStringLiteral("8,z,Key"));
}

void TestStaticEnums::getFlagPassesOverPropertiesThatThrow()
{
    const QString code =
        QStringLiteral("var o = {get bad() { throw 1 },"
                       " worse: {valueOf: function() { throw 2 }}, zero: 0, getFlag: e.getFlag};"
                       "[o.getFlag(0), typeof o.getFlag('bad'), 'went on'].join()");
    QCOMPARE(evaluateOnColours(code).toString(), QStringLiteral("zero,undefined,went on"));
    QVERIFY(!m_engine->hasUncaughtException());
}

void TestStaticEnums::getFlagOnOtherObjects_data()
{
    QTest::addColumn<QString>("code");
    QTest::addColumn<QString>("answer");
    QTest::newRow("without this") << QStringLiteral("var f = e.getFlag; typeof f('B')")
                                  << QStringLiteral("undefined");
    QTest::newRow("number as this")
        << QStringLiteral("typeof e.getFlag.call(5, 'B')") << QStringLiteral("undefined");
    QTest::newRow("null as this") << QStringLiteral("typeof e.getFlag.call(null, 'B')")
                                  << QStringLiteral("undefined");
    QTest::newRow("inherited keys do not count")
        << QStringLiteral("typeof Object.create(e).getFlag('B')") << QStringLiteral("undefined");
    QTest::newRow("array") << QStringLiteral("e.getFlag.call([7, 8], 8)") << QStringLiteral("1");
}

void TestStaticEnums::getFlagOnOtherObjects()
{
    QFETCH(QString, code);
    QTEST(evaluateOnColours(code).toString(), "answer");
}

void TestStaticEnums::removeDeletesTheNamedFile()
{
    prepareRemove();
    const QString path = makeFile(QStringLiteral("файл"));
    QVERIFY(QFile::exists(path));
    m_engine->globalObject().setProperty(QStringLiteral("path"), path);
    QVERIFY(m_engine->evaluate(QStringLiteral("remove(path) === true")).toBool());
    QVERIFY(!QFile::exists(path));
    QVERIFY(m_engine->evaluate(QStringLiteral("remove(path) === false")).toBool());
}

void TestStaticEnums::removeRefuses_data()
{
    QTest::addColumn<QString>("code");
    const auto row = [](const char *code) { QTest::newRow(code) << QString::fromLatin1(code); };
    row("remove(5)");
    row("remove(null)");
    row("remove(undefined)");
    row("remove({toString: function() { return path }})");
    row("remove(new String(path))");
    row("remove(function() { return path })");
    row("remove(folder)");
    row("remove('')");
    row("({remove: remove, fileName: path}).remove(5)");
    row("({remove: remove}).remove()");
    row("({remove: remove, fileName: null}).remove()");
    row("({remove: remove, fileName: 5}).remove()");
    row("({remove: remove, fileName: {}}).remove()");
    row("({remove: remove, fileName: function() {}}).remove()");
    row("({remove: remove, fileName: function() { throw 1 }}).remove()");
    row("({remove: remove, fileName: function() { throw path }}).remove()");
    row("({remove: remove, get filePath() { throw 1 }, fileName: path}).remove()");
}

void TestStaticEnums::removeRefuses()
{
    QFETCH(QString, code);
    prepareRemove();
    const QString path = makeFile(QStringLiteral("kept"));
    m_engine->globalObject().setProperty(QStringLiteral("path"), path);
    m_engine->globalObject().setProperty(QStringLiteral("folder"), m_folder->path());
    QVERIFY(m_engine->evaluate(code + QStringLiteral(" === false")).toBool());
    QVERIFY(!m_engine->hasUncaughtException());
    QVERIFY(QFile::exists(path));
}

void TestStaticEnums::removeAsksTheThisObjectInOrder_data()
{
    QTest::addColumn<QString>("object");
    QTest::addColumn<QString>("removed");
    QTest::newRow("absoluteFilePath first")
        << QStringLiteral("{fileName: c, filePath: b, absoluteFilePath: a}") << QStringLiteral("a");
    QTest::newRow("then filePath")
        << QStringLiteral("{fileName: c, filePath: b}") << QStringLiteral("b");
    QTest::newRow("then fileName") << QStringLiteral("{fileName: c}") << QStringLiteral("c");
    QTest::newRow("undefined is passed over")
        << QStringLiteral("{absoluteFilePath: undefined, filePath: undefined, fileName: c}")
        << QStringLiteral("c");
    QTest::newRow("null is not passed over")
        << QStringLiteral("{absoluteFilePath: null, fileName: c}") << QString();
    QTest::newRow("another type is not passed over")
        << QStringLiteral("{absoluteFilePath: 5, fileName: c}") << QString();
}

void TestStaticEnums::removeAsksTheThisObjectInOrder()
{
    QFETCH(QString, object);
    QFETCH(QString, removed);
    prepareRemove();
    for (const QString &name : {QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")})
        m_engine->globalObject().setProperty(name, makeFile(name));
    const QScriptValue result =
        m_engine->evaluate(QStringLiteral("var o = %1; o.remove = remove; o.remove()").arg(object));
    QVERIFY(result.isBool());
    QCOMPARE(result.toBool(), !removed.isEmpty());
    QStringList left{QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")};
    left.removeAll(removed);
    QCOMPARE(QDir(m_folder->path()).entryList(QDir::Files, QDir::Name), left);
}

void TestStaticEnums::removeCallsAMethodWithTheThisObject()
{
    prepareRemove();
    const QString path = makeFile(QStringLiteral("kept"));
    m_engine->globalObject().setProperty(QStringLiteral("path"), path);
    QCOMPARE(
        m_engine
            ->evaluate(QStringLiteral("var o = {p: path, remove: remove, filePath: function() {"
                                      "  this.seen = arguments.length; return this.p }};"
                                      "[o.remove(), o.seen].join()"))
            .toString(),
        QStringLiteral("true,0"));
    QVERIFY(!QFile::exists(path));
}

void TestStaticEnums::removeServesQObjects()
{
    prepareRemove();
    const QString path = makeFile(QStringLiteral("file"));
    FileObject file(path);
    m_engine->globalObject().setProperty(QStringLiteral("file"), m_engine->newQObject(&file));
    QVERIFY(m_engine->evaluate(QStringLiteral("remove.call(file) === true")).toBool());
    QVERIFY(!QFile::exists(path));
}

void TestStaticEnums::throwScriptRaisesInTheContext()
{
    QScriptValue global = m_engine->globalObject();
    FuncWrapper::createFunc(m_engine.data(), global, "fail", throwByToolkit, 0);
    QCOMPARE(m_engine
                 ->evaluate(QStringLiteral("try { fail(); 'not thrown' }"
                                           "catch (e) { e.name + '|' + e.message }"))
                 .toString(),
             QStringLiteral("RangeError|плохо"));
    const QScriptValue result = FuncWrapper::throwScript(
        m_engine->currentContext(), QStringLiteral("text"), QScriptContext::TypeError);
    QVERIFY(result.isError());
    QCOMPARE(result.toString(), QStringLiteral("TypeError: text"));
}

void TestStaticEnums::throwScriptWithoutContextReturnsFalse()
{
    const QScriptValue result =
        FuncWrapper::throwScript(nullptr, QStringLiteral("text"), QScriptContext::TypeError);
    QVERIFY(result.isBool());
    QVERIFY(!result.toBool());
}

QTEST_GUILESS_MAIN(TestStaticEnums)

#include "test_static_enums.moc"
