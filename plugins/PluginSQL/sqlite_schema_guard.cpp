#include "sqlite_schema_guard.h"

#include "statement_rules.h"

#include <QByteArray>
#include <QHash>
#include <QMutex>
#include <QPointer>
#include <QSqlDriver>
#include <QVarLengthArray>
#include <QVariant>

#include <utility>

#ifdef Q_OS_UNIX
#include <dlfcn.h>
#endif

namespace
{

// Part of SQLite's stable interface.
constexpr int SqliteOk = 0;
constexpr int SqliteDeny = 1;
constexpr int ActionDelete = 9;
constexpr int ActionInsert = 18;
constexpr int ActionSelect = 21;
constexpr int ActionUpdate = 23;
constexpr int StatusVmStep = 4;

/// As many as a writer cannot win who does nothing but change the schema.
constexpr int MostAttempts = 200;

struct Handle;    // sqlite3
struct Statement; // sqlite3_stmt

using Authorizer = int (*)(void *, int, const char *, const char *, const char *, const char *);

/// The copy of SQLite that a driver runs on.
struct Library {
    int (*setAuthorizer)(Handle *, Authorizer, void *) = nullptr;
    Statement *(*nextStatement)(Handle *, Statement *) = nullptr;
    const char *(*text)(Statement *) = nullptr;
    int (*isBusy)(Statement *) = nullptr;
    int (*status)(Statement *, int, int) = nullptr;

    bool isComplete() const { return setAuthorizer && nextStatement && text && isBusy && status; }
};

#ifdef Q_OS_UNIX

template <typename Function>
void resolve(void *library, const char *name, Function &function)
{
    function = reinterpret_cast<Function>(dlsym(library, name));
}

/// Looked up in the library that holds the driver's code and in those that it needs. The library
/// stays loaded for good, so that the functions hold.
Library loadedBy(const QMetaObject *driverClass)
{
    Library found;
    Dl_info info;
    if (!dladdr(driverClass, &info) || !info.dli_fname)
        return found;
    void *library = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD);
    if (!library)
        return found;
    resolve(library, "sqlite3_set_authorizer", found.setAuthorizer);
    resolve(library, "sqlite3_next_stmt", found.nextStatement);
    resolve(library, "sqlite3_sql", found.text);
    resolve(library, "sqlite3_stmt_busy", found.isBusy);
    resolve(library, "sqlite3_stmt_status", found.status);
    return found;
}

#else

Library loadedBy(const QMetaObject *)
{
    return {};
}

#endif

/// What was found for each kind of driver.
struct Libraries {
    QMutex mutex;
    QHash<const QMetaObject *, Library> found; ///< mutex
};

Libraries &libraries()
{
    static Libraries instance;
    return instance;
}

Library libraryOf(const QSqlDriver *driver)
{
    Libraries &known = libraries();
    // A driver that decorates another one does not run on SQLite itself.
    const auto *stock = driver->property("stockDriver").value<QObject *>();
    const QMetaObject *driverClass = stock ? stock->metaObject() : driver->metaObject();
    QMutexLocker locker(&known.mutex);
    const auto library = known.found.constFind(driverClass);
    if (library != known.found.constEnd())
        return *library;
    return *known.found.insert(driverClass, loadedBy(driverClass));
}

Handle *handleOf(const QSqlDriver *driver)
{
    const QVariant handle = driver->handle();
    if (!handle.isValid() || qstrcmp(handle.typeName(), "sqlite3*") != 0)
        return nullptr;
    return *static_cast<Handle *const *>(handle.constData());
}

class Guard;

/// The authorizer of one connection, as a child of its driver.
class Watcher : public QObject
{
public:
    Watcher(QSqlDriver *driver, const Library &library, Handle *handle)
        : QObject(driver)
        , library(library)
        , handle(handle)
    {
        setObjectName(name());
        library.setAuthorizer(handle, &Watcher::authorize, this);
    }

