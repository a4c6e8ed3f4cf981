/// @file
/// The driver whose statement another thread may cancel.
#pragma once

#include <QMutex>

class QSqlDriver;

/// Knows the driver of the thread connection for as long as a cancel is meant for it.
class CancelTarget
{
public:
    /// Cancels the statement that runs on the thread connection, if the driver can. Any thread.
    void requestCancelQuery();

    QMutex m_mutexDriver;                 ///< guards m_threadDriver
    QSqlDriver *m_threadDriver = nullptr; ///< driver of the open thread connection; m_mutexDriver

protected:
    /// Worker.
    void setThreadDriver(QSqlDriver *driver);
};
