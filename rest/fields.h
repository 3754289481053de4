#pragma once

#include "rest/restanswer.h"

#include <memory>
#include <optional>
#include <QJsonValue>
#include <QList>
#include <QSet>
#include <QStringList>

/// Reads the members of a JSON object and notes what is wrong with them, each by its pointer. A member that
/// is missing, null or wrong gives nullopt; what must be there is named to need(). A member that nobody has
/// asked for is an error of its own: unknown(). A value, cheap to copy; copies share what has been read.
class Fields {
public:
    Fields(const QJsonObject& object, FieldErrors& errors, const QString& pointer = {});

    bool has(const char* name) const; ///< present, null included
    bool isNull(const char* name) const;
    void need(std::initializer_list<const char*> names) const;

    enum class Lines { One, Many };
    /// Text of that many characters (code points) without control characters; Many: but for line breaks.
    std::optional<QString> text(const char* name, int shortest, int longest, Lines lines = Lines::One) const;
    std::optional<qint64> integer(const char* name, qint64 least, qint64 most) const;
    std::optional<bool> flag(const char* name) const;
    /// One of the words.
    std::optional<QString> word(const char* name, const QStringList& words) const;
    std::optional<qint64> time(const char* name) const; ///< RFC 3339; ms since 1970
    /// Numbers of objects, each once, in their order.
    std::optional<QList<qint64>> ids(const char* name, int most) const;
    /// Speakers' serials, each once, in their order.
    std::optional<QStringList> serials(const char* name, int most) const;
    std::optional<Fields> object(const char* name) const;
    std::optional<QList<Fields>> objects(const char* name, int least, int most) const;
    /// As it stands, for what this class does not know.
    std::optional<QJsonValue> value(const char* name) const;

    void refuse(const char* name, const QString& detail) const;
    /// Notes the members that nobody has asked for, those of nested objects too.
    void refuseUnknown() const;

private:
    struct Node;
    std::optional<QList<QJsonValue>> list(const char* name, int least, int most) const;
    void refuseAt(const QString& pointer, const QString& detail) const;
    QString pointerTo(const char* name) const;

    std::shared_ptr<Node> m_node;
};

/// Whether every character may stand in a text: no control character, no half of a surrogate pair.
bool isCleanText(const QString& text, Fields::Lines lines = Fields::Lines::One);
/// 32 lower-case hexadecimal digits.
bool isSerial(const QString& text);
