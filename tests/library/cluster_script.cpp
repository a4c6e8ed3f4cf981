#include "cluster_script.h"

#include <QFile>
#include <QtTest>

namespace
{

constexpr int AnswerMs = 60000;

} // namespace

ClusterScript::ClusterScript()
{
    QFile file(QStringLiteral(VEXT_SOURCE_DIR "/tests/library/transfers.js"));
    if (!file.open(QIODevice::ReadOnly))
        QTest::qFail(qPrintable(file.errorString()), __FILE__, __LINE__);
    host().eval(QString::fromUtf8(file.readAll()), QStringLiteral("transfers.js"));
}

void ClusterScript::makeCluster(const QString &engine, const QStringList &nodes,
                                const QString &settings)
{
    // A loaded machine keeps nodes waiting: what is a matter of seconds is stretched as all limits.
    eval(QStringLiteral("var moves = [], cluster = vext.cluster({engine: '%1', nodes: [%2], "
                        "silenceMs: %3, pingMs: 300, deadlineMs: %4, "
                        "onMove: function (from, to, why) { moves.push(from + ' > ' + to); } %5});")
             .arg(engine, nodes.join(QStringLiteral(", ")), QString::number(scaledMs(1500)),
                  QString::number(scaledMs(60000)), settings));
}

void ClusterScript::askNode(const ConnectionParameters &parameters, const QString &work)
{
    const QString ask = QStringLiteral("answers(%1, %2)").arg(literalOf(parameters), work);
    if (!waitFor(ask, AnswerMs))
        QTest::qFail(qPrintable(text(QStringLiteral("lastRefusal"))), __FILE__, __LINE__);
}

void ClusterScript::dropTransfers(const ConnectionParameters &parameters)
{
    askNode(parameters, QStringLiteral("dropTransfers"));
}

void ClusterScript::prepareTransfers(const ConnectionParameters &parameters)
{
    askNode(parameters, QStringLiteral("prepareTransfers"));
}

bool ClusterScript::waitForTransfers(int more, int ms)
{
    const int before = number(QStringLiteral("acked.length"));
    // A transfer that failed is not waited for.
    waitFor(QStringLiteral("failures.length > 0 || acked.length >= %1").arg(before + more), ms);
    return number(QStringLiteral("acked.length")) >= before + more;
}

bool ClusterScript::finishTransfers()
{
    eval(QStringLiteral("var finished = false; stopTransfers(function () { finished = true; });"));
    return waitFor(QStringLiteral("finished"), 90000);
}

QString ClusterScript::wrongOn(const ConnectionParameters &parameters)
{
    eval(QStringLiteral("var wrong = ['never seen']"));
    askNode(parameters, QStringLiteral("function (db) { wrong = wrongOf(db).concat(failures); }"));
    return eval(QStringLiteral("JSON.stringify(wrong)")).toString();
}

int ClusterScript::number(const QString &expression)
{
    return eval(expression).toInt32();
}

QString nodeLiteral(const ConnectionParameters &parameters)
{
    return QStringLiteral("{hostName: '%1', port: %2, databaseName: '%3', userName: '%4', "
                          "password: '%5'}")
        .arg(parameters.hostName, QString::number(parameters.port), parameters.databaseName,
             parameters.userName, parameters.password);
}
