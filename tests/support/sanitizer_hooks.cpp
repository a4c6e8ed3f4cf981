// Compiled into every program that uses the test support library: what the sanitizers are to know
// about Qt. Without a sanitizer this file is empty.

#if defined(__SANITIZE_ADDRESS__)

#include <QCoreApplication>
#include <QScriptEngine>

#include <sanitizer/lsan_interface.h>

// Qt Script keeps a few bytes of its first engine and its first garbage collection for the life of
// the process. An engine made here takes them, so that every leak found later is a real one.
static void warmUpQtScript()
{
    __lsan_disable();
    {
        QScriptEngine engine;
        engine.collectGarbage();
    }
    __lsan_enable();
}

Q_COREAPP_STARTUP_FUNCTION(warmUpQtScript)

#endif
