#include "test_data.h"

#include <QDebug>
#include <QFile>
#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>

QVector<qint64> Target::serverProcesses() const
{
    if (serverPid == 0)
        return {};
    QVector<qint64> result{serverPid};
    QFile file(QStringLiteral("/proc/%1/task/%1/children").arg(serverPid));
    if (file.open(QIODevice::ReadOnly)) {
        const QList<QByteArray> children = file.readAll().simplified().split(' ');
        for (const QByteArray &child : children) {
            if (!child.isEmpty())
                result << child.toLongLong();
        }
    }
    return result;
}

QString Workload::readStatement() const
{
    if (!column.isEmpty())
        return QStringLiteral("select %1 from big where id <= %2").arg(column).arg(rows);
    if (columns == 0)
        return QStringLiteral("select id, part, weight, label, kind, total from big where id <= %1")
            .arg(rows);
    QStringList names;
    for (int i = 0; i < columns; ++i)
        names << QStringLiteral("id + %1 as c%1").arg(i);
    return QStringLiteral("select %1 from big where id <= %2")
        .arg(names.join(QStringLiteral(", ")))
        .arg(rows);
}

QString Workload::smallStatement(int i) const
{
    const int first = key(i);
    if (pointQuery)
        return QStringLiteral("select id, part, weight, label, kind, total from big where id = %1")
            .arg(first);
    return QStringLiteral(
               "select count(*), sum(total), avg(weight), min(label), max(kind) from big "
               "where id between %1 and %2")
        .arg(first)
        .arg(first + 499);
}

QSqlDatabase openTarget(const Target &target, const QString &name)
{
    QSqlDatabase db = QSqlDatabase::addDatabase(target.driverName(), name);
    db.setDatabaseName(target.sqliteFile.isEmpty() ? target.database : target.sqliteFile);
    if (target.postgres) {
        db.setHostName(target.host);
        db.setPort(target.port);
        db.setUserName(target.user);
        db.setPassword(target.password);
    }
    if (!db.open())
        qCritical() << "cannot open" << db.lastError().text();
    return db;
}

namespace
{

QString fillStatement(bool postgres, int rows)
{
    const QString columns = QStringLiteral(
        "insert into big select i, case when i % 10 = 0 then null else i % 1000 end, i * 0.25, "
        "'label number ' || i, 'kind ' || (i % 20), i * 10000000000 from ");
    if (postgres)
        return columns + QStringLiteral("generate_series(1::bigint, %1) as s(i)").arg(rows);
    return columns +
           QStringLiteral("(with recursive s(i) as (select 1 union all select i + 1 from s where i "
                          "< %1) select i from s)")
               .arg(rows);
}

} // namespace

bool fillTables(const Target &target, int rows)
{
    QSqlDatabase db = openTarget(target, QStringLiteral("fill ") + target.name());
    const QStringList statements = {
        QStringLiteral("drop table if exists big"),
        QStringLiteral("drop table if exists inserts"),
        QStringLiteral("create table big(id integer primary key, part integer, weight double "
                       "precision, label text, kind text, total bigint)"),
        QStringLiteral("create table inserts(a integer, b text, c double precision)"),
        fillStatement(target.postgres, rows),
        QStringLiteral("analyze"),
    };
    for (const QString &statement : statements) {
        QSqlQuery query(db);
        if (!query.exec(statement)) {
            qCritical() << statement << query.lastError().text();
            return false;
        }
    }
    return true;
}
