#pragma once

#include <QtGlobal>

// Dates of the Gregorian calendar as days since 1970-01-01. Pure.

struct CivilDate {
    int year = 1970;
    int month = 1; ///< 1 to 12
    int day = 1;   ///< 1 to 31
};

qint64 dayOf(int year, int month, int day);
CivilDate civilOf(qint64 day);
int daysInMonth(int year, int month);
bool isLeapYear(int year);
/// Monday 0 to Sunday 6.
int weekdayFromMonday(qint64 day);
