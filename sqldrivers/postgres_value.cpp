#include "postgres_value.h"

#include <QDateTime>

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

/// Reads what the server has written from left to right.
class Reader
{
public:
    explicit Reader(const QByteArray &raw)
        : m_raw(raw)
    {
    }

    bool isAtEnd() const { return m_at == m_raw.size(); }
    bool failed() const { return m_failed; }
    bool take(const char *mark)
    {
        if (m_raw.mid(m_at, int(qstrlen(mark))) != mark)
            return false;
        m_at += int(qstrlen(mark));
        return true;
    }
    void must(const char *mark) { m_failed = !take(mark) || m_failed; }
    QByteArray digits()
    {
        const int start = m_at;
        while (m_at < m_raw.size() && m_raw.at(m_at) >= '0' && m_raw.at(m_at) <= '9')
            ++m_at;
        m_failed = m_failed || m_at == start;
        return m_raw.mid(start, m_at - start);
    }
    int number() { return digits().toInt(); }

private:
    const QByteArray &m_raw;
    int m_at = 0;
    bool m_failed = false;
};

struct Moment {
    QDate date;
    QTime time{0, 0};
    int offsetSeconds = 0; ///< east of Greenwich
    bool isValid = false;
};

QTime readTime(Reader &reader)
{
    constexpr int MillisecondDigits = 3;
    const int hour = reader.number();
    reader.must(":");
    const int minute = reader.number();
    reader.must(":");
    const int second = reader.number();
    const QByteArray fraction = reader.take(".") ? reader.digits() : QByteArray();
    return QTime(hour, minute, second,
                 fraction.leftJustified(MillisecondDigits, '0', true).toInt());
}

/// "+05", "-03:30", "+02:30:17"
int readOffset(Reader &reader)
{
    const bool isWest = reader.take("-");
    if (!isWest && !reader.take("+"))
        return 0;
    int seconds = reader.number() * 3600;
    for (int unit = 60; unit > 0 && reader.take(":"); unit /= 60)
        seconds += reader.number() * unit;
    return isWest ? -seconds : seconds;
}

/// "12024-03-15 10:20:30.5+02", "0044-03-15 BC"
Moment readMoment(const QByteArray &raw)
{
    Reader reader(raw);
    Moment moment;
    const int year = reader.number();
    reader.must("-");
    const int month = reader.number();
    reader.must("-");
    const int day = reader.number();
    const bool beforeChrist = raw.endsWith(" BC");
    const auto isBehindDate = [&] { return beforeChrist && reader.take(" BC"); };
    if (!isBehindDate() && reader.take(" ")) {
        moment.time = readTime(reader);
        moment.offsetSeconds = readOffset(reader);
        isBehindDate();
    }
    moment.date = QDate(beforeChrist ? -year : year, month, day);
    moment.isValid = reader.isAtEnd() && !reader.failed();
    return moment;
}

QVariant farDate(unsigned type, const QByteArray &raw, const QVariant &value)
{
    const Moment moment = readMoment(raw);
    if (!moment.isValid)
        return value;
    if (type == Date)
        return moment.date;
    if (type == Timestamp)
        return QDateTime(moment.date, moment.time);
    return QDateTime(moment.date, moment.time, Qt::OffsetFromUTC, moment.offsetSeconds)
        .toLocalTime();
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
