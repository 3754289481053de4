#pragma once

#include "service/calendars.h"
#include "service/targets.h"
#include "tasks/schedule/handling.h"
#include "tasks/schedule/schedule.h"

#include <QSet>

// Schedules of accounts: rows of `task`, with what only newer interfaces know in `taskrule`, groups in
// `taskaim`. Any thread that may block, on its own database object; nullopt when the database does not
// answer.

struct LastBell {
    qint64 due = 0; ///< ms since 1970-01-01 UTC; 0: none
    QString state;  ///< as the journal has it: played, late or skipped
};

struct Schedule {
    qint64 owner = 0;
    QString name;
    bool isEnabled = true;
    BellRule rule;
    QList<qint64> sounds;
    int repeat = 1;
    std::optional<int> seconds; ///< nothing: as long as its sounds take
    Targets targets;
    std::optional<int> volume;
    std::optional<int> priority;
    MissedPolicy missed;
    std::optional<qint64> next; ///< when it rings, s since 1970-01-01 UTC, within 400 days; read only
    LastBell last;              ///< read only
};

constexpr int UsualPriority = 100;
constexpr qint64 FurthestPreview = 400; ///< days

/// At most `most` by ascending ids, only those behind `after`.
std::optional<std::vector<Schedule>> listSchedules(sqlite& database, const Owner& owner,
                                                   const HouseRules& house, qint64 after, int most);
std::optional<std::optional<Schedule>> findSchedule(sqlite& database, const Owner& owner,
                                                    const HouseRules& house, qint64 id);
/// Fills in when each rings next. False when the database does not answer.
bool findNext(sqlite& database, const HouseRules& house, std::vector<Schedule>& schedules);
/// `schedule.rule.id` is set for a new one, which has 0.
bool storeSchedule(sqlite& database, Schedule& schedule);
bool removeSchedule(sqlite& database, qint64 id);

enum class Asked { Done, Busy, Failed };
/// Asks the task queue to play the schedule now. Busy: it plays or is about to.
Asked askStart(sqlite& database, const Schedule& schedule);
Asked askStop(sqlite& database, const Schedule& schedule);

/// Those of the ids that are sounds of these accounts; of everybody for nullopt.
std::optional<QSet<qint64>> soundsAmong(sqlite& database, const std::optional<QList<qint64>>& owners,
                                        const QList<qint64>& ids);

/// Serials of the targets as they are now, as far as the account may play to them: for when a sound starts.
std::optional<QStringList> speakersOf(sqlite& database, qint64 account, const Targets& targets);

/// A bell that is to come.
struct UpcomingBell {
    qint64 schedule = 0;
    qint64 due = 0; ///< s since 1970-01-01 UTC
    QString reason; ///< why it will not ring; empty when it does
};
/// Where a part of the list begins: behind this bell.
struct UpcomingPlace {
    qint64 due = 0;
    qint64 schedule = 0;
};
/// At most `most` bells of the enabled schedules from `from` to `until`, both included, by `due` and then by
/// schedule.
std::optional<std::vector<UpcomingBell>> upcomingBells(sqlite& database, const Owner& owner,
                                                       const HouseRules& house, qint64 from, qint64 until,
                                                       const UpcomingPlace& after, int most);
