#include "fleet_load.h"

#include "process.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr auto BeatInterval = 5000ms;
/// Connections begun before what has arrived meanwhile is read.
constexpr int ConnectBurst = 50;
/// Longest wait for a storm or a command: far beyond what is worth a figure.
constexpr auto Patience = 180s;
constexpr auto PauseAfterCommand = 200ms;
constexpr auto PauseAfterStorm = 3s;
/// What commands have set off besides, rows of a database for one, is done by then.
constexpr auto PauseBeforeRest = 10s;

void addToEpoll(int epoll, int fd, std::uint64_t tag) {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLET;
    event.data.u64 = tag;
    if (epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0)
        throw std::runtime_error("epoll_ctl");
}

/// The system searches long for a free port once an address has used half of its own.
constexpr int PerSourceAddress = 4000;
constexpr std::uint64_t ControllerTag = ~0ULL;

} // namespace

double milliseconds(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

int connectLoopback(std::uint16_t port, int index) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        throw std::runtime_error("no more sockets: raise the open-file limit");
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // Reset at close: no connection is left in TIME_WAIT for the next run to stumble over.
    const linger reset{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + static_cast<in_addr_t>(index / PerSourceAddress));
    setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("bind");
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 && errno != EINPROGRESS)
        throw std::runtime_error("connect");
    return fd;
}

void writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (written > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN || errno == ENOTCONN) {
            pollfd wait{fd, POLLOUT, 0};
            poll(&wait, 1, 1000);
        } else {
            throw std::runtime_error("connection lost while writing");
        }
    }
}

Fleet::Fleet(const Wire& wire, Options options)
    : m_wire(wire)
    , m_options(options)
    , m_epoll(epoll_create1(EPOLL_CLOEXEC)) {}

Fleet::~Fleet() {
    for (const Speaker& speaker : m_speakers)
        close(speaker.fd);
    close(m_controller);
    close(m_epoll);
}

Figures Fleet::run() {
    Figures figures;
    const long before = residentKilobytes(m_options.server);
    const double idle = cpuMilliseconds(m_options.server);
    figures.stormMs = storm();
    figures.stormCpuMs = cpuMilliseconds(m_options.server) - idle;
    openController();
    runFor(PauseAfterStorm);
    const double quiet = cpuMilliseconds(m_options.server);
    const auto firstCommand = Clock::now();
    figures.volumeMs = medianOf(Wire::Command::Volume);
    const double commandsCpuMs = cpuMilliseconds(m_options.server) - quiet;
    const double commandsMs = milliseconds(Clock::now() - firstCommand);
    figures.playMs = medianOf(Wire::Command::Play);
    figures.spreadMs = median(m_spreads);
    const double restRate = cpuRateAtRest();
    figures.cpuPercent = 100 * restRate;
    figures.volumeCpuMs = (commandsCpuMs - restRate * commandsMs) / Commands;
    figures.kilobytes = static_cast<double>(residentKilobytes(m_options.server) - before) /
                        static_cast<double>(m_options.count);
    return figures;
}

double Fleet::storm() {
    m_start = Clock::now();
    m_beats = 0;
    m_speakers.resize(static_cast<std::size_t>(m_options.count));
    for (int i = 0; i < m_options.count; ++i) {
        openSpeaker(i);
        if (i % ConnectBurst == 0)
            turn(0ms);
        runUntil([this, i] { return i - m_admitted < m_options.window; }, Patience, "connect storm");
    }
    runUntil([this] { return m_admitted == m_options.count; }, Patience, "connect storm");
    return milliseconds(Clock::now() - m_start);
}

void Fleet::cutOff() {
    for (Speaker& speaker : m_speakers) {
        close(speaker.fd);
        speaker = {};
    }
    m_admitted = 0;
}

void Fleet::openSpeaker(int index) {
    Speaker& speaker = m_speakers[static_cast<std::size_t>(index)];
    speaker.fd = connectLoopback(m_options.port, index);
    addToEpoll(m_epoll, speaker.fd, static_cast<std::uint64_t>(index));
}

void Fleet::openController() {
    m_controller = connectLoopback(m_options.controllerPort, 0);
    writeAll(m_controller, m_wire.controllerGreeting());
    addToEpoll(m_epoll, m_controller, ControllerTag);
}

