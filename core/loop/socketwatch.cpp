#include "core/loop/socketwatch.h"

#include "core/loop/fetch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <QCoreApplication>
#include <QDebug>
#include <QEvent>
#include <sys/epoll.h>
#include <unistd.h>

namespace {

// Taken from the kernel at once. What is ready beyond that comes in the next turn, after timers and
// posted events had theirs.
constexpr int BatchSize = 256;

constexpr std::array<QSocketNotifier::Type, 3> Types = {QSocketNotifier::Read, QSocketNotifier::Write,
                                                        QSocketNotifier::Exception};
// What each type asks for, and what makes it ready.
constexpr std::array<std::uint16_t, 3> Interest = {EPOLLIN, EPOLLOUT, EPOLLPRI};
constexpr std::uint32_t Broken = EPOLLERR | EPOLLHUP;

} // namespace

SocketWatch::SocketWatch(int wakeUp)
    : m_epoll(epoll_create1(EPOLL_CLOEXEC))
    , m_wakeUp(wakeUp) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = wakeUp;
    if (m_epoll < 0 || epoll_ctl(m_epoll, EPOLL_CTL_ADD, wakeUp, &event) != 0)
        qFatal("no epoll descriptor: %s", std::strerror(errno));
}

SocketWatch::~SocketWatch() {
    close(m_epoll);
}

std::uint16_t SocketWatch::wanted(const Watched& watched) {
    std::uint16_t events = watched.listened;
    for (size_t type = 0; type < Types.size(); ++type) {
        if (watched.notifiers.at(type))
            events = static_cast<std::uint16_t>(events | Interest.at(type));
    }
    return events;
}

SocketWatch::Watched& SocketWatch::watchedAt(int descriptor) {
    if (static_cast<size_t>(descriptor) >= m_watched.size())
        m_watched.resize(std::max<size_t>(static_cast<size_t>(descriptor) + 1, m_watched.size() * 2));
    return m_watched[static_cast<size_t>(descriptor)];
}

void SocketWatch::add(QSocketNotifier* notifier) {
    const auto descriptor = static_cast<int>(notifier->socket());
    if (descriptor < 0)
        return;
    Watched& watched = watchedAt(descriptor);
    QSocketNotifier*& place = watched.notifiers.at(notifier->type());
    if (place && place != notifier) { // its file was closed and the number given out again
        qWarning("two socket notifiers of one type for descriptor %d, the newer one counts", descriptor);
        watched.isSuspect = true;
    }
    place = notifier;
    watched.batch = m_batch;
    noteChange(descriptor);
}

void SocketWatch::remove(QSocketNotifier* notifier) {
    const auto descriptor = static_cast<size_t>(notifier->socket());
    if (descriptor >= m_watched.size())
        return;
    Watched& watched = m_watched[descriptor];
    QSocketNotifier*& place = watched.notifiers.at(notifier->type());
    if (place != notifier)
        return;
    place = nullptr;
    // With nobody watching the number may go to another file before the kernel hears of it.
    if (wanted(watched) == 0)
        watched.isSuspect = true;
    noteChange(static_cast<int>(descriptor));
}

void SocketWatch::listen(int descriptor, DescriptorListener* listener, bool forReading, bool forWriting) {
    if (descriptor < 0)
        return;
    Watched& watched = watchedAt(descriptor);
    std::uint16_t events = 0;
    if (forReading)
        events |= EPOLLIN;
    if (forWriting)
        events |= EPOLLOUT;
    const bool isMore = (events & ~watched.listened) != 0;
    if (watched.listener != listener || isMore)
        watched.batch = m_batch;
    watched.listener = listener;
    watched.listened = listener ? events : std::uint16_t{0};
    if (wanted(watched) == 0)
        watched.isSuspect = true;
    noteChange(descriptor);
}

void SocketWatch::clear() {
    for (size_t descriptor = 0; descriptor < m_watched.size(); ++descriptor) {
        m_watched[descriptor].notifiers = {};
        m_watched[descriptor].listener = nullptr;
        m_watched[descriptor].listened = 0;
        noteChange(static_cast<int>(descriptor));
    }
    applyChanges();
}

void SocketWatch::noteChange(int descriptor) {
    Watched& watched = m_watched[static_cast<size_t>(descriptor)];
    if (!watched.isChanged)
        m_changes.push_back(descriptor);
    watched.isChanged = true;
}

void SocketWatch::applyChanges() {
    while (!m_changes.empty()) {
        const int descriptor = m_changes.back();
        m_changes.pop_back();
        m_watched[static_cast<size_t>(descriptor)].isChanged = false;
        apply(descriptor);
    }
}

void SocketWatch::apply(int descriptor) {
    Watched& watched = m_watched[static_cast<size_t>(descriptor)];
    const std::uint16_t events = wanted(watched);
    if (watched.alwaysReady && (events == 0 || watched.isSuspect)) {
        watched.alwaysReady = false;
        m_alwaysReady.erase(std::remove(m_alwaysReady.begin(), m_alwaysReady.end(), descriptor),
                            m_alwaysReady.end());
    }
    if (watched.alwaysReady || (events == watched.armed && !watched.isSuspect))
        return;
    watched.isSuspect = false;
    if (events != 0) {
        arm(descriptor, events);
    } else if (watched.armed != 0) {
        epoll_ctl(m_epoll, EPOLL_CTL_DEL, descriptor, nullptr); // fails when it is closed already
        watched.armed = 0;
    }
}

