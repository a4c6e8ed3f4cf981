/// @file
/// Capture of Qt's message log.
#pragma once

#include "deadline.h"

#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <QVector>

#include <mutex>

/// One line of the message log.
struct LogLine {
    QtMsgType severity = QtDebugMsg;
    QString category;
    QString text;
    bool mainThread = false; ///< written by the thread that runs the test
};

/// Records everything that is written to Qt's message log while it lives, and by default hands each
/// line on to the handler that was there before, so that the test's output keeps it.
/// Logs may be nested; each records, and the line is handed on once if every one of them wants so.
/// Created and destroyed in the test's thread; lines may come from any thread.
class MessageLog
{
public:
    enum class Forward { Yes, No };

    explicit MessageLog(Forward forward = Forward::Yes);
    /// Restores the former handler when it is the last one.
    ~MessageLog();
    MessageLog(const MessageLog &) = delete;
    MessageLog &operator=(const MessageLog &) = delete;

    QVector<LogLine> lines() const;
    QVector<LogLine> lines(QtMsgType severity) const;
    /// The texts of all lines that @p pattern matches somewhere.
    QStringList matching(const QRegularExpression &pattern) const;
    QStringList matching(const QString &pattern) const;
    QStringList matching(QtMsgType severity, const QString &pattern) const;
    bool contains(const QString &pattern) const { return !matching(pattern).isEmpty(); }

    /// The lines in which Qt complains about misuse: a database connection that is still in use or
    /// belongs to another thread, a thread destroyed while it runs, a failed connect, a mutex
    /// destroyed while locked, a query on a closed database and the like. Those a test provokes on
    /// purpose are left out by @p except.
    QStringList qtComplaints(const QString &except = QString()) const;

    /// Runs events until a line matches.
    bool waitFor(const QString &pattern, int ms = defaultWaitMs) const;

    void clear();

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text);

    const Forward m_forward;
    mutable std::mutex m_mutex;
    QVector<LogLine> m_lines; // guarded by m_mutex
};

/// Fails the test when Qt complained about misuse. For test functions and cleanup().
#define VERIFY_NO_QT_COMPLAINTS(log)                                                               \
    do {                                                                                           \
        const QStringList complaints_ = (log).qtComplaints();                                      \
        QVERIFY2(complaints_.isEmpty(), qPrintable(complaints_.join(QLatin1Char('\n'))));          \
    } while (false)
