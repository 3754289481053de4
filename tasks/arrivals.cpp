#include "tasks/arrivals.h"

#include "device/severinit.h"

#include <algorithm>
#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>

Arrivals::Arrivals(Severinit* devices, QObject* parent)
    : QObject(parent)
    , m_devices(devices) {
    connect(m_devices, &Severinit::registered, this, &Arrivals::arrive);
    connect(&m_expiry, &QTimer::timeout, this, &Arrivals::dropExpired);
}

void Arrivals::deliver(const QList<QJsonObject>& commands, const QStringList& serials,
                       std::chrono::milliseconds keep) {
    QStringList present;
    const QDeadlineTimer until(keep);
    for (const QString& sn : serials) {
        if (m_devices->isOnline(sn)) {
            present += sn;
            continue;
        }
        for (const QJsonObject& command : commands)
            m_kept[sn].append({command, until});
    }
    if (!present.isEmpty()) {
        for (const QJsonObject& command : commands)
            send(command, present);
    }
    if (!m_kept.isEmpty() && !m_expiry.isActive())
        m_expiry.start(Keep);
}

void Arrivals::forget(const QStringList& serials) {
    for (const QString& sn : serials)
        m_kept.remove(sn);
}

void Arrivals::arrive(const QString& sn) {
    const QList<Kept> kept = m_kept.take(sn);
    for (const Kept& one : kept) {
        if (!one.until.hasExpired())
            send(one.command, {sn});
    }
}

void Arrivals::send(QJsonObject command, const QStringList& serials) {
    command.insert(QStringLiteral("snlist"), QJsonArray::fromStringList(serials));
    qInfo() << "for speakers that arrive:" << command.value(QLatin1String("cmd")).toString() << serials;
    m_devices->Diamonds_jsondidocom(QJsonDocument(command).toJson(QJsonDocument::Compact));
}

void Arrivals::dropExpired() {
    for (auto sn = m_kept.begin(); sn != m_kept.end();) {
        QList<Kept>& kept = *sn;
        kept.erase(
            std::remove_if(kept.begin(), kept.end(), [](const Kept& one) { return one.until.hasExpired(); }),
            kept.end());
        sn = kept.isEmpty() ? m_kept.erase(sn) : std::next(sn);
    }
    if (m_kept.isEmpty())
        m_expiry.stop();
}
