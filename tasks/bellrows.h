#pragma once

#include "core/sql/sqlite.h"
#include "tasks/schedule/handling.h"
#include "tasks/schedule/schedule.h"

#include <optional>
#include <QHash>
#include <QSet>

// Schedules and calendars as their rows have them, ready to be calculated with. Any thread, on its own
// database object; nullopt when the database does not answer.

/// A SELECT of tasks with all that bellRule() and missedPolicy() read; `where` begins with "WHERE".
QString selectBells(const char* where);

BellRule bellRule(const SqlResult& tasks, int row);
MissedPolicy missedPolicy(const SqlResult& tasks, int row);
/// What a schedule's own rule says of how it takes its speakers.
struct BellTerms {
    int priority = 100; ///< 0 to 255
    int volume = 0;     ///< 1 to 25; 0: as they have it
};
BellTerms bellTerms(const SqlResult& tasks, int row);
/// Those calendars that the rules go by.
QSet<qint64> calendarsOf(const std::vector<BellRule>& rules);
/// What these calendars say from `firstDay` to `lastDay`, both included.
std::optional<CalendarDays> readCalendars(sqlite& database, const QSet<qint64>& calendars, qint64 firstDay,
                                          qint64 lastDay);

/// The bells of some seconds, with the rows that they come from.
struct DueBells {
    SqlResult tasks;
    QHash<qint64, int> rows; ///< of `tasks`, by schedule
    CalendarDays calendars;
    std::vector<Bell> bells;       ///< in the order of their seconds
    std::vector<TimesOfDay> times; ///< that passed
    bool passes(int secondOfDay) const;
};
/// Of the enabled schedules of every account, from `first` to `last`, seconds since 1970-01-01 UTC.
std::optional<DueBells> readDueBells(sqlite& database, const LocalTime& localTime, const HouseRules& house,
                                     qint64 first, qint64 last);
