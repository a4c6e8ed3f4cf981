/// @file
/// When a local date and time was, without a look at the time zone for each.
#pragma once

#include <QDateTime>
#include <QHash>

/// Converts many local times of one column. The C library looks its zone up for each conversion,
/// and where TZ is not set asks the file system for changes of it; here one answer holds for all
/// times of a day without a change of the clock. Made for one piece of work: a zone that is changed
/// later is not noticed. Any thread, one at a time.
class LocalClock
{
public:
    /// Finds the milliseconds since the epoch, as QDateTime has them.
    /// @return false where only QDateTime can tell: on days on which, or next to which, the clock
    /// is changed, before 1970, after 2037, in a time zone of the value's own, and for
    /// what is invalid
    bool toEpochMs(const QDateTime &time, double *ms);
    /// The same of the beginning of a day.
    bool toEpochMs(const QDate &date, double *ms);

private:
    static constexpr qint64 NoOffset = -1; ///< in seconds: no zone has it

    bool offsetOn(qint64 day, qint64 *seconds);
    qint64 lookUp(qint64 day);
    qint64 beginningOf(qint64 day);

    QHash<qint64, qint64> m_offsets;    ///< by the day since the epoch; NoOffset: it changes
    QHash<qint64, qint64> m_beginnings; ///< by the day, in Greenwich
    qint64 m_day = 0;                   ///< the last one that was asked for
    qint64 m_offset = NoOffset;
    bool m_isReady = false;
};
