/// @file
/// What the tests of a connection's life share: a host and a stub driver.
#pragma once

#include "frame_host.h"
#include "message_log.h"
#include "recording_driver.h"

#include <QObject>
#include <QSqlDatabase>
#include <QtTest>

#include <memory>

/// Each test begins with a host of its own, and leaves no query, no connection and no complaint of
/// Qt behind.
class ConnectionTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        m_log = std::make_unique<MessageLog>();
        m_host = std::make_unique<FrameHost>();
    }
    void cleanup()
    {
        m_host.reset();
        QVERIFY(QSqlDatabase::connectionNames().isEmpty());
        if (m_stub) {
            QVERIFY2(m_stub->liveResults() == 0 && m_stub->liveDrivers() == 0,
                     qPrintable(m_stub->record()));
        }
        m_stub.reset();
        VERIFY_NO_QT_COMPLAINTS(*m_log);
        m_log.reset();
    }

protected:
    FrameHost &h() { return *m_host; }
    /// Makes the script global `db`, which uses a stub driver of this name.
    void useDriver(const char *name, QSqlDriver::DbmsType dbms = QSqlDriver::UnknownDbms)
    {
        m_stub = std::make_unique<StubServer>(QLatin1String(name), dbms);
        h().eval(QStringLiteral("var db = new VEXT_SQL(); db.driverName = '%1'").arg(utf8(name)));
    }

    static constexpr const char *workerSource = "plugins/PluginSQL/vext_sql_thread";

    std::unique_ptr<MessageLog> m_log;
    std::unique_ptr<StubServer> m_stub;
    std::unique_ptr<FrameHost> m_host;
};