double Fleet::medianOf(Wire::Command kind) {
    std::vector<double> times;
    m_spreads.clear();
    for (int i = 0; i < Commands; ++i) {
        times.push_back(commandToAll(kind, i));
        m_spreads.push_back(milliseconds(m_lastByte - m_firstByte));
        runFor(PauseAfterCommand);
    }
    return median(times);
}

double Fleet::commandToAll(Wire::Command kind, int round) {
    const std::string bytes = m_wire.command(kind, round);
    ++m_round;
    m_reached = 0;
    const auto start = Clock::now();
    writeAll(m_controller, bytes);
    runUntil([this] { return m_reached == m_options.count; }, Patience, "command");
    return milliseconds(m_lastByte - start);
}

/// CPU time of the server per time gone by.
double Fleet::cpuRateAtRest() {
    runFor(PauseBeforeRest);
    const double before = cpuMilliseconds(m_options.server);
    const auto start = Clock::now();
    runFor(m_options.rest);
    return (cpuMilliseconds(m_options.server) - before) / milliseconds(Clock::now() - start);
}

void Fleet::runUntil(const std::function<bool()>& done, std::chrono::seconds limit, const char* what) {
    const auto end = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > end) {
            throw std::runtime_error(std::string(what) + " not done: " + std::to_string(m_admitted) +
                                     " admitted, " + std::to_string(m_reached) + " reached");
        }
        turn(1ms);
    }
}

void Fleet::runFor(std::chrono::milliseconds duration) {
    for (const auto end = Clock::now() + duration; Clock::now() < end;)
        turn(5ms);
}

void Fleet::turn(std::chrono::milliseconds wait) {
    beat();
    std::array<epoll_event, 512> events{};
    const int count =
        epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), static_cast<int>(wait.count()));
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        if (event.data.u64 == ControllerTag) {
            drainController();
            continue;
        }
        Speaker& speaker = m_speakers[event.data.u64];
        // The first event tells that the connection stands.
        if (!speaker.admitted && speaker.commands == 0 && (event.events & EPOLLOUT) != 0) {
            writeAll(speaker.fd, m_wire.greeting(static_cast<int>(event.data.u64)));
            speaker.commands = -1;
        }
        if ((event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0)
            readSpeaker(speaker);
    }
}

/// Beats that have become due since the last turn; the fleet is spread evenly over the interval.
void Fleet::beat() {
    const auto due = static_cast<std::int64_t>(milliseconds(Clock::now() - m_start) * m_options.count /
                                               static_cast<double>(BeatInterval.count()));
    for (; m_beats < due; ++m_beats) {
        const Speaker& speaker = m_speakers[static_cast<std::size_t>(m_beats % m_options.count)];
        if (speaker.admitted)
            writeAll(speaker.fd, m_wire.beat());
    }
}

void Fleet::readSpeaker(Speaker& speaker) {
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t size = recv(speaker.fd, buffer.data(), buffer.size(), 0);
        if (size < 0 && errno == EAGAIN)
            return;
        if (size <= 0)
            throw std::runtime_error("the server dropped a speaker");
        std::string_view bytes(buffer.data(), static_cast<std::size_t>(size));
        if (!speaker.pending.empty())
            bytes = speaker.pending.append(bytes);
        while (!bytes.empty()) {
            const Wire::Step step = m_wire.read(bytes);
            if (step.consumed == 0)
                break;
            bytes.remove_prefix(step.consumed);
            hear(speaker, step.heard);
            writeAll(speaker.fd, step.answer);
        }
        speaker.pending = std::string(bytes);
        if (size < static_cast<ssize_t>(buffer.size()))
            return;
    }
}

void Fleet::hear(Speaker& speaker, Wire::Heard heard) {
    if (heard == Wire::Heard::Admitted && !speaker.admitted) {
        speaker.admitted = true;
        speaker.commands = 0;
        ++m_admitted;
    } else if (heard == Wire::Heard::Command && ++speaker.commands == m_round) {
        m_lastByte = Clock::now();
        if (++m_reached == 1)
            m_firstByte = m_lastByte;
    }
}

void Fleet::drainController() {
    std::array<char, 65536> buffer{};
    while (recv(m_controller, buffer.data(), buffer.size(), 0) > 0) {
    }
}
