// Generated argument lists at both functions, against a plain statement of the sorting rules.
//
// VEXT_SEED repeats a run, VEXT_PROPERTY_LISTS sets how many lists are tried.
#include "vext_sql_call.h"

#include <QScriptValueIterator>
#include <QtTest>

#include <cmath>
#include <malloc.h>
#include <random>

namespace
{

bool underSanitizer()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return false;
#endif
}

size_t usedMemory()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

/// What the rules say about one call.
struct Outcome {
    bool exception = false;
    QString text; ///< of the refusal; empty when a task is made
    int line = 0;
    QString log;
    QStringList statements;
    QScriptValue callback;
    QScriptValue callbackThis;
    QScriptValueList extra;
    QScriptValueList arguments;
    QList<QVariantList> bound;
};

// ---- values ------------------------------------------------------------------------------------

/// Makes script values of every kind, the hostile ones too.
class Generator
{
public:
    Generator(QScriptEngine *engine, uint seed);

    int below(int limit) { return int(m_random() % uint(limit)); }
    bool oneIn(int n) { return below(n) == 0; }
    QScriptValueList argumentList();
    void renewPool();
    /// Whether converting the value as a whole would never end.
    bool isEndless(const QScriptValue &value) const
    {
        return value.isObject() && m_endless.contains(value.objectId());
    }

private:
    QScriptValue any(int depth);
    QScriptValue pooled() { return m_pool.at(below(m_pool.size())); }
    QScriptValue text();
    QScriptValue array(int length, const std::function<QScriptValue()> &element);
    QScriptValue texts(int length);
    QScriptValue lists(int length);
    QScriptValue oddArray(int depth);
    QScriptValue object(int depth);
    QScriptValue endless();
    void markEndless(const QScriptValue &value);
    void put(QScriptValue holder, const QString &name, const QScriptValue &value);
    void addGetter(QScriptValue holder, const QString &name);
    QScriptValueList likelyList();

    QScriptEngine *m_engine;
    std::mt19937 m_random;
    QVector<QScriptValue> m_pool;
    QSet<qint64> m_endless;
    QScriptValueList m_kept; ///< endless values, so that their ids are not given to others
    /// Endless values or throwing getters, not both: an exception makes the engine turn the
    /// arguments of every running function into text, which never ends on an endless one.
    bool m_withEndless = false;
    QScriptValueList m_functions;
    QScriptValue m_getter;
    QScriptValue m_badGetter;
    QObject m_object;
};

Generator::Generator(QScriptEngine *engine, uint seed)
    : m_engine(engine)
    , m_random(seed)
{
    for (int i = 0; i < 3; ++i)
        m_functions << engine->evaluate(QStringLiteral("(function(a, b) { return %1 })").arg(i));
    m_getter = engine->evaluate(QStringLiteral("(function() { return 'got' })"));
    m_badGetter = engine->evaluate(QStringLiteral("(function() { throw new Error('getter') })"));
}

void Generator::renewPool()
{
    m_pool.clear();
    m_endless.clear();
    m_kept.clear();
    m_withEndless = oneIn(2);
    for (int i = 0; i < 300; ++i)
        m_pool.append(any(2));
}

QScriptValue Generator::text()
{
    static const QStringList texts{
        QString(),
        QStringLiteral("select 1"),
        QStringLiteral("insert into t values(?)"),
        QStringLiteral("Ж😀 %1 %2"),
        QStringLiteral("nul") + QChar(0) + QStringLiteral("inside"),
        QString(QChar(0)),
    };
    return texts.at(below(texts.size()));
}

QScriptValue Generator::array(int length, const std::function<QScriptValue()> &element)
{
    QScriptValue array = m_engine->newArray();
    for (int i = 0; i < length; ++i)
        put(array, QString::number(i), element());
    return array;
}

QScriptValue Generator::texts(int length)
{
    return array(length, [this] { return oneIn(30) ? any(1) : text(); });
}

