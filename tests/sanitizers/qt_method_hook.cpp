// Compiled into the thread tests: shows ThreadSanitizer the order that a queued
// QMetaMethod::invoke() makes, as tests/support/thread_sanitizer_hooks.cpp does for the other ways
// to send a call. Without ThreadSanitizer this file is empty.

#if defined(__SANITIZE_THREAD__)

#include <QMetaMethod>
#include <QObject>

#include <dlfcn.h>

// Exported by the sanitizer's library; its headers do not declare them.
extern "C" void AnnotateIgnoreWritesBegin(const char *file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char *file, int line);

// Weak, so that a definition in the support library takes its place.
__attribute__((weak)) bool QMetaMethod::invoke(QObject *object, Qt::ConnectionType type,
                                               QGenericReturnArgument result, QGenericArgument v0,
                                               QGenericArgument v1, QGenericArgument v2,
                                               QGenericArgument v3, QGenericArgument v4,
                                               QGenericArgument v5, QGenericArgument v6,
                                               QGenericArgument v7, QGenericArgument v8,
                                               QGenericArgument v9) const
{
    using A = QGenericArgument;
    using Function = bool(const QMetaMethod *, QObject *, Qt::ConnectionType,
                          QGenericReturnArgument, A, A, A, A, A, A, A, A, A, A);
    static auto *original = reinterpret_cast<Function *>(
        dlsym(RTLD_NEXT, "_ZNK11QMetaMethod6invokeEP7QObjectN2Qt14ConnectionTypeE"
                         "22QGenericReturnArgument16QGenericArgumentS5_S5_S5_S5_S5_S5_S5_S5_S5_"));
    const auto call = [&] {
        return original(this, object, type, result, v0, v1, v2, v3, v4, v5, v6, v7, v8, v9);
    };
    // Does nothing but tell the sanitizer that a call is being sent.
    QMetaObject::invokeMethod(nullptr, "");
    if (type != Qt::QueuedConnection)
        return call();
    // Qt makes the event now, after what was told above; nothing of ours runs meanwhile.
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
    const bool sent = call();
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    return sent;
}

#endif
