#include "vext_sql_call.h"

#include "script_guard.h"
#include "script_variant.h"

#include <QCoreApplication>
#include <QScriptValueIterator>

#include <memory>

namespace
{

constexpr int MinArguments = 1;
constexpr int MaxArguments = 5;

/// Fixed source lines of the critical log lines.
struct LogLines {
    int argumentCount;
    int statementType;
    int argumentsType; ///< exec_thread only
    int callback;
};
constexpr LogLines QueryLines = {230, 247, 0, 312};
constexpr LogLines ExecLines = {360, 377, 407, 455};

QString callForms(SqlCall::Function function)
{
    if (function == SqlCall::Function::Query)
        return QStringLiteral("db.query_thread(sql)  or  db.query_thread(func, sql)  or  "
                              "db.query_thread(ctx, func, sql)");
    return QStringLiteral("db.exec_thread(sql, arg[])  or  db.exec_thread(func, sql, arg[])  or  "
                          "db.exec_thread(ctx, func, sql, arg[], args[])");
}

QLatin1String trueFalse(bool value)
{
    return value ? QLatin1String("true") : QLatin1String("false");
}

/// Whether the name of a property reads as a decimal integer; indexes go up to 4294967294.
bool isNumber(const QString &name)
{
    bool ok = false;
    name.toLongLong(&ok, 10);
    return ok;
}

enum class OtherNames { Skip, EndTheWalk };

QScriptValueList numbered(const QScriptValue &array, QScriptEngine *engine, OtherNames otherNames)
{
    QScriptValueList values;
    const ThrowWatch watch(engine);
    QScriptValueIterator property(array);
    while (property.hasNext()) {
        property.next();
        if (!isNumber(property.name())) {
            if (otherNames == OtherNames::EndTheWalk)
                break;
            continue;
        }
        const QScriptValue value = property.value();
        if (watch.threw())
            break;
        // A name without a readable value: the engine lists getters at indexes and ignores them.
        values.append(value.isValid() ? value : engine->undefinedValue());
    }
    return values;
}

/// Type id that toVariant would give the value, told without converting what is inside.
int variantType(const QScriptValue &value)
{
    if (ScriptVariant::isLeaf(value))
        return value.toVariant().userType();
    return value.isArray() ? QMetaType::QVariantList : QMetaType::QVariantMap;
}

/// The arguments of one call on their way into a task.
class ArgumentSorter
{
public:
    ArgumentSorter(SqlCall::Function function, QScriptContext *context, QScriptEngine *engine,
                   SqlCall::Refusal &refusal)
        : m_function(function)
        , m_lines(function == SqlCall::Function::Query ? QueryLines : ExecLines)
        , m_context(context)
        , m_engine(engine)
        , m_watch(engine)
        , m_refusal(refusal)
    {
    }

    /// False when the call is refused.
    bool sort();
    structThrSql *makeTask();

private:
    bool isExec() const { return m_function == SqlCall::Function::Exec; }

    bool checkCount();
    bool takeArguments();
    bool takeArgument(int &i);
    bool takeStatements(const QScriptValue &array);
    bool takeStatementsWithArguments(const QScriptValue &array, const QScriptValue &arguments);
    bool checkArgumentLists();
    bool takeArray(const QScriptValue &array);
    void lookForStatement();
    bool checkCallback();
    bool convertArguments();
    bool convertArgument(const QScriptValue &argument);

    bool refuse(const QString &text);
    bool refuseType(const QString &text, int logLine, int type);
    bool stopForException();
    QString statementsText(const QString &reason, const QString &exampleOfArguments) const;

    const SqlCall::Function m_function;
    const LogLines m_lines;
    QScriptContext *const m_context;
    QScriptEngine *const m_engine;
    const ThrowWatch m_watch;
    SqlCall::Refusal &m_refusal;

