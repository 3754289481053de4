#pragma once

#include <functional>
#include <optional>
#include <QHash>
#include <QString>
#include <vector>

// When tasks start: pure calculation, no clock, no database. Any thread.

/// Seconds east of UTC that hold at a moment (seconds since 1970-01-01 UTC).
using UtcOffset = std::function<int(qint64 epoch)>;

/// The offset of the process's own time zone.
int localUtcOffset(qint64 epoch);

/// One whole second of the wall clock.
struct ScheduleSecond {
    qint64 epoch = 0;      ///< seconds since 1970-01-01 UTC
    int secondOfDay = 0;   ///< local time of day, 0 to 86399
    int weekday = 1;       ///< local, Monday 1 to Sunday 7
    qint64 day = 0;        ///< whole days since 1970-01-01, counted in UTC
    bool repeated = false; ///< an earlier second had this local time: the clock was turned back for winter
};

/// Local times of one day that no second had, because the clock was turned forward over them.
struct SkippedTimes {
    int first = 0; ///< second of the day
    int last = 0;  ///< second of the day, included
    int weekday = 1;
    qint64 day = 0;
};

/// Turns seconds of the epoch into local time by a zone's rules.
class LocalTime {
public:
    explicit LocalTime(UtcOffset offset = localUtcOffset)
        : m_offset(std::move(offset)) {}
    ScheduleSecond at(qint64 epoch) const;
    /// What was skipped between the second before `epoch` and `epoch`; nearly always nothing.
    std::vector<SkippedTimes> skippedBefore(qint64 epoch) const;

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
    /// A tick this late still handles what it missed; beyond it, and for a clock set back by more,
    /// the clock was changed, and counting begins again at the present second.
    static constexpr int MaxCatchUp = 60;

    /// The first second handled is the one after `epoch`.
    explicit SecondSequence(qint64 epoch)
        : m_last(epoch) {}

    struct Due {
        qint64 first = 1; ///< seconds of the epoch; nothing is due when first > last
        qint64 last = 0;
        qint64 jump = 0; ///< seconds by which the clock left the sequence, 0 when it did not
    };
    Due due(qint64 now);
    void handled(qint64 second) { m_last = second; }

private:
    qint64 m_last;
};

/// Remembers the scheduled starts of the last minute of real time, so that a clock set back and
/// forth can't start a task twice.
class StartGuard {
public:
    static constexpr qint64 MinimumGap = 60000; ///< ms between two scheduled starts of one task and time

    /// False when that task already started at that time of day less than MinimumGap ago.
    bool admit(int taskid, int startTime, qint64 steadyMs);

private:
    QHash<qint64, qint64> m_started; ///< task and time to the steady clock's ms
};
