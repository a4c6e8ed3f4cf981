#include "policy.h"

#include "policy_plain.h"

namespace
{

SqlDialect dialectOf(const QString &key)
{
    if (key == QLatin1String("QSQLITE"))
        return SqlDialect::Sqlite;
    if (key.startsWith(QLatin1String("QPSQL")))
        return SqlDialect::PostgreSql;
    if (key.startsWith(QLatin1String("QMYSQL")) || key == QLatin1String("QMARIADB"))
        return SqlDialect::MariaDb;
    if (key == QLatin1String("QIBASE"))
        return SqlDialect::Firebird;
    return SqlDialect::Odbc;
}

} // namespace

QVariant Policy::exactValue(const QVariant &value, int column)
{
    Q_UNUSED(column)
    constexpr qlonglong Largest = (1LL << 53) - 1;
    switch (value.userType()) {
    case QMetaType::LongLong: {
        const qlonglong number = value.toLongLong();
        return number > Largest || number < -Largest ? QVariant(QString::number(number)) : value;
    }
    case QMetaType::ULongLong: {
        const qulonglong number = value.toULongLong();
        return number > qulonglong(Largest) ? QVariant(QString::number(number)) : value;
    }
    default:
        return value;
    }
}

std::unique_ptr<Policy> makePolicy(const QString &key, QSqlDriver *stock)
{
    return std::make_unique<PlainPolicy>(stock, dialectOf(key));
}
