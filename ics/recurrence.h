#pragma once

#include <functional>
#include <optional>
#include <QByteArray>
#include <vector>

// Recurrence rules (RFC 5545, 3.3.10) of days and longer: which local times they name. Pure.

/// A weekday, or the nth one of a month or year.
struct RuleDay {
    int weekday = 0; ///< Monday 0 to Sunday 6
    int nth = 0;     ///< 0 every one, negative from the end
};

struct RecurrenceRule {
    enum class Frequency { Daily, Weekly, Monthly, Yearly };
    Frequency frequency = Frequency::Daily;
    int interval = 1;
    int count = 0;               ///< 0 without end
    std::optional<qint64> until; ///< local second, included
    bool untilIsDate = false;    ///< `until` is the first second of its last day
    bool untilIsUtc = false;
    int weekStart = 0; ///< Monday 0
    std::vector<int> months, monthDays, yearDays, weeks, positions;
    std::vector<RuleDay> days;
    std::vector<int> hours, minutes, seconds;
};

/// Reads the value of an RRULE. Nothing, with the reason in `why`, for one that is not understood or recurs
/// more often than daily.
std::optional<RecurrenceRule> parseRule(const QByteArray& text, QByteArray& why);

/// Local times as seconds since 1970-01-01 by the local clock. Calls `take` for each from `start` on, in
/// order, until it returns false, the rule ends or `lastDay` is over. The rule alone decides: `start` is
/// among them when it fits.
void expandRule(const RecurrenceRule& rule, qint64 start, qint64 lastDay,
                const std::function<bool(qint64 local)>& take);
