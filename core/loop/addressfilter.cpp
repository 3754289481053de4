#include "core/loop/addressfilter.h"

#include <algorithm>
#include <QDebug>
#include <QStringList>
#include <sys/socket.h>

namespace {

QPair<QHostAddress, int> single(const QHostAddress& address) {
    return {address, address.protocol() == QAbstractSocket::IPv4Protocol ? 32 : 128};
}

} // namespace

AddressFilter AddressFilter::parse(const QString& list) {
    AddressFilter filter;
    const QStringList entries = list.split(QLatin1Char(','), Qt::SkipEmptyParts);
    for (const QString& entry : entries) {
        const QString text = entry.trimmed();
        if (text.isEmpty())
            continue;
        filter.m_everybody = false;
        const QHostAddress address(text);
        const auto subnet = address.isNull() ? QHostAddress::parseSubnet(text) : single(address);
        if (subnet.first.isNull() || subnet.second < 0)
            qWarning().noquote() << "cmdallow: neither an address nor a subnet, ignored:" << text;
        else
            filter.m_subnets << subnet;
    }
    return filter;
}

void AddressFilter::allow(const QList<QHostAddress>& addresses) {
    for (const QHostAddress& address : addresses)
        m_subnets << single(address);
}

bool AddressFilter::allows(const QHostAddress& peer) const {
    const QHostAddress plain = plainAddress(peer);
    return m_everybody || std::any_of(m_subnets.begin(), m_subnets.end(), [&](const auto& subnet) {
               return plain.isInSubnet(subnet) || peer.isInSubnet(subnet);
           });
}

QHostAddress plainAddress(const QHostAddress& address) {
    bool isIpv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIpv4);
    return isIpv4 ? QHostAddress(ipv4) : address;
}

QHostAddress plainAddress(const sockaddr_storage& address) {
    return plainAddress(QHostAddress(reinterpret_cast<const sockaddr*>(&address)));
}
