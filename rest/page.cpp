#include "rest/page.h"

#include "core/sql/sqlite.h"

namespace {
constexpr auto Encoding = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;
constexpr char Version = '1'; ///< in front of each key, so that another form can be told apart
} // namespace

QString cursorOf(const QString& key) {
    return QString::fromLatin1((Version + key.toUtf8()).toBase64(Encoding));
}

std::optional<QString> keyOf(const QString& cursor) {
    const auto bytes = QByteArray::fromBase64Encoding(
        cursor.toLatin1(), QByteArray::Base64UrlEncoding | QByteArray::AbortOnBase64DecodingErrors);
    if (!bytes || !(*bytes).startsWith(Version) || (*bytes).size() < 2)
        return std::nullopt;
    const QString key = QString::fromUtf8((*bytes).mid(1));
    return cursorOf(key) == cursor ? std::optional(key) : std::nullopt;
}

RestAnswer Page::answer(const QJsonArray& items, const QString& lastKey, bool hasMore) const {
    return ok({{QStringLiteral("items"), items},
               {QStringLiteral("next"), hasMore ? QJsonValue(cursorOf(lastKey)) : QJsonValue()}});
}

RestAnswer Page::answer(const SqlResult& rows, const std::function<QJsonObject(int row)>& object,
                        const char* keyColumn) const {
    if (!rows.ok)
        return unavailable();
    const int count = qMin(rows.rows.size(), limit);
    QJsonArray items;
    for (int row = 0; row < count; ++row)
        items.append(object(row));
    return answer(items, count > 0 ? rows.text(count - 1, keyColumn) : QString(), rows.rows.size() > limit);
}
