#include "rest/fields.h"

#include "rest/timestamp.h"

#include <algorithm>
#include <cmath>
#include <QJsonArray>

struct Fields::Node {
    QJsonObject object;
    FieldErrors& errors;
    QString pointer;
    QSet<QString> asked;
    QList<Fields> children;
};

namespace {

constexpr int SerialLength = 32;
constexpr double LargestInteger = 9007199254740992.0; ///< 2^53: beyond it doubles skip numbers

/// A name as a JSON pointer writes it (RFC 6901).
QString escaped(QString name) {
    return name.replace(QLatin1Char('~'), QLatin1String("~0")).replace(QLatin1Char('/'), QLatin1String("~1"));
}

bool isControl(QChar c) {
    return c.category() == QChar::Other_Control;
}

int codePoints(const QString& text) {
    return static_cast<int>(
        std::count_if(text.begin(), text.end(), [](QChar c) { return !c.isLowSurrogate(); }));
}

std::optional<qint64> wholeNumber(const QJsonValue& value, qint64 least, qint64 most) {
    const double number = value.toDouble(NAN);
    if (std::isnan(number) || std::floor(number) != number || std::abs(number) > LargestInteger)
        return std::nullopt;
    const auto whole = static_cast<qint64>(number);
    return whole >= least && whole <= most ? std::optional(whole) : std::nullopt;
}

} // namespace

bool isCleanText(const QString& text, Fields::Lines lines) {
    const auto mayStand = [lines](QChar c) {
        const bool isLineEnd = c == u'\n' || c == u'\r';
        return !isControl(c) || (lines == Fields::Lines::Many && isLineEnd);
    };
    for (int at = 0; at < text.size(); ++at) {
        const QChar c = text.at(at);
        const bool isPair = c.isHighSurrogate() && at + 1 < text.size() && text.at(at + 1).isLowSurrogate();
        if ((c.isSurrogate() && !isPair) || !mayStand(c))
            return false;
        at += isPair ? 1 : 0;
    }
    return true;
}

bool isSerial(const QString& text) {
    return text.size() == SerialLength && std::all_of(text.begin(), text.end(), [](QChar c) {
               return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f');
           });
}

Fields::Fields(const QJsonObject& object, FieldErrors& errors, const QString& pointer)
    : m_node(std::make_shared<Node>(Node{object, errors, pointer, {}, {}})) {}

std::optional<QJsonValue> Fields::value(const char* name) const {
    m_node->asked.insert(QLatin1String(name));
    const auto found = m_node->object.constFind(QLatin1String(name));
    if (found == m_node->object.constEnd() || found->isNull())
        return std::nullopt;
    return *found;
}

bool Fields::has(const char* name) const {
    m_node->asked.insert(QLatin1String(name));
    return m_node->object.contains(QLatin1String(name));
}

bool Fields::isNull(const char* name) const {
    return has(name) && m_node->object.value(QLatin1String(name)).isNull();
}

void Fields::need(std::initializer_list<const char*> names) const {
    for (const char* name : names) {
        if (!has(name))
            refuse(name, QStringLiteral("is missing"));
        else if (isNull(name))
            refuse(name, QStringLiteral("must not be null"));
    }
}

std::optional<QString> Fields::text(const char* name, int shortest, int longest, Lines lines) const {
    const auto given = value(name);
    if (!given)
        return std::nullopt;
    const QString text = given->toString();
    const int length = codePoints(text);
    if (!given->isString() || length < shortest || length > longest)
        refuse(name, QStringLiteral("must be a text of %1 to %2 characters").arg(shortest).arg(longest));
    else if (!isCleanText(text, lines))
        refuse(name, QStringLiteral("must not hold control characters"));
    else
        return text;
    return std::nullopt;
}

std::optional<qint64> Fields::integer(const char* name, qint64 least, qint64 most) const {
    const auto given = value(name);
    const auto number = given ? wholeNumber(*given, least, most) : std::nullopt;
    if (given && !number)
        refuse(name, QStringLiteral("must be a whole number from %1 to %2").arg(least).arg(most));
    return number;
}

std::optional<bool> Fields::flag(const char* name) const {
    const auto given = value(name);
    if (given && !given->isBool())
        refuse(name, QStringLiteral("must be true or false"));
    return given && given->isBool() ? std::optional(given->toBool()) : std::nullopt;
}

