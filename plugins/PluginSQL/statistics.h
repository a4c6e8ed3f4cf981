/// @file
/// What the statistics of a connection show, and how threads of other engines come to know it.
#pragma once

#include <QAtomicInt>
#include <QMutex>
#include <QString>
#include <QStringList>

#include <atomic>

class QObject;
class QScriptEngine;
class QScriptValue;

/// What one statistics object shows, taken under the locks before any script value is made.
struct Statistics {
    QString postName;
    QString connectionName;
    QString ownerName;
    QString driver;
    QString database;
    QString user;
    QString host;
    QStringList events;
    QStringList eventPlaces; ///< one for each of the events
    bool isOpen = false;
    bool isRunning = false;
    int opens = 0;
    int opened = 0;
    int closed = 0;
    int statements = 0; ///< that worked
    int failures = 0;
    double queue = 0;
    double finished = 0;
    double idleMs = 0;
    double currentMs = 0;

    /// The object that scripts read. In the thread of the engine.
    /// @param ofProcess whether it stands among those of the whole process, with more members.
    QScriptValue toScript(QScriptEngine *engine, bool ofProcess) const;
};

/// What a connection has done so far. Counted and read by any thread.
class ConnectionCounts
{
public:
    QAtomicInt cnt_open;   ///< attempts
    QAtomicInt cnt_opened; ///< successful ones
    QAtomicInt cnt_closed;
    QAtomicInt cnt_sql_ok; ///< statements that worked, in both threads
    QAtomicInt cnt_sql_er; ///< statements that failed, in both threads
};

/// Names that the engine's thread changes as it likes, for statistics of other engines' threads.
class ShownNames
{
public:
    struct Texts {
        QString owner;
        QString post;
        QString connection;
    };

    /// Follows the names of two objects, for as long as `context` lives, whose member this is.
    /// Engine's thread. @param post may be null.
    void follow(const QObject *context, const QObject *owner, const QObject *post);
    /// Engine's thread.
    void setConnection(const QString &name) { set(&Texts::connection, name); }
    /// Any thread.
    Texts texts() const;

    std::atomic<bool> isOpen{false}; ///< the main connection; written in the engine's thread

private:
    void set(QString Texts::*text, const QString &name);

    mutable QMutex m_mutex;
    Texts m_texts; ///< m_mutex
};
