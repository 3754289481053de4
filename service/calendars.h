#pragma once

#include <optional>
#include <QList>
#include <QString>
#include <vector>

class sqlite;

// Calendars of accounts and their entries: dates on which bells are silent or follow a plan of their own. Any
// thread that may block, on its own database object; nullopt when the database does not answer.

struct Calendar {
    qint64 id = 0;
    qint64 owner = 0;
    QString name;
};

struct CalendarDates {
    qint64 id = 0;
    QString name;
    qint64 first = 0;           ///< local date, days since 1970-01-01
    qint64 last = 0;            ///< included
    std::optional<qint64> plan; ///< the only one that rings; nothing: silence
    QString uid;                ///< of an imported event
};

/// Whose: an account's, or everybody's for nullopt.
using Owner = std::optional<qint64>;

/// At most `most` by ascending ids, only those behind `after`.
std::optional<std::vector<Calendar>> listCalendars(sqlite& database, const Owner& owner, qint64 after,
                                                   int most);
/// No calendar when there is none of that number.
std::optional<std::optional<Calendar>> findCalendar(sqlite& database, const Owner& owner, qint64 id);
std::optional<qint64> addCalendar(sqlite& database, qint64 owner, const QString& name);
bool renameCalendar(sqlite& database, qint64 id, const QString& name);
/// With its entries.
bool removeCalendar(sqlite& database, qint64 id);
/// Schedules that go by it.
std::optional<QList<qint64>> schedulesBy(sqlite& database, qint64 calendar);

std::optional<std::vector<CalendarDates>> listEntries(sqlite& database, qint64 calendar, qint64 after,
                                                      int most);
std::optional<std::optional<CalendarDates>> findEntry(sqlite& database, qint64 calendar, qint64 id);
/// `entry.id` is set.
bool addEntry(sqlite& database, qint64 calendar, CalendarDates& entry);
bool changeEntry(sqlite& database, const CalendarDates& entry);
bool removeEntry(sqlite& database, qint64 id);
