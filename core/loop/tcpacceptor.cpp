#include "core/loop/tcpacceptor.h"

#include "core/loop/addressfilter.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <QSocketNotifier>
#include <QTimer>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {
/// Pause after the system ran out of descriptors or memory, so as not to spin on the waiting queue.
constexpr auto ExhaustedPause = 500ms;

struct Option {
    int level;
    int name;
    int value;
};

// Every accepted connection inherits them from the listening socket, which saves the calls per
// connection.
constexpr Option Options[] = {
    {SOL_SOCKET, SO_REUSEADDR, 1},
    {IPPROTO_TCP, TCP_NODELAY, 1},      // commands are told apart by the speaker's reads
    {SOL_SOCKET, SO_SNDBUF, 64 * 1024}, // bounds the kernel's memory for a speaker that stops reading
    {IPPROTO_TCP, TCP_USER_TIMEOUT,
     30'000},                      // ms; a vanished peer fails within this, not after a quarter hour
    {SOL_SOCKET, SO_KEEPALIVE, 1}, // finds vanished peers that nothing is written to
    {IPPROTO_TCP, TCP_KEEPIDLE, 60},
    {IPPROTO_TCP, TCP_KEEPINTVL, 10},
};

int bindAnyAddress(int descriptor, int family, quint16 port) {
    if (family == AF_INET6) {
        sockaddr_in6 any{};
        any.sin6_family = AF_INET6;
        any.sin6_port = htons(port);
        const int v6Only = 0;
        ::setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &v6Only, sizeof v6Only);
        return ::bind(descriptor, reinterpret_cast<const sockaddr*>(&any), sizeof any);
    }
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(port);
    return ::bind(descriptor, reinterpret_cast<const sockaddr*>(&any), sizeof any);
}

/// Descriptors below this one are for speakers. The system gives out the lowest that is free.
int usableDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return INT_MAX;
    const rlim_t all = std::min<rlim_t>(limit.rlim_cur, INT_MAX);
    return static_cast<int>(all - std::min<rlim_t>(all / 8, TcpAcceptor::Reserve));
}

bool isExhausted(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}
} // namespace

TcpAcceptor::TcpAcceptor(QObject* parent)
    : QObject(parent) {}

TcpAcceptor::~TcpAcceptor() {
    m_notifier.reset();
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

bool TcpAcceptor::listen(quint16 port) {
    if (!openSocket(AF_INET6, port) && (errno != EAFNOSUPPORT || !openSocket(AF_INET, port))) {
        m_error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    m_notifier = std::make_unique<QSocketNotifier>(m_descriptor, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &TcpAcceptor::acceptBatch);
    return true;
}

bool TcpAcceptor::openSocket(int family, quint16 port) {
    const int descriptor = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        return false;
    for (const Option& option : Options)
        ::setsockopt(descriptor, option.level, option.name, &option.value, sizeof option.value);
    if (bindAnyAddress(descriptor, family, port) != 0 || ::listen(descriptor, Backlog) != 0) {
        const int error = errno;
        ::close(descriptor);
        errno = error;
        return false;
    }
    m_descriptor = descriptor;
    return true;
}

void TcpAcceptor::acceptBatch() {
    const int usable = usableDescriptors();
    int taken = 0;
    while (taken < BatchSize && acceptOne(usable))
        ++taken;
    // In a storm the event loop has thousands of ready sockets to go round before it tells of this one
    // again; by then the kernel's queue would have overflowed.
    if (taken > 0)
        QMetaObject::invokeMethod(this, &TcpAcceptor::acceptBatch, Qt::QueuedConnection);
}

/// False when none waits, or none can be taken for now.
bool TcpAcceptor::acceptOne(int usable) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    const int descriptor =
        ::accept4(m_descriptor, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor >= usable) {
        ::close(descriptor);
        pause(EMFILE);
        return false;
    }
    if (descriptor >= 0) {
        m_pending.push_back(std::make_unique<DeviceSocket>(descriptor, plainAddress(peer)));
        emit newConnection();
        return true;
    }
    const int error = errno;
    if (isExhausted(error))
        pause(error);
    // Any other error is that of one connection, which ended before it was taken.
    return !isExhausted(error) && error != EAGAIN && error != EWOULDBLOCK;
}

void TcpAcceptor::pause(int error) {
    if (!m_notifier->isEnabled())
        return;
    m_notifier->setEnabled(false);
    QTimer::singleShot(ExhaustedPause, this, [this] { m_notifier->setEnabled(true); });
    emit acceptError(QString::fromLocal8Bit(std::strerror(error)));
}

std::unique_ptr<DeviceSocket> TcpAcceptor::nextPendingConnection() {
    if (m_pending.empty())
        return nullptr;
    auto oldest = std::move(m_pending.front());
    m_pending.pop_front();
    return oldest;
}
