#include "call_depth.h"

thread_local int CallDepth::s_depth = 0;
thread_local bool CallDepth::s_refusing = false;

CallDepth::CallDepth()
{
    if (++s_depth <= Most || s_refusing)
        return;
    s_refusing = true;
    m_first = true;
}

CallDepth::~CallDepth()
{
    if (--s_depth == 0)
        s_refusing = false;
}
