#include "rest/query.h"

#include "rest/fields.h"
#include "rest/timestamp.h"

#include <limits>

std::optional<QString> Query::given(const char* name) const {
    const auto found = m_parameters.constFind(name);
    return found == m_parameters.constEnd() ? std::nullopt : std::optional(QString::fromUtf8(*found));
}

std::optional<QString> Query::text(const char* name, int longest) const {
    auto text = given(name);
    if (!text || (text->size() <= longest && isCleanText(*text)))
        return text;
    refuse(name, QStringLiteral("must be a text of at most %1 characters").arg(longest));
    return std::nullopt;
}

std::optional<qint64> Query::integer(const char* name, qint64 least, qint64 most) const {
    const auto text = given(name);
    bool isNumber = false;
    const qint64 number = text ? text->toLongLong(&isNumber) : 0;
    if (isNumber && number >= least && number <= most)
        return number;
    if (text)
        refuse(name, QStringLiteral("must be a whole number from %1 to %2").arg(least).arg(most));
    return std::nullopt;
}

std::optional<qint64> Query::id(const char* name) const {
    return integer(name, 1, std::numeric_limits<int>::max());
}

std::optional<QString> Query::word(const char* name, const QStringList& words) const {
    auto text = given(name);
    if (!text || words.contains(*text))
        return text;
    refuse(name, QStringLiteral("must be one of: ") + words.join(QLatin1String(", ")));
    return std::nullopt;
}

std::optional<qint64> Query::time(const char* name) const {
    const auto text = given(name);
    // A "+" that was not escaped has become a blank on the way.
    const auto time = text ? fromTimestamp(QString(*text).replace(u' ', u'+')) : std::nullopt;
    if (text && !time)
        refuse(name, QStringLiteral("must be a time as in RFC 3339, with its offset"));
    return time;
}

void Query::refuse(const char* name, const QString& detail) const {
    m_errors.push_back({QLatin1Char('?') + QString::fromUtf8(name), detail});
}

void Query::refuseUnknown(const QList<QByteArray>& known) const {
    constexpr std::size_t MostErrors = 100;
    for (auto parameter = m_parameters.begin(); parameter != m_parameters.end(); ++parameter) {
        if (!known.contains(parameter.key()) && m_errors.size() < MostErrors)
            m_errors.push_back({QLatin1Char('?') + QString::fromUtf8(parameter.key().left(64)),
                                QStringLiteral("is unknown here")});
    }
}
