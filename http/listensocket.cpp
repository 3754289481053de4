#include "http/listensocket.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <QHostAddress>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/// Connections that may wait to be accepted; a default of 50 drops SYNs in a storm, and each dropped
/// one comes back a second later.
constexpr int Backlog = 4096;

union SocketAddress {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

/// Fills `address`; its size, or 0 when the host is no address.
socklen_t fill(SocketAddress& address, const QHostAddress& host, quint16 port) {
    std::memset(&address, 0, sizeof address);
    if (host.protocol() == QAbstractSocket::IPv4Protocol) {
        address.v4.sin_family = AF_INET;
        address.v4.sin_port = htons(port);
        address.v4.sin_addr.s_addr = htonl(host.toIPv4Address());
        return sizeof address.v4;
    }
    if (host.isNull())
        return 0;
    const Q_IPV6ADDR bytes = host.toIPv6Address();
    address.v6.sin6_family = AF_INET6;
    address.v6.sin6_port = htons(port);
    std::memcpy(&address.v6.sin6_addr, &bytes, sizeof bytes);
    return sizeof address.v6;
}

int openAt(const QHostAddress& host, quint16 port, bool alsoIpv4) {
    SocketAddress address;
    const socklen_t size = fill(address, host, port);
    if (size == 0) {
        errno = EADDRNOTAVAIL;
        return -1;
    }
    const int socket = ::socket(address.any.sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket < 0)
        return -1;
    const int on = 1;
    const int onlyIpv6 = alsoIpv4 ? 0 : 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (address.any.sa_family == AF_INET6)
        ::setsockopt(socket, IPPROTO_IPV6, IPV6_V6ONLY, &onlyIpv6, sizeof onlyIpv6);
    if (::bind(socket, &address.any, size) == 0 && ::listen(socket, Backlog) == 0)
        return socket;
    const int error = errno;
    ::close(socket);
    errno = error;
    return -1;
}

} // namespace

int openListenSocket(const QString& host, quint16 port, QString* error) {
    int socket = -1;
    if (host.isEmpty()) {
        socket = openAt(QHostAddress(QHostAddress::AnyIPv6), port, true);
        if (socket < 0 && errno != EADDRINUSE)
            socket = openAt(QHostAddress(QHostAddress::AnyIPv4), port, false);
    } else {
        socket = openAt(QHostAddress(host), port, false);
    }
    if (socket < 0)
        *error = QString::fromLocal8Bit(std::strerror(errno));
    return socket;
}

quint16 boundPort(int socket) {
    SocketAddress address;
    socklen_t size = sizeof address;
    if (::getsockname(socket, &address.any, &size) != 0)
        return 0;
    return ntohs(address.any.sa_family == AF_INET6 ? address.v6.sin6_port : address.v4.sin_port);
}