QScriptValue Generator::lists(int length)
{
    return array(length, [this] {
        return oneIn(15) ? any(1) : array(oneIn(20) ? 0 : 1 + below(3), [this] { return any(0); });
    });
}

/// Gaps, names among the numbers, getters, arrays within themselves.
QScriptValue Generator::oddArray(int depth)
{
    QScriptValue odd = array(below(4), [this, depth] { return any(depth - 1); });
    static const QStringList names{QStringLiteral("-3"), QStringLiteral("007"),
                                   QStringLiteral("name"), QStringLiteral("1x"),
                                   QStringLiteral("1.5")};
    for (int i = below(3); i > 0; --i)
        put(odd, names.at(below(names.size())), any(0));
    if (oneIn(2))
        put(odd, QString::number(below(oneIn(20) ? 20000 : 50)), any(0));
    if (oneIn(3))
        addGetter(odd, oneIn(2) ? QStringLiteral("-5") : QStringLiteral("20"));
    if (oneIn(4))
        put(odd, QString::number(below(4)), odd);
    return odd;
}

QScriptValue Generator::object(int depth)
{
    QScriptValue object = m_engine->newObject();
    for (int i = below(3); i > 0; --i)
        put(object, QString(QLatin1Char(char('a' + i))), any(depth - 1));
    if (oneIn(3))
        addGetter(object, QStringLiteral("got"));
    if (oneIn(5))
        put(object, QStringLiteral("self"), object);
    return object;
}

void Generator::markEndless(const QScriptValue &value)
{
    m_endless.insert(value.objectId());
    m_kept.append(value);
}

/// Whoever holds an endless value is endless itself, so none is replaced later.
void Generator::put(QScriptValue holder, const QString &name, const QScriptValue &value)
{
    if (holder.property(name, QScriptValue::ResolveLocal).isValid())
        return;
    holder.setProperty(name, value);
    if (isEndless(value))
        markEndless(holder);
}

void Generator::addGetter(QScriptValue holder, const QString &name)
{
    const bool bad = !m_withEndless && oneIn(2);
    holder.setProperty(name, bad ? m_badGetter : m_getter, QScriptValue::PropertyGetter);
}

/// Ends for whoever looks at what exists, not for whoever counts to its length.
QScriptValue Generator::endless()
{
    QScriptValue value = m_engine->newArray();
    value.setProperty(4294967294u, text());
    if (oneIn(2))
        value.setProperty(0u, text());
    markEndless(value);
    for (int wraps = below(3); wraps > 0; --wraps) {
        QScriptValue outer = oneIn(2) ? m_engine->newArray() : m_engine->newObject();
        put(outer, QStringLiteral("0"), value);
        value = outer;
    }
    return value;
}

QScriptValue Generator::any(int depth)
{
    switch (below(depth > 0 ? 20 : 13)) {
    case 0:
    case 1:
        return text();
    case 2:
        return QScriptValue(m_engine, below(1000) - 500);
    case 3:
        return QScriptValue(m_engine, below(1000) / 8.0);
    case 4: {
        const double odd[] = {std::nan(""), HUGE_VAL, -HUGE_VAL, -0.0, 4294967295.0};
        return QScriptValue(m_engine, odd[below(5)]);
    }
    case 5:
        return QScriptValue(m_engine, oneIn(2));
    case 6:
        return m_engine->nullValue();
    case 7:
        return m_engine->undefinedValue();
    case 8:
        return oneIn(4) ? m_engine->newDate(std::nan("")) : m_engine->newDate(1e12 + below(1000));
    case 9:
        return m_engine->newRegExp(QRegExp(QStringLiteral("x+")));
    case 10:
        return m_engine->newQObject(&m_object);
    case 11: {
        static const QVariantList wrapped{QStringLiteral("wrapped"),
                                          QByteArray("\0b", 2),
                                          QVariantList{1, QStringLiteral("l")},
                                          QVariantList{},
                                          QStringList{QStringLiteral("s")},
                                          QVariant()};
        return m_engine->newVariant(wrapped.at(below(wrapped.size())));
    }
    case 12:
        return m_functions.at(below(m_functions.size()));
    case 13:
        return texts(below(4));
    case 14:
        return lists(below(4));
    case 15:
        return oddArray(depth);
    case 16:
        return object(depth);
    case 17:
        return m_engine->toObject(text());
    case 18:
        return m_withEndless ? endless() : oddArray(depth);
    default:
        return array(below(4), [this, depth] { return any(depth - 1); });
    }
}

