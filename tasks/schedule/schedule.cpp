#include "tasks/schedule/schedule.h"

#include <algorithm>
#include <ctime>
#include <iterator>

namespace {

constexpr qint64 Day = 86400;

qint64 floorDiv(qint64 value, qint64 divisor) {
    return value >= 0 ? value / divisor : -((-value + divisor - 1) / divisor);
}

int weekdayOf(qint64 localDay) {
    const qint64 fromThursday = localDay + 3; // 1970-01-01 was a Thursday
    return static_cast<int>(fromThursday - 7 * floorDiv(fromThursday, 7)) + 1;
}

bool validOn(const TaskTimes& task, qint64 day, int weekday) {
    if (task.startdate != 0 && task.startdate > day)
        return false;
    if (task.enddate != 0 && task.enddate < day)
        return false;
    return task.week.size() != 7 || task.week.at(weekday - 1) != QLatin1Char('0');
}

} // namespace

int localUtcOffset(qint64 epoch) {
    const auto seconds = static_cast<std::time_t>(epoch);
    std::tm local{};
    localtime_r(&seconds, &local);
    return static_cast<int>(local.tm_gmtoff);
}

ScheduleSecond LocalTime::at(qint64 epoch) const {
    const int offset = m_offset(epoch);
    const qint64 local = epoch + offset;
    const qint64 localDay = floorDiv(local, Day);

    ScheduleSecond second;
    second.epoch = epoch;
    second.secondOfDay = static_cast<int>(local - localDay * Day);
    second.weekday = weekdayOf(localDay);
    second.day = floorDiv(epoch, Day);
    second.localDay = localDay;
    const int before = m_offset(epoch - Day);
    if (before > offset && m_offset(epoch - (before - offset)) == before)
        second.firstPass = epoch - (before - offset);
    return second;
}

std::vector<LocalStretch> LocalTime::stretches(qint64 first, qint64 last) const {
    std::vector<LocalStretch> found;
    while (first <= last) {
        const ScheduleSecond start = at(first);
        const int offset = m_offset(first);
        qint64 end = std::min(last, first + Day - 1 - start.secondOfDay);
        if (m_offset(end) != offset) { // the change lies in between
            qint64 before = first;
            while (end - before > 1) {
                const qint64 middle = before + (end - before) / 2;
                (m_offset(middle) == offset ? before : end) = middle;
            }
            end = before;
        }
        found.push_back({first, end, start.secondOfDay});
        first = end + 1;
    }
    return found;
}

std::vector<SkippedTimes> LocalTime::skippedBefore(qint64 epoch) const {
    std::vector<SkippedTimes> skipped;
    const qint64 end = epoch + m_offset(epoch); // first local second after the gap
    for (qint64 local = epoch + m_offset(epoch - 1); local < end;) {
        const qint64 localDay = floorDiv(local, Day);
        const qint64 last = std::min(end, (localDay + 1) * Day) - 1;
        skipped.push_back({static_cast<int>(local - localDay * Day), static_cast<int>(last - localDay * Day),
                           weekdayOf(localDay), floorDiv(epoch, Day)});
        local = last + 1;
    }
    return skipped;
}

bool isDue(const TaskTimes& task, const ScheduleSecond& second) {
    return task.startTime == second.secondOfDay && validOn(task, second.day, second.weekday);
}

bool isDueIn(const TaskTimes& task, const SkippedTimes& skipped) {
    return task.startTime >= skipped.first && task.startTime <= skipped.last &&
           validOn(task, skipped.day, skipped.weekday);
}

SecondSequence::Due SecondSequence::due(qint64 now) {
    const qint64 ahead = now - m_last;
    Due due;
    if (ahead > 0) {
        due.first = m_last + 1;
        due.last = now;
    } else if (-ahead > MaxCatchUp) {
        due.setBack = -ahead;
        due.first = due.last = now;
        m_last = now - 1;
    }
    if (ahead > MaxCatchUp) {
        due.lostFirst = due.first;
        due.lostLast = m_last = now - MaxCatchUp;
        due.first = due.lostLast + 1;
    }
    return due;
}

namespace {

qint64 taskAndTime(int taskid, int startTime) {
    return taskid * Day + startTime;
}

} // namespace

bool StartGuard::admit(int taskid, int startTime, qint64 localDay, qint64 steadyMs) {
    for (auto it = m_dates.begin(); it != m_dates.end();)
        it = steadyMs - it->lastUsed >= Memory ? m_dates.erase(it) : std::next(it);
    if (hasStarted(taskid, startTime, localDay))
        return false;
    Date& date = m_dates[localDay];
    date.started.insert(taskAndTime(taskid, startTime));
    date.lastUsed = steadyMs;
    return true;
}

bool StartGuard::hasStarted(int taskid, int startTime, qint64 localDay) const {
    const auto date = m_dates.constFind(localDay);
    return date != m_dates.constEnd() && date->started.contains(taskAndTime(taskid, startTime));
}
