#include "cluster_script.h"

#include <QFile>
#include <QtTest>

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

void ClusterScript::prepareTransfers(const ConnectionParameters &parameters)
{
    eval(QStringLiteral("(function () { var db = open(%1); prepareTransfers(db); db.close(); })()")
             .arg(literalOf(parameters)));
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
    return eval(QStringLiteral("(function () { var db = open(%1), wrong = wrongOf(db); db.close(); "
                               "return JSON.stringify(wrong.concat(failures)); })()")
                    .arg(literalOf(parameters)))
        .toString();
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