/// A call that is nearly right, so that the later rules are reached often.
QScriptValueList Generator::likelyList()
{
    QScriptValueList list;
    if (oneIn(3)) {
        list << text() << (oneIn(2) ? array(below(4), [this] { return any(1); }) : pooled());
    } else {
        const int count = below(4);
        list << texts(count) << lists(oneIn(5) ? below(4) : count);
    }
    if (oneIn(2))
        list << array(below(3), [this] { return any(1); });
    if (oneIn(2))
        list.insert(oneIn(3) ? below(list.size() + 1) : 0, m_functions.at(below(3)));
    if (oneIn(3))
        list.insert(oneIn(3) ? below(list.size() + 1) : 0, object(1));
    return list;
}

QScriptValueList Generator::argumentList()
{
    if (oneIn(2))
        return likelyList();
    QScriptValueList list;
    for (int count = oneIn(50) ? below(9) : 1 + below(5); count > 0; --count)
        list << pooled();
    return list;
}

// ---- the rules, once more ----------------------------------------------------------------------

/// The sorting rules in the order in which they are told, without anything of the plugin's.
class Rules
{
public:
    Rules(QScriptContext *context, const Generator &generator, bool exec)
        : m_context(context)
        , m_engine(context->engine())
        , m_generator(generator)
        , m_exec(exec)
        , m_usage(exec ? QStringLiteral("использовать как db.exec_thread(sql, arg[])  or  "
                                        "db.exec_thread(func, sql, arg[])  or  "
                                        "db.exec_thread(ctx, func, sql, arg[], args[])")
                       : QStringLiteral("использовать как db.query_thread(sql)  or  "
                                        "db.query_thread(func, sql)  or  "
                                        "db.query_thread(ctx, func, sql)"))
    {
    }

    Outcome outcome()
    {
        apply();
        m_engine->clearExceptions();
        return m_out;
    }

private:
    void apply();
    bool statementList(const QScriptValue &array);
    bool listsOf(const QScriptValue &array);
    bool numbered(const QScriptValue &array, bool stopAtOtherNames, QScriptValueList &values);
    bool converted(const QScriptValue &value, QVariant &variant);
    bool refused(const QString &text, int line = 0, const QString &log = QString());
    bool refusedType(const QString &text, int line, const QVariant &value);
    bool threw();

    QScriptContext *m_context;
    QScriptEngine *m_engine;
    const Generator &m_generator;
    bool m_exec;
    QString m_usage;
    Outcome m_out;
    QVariantList m_lists;
};

