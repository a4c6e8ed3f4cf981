#include "sample_host.h"

CommandOutcome buildAndRunSampleHost(const QString &folder, const QString &finding,
                                     const QString &sources)
{
    const CommandOutcome configured = runCommand(
        {QStringLiteral(VEXT_CMAKE), QStringLiteral("-S"), sources, QStringLiteral("-B"), folder,
         QStringLiteral("-GNinja"), QStringLiteral("-DCMAKE_CXX_COMPILER=" VEXT_CXX), finding});
    if (!configured.isGood())
        return configured;
    const CommandOutcome built =
        runCommand({QStringLiteral(VEXT_CMAKE), QStringLiteral("--build"), folder});
    if (!built.isGood())
        return built;
    return runCommand(
        {folder + QLatin1String("/sample-host"), sources + QLatin1String("/hello.js")},
        {QStringLiteral("QT_LOGGING_RULES=default.debug=true")});
}

QString sampleHostOutput()
{
    return QStringLiteral("at once: 42\nlater: hello\n");
}
