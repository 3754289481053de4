#pragma once

#include <QHostAddress>
#include <QList>
#include <QPair>
#include <QString>
#include <QVector>

/// Which peers may connect. A plain value.
class AddressFilter {
public:
    /// Lets everybody in.
    AddressFilter() = default;
    /// `list`: addresses and subnets ("10.0.0.0/8") separated by commas. An empty list lets everybody
    /// in. An entry that is neither is logged and lets nobody in: a slip of the pen must not open
    /// the door.
    static AddressFilter parse(const QString& list);

    /// Lets these in too, as they are now. A filter that lets everybody in goes on doing so.
    void allow(const QList<QHostAddress>& addresses);

    /// An IPv4 peer matches IPv4 entries also when it arrived over an IPv6 socket.
    bool allows(const QHostAddress& peer) const;

private:
    QVector<QPair<QHostAddress, int>> m_subnets;
    bool m_everybody = true;
};

/// The address with IPv4-in-IPv6 undone.
QHostAddress plainAddress(const QHostAddress& address);
QHostAddress plainAddress(const struct sockaddr_storage& address);
