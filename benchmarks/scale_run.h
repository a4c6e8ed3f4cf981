/// @file
/// A process of the reference host that runs a script of the measurements with many connections.
#pragma once

#include "test_database.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>

/// One process. Killed with the object. In one thread.
class ScaleRun
{
public:
    /// @param script a file of benchmarks/; its first argument is the path of the library
    ScaleRun(const QString &script, const QStringList &arguments);
    ~ScaleRun();
    Q_DISABLE_COPY(ScaleRun)

    qint64 pid() const { return m_process.processId(); }
    /// The next line, empty after an end or a time-out.
    QByteArray line();
    QByteArray errors() { return m_process.readAllStandardError(); }

    /// Settings as the scripts take them.
    static QString text(const QJsonObject &settings);

private:
    QProcess m_process;
};

/// The settings of a pool on one server.
QJsonObject settingsOf(const ConnectionParameters &parameters);

/// The settings of a cluster of the library. @param engine "postgresql" or "galera"
template <typename Cluster>
QJsonObject clusterSettings(const Cluster &cluster, const QString &engine)
{
    QJsonArray nodes;
    for (int i = 0; i < cluster.count(); ++i)
        nodes << settingsOf(cluster.parameters(i));
    return {{QStringLiteral("engine"), engine}, {QStringLiteral("nodes"), nodes}};
}
