/// @file
/// What happens when the library comes to life, when the application ends, and when it is unloaded.
#pragma once

#include <QObject>
#include <QPointer>

class ScriptTag;
class VEXT_sqlThr;

/// State of the whole library. It is defined in one file because only there the order of
/// construction and of destruction is certain: what stands first is used by what stands last, the
/// plugin object.
namespace LibraryLife
{

/// The plugin object made when the library was loaded; null once it is gone. Host's thread.
QPointer<QObject> &globalObject();

/// The objects in Plugin_SQL::s_tag; Plugin_SQL::m_mutexTag.
ScriptTag &tagObjects();

/// Enters a worker that was made, and strikes out one that goes. Engine's thread.
void addWorker(VEXT_sqlThr *worker);
void removeWorker(VEXT_sqlThr *worker);
/// Workers that are alive in the process. Any thread.
int workerCount();

/// Frees the workers of this thread that wait for an event loop which will not run any more, and
/// with `all` every other connection of this thread too: for the end of the application and of the
/// library. A worker that has a function on the stack ends when that function returns.
void releaseWorkers(bool all);

} // namespace LibraryLife
