#pragma once

#include <optional>
#include <QHash>
#include <QString>
#include <vector>

// What calendars say about days. Pure. Any thread.

/// Dates on which a calendar differs from every day.
struct CalendarEntry {
    qint64 id = 0;
    qint64 first = 0;           ///< local date, days since 1970-01-01
    qint64 last = 0;            ///< included
    std::optional<qint64> plan; ///< the only one that rings; nothing: silence
};

/// Calendars over a range of days, laid out for lookup: of several entries that cover a day the shortest
/// holds, of equally long ones the newest.
class CalendarDays {
public:
    /// Both days included; further ones are covered by nothing.
    CalendarDays(qint64 firstDay, qint64 lastDay);
    void add(qint64 calendar, const QString& name, std::vector<CalendarEntry> entries);
    /// The entry that holds on that day; null on an ordinary one.
    const CalendarEntry* on(qint64 calendar, qint64 day) const;
    QString name(qint64 calendar) const { return m_calendars.value(calendar).name; }

private:
    struct Calendar {
        QString name;
        std::vector<CalendarEntry> entries;
        std::vector<int> holds; ///< for each day, index in `entries` + 1
    };
    qint64 m_firstDay;
    qint64 m_lastDay;
    QHash<qint64, Calendar> m_calendars;
};