void Rules::apply()
{
    const int count = m_context->argumentCount();
    if (count < 1 || count > 5) {
        refused(m_usage, m_exec ? 360 : 230, QStringLiteral("aCount ") + QString::number(count));
        return;
    }
    for (int i = 0; i < count; ++i) {
        const QScriptValue argument = m_context->argument(i);
        if (m_out.statements.isEmpty()) {
            if (argument.isArray()) {
                if (!statementList(argument))
                    return;
                if (m_exec) {
                    ++i;
                    if (!listsOf(m_context->argument(i)))
                        return;
                }
                continue;
            }
            if (argument.isString()) {
                m_out.statements << argument.toString();
                continue;
            }
        }
        if (!m_out.callback.isFunction() && argument.isFunction()) {
            m_out.callback = argument;
            continue;
        }
        if (!m_out.callbackThis.isObject() && argument.isObject() && !argument.isArray()) {
            m_out.callbackThis = argument;
            continue;
        }
        if (m_exec && argument.isArray() && m_out.statements.size() == 1 &&
            m_out.arguments.isEmpty()) {
            if (!numbered(argument, false, m_out.arguments))
                return;
            continue;
        }
        if (m_out.extra.isEmpty() && argument.isArray()) {
            if (!numbered(argument, !m_exec, m_out.extra))
                return;
        }
    }
    if (m_out.statements.isEmpty()) {
        for (int i = 0; i < count; ++i) {
            if (m_context->argument(i).isString()) {
                m_out.statements << m_context->argument(i).toString();
                break;
            }
        }
    }
    if (count != 1 && m_out.callbackThis.isObject()) {
        if (!m_out.callback.isObject() || !m_out.callback.isFunction()) {
            refused(m_usage, m_exec ? 455 : 312,
                    QStringLiteral("funcs and context validate: obj.isObject() true "
                                   ": fnc.isObject() false : fnc.isFunction() false"));
            return;
        }
    }
    if (!m_exec)
        return;
    if (m_out.statements.size() == 1) {
        QVariantList values;
        for (int i = 0; i < m_out.arguments.size(); ++i) {
            QVariant value;
            if (!converted(m_out.arguments.at(i), value))
                return;
            values << value;
        }
        m_out.bound << values;
    } else {
        for (int i = 0; i < m_lists.size(); ++i)
            m_out.bound << m_lists.at(i).toList();
    }
}

bool Rules::statementList(const QScriptValue &array)
{
    const quint32 length = array.property(QStringLiteral("length")).toUInt32();
    for (quint32 i = 0; i < length; ++i) {
        const QScriptValue element = array.property(i);
        const QVariant value =
            m_generator.isEndless(element)
                ? (element.isArray() ? QVariant(QVariantList()) : QVariant(QVariantMap()))
                : element.toVariant();
        if (value.type() != QVariant::String)
            return refusedType(m_usage, m_exec ? 377 : 247, value);
        m_out.statements << value.toString();
    }
    return true;
}

bool Rules::listsOf(const QScriptValue &array)
{
    if (!array.isArray())
        return refused(m_usage);
    QScriptValueList found;
    if (!numbered(array, false, found))
        return false;
    const QString shown = QStringLiteral(": db.exec_thread(['") +
                          m_out.statements.join(QStringLiteral("','")) + QStringLiteral("'], ");
    if (found.size() != m_out.statements.size())
        return refused(
            QStringLiteral("количество аргументов не соответствует количеству запросов") + shown +
            QStringLiteral("[[arg1], ...])"));
    for (int i = 0; i < found.size(); ++i) {
        QVariant list;
        if (!converted(found.at(i), list))
            return false;
        if (list.userType() != 9 || list.toList().isEmpty())
            return refusedType(QStringLiteral("каждому запросу необходим массив аргументов") +
                                   shown + QStringLiteral("[[arg1, ...], ...])"),
                               407, list);
        m_lists << list;
    }
    m_out.arguments = found;
    return true;
}

bool Rules::numbered(const QScriptValue &array, bool stopAtOtherNames, QScriptValueList &values)
{
    static const QRegularExpression integer(QStringLiteral("^-?[0-9]+$"));
    QScriptValueIterator it(array);
    while (it.hasNext()) {
        it.next();
        if (integer.match(it.name()).hasMatch()) {
            const QScriptValue value = it.value();
            if (m_engine->hasUncaughtException())
                return threw();
            values << value;
        } else if (stopAtOtherNames) {
            break;
        }
    }
    return true;
}

bool Rules::converted(const QScriptValue &value, QVariant &variant)
{
    if (m_generator.isEndless(value))
        return refused(QStringLiteral("слишком большой аргумент"));
    variant = value.toVariant();
    return m_engine->hasUncaughtException() ? threw() : true;
}

