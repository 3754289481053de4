#include "tasks/schedule/tasktime.h"

#include <algorithm>
#include <QDate>
#include <QStringList>

namespace {

/// Decimal digits only, at most `digits` of them.
std::optional<int> number(const QString& text, int digits) {
    const auto isDigit = [](QChar c) {
        return c >= QLatin1Char('0') && c <= QLatin1Char('9');
    };
    if (text.isEmpty() || text.size() > digits || !std::all_of(text.begin(), text.end(), isDigit))
        return std::nullopt;
    return text.toInt();
}

const QDate Epoch(1970, 1, 1);

} // namespace

std::optional<int> secondsOfTime(const QString& text) {
    const QStringList parts = text.split(QLatin1Char(':'));
    if (parts.size() != 3)
        return std::nullopt;
    const auto hour = number(parts.at(0), 2);
    const auto minute = number(parts.at(1), 2);
    const auto second = number(parts.at(2), 2);
    if (!hour || !minute || !second || *hour > 23 || *minute > 59 || *second > 59)
        return std::nullopt;
    return (*hour * 60 + *minute) * 60 + *second;
}

QString timeOfSeconds(int seconds) {
    return QStringLiteral("%1:%2:%3").arg(seconds / 3600).arg(seconds / 60 % 60).arg(seconds % 60);
}

std::optional<qint64> daysOfDate(const QString& text) {
    if (text.isEmpty() || text == QLatin1String("0"))
        return 0;
    const QStringList parts = text.split(QLatin1Char('-'));
    if (parts.size() != 3)
        return std::nullopt;
    const auto year = number(parts.at(0), 4);
    const auto month = number(parts.at(1), 2);
    const auto day = number(parts.at(2), 2);
    if (!year || parts.at(0).size() != 4 || !month || !day)
        return std::nullopt;
    const QDate date(*year, *month, *day);
    if (!date.isValid() || date <= Epoch)
        return std::nullopt;
    return Epoch.daysTo(date);
}

QString dateOfDays(qint64 days) {
    return days == 0 ? QString() : Epoch.addDays(days).toString(QStringLiteral("yyyy-M-d"));
}

bool isWeek(const QString& text) {
    return text.size() == 7 && std::all_of(text.begin(), text.end(), [](QChar c) {
               return c == QLatin1Char('0') || c == QLatin1Char('1');
           });
}
