/// @file
/// What the thread tests share: a script with connection objects of the plugin, and the script's
/// own record of what was delivered to it.
#pragma once

#include "message_log.h"
#include "plugin_sql.h"
#include "recording_driver.h"
#include "script_host.h"
#include "vext_sql.h"
#include "vext_sql_thread.h"

#include <QRandomGenerator>
#include <QString>
#include <QStringList>

/// A script host with the plugin installed. Engine's thread.
///
/// The script has, besides VEXT_SQL:
/// - `delivered`, the tags of the deliveries in order, and `outcomes`, by tag, with the members
///   `result`, `error`, `age` and `count`;
/// - `deliver(tag)`, a callback that enters its call there;
/// - `destroy(object)`, which deletes a host object on the spot;
/// - `handleEvents()`, which handles all events that wait, deferred deletions included.
class ThreadFixture
{
public:
    explicit ThreadFixture(const QString &driverName = QStringLiteral("STUB"),
                           const ScriptHostOptions &options = ScriptHostOptions());

    /// Makes the script global @p name, a connection object, and opens it.
    /// @return the object, which belongs to the engine.
    VEXT_SQL *connection(const QString &name = QStringLiteral("db"),
                         const QString &database = QStringLiteral("base"));
    /// As connection(), but leaves it closed.
    VEXT_SQL *closedConnection(const QString &name = QStringLiteral("db"),
                               const QString &database = QStringLiteral("base"));

    QScriptValue eval(const QString &code, const char *callerFile = __builtin_FILE(),
                      int callerLine = __builtin_LINE());

    /// Queues one statement on the global `db` with deliver(@p tag); @return what the call
    /// returned.
    bool queue(const QString &sql, const QString &tag = QString());
    /// As queue(), for a list of statements.
    bool queueList(const QStringList &list, const QString &tag);

    QStringList delivered();
    /// Waits until so many callbacks were called.
    bool waitDelivered(int count, int ms = defaultWaitMs);
    /// Text of a script expression, lists and objects as JSON.
    QString json(const QString &expression);

    ScriptHost host;

private:
    VextPlugin m_plugin; // stateless; leads to the library's object
    const QString m_driverName;
};

/// Waits until the connection's thread is over.
bool waitStopped(const VEXT_SQL *connection, int ms = defaultWaitMs);

/// The text as a script string literal.
QString quoted(const QString &text);

/// Name of the worker's second connection.
QString threadConnectionName(const VEXT_SQL *connection);

namespace Stress
{

/// A number of rounds, fewer where a sanitizer slows everything down.
int rounds(int normal);
/// The seed of this run: the environment variable VEXT_TEST_SEED, or a new one. Printed once.
quint32 seed();
/// Whether memory can be compared: a sanitizer has an allocator of its own.
bool ownAllocator();

} // namespace Stress
