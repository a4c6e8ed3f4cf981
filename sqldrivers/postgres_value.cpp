#include "postgres_value.h"

#include <QDateTime>
#include <QRegularExpression>

#include <limits>

namespace
{

// Object ids of PostgreSQL's own types; they never change.
constexpr unsigned Oid = 26;
constexpr unsigned TransactionId = 28;
constexpr unsigned CommandId = 29;
constexpr unsigned Date = 1082;
constexpr unsigned Timestamp = 1114;
constexpr unsigned TimestampWithZone = 1184;

/// "2024-05-06" has its second dash here; longer years push it back.
constexpr int FirstDash = 4;

bool isFarDate(const QByteArray &raw)
{
    return raw.endsWith(" BC") || raw.indexOf('-') > FirstDash;
}

QVariant unsignedNumber(const QByteArray &raw, const QVariant &value)
{
    bool isNumber = false;
    const uint number = raw.toUInt(&isNumber);
    if (!isNumber || number <= uint(std::numeric_limits<int>::max()))
        return value;
    return qlonglong(number);
}

int offsetSeconds(const QRegularExpressionMatch &match)
{
    const int seconds = match.capturedRef(QStringLiteral("oh")).toInt() * 3600 +
                        match.capturedRef(QStringLiteral("om")).toInt() * 60 +
                        match.capturedRef(QStringLiteral("os")).toInt();
    return match.capturedRef(QStringLiteral("sign")) == QLatin1String("-") ? -seconds : seconds;
}

QVariant farDate(unsigned type, const QByteArray &raw, const QVariant &value)
{
    static const QRegularExpression form(QStringLiteral(
        R"(^(?<y>\d+)-(?<m>\d+)-(?<d>\d+)(?: (?<time>\d+:\d+:\d+)(?:\.(?<f>\d+))?)"
        R"((?:(?<sign>[+-])(?<oh>\d+)(?::(?<om>\d+))?(?::(?<os>\d+))?)?)?(?<bc> BC)?$)"));
    const QRegularExpressionMatch match = form.match(QString::fromLatin1(raw));
    if (!match.hasMatch())
        return value;
    const int year = match.capturedRef(QStringLiteral("y")).toInt();
    const bool beforeChrist = match.capturedLength(QStringLiteral("bc")) > 0;
    const QDate date(beforeChrist ? -year : year, match.capturedRef(QStringLiteral("m")).toInt(),
                     match.capturedRef(QStringLiteral("d")).toInt());
    if (type == Date)
        return date;
    const QString fraction = match.captured(QStringLiteral("f")).leftJustified(3, QLatin1Char('0'));
    const QTime time =
        QTime::fromString(match.captured(QStringLiteral("time")), QStringLiteral("hh:mm:ss"))
            .addMSecs(fraction.leftRef(3).toInt());
    if (type == Timestamp)
        return QDateTime(date, time);
    return QDateTime(date, time, Qt::OffsetFromUTC, offsetSeconds(match)).toLocalTime();
}

} // namespace

bool PostgresValue::needsLook(unsigned type)
{
    switch (type) {
    case Oid:
    case TransactionId:
    case CommandId:
    case Date:
    case Timestamp:
    case TimestampWithZone:
        return true;
    default:
        return false;
    }
}

QVariant PostgresValue::read(unsigned type, const QByteArray &raw, const QVariant &value)
{
    switch (type) {
    case Oid:
    case TransactionId:
    case CommandId:
        return unsignedNumber(raw, value);
    default:
        return isFarDate(raw) ? farDate(type, raw, value) : value;
    }
}
