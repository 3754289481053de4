#include "nodes/unreached.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

namespace {

constexpr int LongestWord = 32;

/// The answer without its list, which may hold a whole fleet. A text can't hold bare quotes.
QJsonObject headOf(const QByteArray& answer) {
    const int list = answer.indexOf(",\"list\":[");
    return QJsonDocument::fromJson(list < 0 ? answer : answer.left(list) + '}').object();
}

bool isDone(const QString& word) {
    return word.isEmpty() || word.startsWith(QLatin1String("success")) || word == QLatin1String("WELL");
}

QByteArray after(const QByteArray& request, const QByteArray& key, const char* ends) {
    const int at = request.indexOf(key);
    if (at < 0)
        return {};
    const QByteArray value = request.mid(at + key.size(), LongestWord);
    int end = 0;
    while (end < value.size() && !strchr(ends, value[end]))
        ++end;
    return value.left(end);
}

} // namespace

Unreached unreachedBy(const QByteArray& answer) {
    static const QRegularExpression counts(QStringLiteral("^(?:sent to|set for) (\\d+) of (\\d+)"));
    const QJsonObject head = headOf(answer);
    const QString word = head.value(QLatin1String("res")).toString();
    const QString info = head.value(QLatin1String("info")).toString();
    const auto match = counts.match(info);
    const int missing = match.captured(2).toInt() - match.captured(1).toInt();
    if (match.hasMatch() ? missing == 0 : isDone(word))
        return {};
    return {match.hasMatch() ? missing : -1, word + QLatin1Char(' ') + info};
}

QByteArray commandWord(const QByteArray& request) {
    const QByteArray word = after(request, "\"cmd\":\"", "\"");
    return word.isEmpty() ? after(request, "\"mode\":", ",}") : word;
}
