/// @file
/// What the address sanitizer is to know of Qt. Without the sanitizer this file is empty.

#if defined(__SANITIZE_ADDRESS__)

#include <QCoreApplication>
#include <QScriptEngine>

#include <sanitizer/lsan_interface.h>

namespace
{

/// Qt Script keeps a few bytes of its first engine for the life of the process. An engine made
/// here takes them, so that every leak that is reported is the program's own.
void warmUpQtScript()
{
    __lsan_disable();
    {
        QScriptEngine engine;
        engine.collectGarbage();
    }
    __lsan_enable();
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(warmUpQtScript)

#endif
