#include "tasks/schedule/calendardays.h"

#include <algorithm>
#include <tuple>

CalendarDays::CalendarDays(qint64 firstDay, qint64 lastDay)
    : m_firstDay(firstDay)
    , m_lastDay(lastDay) {}

void CalendarDays::add(qint64 calendar, const QString& name, std::vector<CalendarEntry> entries) {
    // What comes later in this order lies above what came before.
    std::sort(entries.begin(), entries.end(), [](const CalendarEntry& a, const CalendarEntry& b) {
        return std::tuple(b.last - b.first, a.id) < std::tuple(a.last - a.first, b.id);
    });
    Calendar laidOut{name, std::move(entries),
                     std::vector<int>(static_cast<size_t>(std::max<qint64>(0, m_lastDay - m_firstDay + 1)))};
    int place = 0;
    for (const CalendarEntry& entry : laidOut.entries) {
        ++place;
        const qint64 first = std::max(entry.first, m_firstDay);
        const qint64 end = std::min(entry.last, m_lastDay) + 1;
        if (first < end)
            std::fill(laidOut.holds.begin() + (first - m_firstDay),
                      laidOut.holds.begin() + (end - m_firstDay), place);
    }
    m_calendars.insert(calendar, std::move(laidOut));
}

const CalendarEntry* CalendarDays::on(qint64 calendar, qint64 day) const {
    const auto found = m_calendars.constFind(calendar);
    if (found == m_calendars.constEnd() || day < m_firstDay || day > m_lastDay)
        return nullptr;
    const int place = found->holds[static_cast<size_t>(day - m_firstDay)];
    return place == 0 ? nullptr : &found->entries[static_cast<size_t>(place - 1)];
}
