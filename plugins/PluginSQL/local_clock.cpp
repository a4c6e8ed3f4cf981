#include "local_clock.h"

#include <ctime>

namespace
{

constexpr qint64 EpochJulianDay = 2440588;
constexpr qint64 SecondsPerDay = 86400;
constexpr qint64 MsPerDay = SecondsPerDay * 1000;
// QDateTime (5.15) knows no summer time before 1970, and takes that of another year after 2037.
constexpr qint64 FirstDay = 2;
constexpr qint64 LastDay = 24833; // 2037-12-28

/// Seconds east of Greenwich.
qint64 offsetAt(qint64 secondsSinceEpoch)
{
    const auto time = time_t(secondsSinceEpoch);
    tm parts{};
    localtime_r(&time, &parts);
    return parts.tm_gmtoff;
}

} // namespace

bool LocalClock::toEpochMs(const QDateTime &time, double *ms)
{
    const Qt::TimeSpec clockKind = time.timeSpec();
    if ((clockKind != Qt::LocalTime && clockKind != Qt::UTC) || !time.isValid())
        return false;
    const qint64 day = time.date().toJulianDay() - EpochJulianDay;
    if (day < FirstDay || day > LastDay)
        return false;
    qint64 offset = 0;
    if (clockKind == Qt::LocalTime && !offsetOn(day, &offset))
        return false;
    *ms = double(day * MsPerDay + time.time().msecsSinceStartOfDay() - offset * 1000);
    return true;
}

bool LocalClock::toEpochMs(const QDate &date, double *ms)
{
    const qint64 day = date.toJulianDay() - EpochJulianDay;
    qint64 offset = 0;
    if (!date.isValid() || day < FirstDay || day > LastDay || !offsetOn(day, &offset))
        return false;
    *ms = double(day * MsPerDay - offset * 1000);
    return true;
}

bool LocalClock::offsetOn(qint64 day, qint64 *seconds)
{
    if (!m_isReady) {
        // Makes the C library read the zone anew, as it does for every conversion of this kind.
        QDateTime(QDate(2000, 1, 1), QTime(0, 0)).toMSecsSinceEpoch();
        m_isReady = true;
    }
    if (day != m_day) {
        const auto known = m_offsets.constFind(day);
        m_offset = known != m_offsets.constEnd() ? *known : m_offsets[day] = lookUp(day);
        m_day = day;
    }
    *seconds = m_offset;
    return m_offset != NoOffset;
}

/// What holds at the ends of three days holds on the one in their middle, wherever it begins.
qint64 LocalClock::lookUp(qint64 day)
{
    const qint64 offset = beginningOf(day - 1);
    for (qint64 end = day; end <= day + 2; ++end) {
        if (beginningOf(end) != offset)
            return NoOffset;
    }
    return offset;
}

/// The offset as a day begins in Greenwich. Days that follow one another share most of theirs.
qint64 LocalClock::beginningOf(qint64 day)
{
    const auto known = m_beginnings.constFind(day);
    return known != m_beginnings.constEnd() ? *known
                                            : m_beginnings[day] = offsetAt(day * SecondsPerDay);
}
