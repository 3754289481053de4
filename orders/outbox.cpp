#include "orders/outbox.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <utility>

namespace {

QJsonObject command(const char* word, const QStringList& serials) {
    return {{QStringLiteral("cmd"), QLatin1String(word)},
            {QStringLiteral("snlist"), QJsonArray::fromStringList(serials)}};
}

QByteArray compact(const QJsonObject& request) {
    return QJsonDocument(request).toJson(QJsonDocument::Compact);
}

QString beforeMoment(const QString& url) {
    return url.contains(QLatin1Char('?')) ? QStringLiteral("&from=") : QStringLiteral("?from=");
}

} // namespace

void Outbox::flush() {
    if (!m_silences.isEmpty()) {
        QJsonObject stop = command("FORCESTOP", std::exchange(m_silences, {}));
        stop.insert(QStringLiteral("order"),
                    QStringLiteral("none")); // the claims have been looked at already
        m_send(compact(stop));
    }
    for (const auto& [level, serials] : std::exchange(m_volumes, {})) {
        QJsonObject set = command("VOL_S", serials);
        set.insert(QStringLiteral("vol"), level);
        m_send(compact(set));
    }
    for (const auto& [what, serials] : std::exchange(m_plays, {})) {
        QJsonObject play = command("PLAYOFF", serials);
        play.insert(QStringLiteral("filelist"), QJsonArray{what.second});
        if (what.first != 0)
            play.insert(QStringLiteral("order"), static_cast<double>(what.first));
        m_send(compact(play));
    }
}

QString Outbox::from(const QString& url, std::chrono::milliseconds moment) {
    const qint64 hundredths = moment.count() / 10;
    if (hundredths <= 0)
        return url;
    return url + beforeMoment(url) + QString::number(double(hundredths) / 100, 'f', 2);
}

bool Outbox::isFrom(const QString& address, const QString& url) {
    return address.startsWith(url + beforeMoment(url));
}
