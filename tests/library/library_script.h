/// @file
/// The script library in an engine with the plugin, as a host that has timers gives it to scripts.
#pragma once

#include "database_script.h"

// By its path: host/engine has a script_host.h, too.
#include "../../host/engine/timers.h"

#include <QString>

#include <memory>
#include <vector>

/// One engine with the plugin, timers and the library. In the test's thread.
///
/// Script globals besides those of DatabaseScript: `vext`; `done(value)`, which ends what outcome()
/// waits for; `told(error)`, an error as "kind code", "none" without one; `open(parameters)`, a
/// connection object that is open; `must(db, sql)`, a statement that has to succeed here and now;
/// `watchTimers()`, after which `longest` is the longest time in milliseconds that the library has
/// asked a timer for.
class LibraryScript : public DatabaseScript
{
public:
    enum class Host { WithTimers, WithoutTimers };
    explicit LibraryScript(Host host = Host::WithTimers);
    ~LibraryScript();

    /// Runs code and waits until it calls done(). @return the value as JSON, a text that tells so
    /// when the call did not come in time
    QString outcome(const QString &code, int ms = 60000, const char *file = __builtin_FILE(),
                    int line = __builtin_LINE());
    /// Waits for done() after code that was run before.
    QString awaitOutcome(int ms = 60000);

private:
    std::unique_ptr<Timers> m_timers;
};

/// An object literal with the connection's parameters.
QString literalOf(const ConnectionParameters &parameters);

/// The database systems that the library is tested on, as far as this machine has them. Each is
/// started when a test needs it. In the test's thread.
class LibraryDatabases
{
public:
    LibraryDatabases();
    ~LibraryDatabases();

    /// Which of them: those that the library has forms of its own for, or all that it works on.
    enum class Systems { Known, All };
    /// A data row for each, with the columns "parameters" (an object literal) and "skip" (why not).
    void addRows(Systems systems = Systems::Known);
    /// The started one of this name, null when it is not there.
    TestDatabase *find(const QString &name);

private:
    struct Entry {
        std::unique_ptr<TestDatabase> database;
        QString reason; ///< why it cannot be used
        bool asked = false;
        int behind = -1; ///< the entry that has to run before it
    };
    /// Whether it runs; started when it is needed first. One that does not start fails the test.
    bool isReady(Entry &entry);

    std::vector<Entry> m_entries;
};

/// The parameters of the row's system, see LibraryDatabases::addRows(), in `parameters`; skips the
/// row where the system is missing.
#define FETCH_PARAMETERS()                                                                         \
    QFETCH(QString, parameters);                                                                   \
    QFETCH(QString, skip);                                                                         \
    if (!skip.isEmpty())                                                                           \
    QSKIP(qPrintable(skip))

/// Starts @p system of the test class's `m_databases`, and puts what it is opened with, as a
/// script's literal, into @p parameters; skips the test where it is missing.
#define NEEDS(system, parameters)                                                                  \
    TestDatabase *database = m_databases.find(QStringLiteral(system));                             \
    if (!database)                                                                                 \
        QSKIP("not installed: " system);                                                           \
    const QString parameters = literalOf(database->parameters())
