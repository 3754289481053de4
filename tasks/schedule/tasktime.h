#pragma once

#include <optional>
#include <QString>

// The texts in which clients give and get times, and the numbers that the task table holds. Pure.

/// "h:m:s" to seconds since midnight (0 to 86399); one or two digits each, nothing else.
std::optional<int> secondsOfTime(const QString& text);
QString timeOfSeconds(int seconds); ///< "h:m:s" without leading zeros

/// "yyyy-M-d" to the calendar date's number of days since 1970-01-01, the same in every time zone.
/// An empty text and "0" are 0: unbounded. Dates before 1970-01-02 are refused.
std::optional<qint64> daysOfDate(const QString& text);
QString dateOfDays(qint64 days); ///< "yyyy-M-d"; empty for 0

/// Seven characters 0 or 1, Monday first.
bool isWeek(const QString& text);
