#include "tasks/schedule.h"

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
    const int before = m_offset(epoch - Day);
    second.repeated = before > offset && m_offset(epoch - (before - offset)) == before;
    return second;
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
    if (ahead > 0 && ahead <= MaxCatchUp)
        return {m_last + 1, now, 0};
    if (ahead <= 0 && -ahead <= MaxCatchUp)
        return {};
    m_last = now - 1;
    return {now, now, ahead};
}

bool StartGuard::admit(int taskid, int startTime, qint64 steadyMs) {
    for (auto it = m_started.begin(); it != m_started.end();)
        it = steadyMs - it.value() >= MinimumGap ? m_started.erase(it) : std::next(it);
    const qint64 key = static_cast<qint64>(taskid) * Day + startTime;
    if (m_started.contains(key))
        return false;
    m_started.insert(key, steadyMs);
    return true;
}
