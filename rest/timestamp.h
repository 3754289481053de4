#pragma once

#include <optional>
#include <QJsonValue>
#include <QString>

/// Points in time are milliseconds since 1970 (UTC) inside, RFC 3339 with offset and milliseconds outside.

/// "2026-11-22T07:30:00.000+01:00", in the service's zone.
QString timestamp(qint64 ms);
/// The same; null for 0, which stands for "never" in the tables.
QJsonValue timestampOrNull(qint64 ms);
/// nullopt for a text without an offset, a date that does not exist or anything else.
std::optional<qint64> fromTimestamp(const QString& text);
