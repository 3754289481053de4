#include "tasks/schedule/schedule.h"

#include <algorithm>
#include <tuple>

namespace {

unsigned weekdaysOf(const QString& week) {
    unsigned days = 0x7f;
    for (int i = 0; week.size() == 7 && i < 7; ++i) {
        if (week.at(i) == QLatin1Char('0'))
            days &= ~(1U << i);
    }
    return days;
}

bool isValidOn(const BellRule& rule, qint64 day) {
    return (rule.startdate == 0 || rule.startdate <= day) && (rule.enddate == 0 || rule.enddate >= day);
}

bool isBefore(const Bell& a, const Bell& b) {
    return std::tuple(a.at, a.schedule) < std::tuple(b.at, b.schedule);
}

void sortBells(std::vector<Bell>& bells) {
    if (!std::is_sorted(bells.begin(), bells.end(), isBefore))
        std::sort(bells.begin(), bells.end(), isBefore);
}

/// The first second after the gap in which this time of day lies.
qint64 afterGap(const LocalDay& day, int secondOfDay) {
    const auto gap = std::find_if(day.skipped.begin(), day.skipped.end(), [&](const SkippedTimes& skipped) {
        return secondOfDay >= skipped.first && secondOfDay <= skipped.last;
    });
    return gap == day.skipped.end() ? 0 : gap->after;
}

} // namespace

BellPlan::BellPlan(const std::vector<BellRule>& rules, const CalendarDays& calendars, const HouseRules& house)
    : m_calendars(calendars)
    , m_house(house) {
    m_entries.reserve(rules.size());
    for (const BellRule& rule : rules)
        m_entries.push_back({&rule, weekdaysOf(rule.week)});
    std::sort(m_entries.begin(), m_entries.end(), [](const Entry& a, const Entry& b) {
        return std::tuple(a.rule->startTime, a.rule->id) < std::tuple(b.rule->startTime, b.rule->id);
    });
}

std::vector<Bell> BellPlan::on(const LocalDay& day) const {
    std::vector<Bell> bells;
    bells.reserve(m_entries.size());
    const int weekday = weekdayOf(day.day);
    for (const Entry& entry : m_entries)
        addBell(bells, entry, day, weekday);
    sortBells(bells);
    return bells;
}

std::vector<Bell> BellPlan::between(const std::vector<LocalDay>& days, qint64 first, qint64 last) const {
    std::vector<Bell> found;
    for (const LocalDay& day : days) {
        for (const Bell& bell : on(day)) {
            if (bell.at >= first && bell.at <= last)
                found.push_back(bell);
        }
    }
    sortBells(found);
    return found;
}

void BellPlan::addBell(std::vector<Bell>& bells, const Entry& entry, const LocalDay& day, int weekday) const {
    const BellRule& rule = *entry.rule;
    const CalendarEntry* held = rule.calendar == 0 ? nullptr : m_calendars.on(rule.calendar, day.day);
    const bool isNamed = held && held->plan && rule.plan != 0 && *held->plan == rule.plan;
    if ((entry.weekdays >> (weekday - 1) & 1) == 0 || (rule.exceptional && !isNamed))
        return;
    Bell bell;
    bell.schedule = rule.id;
    int passes = 0;
    const auto add = [&](qint64 at) {
        bell.at = at;
        if (passes++ == 0)
            bell.due = at;
        if (isValidOn(rule, rule.localDates ? day.day : floorDiv(bell.due, SecondsPerDay)))
            bells.push_back(bell);
    };
    if (held && !isNamed) {
        bell.silence = Silence::Calendar;
        bell.calendar = rule.calendar;
    } else if (!m_house.span.contains(rule.startTime)) {
        bell.silence = Silence::OutsideSpan;
    }
    for (const LocalStretch& stretch : day.stretches) {
        if (stretch.contains(rule.startTime))
            add(stretch.epochOf(rule.startTime));
    }
    if (passes > 0)
        return;
    if (bell.silence == Silence::None && !m_house.ringsAfterGap)
        bell.silence = Silence::NoSuchTime;
    add(afterGap(day, rule.startTime));
}

std::vector<TimesOfDay> timesBetween(const std::vector<LocalDay>& days, qint64 first, qint64 last) {
    std::vector<TimesOfDay> times;
    for (const LocalDay& day : days) {
        for (const LocalStretch& stretch : day.stretches) {
            const qint64 from = std::max(first, stretch.first);
            const qint64 to = std::min(last, stretch.last);
            if (from <= to)
                times.push_back({stretch.firstSecondOfDay + static_cast<int>(from - stretch.first),
                                 stretch.firstSecondOfDay + static_cast<int>(to - stretch.first)});
        }
        for (const SkippedTimes& skipped : day.skipped) {
            if (skipped.after >= first && skipped.after <= last)
                times.push_back({skipped.first, skipped.last});
        }
    }
    return times;
}

QString silenceText(const Bell& bell, const CalendarDays& calendars) {
    switch (bell.silence) {
    case Silence::OutsideSpan:
        return QStringLiteral("outside the working span");
    case Silence::Calendar:
        return QStringLiteral("silent by calendar %1").arg(calendars.name(bell.calendar));
    case Silence::NoSuchTime:
        return QStringLiteral("the hour does not exist today");
    case Silence::None:
        break;
    }
    return {};
}
