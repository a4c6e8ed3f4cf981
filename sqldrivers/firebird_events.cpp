#include "firebird_events.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEvent>
#include <QThread>

namespace
{

/// Longer than any server needs that has just taken the subscription, and only waited for where the
/// event does not come.
constexpr int FirstEventMs = 2000;
constexpr int StepUs = 100;

/// Counts the queued calls that reach an object.
class CallCounter : public QObject
{
public:
    int calls = 0;
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::MetaCall)
            ++calls;
        return false;
    }
};

} // namespace

bool FirebirdEvents::subscribe(QSqlDriver *stock, const QString &name,
                               std::unique_ptr<LineWatch> watch)
{
    CallCounter counter;
    stock->installEventFilter(&counter);
    if (!stock->subscribeToNotification(name))
        return false;
    watch.reset();
    QElapsedTimer timer;
    timer.start();
    while (counter.calls == 0 && !timer.hasExpired(FirstEventMs)) {
        QCoreApplication::sendPostedEvents(stock, QEvent::MetaCall);
        if (counter.calls == 0)
            QThread::usleep(StepUs);
    }
    return true;
}
