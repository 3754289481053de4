#include "device/devicesocket.h"

#include "core/eventdispatcher.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <QDebug>
#include <sys/socket.h>
#include <unistd.h>

namespace {
bool isTemporary(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}
} // namespace

DeviceSocket::DeviceSocket(int descriptor, const QHostAddress& peer, QObject* parent)
    : QObject(parent)
    , m_descriptor(descriptor)
    , m_peer(peer) {
    listenAnew();
}

DeviceSocket::~DeviceSocket() {
    close();
}

/// Tells the loop what to look for: bytes unless unwatched, room while there is a backlog.
void DeviceSocket::listenAnew() {
    EpollEventDispatcher* const loop = EpollEventDispatcher::current();
    if (!loop)
        return; // gone already, and with it whatever it watched
    const bool isOpen = isConnected();
    loop->listen(m_descriptor, isOpen ? this : nullptr, isOpen && m_watched, !m_backlog.isEmpty());
}

void DeviceSocket::descriptorReady(bool readable, bool writable) {
    if (writable)
        this->writable();
    if (readable && isConnected())
        readNow();
}

QByteArray DeviceSocket::readAll() {
    return std::exchange(m_input, {});
}

void DeviceSocket::readNow() {
    // Shared by all connections, which live on one thread: what is read is copied out at once.
    static std::array<char, MaxRead> buffer;
    const int got = receive(buffer.data(), 0);
    if (got == 0)
        return;
    m_input.append(buffer.data(), got);
    emit readyRead();
}

int DeviceSocket::countNow() {
    return isConnected() ? receive(nullptr, MSG_TRUNC) : 0; // the kernel copies nothing
}

/// Bytes received, 0 for none; signals the end.
int DeviceSocket::receive(char* buffer, int flags) {
    const auto got = ::recv(m_descriptor, buffer, MaxRead, flags);
    if (got > 0)
        return static_cast<int>(got);
    if (got == 0 || !isTemporary(errno)) {
        breakDown(got == 0 ? 0 : errno);
        announceEnd();
    }
    return 0;
}

void DeviceSocket::setWatched(bool watched) {
    if (std::exchange(m_watched, watched) != watched && isConnected())
        listenAnew();
}

int DeviceSocket::write(const QByteArray& bytes) {
    if (!isConnected())
        return -1;
    int sent = 0;
    if (m_backlog.isEmpty()) {
        sent = sendNow(bytes.constData(), bytes.size());
        if (sent < 0)
            return fail(errno);
        if (sent == bytes.size())
            return sent;
    }
    if (m_backlog.size() + bytes.size() - sent > MaxBacklog) {
        qWarning().noquote() << "Speaker does not read, dropped:" << m_peer.toString() << "with"
                             << m_backlog.size() << "bytes waiting";
        return fail(ENOBUFS);
    }
    m_backlog.append(bytes.constData() + sent, bytes.size() - sent);
    listenAnew();
    return bytes.size();
}

int DeviceSocket::sendNow(const char* data, int size) {
    const auto sent = ::send(m_descriptor, data, static_cast<std::size_t>(size), MSG_NOSIGNAL);
    if (sent >= 0)
        return static_cast<int>(sent);
    return isTemporary(errno) ? 0 : -1;
}

void DeviceSocket::writable() {
    const int sent = sendNow(m_backlog.constData(), m_backlog.size());
    if (sent < 0) {
        fail(errno);
        return;
    }
    m_backlog.remove(0, sent);
    if (m_backlog.isEmpty()) {
        m_backlog = {}; // gives the memory back
        listenAnew();
    }
}

int DeviceSocket::fail(int error) {
    breakDown(error);
    QMetaObject::invokeMethod(this, &DeviceSocket::announceEnd, Qt::QueuedConnection);
    return -1;
}

void DeviceSocket::breakDown(int error) {
    m_broken = true;
    m_error = error;
    m_backlog = {};
    listenAnew();
}

void DeviceSocket::announceEnd() {
    if (m_descriptor >= 0)
        emit disconnected();
}

void DeviceSocket::close() {
    if (m_descriptor < 0)
        return;
    breakDown(m_error);
    ::close(m_descriptor);
    m_descriptor = -1;
}

void DeviceSocket::abort() {
    if (m_descriptor < 0)
        return;
    const linger discard{1, 0};
    ::setsockopt(m_descriptor, SOL_SOCKET, SO_LINGER, &discard, sizeof discard);
    close();
}

QHostAddress DeviceSocket::localAddress() const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (m_descriptor < 0 || ::getsockname(m_descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return {};
    return plainAddress(address);
}

QString DeviceSocket::errorText() const {
    return m_error == 0 ? QStringLiteral("closed by the peer")
                        : QString::fromLocal8Bit(std::strerror(m_error));
}

QHostAddress DeviceSocket::plainAddress(const sockaddr_storage& address) {
    QHostAddress plain(reinterpret_cast<const sockaddr*>(&address));
    bool isMapped = false;
    const quint32 mapped = plain.toIPv4Address(&isMapped);
    if (isMapped)
        plain.setAddress(mapped);
    return plain;
}
