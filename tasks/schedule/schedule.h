#pragma once

#include <functional>
#include <optional>
#include <QHash>
#include <QSet>
#include <QString>
#include <vector>

// When tasks start: pure calculation, no clock, no database. Any thread.

/// Seconds east of UTC that hold at a moment (seconds since 1970-01-01 UTC).
using UtcOffset = std::function<int(qint64 epoch)>;

/// The offset of the process's own time zone.
int localUtcOffset(qint64 epoch);

/// One whole second of the wall clock.
struct ScheduleSecond {
    qint64 epoch = 0;    ///< seconds since 1970-01-01 UTC
    int secondOfDay = 0; ///< local time of day, 0 to 86399
    int weekday = 1;     ///< local, Monday 1 to Sunday 7
    qint64 day = 0;      ///< whole days since 1970-01-01, counted in UTC
    qint64 localDay = 0; ///< the same, counted by local dates
    /// The earlier second that had this local time: the clock was turned back for winter.
    std::optional<qint64> firstPass;
};

/// Local times of one day that no second had, because the clock was turned forward over them.
struct SkippedTimes {
    int first = 0; ///< second of the day
    int last = 0;  ///< second of the day, included
    int weekday = 1;
    qint64 day = 0;
};

/// Seconds that follow each other, each 1 s later than the last by the local clock too, on one local day.
struct LocalStretch {
    qint64 first = 0; ///< seconds since 1970-01-01 UTC
    qint64 last = 0;  ///< included
    int firstSecondOfDay = 0;
    int lastSecondOfDay() const { return firstSecondOfDay + static_cast<int>(last - first); }
    qint64 epochOf(int secondOfDay) const { return first + secondOfDay - firstSecondOfDay; }
};

/// Turns seconds of the epoch into local time by a zone's rules.
class LocalTime {
public:
    explicit LocalTime(UtcOffset offset = localUtcOffset)
        : m_offset(std::move(offset)) {}
    ScheduleSecond at(qint64 epoch) const;
    /// What was skipped between the second before `epoch` and `epoch`; nearly always nothing.
    std::vector<SkippedTimes> skippedBefore(qint64 epoch) const;
    /// The seconds from `first` to `last`, cut where the local clock jumps or its date changes.
    std::vector<LocalStretch> stretches(qint64 first, qint64 last) const;

private:
    UtcOffset m_offset;
};

/// What decides whether a task starts; the columns of its row.
struct TaskTimes {
    int startTime = 0;    ///< seconds since local midnight
    qint64 startdate = 0; ///< days since 1970-01-01, 0 unbounded
    qint64 enddate = 0;   ///< the same, included
    QString week;         ///< seven characters, Monday first; any other length enables all days
};

/// Whether the task's time, dates and weekday name this second.
bool isDue(const TaskTimes& task, const ScheduleSecond& second);
/// The same for a time of day that the clock skipped.
bool isDueIn(const TaskTimes& task, const SkippedTimes& skipped);

/// The daily working span, seconds since local midnight.
struct WorkingSpan {
    int from = 0;
    int to = 86399;
    bool contains(int secondOfDay) const { return secondOfDay >= from && secondOfDay <= to; }
    bool strictlyContains(int secondOfDay) const { return secondOfDay > from && secondOfDay < to; }
};

/// Which whole seconds each tick handles: every one since the last that was handled, once.
class SecondSequence {
public:
    /// A tick this late still handles all that it missed, a later one the last of it. A clock set back by
    /// more was changed, and counting begins again at the present second.
    static constexpr int MaxCatchUp = 60;

    /// The first second handled is the one after `epoch`.
    explicit SecondSequence(qint64 epoch)
        : m_last(epoch) {}

    struct Due {
        qint64 first = 1; ///< seconds of the epoch; nothing is due when first > last
        qint64 last = 0;
        qint64 lostFirst = 1; ///< seconds that are too old to be handled; none when lostFirst > lostLast
        qint64 lostLast = 0;
        qint64 setBack = 0; ///< seconds by which the clock was set back, 0 when it was not
    };
    Due due(qint64 now);
    void handled(qint64 second) { m_last = second; }

private:
    qint64 m_last;
};

/// Remembers scheduled starts, so that no clock set back can start a task twice: it has had its start for
/// its time of day and local date.
class StartGuard {
public:
    /// Real time for which a date is remembered after its last start.
    static constexpr qint64 Memory = 48 * 3600 * qint64{1000};

    /// False when that task has had its start at that time of day on that date.
    bool admit(int taskid, int startTime, qint64 localDay, qint64 steadyMs);
    bool hasStarted(int taskid, int startTime, qint64 localDay) const;

private:
    struct Date {
        QSet<qint64> started; ///< task and time
        qint64 lastUsed = 0;  ///< steady ms
    };
    QHash<qint64, Date> m_dates; ///< by local day
};
