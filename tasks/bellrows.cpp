#include "tasks/bellrows.h"

#include <algorithm>

namespace {

const QString SelectBetween =
    selectBells("WHERE task.start_time >= '@first' and task.start_time <= '@last' and task.enable != 0 ;");
const QString SelectCalendars = QStringLiteral("SELECT id, name FROM calendar WHERE id IN (@ids) ;");
const QString SelectEntries =
    QStringLiteral("SELECT id, calendarid, firstday, lastday, planid FROM calendarentry WHERE calendarid IN "
                   "(@ids) and lastday >= @first and firstday <= @last ;");

std::optional<qint64> numberOrNull(const SqlResult& rows, int row, const char* column) {
    const QVariant value = rows.value(row, column);
    return value.isNull() ? std::nullopt : std::optional<qint64>(value.toLongLong());
}

bool append(SqlResult& all, const SqlResult& more) {
    all.ok = more.ok;
    all.columns = more.columns;
    all.rows += more.rows;
    return more.ok;
}

} // namespace

QString selectBells(const char* where) {
    return QStringLiteral(
               "SELECT task.*, taskrule.calendarid, taskrule.missed, taskrule.localdates, taskrule.everyone, "
               "taskrule.whole, taskrule.volume, taskrule.priority, planrule.exceptional FROM task LEFT JOIN "
               "taskrule ON taskrule.taskid = task.id LEFT JOIN planrule ON planrule.planid = "
               "task.groupid ") +
           QLatin1String(where);
}

BellRule bellRule(const SqlResult& tasks, int row) {
    BellRule rule;
    rule.id = tasks.value(row, "id").toLongLong();
    rule.startTime = tasks.integer(row, "start_time");
    rule.startdate = tasks.value(row, "startdate").toLongLong();
    rule.enddate = tasks.value(row, "enddate").toLongLong();
    rule.week = tasks.text(row, "week");
    rule.localDates = tasks.integer(row, "localdates") != 0;
    rule.plan = tasks.value(row, "groupid").toLongLong();
    rule.exceptional = tasks.integer(row, "exceptional") != 0;
    rule.calendar = tasks.value(row, "calendarid").toLongLong();
    return rule;
}

MissedPolicy missedPolicy(const SqlResult& tasks, int row) {
    const auto within = numberOrNull(tasks, row, "missed");
    return {within ? std::optional<int>(std::clamp<qint64>(*within, 0, MissedPolicy::Longest))
                   : std::nullopt};
}

BellTerms bellTerms(const SqlResult& tasks, int row) {
    constexpr qint64 Highest = 255;
    constexpr qint64 Loudest = 25;
    BellTerms terms;
    terms.priority = static_cast<int>(
        std::clamp<qint64>(numberOrNull(tasks, row, "priority").value_or(terms.priority), 0, Highest));
    terms.volume = static_cast<int>(
        std::clamp<qint64>(numberOrNull(tasks, row, "volume").value_or(terms.volume), 0, Loudest));
    return terms;
}

QSet<qint64> calendarsOf(const std::vector<BellRule>& rules) {
    QSet<qint64> calendars;
    for (const BellRule& rule : rules) {
        if (rule.calendar != 0)
            calendars.insert(rule.calendar);
    }
    return calendars;
}

std::optional<CalendarDays> readCalendars(sqlite& database, const QSet<qint64>& calendars, qint64 firstDay,
                                          qint64 lastDay) {
    CalendarDays days(firstDay, lastDay);
    if (calendars.isEmpty())
        return days;
    const SqlArg ids{QStringLiteral("@ids"), QList<qint64>(calendars.begin(), calendars.end())};
    const SqlResult names = database.run(SelectCalendars, {ids});
    const SqlResult entries = database.run(
        SelectEntries, {ids, {QStringLiteral("@first"), firstDay}, {QStringLiteral("@last"), lastDay}});
    if (!names.ok || !entries.ok)
        return std::nullopt;
    QHash<qint64, std::vector<CalendarEntry>> byCalendar;
    for (int row = 0; row < entries.rows.size(); ++row)
        byCalendar[entries.value(row, "calendarid").toLongLong()].push_back(
            {entries.value(row, "id").toLongLong(), entries.value(row, "firstday").toLongLong(),
             entries.value(row, "lastday").toLongLong(), numberOrNull(entries, row, "planid")});
    for (int row = 0; row < names.rows.size(); ++row) {
        const qint64 id = names.value(row, "id").toLongLong();
        days.add(id, names.text(row, "name"), std::move(byCalendar[id]));
    }
    return days;
}

bool DueBells::passes(int secondOfDay) const {
    return std::any_of(times.begin(), times.end(), [secondOfDay](const TimesOfDay& part) {
        return part.first <= secondOfDay && secondOfDay <= part.last;
    });
}

std::optional<DueBells> readDueBells(sqlite& database, const LocalTime& localTime, const HouseRules& house,
                                     qint64 first, qint64 last) {
    const std::vector<LocalDay> days = localTime.days(first, last);
    DueBells due{{}, {}, CalendarDays(0, -1), {}, timesBetween(days, first, last)};
    // Of more than a day every schedule is looked at, and once.
    int length = 0;
    for (const TimesOfDay& part : due.times)
        length += part.last - part.first + 1;
    const std::vector<TimesOfDay> parts =
        length >= SecondsPerDay ? std::vector<TimesOfDay>{{0, static_cast<int>(SecondsPerDay) - 1}}
                                : due.times;
    for (const TimesOfDay& part : parts) {
        if (!append(due.tasks, database.run(SelectBetween, {{QStringLiteral("@first"), part.first},
                                                            {QStringLiteral("@last"), part.last}})))
            return std::nullopt;
    }
    std::vector<BellRule> rules;
    for (int row = 0; row < due.tasks.rows.size(); ++row) {
        BellRule rule = bellRule(due.tasks, row);
        if (due.rows.contains(rule.id))
            continue;
        due.rows.insert(rule.id, row);
        rules.push_back(std::move(rule));
    }
    if (rules.empty())
        return due;
    auto calendars = readCalendars(database, calendarsOf(rules), days.front().day, days.back().day);
    if (!calendars)
        return std::nullopt;
    due.calendars = std::move(*calendars);
    due.bells = BellPlan(rules, due.calendars, house).between(days, first, last);
    return due;
}
