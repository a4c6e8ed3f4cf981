/// @file
/// How a worker outlives the functions of its own that are on the stack.
#pragma once

#include "vext_sql_thread.h"

/// Stands in every function of the engine's thread that may run script code: script code may delete
/// the connection object, and with it the worker, which then ends when the outermost entry does.
class VEXT_sqlThr::Entry
{
public:
    explicit Entry(VEXT_sqlThr *worker)
        : m_worker(worker)
    {
        ++m_worker->m_depth;
    }
    ~Entry() { m_worker->leaveEntry(); }
    Q_DISABLE_COPY(Entry)

private:
    VEXT_sqlThr *m_worker;
};
