#include "core/loop/devicesocket.h"

#include "core/logthrottle.h"
#include "core/loop/addressfilter.h"
#include "core/loop/eventdispatcher.h"
#include "core/loop/fetch.h"

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

DeviceSocket::DeviceSocket(int descriptor, const QHostAddress& peer)
    : m_descriptor(descriptor)
    , m_peer(peer) {}

DeviceSocket::~DeviceSocket() {
    close();
}

void DeviceSocket::setOwner(Owner* owner) {
    m_owner = owner;
    listenAnew();
}

/// Tells the loop what to look for: bytes unless unwatched, room while there is a backlog, and the end
/// of a broken connection as long as the owner does not know.
void DeviceSocket::listenAnew() {
    EpollEventDispatcher* const loop = EpollEventDispatcher::current();
    if (!loop)
        return; // gone already, and with it whatever it watched
    const bool isListening = m_owner && (isConnected() || m_endIsDue);
    loop->listen(m_descriptor, isListening ? this : nullptr, m_watched || m_endIsDue, !m_backlog.isEmpty());
}

void DeviceSocket::descriptorReady(bool readable, bool writable) {
    if (m_endIsDue)
        return tellEnd();
    if (writable)
        this->writable();
    if (readable && isConnected())
        readNow();
}

void DeviceSocket::descriptorSoon() const {
    fetchObject(m_owner);
}

void DeviceSocket::readNow() {
    // Shared by all connections, which live on one thread: what is read is copied out at once.
    static std::array<char, MaxRead> buffer;
    if (const int got = receive(buffer.data(), 0); got > 0 && m_owner)
        m_owner->socketRead(buffer.data(), got);
}

int DeviceSocket::countNow() {
    return isConnected() ? receive(nullptr, MSG_TRUNC) : 0; // the kernel copies nothing
}

/// Bytes received; 0 for none, and after the end was told: then the socket may be gone.
int DeviceSocket::receive(char* buffer, int flags) {
    const auto got = ::recv(m_descriptor, buffer, MaxRead, flags);
    if (got > 0)
        return static_cast<int>(got);
    if (got == 0 || !isTemporary(errno)) {
        breakDown(got == 0 ? 0 : errno);
        tellEnd();
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
        if (mayLog("Speaker does not read", m_peer))
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

/// Shut down, the descriptor is ready in the loop's next turn, whatever was wrong with it.
int DeviceSocket::fail(int error) {
    ::shutdown(m_descriptor, SHUT_RDWR);
    m_endIsDue = true;
    breakDown(error);
    return -1;
}

void DeviceSocket::breakDown(int error) {
    m_broken = true;
    m_error = error;
    m_backlog = {};
    listenAnew();
}

void DeviceSocket::tellEnd() {
    m_endIsDue = false;
    listenAnew();
    if (m_owner)
        m_owner->socketEnded();
}

void DeviceSocket::close() {
    if (m_descriptor < 0)
        return;
    m_endIsDue = false;
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
