#include "device/commandserver.h"

#include "core/logthrottle.h"
#include "device/severinit.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <QDebug>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

/// Pause after the system ran out of descriptors, so as not to spin on the waiting queue.
constexpr auto ExhaustedPause = 200ms;

/// A storm of connections is told in one line of the log.
constexpr auto EvictionLogPause = 1s;

QHostAddress peerOf(int descriptor) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0)
        return {};
    return plainAddress(address);
}

void setOptions(int descriptor) {
    // QTcpServer leaves this to the QTcpSocket that it expects to be made.
    ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK); // NOLINT(*-vararg)
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // Finds peers that vanished while their connection was at rest.
    ::setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

CommandHandler handlerOf(Severinit* devices) {
    return [devices](const QByteArray& request, const QString& peer, const auto& reply) {
        devices->runCommand(request, reply, peer);
    };
}

} // namespace

CommandServer::CommandServer(QString tag, QObject* parent)
    : QTcpServer(parent)
    , m_tag(std::move(tag)) {
    m_evictionLog.setSingleShot(true);
    connect(&m_evictionLog, &QTimer::timeout, this, [this] {
        qWarning().noquote() << m_tag << std::exchange(m_evicted, 0)
                             << "silent connections closed, to make room for others";
    });
    connect(this, &QTcpServer::acceptError, this, [this] {
        if (mayLog("command connection not accepted", QString()))
            qWarning().noquote() << m_tag << "accept:" << errorString();
        QTimer::singleShot(ExhaustedPause, this, &QTcpServer::resumeAccepting);
    });
}

bool CommandServer::start(QHostAddress::SpecialAddress address, quint16 port, CommandHandler handler) {
    m_handler = std::move(handler);
    const bool isListening =
        listenWithBacklog(address, port) ||
        (address == QHostAddress::Any && listenWithBacklog(QHostAddress::AnyIPv4, port)); // no IPv6 here
    if (isListening)
        qInfo().noquote() << m_tag << "listening on port" << serverPort();
    else
        qWarning().noquote() << m_tag << "can't listen on port" << port << errorString();
    return isListening;
}

bool CommandServer::listenWithBacklog(QHostAddress::SpecialAddress address, quint16 port) {
    return listen(address, port) && ::listen(static_cast<int>(socketDescriptor()), Backlog) == 0;
}

void CommandServer::incomingConnection(qintptr handle) {
    const int descriptor = static_cast<int>(handle);
    const QHostAddress peer = peerOf(descriptor);
    const bool isAllowed = m_filter.allows(peer);
    if (!isAllowed || !makeRoom()) {
        if (mayLog("command connection refused", peer))
            qWarning().noquote() << m_tag << "refused:" << peer.toString()
                                 << (isAllowed ? "too many connections" : "not in cmdallow");
        ::close(descriptor);
        return;
    }
    setOptions(descriptor);
    new didocmd(descriptor, peer, m_tag, m_handler, m_peers, this);
}

/// True when one more connection has its place.
bool CommandServer::makeRoom() {
    auto& peers = m_peers->byAge;
    if (peers.size() < MaxConnections)
        return true;
    const auto oldest =
        std::find_if(peers.begin(), peers.end(), [](const didocmd* peer) { return peer->isSilent(); });
    if (oldest == peers.end())
        return false;
    if (m_evicted++ == 0)
        m_evictionLog.start(EvictionLogPause);
    delete *oldest;
    return true;
}

cmdthread::cmdthread(int PS1, QObject* parent)
    : CommandServer(QStringLiteral("didocmd PS1"), parent)
    , m_ps1(PS1) {}

bool cmdthread::init(Severinit* devices) {
    return start(QHostAddress::AnyIPv4, static_cast<quint16>(m_ps1), handlerOf(devices));
}

cmdthread6::cmdthread6(int PS2, QObject* parent)
    : CommandServer(QStringLiteral("didocmd6 PS2"), parent)
    , m_ps2(PS2) {}

bool cmdthread6::init(Severinit* devices) {
    return start(QHostAddress::Any, static_cast<quint16>(m_ps2), handlerOf(devices));
}
