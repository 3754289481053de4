#include "http/connectionguard.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

using Clock = std::chrono::steady_clock;

ConnectionGuard::ConnectionGuard(std::chrono::milliseconds readTimeout, std::size_t room)
    : m_readTimeout(readTimeout)
    , m_room(room)
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

std::list<HttpSocket*>& ConnectionGuard::listOf(HttpSocket::Phase phase) {
    switch (phase) {
    case HttpSocket::Phase::Head:
        return m_heads;
    case HttpSocket::Phase::Body:
        return m_bodies;
    case HttpSocket::Phase::Answer:
        break;
    }
    return m_answers;
}

void ConnectionGuard::add(HttpSocket* socket) {
    {
        const std::lock_guard lock(m_mutex);
        socket->place = m_answers.insert(m_answers.end(), socket);
        socket->phase = HttpSocket::Phase::Answer;
        endOldHeads(Clock::now());
    }
    enter(socket, HttpSocket::Phase::Head);
}

void ConnectionGuard::enter(HttpSocket* socket, HttpSocket::Phase phase) {
    const auto now = Clock::now();
    const std::lock_guard lock(m_mutex);
    const bool wasIdle = isIdle();
    auto& list = listOf(phase);
    list.splice(list.end(), listOf(socket->phase), socket->place);
    socket->phase = phase;
    socket->phaseBegin = now;
    socket->lastData = now;
    socket->bodyBytes = 0;
    if (wasIdle && !isIdle())
        m_wake.notify_all();
}

void ConnectionGuard::remove(HttpSocket* socket) {
    const std::lock_guard lock(m_mutex);
    listOf(socket->phase).erase(socket->place);
    if (socket->isEnded)
        --m_ended;
    if (socket->lingers)
        linger(socket->descriptor);
}

bool ConnectionGuard::isFull() const {
    return m_heads.size() + m_bodies.size() + m_answers.size() - m_ended > m_room;
}

void ConnectionGuard::end(HttpSocket& socket) {
    if (!std::exchange(socket.isEnded, true))
        ++m_ended;
    ::shutdown(socket.descriptor, SHUT_RDWR);
}

void ConnectionGuard::endOldHeads(TimePoint now) {
    for (HttpSocket* socket : m_heads) {
        if (!isFull() || now - socket->phaseBegin <= HeadPatience)
            return;
        if (!socket->isEnded)
            end(*socket);
    }
}

void ConnectionGuard::endSilentBodies(TimePoint now) {
    for (HttpSocket* socket : m_bodies) {
        if (!isFull())
            return;
        if (!socket->isEnded && now - socket->lastData.load() > BodyPatience)
            end(*socket);
    }
}

void ConnectionGuard::endUnreadAnswers(qint64 bytes) {
    const auto now = Clock::now();
    const std::lock_guard lock(m_mutex);
    for (HttpSocket* socket : m_answers) {
        if (bytes <= 0 || now - socket->phaseBegin <= AnswerPatience)
            return;
        if (socket->isEnded || socket->heldBytes == 0)
            continue;
        bytes -= socket->heldBytes;
        end(*socket);
    }
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
        m_wake.wait(lock, [this] { return m_ending || !isIdle(); });
        m_wake.wait_for(lock, Tick, [this] { return m_ending; });
        const auto now = Clock::now();
        endOverdue(now);
        drainLingering(now);
    }
}

void ConnectionGuard::endOverdue(TimePoint now) {
    for (HttpSocket* socket : m_heads) {
        if (now - socket->phaseBegin <= m_readTimeout)
            break; // so are all after it
        end(*socket);
    }
    for (HttpSocket* socket : m_bodies) {
        if (isBodyOverdue(*socket, now) || hasLeft(*socket, now))
            end(*socket);
    }
    endOldHeads(now);
    endSilentBodies(now);
}

bool ConnectionGuard::isBodyOverdue(const HttpSocket& socket, TimePoint now) const {
    const std::chrono::seconds paid(socket.bodyBytes / MinBodyRate);
    return now - socket.lastData.load() > m_readTimeout || now - socket.phaseBegin > SlowBodyGrace + paid;
}

// The library overlooks an end that comes together with the last bytes before it.
bool ConnectionGuard::hasLeft(const HttpSocket& socket, TimePoint now) {
    constexpr std::chrono::seconds grace{1}; // for the engine to look at what it has read
    char byte;
    return now - socket.lastData.load() > grace &&
           ::recv(socket.descriptor, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

void ConnectionGuard::drainLingering(TimePoint now) {
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
