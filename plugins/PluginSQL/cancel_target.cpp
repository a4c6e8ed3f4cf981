#include "cancel_target.h"

#include <QMutexLocker>
#include <QSqlDriver>

void CancelTarget::requestCancelQuery()
{
    QMutexLocker locker(&m_mutexDriver);
    if (m_threadDriver && m_threadDriver->hasFeature(QSqlDriver::CancelQuery))
        m_threadDriver->cancelQuery();
}

void CancelTarget::setThreadDriver(QSqlDriver *driver)
{
    QMutexLocker locker(&m_mutexDriver);
    m_threadDriver = driver;
}
