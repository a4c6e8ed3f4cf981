#include "library_life.h"

#include "connection_names.h"
#include "debug_line.h"
#include "own_meta_types.h"
#include "plugin_sql.h"
#include "script_tag.h"
#include "sql_secrets.h"
#include "sqlite_schema_guard.h"
#include "vext_sql.h"
#include "vext_sql_thread.h"

#include <QCoreApplication>
#include <QSqlDatabase>

#include <dlfcn.h>
#include <vector>

QMutex Plugin_SQL::m_mutexTag;
QMutex Plugin_SQL::m_mutexCntrs;
QVariant Plugin_SQL::s_tag;
QList<VEXT_SQL *> VEXT_SQL::m_listSqlConns;
QMutex VEXT_SQL::m_mutexSqlConns;
QAtomicInt VEXT_sqlThr::s_conCounter;
QAtomicInt VEXT_sqlThr::s_typeFloat;
QMutex ConnectionNames::s_mutex;
QStringList ConnectionNames::s_used;

namespace
{

QPointer<QObject> s_globalObject;
ScriptTag s_tagObjects;
QMutex s_mutexWorkers;
QList<VEXT_sqlThr *> s_workers; ///< of the process; s_mutexWorkers

/// Qt Sql registers a routine with the application for its end as soon as a driver is looked for,
/// and takes it back never. In a host where nobody else uses Qt Sql it would be unloaded together
/// with this library, and the application would end in unmapped memory.
void keepQtSql()
{
    Dl_info info;
    if (::dladdr(reinterpret_cast<const void *>(&QSqlDatabase::drivers), &info) == 0)
        return;
    if (void *library = ::dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE))
        ::dlclose(library); // the mark stays
}

void releaseWorkersOfApplication()
{
    LibraryLife::releaseWorkers(false);
}

/// What the last workers use, to trace their end or to open a connection before it, is made before
/// the object that waits for them, and so goes after it.
void makeWhatWorkersNeed()
{
    DebugLine::cleanFunctionName(QString(), false);
    SqlSecrets::maskedConnection(QString());
    SqlSecrets::maskedStatement(QStringLiteral("password"));
    SqliteSchemaGuard::prepare();
}

/// Makes the plugin object when the library is loaded, possibly before any application object
/// exists, and leaves nothing behind that could call into the library when it is unloaded.
class Life
{
public:
    Life()
    {
        keepQtSql();
        makeWhatWorkersNeed();
        // Qt's registry of connections must outlive ours at the end of the process.
        QSqlDatabase::connectionNames();
        qAddPostRoutine(releaseWorkersOfApplication);
        QCoreApplication *application = QCoreApplication::instance();
        QObject *server =
            application ? application->findChild<QObject *>(QStringLiteral("server")) : nullptr;
        s_globalObject = new Plugin_SQL(server, nullptr);
    }

    ~Life()
    {
        qRemovePostRoutine(releaseWorkersOfApplication);
        LibraryLife::releaseWorkers(true);
        delete s_globalObject.data();
        Plugin_SQL::s_tag.clear();
        OwnMetaTypes::removeAll();
    }
    Q_DISABLE_COPY(Life)
};

Life s_life;

/// Held weakly: ending one may end others.
std::vector<QPointer<VEXT_sqlThr>> workersOfThisThread()
{
    std::vector<QPointer<VEXT_sqlThr>> workers;
    QMutexLocker locker(&s_mutexWorkers);
    for (VEXT_sqlThr *worker : qAsConst(s_workers)) {
        if (!worker->thread() || worker->thread() == QThread::currentThread())
            workers.emplace_back(worker);
    }
    return workers;
}

} // namespace

QPointer<QObject> &LibraryLife::globalObject()
{
    return s_globalObject;
}

ScriptTag &LibraryLife::tagObjects()
{
    return s_tagObjects;
}

void LibraryLife::addWorker(VEXT_sqlThr *worker)
{
    QMutexLocker locker(&s_mutexWorkers);
    s_workers.append(worker);
}

void LibraryLife::removeWorker(VEXT_sqlThr *worker)
{
    QMutexLocker locker(&s_mutexWorkers);
    s_workers.removeOne(worker);
}

int LibraryLife::workerCount()
{
    QMutexLocker locker(&s_mutexWorkers);
    return s_workers.size();
}

void LibraryLife::releaseWorkers(bool all)
{
    for (const QPointer<VEXT_sqlThr> &worker : workersOfThisThread()) {
        if (!worker)
            continue;
        if (!worker->m_owner) {
            worker->end(true);
        } else if (all) {
            VEXT_SQL *owner = worker->m_owner;
            owner->releaseWorkerAtOnce();
            delete owner;
        }
    }
}
