#pragma once

#include "service/calendars.h"

// Plans: schedules that belong together. Any thread that may block, on its own database object; nullopt when
// the database does not answer.

struct SchedulePlan {
    qint64 id = 0;
    qint64 owner = 0;
    QString name;
    bool isExceptional = false; ///< rings only on days whose calendar entry names it
};

/// At most `most` by ascending ids, only those behind `after`.
std::optional<std::vector<SchedulePlan>> listPlans(sqlite& database, const Owner& owner, qint64 after,
                                                   int most);
std::optional<std::optional<SchedulePlan>> findPlan(sqlite& database, const Owner& owner, qint64 id);
/// `plan.id` is set for a new one, which has 0.
bool storePlan(sqlite& database, SchedulePlan& plan);
/// Its schedules stay, without a plan.
bool removePlan(sqlite& database, qint64 id);
/// Whether an entry of a calendar names it.
std::optional<bool> isPlanNamed(sqlite& database, qint64 id);