bool Rules::refused(const QString &text, int line, const QString &log)
{
    m_out.text = text;
    m_out.line = line;
    m_out.log = log;
    return false;
}

bool Rules::refusedType(const QString &text, int line, const QVariant &value)
{
    QString log = QStringLiteral("type ") + QString::number(value.userType());
    if (value.isValid())
        log += QLatin1Char(' ') + QString::fromLatin1(value.typeName());
    return refused(text, line, log);
}

bool Rules::threw()
{
    m_out.exception = true;
    return false;
}

// ---- comparison --------------------------------------------------------------------------------

bool same(const QScriptValue &a, const QScriptValue &b)
{
    if (!a.isValid() || !b.isValid())
        return (!a.isValid() || a.isUndefined()) && (!b.isValid() || b.isUndefined());
    if (a.isNumber() && b.isNumber() && std::isnan(a.toNumber()))
        return std::isnan(b.toNumber());
    return a.strictlyEquals(b);
}

bool same(const QScriptValueList &a, const QScriptValueList &b)
{
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](const QScriptValue &x, const QScriptValue &y) { return same(x, y); });
}

bool same(const QVariant &a, const QVariant &b)
{
    if (a.userType() != b.userType() || a.isNull() != b.isNull())
        return false;
    if (a.userType() == QMetaType::Double && std::isnan(a.toDouble()))
        return std::isnan(b.toDouble());
    if (a.userType() == QMetaType::QVariantList) {
        const QVariantList x = a.toList();
        const QVariantList y = b.toList();
        return x.size() == y.size() &&
               std::equal(x.begin(), x.end(), y.begin(),
                          [](const QVariant &m, const QVariant &n) { return same(m, n); });
    }
    if (a.userType() == QMetaType::QVariantMap) {
        const QVariantMap x = a.toMap();
        const QVariantMap y = b.toMap();
        return x.keys() == y.keys() &&
               std::equal(x.begin(), x.end(), y.begin(),
                          [](const QVariant &m, const QVariant &n) { return same(m, n); });
    }
    return a == b;
}

/// Empty when the task or the refusal is what the rules say.
QString difference(const structThrSql *task, const SqlCall::Refusal &refusal, const Outcome &rules,
                   bool exec)
{
    if (rules.exception != refusal.scriptException)
        return QStringLiteral("exception: rules %1").arg(rules.exception);
    if (rules.text != refusal.text)
        return QStringLiteral("text '%1', rules '%2'").arg(refusal.text, rules.text);
    if (rules.line != refusal.logLine || rules.log != refusal.logText)
        return QStringLiteral("log %1 '%2', rules %3 '%4'")
            .arg(QString::number(refusal.logLine), refusal.logText, QString::number(rules.line),
                 rules.log);
    const bool refused = rules.exception || !rules.text.isEmpty();
    if (refused != !task)
        return QStringLiteral("a task: rules %1").arg(!refused);
    if (refused)
        return QString();
    if (task->isProc != exec)
        return QStringLiteral("isProc");
    if (task->sqlList != rules.statements)
        return QStringLiteral("sqlList");
    // A value that none was passed for is invalid, not undefined.
    if (task->func.isValid() != rules.callback.isValid() || !same(task->func, rules.callback))
        return QStringLiteral("func");
    if (task->thisObject.isValid() != rules.callbackThis.isValid() ||
        !same(task->thisObject, rules.callbackThis))
        return QStringLiteral("thisObject");
    if (!same(task->callArgs, rules.extra))
        return QStringLiteral("callArgs");
    if (!same(task->argsJs, rules.arguments))
        return QStringLiteral("argsJs");
    const auto asVariants = [](const QList<QVariantList> &lists) {
        QVariantList variants;
        for (const QVariantList &list : lists)
            variants.append(QVariant(list));
        return QVariant(variants);
    };
    return same(asVariants(task->procArgs), asVariants(rules.bound)) ? QString()
                                                                     : QStringLiteral("procArgs");
}