std::optional<QString> Fields::word(const char* name, const QStringList& words) const {
    const auto given = value(name);
    if (!given)
        return std::nullopt;
    if (given->isString() && words.contains(given->toString()))
        return given->toString();
    refuse(name, QStringLiteral("must be one of: ") + words.join(QLatin1String(", ")));
    return std::nullopt;
}

std::optional<qint64> Fields::time(const char* name) const {
    const auto given = value(name);
    const auto time = given ? fromTimestamp(given->toString()) : std::nullopt;
    if (given && !time)
        refuse(name, QStringLiteral("must be a time as in RFC 3339, with its offset"));
    return time;
}

std::optional<QList<QJsonValue>> Fields::list(const char* name, int least, int most) const {
    const auto given = value(name);
    if (!given)
        return std::nullopt;
    const QJsonArray array = given->toArray();
    if (given->isArray() && array.size() >= least && array.size() <= most)
        return QList<QJsonValue>(array.begin(), array.end());
    refuse(name, QStringLiteral("must be a list of %1 to %2 entries").arg(least).arg(most));
    return std::nullopt;
}

std::optional<QList<qint64>> Fields::ids(const char* name, int most) const {
    const auto entries = list(name, 0, most);
    if (!entries)
        return std::nullopt;
    QList<qint64> ids;
    QSet<qint64> seen;
    for (int at = 0; at < entries->size(); ++at) {
        const auto id = wholeNumber(entries->at(at), 1, std::numeric_limits<int>::max());
        if (!id)
            refuseAt(pointerTo(name) + QStringLiteral("/%1").arg(at),
                     QStringLiteral("must be an object's number"));
        else if (!seen.contains(*id))
            ids.append(*id);
        seen.insert(id.value_or(0));
    }
    return ids;
}

std::optional<QStringList> Fields::serials(const char* name, int most) const {
    const auto entries = list(name, 0, most);
    if (!entries)
        return std::nullopt;
    QStringList serials;
    QSet<QString> seen;
    for (int at = 0; at < entries->size(); ++at) {
        const QString serial = entries->at(at).toString();
        if (!isSerial(serial))
            refuseAt(pointerTo(name) + QStringLiteral("/%1").arg(at),
                     QStringLiteral("must be 32 lower-case hexadecimal digits"));
        else if (!seen.contains(serial))
            serials.append(serial);
        seen.insert(serial);
    }
    return serials;
}

std::optional<Fields> Fields::object(const char* name) const {
    const auto given = value(name);
    if (given && !given->isObject())
        refuse(name, QStringLiteral("must be an object"));
    if (!given || !given->isObject())
        return std::nullopt;
    m_node->children.append(Fields(given->toObject(), m_node->errors, pointerTo(name)));
    return m_node->children.last();
}

std::optional<QList<Fields>> Fields::objects(const char* name, int least, int most) const {
    const auto entries = list(name, least, most);
    if (!entries)
        return std::nullopt;
    QList<Fields> objects;
    for (int at = 0; at < entries->size(); ++at) {
        const QString pointer = pointerTo(name) + QStringLiteral("/%1").arg(at);
        if (!entries->at(at).isObject())
            refuseAt(pointer, QStringLiteral("must be an object"));
        objects.append(Fields(entries->at(at).toObject(), m_node->errors, pointer));
    }
    m_node->children.append(objects);
    return objects;
}

void Fields::refuse(const char* name, const QString& detail) const {
    refuseAt(pointerTo(name), detail);
}

void Fields::refuseAt(const QString& pointer, const QString& detail) const {
    constexpr std::size_t MostErrors = 100; // a list of thousands that is wrong throughout
    if (m_node->errors.size() < MostErrors)
        m_node->errors.push_back({pointer, detail});
}

QString Fields::pointerTo(const char* name) const {
    return m_node->pointer + QLatin1Char('/') + QLatin1String(name);
}

void Fields::refuseUnknown() const {
    for (auto member = m_node->object.begin(); member != m_node->object.end(); ++member) {
        if (!m_node->asked.contains(member.key()))
            refuseAt(m_node->pointer + QLatin1Char('/') + escaped(member.key().left(64)),
                     QStringLiteral("is unknown here"));
    }
    for (const Fields& child : qAsConst(m_node->children))
        child.refuseUnknown();
}
