#include "device/strangers.h"

#include "device/saobj.h"

#include <QDebug>
#include <QtEndian>
#include <utility>

namespace {
/// Who has one IPv6 address has a network of them.
quint64 sourceOf(const QHostAddress& peer) {
    bool isIpv4 = false;
    const quint32 ipv4 = peer.toIPv4Address(&isIpv4);
    return isIpv4 ? ipv4 : qFromBigEndian<quint64>(peer.toIPv6Address().c);
}
} // namespace

void StrangerLink::leave() {
    if (!after)
        return;
    before->after = after;
    after->before = before;
    after = before = nullptr;
}

Strangers::Strangers() {
    m_offline.before = m_offline.after = &m_offline;
}

void Strangers::setStored(const QString& sn, bool stored) {
    if (stored)
        m_stored.insert(sn);
    else
        m_stored.remove(sn);
}

bool Strangers::mayEnter(const QHostAddress& peer, std::chrono::milliseconds now) {
    const auto second = std::chrono::duration_cast<std::chrono::seconds>(now).count();
    if (second != m_second) {
        if (m_refused > 0)
            qWarning() << "Registry crowded, new serials not admitted:" << m_refused;
        m_second = second;
        m_refused = 0;
        m_entered.clear();
    }
    int& entered = m_entered[sourceOf(peer)];
    const bool may = entered < PerSecond;
    ++(may ? entered : m_refused);
    return may;
}

void Strangers::wentOffline(SAobj& session) {
    StrangerLink& link = session;
    if (link.after || isStored(session.sn()))
        return;
    link.after = &m_offline;
    link.before = std::exchange(m_offline.before, &link);
    link.before->after = &link;
}

SAobj* Strangers::longestOffline() const {
    return m_offline.after == &m_offline ? nullptr : static_cast<SAobj*>(m_offline.after);
}