/// One call of the native function: both answers, and whether they agree.
struct Trial {
    Generator *generator = nullptr;
    bool exec = false;
    QString wrong;
    int tasks = 0;
    int exceptions = 0;
    QMap<QString, int> refusals; ///< by log line and first word
};

QScriptValue answer(QScriptContext *context, QScriptEngine *engine, void *data)
{
    auto *trial = static_cast<Trial *>(data);
    SqlCall::Refusal refusal;
    const auto function = trial->exec ? SqlCall::Function::Exec : SqlCall::Function::Query;
    const std::unique_ptr<structThrSql> task(SqlCall::makeTask(function, context, engine, refusal));
    const bool pending = engine->hasUncaughtException();
    engine->clearExceptions();
    const Outcome rules = Rules(context, *trial->generator, trial->exec).outcome();
    trial->wrong = difference(task.get(), refusal, rules, trial->exec);
    if (trial->wrong.isEmpty() && pending != refusal.scriptException)
        trial->wrong = QStringLiteral("the getter's exception was not left to the script");
    if (task)
        ++trial->tasks;
    else if (refusal.scriptException)
        ++trial->exceptions;
    else
        ++trial->refusals[QStringLiteral("%1 %2")
                              .arg(refusal.logLine)
                              .arg(refusal.text.section(QLatin1Char(' '), 0, 0))];
    return task != nullptr;
}

int listCount()
{
    if (qEnvironmentVariableIsSet("VEXT_PROPERTY_LISTS"))
        return qEnvironmentVariableIntValue("VEXT_PROPERTY_LISTS");
    return underSanitizer() ? 100000 : 500000;
}

} // namespace

class TestSqlCallProperty : public QObject
{
    Q_OBJECT

private slots:
    void sortsEveryArgumentListByTheRules();
};

void TestSqlCallProperty::sortsEveryArgumentListByTheRules()
{
    const uint seed = qEnvironmentVariableIsSet("VEXT_SEED") ? uint(qgetenv("VEXT_SEED").toUInt())
                                                             : std::random_device()();
    const int lists = listCount();
    qInfo("seed %u (VEXT_SEED repeats it), %d lists", seed, lists);
    QScriptEngine engine;
    Generator generator(&engine, seed);
    Trial trial;
    trial.generator = &generator;
    QScriptValue function = engine.newFunction(answer, &trial);
    size_t memoryEarly = 0;

    for (int i = 0; i < lists; ++i) {
        if (i % 500 == 0)
            generator.renewPool();
        if (i == lists / 4) {
            engine.collectGarbage();
            memoryEarly = usedMemory();
        }
        const QScriptValueList arguments = generator.argumentList();
        trial.exec = i % 2 == 1;
        function.call(QScriptValue(), arguments);
        QVERIFY2(trial.wrong.isEmpty(),
                 qPrintable(QStringLiteral("seed %1, list %2: %3")
                                .arg(QString::number(seed), QString::number(i), trial.wrong)));
    }

    engine.collectGarbage();
    const qint64 growth = qint64(usedMemory()) - qint64(memoryEarly);
    qInfo() << trial.tasks << "tasks," << trial.exceptions << "exceptions, refusals"
            << trial.refusals << "memory" << growth;
    // Every rule was reached often; else the lists prove little.
    QVERIFY(trial.tasks > lists / 10);
    QVERIFY(trial.exceptions > lists / 2000);
    QCOMPARE(trial.refusals.size(), 10);
    for (int count : qAsConst(trial.refusals))
        QVERIFY(count > lists / 5000);
    QVERIFY2(growth < 8 * 1024 * 1024, "memory is not given back");
}

QTEST_GUILESS_MAIN(TestSqlCallProperty)
#include "test_sql_call_property.moc"
