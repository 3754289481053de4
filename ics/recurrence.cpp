#include "ics/recurrence.h"

#include "ics/civil.h"

#include <algorithm>
#include <libical/ical.h>
#include <set>

namespace {

constexpr qint64 Day = 86400;

using Frequency = RecurrenceRule::Frequency;

bool has(const std::vector<int>& list, int value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

template<size_t Size>
std::vector<int> listOf(const short (&values)[Size]) {
    std::vector<int> list;
    for (size_t i = 0; i < Size && values[i] != ICAL_RECURRENCE_ARRAY_MAX; ++i)
        list.push_back(values[i]);
    return list;
}

int fromMonday(int icalWeekday) {
    return (icalWeekday + 5) % 7; // Sunday 1
}

std::optional<Frequency> frequencyOf(icalrecurrencetype_frequency frequency) {
    switch (frequency) {
    case ICAL_DAILY_RECURRENCE:
        return Frequency::Daily;
    case ICAL_WEEKLY_RECURRENCE:
        return Frequency::Weekly;
    case ICAL_MONTHLY_RECURRENCE:
        return Frequency::Monthly;
    case ICAL_YEARLY_RECURRENCE:
        return Frequency::Yearly;
    default:
        return std::nullopt;
    }
}

void readUntil(const icaltimetype& until, RecurrenceRule& rule) {
    if (icaltime_is_null_time(until))
        return;
    rule.untilIsDate = until.is_date != 0;
    rule.untilIsUtc = icaltime_is_utc(until) != 0;
    rule.until = dayOf(until.year, until.month, until.day) * Day;
    if (rule.untilIsDate)
        rule.until = *rule.until + Day - 1;
    else
        rule.until = *rule.until + (until.hour * 60 + until.minute) * 60 + until.second;
}

/// The first day of the year's first week: the one with at least four days in the year.
qint64 firstWeek(int year, int weekStart) {
    const qint64 newYear = dayOf(year, 1, 1);
    const int intoWeek = (weekdayFromMonday(newYear) - weekStart + 7) % 7;
    return intoWeek <= 3 ? newYear - intoWeek : newYear - intoWeek + 7;
}

/// Tells for the days of one period which of them a rule names.
class DayFilter {
public:
    explicit DayFilter(const RecurrenceRule& rule)
        : m_rule(rule) {}

    bool takes(qint64 day) const {
        const CivilDate date = civilOf(day);
        return (m_rule.months.empty() || has(m_rule.months, date.month)) && takesMonthDay(date) &&
               takesYearDay(day, date) && takesWeek(day, date) && takesWeekday(day, date);
    }

private:
    bool takesMonthDay(const CivilDate& date) const {
        return m_rule.monthDays.empty() || has(m_rule.monthDays, date.day) ||
               has(m_rule.monthDays, date.day - daysInMonth(date.year, date.month) - 1);
    }
    bool takesYearDay(qint64 day, const CivilDate& date) const {
        if (m_rule.yearDays.empty())
            return true;
        const int number = static_cast<int>(day - dayOf(date.year, 1, 1)) + 1;
        return has(m_rule.yearDays, number) ||
               has(m_rule.yearDays, number - (isLeapYear(date.year) ? 366 : 365) - 1);
    }
    bool takesWeek(qint64 day, const CivilDate& date) const {
        if (m_rule.weeks.empty())
            return true;
        // A week belongs to the year that holds most of it, and the rule looks at both.
        for (int year = date.year - 1; year <= date.year + 1; ++year) {
            const qint64 first = firstWeek(year, m_rule.weekStart);
            const qint64 end = firstWeek(year + 1, m_rule.weekStart);
            if (day < first || day >= end)
                continue;
            const int number = static_cast<int>((day - first) / 7) + 1;
            const int count = static_cast<int>((end - first) / 7);
            return has(m_rule.weeks, number) || has(m_rule.weeks, number - count - 1);
        }
        return false;
    }
    bool takesWeekday(qint64 day, const CivilDate& date) const {
        if (m_rule.days.empty())
            return true;
        const int weekday = weekdayFromMonday(day);
        return std::any_of(m_rule.days.begin(), m_rule.days.end(), [&](const RuleDay& wanted) {
            return wanted.weekday == weekday && (wanted.nth == 0 || isNth(wanted.nth, day, date));
        });
    }
    bool isNth(int nth, qint64 day, const CivilDate& date) const {
        const bool ofYear = m_rule.frequency == Frequency::Yearly && m_rule.months.empty();
        const qint64 first = ofYear ? dayOf(date.year, 1, 1) : dayOf(date.year, date.month, 1);
        const qint64 last =
            ofYear ? dayOf(date.year, 12, 31) : first + daysInMonth(date.year, date.month) - 1;
        return nth > 0 ? (day - first) / 7 + 1 == nth : (last - day) / 7 + 1 == -nth;
    }
    const RecurrenceRule& m_rule;
};

/// What the rule leaves open stands in its start.
RecurrenceRule completed(RecurrenceRule rule, qint64 start) {
    const qint64 day = (start >= 0 ? start : start - Day + 1) / Day;
    const CivilDate date = civilOf(day);
    if (rule.weeks.empty() && rule.yearDays.empty() && rule.monthDays.empty() && rule.days.empty()) {
        if (rule.frequency == Frequency::Yearly && rule.months.empty())
            rule.months = {date.month};
        if (rule.frequency == Frequency::Yearly || rule.frequency == Frequency::Monthly)
            rule.monthDays = {date.day};
        if (rule.frequency == Frequency::Weekly)
            rule.days = {{weekdayFromMonday(day), 0}};
    }
    // The nth weekday means something in months and years only.
    for (RuleDay& wanted : rule.days) {
        if (rule.frequency != Frequency::Monthly && rule.frequency != Frequency::Yearly)
            wanted.nth = 0;
    }
    return rule;
}

/// The periods of a rule, one after the other.
class Periods {
public:
    Periods(const RecurrenceRule& rule, qint64 startDay)
        : m_rule(rule)
        , m_date(civilOf(startDay))
        , m_start(startDay)
        , m_first(rule.frequency == Frequency::Weekly
                      ? startDay - (weekdayFromMonday(startDay) - rule.weekStart + 7) % 7
                      : startDay) {}

    qint64 first() const {
        switch (m_rule.frequency) {
        case Frequency::Yearly:
            return dayOf(m_date.year, 1, 1);
        case Frequency::Monthly:
            return dayOf(m_date.year, m_date.month, 1);
        default:
            return m_first;
        }
    }
    std::vector<qint64> days(const DayFilter& filter) const {
        std::vector<qint64> found;
        const auto add = [&](qint64 from, qint64 count) {
            for (qint64 day = from; day < from + count; ++day) {
                if (filter.takes(day))
                    found.push_back(day);
            }
        };
        if (m_rule.frequency == Frequency::Daily) {
            add(m_first, 1);
        } else if (m_rule.frequency == Frequency::Weekly) {
            const qint64 from = std::max(m_first, m_start); // the first week begins with the start
            add(from, m_first + 7 - from);
        } else if (m_rule.frequency == Frequency::Monthly) {
            add(first(), daysInMonth(m_date.year, m_date.month));
        } else {
            for (int month = 1; month <= 12; ++month) {
                if (m_rule.months.empty() || has(m_rule.months, month))
                    add(dayOf(m_date.year, month, 1), daysInMonth(m_date.year, month));
            }
        }
        return found;
    }
    void next() {
        switch (m_rule.frequency) {
        case Frequency::Yearly:
            m_date.year += m_rule.interval;
            break;
        case Frequency::Monthly: {
            const int months = m_date.month - 1 + m_rule.interval;
            m_date.year += months / 12;
            m_date.month = months % 12 + 1;
            break;
        }
        case Frequency::Weekly:
            m_first += 7 * qint64{m_rule.interval};
            break;
        case Frequency::Daily:
            m_first += m_rule.interval;
            break;
        }
    }

private:
    const RecurrenceRule& m_rule;
    CivilDate m_date;
    const qint64 m_start;
    qint64 m_first;
};

std::vector<int> timesOfDay(const RecurrenceRule& rule, qint64 start) {
    const int time = static_cast<int>(((start % Day) + Day) % Day);
    const auto orOwn = [](const std::vector<int>& list, int own) {
        return list.empty() ? std::vector<int>{own} : list;
    };
    std::set<int> times;
    for (const int hour : orOwn(rule.hours, time / 3600)) {
        for (const int minute : orOwn(rule.minutes, time / 60 % 60)) {
            for (const int second : orOwn(rule.seconds, time % 60))
                times.insert((hour * 60 + minute) * 60 + second);
        }
    }
    return {times.begin(), times.end()};
}

std::vector<qint64> atPositions(const std::vector<qint64>& all, const std::vector<int>& positions) {
    if (positions.empty())
        return all;
    std::set<qint64> picked;
    const int count = static_cast<int>(all.size());
    for (const int position : positions) {
        const int index = position > 0 ? position - 1 : count + position;
        if (index >= 0 && index < count)
            picked.insert(all[static_cast<size_t>(index)]);
    }
    return {picked.begin(), picked.end()};
}

} // namespace

std::optional<RecurrenceRule> parseRule(const QByteArray& text, QByteArray& why) {
    icalrecurrencetype parsed = icalrecurrencetype_from_string(text.constData());
    icalmemory_free_buffer(parsed.rscale);
    const bool isPlain = parsed.rscale == nullptr;
    const auto frequency = frequencyOf(parsed.freq);
    RecurrenceRule rule;
    if (!frequency)
        why =
            parsed.freq == ICAL_NO_RECURRENCE ? "its rule can't be read" : "it recurs more often than daily";
    else if (!isPlain)
        why = "its rule goes by another calendar";
    if (!why.isEmpty())
        return std::nullopt;
    rule.frequency = *frequency;
    rule.interval = std::max<int>(1, parsed.interval);
    rule.count = parsed.count;
    rule.weekStart = parsed.week_start == ICAL_NO_WEEKDAY ? 0 : fromMonday(parsed.week_start);
    readUntil(parsed.until, rule);
    for (const int month : listOf(parsed.by_month))
        rule.months.push_back(icalrecurrencetype_month_month(static_cast<short>(month)));
    rule.monthDays = listOf(parsed.by_month_day);
    rule.yearDays = listOf(parsed.by_year_day);
    rule.weeks = listOf(parsed.by_week_no);
    rule.positions = listOf(parsed.by_set_pos);
    for (const int day : listOf(parsed.by_day))
        rule.days.push_back({fromMonday(icalrecurrencetype_day_day_of_week(static_cast<short>(day))),
                             icalrecurrencetype_day_position(static_cast<short>(day))});
    rule.hours = listOf(parsed.by_hour);
    rule.minutes = listOf(parsed.by_minute);
    rule.seconds = listOf(parsed.by_second);
    return rule;
}

void expandRule(const RecurrenceRule& given, qint64 start, qint64 lastDay,
                const std::function<bool(qint64 local)>& take) {
    const RecurrenceRule rule = completed(given, start);
    const DayFilter filter(rule);
    const std::vector<int> times = timesOfDay(rule, start);
    const qint64 startDay = (start >= 0 ? start : start - Day + 1) / Day;
    int count = 0;
    for (Periods periods(rule, startDay); periods.first() <= lastDay; periods.next()) {
        std::vector<qint64> all;
        for (const qint64 day : periods.days(filter)) {
            for (const int time : times)
                all.push_back(day * Day + time);
        }
        for (const qint64 local : atPositions(all, rule.positions)) {
            if (local < start)
                continue;
            if ((rule.until && local > *rule.until) || local >= (lastDay + 1) * Day || !take(local))
                return;
            if (rule.count != 0 && ++count == rule.count)
                return;
        }
        if (rule.until && periods.first() * Day > *rule.until)
            return;
    }
}
