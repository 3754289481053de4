#include "service/schedules.h"

#include "core/sql/sqlite.h"
#include "tasks/bellrows.h"

#include <QHash>

namespace {

const QString SelectSchedules = selectBells(
    "WHERE task.id > @after and (@owner = 0 or task.userid = @owner) ORDER BY task.id LIMIT @most ;");
const QString SelectSchedule = selectBells("WHERE task.id = @id and (@owner = 0 or task.userid = @owner) ;");

const QString SelectSounds =
    QStringLiteral("SELECT taskid, fileid AS value FROM taskfile WHERE taskid IN (@ids) ORDER BY id ;");
const QString SelectSpeakers = QStringLiteral(
    "SELECT taskseed.taskid AS taskid, sbox_device_info.device_seed AS value FROM taskseed, sbox_device_info "
    "WHERE taskseed.taskid IN (@ids) and sbox_device_info.id = taskseed.devseedid ORDER BY taskseed.id ;");
const QString SelectGroups =
    QStringLiteral("SELECT taskid, gid AS value FROM taskaim WHERE taskid IN (@ids) ORDER BY id ;");
const QString SelectLast = QStringLiteral(
    "SELECT journal.schedule AS taskid, journal.due AS value, journal.state AS state FROM journal, (SELECT "
    "schedule, MAX(due) AS due FROM journal WHERE schedule IN (@ids) and kind = 'bell' and state IN "
    "('played', 'late', 'skipped') GROUP BY schedule) AS latest WHERE journal.schedule = latest.schedule and "
    "journal.due = latest.due and journal.kind = 'bell' and journal.state IN ('played', 'late', 'skipped') "
    "ORDER BY journal.id ;");

SqlArg named(const char* name, qint64 value) {
    return {QLatin1String(name), value};
}

std::optional<int> numberOrNull(const SqlResult& rows, int row, const char* column) {
    const QVariant value = rows.value(row, column);
    return value.isNull() ? std::nullopt : std::optional<int>(value.toInt());
}

Schedule scheduleOf(const SqlResult& rows, int row) {
    Schedule schedule;
    schedule.owner = rows.value(row, "userid").toLongLong();
    schedule.name = rows.text(row, "task_name");
    schedule.isEnabled = rows.integer(row, "enable") != 0;
    schedule.rule = bellRule(rows, row);
    schedule.repeat = rows.integer(row, "kind");
    if (rows.integer(row, "whole") == 0)
        schedule.seconds = rows.integer(row, "len");
    schedule.targets.isAll = rows.integer(row, "everyone") != 0;
    schedule.volume = numberOrNull(rows, row, "volume");
    schedule.priority = numberOrNull(rows, row, "priority");
    schedule.missed = missedPolicy(rows, row);
    return schedule;
}

/// Adds to each schedule what other tables hold of it.
class Details {
public:
    Details(sqlite& database, std::vector<Schedule>& schedules)
        : m_database(database) {
        for (Schedule& schedule : schedules) {
            m_ids += schedule.rule.id;
            m_byId.insert(schedule.rule.id, &schedule);
        }
    }
    bool read() {
        return m_ids.isEmpty() ||
               (add(SelectSounds, [](Schedule& one, const QVariant& id) { one.sounds += id.toLongLong(); }) &&
                add(SelectSpeakers,
                    [](Schedule& one, const QVariant& sn) { one.targets.speakers += sn.toString(); }) &&
                add(SelectGroups,
                    [](Schedule& one, const QVariant& id) { one.targets.groups += id.toLongLong(); }) &&
                addLast());
    }

private:
    template<typename Put>
    bool add(const QString& statement, const Put& put) {
        const SqlResult rows = m_database.run(statement, {{QStringLiteral("@ids"), m_ids}});
        for (int row = 0; row < rows.rows.size(); ++row)
            put(*m_byId.value(rows.value(row, "taskid").toLongLong()), rows.value(row, "value"));
        return rows.ok;
    }
    bool addLast() {
        const SqlResult rows = m_database.run(SelectLast, {{QStringLiteral("@ids"), m_ids}});
        for (int row = 0; row < rows.rows.size(); ++row)
            m_byId.value(rows.value(row, "taskid").toLongLong())->last = {
                rows.value(row, "value").toLongLong(), rows.text(row, "state")};
        return rows.ok;
    }
    sqlite& m_database;
    QList<qint64> m_ids;
    QHash<qint64, Schedule*> m_byId;
};

std::optional<std::vector<Schedule>> schedulesOf(sqlite& database, const HouseRules& house,
                                                 const SqlResult& rows) {
    std::vector<Schedule> schedules;
    schedules.reserve(static_cast<size_t>(rows.rows.size()));
    for (int row = 0; row < rows.rows.size(); ++row)
        schedules.push_back(scheduleOf(rows, row));
    if (!rows.ok || !Details(database, schedules).read() || !findNext(database, house, schedules))
        return std::nullopt;
    return schedules;
}

} // namespace

std::optional<std::vector<Schedule>> listSchedules(sqlite& database, const Owner& owner,
                                                   const HouseRules& house, qint64 after, int most) {
    return schedulesOf(database, house,
                       database.run(SelectSchedules, {named("@after", after), named("@most", most),
                                                      named("@owner", owner.value_or(0))}));
}

std::optional<std::optional<Schedule>> findSchedule(sqlite& database, const Owner& owner,
                                                    const HouseRules& house, qint64 id) {
    const auto found =
        schedulesOf(database, house,
                    database.run(SelectSchedule, {named("@id", id), named("@owner", owner.value_or(0))}));
    if (!found)
        return std::nullopt;
    return found->empty() ? std::optional<Schedule>() : std::optional<Schedule>(found->front());
}
