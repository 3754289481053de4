#include "rest/owner.h"

namespace {
const QDate Epoch(1970, 1, 1);
} // namespace

void refuseNull(const Fields& body, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (body.isNull(name))
            body.refuse(name, QStringLiteral("must not be null"));
    }
}

std::optional<qint64> dateField(const Fields& body, const char* name) {
    const auto text = body.text(name, 1, 20);
    if (!text)
        return std::nullopt;
    const QDate date = QDate::fromString(*text, QStringLiteral("yyyy-MM-dd"));
    if (date > Epoch && date.year() <= 9999 && text->size() == 10)
        return Epoch.daysTo(date);
    body.refuse(name, QStringLiteral("must be a date, YYYY-MM-DD"));
    return std::nullopt;
}

QJsonValue dateValue(std::optional<qint64> days) {
    return days ? QJsonValue(Epoch.addDays(*days).toString(QStringLiteral("yyyy-MM-dd"))) : QJsonValue();
}
