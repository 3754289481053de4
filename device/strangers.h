#pragma once

#include <chrono>
#include <QHash>
#include <QHostAddress>
#include <QSet>
#include <QString>
#include <QStringList>

class SAobj;

/// A session's place among those that may make room; what it derives from. Leaves when it is destroyed.
struct StrangerLink {
    StrangerLink() = default;
    ~StrangerLink() { leave(); }
    StrangerLink(const StrangerLink&) = delete;
    StrangerLink& operator=(const StrangerLink&) = delete;
    void leave();

    StrangerLink* before = nullptr;
    StrangerLink* after = nullptr; ///< null: it may not make room
};

/// The registry's dealings with serials that the database does not know: anybody can make them up. Keeps who
/// is known, how many strangers an address may bring, and which of those that are offline makes room. Main
/// loop only.
class Strangers {
public:
    Strangers();

    /// New strangers that one address may bring in a second once the registry is crowded.
    static constexpr int PerSecond = 50;

    void setStored(const QString& sn, bool stored);
    bool isStored(const QString& sn) const { return m_stored.contains(sn); }
    /// Counts one more from this address; false when it has brought too many in this second. `now` is on any
    /// clock that never goes back.
    bool mayEnter(const QHostAddress& peer, std::chrono::milliseconds now);

    /// The session has gone offline, or come back: as long as it is a stranger's it may make room meanwhile.
    void wentOffline(SAobj& session);
    static void cameOnline(StrangerLink& session) { session.leave(); }
    /// The stranger's session that has been offline for the longest time; null when there is none.
    SAobj* longestOffline() const;

private:
    QSet<QString> m_stored;
    StrangerLink
        m_offline; ///< begins and ends their ring: `after` is the one that is offline for the longest
    qint64 m_second = -1;
    QHash<quint64, int> m_entered; ///< in this second, by address
    int m_refused = 0;             ///< likewise
};
