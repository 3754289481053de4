#include "fleet_rawserver.h"

#include "fleet_load.h"

#include <algorithm>
#include <array>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;

namespace {

constexpr std::size_t RegistrationLength = 18;
constexpr int Backlog = 4096;

/// Calls `each` for as many speakers, in turn, as their common interval asks for by now.
class Round {
public:
    explicit Round(std::chrono::milliseconds interval)
        : m_interval(interval) {}

    template<typename Each>
    void catchUp(std::size_t speakers, Each each) {
        const auto now = Clock::now();
        m_due += milliseconds(now - m_last) * static_cast<double>(speakers) /
                 static_cast<double>(m_interval.count());
        m_last = now;
        for (; m_due >= 1; m_due -= 1, ++m_next)
            each(m_next % std::max<std::size_t>(speakers, 1));
    }

private:
    std::chrono::milliseconds m_interval;
    Clock::time_point m_last = Clock::now();
    double m_due = 0;
    std::size_t m_next = 0;
};

class RawServer {
public:
    explicit RawServer(std::uint16_t port)
        : m_epoll(epoll_create1(EPOLL_CLOEXEC))
        , m_listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_ok = bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
               listen(m_listener, Backlog) == 0;
        watch(m_listener);
    }

    int run() {
        while (m_ok)
            turn();
        return 1;
    }

private:
    void watch(int fd) const {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = fd;
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event);
    }

    void turn() {
        std::array<epoll_event, 512> events{};
        const int count = epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), 10);
        for (int i = 0; i < count; ++i) {
            const int fd = events[static_cast<std::size_t>(i)].data.fd;
            if (fd == m_listener)
                accept();
            else
                read(fd);
        }
        m_keepAlive.catchUp(m_speakers.size(), [this](std::size_t i) { say(m_speakers[i], "OKOK"); });
        m_tick.catchUp(m_speakers.size(), [this](std::size_t i) { ++m_ticks[i]; });
    }

    void accept() {
        for (;;) {
            const int fd = accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0)
                return;
            const int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            watch(fd);
        }
    }

    void read(int fd) {
        std::array<char, 4096> buffer{};
        const ssize_t size = recv(fd, buffer.data(), buffer.size(), 0);
        if (size <= 0) {
            drop(fd);
            return;
        }
        const std::string_view bytes(buffer.data(), static_cast<std::size_t>(size));
        if (fd == m_controller)
            sayToAll(bytes.substr(1));
        else if (bytes == "CTRL")
            m_controller = fd;
        else if (bytes.size() == RegistrationLength)
            admit(fd);
    }

    void admit(int fd) {
        m_speakers.push_back(fd);
        m_ticks.push_back(0);
        say(fd, "JXXXXX");
    }

    void drop(int fd) {
        close(fd);
        if (fd == m_controller)
            m_controller = -1;
        m_speakers.erase(std::remove(m_speakers.begin(), m_speakers.end(), fd), m_speakers.end());
    }

    void sayToAll(std::string_view bytes) const {
        for (const int fd : m_speakers)
            say(fd, bytes);
    }

    static void say(int fd, std::string_view bytes) { send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

    int m_epoll;
    int m_listener;
    int m_controller = -1;
    bool m_ok = false;
    std::vector<int> m_speakers;
    std::vector<int> m_ticks;
    Round m_keepAlive{5000ms};
    Round m_tick{2000ms};
};

} // namespace

int runRawServer(std::uint16_t port) {
    return RawServer(port).run();
}
