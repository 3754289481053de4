#pragma once

#include "tasks/schedule/calendardays.h"
#include "tasks/schedule/localtime.h"

#include <optional>
#include <QString>
#include <vector>

// When bells ring and when they do not: the one calculation, for the task queue and for every preview. Pure:
// no clock, no database. Any thread.

/// What decides when a schedule rings.
struct BellRule {
    qint64 id = 0;
    int startTime = 0;        ///< seconds since local midnight
    qint64 startdate = 0;     ///< days since 1970-01-01, 0 unbounded
    qint64 enddate = 0;       ///< the same, included
    QString week;             ///< seven characters, Monday first; any other length enables all days
    bool localDates = false;  ///< "today" of the two dates is the local date, else the day in UTC
    qint64 plan = 0;          ///< 0 none
    bool exceptional = false; ///< the plan rings only on days whose calendar entry names it
    qint64 calendar = 0;      ///< 0: every day is an ordinary one
};

/// Why a bell that is due does not ring.
enum class Silence { None, OutsideSpan, Calendar, NoSuchTime };

/// A schedule's time on one local date.
struct Bell {
    qint64 schedule = 0;
    qint64 at =
        0; ///< second of the epoch in which it rings; for a time that is skipped the one after the gap
    qint64 due =
        0; ///< names it: `at`, or in the second pass of an hour that comes twice the second of the first
    Silence silence = Silence::None;
    qint64 calendar = 0; ///< that keeps it silent
    bool isSecondPass() const { return at != due; }
};

/// The daily working span, seconds since local midnight.
struct WorkingSpan {
    int from = 0;
    int to = 86399;
    bool contains(int secondOfDay) const { return secondOfDay >= from && secondOfDay <= to; }
    bool strictlyContains(int secondOfDay) const { return secondOfDay > from && secondOfDay < to; }
};

/// What holds for every schedule.
struct HouseRules {
    WorkingSpan span;
    bool ringsAfterGap = false; ///< a time that does not exist rings at the first second after the gap
};

/// The schedules' bells, day by day. Keeps references: rules and calendars must outlive it.
class BellPlan {
public:
    /// `calendars` covers the days that are asked for.
    BellPlan(const std::vector<BellRule>& rules, const CalendarDays& calendars, const HouseRules& house);

    /// The bells of a local day, by `at` and then by schedule; those of a second pass are among them.
    std::vector<Bell> on(const LocalDay& day) const;
    /// The bells with `at` from `first` to `last`, in the same order.
    std::vector<Bell> between(const std::vector<LocalDay>& days, qint64 first, qint64 last) const;

private:
    struct Entry {
        const BellRule* rule;
        unsigned weekdays; ///< bit 0 Monday
    };
    void addBell(std::vector<Bell>& bells, const Entry& entry, const LocalDay& day, int weekday) const;
    const CalendarDays& m_calendars;
    const HouseRules m_house;
    std::vector<Entry> m_entries; ///< by time of day and id
};

/// The local times of day that pass from `first` to `last`, those that are skipped there included: what a
/// reader of schedules has to look at.
struct TimesOfDay {
    int first = 0;
    int last = 0; ///< included
};
std::vector<TimesOfDay> timesBetween(const std::vector<LocalDay>& days, qint64 first, qint64 last);

/// In words; empty for a bell that rings.
QString silenceText(const Bell& bell, const CalendarDays& calendars);
