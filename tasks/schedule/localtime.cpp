#include "tasks/schedule/localtime.h"

#include <algorithm>
#include <ctime>
#include <map>

namespace {

/// No zone is further from UTC, and no change of one moves the clock by more.
constexpr qint64 Margin = 2 * SecondsPerDay;

void findSkipped(LocalDay& day, qint64 nextDay) {
    int expected = 0;
    qint64 after = nextDay;
    for (const LocalStretch& stretch : day.stretches) {
        if (stretch.firstSecondOfDay > expected)
            day.skipped.push_back({expected, stretch.firstSecondOfDay - 1, stretch.first});
        expected = std::max(expected, stretch.lastSecondOfDay() + 1);
        after = stretch.last + 1;
    }
    if (expected < SecondsPerDay)
        day.skipped.push_back({expected, static_cast<int>(SecondsPerDay) - 1, after});
}

bool touches(const LocalDay& day, qint64 first, qint64 last) {
    const auto passes = [&](const LocalStretch& stretch) {
        return stretch.first <= last && stretch.last >= first;
    };
    const auto follows = [&](const SkippedTimes& skipped) {
        return skipped.after >= first && skipped.after <= last;
    };
    return std::any_of(day.stretches.begin(), day.stretches.end(), passes) ||
           std::any_of(day.skipped.begin(), day.skipped.end(), follows);
}

} // namespace

qint64 floorDiv(qint64 value, qint64 divisor) {
    return value >= 0 ? value / divisor : -((-value + divisor - 1) / divisor);
}

int weekdayOf(qint64 day) {
    const qint64 fromThursday = day + 3; // 1970-01-01 was a Thursday
    return static_cast<int>(fromThursday - 7 * floorDiv(fromThursday, 7)) + 1;
}

int localUtcOffset(qint64 epoch) {
    const auto seconds = static_cast<std::time_t>(epoch);
    std::tm local{};
    localtime_r(&seconds, &local);
    return static_cast<int>(local.tm_gmtoff);
}

LocalSecond LocalTime::at(qint64 epoch) const {
    const qint64 local = epoch + m_offset(epoch);
    const qint64 day = floorDiv(local, SecondsPerDay);
    return {day, static_cast<int>(local - day * SecondsPerDay)};
}

std::vector<LocalStretch> LocalTime::stretches(qint64 first, qint64 last) const {
    std::vector<LocalStretch> found;
    while (first <= last) {
        const LocalSecond start = at(first);
        const int offset = m_offset(first);
        qint64 end = std::min(last, first + SecondsPerDay - 1 - start.secondOfDay);
        if (m_offset(end) != offset) { // the change lies in between
            qint64 before = first;
            while (end - before > 1) {
                const qint64 middle = before + (end - before) / 2;
                (m_offset(middle) == offset ? before : end) = middle;
            }
            end = before;
        }
        found.push_back({first, end, start.day, start.secondOfDay});
        first = end + 1;
    }
    return found;
}

std::vector<LocalDay> LocalTime::days(qint64 first, qint64 last) const {
    std::map<qint64, LocalDay> byDate;
    for (const LocalStretch& stretch : stretches(first - Margin, last + Margin))
        byDate[stretch.day].stretches.push_back(stretch);
    std::vector<LocalDay> found;
    const qint64 end = byDate.rbegin()->first; // it and the first one are cut
    for (qint64 date = byDate.begin()->first + 1; date < end; ++date) {
        LocalDay& day = byDate[date];
        const auto next = byDate.upper_bound(date);
        day.day = date;
        findSkipped(day, next->second.stretches.empty() ? 0 : next->second.stretches.front().first);
        if (touches(day, first, last))
            found.push_back(std::move(day));
    }
    return found;
}
