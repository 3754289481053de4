#include "device/juice_tcp.h"

#include "core/logthrottle.h"
#include "device/lobby.h"

#include <chrono>
#include <QDebug>

using namespace std::chrono_literals;

namespace {
/// A speaker sends its first packet as soon as it is connected; who is silent so long is none.
constexpr auto FirstReadDeadline = 30s;
} // namespace

juice_tcp::juice_tcp(Lobby& lobby, quint64 ticket, std::unique_ptr<DeviceSocket> socket, TimingWheel& wheel)
    : m_lobby(lobby)
    , m_ticket(ticket)
    , m_socket(std::move(socket))
    , m_deadline(wheel.once(FirstReadDeadline, this, 0)) {
    m_socket->setOwner(this);
}

juice_tcp::~juice_tcp() = default;

void juice_tcp::socketRead(const char* bytes, int size) {
    if (mayLog("juice_tcp disconnect1", m_socket->peerAddress()))
        qInfo().noquote() << "juice_tcp disconnect1" << m_lobby.name() << m_socket->peerAddress().toString();
    m_deadline.reset();
    m_lobby.handOn(m_ticket, std::move(m_socket), QByteArray(bytes, size));
}

void juice_tcp::socketEnded() {
    refuse(m_socket->errorText());
}

void juice_tcp::makeRoom() {
    m_socket->readNow();
    if (m_socket && m_socket->isConnected())
        refuse(QStringLiteral("too many connections wait"));
}

void juice_tcp::wheelTimeout(int /*tag*/) {
    refuse(QStringLiteral("silent for 30 s"));
}

void juice_tcp::refuse(const QString& reason) {
    if (mayLog("juice_tcp disconnect2", m_socket->peerAddress()))
        qInfo().noquote() << "juice_tcp disconnect2" << m_lobby.name() << m_socket->peerAddress().toString()
                          << reason;
    m_deadline.reset();
    m_socket->close();
    m_lobby.leave(m_ticket);
}
