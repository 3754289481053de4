#pragma once

#include "tasks/belloutcome.h"
#include "tasks/taskruns.h"

#include <optional>
#include <set>
#include <utility>
#include <vector>

class sqlite;

/// Which bells have their row in the journal, so that each has one: what is looked at a second time, after a
/// start or by a changed clock, is not told again, and what a process claimed and never told is. Main loop
/// only.
class ToldBells {
public:
    explicit ToldBells(sqlite* database)
        : m_database(database) {}

    /// Reads the rows written from `since` on, s since 1970-01-01 UTC. False when the database does not
    /// answer.
    bool load(qint64 since);
    /// False when it was told before.
    bool add(qint64 schedule, qint64 due) { return m_told.emplace(schedule, due).second; }
    /// What became of those runs that have no row; nullopt when the database does not answer.
    std::optional<std::vector<BellOutcome>> untold(const std::vector<TaskRuns::Run>& runs,
                                                   qint64 since) const;
    void forgetFrom(qint64 epoch);
    void forgetBefore(qint64 epoch);

private:
    sqlite* m_database;
    std::set<std::pair<qint64, qint64>> m_told; ///< schedule and second in which it was due
};