void SocketWatch::arm(int descriptor, std::uint16_t events) {
    Watched& watched = m_watched[static_cast<size_t>(descriptor)];
    epoll_event event{};
    event.events = events;
    event.data.fd = descriptor;
    const int first = watched.armed != 0 ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    int result = epoll_ctl(m_epoll, first, descriptor, &event);
    if (result != 0 && errno == ENOENT) // the file that was watched is gone, the number is another's
        result = epoll_ctl(m_epoll, EPOLL_CTL_ADD, descriptor, &event);
    else if (result != 0 && errno == EEXIST)
        result = epoll_ctl(m_epoll, EPOLL_CTL_MOD, descriptor, &event);
    watched.armed = result == 0 ? events : std::uint16_t{0};
    if (result == 0)
        return;
    if (errno == EPERM) { // a regular file or directory: ready at any time
        watched.alwaysReady = true;
        m_alwaysReady.push_back(descriptor);
    } else {
        qWarning("descriptor %d can't be watched: %s", descriptor, std::strerror(errno));
        disableAll(descriptor);
    }
}

void SocketWatch::disableAll(int descriptor) {
    for (const QSocketNotifier::Type type : Types) {
        QSocketNotifier* const notifier = m_watched[static_cast<size_t>(descriptor)].notifiers.at(type);
        if (notifier)
            notifier->setEnabled(false); // comes back as remove()
    }
}

bool SocketWatch::wait(std::chrono::milliseconds timeout, bool sockets) {
    const auto ms = [](std::chrono::milliseconds time) {
        return static_cast<int>(std::min<std::chrono::milliseconds::rep>(time.count(), INT_MAX));
    };
    if (!sockets) {
        pollfd wakeUp{m_wakeUp, POLLIN, 0};
        return poll(&wakeUp, 1, ms(timeout)) > 0;
    }
    applyChanges();
    ++m_batch;
    m_ready.clear();
    std::array<epoll_event, BatchSize> events;
    const int count = epoll_wait(m_epoll, events.data(), BatchSize, m_alwaysReady.empty() ? ms(timeout) : 0);
    bool woken = false;
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events.at(static_cast<size_t>(i));
        if (event.data.fd == m_wakeUp)
            woken = true;
        else
            m_ready.push_back({event.data.fd, event.events});
    }
    for (const int descriptor : m_alwaysReady)
        m_ready.push_back({descriptor, EPOLLIN | EPOLLOUT});
    return woken;
}

int SocketWatch::deliver() {
    const std::uint32_t batch = m_batch;
    int delivered = 0;
    for (size_t i = 0; batch == m_batch && i < m_ready.size(); ++i) {
        fetchNext(i);
        delivered += deliverTo(m_ready[i].descriptor, m_ready[i].events);
    }
    return delivered;
}

// In a fleet nothing of the next connection is in the cache yet.
void SocketWatch::fetchNext(size_t index) const {
    const auto at = [this](const Ready& ready) -> const Watched& {
        return m_watched[static_cast<size_t>(ready.descriptor)];
    };
    ::fetchAhead(
        m_ready, index, [&](const Ready& ready) { fetchObject(&at(ready)); },
        [&](const Ready& ready) { fetchObject(at(ready).listener); },
        [&](const Ready& ready) {
            if (at(ready).listener)
                at(ready).listener->descriptorSoon();
        });
}

// Each notifier is looked up anew: any of them may have been switched off or deleted by one before.
int SocketWatch::deliverTo(int descriptor, std::uint32_t events) {
    const std::uint32_t batch = m_batch;
    int delivered = 0;
    for (size_t type = 0; type < Types.size() && batch == m_batch; ++type) {
        const Watched& watched = m_watched[static_cast<size_t>(descriptor)];
        QSocketNotifier* const notifier = watched.notifiers.at(type);
        if (!notifier || watched.batch == batch || (events & (Interest.at(type) | Broken)) == 0)
            continue;
        QEvent event(QEvent::SockAct);
        QCoreApplication::sendEvent(notifier, &event);
        ++delivered;
    }
    const Watched& watched = m_watched[static_cast<size_t>(descriptor)];
    if (batch == m_batch && watched.listened != 0 && watched.batch != batch)
        delivered += tellListener(watched, events);
    return delivered;
}

int SocketWatch::tellListener(const Watched& watched, std::uint32_t events) const {
    const bool isReadable = (watched.listened & EPOLLIN) != 0 && (events & (EPOLLIN | Broken)) != 0;
    const bool isWritable = (watched.listened & EPOLLOUT) != 0 && (events & (EPOLLOUT | Broken)) != 0;
    if (!isReadable && !isWritable)
        return 0;
    watched.listener->descriptorReady(isReadable, isWritable);
    return 1;
}
