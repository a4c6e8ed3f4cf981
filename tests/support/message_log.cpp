#include "message_log.h"

#include <QCoreApplication>
#include <QThread>

namespace
{

std::mutex stackMutex;
QVector<MessageLog *> stack;              // guarded by stackMutex
QtMessageHandler formerHandler = nullptr; // guarded by stackMutex

bool inMainThread()
{
    return QCoreApplication::instance() &&
           QCoreApplication::instance()->thread() == QThread::currentThread();
}

const QRegularExpression &complaintPattern()
{
    static const QRegularExpression pattern(QStringLiteral(
        "still in use|does not belong to the calling thread|duplicate connection name"
        "|QObject::|QObject: |QMetaObject::|QSqlDatabasePrivate::|QSqlDatabase: |QSqlQuery::"
        "|QSqlResult::|QSqlError|QThread: |QThread::|QMutex|QWaitCondition|QSocketNotifier"
        "|QTimer|QBasicTimer|QCoreApplication::|QEventLoop|QScriptEngine|QScriptValue::"
        "|QMetaType::|QVariant::|QString::arg|ASSERT|invalid nullptr parameter"));
    return pattern;
}

} // namespace

MessageLog::MessageLog(Forward forward)
    : m_forward(forward)
{
    std::lock_guard<std::mutex> lock(stackMutex);
    if (stack.isEmpty())
        formerHandler = qInstallMessageHandler(&MessageLog::handle);
    stack.append(this);
}

MessageLog::~MessageLog()
{
    std::lock_guard<std::mutex> lock(stackMutex);
    stack.removeOne(this);
    if (stack.isEmpty()) {
        qInstallMessageHandler(formerHandler);
        formerHandler = nullptr;
    }
}

void MessageLog::handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    LogLine line;
    line.severity = type;
    line.category = QString::fromUtf8(context.category);
    line.text = text;
    line.mainThread = inMainThread();

    bool forward = true;
    QtMessageHandler next = nullptr;
    {
        std::lock_guard<std::mutex> lock(stackMutex);
        next = formerHandler;
        for (MessageLog *log : qAsConst(stack)) {
            forward = forward && log->m_forward == Forward::Yes;
            std::lock_guard<std::mutex> linesLock(log->m_mutex);
            log->m_lines.append(line);
        }
    }
    if (forward && next)
        next(type, context, text);
}

QVector<LogLine> MessageLog::lines() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

QVector<LogLine> MessageLog::lines(QtMsgType severity) const
{
    QVector<LogLine> found;
    const QVector<LogLine> all = lines();
    for (const LogLine &line : all) {
        if (line.severity == severity)
            found.append(line);
    }
    return found;
}

QStringList MessageLog::matching(const QRegularExpression &pattern) const
{
    QStringList found;
    const QVector<LogLine> all = lines();
    for (const LogLine &line : all) {
        if (pattern.match(line.text).hasMatch())
            found.append(line.text);
    }
    return found;
}

QStringList MessageLog::matching(const QString &pattern) const
{
    return matching(QRegularExpression(pattern));
}

QStringList MessageLog::matching(QtMsgType severity, const QString &pattern) const
{
    const QRegularExpression expression(pattern);
    QStringList found;
    const QVector<LogLine> some = lines(severity);
    for (const LogLine &line : some) {
        if (expression.match(line.text).hasMatch())
            found.append(line.text);
    }
    return found;
}

QStringList MessageLog::qtComplaints(const QString &except) const
{
    QStringList found;
    const QRegularExpression wanted(except);
    const QStringList warnings = matching(QtWarningMsg, complaintPattern().pattern());
    for (const QString &text : warnings) {
        if (except.isEmpty() || !wanted.match(text).hasMatch())
            found.append(text);
    }
    return found;
}

bool MessageLog::waitFor(const QString &pattern, int ms) const
{
    return waitUntil([&] { return contains(pattern); }, ms);
}

void MessageLog::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}
