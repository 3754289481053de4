#include "ics/civil.h"

namespace {

constexpr int DaysOf400Years = 146097;
constexpr int DaysBefore1970 = 719468; ///< from 0000-03-01

qint64 floorTo(qint64 value, qint64 divisor) {
    return (value >= 0 ? value : value - divisor + 1) / divisor;
}

} // namespace

// Years begin in March here, so that the day of a leap year comes last.
qint64 dayOf(int year, int month, int day) {
    const qint64 shifted = month <= 2 ? year - 1 : year;
    const qint64 era = floorTo(shifted, 400);
    const qint64 yearOfEra = shifted - era * 400;
    const qint64 dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    return era * DaysOf400Years + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear -
           DaysBefore1970;
}

CivilDate civilOf(qint64 day) {
    const qint64 shifted = day + DaysBefore1970;
    const qint64 era = floorTo(shifted, DaysOf400Years);
    const qint64 dayOfEra = shifted - era * DaysOf400Years;
    const qint64 yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / (DaysOf400Years - 1)) / 365;
    const qint64 dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const qint64 march = (5 * dayOfYear + 2) / 153;
    const int month = static_cast<int>(march < 10 ? march + 3 : march - 9);
    return {static_cast<int>(yearOfEra + era * 400) + (month <= 2 ? 1 : 0), month,
            static_cast<int>(dayOfYear - (153 * march + 2) / 5) + 1};
}

bool isLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(int year, int month) {
    constexpr int Days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && isLeapYear(year) ? 29 : Days[month - 1];
}

int weekdayFromMonday(qint64 day) {
    const qint64 fromThursday = day + 3;
    return static_cast<int>(fromThursday - 7 * floorTo(fromThursday, 7));
}
