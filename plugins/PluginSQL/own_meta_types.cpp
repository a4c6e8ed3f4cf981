#include "own_meta_types.h"

#include <QMutex>
#include <QVector>

namespace
{

struct Registered {
    QMutex mutex;
    QVector<int> ids;
};

Registered &registered()
{
    static Registered instance;
    return instance;
}

} // namespace

void OwnMetaTypes::remember(int id)
{
    QMutexLocker locker(&registered().mutex);
    registered().ids.append(id);
}

void OwnMetaTypes::removeAll()
{
    QMutexLocker locker(&registered().mutex);
    for (const int id : qAsConst(registered().ids))
        QMetaType::unregisterType(id);
    registered().ids.clear();
}
