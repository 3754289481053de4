// Tasks that do not ring: their time of day does not exist, or nobody was there to see it pass.
#include "tasks/task_workque.h"

#include "tasks/schedule/tasktime.h"

#include "core/sql/sqlite.h"

#include <QDebug>

namespace {

constexpr qint64 LongestNamed = 86400; ///< of a longer time every task is lost
constexpr size_t MaxLost = 16;         ///< stretches that wait for the database

const QString SelectBetween = QStringLiteral(
    "SELECT  *  FROM   task   where  start_time >= '@first' and start_time <= '@last' and enable != 0 ;");

SqlResult tasksBetween(sqlite& database, int first, int last) {
    return database.run(SelectBetween, {{QStringLiteral("@first"), first}, {QStringLiteral("@last"), last}});
}

void warn(const char* what, const SqlResult& tasks, int row) {
    qWarning() << what << timeOfSeconds(tasks.integer(row, "start_time")) << tasks.text(row, "task_name")
               << tasks.integer(row, "id");
}

} // namespace

void Task_workque::logSkipped(const ScheduleSecond& second) {
    for (const SkippedTimes& skipped : m_localTime.skippedBefore(second.epoch)) {
        const SqlResult tasks = tasksBetween(*m_database, skipped.first, skipped.last);
        for (int row = 0; row < tasks.rows.size(); ++row) {
            if (isDueIn(TaskReader::times(tasks, row), skipped))
                warn("task skipped: today has no", tasks, row);
        }
    }
}

void Task_workque::lose(qint64 first, qint64 last) {
    if (first > last)
        return;
    if (!m_lost.empty() && m_lost.back().last + 1 == first)
        m_lost.back().last = last;
    else if (m_lost.size() < MaxLost)
        m_lost.push_back({first, last});
}

void Task_workque::nameLost() {
    while (!m_lost.empty()) {
        const Lost lost = m_lost.front();
        const qint64 length = lost.last - lost.first + 1;
        for (const LocalStretch& stretch : length > LongestNamed
                                               ? std::vector<LocalStretch>()
                                               : m_localTime.stretches(lost.first, lost.last)) {
            if (!nameLost(stretch))
                return;
        }
        qWarning() << "task clock: seconds lost:" << length;
        m_lost.erase(m_lost.begin());
    }
}

/// False when the database does not answer.
bool Task_workque::nameLost(const LocalStretch& stretch) {
    const SqlResult tasks = tasksBetween(*m_database, stretch.firstSecondOfDay, stretch.lastSecondOfDay());
    for (int row = 0; row < tasks.rows.size(); ++row) {
        const TaskTimes times = TaskReader::times(tasks, row);
        const ScheduleSecond second = m_localTime.at(stretch.epochOf(times.startTime));
        const bool hadItsStart =
            m_handled.contains(second.epoch) || (second.firstPass && m_handled.contains(*second.firstPass)) ||
            m_guard.hasStarted(tasks.integer(row, "id"), times.startTime, second.localDay);
        if (m_span.contains(second.secondOfDay) && !hadItsStart && isDue(times, second))
            warn("task lost: its time passed unseen:", tasks, row);
    }
    return tasks.ok;
}
