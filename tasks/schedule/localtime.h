#pragma once

#include <functional>
#include <QtGlobal>
#include <vector>

// Local days and the seconds that they consist of. Pure: no clock. Any thread.

constexpr qint64 SecondsPerDay = 86400;

/// Rounds towards the past.
qint64 floorDiv(qint64 value, qint64 divisor);
/// Monday 1 to Sunday 7; `day` counts local dates since 1970-01-01.
int weekdayOf(qint64 day);

/// Seconds east of UTC that hold at a moment (seconds since 1970-01-01 UTC).
using UtcOffset = std::function<int(qint64 epoch)>;

/// The offset of the process's own time zone.
int localUtcOffset(qint64 epoch);

/// A second by the local clock.
struct LocalSecond {
    qint64 day = 0;      ///< local date, days since 1970-01-01
    int secondOfDay = 0; ///< 0 to 86399
};

/// Seconds that follow each other, each 1 s later than the last by the local clock too, on one local day.
struct LocalStretch {
    qint64 first = 0; ///< seconds since 1970-01-01 UTC
    qint64 last = 0;  ///< included
    qint64 day = 0;
    int firstSecondOfDay = 0;
    int lastSecondOfDay() const { return firstSecondOfDay + static_cast<int>(last - first); }
    qint64 epochOf(int secondOfDay) const { return first + secondOfDay - firstSecondOfDay; }
    bool contains(int secondOfDay) const {
        return secondOfDay >= firstSecondOfDay && secondOfDay <= lastSecondOfDay();
    }
};

/// Local times of one day that no second has, because the clock is turned forward over them.
struct SkippedTimes {
    int first = 0;    ///< second of the day
    int last = 0;     ///< included
    qint64 after = 0; ///< the second of the epoch that follows the gap
};

/// One local date, whole. An ordinary one is a single stretch of 86400 seconds.
struct LocalDay {
    qint64 day = 0;
    std::vector<LocalStretch> stretches; ///< in the order in which they pass
    std::vector<SkippedTimes> skipped;
};

/// Turns seconds of the epoch into local time by a zone's rules.
class LocalTime {
public:
    explicit LocalTime(UtcOffset offset = localUtcOffset)
        : m_offset(std::move(offset)) {}
    LocalSecond at(qint64 epoch) const;
    int offset(qint64 epoch) const { return m_offset(epoch); }
    /// The seconds from `first` to `last`, cut where the local clock jumps or its date changes.
    std::vector<LocalStretch> stretches(qint64 first, qint64 last) const;
    /// The local days of which something passes from `first` to `last`, by date. A date that the zone
    /// leaves out is among them, without stretches.
    std::vector<LocalDay> days(qint64 first, qint64 last) const;

private:
    UtcOffset m_offset;
};
