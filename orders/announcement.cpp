#include "orders/announcement.h"

#include "device/playwatch.h"

#include <algorithm>
#include <array>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

const std::array<QLatin1String, 3> WhenBusyWords{QLatin1String("interrupt"), QLatin1String("queue"),
                                                 QLatin1String("skip")};
const std::array<QLatin1String, 3> ResumeWords{QLatin1String("none"), QLatin1String("start"),
                                               QLatin1String("position")};

template<typename Value>
std::optional<Value> valueOf(const std::array<QLatin1String, 3>& words, const QString& word) {
    const auto found = std::find(words.begin(), words.end(), word);
    return found == words.end() ? std::nullopt : std::optional(static_cast<Value>(found - words.begin()));
}

/// An integer within bounds.
std::optional<int> within(const QJsonValue& value, int least, int most) {
    const double number = value.toDouble(least - 1);
    return number >= least && number <= most ? std::optional(static_cast<int>(number)) : std::nullopt;
}

std::optional<Announcement::Title> titleOf(const QJsonObject& object) {
    constexpr int LongestTitle = 24 * 3600 * 1000;
    const QString url = object.value(QLatin1String("url")).toString();
    const auto length = within(object.value(QLatin1String("ms")), 0, LongestTitle);
    const int bytes = url.toUtf8().size();
    if (bytes == 0 || bytes > Announcement::MaxUrlBytes || !length)
        return std::nullopt;
    const bool isSeekable = object.value(QLatin1String("seekable")).toBool();
    return Announcement::Title{url, zones::Time(*length), isSeekable,
                               object.value(QLatin1String("file")).toString()};
}

} // namespace

std::optional<zones::WhenBusy> whenBusyOf(const QString& word) {
    return valueOf<zones::WhenBusy>(WhenBusyWords, word);
}

std::optional<zones::Resume> resumeOf(const QString& word) {
    return valueOf<zones::Resume>(ResumeWords, word);
}

QStringList whenBusyWords() {
    return {WhenBusyWords.begin(), WhenBusyWords.end()};
}

QStringList resumeWords() {
    return {ResumeWords.begin(), ResumeWords.end()};
}

QString wordOf(zones::WhenBusy whenBusy) {
    return WhenBusyWords.at(static_cast<size_t>(whenBusy));
}

QString wordOf(zones::Resume resume) {
    return ResumeWords.at(static_cast<size_t>(resume));
}

std::optional<Announcement> Announcement::read(const QJsonObject& request, QString& why) {
    constexpr int MostRounds = 1000;
    constexpr int MostQueueSeconds = 24 * 3600;
    const auto value = [&request](const char* key) {
        return request.value(QLatin1String(key));
    };
    const double id = value("broadcast").toDouble();
    const auto rounds = within(value("rounds"), 1, MostRounds);
    const auto priority = within(value("priority"), 0, zones::Highest);
    const auto volume = within(value("volume"), 0, 25);
    const auto queue = within(value("queue"), 0, MostQueueSeconds);
    const auto whenBusy = whenBusyOf(value("whenBusy").toString());
    const auto resume = resumeOf(value("resume").toString());
    if (!PlayOrders::isNumber(id) || !rounds || !priority || !volume || !queue || !whenBusy || !resume) {
        why = QStringLiteral("a number or a word is missing or wrong");
        return std::nullopt;
    }
    Announcement made;
    const QJsonArray titles = value("titles").toArray();
    for (int i = 0; i < titles.size() && i <= MaxTitles; ++i) {
        const auto title = titleOf(titles.at(i).toObject());
        if (!title) {
            why = QStringLiteral("title %1 is wrong").arg(i);
            return std::nullopt;
        }
        made.titles.push_back(*title);
    }
    if (made.titles.empty() || made.titles.size() > MaxTitles) {
        why = QStringLiteral("no titles, or too many");
        return std::nullopt;
    }
    made.name = value("name").toString();
    made.id = static_cast<quint64>(id);
    made.rounds = *rounds;
    made.priority = *priority;
    made.volume = *volume;
    made.whenBusy = *whenBusy;
    made.resume = *resume;
    made.queueSpan = std::chrono::seconds(*queue);
    return made;
}

QJsonObject Announcement::write() const {
    QJsonArray list;
    for (const Title& title : titles) {
        QJsonObject object{{QStringLiteral("url"), title.url},
                           {QStringLiteral("ms"), static_cast<qint64>(title.length.count())},
                           {QStringLiteral("seekable"), title.isSeekable}};
        if (!title.ownFile.isEmpty())
            object.insert(QStringLiteral("file"), title.ownFile);
        list.append(object);
    }
    return {{QStringLiteral("cmd"), QLatin1String(OrderWord)},
            {QStringLiteral("broadcast"), static_cast<double>(id)},
            {QStringLiteral("name"), name},
            {QStringLiteral("titles"), list},
            {QStringLiteral("rounds"), rounds},
            {QStringLiteral("priority"), priority},
            {QStringLiteral("volume"), volume},
            {QStringLiteral("whenBusy"), wordOf(whenBusy)},
            {QStringLiteral("resume"), wordOf(resume)},
            {QStringLiteral("queue"), static_cast<qint64>(queueSpan.count())}};
}

QByteArray Announcement::command(const QStringList& serials) const {
    QJsonObject request = write();
    request.insert(QStringLiteral("snlist"), QJsonArray::fromStringList(serials));
    return QJsonDocument(request).toJson(QJsonDocument::Compact);
}

QByteArray Announcement::endCommand(quint64 id, const QStringList& serials) {
    const QJsonObject request{{QStringLiteral("cmd"), QLatin1String(EndOrderWord)},
                              {QStringLiteral("broadcast"), static_cast<double>(id)},
                              {QStringLiteral("snlist"), QJsonArray::fromStringList(serials)}};
    return QJsonDocument(request).toJson(QJsonDocument::Compact);
}

zones::Order Announcement::terms() const {
    zones::Order order;
    order.id = id;
    order.priority = priority;
    order.whenBusy = whenBusy;
    order.resume = resume;
    order.volume = volume;
    order.queueSpan = queueSpan;
    order.rounds = rounds;
    order.titles.clear();
    for (const Title& title : titles)
        order.titles.push_back(title.length);
    return order;
}
