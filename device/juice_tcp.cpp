#include "device/juice_tcp.h"

#include "device/devicesocket.h"

#include <chrono>
#include <QDebug>

using namespace std::chrono_literals;

namespace {
/// A speaker sends its first packet as soon as it is connected; who is silent so long is none.
constexpr auto FirstReadDeadline = 30s;
} // namespace

juice_tcp::juice_tcp(QString name, std::unique_ptr<DeviceSocket> socket, TimingWheel& wheel, QObject* parent)
    : QObject(parent)
    , m_name(std::move(name))
    , m_socket(std::move(socket))
    , m_deadline(wheel.once(FirstReadDeadline, this, 0)) {
    connect(m_socket.get(), &DeviceSocket::readyRead, this, &juice_tcp::readFirst);
    connect(m_socket.get(), &DeviceSocket::disconnected, this, [this] { refuse(m_socket->errorText()); });
}

juice_tcp::~juice_tcp() = default;

void juice_tcp::readFirst() {
    qInfo().noquote() << "juice_tcp disconnect1" << m_name << m_socket->peerAddress().toString();
    m_deadline.reset();
    disconnect(m_socket.get(), nullptr, this, nullptr);
    DeviceSocket* const socket = m_socket.release();
    emit firstRead(socket, socket->readAll());
    emit over();
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
    qInfo().noquote() << "juice_tcp disconnect2" << m_name << m_socket->peerAddress().toString() << reason;
    m_deadline.reset();
    m_socket->close();
    emit over();
}
