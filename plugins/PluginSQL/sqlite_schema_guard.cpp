#include "sqlite_schema_guard.h"

#include "statement_rules.h"

#include <QByteArray>
#include <QHash>
#include <QMutex>
#include <QSqlDriver>
#include <QVariant>
#include <QVector>

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

Library libraryOf(const QSqlDriver *driver)
{
    static QMutex mutex;
    static QHash<const QMetaObject *, Library> libraries;
    const QMetaObject *driverClass = driver->metaObject();
    QMutexLocker locker(&mutex);
    const auto known = libraries.constFind(driverClass);
    if (known != libraries.constEnd())
        return *known;
    return *libraries.insert(driverClass, loadedBy(driverClass));
}

Handle *handleOf(const QSqlDriver *driver)
{
    const QVariant handle = driver->handle();
    if (!handle.isValid() || qstrcmp(handle.typeName(), "sqlite3*") != 0)
        return nullptr;
    return *static_cast<Handle *const *>(handle.constData());
}

/// Refuses, for its lifetime, that a statement is prepared again after it began to run.
class Guard
{
public:
    Guard(const Library &library, Handle *handle, const QString &sql)
        : m_library(library)
        , m_handle(handle)
        , m_text(untilPlaceholder(sql))
    {
        for (Statement *s = nullptr; (s = m_library.nextStatement(m_handle, s));)
            m_older.append(s);
        m_library.setAuthorizer(m_handle, &Guard::authorize, this);
    }
    ~Guard() { m_library.setAuthorizer(m_handle, nullptr, nullptr); }
    Q_DISABLE_COPY(Guard)

    /// Whether it refused anything since this was last asked.
    bool takeRefused() { return std::exchange(m_refused, false); }

private:
    static int authorize(void *self, int action, const char *, const char *, const char *,
                         const char *)
    {
        if (action != ActionSelect && action != ActionInsert && action != ActionUpdate &&
            action != ActionDelete)
            return SqliteOk;
        return static_cast<Guard *>(self)->allows() ? SqliteOk : SqliteDeny;
    }

    bool allows()
    {
        for (Statement *s = nullptr; (s = m_library.nextStatement(m_handle, s));) {
            if (!m_older.contains(s) && isOurs(s) && !m_library.isBusy(s) &&
                m_library.status(s, StatusVmStep, 0) > 0) {
                m_refused = true;
                return false;
            }
        }
        return true;
    }

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
        const char *text = m_library.text(statement);
        return text &&
               qstrncmp(text, m_text.constData(), qMin(qstrlen(text), uint(m_text.size()))) == 0;
    }

    const Library &m_library;
    Handle *const m_handle;
    const QByteArray m_text;
    QVector<Statement *> m_older;
    bool m_refused = false;
};

} // namespace

bool SqliteSchemaGuard::run(QSqlDriver *driver, const QString &sql,
                            const std::function<bool()> &attempt, QSqlError *error)
{
    if (!driver || !StatementRules::mayChangeColumns(sql))
        return attempt();
    Handle *handle = handleOf(driver);
    if (!handle)
        return attempt();
    const Library library = libraryOf(driver);
    if (!library.isComplete())
        return attempt();
    // One for all attempts: a new statement may get the address of the one before.
    Guard guard(library, handle, sql);
    for (int n = 0; n < MostAttempts; ++n) {
        const bool done = attempt();
        if (done || !guard.takeRefused())
            return done;
    }
    *error = QSqlError(QString(), QStringLiteral("database schema has changed"),
                       QSqlError::StatementError, QStringLiteral("17"));
    return false;
}
