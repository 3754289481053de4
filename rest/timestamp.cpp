#include "rest/timestamp.h"

#include <QDateTime>
#include <QRegularExpression>

QString timestamp(qint64 ms) {
    const QDateTime local = QDateTime::fromMSecsSinceEpoch(ms);
    return local.toOffsetFromUtc(local.offsetFromUtc()).toString(Qt::ISODateWithMs);
}

QJsonValue timestampOrNull(qint64 ms) {
    return ms == 0 ? QJsonValue() : QJsonValue(timestamp(ms));
}

std::optional<qint64> fromTimestamp(const QString& text) {
    static const QRegularExpression form(
        QStringLiteral("^\\d{4}-\\d\\d-\\d\\d[Tt]([01]\\d|2[0-3]):[0-5]\\d:[0-5]\\d(\\.\\d{1,9})?"
                       "([Zz]|[+-]([01]\\d|2[0-3]):[0-5]\\d)$"),
        QRegularExpression::DontCaptureOption);
    if (!form.match(text).hasMatch())
        return std::nullopt;
    const QDateTime time = QDateTime::fromString(text.toUpper(), Qt::ISODateWithMs);
    return time.isValid() ? std::optional(time.toMSecsSinceEpoch()) : std::nullopt;
}
