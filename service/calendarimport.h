#pragma once

#include "ics/calendarfile.h"

#include <optional>

class sqlite;

// Calendar files in and out of calendars. Any thread that may block, on its own database object.

/// Whole years for which what recurs is expanded ahead.
constexpr int YearsAhead = 5;

struct CalendarImport {
    enum class Outcome { Done, TooLarge, Refused, Failed };
    Outcome outcome = Outcome::Failed; ///< Failed: the database does not answer
    QString refusal;
    int added = 0; ///< events
    int changed = 0;
    int removed = 0;
    std::vector<FileIgnored> ignored;
};

/// Makes the calendar's imported entries those of the file: events are told apart by their UIDs. A plan that
/// an entry was given stays; a new occurrence of an event has the plan of its last one.
CalendarImport importCalendar(sqlite& database, qint64 calendar, const QByteArray& text);

/// Expands what recurs in imported files again, so that it reaches as far ahead as ever: once a day each.
/// False when the database does not answer; what is missing is done by the next call.
bool expandCalendars(sqlite& database);

/// All entries as a calendar file; nothing when the database does not answer.
std::optional<QByteArray> exportCalendar(sqlite& database, qint64 calendar, const QString& name);
