#include "host_application.h"

#include <QThread>

volatile std::sig_atomic_t HostApplication::s_depth = 0;

bool HostApplication::notify(QObject *receiver, QEvent *event)
{
    // Every thread delivers its events through here.
    if (QThread::currentThread() != thread())
        return QCoreApplication::notify(receiver, event);
    s_depth = s_depth + 1;
    const bool handled = QCoreApplication::notify(receiver, event);
    s_depth = s_depth - 1;
    return handled;
}