    /// The one of a driver; null when it has none.
    static Watcher *of(const QSqlDriver *driver)
    {
        return static_cast<Watcher *>(
            driver->findChild<QObject *>(name(), Qt::FindDirectChildrenOnly));
    }

    const Library library;
    Handle *const handle;
    Guard *guard = nullptr; ///< of the statement that is run; null while nothing is guarded

private:
    static QString name() { return QStringLiteral("vext schema watcher"); }
    static int authorize(void *self, int action, const char *, const char *, const char *,
                         const char *);
};

/// Refuses, for its lifetime, that a statement is prepared again after it began to run.
class Guard
{
public:
    Guard(Watcher *watcher, const QString &sql)
        : m_watcher(watcher)
        , m_outer(watcher->guard)
        , m_text(untilPlaceholder(sql))
    {
        for (Statement *s = nullptr; (s = watcher->library.nextStatement(watcher->handle, s));)
            m_older.append(s);
        watcher->guard = this;
    }
    ~Guard()
    {
        if (m_watcher)
            m_watcher->guard = m_outer;
    }
    Q_DISABLE_COPY(Guard)

    /// Whether it refused anything since this was last asked.
    bool takeRefused() { return std::exchange(m_refused, false); }

    bool allows()
    {
        const Library &library = m_watcher->library;
        for (Statement *s = nullptr; (s = library.nextStatement(m_watcher->handle, s));) {
            if (isOurs(s) && !library.isBusy(s) && library.status(s, StatusVmStep, 0) > 0 &&
                !m_older.contains(s)) {
                m_refused = true;
                return false;
            }
        }
        return true;
    }

private:
    /// Qt writes placeholders anew.
    static QByteArray untilPlaceholder(const QString &sql)
    {
        int end = 0;
        while (end < sql.size() && sql.at(end) != QLatin1Char('?') &&
               sql.at(end) != QLatin1Char(':'))
            ++end;
        return sql.left(end).toUtf8();
    }

    /// SQLite keeps the text up to the end of the statement.
    bool isOurs(Statement *statement) const
    {
        const char *text = m_watcher->library.text(statement);
        return text &&
               qstrncmp(text, m_text.constData(), qMin(qstrlen(text), uint(m_text.size()))) == 0;
    }

    const QPointer<Watcher> m_watcher; ///< goes with the driver
    Guard *const m_outer;
    const QByteArray m_text;
    QVarLengthArray<Statement *, 160> m_older;
    bool m_refused = false;
};

int Watcher::authorize(void *self, int action, const char *, const char *, const char *,
                       const char *)
{
    Guard *guard = static_cast<Watcher *>(self)->guard;
    if (!guard || (action != ActionSelect && action != ActionInsert && action != ActionUpdate &&
                   action != ActionDelete))
        return SqliteOk;
    return guard->allows() ? SqliteOk : SqliteDeny;
}

} // namespace

void SqliteSchemaGuard::prepare()
{
    libraries();
}

void SqliteSchemaGuard::opened(QSqlDriver *driver)
{
    Handle *handle = driver ? handleOf(driver) : nullptr;
    if (!handle)
        return;
    delete Watcher::of(driver); // of a connection that is closed
    const Library library = libraryOf(driver);
    if (library.isComplete())
        new Watcher(driver, library, handle);
}

bool SqliteSchemaGuard::run(QSqlDriver *driver, const QString &sql,
                            const std::function<bool()> &attempt, QSqlError *error)
{
    if (!driver || !StatementRules::mayChangeColumns(sql))
        return attempt();
    Watcher *watcher = Watcher::of(driver);
    if (!watcher)
        return attempt();
    // One for all attempts: a new statement may get the address of the one before.
    Guard guard(watcher, sql);
    for (int n = 0; n < MostAttempts; ++n) {
        const bool done = attempt();
        if (done || !guard.takeRefused())
            return done;
    }
    *error = QSqlError(QString(), QStringLiteral("database schema has changed"),
                       QSqlError::StatementError, QStringLiteral("17"));
    return false;
}
