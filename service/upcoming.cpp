// What schedules are going to do.
#include "service/schedules.h"

#include "core/sql/sqlite.h"
#include "tasks/bellrows.h"

#include <algorithm>
#include <QDateTime>
#include <tuple>

namespace {

const QString SelectEnabled =
    selectBells("WHERE task.enable != 0 and (@owner = 0 or task.userid = @owner) ORDER BY task.id ;");

constexpr qint64 ChunkDays = 32; ///< that are laid out at once

/// The bells of some days, as far as somebody wants them: `take` returns false when it has enough.
template<typename Take>
bool eachBell(sqlite& database, const std::vector<BellRule>& rules, const HouseRules& house, qint64 from,
              qint64 until, const Take& take) {
    const LocalTime localTime;
    const auto calendars =
        readCalendars(database, calendarsOf(rules), localTime.at(from).day - 1, localTime.at(until).day + 1);
    if (!calendars)
        return false;
    const BellPlan plan(rules, *calendars, house);
    for (qint64 first = from; first <= until; first += ChunkDays * SecondsPerDay) {
        const qint64 last = std::min(until, first + ChunkDays * SecondsPerDay - 1);
        for (const Bell& bell : plan.between(localTime.days(first, last), first, last)) {
            if (!bell.isSecondPass() && !take(bell, *calendars))
                return true;
        }
    }
    return true;
}

} // namespace

bool findNext(sqlite& database, const HouseRules& house, std::vector<Schedule>& schedules) {
    std::vector<BellRule> rules;
    QHash<qint64, Schedule*> byId;
    for (Schedule& schedule : schedules) {
        if (!schedule.isEnabled)
            continue;
        rules.push_back(schedule.rule);
        byId.insert(schedule.rule.id, &schedule);
    }
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    int missing = byId.size();
    return rules.empty() || eachBell(database, rules, house, now + 1, now + FurthestPreview * SecondsPerDay,
                                     [&](const Bell& bell, const CalendarDays&) {
                                         Schedule& schedule = *byId.value(bell.schedule);
                                         if (bell.silence != Silence::None || schedule.next)
                                             return true;
                                         schedule.next = bell.at;
                                         return --missing > 0;
                                     });
}

std::optional<std::vector<UpcomingBell>> upcomingBells(sqlite& database, const Owner& owner,
                                                       const HouseRules& house, qint64 from, qint64 until,
                                                       const UpcomingPlace& after, int most) {
    const SqlResult rows = database.run(SelectEnabled, {{QStringLiteral("@owner"), owner.value_or(0)}});
    std::vector<BellRule> rules;
    for (int row = 0; row < rows.rows.size(); ++row)
        rules.push_back(bellRule(rows, row));
    std::vector<UpcomingBell> found;
    const bool isRead =
        rows.ok &&
        eachBell(database, rules, house, std::max(from, after.due), until,
                 [&](const Bell& bell, const CalendarDays& calendars) {
                     if (std::tuple(bell.at, bell.schedule) > std::tuple(after.due, after.schedule))
                         found.push_back({bell.schedule, bell.at, silenceText(bell, calendars)});
                     return static_cast<int>(found.size()) < most;
                 });
    return isRead ? std::optional(std::move(found)) : std::nullopt;
}
