#include "tools/simfleet.h"

#include <QDir>
#include <QNetworkProxy>

namespace sim {
namespace {

/// Each network manager runs a thread and at most six connections to one server.
constexpr int kSpeakersPerNetwork = 6;
constexpr int kMaxNetworks = 32;
/// New connections a turn, so that the fleet's own loop keeps answering while it grows.
constexpr std::size_t kBurst = 200;

} // namespace

Fleet::Fleet(const SpeakerOptions& first, int count, const Misfits& misfits, QObject* parent)
    : QObject(parent) {
    const int networks = std::min(kMaxNetworks, (count + kSpeakersPerNetwork - 1) / kSpeakersPerNetwork);
    for (int i = 0; i < networks; ++i) {
        m_networks.push_back(std::make_unique<QNetworkAccessManager>());
        m_networks.back()->setProxy(QNetworkProxy::NoProxy);
    }
    for (int i = 0; i < count; ++i) {
        SpeakerOptions options = first;
        options.serial = serialAt(first.serial, static_cast<quint32>(i));
        options.network = m_networks.at(static_cast<std::size_t>(i % networks)).get();
        options.isSilent = i < misfits.silent;
        if (i >= misfits.silent && i < misfits.silent + misfits.dropping)
            options.dropAfter = misfits.dropAfter;
        if (!first.player.saveDir.isEmpty())
            options.player.saveDir =
                QDir(first.player.saveDir).filePath(QString::fromLatin1(options.serial.toHex()));
        m_speakers.push_back(std::make_unique<Speaker>(options));
        connect(m_speakers.back().get(), &Speaker::online, this, [this] {
            if (++m_online == size())
                emit allOnline();
        });
        connect(m_speakers.back().get(), &Speaker::disconnected, this,
                [this](bool wasOnline) { m_online -= wasOnline ? 1 : 0; });
    }
    connect(&m_starter, &QTimer::timeout, this, &Fleet::startSome);
}

Fleet::~Fleet() = default;

void Fleet::start() {
    m_started = 0;
    m_starter.start(0);
}

void Fleet::startSome() {
    for (std::size_t i = 0; i < kBurst && m_started < m_speakers.size(); ++i)
        m_speakers.at(m_started++)->start();
    if (m_started >= m_speakers.size())
        m_starter.stop();
}

void Fleet::stop() {
    m_starter.stop();
    for (const auto& speaker : m_speakers)
        speaker->stop();
}

Speaker* Fleet::find(const QString& sn) {
    for (const auto& speaker : m_speakers)
        if (speaker->sn() == sn)
            return speaker.get();
    return nullptr;
}

QStringList Fleet::serials() const {
    QStringList serials;
    for (const auto& speaker : m_speakers)
        serials.append(speaker->sn());
    return serials;
}

} // namespace sim