    QStringList m_statements;
    QScriptValue m_callback;
    QScriptValue m_callbackThis;
    QScriptValueList m_extra;     ///< follow the callback's own arguments
    QScriptValueList m_arguments; ///< exec_thread: values of one statement, or a list a statement
    QVariantList m_converted;     ///< m_arguments as variants
};

bool ArgumentSorter::sort()
{
    if (!checkCount() || !takeArguments())
        return false;
    lookForStatement();
    return checkCallback() && convertArguments();
}

bool ArgumentSorter::checkCount()
{
    const int count = m_context->argumentCount();
    if (count >= MinArguments && count <= MaxArguments)
        return true;
    m_refusal.logLine = m_lines.argumentCount;
    m_refusal.logText = QStringLiteral("aCount %1").arg(count);
    return refuse(SqlCall::usageText(m_function));
}

bool ArgumentSorter::takeArguments()
{
    for (int i = 0; i < m_context->argumentCount(); ++i) {
        if (!takeArgument(i))
            return false;
    }
    return true;
}

/// Gives the argument to the first taker. `i` moves on where the one behind it is taken as well.
bool ArgumentSorter::takeArgument(int &i)
{
    const QScriptValue argument = m_context->argument(i);
    if (m_statements.isEmpty() && argument.isString()) {
        m_statements.append(argument.toString());
        return true;
    }
    if (m_statements.isEmpty() && argument.isArray()) {
        if (!isExec())
            return takeStatements(argument);
        return takeStatementsWithArguments(argument, m_context->argument(++i));
    }
    if (!m_callback.isFunction() && argument.isFunction())
        m_callback = argument;
    else if (!m_callbackThis.isObject() && argument.isObject() && !argument.isArray())
        m_callbackThis = argument;
    else if (argument.isArray())
        return takeArray(argument);
    return true;
}

/// Asks for one element after the other, so that a sparse array ends at its first gap.
bool ArgumentSorter::takeStatements(const QScriptValue &array)
{
    const quint32 length = array.property(QStringLiteral("length")).toUInt32();
    for (quint32 i = 0; i < length; ++i) {
        const QScriptValue element = array.property(i);
        if (m_watch.threw())
            return stopForException();
        const int type = element.isString() ? int(QMetaType::QString) : variantType(element);
        if (type != QMetaType::QString)
            return refuseType(SqlCall::usageText(m_function), m_lines.statementType, type);
        m_statements.append(element.toVariant().toString());
    }
    return true;
}

bool ArgumentSorter::takeStatementsWithArguments(const QScriptValue &array,
                                                 const QScriptValue &arguments)
{
    if (!takeStatements(array))
        return false;
    if (!arguments.isArray())
        return refuse(SqlCall::usageText(m_function));
    m_arguments = SqlCall::numberedValues(arguments, m_engine);
    if (m_watch.threw())
        return stopForException();
    if (m_arguments.size() != m_statements.size())
        return refuse(statementsText(
            QCoreApplication::translate(
                "VEXT_SQL", "количество аргументов не соответствует количеству запросов"),
            QStringLiteral("[[arg1], ...]")));
    return checkArgumentLists();
}

bool ArgumentSorter::checkArgumentLists()
{
    for (const QScriptValue &argument : qAsConst(m_arguments)) {
        if (!convertArgument(argument))
            return false;
        const QVariant &list = qAsConst(m_converted).last();
        if (list.userType() == QMetaType::QVariantList && !list.toList().isEmpty())
            continue;
        return refuseType(
            statementsText(QCoreApplication::translate(
                               "VEXT_SQL", "каждому запросу необходим массив аргументов"),
                           QStringLiteral("[[arg1, ...], ...]")),
            m_lines.argumentsType, list.userType());
    }
    return true;
}

bool ArgumentSorter::takeArray(const QScriptValue &array)
{
    if (isExec() && m_statements.size() == 1 && m_arguments.isEmpty())
        m_arguments = SqlCall::numberedValues(array, m_engine);
    else if (m_extra.isEmpty())
        m_extra = numbered(array, m_engine, isExec() ? OtherNames::Skip : OtherNames::EndTheWalk);
    return m_watch.threw() ? stopForException() : true;
}

/// Finds nothing that the sorting missed; kept as a safeguard.
void ArgumentSorter::lookForStatement()
{
    for (int i = 0; m_statements.isEmpty() && i < m_context->argumentCount(); ++i) {
        if (m_context->argument(i).isString())
            m_statements.append(m_context->argument(i).toString());
    }
}

bool ArgumentSorter::checkCallback()
{
    if (m_context->argumentCount() == 1 || !m_callbackThis.isObject() || m_callback.isFunction())
        return true;
    m_refusal.logLine = m_lines.callback;
    m_refusal.logText =
        QStringLiteral("funcs and context validate: obj.isObject() %1 "
                       ": fnc.isObject() %2 : fnc.isFunction() %3")
            .arg(trueFalse(m_callbackThis.isObject()), trueFalse(m_callback.isObject()),
                 trueFalse(m_callback.isFunction()));
    return refuse(SqlCall::usageText(m_function));
}

bool ArgumentSorter::convertArguments()
{
    // The lists of several statements were converted when they were checked.
    for (int i = m_converted.size(); i < m_arguments.size(); ++i) {
        if (!convertArgument(m_arguments.at(i)))
            return false;
    }
    return true;
}

/// Once a value: a getter must not give the check and the worker different ones.
bool ArgumentSorter::convertArgument(const QScriptValue &argument)
{
    QVariant variant;
    if (ScriptVariant::convert(argument, m_engine, variant)) {
        m_converted.append(variant);
        return true;
    }
    if (m_watch.threw())
        return stopForException();
    return refuse(SqlCall::tooLargeText());
}

/// `result` and `error` of several statements are made at completion, where no script can tell the
/// difference: thousands of queued tasks would hold an array and its objects each.
structThrSql *ArgumentSorter::makeTask()
{
    auto task = std::make_unique<structThrSql>();
    task->thisObject = m_callbackThis;
    task->func = m_callback;
    task->callArgs = m_extra;
    task->sqlList = m_statements;
    task->isProc = isExec();
    if (!isExec())
        return task.release();
    task->argsJs = m_arguments;
    if (m_statements.size() == 1) {
        task->procArgs.append(m_converted);
    } else {
        for (const QVariant &list : qAsConst(m_converted))
            task->procArgs.append(list.toList());
    }
    return task.release();
}

bool ArgumentSorter::refuse(const QString &text)
{
    m_refusal.text = text;
    return false;
}

bool ArgumentSorter::refuseType(const QString &text, int logLine, int type)
{
    m_refusal.logLine = logLine;
    m_refusal.logText = QStringLiteral("type %1 %2")
                            .arg(type)
                            .arg(QLatin1String(QMetaType::typeName(type)))
                            .trimmed(); // no value at all has no type name
    return refuse(text);
}

bool ArgumentSorter::stopForException()
{
    m_refusal.scriptException = true;
    return false;
}

/// A text that shows the script its own statements in the call form with lists.
QString ArgumentSorter::statementsText(const QString &reason,
                                       const QString &exampleOfArguments) const
{
    return reason + QLatin1String(": db.exec_thread(['") + m_statements.join(QLatin1String("','")) +
           QLatin1String("'], ") + exampleOfArguments + QLatin1Char(')');
}

} // namespace

QString SqlCall::usageText(Function function)
{
    return QCoreApplication::translate("VEXT_SQL", "использовать как %1").arg(callForms(function));
}

QString SqlCall::tooLargeText()
{
    return QCoreApplication::translate("VEXT_SQL", "слишком большой аргумент");
}

structThrSql *SqlCall::makeTask(Function function, QScriptContext *context, QScriptEngine *engine,
                                Refusal &refusal)
{
    refusal = Refusal();
    ArgumentSorter sorter(function, context, engine, refusal);
    return sorter.sort() ? sorter.makeTask() : nullptr;
}

QScriptValueList SqlCall::numberedValues(const QScriptValue &array, QScriptEngine *engine)
{
    return numbered(array, engine, OtherNames::Skip);
}
