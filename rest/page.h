#pragma once

#include "rest/restanswer.h"

#include <functional>
#include <optional>
#include <QJsonArray>

struct SqlResult;

/// What part of a list is asked for: at most `limit` objects whose key comes after `after`. The key must be
/// one that never changes and that no two objects share; then nothing is missed nor told twice while
/// objects come and go.
struct Page {
    static constexpr int DefaultLimit = 100;
    static constexpr int MaxLimit = 1000;

    int limit = DefaultLimit;
    QString after; ///< empty: from the beginning

    /// For keys that are numbers: 0 from the beginning, or what `first` says (lists with the newest first).
    qint64 afterId(qint64 first = 0) const { return after.isEmpty() ? first : after.toLongLong(); }
    int wanted() const { return limit + 1; } ///< rows to ask for: one more tells whether there are more
    /// {"items", "next"} from rows of which at most wanted() were asked for.
    RestAnswer answer(const SqlResult& rows, const std::function<QJsonObject(int row)>& object,
                      const char* keyColumn = "id") const;
    RestAnswer answer(const QJsonArray& items, const QString& lastKey, bool hasMore) const;
};

/// A key as clients see it, and back; nullopt for what cursorOf() has not made.
QString cursorOf(const QString& key);
std::optional<QString> keyOf(const QString& cursor);
