/// @file
/// Included before everything else in builds with ThreadSanitizer (see cmake/VextTargets.cmake).
///
/// Qt asks whether data is shared with a relaxed read of its reference count. When the last other
/// owner has let go, the one that is left changes the data in place. That is sound: nothing can be
/// changed before the count was read. But the sanitizer orders threads by acquire and release only,
/// and would report each value that two threads have shared. Here the relaxed operations of Qt's
/// atomics count as ordered. The code of this project has no relaxed atomics to hide.
#pragma once

#if defined(__cplusplus) && defined(__SANITIZE_THREAD__) && __has_include(<QtCore/qglobal.h>)

#include <atomic> // defines the name that is replaced below

#define memory_order_relaxed memory_order_seq_cst
#include <QtCore/qglobal.h> // includes Qt's atomics
#undef memory_order_relaxed

#endif
