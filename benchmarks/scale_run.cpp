#include "scale_run.h"

#include <QJsonDocument>

namespace
{

constexpr int LineTimeoutMs = 120000;

} // namespace

ScaleRun::ScaleRun(const QString &script, const QStringList &arguments)
{
    const QString folder = QStringLiteral(VEXT_SOURCE_DIR);
    m_process.start(QStringLiteral(VEXT_RUN_FILE),
                    QStringList{QStringLiteral("--plugin"), QStringLiteral(VEXT_PLUGIN_FILE),
                                folder + QStringLiteral("/benchmarks/") + script,
                                folder + QStringLiteral("/library/vext.js")} +
                        arguments);
}

ScaleRun::~ScaleRun()
{
    m_process.kill();
    m_process.waitForFinished();
}

QByteArray ScaleRun::line()
{
    while (!m_process.canReadLine()) {
        if (!m_process.waitForReadyRead(LineTimeoutMs))
            return {};
    }
    return m_process.readLine().trimmed();
}

QString ScaleRun::text(const QJsonObject &settings)
{
    return QString::fromUtf8(QJsonDocument(settings).toJson(QJsonDocument::Compact));
}

QJsonObject settingsOf(const ConnectionParameters &parameters)
{
    return {{QStringLiteral("driverName"), parameters.driverName},
            {QStringLiteral("databaseName"), parameters.databaseName},
            {QStringLiteral("userName"), parameters.userName},
            {QStringLiteral("password"), parameters.password},
            {QStringLiteral("hostName"), parameters.hostName},
            {QStringLiteral("port"), parameters.port}};
}
