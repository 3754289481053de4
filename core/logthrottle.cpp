#include "core/logthrottle.h"

#include <chrono>
#include <mutex>
#include <QDebug>
#include <QHash>
#include <QHostAddress>
#include <QMap>

namespace {

using Clock = std::chrono::steady_clock;

class Throttle {
public:
    bool admits(const char* kind, const QString& peer) {
        const std::lock_guard lock(m_mutex);
        const auto now = Clock::now();
        if (now - m_second >= std::chrono::seconds(1))
            begin(now);
        Kind& lines = m_kinds[QLatin1String(kind)];
        const bool isKnown = lines.peers.contains(peer) || m_peers < logthrottle::MaxPeers;
        int& count = lines.peers[isKnown ? peer : QString()];
        m_peers += isKnown && count == 0 ? 1 : 0;
        const bool passes = ++count <= logthrottle::LinesPerPeer && lines.passed < logthrottle::LinesPerKind;
        ++(passes ? lines.passed : lines.held);
        return passes;
    }

private:
    struct Kind {
        QHash<QString, int> peers; ///< lines of each
        int passed = 0;
        int held = 0;
    };

    void begin(Clock::time_point now) {
        for (auto kind = m_kinds.cbegin(); kind != m_kinds.cend(); ++kind) {
            if (kind->held > 0)
                qWarning().noquote() << kind.key() << "-" << kind->held << "more lines within a second, from"
                                     << kind->peers.size() << "peers";
        }
        m_kinds.clear();
        m_peers = 0;
        m_second = now;
    }

    std::mutex m_mutex; ///< guards all below
    Clock::time_point m_second;
    QMap<QString, Kind> m_kinds;
    int m_peers = 0;
};

} // namespace

bool mayLog(const char* kind, const QString& peer) {
    static auto* const throttle = new Throttle; // never destroyed, as the log itself
    return throttle->admits(kind, peer);
}

bool mayLog(const char* kind, const QHostAddress& peer) {
    return mayLog(kind, peer.toString());
}
