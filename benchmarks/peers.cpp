#include "peers.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

namespace
{

const QString PeerWord = QStringLiteral("peer ");

/// What a peer's script gets to know.
QByteArray described(const Target &target, const Workload &workload)
{
    const QJsonObject all{{QStringLiteral("file"), target.sqliteFile},
                          {QStringLiteral("host"), target.host},
                          {QStringLiteral("port"), target.port},
                          {QStringLiteral("database"), target.database},
                          {QStringLiteral("user"), target.user},
                          {QStringLiteral("password"), target.password},
                          {QStringLiteral("queued"), workload.kind == Workload::Kind::Queue},
                          {QStringLiteral("reads"), workload.kind == Workload::Kind::Read},
                          {QStringLiteral("rows"), workload.rows},
                          {QStringLiteral("count"), workload.count}};
    return QJsonDocument(all).toJson(QJsonDocument::Compact);
}

QString lastLine(const QByteArray &text)
{
    return QString::fromUtf8(text.trimmed().split('\n').last()).trimmed();
}

} // namespace

QVector<Peers::Peer> Peers::all()
{
    return {{QStringLiteral("better-sqlite3"), false, false, QString()},
            {QStringLiteral("Python sqlite3"), true, false, QString()},
            {QStringLiteral("pg"), false, true, QString()},
            {QStringLiteral("postgres"), false, true, QString()},
            {QStringLiteral("Python psycopg2"), true, true, QString()}};
}

QStringList Peers::command(const Peer &peer, const QStringList &arguments) const
{
    const QString folder = QStringLiteral(VEXT_SOURCE_DIR "/benchmarks/peers/");
    const QStringList program =
        peer.python ? QStringList{m_python, folder + QStringLiteral("peer.py")}
                    : QStringList{QStringLiteral("node"), QStringLiteral("--no-deprecation"),
                                  folder + QStringLiteral("peer.js"), m_modules};
    return program + QStringList(peer.name.section(QLatin1Char(' '), -1)) + arguments;
}

QStringList Peers::findThoseOf(const Target &target)
{
    QStringList missing;
    m_found.clear();
    for (Peer peer : all()) {
        if (peer.postgres != target.postgres)
            continue;
        QStringList words = command(peer, {QStringLiteral("version")});
        QProcess process;
        const QString program = words.takeFirst();
        process.start(program, words);
        process.waitForFinished(-1);
        peer.version = lastLine(process.readAllStandardOutput());
        if (process.error() == QProcess::FailedToStart || process.exitCode() != 0) {
            QFile file(m_modules + QLatin1Char('/') + peer.name + QStringLiteral(".reason"));
            const QString reason = file.open(QIODevice::ReadOnly)
                                       ? lastLine(file.readAll())
                                       : lastLine(process.readAllStandardError());
            missing << QStringLiteral("left out: %1: %2")
                           .arg(peer.name, reason.isEmpty() ? process.errorString() : reason);
        } else {
            m_found << peer;
        }
    }
    return missing;
}

void Peers::addTo(Comparison &comparison, const Target &target, const Workload &workload) const
{
    for (const Peer &peer : m_found)
        comparison.addProgram(
            PeerWord + peer.name + QLatin1Char(' ') + peer.version,
            command(peer, {QStringLiteral("run"), QString::fromUtf8(described(target, workload))}));
}

QString Peers::shownAs(const QString &way)
{
    if (way.startsWith(PeerWord))
        return way;
    return (way.startsWith(QLatin1String("floor")) ? QStringLiteral("C ")
                                                   : QStringLiteral("ours ")) +
           way;
}
