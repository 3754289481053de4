#include "http/connectionguard.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using Clock = std::chrono::steady_clock;

void HttpSocket::enter(Phase next) {
    const auto now = Clock::now();
    phaseBegin = now;
    lastData = now;
    bodyBytes = 0;
    phase = next;
}

ConnectionGuard::ConnectionGuard(std::chrono::milliseconds readTimeout)
    : m_readTimeout(readTimeout)
    , m_thread([this] { run(); }) {}

ConnectionGuard::~ConnectionGuard() {
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
    }
    m_wake.notify_all();
    m_thread.join();
    for (const Lingering& lingering : m_lingering)
        ::close(lingering.descriptor);
}

void ConnectionGuard::add(HttpSocket* socket) {
    const std::lock_guard lock(m_mutex);
    m_sockets.insert(socket);
    if (m_sockets.size() == 1)
        m_wake.notify_all();
}

void ConnectionGuard::remove(HttpSocket* socket) {
    const std::lock_guard lock(m_mutex);
    m_sockets.erase(socket);
    if (socket->lingers)
        linger(socket->descriptor);
}

void ConnectionGuard::linger(int descriptor) {
    if (m_ending || m_lingering.size() >= MaxLingering)
        return;
    const int copy = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    if (copy < 0)
        return;
    ::shutdown(copy, SHUT_WR);
    m_lingering.push_back({copy, Clock::now() + LingerTime});
    m_wake.notify_all();
}

void ConnectionGuard::run() {
    std::unique_lock lock(m_mutex);
    while (!m_ending) {
        m_wake.wait(lock, [this] { return m_ending || !m_sockets.empty() || !m_lingering.empty(); });
        m_wake.wait_for(lock, Tick, [this] { return m_ending; });
        const auto now = Clock::now();
        endOverdue(now);
        drainLingering(now);
    }
}

void ConnectionGuard::endOverdue(Clock::time_point now) {
    for (HttpSocket* socket : m_sockets) {
        const auto phase = socket->phase.load();
        if (phase == HttpSocket::Phase::Answer)
            continue;
        bool overdue = now - socket->lastData.load() > m_readTimeout;
        if (phase == HttpSocket::Phase::Body) {
            const std::chrono::seconds paid(socket->bodyBytes / MinBodyRate);
            overdue = overdue || now - socket->phaseBegin.load() > SlowBodyGrace + paid;
        }
        if (overdue)
            ::shutdown(socket->descriptor, SHUT_RDWR);
    }
}

void ConnectionGuard::drainLingering(Clock::time_point now) {
    // A bounded bite at each tick: a client that goes on sending is slowed by its own full window.
    constexpr int BitesPerTick = 16;
    char scratch[16384];
    for (auto it = m_lingering.begin(); it != m_lingering.end();) {
        ssize_t got = 1;
        for (int bite = 0; got > 0 && bite < BitesPerTick; ++bite)
            got = ::recv(it->descriptor, scratch, sizeof scratch, MSG_DONTWAIT);
        const bool waits = got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
        if (waits && now < it->end) {
            ++it;
            continue;
        }
        ::close(it->descriptor);
        it = m_lingering.erase(it);
    }
}
